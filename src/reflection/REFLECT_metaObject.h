#pragma once

#include "platform/Export.h"
#include "reflection/REFLECT_metaMember.h"

#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>

class TreflectObserver;

/**
 * Describes a class at run time: name, id, attributes, operations, parents. There is one for each class, which is in
 * the InterfaceRepository from its construction to its destruction; make it at load time and let it live. What
 * completes it must not run while other threads look members up: the classes of a process should be complete before
 * they are used by several threads, or be completed inside TreflectHandlerState(true).
 */
class REFLECTORB_API TreflectMetaObject {
public:
    struct MetaOpData {
        const char *name;
        int code; // method code
    };
    struct MetaAttrData {
        const char *name;
    };

    /** Without memory for the name the class is not in the repository. */
    TreflectMetaObject(const std::string &name, unsigned classId);
    TreflectMetaObject(const TreflectMetaObject &) = delete;
    TreflectMetaObject &operator=(const TreflectMetaObject &) = delete;
    /** Deletes the members, not the relatives. */
    virtual ~TreflectMetaObject();

    virtual const std::string &name() const;
    /** Makes members and relations known. Called at every look-up of the class, so it must do nothing the second time;
     *  it should set `completed_` before anything else, since classes may refer to each other. It completes the classes
     *  of its object attributes, too, as navigation does not look them up. With the run permission. */
    virtual void completeMetaInformation() = 0;

    unsigned getClassId() const noexcept { return classId_; }
    unsigned id() const noexcept { return classId_; }

    /** Takes the member over; one of the same name is replaced and not deleted. Without memory the new one is deleted.
     */
    void registerAttribute(TreflectMetaAttribute *attribute);
    void registerOperation(TreflectMetaOperation *operation);
    /** Both ways; always true. Not null, and a class must not become its own ancestor. */
    bool registerParent(TreflectMetaObject *parent);
    bool registerChild(TreflectMetaObject *child);

    /** Appends the own members by name, then those of the parents; what is redefined is there more than once. */
    void attributeList(std::list<TreflectMetaAttribute *> &out) const;
    void operationList(std::list<TreflectMetaOperation *> &out) const;
    /** The own member of the name, else the first of the parents'; null, and a line in the log, if there is none. For
     *  an attribute there is a line of each class on the way that has none, also if a later parent has it. */
    TreflectMetaAttribute *metaAttribute(const std::string &name) const;
    TreflectMetaOperation *metaOperation(const std::string &name) const;
    /** Without the line. */
    TreflectMetaOperation *metaOperation_(const std::string &name) const;
    /** Whether the class is the other one or descends from it. */
    bool isA(const TreflectMetaObject *other) const;

    /** See the operations of these names of TreflectORB; of the broker of namespace 1. False for null. */
    bool observeCreations(TreflectObserver *observer, bool plusExisting);
    bool observeDeletions(TreflectObserver *observer);
    void removeObserver(TreflectObserver *observer);

    const std::set<TreflectMetaObject *> &parents() const noexcept { return parents_; }
    const std::set<TreflectMetaObject *> &children() const noexcept { return children_; }

    /**
     * Makes members from tables: an operation for each entry, a plain attribute for each name that has an operation
     * "get" + name, here or in a parent; "set" + name makes it writable. Attributes after one without getter are not
     * made. Neither table may be null, also when its count is 0.
     */
    void completeMetaInformationHelper(const MetaOpData *operations, unsigned operationCount,
                                       const MetaAttrData *attributes, unsigned attributeCount);

protected:
    std::uint32_t completed_ = 0; // for the class that derives

private:
    void makeOperation(const MetaOpData &data);
    bool makeAttribute(const MetaAttrData &data);

    const std::string name_;
    const unsigned classId_;
    std::map<std::string, TreflectMetaAttribute *> attributes_; // owned
    std::map<std::string, TreflectMetaOperation *> operations_; // owned
    std::set<TreflectMetaObject *> parents_;
    std::set<TreflectMetaObject *> children_;
};
