#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/**
 * The bytes on the wire, written down once more from docs/protocol.md: nothing here is shared with the library, so that
 * a mistake there is not repeated here, and everything that must not be sent can be sent.
 */
namespace Hostile {

using Bytes = std::vector<unsigned char>;

enum Packet : unsigned char {
    kHello = 1,
    kAnnounce = 2,
    kWithdraw = 3,
    kSync = 4,
    kSyncAck = 5,
    kData = 6,
    kReturned = 7,
};
constexpr unsigned kFirst = 1;
constexpr unsigned kLast = 2;
constexpr std::size_t kHead = 20;
constexpr std::size_t kMostOfPacket = 80 * 1024;
constexpr std::uint32_t kMostOfMessage = 64U * 1024 * 1024;

enum Type : std::uint32_t {
    kResolve = 1,
    kCall = 2,
    kCreated = 3,
    kDeleted = 4,
    kWatchCreations = 5,
    kWatchDeletions = 6,
    kUnwatchCreations = 7,
    kUnwatchDeletions = 8,
    kAppeared = 9,
    kCounters = 10
};
enum Kind : std::uint32_t { kMessage = 1, kRequest = 2, kResponse = 3, kNoDestination = 4, kResponseFailure = 5 };

/** Big-endian. */
void addWord(Bytes &to, std::uint32_t value);
std::uint32_t wordAt(const Bytes &from, std::size_t offset);
void setWord(Bytes &in, std::size_t offset, std::uint32_t value);

/** Data of a message, written value by value. */
class Data {
public:
    Data &word(std::uint32_t value);
    Data &text(const std::string &value);
    Data &bytes(const Bytes &value);
    /** A length or count, and what follows it, which need not fit. */
    Data &counted(std::uint32_t count, const std::string &rest);
    const Bytes &get() const { return data_; }

private:
    Bytes data_;
};

/** A message between brokers with a true size word. */
Bytes message(std::uint32_t transaction, std::uint32_t type, std::uint32_t kind, const Bytes &data);
/** A two-way call. */
Bytes call(std::uint32_t transaction, std::uint32_t object, std::uint32_t classCode, std::uint32_t method,
           const Bytes &arguments);

Bytes packet(unsigned type, std::uint32_t originator, std::uint32_t destination, std::uint32_t size,
             const Bytes &piece = {}, unsigned flags = kFirst | kLast);

} // namespace Hostile
