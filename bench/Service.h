#pragma once

#include "rmi/IPPRMI_objectClient.h"
#include "rmi/IPPRMI_objectSkeleton.h"

#include <memory>
#include <string>
#include <sys/types.h>

namespace Bench {

/** What the actors of the benchmarks offer; also what they call each other by. */
class Service : public TipprmiObjectSkeleton {
public:
    enum Method : unsigned { next = 1, echo, count, counted, remember, nested, allocated };
    static constexpr unsigned kClass = 0x42454E43;

    explicit Service(const std::string &name);

    using TipprmiObjectSkeleton::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;

private:
    unsigned counted_ = 0; // with the run permission, as all of it
    TipprmiObjectClient caller_;
};

/** A handle of a Service. Calls need the run permission; one that fails ends the program. */
class ServiceClient {
public:
    explicit ServiceClient(const std::string &name);

    /** The number that follows. */
    unsigned next(unsigned number) const;
    /** Sends the text and gets it back. */
    void echo(const std::string &text, std::string &back) const;
    /** Without answer; the service counts them. */
    void count() const;
    unsigned counted() const;
    /** Tells the service whom to call back in nested(). */
    void remember(const TipprmiObjectClient &caller) const;
    /** The service calls next() of the remembered object before it answers. */
    unsigned nested(unsigned number) const;
    /** Allocations of the service's process so far. */
    unsigned allocated() const;

private:
    template <class In, class Out>
    void call(Service::Method method, const In &in, const Out &out) const;

    TipprmiObjectClient object_;
};

/** Another actor with a service of that name, from the end of the constructor on; or what another mode of this program
 *  serves. */
class Peer {
public:
    explicit Peer(const std::string &name, const char *mode = "--serve-calls");
    ~Peer();
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    /** Returns when the service is registered and its broker is known here. */
    void awaitReady();
    pid_t pid() const noexcept { return pid_; }

private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
};

/** A peer and the handle of its service. */
struct Called {
    explicit Called(const char *name);
    ~Called();
    Called(const Called &) = delete;
    Called &operator=(const Called &) = delete;

    /** Processor time of both processes so far, in microseconds. */
    double cpu() const;
    /** Allocations of the peer so far. */
    unsigned allocated() const;

    Peer peer;
    std::unique_ptr<ServiceClient> service;
};

/** The other side of Peer. */
int serveCalls(const std::string &name);
/** What a mode of this program does that is the other side of a Peer, once its objects are there. */
int serveUntilTheEnd();
/** Makes a broker, calls that service once, and ends. */
int callOnce(const std::string &name);

} // namespace Bench
