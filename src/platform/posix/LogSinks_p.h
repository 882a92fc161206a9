#pragma once

#include <memory>
#include <string>

namespace Log {

/** Where the stock log goes: the descriptor of stderr or of a file, syslog, or nowhere. Calls are serialised. */
class StockSink {
public:
    virtual ~StockSink() = default;
    virtual void write(int level, const std::string &text, const char *source) = 0;
    virtual int descriptor() const noexcept { return -1; }
};

/** For a REFLECTORB_LOG value; stderr with a line of complaint if that cannot be had. */
std::unique_ptr<StockSink> makeStockSink(const std::string &target);

/** The text as it is shown: one trailing newline cut, control characters escaped, at most 64 KiB. */
std::string shownText(const std::string &line);

} // namespace Log
