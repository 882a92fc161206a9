#include "orb/HangReport_p.h"

#include "orb/REFLECT_orb.h"
#include "platform/Environment_p.h"
#include "platform/Log.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <unistd.h>

namespace {

constexpr char kSource[] = "REFLECT_orb";
constexpr unsigned kStepSeconds = 30;
constexpr unsigned kScriptSeconds = 210;
constexpr unsigned kLastMinutes = 5; // before the end of the wait duration
constexpr char kLauncher[] = "/opt/zef/bin/llpd";
constexpr char kScript[] = "/opt/zef/bin/debug_orbhang.sh";

/** In the child, which has none of the actor's other threads: the log, the heap, everything may be locked for ever. */
[[noreturn]] void becomeScript(const char *launcher, const char *script, int log, const sigset_t &signals) {
    for (int signal = 1; signal < NSIG; ++signal) { // a signal to the group must not run the actor's handler in here
        struct sigaction action {};
        if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            action = {};
            ::sigaction(signal, &action, nullptr);
        }
    }
    pthread_sigmask(SIG_SETMASK, &signals, nullptr);
    const int result = ::execl(launcher, "llpd", script, static_cast<char *>(nullptr));
    const int error = errno;
    char line[160];
    const char *text = strerrordesc_np(error); // not translated, so nothing is loaded
    const int length = std::snprintf(line, sizeof line, "%s: execl error: %d:%d:%s\n", "wait", result, error,
                                     text != nullptr ? text : "");
    if (log >= 0 && length > 0) {
        static_cast<void>(!::write(log, line, static_cast<std::size_t>(length)));
    }
    ::_exit(127);
}

void reportFailure(int error) {
    char text[128];
    LogDispatch(3, LogMakeString("%s: Forking child failed due to: %s", "wait", strerror_r(error, text, sizeof text)),
                kSource);
}

void start(const std::string &launcher, const std::string &script) {
    const int log = Log::rawDescriptor();
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // no handler of the application runs in the child
    const pid_t child = ::fork();
    const int error = errno;
    if (child == 0) {
        becomeScript(launcher.c_str(), script.c_str(), log, before);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (child < 0) {
        reportFailure(error);
    }
}

void startScript(unsigned seconds) {
    LogDispatch(3, LogMakeString("Triggered debug_orbhang.sh at %d seconds\n", static_cast<int>(seconds)), kSource);
    try {
        const std::string &root = Platform::environment().rootPrefix;
        start(root + kLauncher, root + kScript);
    } catch (const std::bad_alloc &) {
        reportFailure(ENOMEM);
    }
}

} // namespace

void HangReport::afterStep(unsigned step, Transport::TerminationId target, const TreflectMessage &request, bool twoWay,
                           const TreflectORB &orb) {
    const unsigned seconds = step * kStepSeconds;
    const unsigned minutes = seconds / 60;
    LogDispatch(4,
                LogMakeString("ORB 0x%08X waits now %3d seconds for response from 0x%08X", orb.termId().value(),
                              static_cast<int>(seconds), target.value()),
                kSource);
    orb.testInfoAboutMessage(target, request, twoWay);
    if (seconds == kScriptSeconds) {
        startScript(seconds);
    }
    if (minutes + kLastMinutes >= orb.waitDuration() && minutes % kLastMinutes == 0) {
        orb.waitingTooLongFor(target, request, static_cast<int>(minutes));
    }
}
