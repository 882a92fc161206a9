#pragma once

#include <string>

class TreflectORB;

namespace View {

/** A number without sign, space or anything behind it, at most `limit`. */
bool parseNumber(const std::string &text, unsigned limit, unsigned &number);
/** Puts this process in a slot, 1 to 255: before anything of the library is used. */
bool setSlot(const std::string &text);
/** Where the library looks for the unit, for messages. */
std::string unitDirectory();
/** The broker of this process. Null, with what to tell, if it cannot be part of the unit; the log says why. */
const TreflectORB *joinUnit(std::string &problem);

} // namespace View
