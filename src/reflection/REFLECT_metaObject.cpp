#include "reflection/REFLECT_metaObject.h"

#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "platform/Log.h"
#include "reflection/REFLECT_InterfaceRepository.h"

#include <new>

namespace {

constexpr char kSource[] = "REFLECT_metaObject";

template <class Member>
bool store(std::map<std::string, Member *> &members, Member *member) {
    try {
        members[member->name()] = member;
        return true;
    } catch (const std::bad_alloc &) {
        LogDispatch(3, "no memory for a meta member", kSource);
        return false;
    }
}

template <class Member>
Member *find(const std::map<std::string, Member *> &members, const std::string &name) {
    const auto entry = members.find(name);
    return entry != members.end() ? entry->second : nullptr;
}

template <class Member>
void append(const std::map<std::string, Member *> &members, std::list<Member *> &out) {
    try {
        for (const auto &entry : members) {
            out.push_back(entry.second);
        }
    } catch (const std::bad_alloc &) {
        LogDispatch(3, "no memory for a list of meta members", kSource);
    }
}

/** Empty without memory. */
std::string copyOf(const std::string &name, unsigned classId) noexcept {
    try {
        return name;
    } catch (const std::bad_alloc &) {
        LogDispatch(3, LogMakeString("no memory for the name of class 0x%X", classId), kSource);
        return std::string();
    }
}

bool insert(std::set<TreflectMetaObject *> &relatives, TreflectMetaObject *relative) {
    try {
        relatives.insert(relative);
    } catch (const std::bad_alloc &) {
        LogDispatch(3, "no memory for the relation of two classes", kSource);
    }
    return true;
}

} // namespace

/** A class is made when the process starts, where nobody could catch what is thrown. */
TreflectMetaObject::TreflectMetaObject(const std::string &name, unsigned classId)
    : name_(copyOf(name, classId)), classId_(classId) {
    if (name_.size() == name.size()) { // without its name it must not pass for the class
        InterfaceRepository::instance()->registerInterface(this);
    }
}

TreflectMetaObject::~TreflectMetaObject() {
    InterfaceRepository::instance()->unregisterInterface(this);
    for (const auto &entry : attributes_) {
        delete entry.second;
    }
    for (const auto &entry : operations_) {
        delete entry.second;
    }
}

const std::string &TreflectMetaObject::name() const {
    return name_;
}

void TreflectMetaObject::registerAttribute(TreflectMetaAttribute *attribute) {
    if (attribute != nullptr && !store(attributes_, attribute)) {
        delete attribute;
    }
}

void TreflectMetaObject::registerOperation(TreflectMetaOperation *operation) {
    if (operation != nullptr && !store(operations_, operation)) {
        delete operation;
    }
}

bool TreflectMetaObject::registerParent(TreflectMetaObject *parent) {
    insert(parents_, parent);
    parent->registerChild(this);
    return true;
}

bool TreflectMetaObject::registerChild(TreflectMetaObject *child) {
    return insert(children_, child);
}

void TreflectMetaObject::attributeList(std::list<TreflectMetaAttribute *> &out) const {
    append(attributes_, out);
    for (const TreflectMetaObject *parent : parents_) {
        parent->attributeList(out);
    }
}

void TreflectMetaObject::operationList(std::list<TreflectMetaOperation *> &out) const {
    append(operations_, out);
    for (const TreflectMetaObject *parent : parents_) {
        parent->operationList(out);
    }
}

TreflectMetaAttribute *TreflectMetaObject::metaAttribute(const std::string &name) const {
    TreflectMetaAttribute *found = find(attributes_, name);
    for (auto parent = parents_.begin(); found == nullptr && parent != parents_.end(); ++parent) {
        found = (*parent)->metaAttribute(name);
    }
    if (found == nullptr) {
        LogDispatch(4, LogMakeString("TreflectMetaObject::metaAttribute(%s) NOT found, returning 0", name.c_str()),
                    kSource);
    }
    return found;
}

TreflectMetaOperation *TreflectMetaObject::metaOperation_(const std::string &name) const {
    TreflectMetaOperation *found = find(operations_, name);
    for (auto parent = parents_.begin(); found == nullptr && parent != parents_.end(); ++parent) {
        found = (*parent)->metaOperation_(name);
    }
    return found;
}

TreflectMetaOperation *TreflectMetaObject::metaOperation(const std::string &name) const {
    TreflectMetaOperation *const found = metaOperation_(name);
    if (found == nullptr) {
        LogDispatch(4,
                    LogMakeString("TreflectMetaObject(%s)::metaOperation(%s) NOT found, returning 0",
                                  this->name().c_str(), name.c_str()),
                    kSource);
    }
    return found;
}

bool TreflectMetaObject::isA(const TreflectMetaObject *other) const {
    if (other == this) {
        return true;
    }
    for (const TreflectMetaObject *parent : parents_) {
        if (parent->isA(other)) {
            return true;
        }
    }
    return false;
}

// The broker is kept while it is used: the process may exit meanwhile.

bool TreflectMetaObject::observeCreations(TreflectObserver *observer, bool plusExisting) {
    if (observer == nullptr) {
        return false;
    }
    const SingletonInstances::Pin orb(1);
    return orb.get() != nullptr && orb.get()->observeCreations(classId_, *observer, plusExisting);
}

bool TreflectMetaObject::observeDeletions(TreflectObserver *observer) {
    if (observer == nullptr) {
        return false;
    }
    const SingletonInstances::Pin orb(1);
    return orb.get() != nullptr && orb.get()->observeDeletions(classId_, *observer);
}

void TreflectMetaObject::removeObserver(TreflectObserver *observer) {
    if (observer == nullptr) {
        return;
    }
    const SingletonInstances::Pin orb(1);
    if (orb.get() != nullptr) {
        orb.get()->removeObserver(classId_, *observer);
    }
}

void TreflectMetaObject::completeMetaInformationHelper(const MetaOpData *operations, unsigned operationCount,
                                                       const MetaAttrData *attributes, unsigned attributeCount) {
    if (operations == nullptr || attributes == nullptr) {
        LogDispatch(3, LogMakeString("Invalid meta information for meta object \"%s\"", name().c_str()), kSource);
        return;
    }
    try {
        for (unsigned i = 0; i < operationCount; ++i) {
            makeOperation(operations[i]);
        }
        for (unsigned i = 0; i < attributeCount; ++i) {
            if (!makeAttribute(attributes[i])) {
                return;
            }
        }
    } catch (const std::bad_alloc &) { // for a name
        LogDispatch(3, "no memory for a meta member", kSource);
    }
}

void TreflectMetaObject::makeOperation(const MetaOpData &data) {
    registerOperation(new TreflectMetaOperation(data.name, this, data.code));
}

bool TreflectMetaObject::makeAttribute(const MetaAttrData &data) {
    const std::string attribute = data.name;
    const TreflectMetaOperation *const getter = metaOperation_("get" + attribute);
    if (getter == nullptr) {
        LogDispatch(3,
                    LogMakeString("no get operation registered for attribute \"%s\" of class \"%s\"", data.name,
                                  name().c_str()),
                    kSource);
        return false;
    }
    const TreflectMetaOperation *const setter = metaOperation_("set" + attribute);
    registerAttribute(new TreflectMetaAttribute(attribute, this, getter, setter));
    return true;
}
