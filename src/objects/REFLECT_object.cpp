#include "objects/REFLECT_object.h"

#include "objects/HandlePool_p.h"
#include "objects/ObjectHandler.h"
#include "objects/REFLECT_objectStub.h"
#include "platform/Immortal_p.h"
#include "platform/Log.h"
#include "reflection/REFLECT_metaObject.h"
#include "reflection/REFLECT_tieds.h"

namespace {

constexpr char kSource[] = "REFLECT_object";

// Not those of TreflectAttribute.
Immortal<TreflectErrorAttribute> noAttribute(nullptr, nullptr);
Immortal<TreflectErrorOperation> noOperation(nullptr, nullptr);

} // namespace

TreflectErrorAttribute &TreflectObject::errorAttribute = noAttribute.object;
TreflectErrorOperation &TreflectObject::errorOperation = noOperation.object;

TreflectObject::TreflectObject() : TipprmiObjectClient(TipprmiOID(nullptr, NamespaceId(1))) {}
TreflectObject::TreflectObject(const TipprmiObjectSkeleton *object) : TipprmiObjectClient(object) {}
TreflectObject::TreflectObject(const TipprmiOID &oid) : TipprmiObjectClient(oid) {}
TreflectObject::TreflectObject(const TreflectObject &other) : TipprmiObjectClient(other) {}

TreflectObject &TreflectObject::operator=(const TreflectObject &other) {
    if (this != &other && getStub() != other.getStub()) {
        TipprmiObjectClient::operator=(other);
    }
    return *this;
}

TreflectObject::~TreflectObject() {
    exchangeStub(nullptr);
    TreflectTieds::destroyTieds(this);
}

void TreflectObject::exchangeStub(TreflectObjectStub *stub) {
    TreflectObjectStub *const old = getStub();
    setStub_(stub);
    if (old != nullptr) {
        TreflectObjectHandler::getInstance()->releaseStub(old);
    }
}

void TreflectObject::connect(const TreflectORB *, const TipprmiOID &oid) {
    connect(oid);
}

void TreflectObject::connect(TipprmiObjectSkeleton *object) {
    TipprmiObjectClient::connect(object);
}

void TreflectObject::connect(const TipprmiOID &oid) {
    TreflectObjectHandler *const handler = TreflectObjectHandler::getInstance();
    exchangeStub(handler != nullptr ? handler->adoptStub(oid) : nullptr);
}

TreflectAttribute *TreflectObject::attribute(const std::string &name) const {
    const TreflectMetaObject *const type = meta();
    const TreflectMetaAttribute *const found = type != nullptr ? type->metaAttribute(name) : nullptr;
    TreflectAttribute *const tied =
        found != nullptr ? found->TreflectMemberFactory<TreflectAttribute>::getTied(this) : nullptr;
    if (tied == nullptr) {
        LogDispatch(3, LogMakeString("attribute \"%s\" not found", name.c_str()), kSource);
        return &errorAttribute;
    }
    tied->clearIndex();
    return tied;
}

TreflectOperation *TreflectObject::operation(const std::string &name) const {
    const TreflectMetaObject *const type = meta();
    const TreflectMetaOperation *const found = type != nullptr ? type->metaOperation(name) : nullptr;
    TreflectOperation *const tied = found != nullptr ? found->getTied(this) : nullptr;
    if (tied == nullptr) {
        LogDispatch(6, LogMakeString("[Wrn] operation \"%s\" not found", name.c_str()), kSource);
        return &errorOperation;
    }
    return tied;
}

const TreflectMetaObject *TreflectObject::meta() const {
    return getStub() != nullptr ? getStub()->meta() : nullptr;
}

std::string TreflectObject::getAbsName() const {
    return getStub() != nullptr ? getStub()->getAbsName() : std::string();
}

std::string TreflectObject::getRelName() const {
    return getStub() != nullptr ? getStub()->getRelName() : std::string();
}

TreflectObject TreflectObject::getParent() const {
    return getStub() != nullptr ? getStub()->getParent() : TreflectObject();
}

TreflectObject TreflectObject::getChild(const std::string &name) const {
    return getStub() != nullptr ? getStub()->getChild(name) : TreflectObject();
}

TipprmiSequence<TreflectObject> TreflectObject::getChilds() const {
    return getStub() != nullptr ? getStub()->getChilds() : TipprmiSequence<TreflectObject>();
}

void TreflectObject::registerChild(const std::string &name, const TreflectObject &child) const {
    if (getStub() != nullptr) {
        getStub()->registerChild(name, child);
    }
}

void TreflectObject::unregisterChild(const std::string &name) const {
    if (getStub() != nullptr) {
        getStub()->unregisterChild(name);
    }
}

void TreflectObject::registerObserver(unsigned when, const TreflectMetaOperation *operation,
                                      TreflectObserver *observer) const {
    if (getStub() != nullptr) {
        getStub()->registerObserver(when, operation, observer);
    }
}

void TreflectObject::removeObserver(const TreflectMetaOperation *operation, TreflectObserver *observer) const {
    if (getStub() != nullptr) {
        getStub()->removeObserver(operation, observer);
    }
}

void *TreflectObject::operator new(std::size_t size) {
    void *const memory = operator new(size, std::nothrow);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void *TreflectObject::operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return size == sizeof(TreflectObject) ? HandlePool::take() : ::operator new(size, std::nothrow);
}

void TreflectObject::operator delete(void *pointer, std::size_t size) noexcept {
    if (pointer != nullptr && size == sizeof(TreflectObject)) {
        HandlePool::giveBack(pointer);
    } else if (pointer != nullptr) {
        ::operator delete(pointer);
    }
}

/** Nobody says how large it was to become. */
void TreflectObject::operator delete(void *pointer, const std::nothrow_t &) noexcept {
    operator delete(pointer, HandlePool::owns(pointer) ? sizeof(TreflectObject) : 0);
}

TipprmiStream &operator>>(TipprmiStream &stream, TreflectObject &object) {
    return stream >> static_cast<TipprmiObjectClient &>(object);
}
