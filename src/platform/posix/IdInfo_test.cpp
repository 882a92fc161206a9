#include "platform/IdInfo.h"

#include "support/HeapProbe.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace Transport {
namespace {

SCENARIO(idInfo) {
    const IdInfo &info = IdInfo::instance();
    const bool good = &info == &IdInfo::instance() && info.getSlot() == 4 && IdInfo::activeSlot() == 2 &&
                      info.isAxu() && IdInfo::axuInSlot(4) && IdInfo::axuInSlot(9) && IdInfo::axuInSlot(255) &&
                      !IdInfo::axuInSlot(5) && !IdInfo::axuInSlot(0) && !IdInfo::axuInSlot(256) &&
                      !IdInfo::axuInSlot(~0U) && info.getActor() == "agent";
    ::setenv("REFLECTORB_SLOT", "5", 1);
    std::exit(good && IdInfo::getSlot() == 4 ? 3 : 1);
}

TEST(IdInfo, TellsThePlaceInTheUnitAndDoesNotChange) {
    EXPECT_EQ(3, Testing::runScenario("idInfo", {"REFLECTORB_SLOT=4", "REFLECTORB_ACTIVE_SLOT=2",
                                                 "REFLECTORB_AXU_SLOTS=4,9,255", "REFLECTORB_ACTOR=agent"})
                     .exitStatus);
}

SCENARIO(idInfoOfNothingUsable) {
    const bool good = IdInfo::getSlot() == 1 && IdInfo::activeSlot() == 1 && !IdInfo::isAxu() &&
                      !IdInfo::axuInSlot(1) && !IdInfo::axuInSlot(2) && IdInfo::getActor() == "platform_test";
    std::exit(good ? 3 : 1);
}

TEST(IdInfo, BadValuesAreReportedAndTheDefaultsHold) {
    const Testing::ProcessResult result =
        Testing::runScenario("idInfoOfNothingUsable", {"REFLECTORB_SLOT=0", "REFLECTORB_ACTIVE_SLOT=two",
                                                       "REFLECTORB_AXU_SLOTS=1,2,", "REFLECTORB_ACTOR=a/b"});
    EXPECT_EQ(3, result.exitStatus) << result.output;
    for (const char *name :
         {"REFLECTORB_SLOT=", "REFLECTORB_ACTIVE_SLOT=", "REFLECTORB_AXU_SLOTS=", "REFLECTORB_ACTOR="}) {
        const std::size_t found = result.output.find(name);
        ASSERT_NE(std::string::npos, found) << name;
        EXPECT_EQ(found, result.output.rfind(name)) << name;
    }
}

SCENARIO(actorWithoutMemory) {
    std::size_t length = IdInfo::getActor().size();
    {
        const Testing::FailingHeap noMemory(0, Testing::FailingHeap::Calls::all);
        length = IdInfo::getActor().size();
    }
    std::exit(length == 0 && IdInfo::getActor().size() == 40 ? 3 : 1);
}

TEST(IdInfo, WithoutMemoryForItTheNameIsEmpty) {
    if (Testing::kLibraryHeapIsProbed) {
        EXPECT_EQ(3,
                  Testing::runScenario("actorWithoutMemory", {"REFLECTORB_ACTOR=" + std::string(40, 'n')}).exitStatus);
    }
}

} // namespace
} // namespace Transport
