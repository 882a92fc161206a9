#include "view/Reporter.h"

#include "platform/Lock.h"
#include "view/UnitEvents.h"

#include <cstdio>

namespace View {

namespace {

using Locked = OSWrap::Lock<OSWrap::Mutex>;

void put(const std::string &text) {
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

} // namespace

void Reporter::start(const std::string &ready) {
    thread_ = std::thread([this, ready] { run(ready); });
}

void Reporter::stop() {
    if (thread_.joinable()) {
        UnitEvents::instance().stop();
        thread_.join();
    }
}

void Reporter::print(const std::string &line) {
    const Locked lock(lock_);
    put(timeText(std::chrono::system_clock::now()) + " " + line + "\n");
}

void Reporter::printTree() {
    const Locked lock(lock_);
    put(picture_.tree());
}

void Reporter::run(const std::string &ready) {
    UnitEvents &events = UnitEvents::instance();
    events.subscribe();
    print(ready);
    for (Event event; events.next(event);) {
        if (seen_) {
            seen_(event);
        }
        const Locked lock(lock_);
        const Picture::News news = picture_.apply(event);
        if (!news.text.empty() && wanted_(news)) {
            put(timeText(event.time) + " " + news.text + "\n");
        }
    }
    events.unsubscribe();
}

} // namespace View
