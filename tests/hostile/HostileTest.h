#pragma once

#include "hostile/Peer.h"
#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace Hostile {

/** An actor with two objects, "served" and "other", and a well-behaved client that calls the first one all the time. */
class HostileTest : public testing::Test {
protected:
    explicit HostileTest(unsigned logLevel = 6);

    void SetUp() override;
    /** The actor lives, no call of the client has failed, and nobody but those who were meant was called. */
    void TearDown() override;

    /** How often an object was called. */
    unsigned calls(std::uint32_t object);
    /** All that the peer has sent was taken in, and a call of its own is answered as it should be. */
    void expectServed(Peer &peer);
    /** The same for a new peer. */
    void expectServesNewPeer();
    /** The server closes the connection, says why, and goes on. */
    void expectClosed(Peer &peer, const std::string &reason);
    bool logged(const std::string &text) const { return server_.waitLog(text); }
    /** Resident memory of the server in KiB. */
    long memory() const;

    const Testing::TempDir directory_;
    const Testing::Unit unit_;
    Testing::Actor server_{unit_, 1, {"REFLECTORB_ACTOR=server"}};
    std::string socket_;
    std::uint32_t orb_ = 0; // the server's broker
    std::uint32_t served_ = 0;
    std::uint32_t other_ = 0;
    Testing::Actor client_{unit_, 3};
    std::uint32_t clientOrb_ = 0;
    /** Calls of `other` that this test has made. */
    unsigned expectedCalls_ = 0;
    /** Calls of `served` that came from others than the client. */
    unsigned strayCalls_ = 0;
    bool serverEnds_ = false; // as the test wants it

private:
    std::uint32_t transaction_ = 0;
};

} // namespace Hostile
