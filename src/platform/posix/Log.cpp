#include "platform/Log.h"

#include "platform/Cancellation.h"
#include "platform/Environment_p.h"
#include "platform/posix/LogSinks_p.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <exception>
#include <memory>
#include <pthread.h>

namespace {

constexpr std::size_t kHiddenLines = 64;

struct Line {
    int level;
    std::string text;
    std::string source;
};

/**
 * The log of the process; usable before main and until the very end. Its lock is a native one, held while a line goes
 * out, so that lines do not interleave; it is taken around fork(), so that the child finds the log in order.
 */
class Front {
public:
    static Front &instance() {
        Platform::environment(); // reports what is wrong with it by a line of its own, which needs the lock free
        static Front *const front = new Front;
        return *front;
    }

    void dispatch(int level, const std::string &text, const char *source) {
        Holder hold(*this);
        if (sink_) {
            (*sink_)(level, text, source);
        } else {
            show(level, text, source);
        }
    }

    std::shared_ptr<Log::Sink> exchange(std::shared_ptr<Log::Sink> sink) {
        Holder hold(*this);
        sink_.swap(sink);
        return sink;
    }

    void showHidden() {
        Holder hold(*this);
        if (sink_) {
            return;
        }
        std::deque<Line> lines;
        lines.swap(hidden_);
        for (const Line &line : lines) {
            stock().write(line.level, line.text, line.source.c_str());
        }
    }

    int descriptor() {
        Holder hold(*this);
        return stock().descriptor();
    }

    /** Whether this thread is inside its own log line, as from a sink that calls the library. */
    static thread_local bool inside;

private:
    class Holder {
    public:
        explicit Holder(Front &front) : front_(front) {
            pthread_mutex_lock(&front_.lock_);
            inside = true;
        }
        ~Holder() {
            inside = false;
            pthread_mutex_unlock(&front_.lock_);
        }
        Holder(const Holder &) = delete;
        Holder &operator=(const Holder &) = delete;

    private:
        Front &front_;
    };

    Front() {
        pthread_atfork([] { pthread_mutex_lock(&instance().lock_); }, [] { pthread_mutex_unlock(&instance().lock_); },
                       [] { pthread_mutex_unlock(&instance().lock_); });
    }

    void show(int level, const std::string &text, const char *source) {
        const std::string shown = Log::shownText(text);
        Log::StockSink &sink = stock();
        if (level <= Platform::environment().logLevel) {
            sink.write(level, shown, source);
            return;
        }
        if (hidden_.size() == kHiddenLines) {
            hidden_.pop_front();
        }
        hidden_.push_back({level, shown, source});
    }

    /** Made when first used. */
    Log::StockSink &stock() {
        if (!stock_) {
            stock_ = Log::makeStockSink(Platform::environment().log);
        }
        return *stock_;
    }

    pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
    std::shared_ptr<Log::Sink> sink_;
    std::unique_ptr<Log::StockSink> stock_;
    std::deque<Line> hidden_;
};

thread_local bool Front::inside = false;

std::atomic<unsigned long> droppedInSinks{0};

/** Keeps the caller's errno, and cancellation away from the log's lock. */
class Quiet {
public:
    ~Quiet() { errno = error_; }

private:
    const int error_ = errno;
    OSWrap::DisableCancelStateGuard cancellation_;
};

} // namespace

std::string LogMakeString(const char *format, ...) {
    const Quiet quiet;
    va_list arguments;
    va_start(arguments, format);
    std::string text;
    try {
        char brief[256];
        va_list again;
        va_copy(again, arguments);
        const int length = std::vsnprintf(brief, sizeof brief, format, arguments);
        if (length >= 0 && static_cast<std::size_t>(length) < sizeof brief) {
            text.assign(brief, static_cast<std::size_t>(length));
        } else if (length >= 0) {
            text.resize(static_cast<std::size_t>(length));
            std::vsnprintf(text.data(), text.size() + 1, format, again);
        }
        va_end(again);
    } catch (const std::exception &) {
        text.clear();
    }
    va_end(arguments);
    return text;
}

void LogDispatch(int level, const std::string &line, const char *source) {
    if (Front::inside) {
        ++droppedInSinks; // a sink that logs would wait for itself
        return;
    }
    const Quiet quiet;
    try {
        Front::instance().dispatch(std::clamp(level, 0, 6), line, source != nullptr ? source : "");
    } catch (const std::exception &) { // short of memory: the line is lost, nothing else
    }
}

void LogDispatch(int level, const char *line, const char *source) {
    LogDispatch(level, LogMakeString("%s", line != nullptr ? line : ""), source);
}

namespace Log {

Sink setSink(Sink sink) {
    const Quiet quiet;
    if (Front::inside) {
        return {};
    }
    try {
        const std::shared_ptr<Sink> before =
            Front::instance().exchange(sink ? std::make_shared<Sink>(std::move(sink)) : nullptr);
        return before ? std::move(*before) : Sink(); // nobody else has it any more
    } catch (const std::exception &) {               // short of memory: all stays as it was
        return {};
    }
}

void flushBeforeAbort() {
    if (Front::inside) {
        return;
    }
    const Quiet quiet;
    try {
        Front::instance().showHidden();
    } catch (const std::exception &) {
    }
}

int rawDescriptor() noexcept {
    const Quiet quiet;
    try {
        return Front::inside ? -1 : Front::instance().descriptor();
    } catch (const std::exception &) {
        return -1;
    }
}

} // namespace Log
