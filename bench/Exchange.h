#pragma once

#include "Measure.h"

#include <memory>
#include <string>

namespace Bench {

/**
 * Two processes that exchange messages: a call goes out from the calling thread, is taken by the other side's receiving
 * thread, queued, answered by a worker with a message of the same size, and handed back by the own receiving thread.
 */
class Exchange {
public:
    static constexpr unsigned kCallSize = 48; // of a small call, with its heads

    virtual ~Exchange() = default;
    /** One call and its answer. */
    virtual void call(unsigned size) = 0;
    /** `count` messages without answer, until the other side has them all. */
    virtual void oneWay(unsigned size, unsigned count) = 0;
    virtual pid_t peer() const = 0;
};

/** One that several threads may use at once. */
class ConcurrentExchange : public Exchange {
public:
    static constexpr unsigned kThreads = 8;
    using Exchange::call;
    /** `thread`: the caller's number, below kThreads. */
    virtual void call(unsigned size, unsigned thread) = 0;
};

/** Through the library's transport. */
std::unique_ptr<Exchange> transportExchange();
/** By hand, with nothing but a socket, threads and queues: what transport and calls are measured against. */
std::unique_ptr<ConcurrentExchange> handWrittenExchange();

/** The other sides; they serve until their standard input closes or the socket does. */
int serveTransport();
int serveByHand(int socket);
/** The actor of the "idle" benchmark. */
int serveIdle();

/** Starts this program again with these arguments; `input` is its standard input. */
pid_t startSelf(const std::string &mode, const std::string &argument, int input, int output);

} // namespace Bench
