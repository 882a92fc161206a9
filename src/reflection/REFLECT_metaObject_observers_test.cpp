#include "observation/REFLECT_Observer.h"
#include "reflection/REFLECT_metaObject.h"
#include "support/BrokerTest.h"
#include "support/FakeUnit.h"
#include "support/HeapProbe.h"
#include "threads/HandlerState.h"

namespace {

constexpr Transport::TerminationId kPeer(0x0042, 2, 1);
constexpr unsigned kClass = 0xF00D0001;

class Meta : public TreflectMetaObject {
public:
    explicit Meta(unsigned classId) : TreflectMetaObject("Observed", classId) {}
    void completeMetaInformation() override {}
};

/** What a class does with its observers: it hands them on to the broker, with its own id. */
class MetaObserversTest : public Testing::BrokerTest {
protected:
    MetaObserversTest() {
        TreflectReleaseHandlerState released; // for the thread that sees it
        link.peerAppears(kPeer);
        EXPECT_TRUE(log.waitFor(5, LogMakeString("ORB 0x%08X sees 0x%08X appear", orb.termId().value(), kPeer.value()),
                                "REFLECT_orb"));
        // Events are handled in order: the end of the next one's is the end of this one's.
        const Transport::TerminationId marker(0x0099, 2, 2);
        link.peerAppears(marker);
        EXPECT_TRUE(log.waitFor(5, LogMakeString("ORB 0x%08X sees 0x%08X appear", orb.termId().value(), marker.value()),
                                "REFLECT_orb"));
    }
    /** The next test's brokers are not asked for what this one observed. */
    void TearDown() override {
        orb.destroyMetaData();
        BrokerTest::TearDown();
    }

    Testing::FakeUnit unit{link};
    TreflectHandlerState state{true};
    Meta meta{kClass};
    TreflectObserver first{TipprmiOID("first", NamespaceId(1)), nullptr, "first"};
    TreflectObserver second{TipprmiOID("second", NamespaceId(1)), nullptr, "second"};
};

TEST_F(MetaObserversTest, OfCreationsAreHandedOnWithWhetherTheyWantWhatIsThere) {
    EXPECT_TRUE(meta.observeCreations(&first, false));
    EXPECT_EQ("42:tOCNSU(F00D0001)", unit.summary());
    EXPECT_TRUE(meta.observeCreations(&second, true));
    EXPECT_EQ("42:tOCNSU(F00D0001,existing)", unit.summary());
    const TreflectORB::MetaData &data = *orb.getMetaData(kClass);
    EXPECT_EQ(2U, data.creationObservers.size());
    EXPECT_TRUE(data.deletionObservers.empty());
}

TEST_F(MetaObserversTest, OfDeletionsAreHandedOn) {
    EXPECT_TRUE(meta.observeDeletions(&first));
    EXPECT_EQ("42:tODNSU(F00D0001)", unit.summary());
    const TreflectORB::MetaData &data = *orb.getMetaData(kClass);
    EXPECT_EQ(1U, data.deletionObservers.size());
    EXPECT_TRUE(data.creationObservers.empty());
}

TEST_F(MetaObserversTest, AreRemovedFromTheirClassOnly) {
    Meta other(kClass + 1);
    meta.observeCreations(&first, false);
    other.observeCreations(&first, false);
    unit.summary();
    meta.removeObserver(&second); // was not there
    EXPECT_EQ(1U, orb.getMetaData(kClass)->creationObservers.size());
    meta.removeObserver(&first);
    EXPECT_TRUE(orb.getMetaData(kClass)->creationObservers.empty());
    EXPECT_EQ(1U, orb.getMetaData(kClass + 1)->creationObservers.size());
    EXPECT_NE(std::string::npos, unit.summary().find("42:tOCNUN(F00D0001)"));
    other.removeObserver(&first);
}

TEST_F(MetaObserversTest, AreRefusedWhenTheBrokerRefusesThem) {
    Meta unknown(kClass + 2);
    bool created = true;
    bool deleted = true;
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
        created = unknown.observeCreations(&first, false);
        deleted = unknown.observeDeletions(&first);
    }
    EXPECT_FALSE(created);
    EXPECT_FALSE(deleted);
    EXPECT_EQ("", unit.summary());
}

} // namespace
