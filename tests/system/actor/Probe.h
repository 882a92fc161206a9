#pragma once

#include "platform/ConditionVar.h"
#include "platform/Lock.h"
#include "platform/Termination.h"

#include <map>

/**
 * A termination that checks what it receives and says what happens to it: "appeared ID", "disappeared ID",
 * "bounced ID SIZE". Messages carry a number that counts up per sender, and are filled with it.
 */
class Probe : public Transport::TerminationImpl {
public:
    explicit Probe(unsigned group) : TerminationImpl(static_cast<Transport::GroupId>(group), "probe") {}
    ~Probe() override { stop(); }

    /** How many of `count` messages of `size` bytes were accepted for the target; stops at the first refusal. */
    unsigned send(unsigned target, unsigned size, unsigned count);
    /** Waits until `count` messages have been received in all; false after 60 s. */
    bool await(unsigned count);
    /** What was received: per sender "from ID count N bytes B errors E", then "end". */
    void tell();
    /** Whether receive() waits before it returns. */
    void hold(bool held);
    /** Answers each message from now on. */
    void echo() { echo_ = true; }

    bool receive(const Transport::AddressedMessage &message) override;
    bool receiveError(const Transport::AddressedMessage &message) override;
    void appeared(Transport::Termination &termination) override;
    void disappeare(Transport::Termination &termination) override;

private:
    struct Sender {
        unsigned count = 0;
        unsigned long bytes = 0;
        unsigned errors = 0; // out of order, or not filled as it should be
    };
    using Locked = OSWrap::Lock<OSWrap::ConditionVar>;

    OSWrap::ConditionVar changed_{false};
    std::map<unsigned, Sender> senders_;
    std::map<unsigned, unsigned> numbers_; // the next one for each target
    unsigned total_ = 0;
    bool held_ = false;
    bool echo_ = false;
};
