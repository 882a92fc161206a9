#pragma once

#include "platform/Export.h"

#include <functional>
#include <string>

/** The printf-style text, of any length; empty if it cannot be made. Keeps errno; not a cancellation point. */
REFLECTORB_API std::string LogMakeString(const char *format, ...) __attribute__((format(printf, 1, 2)));

/**
 * Emits one line. Levels run from 0 (precedes an abort; written out before the call returns) over 3 (error) and
 * 4 (warning) to 6 (detail); others are clamped. Thread-safe, never throws, not a cancellation point, never takes the
 * run permission, and waits only a bounded time for a reader that does not read.
 */
REFLECTORB_API void LogDispatch(int level, const std::string &line, const char *source);
REFLECTORB_API void LogDispatch(int level, const char *line, const char *source);

namespace Log {

/** Receives every line, of every level, one at a time. It must not call the library. */
using Sink = std::function<void(int level, const std::string &line, const char *source)>;

/** Replaces the stock sink (REFLECTORB_LOG); an empty function brings the stock sink back. Returns when no call to the
 *  sink before is running any more; the sink before is returned. */
REFLECTORB_API Sink setSink(Sink sink);

/** Writes the kept lines that were not shown and flushes; for a process that is about to abort. */
REFLECTORB_API void flushBeforeAbort();

/** Descriptor of the stock sink, for the child of a fork that may only write(); -1 if there is none. */
REFLECTORB_API int rawDescriptor() noexcept;

} // namespace Log
