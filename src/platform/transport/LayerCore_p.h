#pragma once

#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"
#include "platform/TransportLayer.h"
#include "platform/transport/Link_p.h"
#include "platform/transport/OwnTermination_p.h"
#include "platform/transport/Reactor_p.h"

#include <map>
#include <memory>
#include <vector>

namespace Transport {

/**
 * The transport of the process above its links: who is there, who of them lives here, and the way of a message. One
 * per process, made on first use, never destroyed.
 */
class LayerCore : private LinkListener {
public:
    static LayerCore &instance();
    /** For tests, before the first use of the transport: another link than the one between actors. */
    static void setLinkFactory(LinkFactory factory) noexcept;

    Reactor &reactor() noexcept { return reactor_; }

    unsigned claimName();
    void releaseName(unsigned name);
    bool start(const TerminationImpl &termination);
    bool started(const TerminationImpl &termination);
    /** False: a callback has not returned within `limit`; the termination must not be destroyed then. */
    bool stop(const TerminationImpl &termination, const OSWrap::TimeSpec &limit = OSWrap::TimeSpec::INFINITETIME);

    bool issue(TerminationId target, const AddressedMessage &message);
    bool giveBack(const AddressedMessage &message);

    TerminationPtr find(TerminationId id);
    std::vector<TerminationPtr> all();

private:
    class Loopback;
    using Own = std::shared_ptr<OwnTermination>;

    LayerCore();

    void terminationAppeared(TerminationId id) override;
    void terminationVanished(TerminationId id) override;
    void messageArrived(AddressedMessage &&message) override;
    void messageReturned(AddressedMessage &&message) override;

    Own findOwn(TerminationId id);
    TerminationPtr enter(TerminationId id) RB_REQUIRES(tables_);
    bool startOrThrow(const TerminationImpl &termination);
    bool listen(const TerminationImpl &termination);
    void remove(TerminationId id) RB_REQUIRES(tables_);

    Reactor reactor_;
    std::unique_ptr<Link> link_;
    std::shared_ptr<Loopback> loopback_;

    OSWrap::Mutex tables_;
    std::map<unsigned, TerminationPtr> known_ RB_GUARDED_BY(tables_); // every started termination, own ones included
    std::map<unsigned, Own> own_ RB_GUARDED_BY(tables_);              // the started ones of this process
};

} // namespace Transport
