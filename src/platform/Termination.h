#pragma once

#include "platform/AddressedMessage.h"
#include "platform/Export.h"
#include "platform/SmartPointer.h"
#include "platform/TerminationId.h"

#include <memory>

namespace Transport {

/** An end point of the unit's message transport, in this process or in another one. */
class REFLECTORB_API Termination {
public:
    virtual ~Termination();
    Termination(const Termination &) = delete;
    Termination &operator=(const Termination &) = delete;

    /** Called by the transport, on its receiving thread, with each message for a termination of this process. */
    virtual bool receive(const AddressedMessage &message);
    /**
     * Sends a copy of the message to *this* termination. The originator must be a started termination of this process.
     * True: accepted, which is not yet delivered; should the target vanish first, the message comes back through the
     * originator's receiveError() (unless it was already in the hands of an actor that got killed). False: it will not
     * arrive, and will not come back. Callable from every thread and under every lock; never calls receive() itself;
     * is slowed down to the pace of a receiver that falls behind, by 2 s at most, and waits 100 ms for one that does
     * not read at all (once, until it reads again). Order is kept per originator and target.
     */
    virtual bool issue(const AddressedMessage &message);
    /** Called by the transport, on its receiving thread, with a message of this termination that found no target:
     *  originator and destination are as they were issued. */
    virtual bool receiveError(const AddressedMessage &message);
    /** Gives a received message back to its originator's receiveError(). */
    virtual bool issueError(const AddressedMessage &message);

    TerminationId termId() const noexcept { return id_; }

protected:
    explicit Termination(TerminationId id) noexcept : id_(id) {}

private:
    const TerminationId id_;
};

/** Stays usable after the peer has gone: issue() then returns false. */
using TerminationPtr = OSWrap::SmartPointer<Termination>;

/**
 * Base of the terminations that live in this process. Callbacks come from two threads of the transport: receive() and
 * receiveError() from the process's receiving thread, which they must not block; appeared() and disappeare() from a
 * membership thread of this termination, which they may block.
 */
class REFLECTORB_API TerminationImpl : public Termination {
public:
    /** Takes an id that no live termination of the unit has; termId() is 0 if there is none, and start() fails then. */
    TerminationImpl(GroupId group, const char *name) noexcept;
    /** Stops if that was not done; too late for callbacks into a derived class, so stop earlier. */
    ~TerminationImpl() override;

    /** A message of zero bytes with this termination as originator; see AddressedMessage::allocate(). */
    AddressedMessage allocateMessage(unsigned size, unsigned align, unsigned spare = 0) const noexcept;

    bool issue(const AddressedMessage &message) override;
    bool issueError(const AddressedMessage &message) override;

    /** Announces the termination. On return all terminations present in the unit are known (peers that do not answer
     *  within 100 ms excepted). False without id or usable unit directory, after one line that says why, and after
     * stop(). */
    virtual bool start();
    virtual bool started();
    /** Withdraws the termination; peers see it disappear. On return no callback runs or will run, except the caller's
     *  own. Must not be called with the run permission. */
    virtual bool stop();

    /** Every termination of the unit, own ones included; own first, then those present at the start in ascending
     *  order, then as they come. The reference is good for the time of the call. */
    virtual void appeared(Termination &termination);
    virtual void disappeare(Termination &termination);

private:
    friend class LayerCore;
    std::shared_ptr<class OwnTermination> own_;
};

} // namespace Transport
