#include "view/Signals.h"

#include <csignal>

namespace View {

namespace {

sigset_t setOf(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : signals) {
        sigaddset(&set, number);
    }
    return set;
}

} // namespace

void blockSignals(std::initializer_list<int> signals) {
    const sigset_t set = setOf(signals);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int waitForSignal(std::initializer_list<int> signals) {
    const sigset_t set = setOf(signals);
    int number = 0;
    sigwait(&set, &number);
    return number;
}

void stayRunning() {
    std::signal(SIGTSTP, SIG_IGN);
}

void letSignalsEnd() {
    const sigset_t set = setOf({SIGINT, SIGTERM});
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

} // namespace View
