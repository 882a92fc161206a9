#pragma once

#include "platform/Export.h"

#include <array>
#include <functional>
#include <string>
#include <vector>

namespace Platform {

/**
 * The platform's configuration, taken from the environment and checked. Everything has a usable value, whatever the
 * environment holds; `problems` has one line for each value that was replaced by its default.
 */
struct Environment {
    std::string unitDirectory;
    unsigned slot = 1;
    unsigned activeSlot = 1;
    std::array<bool, 256> axuSlots{};
    std::string actor;
    std::string rootPrefix;
    std::string log = "stderr"; // stderr, syslog, none or file:PATH
    int logLevel = 4;
    double timeScale = 1;
    std::vector<std::string> problems;

    using Lookup = std::function<const char *(const char *name)>;
    static Environment read(const Lookup &lookup);
};

/** The environment of this process, read once at first use; its problems are logged then (once the log is usable). */
const Environment &environment();

/** True in a child of fork() that has not called exec; the library refuses its services there. */
bool inForkedChild() noexcept;
/** Runs in the child after each fork, async-signal-safe work only. At most 8 handlers; they are never removed. */
void onForkInChild(void (*handler)()) noexcept;

} // namespace Platform
