#include "platform/posix/LogSinks_p.h"

#include "platform/IdInfo.h"
#include "platform/Log.h"
#include "platform/Thread.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/syslog_sink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Log {

namespace {

constexpr std::size_t kMaxShown = std::size_t{64} * 1024;
constexpr std::chrono::milliseconds kPatience{100}; // real time

/** The line without its time, which the formatter or syslog adds. */
std::string body(int level, const std::string &text, const char *source) {
    return LogMakeString("%d %s %s[%d] %s", level, source, Transport::IdInfo::getActor().c_str(),
                         OSWrap::Thread::getCurrentTid(), text.c_str());
}

/** No SIGPIPE comes out of the scope, whatever is written in it; one that was pending before stays so. */
class NoBrokenPipe {
public:
    NoBrokenPipe() {
        sigset_t pending;
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        wasPending_ = ::sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
    }
    ~NoBrokenPipe() {
        const int error = errno;
        const timespec none{};
        if (!wasPending_) {
            static_cast<void>(::sigtimedwait(&pipe_, nullptr, &none));
        }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
        errno = error;
    }
    NoBrokenPipe(const NoBrokenPipe &) = delete;
    NoBrokenPipe &operator=(const NoBrokenPipe &) = delete;

private:
    sigset_t pipe_;
    sigset_t before_;
    bool wasPending_;
};

/**
 * A descriptor for one line, written without blocking. A pipe or a terminal that others share may be blocking, and must
 * stay it for them: it is opened once more.
 */
class Output {
public:
    explicit Output(int fd) : fd_(fd) {
        struct stat status {};
        if (::fstat(fd, &status) != 0) {
            return;
        }
        if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
            own_ = ::open(LogMakeString("/proc/self/fd/%d", fd).c_str(),
                          O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | O_APPEND);
        }
        socket_ = S_ISSOCK(status.st_mode);
    }
    ~Output() {
        if (own_ >= 0) {
            ::close(own_);
        }
    }
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    int descriptor() const noexcept { return own_ >= 0 ? own_ : fd_; }
    ssize_t write(const char *bytes, std::size_t size) const {
        if (socket_) {
            return ::send(fd_, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        const NoBrokenPipe noSignal;
        return ::write(descriptor(), bytes, std::min<std::size_t>(size, 4096));
    }

private:
    const int fd_;
    int own_ = -1;
    bool socket_ = false;
};

/** A descriptor that may be a pipe whose reader does not read: then a line waits a while and is dropped. */
class DescriptorSink : public StockSink {
public:
    DescriptorSink(int fd, bool own) : fd_(fd), own_(own) { formatter_.set_pattern("%Y-%m-%d %H:%M:%S.%e %v"); }
    ~DescriptorSink() override {
        if (own_) {
            ::close(fd_);
        }
    }
    DescriptorSink(const DescriptorSink &) = delete;
    DescriptorSink &operator=(const DescriptorSink &) = delete;

    void write(int level, const std::string &text, const char *source) override {
        if (dropped_ != 0 && !put(line(3, LogMakeString("%lu lines were lost here", dropped_), "Log"), kNoPatience)) {
            ++dropped_;
            return;
        }
        dropped_ = put(line(level, text, source), kPatience) ? 0 : 1;
    }

    int descriptor() const noexcept override { return fd_; }

private:
    static constexpr std::chrono::milliseconds kNoPatience{0};

    std::string line(int level, const std::string &text, const char *source) {
        const std::string content = body(level, text, source);
        spdlog::memory_buf_t buffer;
        formatter_.format(spdlog::details::log_msg("", spdlog::level::info, content), buffer);
        return {buffer.data(), buffer.size()};
    }

    /** False if nothing at all went out; a line that was begun is finished or given up with its rest. */
    bool put(const std::string &text, std::chrono::milliseconds patience) const {
        const Output output(fd_);
        const auto limit = std::chrono::steady_clock::now() + patience;
        std::size_t done = 0;
        while (done < text.size()) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(limit - std::chrono::steady_clock::now());
            pollfd state{output.descriptor(), POLLOUT, 0};
            const int ready = ::poll(&state, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
            if (ready < 0 && errno == EINTR) {
                continue;
            }
            if (ready <= 0) {
                return done != 0;
            }
            const ssize_t written = output.write(text.data() + done, text.size() - done);
            if (written < 0 && errno != EINTR && errno != EAGAIN) {
                return true; // a closed or broken descriptor: nothing to wait for
            }
            done += written > 0 ? static_cast<std::size_t>(written) : 0;
        }
        return true;
    }

    const int fd_;
    const bool own_;
    unsigned long dropped_ = 0;
    spdlog::pattern_formatter formatter_;
};

class SyslogSink : public StockSink {
public:
    SyslogSink() : sink_("reflectorb", LOG_PID, LOG_USER, false) {}

    void write(int level, const std::string &text, const char *source) override {
        static const spdlog::level::level_enum levels[] = {
            spdlog::level::critical, spdlog::level::critical, spdlog::level::err,  spdlog::level::err,
            spdlog::level::warn,     spdlog::level::info,     spdlog::level::debug};
        sink_.log(spdlog::details::log_msg("", levels[level], body(level, text, source)));
    }

private:
    spdlog::sinks::syslog_sink_mt sink_;
};

class NoSink : public StockSink {
public:
    void write(int, const std::string &, const char *) override {}
};

} // namespace

std::string shownText(const std::string &line) {
    std::string shown;
    const std::size_t end = !line.empty() && line.back() == '\n' ? line.size() - 1 : line.size();
    for (std::size_t i = 0; i < end && shown.size() < kMaxShown; ++i) {
        const auto byte = static_cast<unsigned char>(line[i]);
        if (byte >= 0x20 && byte != 0x7F) {
            shown += line[i];
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
            shown += escaped;
        }
    }
    return shown;
}

std::unique_ptr<StockSink> makeStockSink(const std::string &target) {
    if (target == "none") {
        return std::make_unique<NoSink>();
    }
    if (target == "syslog") {
        return std::make_unique<SyslogSink>();
    }
    if (target.compare(0, 5, "file:") == 0) {
        const char *path = target.c_str() + 5;
        const int fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600);
        if (fd >= 0) {
            return std::make_unique<DescriptorSink>(fd, true);
        }
        const int error = errno;
        char text[128];
        auto fallback = std::make_unique<DescriptorSink>(STDERR_FILENO, false);
        fallback->write(
            3, shownText(LogMakeString("cannot open log file %s: %s", path, strerror_r(error, text, sizeof text))),
            "Log");
        return fallback;
    }
    return std::make_unique<DescriptorSink>(STDERR_FILENO, false);
}

} // namespace Log
