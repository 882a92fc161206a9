#include "rmi/IPPRMI_objectClient.h"

#include "objects/ObjectHandler.h"
#include "objects/REFLECT_objectStub.h"
#include "orb/REFLECT_orb.h"
#include "rmi/IPPRMI_objectSkeleton.h"

#include <utility>

namespace {

template <class... Arguments>
TreflectObjectStub *adopt(const Arguments &...arguments) {
    TreflectObjectHandler *const handler = TreflectObjectHandler::getInstance();
    return handler != nullptr ? handler->adoptStub(arguments...) : nullptr;
}

TipprmiOID nobody() {
    return TipprmiOID(nullptr, NamespaceId(1));
}

TreflectORB::TreflectObjectLocation locationOf(const TipprmiObjectSkeleton *object) {
    return TreflectORB::TreflectObjectLocation(object->getInternalOID(), object->orbId(),
                                               const_cast<TipprmiObjectSkeleton *>(object),
                                               object->hasOID() ? object->getOID() : nobody());
}

} // namespace

TipprmiObjectClient::TipprmiObjectClient() : stub_(adopt(nobody())) {}
TipprmiObjectClient::TipprmiObjectClient(const TipprmiOID &oid) : stub_(adopt(oid)) {}
TipprmiObjectClient::TipprmiObjectClient(const TreflectORB *orb, const TipprmiOID &oid) : stub_(adopt(orb, oid)) {}
TipprmiObjectClient::TipprmiObjectClient(const TipprmiObjectSkeleton *object)
    : stub_(object != nullptr ? adopt(locationOf(object)) : adopt(nobody())) {}
TipprmiObjectClient::TipprmiObjectClient(TreflectObjectStub *stub) : stub_(adopt(stub)) {}
TipprmiObjectClient::TipprmiObjectClient(const TipprmiObjectClient &other) : stub_(adopt(other.stub_)) {}

TipprmiObjectClient &TipprmiObjectClient::operator=(const TipprmiObjectClient &other) {
    if (this != &other) {
        exchange(adopt(other.stub_));
    }
    return *this;
}

TipprmiObjectClient::~TipprmiObjectClient() {
    exchange(nullptr);
}

/** The new stub is taken before the old one goes, which may be the same. */
void TipprmiObjectClient::exchange(TreflectObjectStub *stub) {
    TreflectObjectStub *const old = std::exchange(stub_, stub);
    if (old != nullptr) {
        TreflectObjectHandler::getInstance()->releaseStub(old);
    }
}

bool TipprmiObjectClient::forwardMsg(const TreflectOrbId &orb, bool transaction, TipprmiStream &request,
                                     TipprmiStream &response) const {
    return stub_ != nullptr && stub_->forwardMsg(orb, transaction, request, response);
}

bool TipprmiObjectClient::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                                   TipprmiStream &response) const {
    return stub_ != nullptr && stub_->dispatch(transaction, cc, mc, request, response);
}

void TipprmiObjectClient::connect(const TreflectORB *orb, const TipprmiOID &oid) {
    exchange(adopt(orb, oid));
}

void TipprmiObjectClient::connect(TipprmiObjectSkeleton *object) {
    exchange(object != nullptr ? adopt(locationOf(object)) : adopt(nobody()));
}

TipprmiObjectSkeleton *TipprmiObjectClient::getServer() const {
    return stub_ != nullptr ? stub_->getServer() : nullptr;
}

TipprmiOID TipprmiObjectClient::getOID() const {
    return stub_ != nullptr ? stub_->getOID() : nobody();
}

bool TipprmiObjectClient::isConnected() const {
    return stub_ != nullptr && stub_->isConnected();
}

void TipprmiObjectClient::prepareRequestStream_(bool transaction, unsigned cc, unsigned mc,
                                                TipprmiStream &request) const {
    request.clear();
    if (stub_ != nullptr) {
        stub_->prepareRequestStream(transaction, cc, mc, request);
    }
}

void TipprmiObjectClient::prepareResponseStream_(bool transaction, TipprmiStream &response) const {
    if (stub_ != nullptr) {
        stub_->prepareResponseStream(transaction, response);
    }
}

bool operator==(const TipprmiObjectClient &a, const TipprmiObjectClient &b) {
    return a.getStub_() != nullptr && b.getStub_() != nullptr ? *a.getStub_() == *b.getStub_()
                                                              : a.getStub_() == b.getStub_();
}

TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiObjectClient &client) {
    if (const TreflectObjectStub *stub = client.getStub_()) {
        return stream << static_cast<const TreflectObjectLocationIf &>(*stub);
    }
    return stream << static_cast<const TreflectObjectLocationIf &>(TreflectORB::TreflectObjectLocation(nobody()));
}

TipprmiStream &operator>>(TipprmiStream &stream, TipprmiObjectClient &client) {
    TreflectORB::TreflectObjectLocation location(nobody());
    stream >> location;
    TreflectObjectStub *const stub = adopt(location); // which may block: others may give the handle another one
    TreflectObjectStub *const old = client.getStub_();
    client.setStub_(stub);
    if (old != nullptr) {
        TreflectObjectHandler::getInstance()->releaseStub(old);
    }
    return stream;
}
