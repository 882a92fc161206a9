#include "threads/HTUtil.h"

#include "platform/Cancellation.h"
#include "platform/Environment_p.h"
#include "platform/Log.h"
#include "platform/Thread.h"

#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kFrames = 40;
constexpr char kSource[] = "HandlerThreadPolicies";
constexpr char kOverride[] = "/ffs/run/zef_data/db/NO_RMI_DEBUG";

bool overridePresent() {
    OSWrap::DisableCancelStateGuard guard;
    const std::string path = LogMakeString("%s%s", Platform::environment().rootPrefix.c_str(), kOverride);
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    ::close(fd);
    return true;
}

} // namespace

// Worker stacks are small: the addresses are the only large thing in this frame, texts live on the heap.
void HTUtil::printBacktrace(const char *why) {
    OSWrap::DisableCancelStateGuard guard;
    void *frames[kFrames];
    const int depth = ::backtrace(frames, kFrames);
    char **texts = ::backtrace_symbols(frames, depth);
    if (texts == nullptr) {
        return;
    }
    LogDispatch(5, LogMakeString("Backtracing %s", why != nullptr ? why : "(null)"), kSource);
    for (int i = 0; i < depth; ++i) {
        const char *slash = std::strrchr(texts[i], '/');
        LogDispatch(5, LogMakeString("BT<%02d> %s", i, slash != nullptr ? slash + 1 : texts[i]), kSource);
    }
    std::free(texts);
}

bool HTUtil::willabort() {
    static const bool decision = !overridePresent();
    return decision;
}

void HTUtil::testabort() {
    if (willabort()) {
        Log::flushBeforeAbort();
        std::abort();
    }
}

unsigned long HTUtil::getCurrentThreadId() noexcept {
    return OSWrap::Thread::getCurrentId();
}

std::string HTUtil::getName(unsigned long) {
    return {};
}

int afw_htutil_willabort() {
    return HTUtil::willabort() ? 1 : 0;
}
void afw_htutil_testabort() {
    HTUtil::testabort();
}
void afw_htutil_printbacktrace(const char *why) {
    HTUtil::printBacktrace(why);
}
