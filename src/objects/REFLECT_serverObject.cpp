#include "objects/REFLECT_serverObject.h"

#include "objects/AbstractLevel_p.h"
#include "objects/BuiltInMethods_p.h"
#include "objects/MethodAtWork_p.h"
#include "objects/ObjectHandler.h"
#include "observation/REFLECT_ObserverClient.h"
#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "platform/Cancellation.h"
#include "platform/Log.h"
#include "reflection/REFLECT_metaObject.h"
#include "threads/HandlerThreadsType_p.h"
#include "threads/PartingState_p.h"

#include <exception>
#include <new>
#include <string>
#include <utility>

namespace {

constexpr char kSource[] = "REFLECT_serverObject";

/** Whether the arguments were there; else that is reported, and the call has no effect. */
bool complete(const TipprmiStream &request, unsigned cc, unsigned mc) {
    if (request.hasUnmarshallingFailed()) {
        request.printUnmarshallError(cc, mc);
        return false;
    }
    return true;
}

/** Empty without memory. */
std::string upToZeroByte(const std::string &name) noexcept {
    try {
        return name.c_str();
    } catch (const std::bad_alloc &) {
        LogDispatch(3, "no memory for the name of an object", kSource);
        return std::string();
    }
}

/** For a thread at its end, which waits neither for an answer nor for its turn to have the run permission: to send the
 *  message gives one level up, and that is not the last. */
void unregisterWithoutAnswer(const TreflectObject &parent, const std::string &name) {
    TipprmiStream request(TipprmiStream::kCallSize);
    TipprmiAny response;
    parent.prepareRequestStream_(false, 0, BuiltIn::unregisterChild, request);
    request << name;
    if (request.hasMarshallingFailed()) {
        LogDispatch(3, LogMakeString("no memory to tell the parent that \"%s\" ends", name.c_str()), kSource);
        return;
    }
    HandlerState::restoreRunPermissionLevel();
    parent.dispatch(false, 0, BuiltIn::unregisterChild, request, response);
    HandlerState::releaseRunPermission();
}

/** With the run permission. */
void leave(const TreflectObject &parent, const std::string &name) {
    if (!parent.isConnected()) {
        return;
    }
    if (ThreadEnd::begun() && parent.getServer() == nullptr) {
        unregisterWithoutAnswer(parent, name);
    } else {
        parent.unregisterChild(name);
    }
}

} // namespace

TreflectServerObject::TreflectServerObject(const TipprmiOID &oid, std::string &&name)
    : TipprmiObjectSkeleton(nullptr, oid), name_(std::move(name)) {
    dropClient_();
}

/** By way of another constructor: should the parent throw, the destructor is run. */
TreflectServerObject::TreflectServerObject(const TipprmiOID &oid, const TreflectObject *parent, const std::string &name)
    : TreflectServerObject(oid, upToZeroByte(name)) {
    const bool nameIsLost = name_.empty() && *name.c_str() != '\0';
    if (parent != nullptr && !nameIsLost) { // the empty name may be that of another child
        joinParent(*parent);
    }
}

void TreflectServerObject::joinParent(const TreflectObject &parent) {
    parent_ = parent; // may block
    const TreflectObject *const client = getClient();
    if (client == nullptr) {
        parent_ = TreflectObject(); // it is not to forget whom else it has under the name
    } else if (parent_.getServer() != nullptr) {
        parent_.registerChild(name_, *client);
    } else {
        const OSWrap::DisableCancelStateGuard uncancelled;     // who left here would not know whether it is registered
        parent_.registerChild(name_, TreflectObject(*client)); // the client may have gone before the parent is asked
    }
}

/** Not a cancellation point, though it may wait for the parent's answer: it may not be left half done. */
TreflectServerObject::~TreflectServerObject() {
    const OSWrap::DisableCancelStateGuard uncancelled;
    if (depart()) {
        delete std::exchange(children_, nullptr);
    } else { // another thread may be in here until the process is gone: what it reads has to stay
        parent_.setStub_(nullptr);
    }
}

/** Has the object forgotten, by all but those that are in one of its methods, and waits for them. False: in vain. */
bool TreflectServerObject::depart() {
    {
        const PartingState state;
        if (state.hasPermission()) {
            leave(parent_, name_); // the object still answers meanwhile
        }
        unregister_();
        if (!state.hasPermission()) {
            MethodAtWork::abandon(*this);
            return false;
        }
        TreflectORB::forget(*this);
        if (TreflectObjectHandler *handler = TreflectObjectHandler::getExisting()) {
            handler->invalidateStubs(this); // before another thread runs: none comes in any more
        }
        if (!MethodAtWork::isOtherIn(*this)) {
            delete std::exchange(children_, nullptr);
            return true;
        }
    }
    if (MethodAtWork::awaitOthers(*this)) {
        return true;
    }
    const PartingState state;
    MethodAtWork::abandon(*this);
    return false;
}

TreflectObject *TreflectServerObject::getClient() const {
    TreflectHandlerState state(true);
    if (client_slot_() == nullptr) {
        client_slot_(new (std::nothrow) TreflectObject(this));
    }
    return static_cast<TreflectObject *>(client_slot_());
}

// --- the tree -------------------------------------------------------------------------------------------------------

// Whatever may block is followed by MethodAtWork::goOn(), or by nothing that concerns the object.

TreflectObject TreflectServerObject::getParent() const {
    return parent_;
}

TreflectObject TreflectServerObject::getChild(const std::string &name) const {
    if (children_ != nullptr) {
        const auto found = children_->find(name);
        if (found != children_->end()) {
            return found->second;
        }
    }
    return TreflectObject();
}

/** Copying a handle may block, to look up an object that was not found before; the children may change meanwhile. So
 *  does what makes room in the list, once it has handles: no iterator is kept across either. */
TipprmiSequence<TreflectObject> TreflectServerObject::getChilds() const {
    TipprmiSequence<TreflectObject> childs;
    if (children_ == nullptr) {
        return childs;
    }
    unsigned count = 0;
    try {
        childs.setLength(static_cast<unsigned>(children_->size()) + 1); // one more: the end is found without growing
        for (std::string last;;) {
            if (count == childs.getLength()) {
                childs.setLength(count + 1);
                MethodAtWork::goOn();
            }
            if (count == childs.getLength()) {
                throw std::bad_alloc();
            }
            const auto child = count == 0 ? children_->begin() : children_->upper_bound(last);
            if (child == children_->end()) {
                break;
            }
            last = child->first;
            childs[count] = child->second;
            MethodAtWork::goOn();
            ++count;
        }
    } catch (const std::exception &) {
        LogDispatch(3, LogMakeString("no memory for the children of \"%s\"", objectName()), kSource);
    }
    childs.setLength(count);
    return childs;
}

void TreflectServerObject::registerChild(const std::string &name, const TreflectObject &child) {
    try {
        Children added;
        added.emplace(name, child);
        MethodAtWork::goOn();
        if (children_ == nullptr) {
            children_ = new Children;
        }
        children_->erase(name);
        children_->insert(added.extract(added.begin()));
    } catch (const std::exception &) {
        LogDispatch(3, LogMakeString("no memory for child \"%s\"", name.c_str()), kSource);
    }
}

void TreflectServerObject::unregisterChild(const std::string &name) {
    if (children_ != nullptr) {
        children_->erase(name);
    }
}

std::string TreflectServerObject::getAbsName() const {
    const std::string own = "/" + getRelName(); // before the parent is asked, which may block
    const std::string above = parent_.isConnected() ? parent_.getAbsName() : std::string();
    MethodAtWork::goOn();
    return above + own;
}

std::string TreflectServerObject::getRelName() const {
    return name_;
}

// --- events ---------------------------------------------------------------------------------------------------------

const TreflectMetaObject *TreflectServerObject::eventClass(const TreflectMetaObject *meta) const {
    const TreflectObject *const client = meta == nullptr ? getClient() : nullptr;
    if (client != nullptr) {
        meta = client->meta();
    }
    if (meta == nullptr) { // the same line for both events, by design
        LogDispatch(3, "TreflectServerObject::sendCreationEvent(): no meta object", kSource);
    }
    return meta;
}

void TreflectServerObject::sendCreationEvent(const TreflectMetaObject *meta) const {
    TreflectHandlerState state(true);
    meta = eventClass(meta);
    const SingletonInstances::Pin orb(getORB());
    if (meta != nullptr && orb.get() != nullptr) {
        orb.get()->notifyCreation(meta->getClassId(), *this);
    }
}

void TreflectServerObject::sendDeletionEvent(const TreflectMetaObject *meta) const {
    TreflectHandlerState state(true);
    meta = eventClass(meta);
    const SingletonInstances::Pin orb(getORB());
    if (meta != nullptr && orb.get() != nullptr) {
        orb.get()->notifyDeletion(meta->getClassId(), *this);
    }
}

bool TreflectServerObject::notifyObservers(unsigned when, const unsigned &classCode, const unsigned &methodCode,
                                           const TipprmiSequence<TipprmiAny> &parameters) {
    const TreflectObject *const client = getClient();
    if (client == nullptr) {
        const bool before = when == 0;
        if (!(before ? preObserverAvailable(classCode, methodCode) : postObserverAvailable(classCode, methodCode))) {
            return true;
        }
        LogDispatch(3, LogMakeString("no memory to tell the observers of \"%s\"", objectName()), kSource);
        return !before; // those that are not asked may have forbidden it
    }
    const TreflectObject source(*client); // while an observer is told, connect() may delete the client
    TreflectObservable &observable = *this;
    return observable.notifyObservers(source, when, classCode, methodCode, parameters);
}

// --- methods that every object has ----------------------------------------------------------------------------------

TreflectServerObject::Method TreflectServerObject::builtIn(unsigned mc) noexcept {
    static constexpr struct {
        unsigned mc;
        Method method;
    } methods[] = {
        {BuiltIn::registerObserver, &TreflectServerObject::answerRegisterObserver},
        {BuiltIn::removeObserver, &TreflectServerObject::answerRemoveObserver},
        {BuiltIn::getAbsName, &TreflectServerObject::answerAbsName},
        {BuiltIn::getRelName, &TreflectServerObject::answerRelName},
        {BuiltIn::getParent, &TreflectServerObject::answerParent},
        {BuiltIn::getChild, &TreflectServerObject::answerChild},
        {BuiltIn::getChilds, &TreflectServerObject::answerChilds},
        {BuiltIn::registerChild, &TreflectServerObject::answerRegisterChild},
        {BuiltIn::unregisterChild, &TreflectServerObject::answerUnregisterChild},
        {BuiltIn::getClassIds, &TreflectServerObject::answerClassIds},
    };
    for (const auto &entry : methods) {
        if (entry.mc == mc) {
            return entry.method;
        }
    }
    return nullptr;
}

bool TreflectServerObject::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                                    TipprmiStream &response) {
    const Method method = builtIn(mc);
    if (method == nullptr) {
        return TipprmiObjectSkeleton::dispatch(transaction, cc, mc, request, response);
    }
    const MethodAtWork atWork(this);
    try {
        (this->*method)(cc, mc, request, response);
        return true;
    } catch (const std::bad_alloc &) {
        LogDispatch(3, LogMakeString("no memory for method %u of \"%s\"", mc, objectName()), kSource);
        return false;
    }
}

void TreflectServerObject::answerRegisterObserver(unsigned cc, unsigned mc, TipprmiStream &request,
                                                  TipprmiStream &response) {
    unsigned when = 0;
    unsigned classCode = 0;
    unsigned methodCode = 0;
    TreflectObserverClient observer;
    request >> when >> classCode >> methodCode >> observer;
    MethodAtWork::goOn();
    if (complete(request, cc, mc)) {
        registerObserver(when, classCode, methodCode, observer);
    }
    prepareResponseStream_(response);
}

void TreflectServerObject::answerRemoveObserver(unsigned cc, unsigned mc, TipprmiStream &request,
                                                TipprmiStream &response) {
    TreflectObserverClient observer;
    request >> observer;
    MethodAtWork::goOn();
    if (complete(request, cc, mc)) {
        unRegisterObserver(observer);
    }
    prepareResponseStream_(response);
}

void TreflectServerObject::answerAbsName(unsigned, unsigned, TipprmiStream &, TipprmiStream &response) {
    const std::string name = getAbsName(); // may block: the container is written after that
    prepareResponseStream_(response);
    response << name;
}

void TreflectServerObject::answerRelName(unsigned, unsigned, TipprmiStream &, TipprmiStream &response) {
    const std::string name = getRelName();
    prepareResponseStream_(response);
    response << name;
}

void TreflectServerObject::answerParent(unsigned, unsigned, TipprmiStream &, TipprmiStream &response) {
    prepareResponseStream_(response);
    response << getParent();
}

void TreflectServerObject::answerChild(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) {
    std::string name;
    request >> name;
    const bool isComplete = complete(request, cc, mc);
    prepareResponseStream_(response);
    response << (isComplete ? getChild(name) : TreflectObject());
}

void TreflectServerObject::answerChilds(unsigned, unsigned, TipprmiStream &, TipprmiStream &response) {
    prepareResponseStream_(response);
    response << getChilds();
}

void TreflectServerObject::answerRegisterChild(unsigned cc, unsigned mc, TipprmiStream &request,
                                               TipprmiStream &response) {
    std::string name;
    TreflectObject child;
    request >> name >> child;
    MethodAtWork::goOn();
    if (complete(request, cc, mc)) {
        registerChild(name, child);
    }
    prepareResponseStream_(response);
}

void TreflectServerObject::answerUnregisterChild(unsigned cc, unsigned mc, TipprmiStream &request,
                                                 TipprmiStream &response) {
    std::string name;
    request >> name;
    if (complete(request, cc, mc)) {
        unregisterChild(name);
    }
    prepareResponseStream_(response);
}

void TreflectServerObject::answerClassIds(unsigned, unsigned, TipprmiStream &, TipprmiStream &response) {
    prepareResponseStream_(response);
    response << classIdsOf(*this);
}
