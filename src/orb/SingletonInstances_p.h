#pragma once

#include "orb/NamespaceId.h"
#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"
#include "platform/TimeSpec.h"

#include <array>
#include <atomic>

class TreflectORB;

/**
 * The brokers of this process by namespace: made on first use under one process-wide lock, removed at process exit.
 * Usable before main() and until the process is gone.
 */
class SingletonInstances {
    struct Slot;

public:
    static constexpr unsigned kNamespaces = 256;

    /** See TreflectORB::getInstance(). */
    static TreflectORB *get(NamespaceId ns);

    /** Whether this is a child of fork(), where nothing works; says so in the log, once. */
    static bool inForkedChild();

    /** Calls `act(orb)` for each broker that there is; none of them is destroyed meanwhile. `act` must not wait. */
    template <class Act>
    static void forEach(const Act &act) {
        for (Slot &slot : slots_) {
            if (slot.orb.load(std::memory_order_relaxed) == nullptr) {
                continue; // most are: no need to pin them
            }
            slot.pins.fetch_add(1);
            if (TreflectORB *orb = slot.orb.load()) {
                act(*orb);
            }
            slot.pins.fetch_sub(1);
        }
    }

    /**
     * Keeps a broker from being destroyed during the scope, so that a thread which happens to use it while another one
     * ends the process does not use freed memory. Makes the broker if need be. Cheap. Of scopes that wait only for
     * those whose waits are requests, which process exit ends: it waits for the scopes, though not for long.
     */
    class Pin {
    public:
        explicit Pin(NamespaceId ns);
        /** Of a broker that may be gone already. Makes none. */
        explicit Pin(const TreflectORB *orb) noexcept;
        ~Pin();
        Pin(const Pin &) = delete;
        Pin &operator=(const Pin &) = delete;

        /** Null when there is no broker. */
        TreflectORB *get() const noexcept { return orb_; }

    private:
        void take(Slot &slot) noexcept;

        Slot *slot_ = nullptr;
        TreflectORB *orb_ = nullptr;
    };

    /** Marks that this thread runs inside a broker: should it end the process there, no broker is destroyed. */
    class Inside {
    public:
        Inside() noexcept { ++depth_; }
        ~Inside() { --depth_; }
        Inside(const Inside &) = delete;
        Inside &operator=(const Inside &) = delete;
        static bool thisThread() noexcept { return depth_ != 0; }

    private:
        static thread_local unsigned depth_;
    };

private:
    friend class SingletonInstancesRemover;

    struct Slot {
        std::atomic<TreflectORB *> orb{nullptr};
        std::atomic<unsigned> pins{0};
        TreflectORB *leaked = nullptr; // was in use at exit; remembered here for leak checkers
    };

    static TreflectORB *create(NamespaceId ns);
    static TreflectORB *build(NamespaceId ns) noexcept;
    static void begin(TreflectORB &orb) noexcept;

    static OSWrap::Mutex &lock_;
    static std::array<Slot, kNamespaces> slots_;
    static std::atomic<unsigned long> creator_; // the thread that is making a broker, 0 if none
    static bool removerRegistered_ RB_GUARDED_BY(lock_);
    static bool closing_ RB_GUARDED_BY(lock_);
};

/** Stops and destroys the brokers when the process exits. */
class SingletonInstancesRemover {
public:
    static void registerAtExit();
    /** Runs in the thread that called exit(), whatever state it is in; in a child of fork() it does nothing. */
    static void remove();

private:
    /** False: it was still in use. */
    static bool removeOne(SingletonInstances::Slot &slot);
    static bool drained(const SingletonInstances::Slot &slot, const TreflectORB &orb, const OSWrap::TimeSpec &end);
};
