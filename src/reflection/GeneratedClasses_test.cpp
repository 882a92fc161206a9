#include "support/HeapProbe.h"
#include "support/ReflectiveClasses.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

namespace {

/** Completes the classes in a child of its own; whether it got there with so many allocations. */
bool completesWith(unsigned allowed, bool &isComplete) {
    const pid_t child = ::fork();
    SCENARIO_CHECK(child >= 0);
    if (child == 0) {
        {
            const Testing::FailingHeap heap(allowed, Testing::FailingHeap::Calls::all);
            Testing::PortMeta::instance()->completeMetaInformation();
        }
        const TreflectMetaObject &meta = *Testing::PortMeta::instance();
        const TreflectMetaOperation *const rate = meta.metaOperation_("setRate");
        const TreflectMetaAttribute *const lanes = meta.metaAttribute("lanes");
        const TreflectMetaAttribute *const carrier = meta.metaAttribute("carrier");
        const bool whole = rate != nullptr && lanes != nullptr && lanes->typeMeta() != nullptr && carrier != nullptr &&
                           carrier->typeMeta() != nullptr && rate->parameterMap().size() == 3;
        ::_exit(whole ? 0 : 1);
    }
    int status = -1;
    SCENARIO_CHECK(::waitpid(child, &status, 0) == child);
    isComplete = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return WIFEXITED(status) && WEXITSTATUS(status) <= 1;
}

SCENARIO(classesThatAreCompletedWithoutMemory) {
    bool isComplete = false;
    for (unsigned allowed = 0; allowed < 1000 && !isComplete; ++allowed) {
        SCENARIO_CHECK(completesWith(allowed, isComplete));
    }
    SCENARIO_CHECK(isComplete);
}

/** Wherever the memory ends, the class lacks something, and that is all. */
TEST(GeneratedClasses, AreCompletedAsFarAsThereIsMemory) {
    const Testing::ProcessResult result = Testing::runScenario("classesThatAreCompletedWithoutMemory");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

} // namespace
