#pragma once

#include "orb/ObjectLocation.h"
#include "orb/OrbId.h"
#include "orb/ReflectMessage.h"
#include "orb/TransactionIds.h"
#include "platform/ConditionVar.h"
#include "platform/Export.h"
#include "platform/Mutex.h"
#include "platform/Termination.h"
#include "platform/ThreadAnnotations.h"
#include "rmi/IPPRMI_sequence.h"
#include "threads/HandlerThreadPolicies.h"

#include <array>
#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <vector>

class ObjectTable;
class OngoingRequest;
class PendingRequests;
class TipprmiObjectSkeleton;
class TreflectMissedOrbs;
class TreflectObject;
class TreflectObserver;
class TreflectOrbObserver;
class TreflectOrbObserverIf;
class TreflectServerObject;

/**
 * The broker of one namespace in this actor, and at the same time its end point in the unit's message transport. Made
 * on first use by getInstance(), ended at process exit.
 */
class REFLECTORB_API TreflectORB : public Transport::TerminationImpl {
public:
    /** Transaction id of a request that waits for its response. */
    using OngoingRequestId = unsigned;

    /** What is known of the observation of one class: the observers of this actor, its objects, and the other brokers
     *  that want to be told. Nothing is owned. */
    struct MetaData {
        std::vector<TreflectObserver *> creationObservers;
        std::vector<TreflectObserver *> deletionObservers;
        std::set<const TreflectServerObject *> objects;
        std::set<TreflectOrbId> remoteCreationObservers;
        std::set<TreflectOrbId> remoteDeletionObservers;
        // Observers that are being registered: subscribed for, but not among the above yet.
        unsigned creationObserversToCome = 0;
        unsigned deletionObserversToCome = 0;
    };

    /** Requests and one-way messages to one target. */
    struct InternalPerfCnts {
        unsigned requests = 0;
        unsigned failures = 0;
    };
    /** The same as it is told to others. */
    struct PerfCnts {
        Transport::TerminationId target = Transport::TerminationId();
        unsigned requests = 0;
        unsigned failures = 0;
    };
    struct PerfCntInfo {
        std::string actor;
        TipprmiSequence<PerfCnts> counters;
    };
    struct PerfCntMultInfo {
        Transport::TerminationId orb = Transport::TerminationId();
        PerfCntInfo info;
    };

    /** Where an object was found, or just the name that was asked for. */
    class REFLECTORB_API TreflectObjectLocation : public TreflectObjectLocationIf {
    public:
        TreflectObjectLocation(unsigned internalOid, const TreflectOrbId &orb, TipprmiObjectSkeleton *server,
                               const TipprmiOID &oid);
        /** A generated name, "rmi_" with broker and number, becomes a direct address without name. */
        explicit TreflectObjectLocation(const TipprmiOID &oid);

        bool hasOID() const override { return oid_.getIdString() != nullptr; }
        TipprmiOID getOID() const override { return oid_; }
        TreflectOrbId orbId() const override { return orbId_; }
        unsigned getInternalOID() const override { return internalOid_; }
        NamespaceId getNamespaceId() const override { return oid_.getNamespaceId(); }
        TipprmiObjectSkeleton *getServer() const override { return server_; }

    private:
        friend class TreflectORB;
        friend REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, TreflectObjectLocation &location);

        unsigned internalOid_ = 0;
        TreflectOrbId orbId_;
        TipprmiOID oid_;
        TipprmiObjectSkeleton *server_ = nullptr; // not owned
    };

    ~TreflectORB() override;
    TreflectORB(const TreflectORB &) = delete;
    TreflectORB &operator=(const TreflectORB &) = delete;

    /** Not with the run permission: it waits for threads that may need it. */
    bool stop() override;

    /** For the transport, as the three below. The calling thread counts as the receiving one from then on: it never
     *  waits, its two-way calls get no response. A message of kind kReFai ends the process. Always true. */
    bool receive(const Transport::AddressedMessage &message) override;
    bool receiveError(const Transport::AddressedMessage &message) override;
    /** Subscribes at a broker of the same namespace for observed classes, which blocks as forwardMsg() does. */
    void appeared(Transport::Termination &termination) override;
    /** Makes the broker's stubs invalid, for which it waits for the run permission, and ends the calls of it. */
    void disappeare(Transport::Termination &termination) override;

    /**
     * The broker of a namespace, which is made on first use; that takes 100 ms, during which the caller's run
     * permission is given up. From every thread, but not with a platform lock held. Null for namespaces above 255, in a
     * forked child, when memory is short, once process exit has begun, and for a call from inside the creation itself.
     */
    static TreflectORB *getInstance(NamespaceId ns);

    TreflectOrbId orbId() const noexcept { return orbId_; }
    Transport::GroupId getMyGroup(const NamespaceId &ns) const;
    NamespaceId getNamespaceFromGroup(const Transport::GroupId &group) const;
    Transport::TerminationId convertId(const TreflectOrbId &id) const;
    TreflectOrbId convertId(const Transport::TerminationId &id) const;

    /** A message with a zeroed payload of `size` bytes, this broker as originator, transaction id 0 and kind kRequ.
     *  Without buffer if memory is short. So for all three. */
    TreflectMessage allocateRequest(unsigned size) const;
    /** Transaction id and type of the request, kind kResp. */
    TreflectMessage allocateResponse(const TreflectMessage &request, unsigned size) const;
    /** Header of `message` and as much of its payload as fits; `spare` bytes behind the payload for growth. */
    TreflectMessage reallocateMessage(const TreflectMessage &message, unsigned size, unsigned spare = 0) const;

    /** The entry of the class, made on first use; null if memory is short. With the run permission; ask again after
     *  every callback, which may change the table. */
    MetaData *getMetaData(unsigned classId);
    void destroyMetaData();

    /**
     * Sends a method call to the broker `target` and, if it is two-way, waits for the response, which `response` then
     * reads. False, with an exception container of type 1 appended to `response`, if there is none: no such broker, or
     * it went away; with `response` as it was if all transaction ids are taken. A call that the target refuses is
     * answered, too: true, and that container is the response. The run permission is given up meanwhile. Blocks as long
     * as the target lives and does not answer, at most for the wait duration; then the unit is reset. A cancellation
     * point. The transport's receiving thread never waits: true at once, without response.
     */
    virtual bool forwardMsg(const TreflectOrbId &target, bool twoWay, TipprmiStream &request, TipprmiStream &response);
    /** The same for a message that is complete but for its transaction id, kind and addresses. */
    bool forwardMsg_(Transport::TerminationId target, bool twoWay, TreflectMessage &request,
                     TipprmiStream &response) const;
    /** Called while a request hangs. Before the wait duration is over: tells a target in another slot to reset its
     * unit; true if that could be sent. After it: resets this unit, and does not return. */
    bool waitingTooLongFor(const Transport::TerminationId &target, TreflectMessage request, int minutes) const;

    /**
     * Where the object is: by a generated name, here, or at another broker of the group, which are asked one after the
     * other. Internal number 0: nowhere. Blocks as forwardMsg() does, once for each other broker.
     */
    virtual TreflectObjectLocation locateObject(const TipprmiOID &oid) const;
    /** With the run permission, as unregisterObject(); always true. The object is told its number, which is its
     * address, so that a later object may have it again; 0, and it cannot be found, if memory is short. */
    virtual bool registerObject(TipprmiObjectSkeleton *object);
    virtual bool unregisterObject(const TipprmiObjectSkeleton *object);
    /** Whether the object of this process that a location names is still registered as that. With the run permission,
     *  which keeps it so. */
    bool isHere(const TreflectObjectLocation &location) const;
    /** Asks one broker; the number of the object there, 0 if it has none or does not answer. Blocks as forwardMsg(). */
    virtual unsigned resolve(const Transport::TerminationId &target, TipprmiOID oid) const;

    /**
     * Tells that an object of the class was made, or is about to be deleted, here: first the observers of this actor,
     * then the brokers that want to know, one after the other, each of which has told its observers when this returns.
     * One that does not answer is told no more. With the run permission, which is given up meanwhile. Always true.
     */
    bool notifyCreation(unsigned cc, const TreflectServerObject &object);
    bool notifyDeletion(unsigned cc, const TreflectServerObject &object);
    /**
     * Once this has returned the observer is told of each object of the class that is made, or deleted, in the group;
     * of those that are there already, too, if asked for, before this returns. An object that is made meanwhile may be
     * told of not at all, or, if the existing ones are asked for and the observer is registered already, twice: as a
     * new one and as an existing one. The first observer of a class subscribes at all other brokers, the last to go
     * unsubscribes; that blocks as forwardMsg() does. From every thread, at any time: these three take the run
     * permission, and give it up meanwhile. False, and not registered, when memory is short.
     *
     * Observers are told without the run permission: in the thread that makes or deletes the object, in a worker if
     * that is another actor's, in the calling thread of what is there already, in the membership thread of what a
     * broker has that comes up. While an observer blocks there, this broker sees nobody come or go, and calls to a peer
     * that dies end only at their next step of 30 seconds.
     *
     * An observer that is registered twice is told once. One that removes itself while it is told of what is there is
     * registered all the same. Remove it before it is destroyed.
     */
    bool observeCreations(const unsigned &cc, TreflectObserver &observer, bool plusExisting);
    bool observeDeletions(const unsigned &cc, TreflectObserver &observer);
    /**
     * From both. A list that is empty then is unsubscribed at all other brokers, which blocks as forwardMsg() does,
     * also if the observer was not in it. Brokers end both subscriptions when they are asked to end one: observers of
     * creations that stay hear of this actor's objects only if nobody observes deletions then, and the other way round,
     * until registerForOCN() or registerForODN() subscribes for them again.
     */
    void removeObserver(const unsigned &cc, TreflectObserver &observer);

    // Subscriptions at one other broker, or at all if `orb` is null, which block as forwardMsg() does. Brokers known
    // not to have the class are left out.
    /** `existing` is emptied, and filled with all objects of the class that those brokers have now; null: they are not
     *  asked for them. */
    void registerForOCN(unsigned cc, std::vector<TreflectObject> *existing, const TreflectOrbId *orb);
    void registerForODN(unsigned cc, const TreflectOrbId *orb);
    // Their ends, at all other brokers, whatever classes these have; either ends both.
    void unregisterFromOCN(unsigned cc);
    void unregisterFromODN(unsigned cc);

    // What another broker asks for.
    void addRemoteCreationObserver(const unsigned &cc, const TreflectOrbId &orb,
                                   TipprmiSequence<TreflectObject, 0U> *existing);
    void addRemoteDeletionObserver(const unsigned &cc, const TreflectOrbId &orb);
    void removeRemoteObserver(const unsigned &cc, const TreflectOrbId &orb);

    /** Tells the observers of this actor, each once. Takes the run permission and gives it up for each of them; blocks
     *  as long as they do. */
    void gotCreation(const unsigned &cc, const TreflectObject &object);
    void gotDeletion(const unsigned &cc, const TreflectObject &object);
    /** Subscribes at a broker that has come up for all observed classes, which blocks as forwardMsg() does, and tells
     *  the observers of creations of the objects that it has, as gotCreation(). */
    void orbAppeared(const TreflectOrbId &orb);

    /**
     * Told of brokers of all namespaces that come, or go, the own one as well, by a thread of its own with the run
     * permission; of those that are there, if asked for, before this returns, in the calling thread and without it.
     * That thread and the other may call the observer at the same time, and both may tell it of the same broker. One
     * that is registered for both is told of both. Not owned.
     */
    void registerOrbCreation(TreflectOrbObserverIf *observer, bool notifyExisting);
    void registerOrbDeletion(TreflectOrbObserverIf *observer);
    /**
     * The observer is told no more when this returns, so it may be destroyed. Waits for a callback of it that is
     * running: never call this with a lock that the callback may wait for, nor in a method that the callback calls, by
     * way of another actor, either: each would wait for the other. Called from inside a callback, in its thread, it
     * waits for nothing: then an observer may still be told of the event that is being told, unless it is destroyed;
     * the one whose callback it is must not be. It does not wait for a registerOrbCreation() of the observer that tells
     * it of existing ones in another thread.
     */
    void unregisterOrbNotifications(TreflectOrbObserverIf *observer);

    /** Asks the broker for its counters, which blocks as forwardMsg() does. Empty if it does not answer, and on the
     *  transport's receiving thread; what a cut answer lacks is empty or zero. */
    PerfCntInfo getPerfCnts(const Transport::TerminationId &target);
    /** Of all other brokers of the group, in the group's order, asked one after the other. */
    std::list<PerfCntMultInfo> getPerfCnts();
    /** A summary in the log, at level 5; the argument is not used. Waits for the run permission. */
    void display(int);
    /** The last messages in the log, at level 6. Does not take the run permission: works while that is stuck. */
    void dumpMessages();
    /** Checks a message, which has to be a request or else a one-way one (a response is always reported as an error),
     *  and describes its body: levels 5 and 6 of the log. The first argument is not used. */
    void testInfoAboutMessage(const Transport::TerminationId &, const TreflectMessage &message, bool request) const;

    /** Minutes after which an unanswered request resets the unit. */
    unsigned waitDuration() const noexcept { return waitDuration_; }
    /** The transport's thread that called receive() last, 0 before. */
    unsigned long receivingThreadId() const noexcept { return receivingThreadId_.load(std::memory_order_relaxed); }

    /** Ends the actor: two lines, then abort. */
    [[noreturn]] void resetUnit() const;

    // The run permission of the actor; see threads/HandlerThreadsType_p.h.
    static void enterHandlerState(bool withPermission);
    static void leaveHandlerState(bool withPermission);
    static void checkHandlerState();
    static bool isHandlerThread();
    static void getRunPermission();
    static void releaseRunPermission();
    static bool hasRunPermission();
    static unsigned long getRunPermissionCount();
    static unsigned long getRunPermissionOwner();
    static HandlerThreadsType *handlerThreads();

    /** The loop of a worker thread, until it retires. */
    void dispatchEntry();

private:
    friend class SingletonInstances;
    friend class SingletonInstancesRemover;
    friend class TipprmiObjectSkeleton;
    friend class TreflectObserver;
    friend class TreflectOrbObserverIf;
    friend class TreflectServerObject;
    class MessageQueue;
    class forwardMsgCleanup;
    struct Worker;

    /** For dumpMessages(). */
    struct ProcessedMessage {
        unsigned methodCode = 0;
        unsigned classCode = 0;
        unsigned destination = 0;
        unsigned sender = 0;
        unsigned transactionId = 0;
    };
    /** The last few; in place, so that it works when memory is short. */
    class MessageLog {
    public:
        /** Oldest first. */
        struct Records {
            std::array<ProcessedMessage, 5> messages;
            std::size_t count = 0;

            const ProcessedMessage *begin() const noexcept { return messages.data(); }
            const ProcessedMessage *end() const noexcept { return messages.data() + count; }
        };

        void add(const ProcessedMessage &message);
        Records records();

    private:
        OSWrap::ConditionVar lock_{false};
        Records records_ RB_GUARDED_BY(lock_);
    };

    explicit TreflectORB(const NamespaceId &ns);

    // Requests.
    bool send(Transport::TerminationId target, bool twoWay, TreflectMessage &request, TipprmiStream &response) const;
    enum class Entry { refused, exhausted, notEntered, entered };
    Entry enter(OngoingRequest &request, Transport::TerminationId target, bool twoWay, OngoingRequestId &id) const;
    bool issueAs(TreflectMessage &message, OngoingRequestId id, TreflectMessage::kind_t kind,
                 Transport::TerminationId target) const;
    bool awaitResponse(OngoingRequest &own, Transport::TerminationId target, TreflectMessage &request,
                       TipprmiStream &response) const;
    void countRequest(Transport::TerminationId target, bool failed) const;
    void endPendingRequests();

    // Receiving.
    OngoingRequest *takePending(Transport::TerminationId target);
    void receiveResponse(const TreflectMessage &message, bool intact);
    void queueMessage(const TreflectMessage &message);
    bool startReflectWorker();
    void startColleague();
    void closeQueue();
    bool isLeft() const;

    // Dispatching.
    using Dispatch = void (TreflectORB::*)(TipprmiStream &request, Worker &worker);
    static const Dispatch kDispatch[];
    bool nextMessage(TreflectMessage &message, bool firstPass);
    static void wakeColleague(void *messageQueue);
    void dispatch(TipprmiStream &request, Worker &worker);
    void dispatchResolve(TipprmiStream &request, Worker &worker);
    void dispatchCall(TipprmiStream &request, Worker &worker);
    void dispatchCounters(TipprmiStream &request, Worker &worker);
    void dispatchUnknown(TipprmiStream &request, Worker &worker);
    bool respond(Transport::TerminationId caller, TipprmiStream &response) const;

    void dispatchNotification(TipprmiStream &request, Worker &worker);
    void dispatchSubscription(TipprmiStream &request, Worker &worker);
    void dispatchEndOfSubscription(TipprmiStream &request, Worker &worker);
    bool isComplete(const TipprmiStream &request) const;
    void answer(const TreflectMessage &request, TipprmiStream &response) const;

    // Creations and deletions.
    struct Event;
    class ObserverToCome;
    class Unwanted;
    static const Event kCreation;
    static const Event kDeletion;
    void notify(const Event &event, unsigned cc, const TreflectServerObject &object);
    void tellOthers(const Event &event, unsigned cc, const TreflectObject &source);
    void got(const Event &event, unsigned cc, const TreflectObject &object);
    bool observe(const Event &event, unsigned cc, TreflectObserver &observer, bool plusExisting);
    void subscribe(const Event &event, unsigned cc, std::vector<TreflectObject> *existing, const TreflectOrbId *orb);
    bool trySubscribe(const Event &event, unsigned cc, std::vector<TreflectObject> *existing, const TreflectOrbId *orb);
    void unsubscribe(const Event &event, unsigned cc, const Unwanted *reason);
    bool isObserved(const Event &event, unsigned cc) const;
    bool isWanted(const Event &event, unsigned cc) const;
    void renewSubscriptions(unsigned cc, const TreflectOrbId &orb);
    bool mayHave(Transport::TerminationId target, unsigned cc) const;
    void learnClassCodes(Transport::TerminationId target, TipprmiStream &response);
    std::list<Transport::TerminationId> members() const noexcept;
    std::list<Transport::TerminationId> otherMembers() const noexcept;

    // Of what is destroyed and was not deregistered.
    static void forget(TreflectObserver &observer);
    static void forget(const TreflectServerObject &object);
    static void forget(const TreflectOrbObserverIf &observer);

    // Locations.
    /** In whatever broker the object is. */
    static void renamed(const TipprmiObjectSkeleton &object);
    TipprmiObjectSkeleton *findObject(unsigned internalOid) const;
    TreflectObjectLocation locateLocalObject_(const TipprmiOID &oid) const;
    TreflectObjectLocation locateRemoteObject_(const TipprmiOID &oid) const;

    mutable OSWrap::Mutex mutex_;
    const std::unique_ptr<ObjectTable> objects_ RB_PT_GUARDED_BY(mutex_);
    const std::unique_ptr<PendingRequests> ongoingRequests_ RB_PT_GUARDED_BY(mutex_);
    mutable TransactionIds transactionIds_ RB_GUARDED_BY(mutex_);
    mutable bool closing_ RB_GUARDED_BY(mutex_) = false; // no more requests
    mutable std::atomic<unsigned> callers_{0};           // threads inside what makes requests
    std::atomic<unsigned long> receivingThreadId_{0};
    const std::unique_ptr<MessageQueue> queue_;
    MessageLog processed_;
    MessageLog received_;
    std::map<unsigned, std::unique_ptr<MetaData>> metaData_; // with the run permission
    TreflectOrbId orbId_;                                    // constant after construction, as waitDuration_
    mutable std::map<Transport::TerminationId, InternalPerfCnts> counters_; // with the run permission
    unsigned waitDuration_ = 0;
    std::map<Transport::TerminationId, std::vector<unsigned>> classCodes_; // with the run permission
    const std::unique_ptr<TreflectMissedOrbs> missedCreations_;
    const std::unique_ptr<TreflectMissedOrbs> missedDeletions_;
    const std::unique_ptr<TreflectOrbObserver> orbObserver_; // the first to go: its thread uses the broker
};

/** Target (in the order of the host), requests, failures. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, const TreflectORB::PerfCnts &counters);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, TreflectORB::PerfCnts &counters);
template <>
struct TipprmiLeastSize<TreflectORB::PerfCnts> {
    static constexpr unsigned value = 12;
};

/** The null location if the stream ends before it is complete. The namespace of the variable stays; the object itself
 * is never known. */
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, TreflectORB::TreflectObjectLocation &location);

/** Makes the broker of namespace 1 early, so that the first remote call does not have to wait for it. */
REFLECTORB_API void preCreateReflectOrb();
