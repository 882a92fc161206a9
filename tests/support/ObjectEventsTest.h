#pragma once

#include "objects/REFLECT_objectStub.h"
#include "observation/REFLECT_Observer.h"
#include "orb/REFLECT_orb.h"
#include "support/BrokerTest.h"
#include "support/FakeUnit.h"
#include "threads/HandlerState.h"

#include <functional>
#include <vector>

namespace Testing {

/** Writes down the numbers of the objects that it is told of. */
class ObjectWatcher : public TreflectObserver {
public:
    explicit ObjectWatcher(const char *name) : TreflectObserver(TipprmiOID(name, NamespaceId(1)), nullptr, name) {}
    bool detected() override {
        told.push_back(getSource()->getStub()->getInternalOID());
        permission.push_back(TreflectORB::hasRunPermission());
        handler = TreflectORB::isHandlerThread();
        reaction();
        return true;
    }
    std::vector<unsigned> told;
    std::vector<bool> permission;
    bool handler = false;
    std::function<void()> reaction = [] {};
};

/** Tests of what brokers tell each other of objects; with the run permission. */
class ObjectEventsTest : public BrokerTest {
protected:
    static constexpr unsigned kClass = 0x77;
    static constexpr Transport::TerminationId kPeer{0x0042, 2, 1};
    static constexpr Transport::TerminationId kOther{0x0043, 2, 1};

    ~ObjectEventsTest() override {
        unit.objects = [](TipprmiStream &body) { body << 0U; };
        orb.destroyMetaData();
    }
    bool isSeen(Transport::TerminationId id, const char *what) {
        return log.waitFor(5, LogMakeString("ORB 0x%08X sees 0x%08X %s", orb.termId().value(), id.value(), what),
                           "REFLECT_orb");
    }
    /** The broker has dealt with the appearance when this returns. */
    void appear(Transport::TerminationId id) {
        TreflectReleaseHandlerState released; // for the thread that sees it
        log.clear();
        link.peerAppears(id);
        EXPECT_TRUE(isSeen(id, "appear"));
        awaitSeen();
    }
    /** Likewise. */
    void vanish(Transport::TerminationId id) {
        TreflectReleaseHandlerState released;
        log.clear();
        link.peerVanishes(id);
        EXPECT_TRUE(isSeen(id, "disappear"));
        awaitSeen();
    }
    TreflectORB::TreflectObjectLocation at(Transport::TerminationId id, unsigned number) const {
        return TreflectORB::TreflectObjectLocation(number, orb.convertId(id), nullptr,
                                                   TipprmiOID(nullptr, NamespaceId(1)));
    }
    void theyHave(std::vector<unsigned> numbers) {
        unit.objects = [this, numbers](TipprmiStream &body) {
            body << static_cast<unsigned>(numbers.size());
            for (unsigned number : numbers) {
                body << at(kPeer, number);
            }
        };
    }
    void theirClasses(std::vector<unsigned> classes) {
        unit.classes = [classes](TipprmiStream &body) {
            body << static_cast<unsigned>(classes.size());
            for (unsigned cc : classes) {
                body << cc;
            }
        };
    }

    FakeUnit unit{link};
    TreflectHandlerState state{true};

private:
    /** Events are handled in order: when a marker's event begins, those before it have ended. */
    void awaitSeen() {
        const Transport::TerminationId marker(0x0099, 2, Transport::GRPID_NODE); // of another namespace
        link.peerAppears(marker);
        EXPECT_TRUE(isSeen(marker, "appear"));
        link.peerVanishes(marker);
    }
};

} // namespace Testing
