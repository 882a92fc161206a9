#pragma once

#include "platform/ConditionVar.h"
#include "platform/Export.h"
#include "platform/Mutex.h"
#include "platform/TerminationId.h"
#include "platform/Thread.h"
#include "platform/ThreadAnnotations.h"

#include <atomic>
#include <list>

/**
 * Is told when brokers come up and go away, of all namespaces and the own one; applications implement it. One that is
 * destroyed is forgotten, but it must not be destroyed while it is being told: never in its own callback, and elsewhere
 * TreflectORB::unregisterOrbNotifications() makes sure of that.
 */
class REFLECTORB_API TreflectOrbObserverIf {
public:
    /** 1: appears; 2: disappears; 3, to subscribe with: both. */
    using Appear_t = unsigned;
    static constexpr Appear_t appear = 1;
    static constexpr Appear_t disappear = 2;

    virtual ~TreflectOrbObserverIf();
    /** With the run permission, except for the brokers that are there already, of which registerOrbCreation() tells
     *  without it. */
    virtual void orbAppearance(const Transport::TerminationId &id, const Appear_t &type) = 0;
};

/**
 * Keeps the order of what a broker sees come and go, and tells it to those that subscribed, in a thread of its own:
 * what they do with it does not hold up the broker. Subscribing, unsubscribing and the end are without the run
 * permission: who has it gives it up first. TreflectORB does so for its own one.
 */
class REFLECTORB_API TreflectOrbObserver {
public:
    using Appear_t = TreflectOrbObserverIf::Appear_t;
    struct OrbObserver_t {
        TreflectOrbObserverIf *observer; // not owned
        Appear_t mask;
    };
    struct OrbAppear_t {
        Transport::TerminationId id = Transport::TerminationId();
        Appear_t type = 0;
    };
    using Observers = std::list<OrbObserver_t>;

    TreflectOrbObserver();
    /** Ends the thread; waits for the callback that it is in, and for what is queued to be told. */
    ~TreflectOrbObserver();
    TreflectOrbObserver(const TreflectOrbObserver &) = delete;
    TreflectOrbObserver &operator=(const TreflectOrbObserver &) = delete;

    /** Adds to what the observer has subscribed to before. `notifyExisting`, for appearances only: it is told of all
     *  terminations that are there, before this returns. False for null, and without memory for it. */
    bool subscribe(TreflectOrbObserverIf *observer, const Appear_t &mask, bool notifyExisting);
    /**
     * Called in a callback of any broker's thread, it waits for nothing, and the observer may still be told of the
     * event that is being told right now. Otherwise it is told no more by the thread when this returns, which waits for
     * its callback that is running; but not for a subscribe() that tells it of what is there already, nor for anything
     * while the caller keeps the run permission.
     */
    bool unsubscribe(const TreflectOrbObserverIf *observer);
    /** An event has come. */
    bool notify(const Transport::TerminationId &id, const Appear_t &type);
    /** The subscriptions, in the log, at level 5; nothing in the library asks for it. */
    void display();
    static const char *typeStr(const Appear_t &type) noexcept;

    /** The process is about to exit: nobody is told any more. */
    void close() noexcept;
    /** Whether no observer is being told by the thread. */
    bool isIdle() const noexcept { return !telling_; }

    /** Waits until there is an event. */
    bool appeared();
    /** Takes the oldest event; false if there is none. */
    bool getAppearance(OrbAppear_t &out);

private:
    friend class TreflectORB;

    /** Of one that is destroyed; waits for nothing. */
    void forget(const TreflectOrbObserverIf &observer);
    void erase(const TreflectOrbObserverIf *observer);
    Observers::iterator obsFind(const TreflectOrbObserverIf *observer) RB_REQUIRES(observerLock_);
    static void notifyExistingOrbs(TreflectOrbObserverIf *observer);
    int handler();
    void deliver(const OrbAppear_t &event);
    bool selectObservers(Appear_t type);
    bool isAnyPending();
    void tellNext(const OrbAppear_t &event);
    static void endOfCallback(TreflectOrbObserver *self);

    Observers observers_ RB_GUARDED_BY(observerLock_);
    OSWrap::Mutex observerLock_;
    std::list<OrbAppear_t> events_ RB_GUARDED_BY(signal_);
    OSWrap::ConditionVar signal_{false};
    // Of the event that is being told: who is still to be told, and who is being told.
    OSWrap::ConditionVar told_{false}; // taken before the observer lock
    std::list<TreflectOrbObserverIf *> pending_ RB_GUARDED_BY(told_);
    const TreflectOrbObserverIf *current_ RB_GUARDED_BY(told_) = nullptr;
    std::atomic<bool> closed_{false};
    std::atomic<bool> telling_{false};
    OSWrap::MethodThread<TreflectOrbObserver> worker_;
};
