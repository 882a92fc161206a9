#pragma once

#include "platform/AddressedMessage.h"
#include "platform/TerminationId.h"

#include <memory>

namespace Transport {

class Reactor;

/** What a link tells the transport, always on the receiving thread. */
class LinkListener {
public:
    virtual ~LinkListener() = default;
    /** Before the first message of that termination. */
    virtual void terminationAppeared(TerminationId id) = 0;
    /** After the last message of that termination. */
    virtual void terminationVanished(TerminationId id) = 0;
    /** The link vouches for the originator. */
    virtual void messageArrived(AddressedMessage &&message) = 0;
    /** A message sent from here that found no target. */
    virtual void messageReturned(AddressedMessage &&message) = 0;
};

/**
 * The seam under the transport: carries messages between this process and the terminations of others, and knows which
 * of those there are. Nothing above may know which link serves a termination.
 */
class Link {
public:
    virtual ~Link() = default;

    /** A name id that no live termination of the unit has; 0 if there is none. Any thread. */
    virtual unsigned claimName() = 0;
    virtual void releaseName(unsigned name) = 0;

    /** Makes an own termination known to all peers. On return the link has reported everything present in the unit
     *  (peers that do not answer within 100 ms excepted). Any thread; on the receiving thread without that wait. */
    virtual bool announce(TerminationId id) = 0;
    /** Takes it back, after all that was sent before has been handed over to peers that read. */
    virtual void withdraw(TerminationId id) = 0;

    /** Sends to message.destination(); see Termination::issue(). Any thread. */
    virtual bool send(AddressedMessage &&message) = 0;
    /** Returns a message that came over this link to its originator. Any thread. */
    virtual bool giveBack(AddressedMessage &&message) = 0;
};

using LinkFactory = std::unique_ptr<Link> (*)(Reactor &reactor, LinkListener &listener);

} // namespace Transport
