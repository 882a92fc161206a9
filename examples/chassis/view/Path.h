#pragma once

#include <string>
#include <vector>

namespace View {

/** Names from the unit's root down to an object: "/chassis/slot2/eth0" and "slot2/eth0" are both {slot2, eth0}. */
using Path = std::vector<std::string>;

/** False if a name is empty, as in "slot2//eth0". */
bool parsePath(const std::string &text, Path &path);
/** Beginning with "/chassis". */
std::string pathText(const Path &path);

/** Those that need the fewest changes of a character to become `name`, the best first, at most so many. */
std::vector<std::string> nearest(const std::string &name, std::vector<std::string> names, std::size_t count);

/** "a, b, c". */
std::string joined(const std::vector<std::string> &names);

/** "1 port", "2 ports". */
std::string counted(std::size_t count, const std::string &noun);

/** For output in lines: names come from the kernel, and may hold anything but zero and a slash. Controls as "\x1b". */
std::string printable(const std::string &name);

} // namespace View
