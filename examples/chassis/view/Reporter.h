#pragma once

#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"
#include "view/Picture.h"

#include <functional>
#include <string>
#include <thread>

namespace View {

/** Watches the unit in a thread of its own and prints what is new, a line each, on standard output. */
class Reporter {
public:
    using Wanted = std::function<bool(const Picture::News &)>;
    using SeenBy = std::function<void(const Event &)>;

    /** `wanted` chooses what is printed; `seen` is called for each event before that, without the run permission. */
    explicit Reporter(Wanted wanted, SeenBy seen = nullptr) : wanted_(std::move(wanted)), seen_(std::move(seen)) {}
    Reporter(const Reporter &) = delete;
    Reporter &operator=(const Reporter &) = delete;
    ~Reporter() { stop(); }

    /** `ready` is printed once all that is there already has been told, to be printed next. */
    void start(const std::string &ready);
    /** Waits for the thread, which may itself wait for an actor that does not answer. */
    void stop();
    /** Prints a line with the time, or a text as it is; not in the middle of another. */
    void print(const std::string &line);
    void printTree();

private:
    void run(const std::string &ready);

    const Wanted wanted_;
    const SeenBy seen_;
    OSWrap::Mutex lock_; // of standard output, too
    Picture picture_ RB_GUARDED_BY(lock_);
    std::thread thread_;
};

} // namespace View
