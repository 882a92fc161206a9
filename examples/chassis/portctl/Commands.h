#pragma once

#include <string>
#include <vector>

enum ExitStatus : int { done = 0, refused = 1, wrongUse = 2, notFound = 3, noUnit = 4 };

using Arguments = std::vector<std::string>;

/** What follows the name of the command; the exit status. */
using Command = int (*)(const Arguments &arguments);

int tree(const Arguments &arguments);
int show(const Arguments &arguments);
int counters(const Arguments &arguments);
int set(const Arguments &arguments);
int watch(const Arguments &arguments);

/** A line on standard error. */
int fail(ExitStatus status, const std::string &problem);
/** The same for a command that was called the wrong way. */
int failUsage(const std::string &problem);
