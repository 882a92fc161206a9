#pragma once

#include "orb/REFLECT_orb.h"
#include "platform/transport/testing/FakeLink.h"
#include "rmi/IPPRMI_stream.h"

#include <utility>
#include <vector>

namespace Testing {

/** Another broker as this process's broker sees it through the fake link, there from now on; a test writes its messages
 *  and reads what it gets. */
class ManualPeer {
public:
    ManualPeer(Transport::FakeLink &link, const TreflectORB &orb, Transport::TerminationId id)
        : link_(link), orb_(orb), id_(id) {
        link_.peerAppears(id_);
    }

    Transport::TerminationId id() const noexcept { return id_; }

    /** A message to the broker, to be written and then sent. */
    TipprmiStream message(TreflectMessage::type_t type, TreflectMessage::kind_t kind, unsigned transactionId) const {
        TreflectMessage head(&orb_, transactionId, 100);
        head.type(type);
        head.kind(kind);
        return TipprmiStream(std::move(head), true);
    }
    /** The head of a method call; arguments may follow. */
    TipprmiStream call(unsigned ioid, bool transaction, unsigned cc, unsigned mc, unsigned transactionId = 0x2A) const {
        TipprmiStream body = message(TreflectMessage::tPayld,
                                     transaction ? TreflectMessage::kRequ : TreflectMessage::kMsg, transactionId);
        body << ioid << transaction << cc << mc;
        return body;
    }
    void send(const TipprmiStream &body) const {
        Transport::AddressedMessage message = body.msg().addressed();
        message.originator() = id_;
        message.destination() = orb_.termId();
        link_.deliver(message);
    }
    /** The next message from this process to any peer; one without buffer if none comes in time. */
    Transport::AddressedMessage next() const {
        std::vector<Transport::AddressedMessage> issued = link_.takeIssued(1);
        return issued.size() == 1 ? issued[0] : Transport::AddressedMessage();
    }
    /** Answers a request; `write(body)` fills in the response. */
    template <class Write>
    void respond(const Transport::AddressedMessage &request, const Write &write) const {
        TreflectMessage head = orb_.allocateResponse(TreflectMessage(request), 100);
        TipprmiStream body(std::move(head), true);
        write(body);
        Transport::AddressedMessage message = body.msg().addressed();
        message.originator() = request.destination();
        message.destination() = request.originator();
        link_.deliver(message);
    }

private:
    Transport::FakeLink &link_;
    const TreflectORB &orb_;
    const Transport::TerminationId id_;
};

} // namespace Testing
