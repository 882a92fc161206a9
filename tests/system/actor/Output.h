#pragma once

#include <string>

/** One line on standard output, at once and undivided. */
void say(const char *format, ...) __attribute__((format(printf, 1, 2)));

/** The next command line; false at the end of the input. */
bool nextLine(std::string &line);
