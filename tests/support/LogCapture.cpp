#include "support/LogCapture.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <mutex>
#include <utility>

namespace Testing {

struct LogCapture::State {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<LogLine> lines;

    std::size_t count(int level, const std::string &text, const std::string &source) const {
        return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const LogLine &line) {
            return line.level == level && line.text == text && line.source == source;
        }));
    }
};

LogCapture::LogCapture() : state_(std::make_shared<State>()) {
    before_ = Log::setSink([state = state_](int level, const std::string &line, const char *source) {
        const std::lock_guard<std::mutex> lock(state->lock);
        state->lines.push_back({level, line, source});
        state->changed.notify_all();
    });
}

LogCapture::~LogCapture() {
    Log::setSink(std::move(before_));
}

std::vector<LogLine> LogCapture::lines() const {
    std::vector<LogLine> all;
    const std::lock_guard<std::mutex> lock(state_->lock);
    std::copy_if(state_->lines.begin(), state_->lines.end(), std::back_inserter(all),
                 [](const LogLine &line) { return line.text.find(" sees 0x") == std::string::npos; });
    return all;
}

std::vector<LogLine> LogCapture::with(const std::string &text) const {
    std::vector<LogLine> found;
    for (const LogLine &line : lines()) {
        if (line.text.find(text) != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

std::size_t LogCapture::count(int level, const std::string &text, const std::string &source) const {
    const std::lock_guard<std::mutex> lock(state_->lock);
    return state_->count(level, text, source);
}

bool LogCapture::waitFor(int level, const std::string &text, const std::string &source) const {
    std::unique_lock<std::mutex> lock(state_->lock);
    return state_->changed.wait_for(lock, std::chrono::seconds(30),
                                    [&] { return state_->count(level, text, source) != 0; });
}

void LogCapture::clear() {
    const std::lock_guard<std::mutex> lock(state_->lock);
    state_->lines.clear();
}

} // namespace Testing
