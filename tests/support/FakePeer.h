#pragma once

#include "orb/REFLECT_orb.h"
#include "platform/transport/testing/FakeLink.h"
#include "rmi/IPPRMI_stream.h"
#include "support/BrokerTest.h"
#include "support/HeapProbe.h"

#include <functional>
#include <string>
#include <vector>

namespace Testing {

/** Another actor, as far as it answers requests at once: each goes to a function that writes the body of the response.
 *  There from its construction to its end. */
class FakePeer {
public:
    using Answer = std::function<void(TipprmiStream &response)>;

    explicit FakePeer(Transport::FakeLink &link, Transport::TerminationId id = Transport::TerminationId(0x42, 2, 1))
        : link_(link), id_(id) {
        link_.setFate([this](const Transport::AddressedMessage &message) { return take(message); });
        link_.peerAppears(id_);
    }
    ~FakePeer() {
        link_.setFate({});
        link_.peerVanishes(id_);
    }
    FakePeer(const FakePeer &) = delete;
    FakePeer &operator=(const FakePeer &) = delete;

    Transport::TerminationId id() const { return id_; }
    /** What the next requests are answered with; each is a whole body, with the exception container. */
    void answer(Answer answer) { answer_ = std::move(answer); }
    /** Bodies of the requests so far, in hex; the first four numbers are the head of the call. */
    const std::vector<std::string> &requests() const { return requests_; }
    std::string lastRequest() const { return requests_.empty() ? "none" : requests_.back(); }

private:
    Transport::FakeLink::Fate take(const Transport::AddressedMessage &addressed) {
        const WorkingHeap others;
        if (addressed.destination() != id_) {
            return Transport::FakeLink::Fate::deliver;
        }
        const TreflectMessage message(addressed);
        requests_.push_back(hex(TipprmiStream(message, false)));
        if (message.kind() == TreflectMessage::kRequ && answer_) {
            TreflectMessage head(TreflectORB::getInstance(1)->allocateResponse(message, 100));
            TipprmiStream body(std::move(head), true);
            answer_(body);
            Transport::AddressedMessage response = body.msg().addressed();
            response.originator() = addressed.destination();
            response.destination() = addressed.originator();
            link_.deliver(response);
        }
        return Transport::FakeLink::Fate::deliver;
    }

    Transport::FakeLink &link_;
    const Transport::TerminationId id_;
    Answer answer_;
    std::vector<std::string> requests_;
};

} // namespace Testing
