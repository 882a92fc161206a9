#include "Service.h"

#include "Exchange.h"
#include "Measure.h"

#include "orb/REFLECT_orb.h"
#include "platform/TransportLayer.h"
#include "rmi/CallHelper.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

namespace {

[[noreturn]] void fail(const char *what) {
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

TipprmiOID nameOf(const std::string &name) {
    return TipprmiOID(name, NamespaceId(1));
}

/** One method, as generated code has it. */
template <class In, class Out>
class Method : public ClientCallHookBaseV, public InParamHook, public OutParamHook {
public:
    Method(const In &in, const Out &out) : in_(in), out_(out) {}
    void invoke() const override { fail("no object of this process is called"); }
    void insertParameters(TipprmiSequence<TipprmiAny> &) const override {}
    const char *operationName() const override { return "benchmark"; }
    void marshallIn(TipprmiStream &request) const override { in_(request); }
    void unmarshallOut(TipprmiStream &response) const override {
        out_(response);
        done_ = !response.hasUnmarshallingFailed();
    }
    bool done() const noexcept { return done_; }

private:
    const In &in_;
    const Out &out_;
    mutable bool done_ = false;
};

template <class In, class Out>
bool callObject(const TipprmiObjectClient &object, bool transaction, unsigned method, const In &in, const Out &out) {
    const Method<In, Out> hook(in, out);
    ClientCallHelper(hook, hook, hook, *object.getStub_(), nullptr, Service::kClass, method, transaction);
    return hook.done();
}

unsigned callNext(const TipprmiObjectClient &object, unsigned number) {
    unsigned result = 0;
    if (!callObject(
            object, true, Service::next, [&](TipprmiStream &out) { out << number; },
            [&](TipprmiStream &in) { in >> result; })) {
        fail("a call back failed");
    }
    return result;
}

} // namespace

// --- the object -----------------------------------------------------------------------------------------------------

Service::Service(const std::string &name) : TipprmiObjectSkeleton(nameOf(name)) {}

bool Service::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) {
    if (cc != kClass || mc < next || mc > allocated) {
        return TipprmiObjectSkeleton::dispatch(transaction, cc, mc, request, response);
    }
    if (mc == count) {
        ++counted_;
        return true;
    }
    prepareResponseStream_(response);
    if (mc == echo) {
        std::string text;
        request >> text;
        response << text;
    } else if (mc == remember) {
        request >> caller_;
    } else if (mc == counted) {
        response << counted_;
    } else if (mc == allocated) {
        response << static_cast<unsigned>(allocations());
    } else {
        unsigned number = 0;
        request >> number;
        response << (mc == nested ? callNext(caller_, number) : number + 1);
    }
    return true;
}

// --- its handle -----------------------------------------------------------------------------------------------------

ServiceClient::ServiceClient(const std::string &name) : object_(nameOf(name)) {
    if (!object_.isConnected()) {
        fail("the service is not found");
    }
}

template <class In, class Out>
void ServiceClient::call(Service::Method method, const In &in, const Out &out) const {
    if (!callObject(object_, method != Service::count, method, in, out)) {
        fail("a call failed");
    }
}

unsigned ServiceClient::next(unsigned number) const {
    unsigned result = 0;
    call(
        Service::next, [&](TipprmiStream &out) { out << number; }, [&](TipprmiStream &in) { in >> result; });
    return result;
}

void ServiceClient::echo(const std::string &text, std::string &back) const {
    call(
        Service::echo, [&](TipprmiStream &out) { out << text; }, [&](TipprmiStream &in) { in >> back; });
}

void ServiceClient::count() const {
    call(
        Service::count, [](TipprmiStream &) {}, [](TipprmiStream &) {});
}

unsigned ServiceClient::counted() const {
    unsigned result = 0;
    call(
        Service::counted, [](TipprmiStream &) {}, [&](TipprmiStream &in) { in >> result; });
    return result;
}

void ServiceClient::remember(const TipprmiObjectClient &caller) const {
    call(
        Service::remember, [&](TipprmiStream &out) { out << caller; }, [](TipprmiStream &) {});
}

unsigned ServiceClient::nested(unsigned number) const {
    unsigned result = 0;
    call(
        Service::nested, [&](TipprmiStream &out) { out << number; }, [&](TipprmiStream &in) { in >> result; });
    return result;
}

unsigned ServiceClient::allocated() const {
    unsigned result = 0;
    call(
        Service::allocated, [](TipprmiStream &) {}, [&](TipprmiStream &in) { in >> result; });
    return result;
}

// --- its actor ------------------------------------------------------------------------------------------------------

Peer::Peer(const std::string &name, const char *mode) {
    int in[2];
    int out[2];
    if (TreflectORB::getInstance(1) == nullptr || ::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        fail("no broker, or no pipes");
    }
    pid_ = startSelf(mode, name, in[0], out[1]);
    input_ = in[1];
    output_ = out[0];
}

void Peer::awaitReady() {
    unsigned id = 0;
    if (::read(output_, &id, sizeof id) != sizeof id) {
        fail("the peer does not start");
    }
    const Clock::time_point limit = Clock::now() + std::chrono::seconds(30);
    while (!Transport::TransportLayer::exists(Transport::TerminationId(id))) {
        if (Clock::now() > limit) {
            fail("the peer does not appear");
        }
        ::sched_yield();
    }
}

Peer::~Peer() {
    ::close(input_);
    ::waitpid(pid_, nullptr, 0);
    ::close(output_);
}

Called::Called(const char *name) : peer(name) {
    peer.awaitReady();
    const TreflectHandlerState state(true);
    service = std::make_unique<ServiceClient>(name);
}

Called::~Called() {
    const TreflectHandlerState state(true);
    service.reset();
}

double Called::cpu() const {
    return cpuOf(0) + cpuOf(peer.pid());
}

unsigned Called::allocated() const {
    const TreflectHandlerState state(true);
    return service->allocated();
}

int serveCalls(const std::string &name) {
    if (TreflectORB::getInstance(1) == nullptr) {
        return 1;
    }
    const Service service(name);
    return serveUntilTheEnd();
}

int serveUntilTheEnd() {
    const unsigned id = TreflectORB::getInstance(1)->termId().value();
    if (::write(STDOUT_FILENO, &id, sizeof id) != sizeof id) {
        return 1;
    }
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
    return 0;
}

int callOnce(const std::string &name) {
    const TreflectHandlerState state(true);
    const unsigned answer = ServiceClient(name).next(1);
    return ::write(STDOUT_FILENO, &answer, sizeof answer) == sizeof answer ? 0 : 1;
}

} // namespace Bench
