#pragma once

#include "platform/Export.h"
#include "reflection/REFLECT_operation.h"
#include "rmi/IPPRMI_sequence.h"

#include <cstdint>
#include <string>

class TreflectErrorAttribute;
class TreflectMetaAttribute;

/**
 * Handle of an attribute of one object. Belongs to the object's handle, and goes with it; of one thread at a time.
 * Reads are calls to the object: with the run permission, and as long as that takes.
 */
class REFLECTORB_API TreflectAttribute {
public:
    enum TreflectAttributeType : std::int32_t { plain = 0, sequence = 1, array = 2 };
    static constexpr int error = 4;
    /** Stand for what does not exist. They are never destroyed. */
    static TreflectErrorAttribute &errorAttribute;
    static TreflectErrorOperation &errorOperation;

    constexpr TreflectAttribute(const TreflectMetaAttribute *meta, const TreflectObject *object) noexcept
        : TreflectAttribute(meta, object, false) {}
    TreflectAttribute(const TreflectAttribute &) = delete;
    TreflectAttribute &operator=(const TreflectAttribute &) = delete;
    virtual ~TreflectAttribute();

    /** Members of the object that the attribute holds; the error handles if it holds none, or that has none such. A new
     *  handle each time, kept until the object's handle is destroyed. When the attribute reads another object, the
     *  handles that were made before stand for the members of that one. */
    virtual TreflectOperation *operation(const std::string &name);
    virtual TreflectAttribute *attribute(const std::string &name);

    const TreflectMetaAttribute *meta() const noexcept { return meta_; }
    int constLength() const noexcept;
    /** Selects an element for the next reads; -1: none. Plain attributes, which all are that an object gives out, are
     *  read as a whole all the same, but with an element selected their object is read again at each navigation. */
    TreflectAttribute &operator[](int index) noexcept;
    void clearIndex() noexcept { (*this)[-1]; }
    int index() const noexcept { return index_; }
    void setContainerType(TreflectAttributeType type) noexcept;
    TreflectAttributeType containerType() const noexcept { return containerType_; }
    /** Handles of the accessors, the same at each call. That of a missing setter answers like the error handle. */
    TreflectOperation *operGet();
    TreflectOperation *operSet();

    /**
     * Reads the value, or the selected element. 0, also when the call failed (`out` is as a read past the end leaves
     * it, but as it was if an element of a sequence is selected) and when the index is beyond the elements (`out` is
     * left as it is); `error` if there is no such attribute.
     */
    template <class T>
    int get(T &out) const;
    /** Reads the object that the attribute holds, if it holds one: once, or at every call if an element is selected. */
    void updateContainedObject();

protected:
    constexpr TreflectAttribute(const TreflectMetaAttribute *meta, const TreflectObject *object, bool isError) noexcept
        : meta_(meta), object_(object), error_(isError) {}

private:
    bool isError() const noexcept { return error_ || meta_ == nullptr; }
    bool isReadable() const noexcept;
    bool hasElement(unsigned index) const noexcept;
    void call(TipprmiStream &response) const;

    const TreflectMetaAttribute *const meta_;
    const TreflectObject *const object_;
    const bool error_;
    TreflectObject *contained_ = nullptr; // owned
    TreflectOperation *operGet_ = nullptr;
    TreflectOperation *operSet_ = nullptr;
    TreflectAttributeType containerType_ = plain;
    int index_ = -1;
};

/** Stands for an attribute that does not exist. */
class REFLECTORB_API TreflectErrorAttribute : public TreflectAttribute {
public:
    constexpr TreflectErrorAttribute(const TreflectMetaAttribute *meta, const TreflectObject *object) noexcept
        : TreflectAttribute(meta, object, true) {}
    ~TreflectErrorAttribute() override;
    TreflectOperation *operation(const std::string &name) override;
    TreflectAttribute *attribute(const std::string &name) override;
};

template <class T>
int TreflectAttribute::get(T &out) const {
    if (!isReadable()) {
        return error;
    }
    TipprmiStream response(TipprmiStream::kCallSize);
    call(response);
    if (containerType_ != plain && containerType_ != sequence && containerType_ != array) {
        return 0;
    }
    if (containerType_ == plain || index_ == -1) {
        response >> out;
        return 0;
    }
    const auto index = static_cast<unsigned>(index_);
    if (containerType_ == sequence) {
        TipprmiSequence<T> elements;
        response >> elements;
        if (index < elements.getLength()) {
            out = elements[index];
        }
        return 0;
    }
    if (!hasElement(index)) {
        return 0;
    }
    for (unsigned i = 0; i < index && !response.hasUnmarshallingFailed(); ++i) {
        T skipped{};
        response >> skipped;
    }
    response >> out;
    return 0;
}
