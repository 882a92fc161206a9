#pragma once

#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"
#include "platform/transport/Link_p.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <set>
#include <vector>

namespace Transport {

/**
 * A link without a world behind it, for unit tests of what stands above: it records what is issued, plays the other
 * actors, and makes the faults that a test asks for. Everything it reports comes on the process's receiving thread.
 */
class FakeLink : public Link {
public:
    /** What becomes of a message that is issued to a peer. */
    enum class Fate {
        deliver, // recorded; nothing more
        refuse,  // issue() fails
        lose,    // accepted and forgotten
        bounce,  // accepted, recorded, and comes back through receiveError()
        hold,    // accepted and recorded when releaseHeld() is called
    };

    /** Makes this the process's link. Call it before the transport is used for the first time. Never destroyed. */
    static FakeLink &install();
    /** As after install(): no peers, no records, no faults. */
    void reset();

    /** Each call returns after the transport has taken it in. */
    void peerAppears(TerminationId id);
    void peerVanishes(TerminationId id);
    /** A message from a peer, delivered `times` times. The addresses are the message's own. */
    void deliver(const AddressedMessage &message, int times = 1);
    /** A message that was issued comes back. */
    void bounce(const AddressedMessage &message);

    /** Decides about every issued message; called in the issuing thread, without any lock. */
    void setFate(std::function<Fate(const AddressedMessage &)> fate);
    void releaseHeld();

    /** What was issued to peers so far, oldest first; waits up to 20 s for at least `atLeast`. Empties the record. */
    std::vector<AddressedMessage> takeIssued(std::size_t atLeast = 0);

    /** Messages from peers that found no target here, and went back to them. */
    std::vector<AddressedMessage> takeGivenBack(std::size_t atLeast = 0);

    /** Terminations of this process that are announced now. */
    std::set<unsigned> announced();
    void setAnnounceFails(bool fails);
    /** No more name ids. */
    void setNamesExhausted(bool exhausted);

    unsigned claimName() override;
    void releaseName(unsigned name) override;
    bool announce(TerminationId id) override;
    void withdraw(TerminationId id) override;
    bool send(AddressedMessage &&message) override;
    bool giveBack(AddressedMessage &&message) override;

private:
    FakeLink(Reactor &reactor, LinkListener &listener) : reactor_(reactor), listener_(listener) {}
    void record(const AddressedMessage &message);
    std::vector<AddressedMessage> take(std::vector<AddressedMessage> &from, std::size_t atLeast);

    Reactor &reactor_;
    LinkListener &listener_;
    OSWrap::Mutex lock_;
    std::condition_variable_any changed_;
    std::function<Fate(const AddressedMessage &)> fate_ RB_GUARDED_BY(lock_);
    std::vector<AddressedMessage> issued_ RB_GUARDED_BY(lock_);
    std::vector<AddressedMessage> givenBack_ RB_GUARDED_BY(lock_);
    std::deque<AddressedMessage> held_ RB_GUARDED_BY(lock_);
    std::set<unsigned> peers_ RB_GUARDED_BY(lock_);
    std::set<unsigned> announced_ RB_GUARDED_BY(lock_);
    unsigned nextName_ RB_GUARDED_BY(lock_) = 0x0100;
    bool announceFails_ RB_GUARDED_BY(lock_) = false;
    bool namesExhausted_ RB_GUARDED_BY(lock_) = false;
};

} // namespace Transport
