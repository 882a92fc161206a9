#pragma once

#include <string>

namespace View {

/** A number without sign, space or anything behind it, at most `limit`. */
bool parseNumber(const std::string &text, unsigned limit, unsigned &number);
/** Puts this process in a slot, 1 to 255: before anything of the library is used. */
bool setSlot(const std::string &text);
/** Where the library looks for the unit, for messages. */
std::string unitDirectory();

} // namespace View
