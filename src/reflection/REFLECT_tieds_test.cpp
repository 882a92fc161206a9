#include "reflection/REFLECT_tieds.h"

#include "reflection/REFLECT_attribute.h"
#include "reflection/REFLECT_operation.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/ReflectiveClasses.h"
#include "support/Scenario.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <typeinfo>
#include <vector>

namespace {

using Testing::EquipmentImpl;
using Testing::EquipmentMeta;
using Testing::PortImpl;
using Testing::PortMeta;
using Tied = OSWrap::SmartPointer<TreflectTieds::TiedBase>;

/** Calls a function when it goes. */
class Farewell : public TreflectTieds::TiedBase {
public:
    explicit Farewell(std::function<void()> said) : said_(std::move(said)) {}
    ~Farewell() override { said_(); }

private:
    const std::function<void()> said_;
};

class TiedsTest : public Testing::BrokerTest {
protected:
    TreflectHandlerState state{true};
    TreflectTieds &tieds = *TreflectTieds::instance();

    void SetUp() override { PortMeta::instance()->completeMetaInformation(); }
    /** As it says in the log, and nothing else there. */
    unsigned long count() {
        log.clear();
        tieds.print();
        unsigned long number = ~0UL;
        const auto lines = log.lines();
        if (lines.size() == 1) {
            std::sscanf(lines[0].text.c_str(), "%lu", &number);
            EXPECT_EQ(std::to_string(number) + " tieds are registered", lines[0].text);
            EXPECT_EQ(5, lines[0].level);
            EXPECT_EQ("REFLECT_memberFactory", lines[0].source);
        }
        return number;
    }
};

TEST_F(TiedsTest, CountsTheHandlesOfEachObjectUntilTheyGo) {
    EXPECT_EQ(0U, count());
    auto a = std::make_unique<TreflectObject>();
    const TreflectObject b;
    const TreflectMetaOperation *const blink = PortMeta::instance()->metaOperation("blink");
    const TreflectMetaAttribute *const label = PortMeta::instance()->metaAttribute("label");
    blink->getTied(a.get());
    blink->getTied(a.get());
    label->getTied(a.get());
    blink->getTied(&b);
    EXPECT_EQ(4U, count());
    tieds.destroyTieds(a.get());
    EXPECT_EQ(1U, count());
    tieds.destroyTieds(a.get());
    EXPECT_EQ(1U, count());
    label->getTied(a.get());
    EXPECT_EQ(2U, count());
    a.reset();
    EXPECT_EQ(1U, count()) << "they go with the object's handle";
    tieds.destroyTieds(&b);
    EXPECT_EQ(0U, count());
}

TEST_F(TiedsTest, HandlesOfContainedObjectsGoWithTheOutermost) {
    EquipmentImpl rack("rack");
    EquipmentImpl shelf("shelf");
    PortImpl port("port");
    port.carriedBy = TreflectObject(&shelf);
    shelf.carriedBy = TreflectObject(&rack);
    rack.serialNumber = "R7";
    auto object = std::make_unique<TreflectObject>(&port);
    TreflectAttribute *const carrier = object->attribute("carrier");
    TreflectAttribute *const serial = carrier->attribute("carrier")->attribute("serial");
    std::string text;
    EXPECT_EQ(0, serial->get(text));
    EXPECT_EQ("R7", text);
    carrier->attribute("carrier")->operation("reset")->call();
    EXPECT_EQ(1, rack.resets);
    carrier->operGet();
    EXPECT_EQ(6U, count());
    object.reset();
    EXPECT_EQ(0U, count());
}

/** Of a handle with others to go: the last user of each decides when it is deleted. */
TEST_F(TiedsTest, AHandleLivesAsLongAsSomebodyHasIt) {
    bool gone = false;
    const TreflectObject object;
    auto held = std::make_unique<Tied>(new Farewell([&] { gone = true; }));
    EXPECT_TRUE(tieds.adoptTied(&object, *held));
    EXPECT_TRUE(tieds.adoptTied(&object, *held)) << "twice is normal";
    EXPECT_EQ(2U, count());
    tieds.destroyTieds(&object);
    EXPECT_FALSE(gone);
    held.reset();
    EXPECT_TRUE(gone);
}

TEST_F(TiedsTest, HandlesAreDestroyedWithoutTheLock) {
    const TreflectObject object;
    const TreflectObject other;
    int told = 0;
    for (int i = 0; i < 2; ++i) {
        tieds.adoptTied(&object, Tied(new Farewell([&] {
            // In another thread too: the lock is not one that could be taken twice.
            const Testing::TestThread thread([&] { tieds.print(); });
            tieds.destroyTieds(&other);
            ++told;
        })));
        tieds.adoptTied(&other, Tied(new Farewell([&] { ++told; })));
    }
    tieds.destroyTieds(&object);
    EXPECT_EQ(4, told);
    EXPECT_EQ(0U, count());
}

/** One thread holds the permission and wants the registry; the other lets handles go, which need the permission. */
TEST_F(TiedsTest, ThreadsMayMakeAndDropHandlesAtTheSameTime) {
    EquipmentImpl shelf("shelf");
    PortImpl port("port");
    port.carriedBy = TreflectObject(&shelf);
    shelf.serialNumber = "S";
    const auto work = [&] {
        for (int i = 0; i < 200; ++i) {
            std::unique_ptr<TreflectObject> object;
            {
                const TreflectHandlerState permission(true);
                object = std::make_unique<TreflectObject>(&port);
                std::string text;
                EXPECT_EQ(0, object->attribute("carrier")->attribute("serial")->get(text));
                EXPECT_EQ("S", text);
            }
            object.reset();
        }
    };
    {
        const TreflectReleaseHandlerState released;
        const Testing::TestThread one(work);
        const Testing::TestThread two(work);
    }
    EXPECT_EQ(0U, count());
}

TEST_F(TiedsTest, WithoutMemoryThereIsAnErrorHandleOrNone) {
    const TreflectObject object;
    const TreflectMetaOperation *const blink = PortMeta::instance()->metaOperation("blink");
    TreflectAttribute *const label = PortMeta::instance()->metaAttribute("label")->getTied(&object);
    for (unsigned allowed = 0; allowed < 3; ++allowed) { // the handle, its counter, the entry
        SCOPED_TRACE(allowed);
        TreflectOperation *operation = nullptr;
        TreflectOperation *getter = nullptr;
        {
            const Testing::FailingHeap heap(allowed, Testing::FailingHeap::Calls::all);
            operation = blink->getTied(&object);
        }
        {
            const Testing::FailingHeap heap(allowed, Testing::FailingHeap::Calls::all);
            getter = label->operGet();
        }
        if (allowed == 0 || Testing::kLibraryHeapIsProbed) {
            EXPECT_EQ(nullptr, operation);
            EXPECT_EQ(&TreflectAttribute::errorOperation, getter);
            EXPECT_EQ(1U, count());
        }
    }
    EXPECT_EQ("getlabel", label->operGet()->meta()->name()) << "memory has come back";
}

// --- the end of the process -----------------------------------------------------------------------------------------

/** Handles with members and contained objects that outlive the registry, and the registry's own last entries. */
SCENARIO(handlesAtExit) {
    static TreflectObject *late = nullptr;
    // Runs after the destructor of the registry, whose guard is made by the first use.
    std::atexit([] {
        SCENARIO_CHECK(TreflectTieds::instance() == nullptr);
        delete late;
        SCENARIO_CHECK(TreflectTieds::instance() == nullptr);
        std::puts("survived");
    });
    Transport::FakeLink::install();
    TreflectORB::getInstance(1);
    TreflectORB::enterHandlerState(true);
    PortMeta::instance()->completeMetaInformation();
    auto *const shelf = new EquipmentImpl("shelf");
    auto *const port = new PortImpl("port");
    port->carriedBy = TreflectObject(shelf);
    late = new TreflectObject(port);
    std::string text;
    SCENARIO_CHECK(late->attribute("carrier")->attribute("serial")->get(text) == 0);
    SCENARIO_CHECK(TreflectTieds::instance() != nullptr);
}

/** Of main, which has read attributes of an attribute. */
void navigate() {
    PortMeta::instance()->completeMetaInformation();
    const TreflectHandlerState state(true);
    auto *const shelf = new EquipmentImpl("shelf");
    auto *const port = new PortImpl("port");
    port->carriedBy = TreflectObject(shelf);
    std::string text;
    SCENARIO_CHECK(port->getClient()->attribute("carrier")->attribute("serial")->get(text) == 0);
}

SCENARIO(exitBesidesAHolderOfThePermission) {
    Transport::FakeLink::install();
    TreflectORB::getInstance(1);
    navigate();
    static Testing::Gate &holds = *new Testing::Gate;
    static Testing::Gate &never = *new Testing::Gate;
    new Testing::TestThread([] {
        const TreflectHandlerState state(true);
        holds.open();
        never.pass();
    });
    SCENARIO_CHECK(holds.pass());
    std::exit(3);
}

TEST(TiedsAtExit, AContainedObjectDoesNotWaitForTheRunPermission) {
    const Testing::ProcessResult result = Testing::runScenario("exitBesidesAHolderOfThePermission");
    EXPECT_EQ(3, result.exitStatus) << (result.timedOut ? "timed out\n" : "") << result.output;
}

void adoptFarewell() {
    Transport::FakeLink::install();
    TreflectORB::getInstance(1);
    const Tied farewell(new Farewell([] {
        SCENARIO_CHECK(TreflectORB::getInstance(1) == nullptr); // the brokers go first: their threads may use handles
        std::puts("farewell");
    }));
    SCENARIO_CHECK(TreflectTieds::instance()->adoptTied(new TreflectObject, farewell));
}

SCENARIO(exitOfTheOnlyThread) {
    adoptFarewell();
}

SCENARIO(exitAfterOtherThreads) {
    adoptFarewell();
    const Testing::TestThread thread([] { const TreflectHandlerState state(true); });
}

/** It is not in the library at the moment, but may use a handle that it has made. */
SCENARIO(exitBesidesAnotherThread) {
    adoptFarewell();
    static Testing::Gate &made = *new Testing::Gate;
    static Testing::Gate &never = *new Testing::Gate;
    new Testing::TestThread([] {
        { const TreflectHandlerState state(true); }
        made.open();
        never.pass();
    });
    SCENARIO_CHECK(made.pass());
}

TEST(TiedsAtExit, HandlesThatNobodyElseCanUseAreDestroyedAfterTheBrokers) {
    const auto output = [](const char *scenario) {
        const Testing::ProcessResult result = Testing::runScenario(scenario);
        EXPECT_EQ(0, result.exitStatus) << result.output;
        return result.output;
    };
    EXPECT_NE(std::string::npos, output("exitOfTheOnlyThread").find("farewell\n"));
    EXPECT_NE(std::string::npos, output("exitAfterOtherThreads").find("farewell\n"));
    EXPECT_EQ(std::string::npos, output("exitBesidesAnotherThread").find("farewell\n"));
}

/** Some threads read attributes, and make and drop handles, until the process is gone. */
SCENARIO(exitWhileAttributesAreRead) {
    Transport::FakeLink::install();
    TreflectORB::getInstance(1);
    navigate();
    static std::atomic<unsigned> rounds{0};
    for (int i = 0; i < 3; ++i) {
        new Testing::TestThread([] {
            const TreflectObject *const port = [] {
                const TreflectHandlerState state(true);
                return new TreflectObject(TipprmiOID("port", NamespaceId(1)));
            }();
            TreflectAttribute *serial = nullptr;
            for (;;) {
                const TreflectHandlerState state(true);
                if (serial == nullptr) {
                    serial = port->attribute("carrier")->attribute("serial");
                }
                std::string text;
                serial->get(text);
                const TreflectObject copy(*port);
                copy.operation("blink");
                ++rounds;
            }
        });
    }
    SCENARIO_CHECK(Testing::eventually([] { return rounds > 300; }));
    std::exit(3);
}

TEST(TiedsAtExit, OtherThreadsReadAttributesMeanwhile) {
    for (int round = 0; round < 3; ++round) {
        const Testing::ProcessResult result = Testing::runScenario("exitWhileAttributesAreRead");
        EXPECT_EQ(3, result.exitStatus) << (result.timedOut ? "timed out\n" : "") << result.output;
    }
}

/** Made before the library's static objects, so that it is destroyed after them. */
struct Last {
    ~Last() {
        if (looksAtErrorHandles) {
            const TreflectAttribute &attribute = *isOfNothing;
            const TreflectOperation &operation = *doesNothing;
            SCENARIO_CHECK(typeid(attribute) == typeid(TreflectErrorAttribute));
            SCENARIO_CHECK(typeid(operation) == typeid(TreflectErrorOperation));
            std::puts("as ever");
            std::fflush(stdout);
        }
    }
    static bool looksAtErrorHandles;
    TreflectAttribute *volatile isOfNothing = &TreflectObject::errorAttribute;
    TreflectOperation *volatile doesNothing = &TreflectObject::errorOperation;
};
bool Last::looksAtErrorHandles = false;
__attribute__((init_priority(101))) Last last;

SCENARIO(errorHandlesAtExit) {
    Last::looksAtErrorHandles = true;
}

TEST(TiedsAtExit, ErrorHandlesAreNeverDestroyed) {
    const Testing::ProcessResult result = Testing::runScenario("errorHandlesAtExit");
    EXPECT_EQ(0, result.exitStatus) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("as ever\n")) << result.output;
}

TEST(TiedsAtExit, HandlesMayOutliveTheRegistry) {
    const Testing::ProcessResult result = Testing::runScenario("handlesAtExit");
    EXPECT_EQ(0, result.exitStatus) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("survived\n")) << result.output;
}

} // namespace
