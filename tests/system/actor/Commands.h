#pragma once

#include "Output.h"
#include "threads/HandlerState.h"

#include <cstddef>
#include <sstream>
#include <string>

using Arguments = std::istringstream;

/** One of a topic: its name is the second word of the line. It answers what follows the topic. */
struct Command {
    const char *name;
    std::string (*run)(Arguments &);
};

/** The next word of the line. */
inline std::string word(Arguments &arguments) {
    std::string text;
    arguments >> text;
    return text;
}

/** Runs the command of the topic that the line is about, with the run permission. */
template <std::size_t N>
void runOneOf(const Command (&commands)[N], const char *topic, Arguments &arguments) {
    const std::string name = word(arguments);
    for (const Command &command : commands) {
        if (name == command.name) {
            const TreflectHandlerState state(true);
            say("%s %s", topic, command.run(arguments).c_str());
            return;
        }
    }
    say("unknown command '%s %s'", topic, name.c_str());
}
