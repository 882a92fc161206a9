#pragma once

#include <string>

/**
 * The minutes that a request may remain unanswered before the unit is reset, from the first line of a file: at least 10
 * and a multiple of 5; anything else is reported and replaced by 10, a missing file is 10 without report. Only regular
 * files are read. The file is made readable and writable for its group, also when it is missing: what the shell's chmod
 * prints then is not hidden, and a symbolic link is followed. Not to be cancelled meanwhile.
 */
unsigned readWaitDuration(const std::string &path);

/** Where the file of this unit is: the configured root, then "/ffs/run/logs/orbWaitDuration". */
std::string waitDurationPath();
