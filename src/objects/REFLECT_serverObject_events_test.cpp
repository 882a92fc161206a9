#include "objects/REFLECT_serverObject.h"

#include "observation/REFLECT_Observer.h"
#include "orb/REFLECT_orb.h"
#include "platform/Thread.h"
#include "reflection/REFLECT_metaObject.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "threads/HandlerState.h"
#include "threads/HandlerThreadsType_p.h"

#include <vector>

namespace {

constexpr char kNoMeta[] = "TreflectServerObject::sendCreationEvent(): no meta object";
constexpr char kSource[] = "REFLECT_serverObject";
constexpr unsigned kOwn = 0xF00D1001;
constexpr unsigned kAncestor = 0xF00D1000;

class Meta : public TreflectMetaObject {
public:
    explicit Meta(unsigned classId) : TreflectMetaObject("Node", classId) {}
    void completeMetaInformation() override {}
};

class Node : public TreflectServerObject {
public:
    Node() : TreflectServerObject(TipprmiOID("node", NamespaceId(1)), nullptr, "node") {}
    unsigned getServerClassId() const override { return kOwn; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned> ids;
        ids.push_back(kOwn);
        ids.push_back(kAncestor);
        return ids;
    }
};

class Counter : public TreflectObserver {
public:
    explicit Counter(const char *name) : TreflectObserver(TipprmiOID(name, NamespaceId(1)), nullptr, name) {}
    bool detected() override {
        ++told;
        permission = TreflectORB::hasRunPermission();
        handler = TreflectORB::isHandlerThread();
        thread = OSWrap::Thread::getCurrentId();
        return true;
    }
    int told = 0;
    bool permission = true;
    bool handler = false;
    unsigned long thread = 0;
};

/** The events that an object's owner sends. */
class ObjectEventsTest : public Testing::BrokerTest {
protected:
    /** The next test's brokers are not asked for what this one observed. */
    void TearDown() override {
        orb.destroyMetaData();
        BrokerTest::TearDown();
    }
    /** Observers of both events of a class, whether it is known or not. */
    void observe(unsigned classId) {
        orb.observeCreations(classId, created, false);
        orb.observeDeletions(classId, deleted);
    }

    TreflectHandlerState state{true};
    Node node;
    Counter created{"created"};
    Counter deleted{"deleted"};
};

/** The deletion is reported with the name of the creation, too. */
TEST_F(ObjectEventsTest, OfAnObjectOfUnknownClassAreReportedAndNotSent) {
    observe(kOwn);
    observe(kAncestor);
    log.clear();
    node.sendDeletionEvent(nullptr);
    EXPECT_EQ(1U, log.count(3, kNoMeta, kSource));
    EXPECT_TRUE(log.with("sendDeletionEvent").empty());
    node.sendCreationEvent(nullptr);
    EXPECT_EQ(2U, log.count(3, kNoMeta, kSource));
    EXPECT_EQ(0, created.told);
    EXPECT_EQ(0, deleted.told);
    EXPECT_TRUE(orb.getMetaData(kOwn)->objects.empty());
}

TEST_F(ObjectEventsTest, OfAnObjectWithoutClientAreReportedAndNotSent) {
    const Meta meta(kOwn);
    observe(kOwn);
    log.clear();
    {
        const Testing::FailingHeap heap;
        node.sendDeletionEvent(nullptr);
    }
    EXPECT_EQ(1U, log.count(3, kNoMeta, kSource));
    EXPECT_EQ(0, deleted.told);
    {
        const Testing::FailingHeap heap;
        node.sendCreationEvent(nullptr);
    }
    EXPECT_EQ(2U, log.count(3, kNoMeta, kSource));
    EXPECT_EQ(0, created.told);
    node.sendCreationEvent(nullptr);
    EXPECT_EQ(1, created.told) << "with memory";
}

TEST_F(ObjectEventsTest, AreOfTheFirstKnownClassUnlessAnotherIsGiven) {
    const Meta ancestor(kAncestor);
    observe(kAncestor);
    node.sendCreationEvent(nullptr);
    node.sendDeletionEvent(nullptr);
    EXPECT_EQ(1, created.told) << "its own class is not known";
    EXPECT_EQ(1, deleted.told);
    const Meta own(kOwn);
    node.sendCreationEvent(nullptr);
    node.sendDeletionEvent(nullptr);
    EXPECT_EQ(1, created.told) << "now it is";
    EXPECT_EQ(1, deleted.told);
    node.sendCreationEvent(&ancestor);
    node.sendDeletionEvent(&ancestor);
    EXPECT_EQ(2, created.told);
    EXPECT_EQ(2, deleted.told);
    EXPECT_TRUE(log.with("no meta object").empty());
}

/** It becomes one for as long as that takes, as who tells others must be. */
TEST_F(ObjectEventsTest, AreSentByThreadsThatAreNoHandlersToo) {
    const Meta own(kOwn);
    observe(kOwn);
    log.clear();
    unsigned long sender = 0;
    const auto send = [&](void (TreflectServerObject::*event)(const TreflectMetaObject *) const) {
        const TreflectReleaseHandlerState released;
        Testing::TestThread([&] {
            EXPECT_FALSE(TreflectORB::isHandlerThread());
            sender = OSWrap::Thread::getCurrentId();
            (node.*event)(&own);
            EXPECT_FALSE(TreflectORB::hasRunPermission());
            EXPECT_FALSE(TreflectORB::isHandlerThread());
        });
    };
    send(&TreflectServerObject::sendCreationEvent);
    EXPECT_EQ(1, created.told);
    EXPECT_EQ(sender, created.thread);
    EXPECT_TRUE(created.handler);
    EXPECT_FALSE(created.permission) << "as for all who are told";
    EXPECT_EQ(1U, orb.getMetaData(kOwn)->objects.count(&node));
    EXPECT_EQ(0, deleted.told);
    send(&TreflectServerObject::sendDeletionEvent);
    EXPECT_EQ(1, deleted.told);
    EXPECT_EQ(sender, deleted.thread);
    EXPECT_TRUE(deleted.handler);
    EXPECT_FALSE(deleted.permission);
    EXPECT_TRUE(orb.getMetaData(kOwn)->objects.empty());
    EXPECT_EQ(1, created.told);
    for (const Testing::LogLine &line : log.lines()) {
        EXPECT_GT(line.level, 3) << line.text;
    }
}

TEST_F(ObjectEventsTest, WaitForThePermission) {
    const Meta own(kOwn);
    observe(kOwn);
    Testing::TestThread sender([&] {
        node.sendCreationEvent(&own);
        node.sendDeletionEvent(&own);
    });
    EXPECT_TRUE(Testing::eventually([] { return handlerThreads()->waitingForPermission() == 1; }));
    EXPECT_TRUE(orb.getMetaData(kOwn)->objects.empty());
    EXPECT_EQ(0, created.told);
    const TreflectReleaseHandlerState released;
    sender.join();
    EXPECT_EQ(1, created.told);
    EXPECT_EQ(1, deleted.told);
}

} // namespace
