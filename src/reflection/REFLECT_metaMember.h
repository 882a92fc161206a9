#pragma once

#include "platform/Export.h"
#include "reflection/REFLECT_memberFactory.h"

#include <map>
#include <string>

class TreflectMetaObject;

/** Describes a member of a class. Belongs to the class's meta object. */
class REFLECTORB_API TreflectMetaMember {
public:
    TreflectMetaMember(const std::string &name, const TreflectMetaObject *containing)
        : name_(name), containing_(containing) {}
    TreflectMetaMember(const TreflectMetaMember &) = delete;
    TreflectMetaMember &operator=(const TreflectMetaMember &) = delete;
    virtual ~TreflectMetaMember();

    const std::string &name() const noexcept { return name_; }
    const TreflectMetaObject *containingMetaObject() const noexcept { return containing_; }

private:
    const std::string name_;
    const TreflectMetaObject *const containing_;
};

/** Describes an operation, and makes handles to it. */
class REFLECTORB_API TreflectMetaOperation : public TreflectMetaMember,
                                             public TreflectMemberFactory<TreflectOperation> {
public:
    TreflectMetaOperation(const std::string &name, const TreflectMetaObject *containing, int code)
        : TreflectMetaMember(name, containing), id_(code) {}
    ~TreflectMetaOperation() override;

    /** The method code. */
    int id() const noexcept { return id_; }
    /** Types by name. */
    const std::map<std::string, std::string> &parameterMap() const noexcept { return parameters_; }
    /** The last type of a name stays. Like all that completes a class, not while other threads use it. */
    void registerParameter(const std::string &name, const std::string &type);

private:
    const int id_;
    std::map<std::string, std::string> parameters_;
};

/** Describes an attribute, and makes handles to it. */
class REFLECTORB_API TreflectMetaAttribute : public TreflectMetaMember,
                                             public TreflectMemberFactory<TreflectAttribute> {
public:
    /** `set` is null for an attribute that can only be read. */
    TreflectMetaAttribute(const std::string &name, const TreflectMetaObject *containing,
                          const TreflectMetaOperation *get, const TreflectMetaOperation *set)
        : TreflectMetaAttribute(name, containing, get, set, 1) {}
    ~TreflectMetaAttribute() override;

    /** Elements of an array, bound of a sequence, else 1. */
    int constLength() const noexcept { return constLength_; }
    /** Empty until a type is registered. */
    const std::string &typeName() const noexcept { return typeName_; }
    /** Of an attribute that holds objects the class of these, else null. */
    TreflectMetaObject *typeMeta() const noexcept { return typeMeta_; }
    const TreflectMetaOperation *metaOperGet() const noexcept { return metaOperGet_; }
    const TreflectMetaOperation *metaOperSet() const noexcept { return metaOperSet_; }
    /** Not null. Without memory a line in the log, and no change. */
    void registerType(TreflectMetaObject *type);

protected:
    TreflectMetaAttribute(const std::string &name, const TreflectMetaObject *containing,
                          const TreflectMetaOperation *get, const TreflectMetaOperation *set, int length)
        : TreflectMetaMember(name, containing), constLength_(length), metaOperGet_(get), metaOperSet_(set) {}

private:
    const int constLength_;
    std::string typeName_;
    const TreflectMetaOperation *const metaOperGet_;
    const TreflectMetaOperation *const metaOperSet_;
    TreflectMetaObject *typeMeta_ = nullptr;
};

/** Of an array. Only handles that are made through this type know of it; those that an object gives out do not. */
class REFLECTORB_API TreflectArrayMetaAttribute : public TreflectMetaAttribute {
public:
    TreflectArrayMetaAttribute(const std::string &name, const TreflectMetaObject *containing,
                               const TreflectMetaOperation *get, const TreflectMetaOperation *set, int length)
        : TreflectMetaAttribute(name, containing, get, set, length) {}
    ~TreflectArrayMetaAttribute() override;
    virtual TreflectAttribute *getTied(const TreflectObject *object) const;
};

/** Of a sequence; see TreflectArrayMetaAttribute. */
class REFLECTORB_API TreflectSequenceMetaAttribute : public TreflectMetaAttribute {
public:
    TreflectSequenceMetaAttribute(const std::string &name, const TreflectMetaObject *containing,
                                  const TreflectMetaOperation *get, const TreflectMetaOperation *set, int bound)
        : TreflectMetaAttribute(name, containing, get, set, bound) {}
    ~TreflectSequenceMetaAttribute() override;
    virtual TreflectAttribute *getTied(const TreflectObject *object) const;
};
