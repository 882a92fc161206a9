#pragma once

#include "orb/REFLECT_orb.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/transport/testing/FakeLink.h"
#include "rmi/IPPRMI_stream.h"
#include "rmi/StreamOperators.h"
#include "support/HeapProbe.h"

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace Testing {

/** Other brokers that answer at once what this process asks of them, all in the same way. They speak of classes: a test
 *  says which they have, and which objects; who is mute refuses messages. */
class FakeUnit {
public:
    struct Asked {
        Transport::TerminationId target = Transport::TerminationId();
        TreflectMessage::type_t type = TreflectMessage::tUndef;
        unsigned cc = 0;
        bool plusExisting = false; // of a subscription to creations
        bool complete = false;     // nothing of it is missing
    };

    explicit FakeUnit(Transport::FakeLink &link) : link_(link) {
        link_.setFate([this](const Transport::AddressedMessage &message) { return take(message); });
    }
    ~FakeUnit() { link_.setFate({}); }
    FakeUnit(const FakeUnit &) = delete;
    FakeUnit &operator=(const FakeUnit &) = delete;

    /** What the next subscriptions are answered with, behind the objects: classes; by default none is said at all. */
    std::function<void(TipprmiStream &)> objects = [](TipprmiStream &body) { body << 0U; };
    std::function<void(TipprmiStream &)> classes = [](TipprmiStream &) {};
    /** Called for each message, in the thread that sends it, before it is answered. */
    std::function<void(const Asked &)> meanwhile = [](const Asked &) {};

    void mute(Transport::TerminationId id) {
        const OSWrap::Lock<OSWrap::Mutex> lock(lock_);
        mute_.insert(id.value());
    }
    /** What they were asked since the last call, in order. */
    std::vector<Asked> asked() {
        const OSWrap::Lock<OSWrap::Mutex> lock(lock_);
        std::vector<Asked> all;
        all.swap(asked_);
        return all;
    }
    /** "42:tOCNSU(7,existing) 43:tODN(7)" */
    std::string summary() {
        std::string text;
        for (const Asked &one : asked()) {
            static constexpr const char *names[] = {"tUndef", "tRslve", "tPayld", "tOCN",   "tODN",  "tOCNSU",
                                                    "tODNSU", "tOCNUN", "tODNUN", "tOrbAp", "tPfCnt"};
            text += LogMakeString("%s%X:%s(%X%s)", text.empty() ? "" : " ", one.target.nameId(), names[one.type],
                                  one.cc, one.plusExisting ? ",existing" : "");
        }
        return text;
    }

private:
    using Fate = Transport::FakeLink::Fate;

    Fate take(const Transport::AddressedMessage &addressed) {
        const WorkingHeap others;
        const TreflectMessage message(addressed);
        if (message.kind() != TreflectMessage::kRequ) {
            return Fate::deliver;
        }
        Asked one;
        one.target = addressed.destination();
        one.type = message.type();
        TipprmiStream request(message, false);
        request >> one.cc;
        if (one.type == TreflectMessage::tOCNSU) {
            request >> one.plusExisting;
        }
        if (one.type == TreflectMessage::tOCN || one.type == TreflectMessage::tODN) {
            TreflectORB::TreflectObjectLocation object(TipprmiOID(nullptr, NamespaceId(1)));
            request >> object;
        }
        one.complete = !request.hasUnmarshallingFailed();
        bool isMute = false;
        {
            const OSWrap::Lock<OSWrap::Mutex> lock(lock_);
            asked_.push_back(one);
            isMute = mute_.count(one.target.value()) != 0;
        }
        meanwhile(one);
        if (isMute) {
            return Fate::refuse;
        }
        TipprmiStream body(TreflectORB::getInstance(1)->allocateResponse(message, 100), true);
        if (one.type == TreflectMessage::tRslve) {
            body << 0U;
        }
        if (one.type == TreflectMessage::tOCNSU) {
            objects(body);
        }
        if (one.type == TreflectMessage::tOCNSU || one.type == TreflectMessage::tODNSU) {
            classes(body);
        }
        Transport::AddressedMessage response = body.msg().addressed();
        response.originator() = addressed.destination();
        response.destination() = addressed.originator();
        link_.deliver(response);
        return Fate::lose; // it has been dealt with
    }

    Transport::FakeLink &link_;
    OSWrap::Mutex lock_;
    std::vector<Asked> asked_ RB_GUARDED_BY(lock_);
    std::set<unsigned> mute_ RB_GUARDED_BY(lock_);
};

} // namespace Testing
