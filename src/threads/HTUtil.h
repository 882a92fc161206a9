#pragma once

#include "platform/Export.h"

#include <string>

/** Small tools of the run permission: backtraces and the switch that lets misuse abort the actor. */
class REFLECTORB_API HTUtil {
public:
    /** Logs up to 40 frames of the calling thread at level 5. */
    static void printBacktrace(const char *why);
    /** True unless the file "/ffs/run/zef_data/db/NO_RMI_DEBUG" can be opened. The first call decides for the life of
     *  the process. */
    static bool willabort();
    /** Aborts the actor if willabort(), after the log has been written out. */
    static void testabort();
    static unsigned long getCurrentThreadId() noexcept;
    /** The display name of a thread; always empty. */
    static std::string getName(unsigned long id);
};

extern "C" {
REFLECTORB_API int afw_htutil_willabort(void);
REFLECTORB_API void afw_htutil_testabort(void);
REFLECTORB_API void afw_htutil_printbacktrace(const char *why);
}
