#pragma once

#include "Input.h"
#include "orb/REFLECT_orb.h"
#include "platform/transport/testing/FakeLink.h"

/** A broker over a link without a world behind it, and one peer that sends it what the fuzzer made. */
class Broker {
public:
    static constexpr Transport::TerminationId kPeer = Transport::TerminationId(0x0042, 2, 1);

    static Broker &instance();

    /** A message from the peer with these bytes. */
    Transport::AddressedMessage fromPeer(const Input &bytes) const;
    /** The peer answers the next requests with these bytes behind the head of a response. */
    void answerWith(const Input &payload);

    Transport::FakeLink &link = Transport::FakeLink::install();
    TreflectORB &orb;

private:
    Broker();
};
