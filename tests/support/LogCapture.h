#pragma once

#include "platform/Log.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace Testing {

struct LogLine {
    int level;
    std::string text;
    std::string source;
};

/** Takes every log line of the process for the scope; the lines do not reach the log meanwhile. */
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    /** All but those of a broker that sees others come and go: a thread of its own logs them, at any time. */
    std::vector<LogLine> lines() const;
    /** Those that contain the text. */
    std::vector<LogLine> with(const std::string &text) const;
    /** How often exactly this line was logged. */
    std::size_t count(int level, const std::string &text, const std::string &source) const;
    /** Waits up to 30 s for the line. */
    bool waitFor(int level, const std::string &text, const std::string &source) const;
    void clear();

private:
    struct State;
    std::shared_ptr<State> state_;
    Log::Sink before_;
};

} // namespace Testing
