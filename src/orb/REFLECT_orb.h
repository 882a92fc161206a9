#pragma once

#include "orb/OrbId.h"
#include "orb/ReflectMessage.h"
#include "orb/TransactionIds.h"
#include "platform/Export.h"
#include "platform/Mutex.h"
#include "platform/Termination.h"
#include "platform/ThreadAnnotations.h"
#include "threads/HandlerThreadPolicies.h"

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <vector>

class TreflectObserver;
class TreflectServerObject;

/**
 * The broker of one namespace in this actor, and at the same time its end point in the unit's message transport. Made
 * on first use by getInstance(), ended at process exit.
 */
class REFLECTORB_API TreflectORB : public Transport::TerminationImpl {
public:
    /** What is known of the observation of one class: the observers of this actor, its objects, and the other brokers
     *  that want to be told. Nothing is owned. */
    struct MetaData {
        std::vector<TreflectObserver *> creationObservers;
        std::vector<TreflectObserver *> deletionObservers;
        std::set<const TreflectServerObject *> objects;
        std::set<TreflectOrbId> remoteCreationObservers;
        std::set<TreflectOrbId> remoteDeletionObservers;
    };

    /** How many messages came in, by kind; those that were too short to have one are in `dropped` only. */
    struct ReceiveCounts {
        unsigned requests = 0;
        unsigned oneWay = 0;
        unsigned responses = 0;
        unsigned undeliverable = 0;
        unsigned otherKinds = 0;
        unsigned dropped = 0;
    };

    ~TreflectORB() override;
    TreflectORB(const TreflectORB &) = delete;
    TreflectORB &operator=(const TreflectORB &) = delete;

    bool receive(const Transport::AddressedMessage &message) override;
    bool receiveError(const Transport::AddressedMessage &message) override;
    void appeared(Transport::Termination &termination) override;
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

    /** Minutes after which an unanswered request resets the unit. */
    unsigned waitDuration() const noexcept { return waitDuration_; }
    /** The transport's thread that called receive() last, 0 before. */
    unsigned long receivingThreadId() const noexcept { return receivingThreadId_.load(std::memory_order_relaxed); }
    ReceiveCounts receiveCounts() const noexcept;

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

private:
    friend class SingletonInstances;

    explicit TreflectORB(const NamespaceId &ns);

    mutable OSWrap::Mutex mutex_;
    TransactionIds transactionIds_ RB_GUARDED_BY(mutex_);
    std::atomic<unsigned long> receivingThreadId_{0};
    std::map<unsigned, std::unique_ptr<MetaData>> metaData_;
    TreflectOrbId orbId_; // this and the next: constant after construction
    unsigned waitDuration_ = 0;

    static constexpr unsigned kCountedKinds = 6; // the known ones; the first stands for all others
    std::array<std::atomic<unsigned>, kCountedKinds> received_{};
    std::atomic<unsigned> dropped_{0};
};

/** Makes the broker of namespace 1 early, so that the first remote call does not have to wait for it. */
REFLECTORB_API void preCreateReflectOrb();
