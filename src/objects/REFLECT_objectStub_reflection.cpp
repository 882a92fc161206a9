#include "objects/REFLECT_objectStub.h"

#include "objects/AbstractLevel_p.h"
#include "objects/BuiltInMethods_p.h"
#include "objects/MethodAtWork_p.h"
#include "objects/REFLECT_serverObject.h"
#include "observation/REFLECT_Observer.h"
#include "platform/Log.h"
#include "reflection/REFLECT_InterfaceRepository.h"
#include "reflection/REFLECT_metaObject.h"

namespace {

constexpr char kSource[] = "REFLECT_objectStub";

/** A call of one of the methods that every object answers. */
class BuiltInCall {
public:
    BuiltInCall(const TreflectObjectStub &stub, unsigned mc) : stub_(stub), mc_(mc) {
        stub_.prepareRequestStream(true, 0, mc_, request_);
    }

    TipprmiStream &arguments() noexcept { return request_; }
    /** Not if the request is incomplete, which would be another one. */
    void sendOnly() {
        if (request_.hasMarshallingFailed()) {
            LogDispatch(3, LogMakeString("no memory for a call of method %u", mc_), kSource);
            response_.stopUnmarshalling();
        } else {
            stub_.dispatch(true, 0, mc_, request_, response_);
        }
    }
    /** What the answer holds after the exception container; zeros if the call failed. */
    TipprmiStream &send() {
        sendOnly();
        stub_.prepareResponseStream(true, response_);
        return response_;
    }
    /** After the results were read. */
    void check() const { check(mc_); }
    void check(unsigned mc) const {
        if (response_.hasUnmarshallingFailed()) {
            response_.printUnmarshallError(0, mc);
        }
    }

private:
    const TreflectObjectStub &stub_;
    const unsigned mc_;
    TipprmiStream request_{TipprmiStream::kCallSize};
    TipprmiAny response_; // costs no memory until it is the answer
};

template <class Result>
Result ask(BuiltInCall &&call) {
    Result result{};
    call.send() >> result;
    call.check();
    return result;
}

/** Null also for an object of this process that is no reflective one: a peer may have sent its reference as one. */
TreflectServerObject *reflective(TipprmiObjectSkeleton *server) {
    return dynamic_cast<TreflectServerObject *>(server);
}

/** The same, for a method that may block. */
class AtWork {
public:
    explicit AtWork(TipprmiObjectSkeleton *server) : object_(reflective(server)), atWork_(object_) {}
    explicit operator bool() const noexcept { return object_ != nullptr; }
    TreflectServerObject *operator->() const noexcept { return object_; }

private:
    TreflectServerObject *const object_;
    const MethodAtWork atWork_;
};

} // namespace

const TreflectMetaObject *TreflectObjectStub::meta() const {
    // Not in meta_ meanwhile: another thread may ask while this one waits for the answer.
    const TreflectMetaObject *found = nullptr;
    if (isConnected()) {
        TipprmiSequence<unsigned> ids;
        if (TipprmiObjectSkeleton *server = getServer()) {
            const TreflectServerObject *object = reflective(server);
            ids = object != nullptr ? classIdsOf(*object) : ids;
        } else {
            ids = ask<TipprmiSequence<unsigned>>(BuiltInCall(*this, BuiltIn::getClassIds));
        }
        for (unsigned i = 0; i < ids.getLength() && found == nullptr; ++i) {
            found = InterfaceRepository::instance()->findInterface(ids[i]);
        }
    }
    if (found == nullptr) {
        LogDispatch(4, "TreflectObjectStub::meta() - did not find any meta information, returning NULL", kSource);
    }
    meta_ = found;
    return found;
}

// --- the tree -------------------------------------------------------------------------------------------------------

std::string TreflectObjectStub::getAbsName() const {
    if (TipprmiObjectSkeleton *server = getServer()) {
        const AtWork object(server);
        return object ? object->getAbsName() : std::string();
    }
    return ask<std::string>(BuiltInCall(*this, BuiltIn::getAbsName));
}

std::string TreflectObjectStub::getRelName() const {
    if (TipprmiObjectSkeleton *server = getServer()) {
        const TreflectServerObject *object = reflective(server);
        return object != nullptr ? object->getRelName() : std::string();
    }
    return ask<std::string>(BuiltInCall(*this, BuiltIn::getRelName));
}

TreflectObject TreflectObjectStub::getParent() const {
    if (TipprmiObjectSkeleton *server = getServer()) {
        const AtWork object(server);
        return object ? object->getParent() : TreflectObject();
    }
    return ask<TreflectObject>(BuiltInCall(*this, BuiltIn::getParent));
}

TreflectObject TreflectObjectStub::getChild(const std::string &name) const {
    if (TipprmiObjectSkeleton *server = getServer()) {
        const AtWork object(server);
        return object ? object->getChild(name) : TreflectObject();
    }
    BuiltInCall call(*this, BuiltIn::getChild);
    call.arguments() << name;
    return ask<TreflectObject>(std::move(call));
}

TipprmiSequence<TreflectObject> TreflectObjectStub::getChilds() const {
    if (TipprmiObjectSkeleton *server = getServer()) {
        const AtWork object(server);
        return object ? object->getChilds() : TipprmiSequence<TreflectObject>();
    }
    return ask<TipprmiSequence<TreflectObject>>(BuiltInCall(*this, BuiltIn::getChilds));
}

void TreflectObjectStub::registerChild(const std::string &name, const TreflectObject &child) const {
    if (TipprmiObjectSkeleton *server = getServer()) {
        TreflectServerObject *const object = reflective(server);
        const MethodAtWork atWork(child.isConnected() ? nullptr : object); // else it is not looked for
        if (object != nullptr) {
            object->registerChild(name, child);
        }
        return;
    }
    BuiltInCall call(*this, BuiltIn::registerChild);
    call.arguments() << name << child;
    call.sendOnly();
}

void TreflectObjectStub::unregisterChild(const std::string &name) const {
    if (TipprmiObjectSkeleton *server = getServer()) {
        if (TreflectServerObject *object = reflective(server)) {
            object->unregisterChild(name);
        }
        return;
    }
    BuiltInCall call(*this, BuiltIn::unregisterChild);
    call.arguments() << name;
    call.sendOnly();
}

// --- observers ------------------------------------------------------------------------------------------------------

void TreflectObjectStub::registerObserver(unsigned selector, const TreflectMetaOperation *operation,
                                          TreflectObserver *observer) const {
    if (operation == nullptr || operation->containingMetaObject() == nullptr || observer == nullptr) {
        LogDispatch(3, "TreflectObjectStub::registerObserver FAILED: oper, oper->meta() or obs is NULL", kSource);
        return;
    }
    const unsigned classId = operation->containingMetaObject()->id();
    const auto operationId = static_cast<unsigned>(operation->id());
    const TreflectObserverClient *const client = observer->getClient();
    if (client == nullptr) {
        return;
    }
    if (TipprmiObjectSkeleton *server = getServer()) {
        if (TreflectServerObject *object = reflective(server)) {
            object->registerObserver(selector, classId, operationId, *client);
        }
        return;
    }
    BuiltInCall call(*this, BuiltIn::registerObserver);
    call.arguments() << selector << classId << operationId << *client;
    call.send();
    call.check();
}

void TreflectObjectStub::removeObserver(const TreflectMetaOperation *, TreflectObserver *observer) const {
    if (observer == nullptr) {
        LogDispatch(3, "TreflectObjectStub::removeObserver FAILED: observer is NULL", kSource);
        return;
    }
    const TreflectObserverClient *const client = observer->getClient();
    if (client == nullptr) {
        return;
    }
    if (TipprmiObjectSkeleton *server = getServer()) {
        if (TreflectServerObject *object = reflective(server)) {
            object->unRegisterObserver(*client);
        }
        return;
    }
    BuiltInCall call(*this, BuiltIn::removeObserver);
    call.arguments() << *client;
    call.send();
    call.check();
}

// --- the exception container ----------------------------------------------------------------------------------------

void TreflectObjectStub::setExceptionContainer(const TipprmiExceptionContainer &container) const {
    if (!isValid()) {
        return;
    }
    if (const TipprmiObjectSkeleton *object = getServer()) {
        object->setExceptionContainer(container);
        return;
    }
    BuiltInCall call(*this, BuiltIn::setExceptionContainer);
    call.arguments() << container;
    call.send();
    call.check(BuiltIn::getExceptionContainer); // reported under this code by design
}

TipprmiExceptionContainer TreflectObjectStub::getExceptionContainer() const {
    if (!isValid()) {
        TipprmiExceptionContainer container;
        container.setExceptionType(TipprmiGeneralException::getExceptionClassType());
        container.setExceptionData(TipprmiGeneralException(0));
        return container;
    }
    if (const TipprmiObjectSkeleton *object = getServer()) {
        return object->getExceptionContainer();
    }
    return ask<TipprmiExceptionContainer>(BuiltInCall(*this, BuiltIn::getExceptionContainer));
}
