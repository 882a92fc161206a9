#pragma once

#include <string>
#include <vector>

namespace Testing {

/**
 * A piece of a test that needs a process of its own, because it ends the process or asks what happens at its end.
 * Define it at namespace scope, SCENARIO(name) { ... }, and run it from a test with runScenario("name").
 */
class Scenario {
public:
    using Body = void (*)();
    Scenario(const char *name, Body body);

    /** For main(): whether this process was started to run a scenario; its exit status is 0 when the body returns. */
    static bool requested();
    static int runRequested();
};

struct ProcessResult {
    int exitStatus = -1; // -1 if it did not exit by itself
    int signal = 0;      // that ended it
    bool timedOut = false;
    std::string output; // standard output and error output
};

/** Runs the scenario in a fresh process of this program, also under an emulator; `environment` holds "NAME=value"s that
 *  are added. A process that does not end within the time is killed. */
ProcessResult runScenario(const std::string &name, const std::vector<std::string> &environment = {},
                          int timeoutSeconds = 60);

/** Ends a scenario that went wrong, with a line that says where. */
[[noreturn]] void failScenario(const char *file, int line, const char *what);

} // namespace Testing

/** For the body of a scenario: it ends with status 99 unless the condition holds. */
#define SCENARIO_CHECK(condition)                                                                                      \
    static_cast<void>((condition) || (::Testing::failScenario(__FILE__, __LINE__, #condition), false))

#define SCENARIO(name)                                                                                                 \
    static void scenario_##name();                                                                                     \
    static const ::Testing::Scenario registration_##name(#name, &scenario_##name);                                     \
    static void scenario_##name()
