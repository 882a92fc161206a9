#include "platform/Environment_p.h"

#include "platform/IdInfo.h"
#include "platform/Log.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <sstream>
#include <string>
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

TEST(Environment, TheStandardDirectoryIsCheckedWhereItIsNeeded) {
    for (const std::string &value : {std::string("run/user"), std::string("/"), "/" + std::string(1024, 'd')}) {
        const Environment environment = read({{"XDG_RUNTIME_DIR", value}});
        EXPECT_EQ(read({}).unitDirectory, environment.unitDirectory) << value;
        EXPECT_EQ(1U, environment.problems.size()) << value;
    }
    const std::string standard = read({}).unitDirectory;
    expectProblem({{"XDG_RUNTIME_DIR", "here"}},
                  "XDG_RUNTIME_DIR=\"here\" is not usable (an absolute path), using " + standard);
    EXPECT_EQ("/run/x/reflectorb", read({{"XDG_RUNTIME_DIR", "/run/x/"}}).unitDirectory);
    const Environment given = read({{"XDG_RUNTIME_DIR", "here"}, {"REFLECTORB_UNIT_DIR", "/a"}});
    EXPECT_EQ("/a", given.unitDirectory);
    EXPECT_TRUE(given.problems.empty()) << "nobody asked for it";
}

TEST(Environment, ALongValueIsShownInPart) {
    expectProblem({{"REFLECTORB_SLOT", std::string(100, '9')}},
                  "REFLECTORB_SLOT=\"" + std::string(64, '9') + "\" is not usable (a number from 1 to 255), using 1");
}

TEST(Environment, AProgramNameThatIsNoActorNameIsMadeOne) {
    char *const before = program_invocation_short_name;
    const auto actorOf = [](std::string program) {
        program_invocation_short_name = program.data();
        return read({}).actor;
    };
    EXPECT_EQ("agent", actorOf("agent"));
    EXPECT_EQ("my_agent_", actorOf("my agent\n"));
    EXPECT_EQ(std::string(64, 'p'), actorOf(std::string(100, 'p')));
    EXPECT_EQ("unnamed", actorOf(""));
    program_invocation_short_name = before;
}

SCENARIO(reportedProblems) {
    static_cast<void>(environment());
    static_cast<void>(Transport::IdInfo::getSlot());
    LogDispatch(3, "last", "test");
}

TEST(Environment, EveryBadValueIsReportedInALineOfItsOwnOnce) {
    const Testing::ProcessResult result = Testing::runScenario(
        "reportedProblems",
        {"REFLECTORB_UNIT_DIR=here", "XDG_RUNTIME_DIR=there", "REFLECTORB_SLOT=no", "REFLECTORB_ACTIVE_SLOT=256",
         "REFLECTORB_AXU_SLOTS=1,x", "REFLECTORB_ACTOR=a b", "REFLECTORB_ROOT=root", "REFLECTORB_LOG=paper",
         "REFLECTORB_LOG_LEVEL=9", "REFLECTORB_TIME_SCALE=fast"});
    const std::string actor = read({}).actor;
    const std::string directory = read({}).unitDirectory;
    const std::vector<std::string> expected = {
        "XDG_RUNTIME_DIR=\"there\" is not usable (an absolute path), using " + directory,
        "REFLECTORB_UNIT_DIR=\"here\" is not usable (an absolute path), using " + directory,
        "REFLECTORB_SLOT=\"no\" is not usable (a number from 1 to 255), using 1",
        "REFLECTORB_ACTIVE_SLOT=\"256\" is not usable (a number from 1 to 255), using 1",
        "REFLECTORB_AXU_SLOTS=\"1,x\" is not usable (numbers from 1 to 255 with commas between), using none",
        "REFLECTORB_ACTOR=\"a b\" is not usable (at most 64 printable characters without blank and /), using " + actor,
        "REFLECTORB_ROOT=\"root\" is not usable (an absolute path of letters, digits and ._/+-), using nothing",
        "REFLECTORB_LOG=\"paper\" is not usable (stderr, syslog, file:PATH or none), using stderr",
        "REFLECTORB_LOG_LEVEL=\"9\" is not usable (a number from 0 to 6), using 4",
        "REFLECTORB_TIME_SCALE=\"fast\" is not usable (a number from 0.001 to 10000), using 1",
    };
    std::istringstream output(result.output);
    std::string line;
    for (const std::string &problem : expected) {
        ASSERT_TRUE(std::getline(output, line)) << problem;
        const std::string head = " 3 Environment " + actor + "[";
        EXPECT_NE(std::string::npos, line.find(head)) << line;
        EXPECT_EQ("] " + problem, line.substr(std::min(line.size(), line.find(']')))) << line;
    }
    ASSERT_TRUE(std::getline(output, line));
    EXPECT_NE(std::string::npos, line.find("] last")) << line;
    EXPECT_FALSE(std::getline(output, line)) << line;
}

TEST(Environment, TheTimeScaleIsReportedOnce) {
    const Testing::ProcessResult result = Testing::runScenario("reportedProblems", {"REFLECTORB_TIME_SCALE=2.5"});
    const std::string line = "] time runs 2.5 times faster\n";
    const std::size_t found = result.output.find(line);
    ASSERT_NE(std::string::npos, found) << result.output;
    EXPECT_EQ(found, result.output.rfind(line));
    EXPECT_NE(std::string::npos, result.output.find(" 4 Environment "));
}

} // namespace
} // namespace Platform
