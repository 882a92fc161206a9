#include "orb/REFLECT_orb.h"

#include "platform/IdInfo.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/Scenario.h"
#include "threads/HandlerThreadsType_p.h"

#include <memory>

namespace {

using Testing::FailingHeap;

class LifecycleTest : public Testing::BrokerTest {};

TEST_F(LifecycleTest, ABrokerSaysWhoItIs) {
    log.clear();
    const TreflectORB *const other = TreflectORB::getInstance(NSID_NODE);
    ASSERT_NE(nullptr, other);
    EXPECT_EQ(1U, log.count(5,
                            LogMakeString("ORB created for actor %s with OrbId 0x%X, TerminationId 0x%08X",
                                          Transport::IdInfo::getActor().c_str(), other->orbId().value(),
                                          other->termId().value()),
                            "REFLECT_orb"));
    EXPECT_EQ(3U, other->termId().groupId());
    EXPECT_NE(orb.orbId(), other->orbId());
}

TEST_F(LifecycleTest, AFreshBrokerHasSeenNothing) {
    const TreflectORB *const fresh = TreflectORB::getInstance(20);
    EXPECT_EQ(0UL, fresh->receivingThreadId());
    EXPECT_EQ(10U, fresh->waitDuration());
}

TEST_F(LifecycleTest, BookkeepingOfAClassIsMadeOnFirstUse) {
    TreflectORB::MetaData *const first = orb.getMetaData(7);
    ASSERT_NE(nullptr, first);
    EXPECT_TRUE(first->creationObservers.empty());
    EXPECT_TRUE(first->deletionObservers.empty());
    EXPECT_TRUE(first->objects.empty());
    EXPECT_TRUE(first->remoteCreationObservers.empty());
    EXPECT_TRUE(first->remoteDeletionObservers.empty());
    first->remoteCreationObservers.insert(TreflectOrbId(0x12340301U));
    for (unsigned id = 0; id < 100; ++id) {
        EXPECT_EQ(id == 7, orb.getMetaData(id) == first);
    }
    EXPECT_EQ(first, orb.getMetaData(7)) << "others do not move it";
    EXPECT_EQ(1U, orb.getMetaData(7)->remoteCreationObservers.size());
    EXPECT_NE(nullptr, orb.getMetaData(~0U));

    orb.destroyMetaData();
    EXPECT_TRUE(orb.getMetaData(7)->remoteCreationObservers.empty());
    orb.destroyMetaData();
}

TEST_F(LifecycleTest, WithoutMemoryAClassHasNoBookkeeping) {
    for (unsigned allowed : {0U, 1U}) { // the entry; what it holds
        TreflectORB::MetaData *entry = nullptr;
        {
            const FailingHeap none(allowed, FailingHeap::Calls::all);
            entry = orb.getMetaData(5);
        }
        EXPECT_EQ(nullptr, entry);
        EXPECT_NE(nullptr, orb.getMetaData(5)) << "the next try works";
        orb.destroyMetaData();
    }
}

TEST_F(LifecycleTest, TheRunPermissionIsReachedThroughTheBroker) {
    EXPECT_FALSE(TreflectORB::isHandlerThread());
    TreflectORB::enterHandlerState(true);
    EXPECT_TRUE(TreflectORB::isHandlerThread());
    EXPECT_TRUE(TreflectORB::hasRunPermission());
    EXPECT_EQ(1UL, TreflectORB::getRunPermissionCount());
    EXPECT_EQ(OSWrap::Thread::getCurrentId(), TreflectORB::getRunPermissionOwner());
    TreflectORB::checkHandlerState();
    TreflectORB::releaseRunPermission();
    EXPECT_FALSE(TreflectORB::hasRunPermission());
    EXPECT_EQ(0UL, TreflectORB::getRunPermissionOwner());
    TreflectORB::getRunPermission();
    EXPECT_TRUE(TreflectORB::hasRunPermission());
    TreflectORB::leaveHandlerState(true);
    EXPECT_FALSE(TreflectORB::isHandlerThread());
    EXPECT_EQ(0UL, TreflectORB::getRunPermissionOwner());
    EXPECT_EQ(::handlerThreads(), TreflectORB::handlerThreads());
}

SCENARIO(brokerMadeEarly) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    preCreateReflectOrb();
    SCENARIO_CHECK(link.announced().size() == 1);
    SCENARIO_CHECK(!TreflectORB::isHandlerThread());
    SCENARIO_CHECK(TreflectORB::getRunPermissionOwner() == 0);
    const TreflectORB *const orb = TreflectORB::getInstance(1);
    SCENARIO_CHECK(link.announced().count(orb->termId().value()) == 1);
    preCreateReflectOrb();
    SCENARIO_CHECK(link.announced().size() == 1);
    TreflectORB::enterHandlerState(true);
    preCreateReflectOrb();
    SCENARIO_CHECK(TreflectORB::hasRunPermission());
    TreflectORB::leaveHandlerState(true);
}

TEST_F(LifecycleTest, ABrokerCanBeMadeEarly) {
    const Testing::ProcessResult result = Testing::runScenario("brokerMadeEarly");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

} // namespace
