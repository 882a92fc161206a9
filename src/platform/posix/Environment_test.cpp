#include "platform/Environment_p.h"

#include "platform/IdInfo.h"
#include "support/LogCapture.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <unistd.h>

namespace Platform {
namespace {

using Variables = std::map<std::string, std::string>;

Environment read(const Variables &variables) {
    return Environment::read([&variables](const char *name) -> const char * {
        const auto found = variables.find(name);
        return found != variables.end() ? found->second.c_str() : nullptr;
    });
}

/** Exactly one problem, which names the variable. */
void expectProblem(const Variables &variables, const std::string &line) {
    const Environment environment = read(variables);
    ASSERT_EQ(1U, environment.problems.size()) << variables.begin()->second;
    EXPECT_EQ(line, environment.problems[0]);
}

TEST(Environment, DefaultsWithoutVariablesAndWithEmptyOnes) {
    Variables empty;
    for (const char *name : {"REFLECTORB_UNIT_DIR", "REFLECTORB_SLOT", "REFLECTORB_ACTIVE_SLOT", "REFLECTORB_AXU_SLOTS",
                             "REFLECTORB_ACTOR", "REFLECTORB_ROOT", "REFLECTORB_LOG", "REFLECTORB_LOG_LEVEL",
                             "REFLECTORB_TIME_SCALE", "XDG_RUNTIME_DIR"}) {
        empty[name] = "";
    }
    for (const Variables &variables : {Variables(), empty}) {
        const Environment environment = read(variables);
        EXPECT_EQ(::geteuid() == 0 ? "/run/reflectorb" : "/tmp/reflectorb-" + std::to_string(::geteuid()),
                  environment.unitDirectory);
        EXPECT_EQ(1U, environment.slot);
        EXPECT_EQ(1U, environment.activeSlot);
        for (bool auxiliary : environment.axuSlots) {
            EXPECT_FALSE(auxiliary);
        }
        EXPECT_EQ(program_invocation_short_name, environment.actor);
        EXPECT_EQ("", environment.rootPrefix);
        EXPECT_EQ("stderr", environment.log);
        EXPECT_EQ(4, environment.logLevel);
        EXPECT_EQ(1, environment.timeScale);
        EXPECT_TRUE(environment.problems.empty());
    }
}

TEST(Environment, GoodValuesAreTaken) {
    const Environment environment = read({{"REFLECTORB_UNIT_DIR", "/a/b//"},
                                          {"REFLECTORB_SLOT", "255"},
                                          {"REFLECTORB_ACTIVE_SLOT", "2"},
                                          {"REFLECTORB_AXU_SLOTS", "3,255,7"},
                                          {"REFLECTORB_ACTOR", "port_agent"},
                                          {"REFLECTORB_ROOT", "/tmp/x+y_z-1/"},
                                          {"REFLECTORB_LOG", "file:/tmp/log"},
                                          {"REFLECTORB_LOG_LEVEL", "0"},
                                          {"REFLECTORB_TIME_SCALE", "12.5"}});
    EXPECT_TRUE(environment.problems.empty());
    EXPECT_EQ("/a/b", environment.unitDirectory);
    EXPECT_EQ(255U, environment.slot);
    EXPECT_EQ(2U, environment.activeSlot);
    for (unsigned slot = 0; slot < 256; ++slot) {
        EXPECT_EQ(slot == 3 || slot == 7 || slot == 255, environment.axuSlots[slot]) << slot;
    }
    EXPECT_EQ("port_agent", environment.actor);
    EXPECT_EQ("/tmp/x+y_z-1", environment.rootPrefix);
    EXPECT_EQ("file:/tmp/log", environment.log);
    EXPECT_EQ(0, environment.logLevel);
    EXPECT_EQ(12.5, environment.timeScale);
    EXPECT_EQ("/run/user/5/reflectorb", read({{"XDG_RUNTIME_DIR", "/run/user/5"}}).unitDirectory);
}

TEST(Environment, NumbersOutOfRangeOrWithRubbishAreReplaced) {
    for (const char *value : {"0", "256", "-1", "+1", " 1", "1 ", "0x1", "1e1", "99999999999", "x", "1\n"}) {
        const Environment environment = read({{"REFLECTORB_SLOT", value}, {"REFLECTORB_ACTIVE_SLOT", value}});
        EXPECT_EQ(1U, environment.slot) << value;
        EXPECT_EQ(1U, environment.activeSlot) << value;
        EXPECT_EQ(2U, environment.problems.size()) << value;
    }
    expectProblem({{"REFLECTORB_SLOT", "300"}},
                  "REFLECTORB_SLOT=\"300\" is not usable (a number from 1 to 255), using 1");
    expectProblem({{"REFLECTORB_LOG_LEVEL", "7"}},
                  "REFLECTORB_LOG_LEVEL=\"7\" is not usable (a number from 0 to 6), using 4");
    EXPECT_EQ(4, read({{"REFLECTORB_LOG_LEVEL", "-1"}}).logLevel);
}

TEST(Environment, BadAuxiliarySlotsAreAllDropped) {
    for (const char *value : {"0", "256", "3,", ",3", "3,,4", "3;4", "3, 4", "all", "1,2,300"}) {
        const Environment environment = read({{"REFLECTORB_AXU_SLOTS", value}});
        EXPECT_EQ(1U, environment.problems.size()) << value;
        for (bool auxiliary : environment.axuSlots) {
            EXPECT_FALSE(auxiliary) << value;
        }
    }
    expectProblem({{"REFLECTORB_AXU_SLOTS", "a"}},
                  "REFLECTORB_AXU_SLOTS=\"a\" is not usable (numbers from 1 to 255 with commas between), using none");
}

TEST(Environment, BadTextsAreReplaced) {
    for (const std::string &value :
         {std::string("relative"), std::string("/"), std::string(2000, '/'), "/" + std::string(1024, 'd')}) {
        const Environment environment = read({{"REFLECTORB_UNIT_DIR", value}, {"XDG_RUNTIME_DIR", "/run/x"}});
        EXPECT_EQ("/run/x/reflectorb", environment.unitDirectory);
        EXPECT_EQ(1U, environment.problems.size());
    }
    for (const std::string &value :
         {std::string("a b"), std::string("a/b"), std::string(65, 'n'), std::string("a\tb"), std::string("a\x7F")}) {
        const Environment environment = read({{"REFLECTORB_ACTOR", value}});
        EXPECT_EQ(program_invocation_short_name, environment.actor) << value;
        EXPECT_EQ(1U, environment.problems.size());
    }
    for (const char *value : {"relative", "/a b", "/a;b", "/a$b", "/a`b", "/a'b", "/a\nb", "/\xC3\xA4"}) {
        const Environment environment = read({{"REFLECTORB_ROOT", value}});
        EXPECT_EQ("", environment.rootPrefix) << value;
        EXPECT_EQ(1U, environment.problems.size());
    }
    for (const char *value : {"stdout", "file:", "FILE:/x", "/tmp/log", "none "}) {
        const Environment environment = read({{"REFLECTORB_LOG", value}});
        EXPECT_EQ("stderr", environment.log) << value;
        EXPECT_EQ(1U, environment.problems.size());
    }
    for (const char *value : {"0", "-1", "1e3", "inf", "nan", "10001", "0.0001", "2x", "1.2.3", "."}) {
        const Environment environment = read({{"REFLECTORB_TIME_SCALE", value}});
        EXPECT_EQ(1, environment.timeScale) << value;
        EXPECT_EQ(1U, environment.problems.size()) << value;
    }
    expectProblem({{"REFLECTORB_ROOT", "a\tb\x01"}}, "REFLECTORB_ROOT=\"a\\x09b\\x01\" is not usable (an absolute path "
                                                     "of letters, digits and ._/+-), using nothing");
}

SCENARIO(reportedProblems) {
    const Testing::LogCapture log;
    static_cast<void>(environment());
    static_cast<void>(environment());
    const std::size_t bad =
        log.count(3, "REFLECTORB_SLOT=\"no\" is not usable (a number from 1 to 255), using 1", "Environment");
    const std::size_t scale = log.count(4, "time runs 20 times faster", "Environment");
    std::exit(bad == 1 && scale == 1 && log.lines().size() == 2 ? 3 : 1);
}

TEST(Environment, ProblemsAndTheTimeScaleAreReportedOnce) {
    // Captured or shown before, by whoever asked first.
    const Testing::ProcessResult result =
        Testing::runScenario("reportedProblems", {"REFLECTORB_SLOT=no", "REFLECTORB_TIME_SCALE=20"});
    const std::string line = "REFLECTORB_SLOT=\"no\" is not usable (a number from 1 to 255), using 1";
    const bool shown =
        result.output.find(line) != std::string::npos && result.output.rfind(line) == result.output.find(line);
    EXPECT_TRUE(result.exitStatus == 3 || shown) << result.output;
}

SCENARIO(idInfo) {
    using Transport::IdInfo;
    const IdInfo &info = IdInfo::instance();
    const bool good = info.getSlot() == 4 && IdInfo::activeSlot() == 2 && info.isAxu() && IdInfo::axuInSlot(4) &&
                      IdInfo::axuInSlot(9) && !IdInfo::axuInSlot(5) && !IdInfo::axuInSlot(0) &&
                      !IdInfo::axuInSlot(256) && !IdInfo::axuInSlot(~0U) && info.getActor() == "agent";
    ::setenv("REFLECTORB_SLOT", "5", 1);
    std::exit(good && IdInfo::getSlot() == 4 ? 3 : 1);
}

TEST(IdInfo, TellsThePlaceInTheUnitAndDoesNotChange) {
    EXPECT_EQ(3, Testing::runScenario("idInfo", {"REFLECTORB_SLOT=4", "REFLECTORB_ACTIVE_SLOT=2",
                                                 "REFLECTORB_AXU_SLOTS=4,9", "REFLECTORB_ACTOR=agent"})
                     .exitStatus);
}

} // namespace
} // namespace Platform
