#include "Service.h"

#include "Output.h"
#include "platform/Lock.h"
#include "rmi/StreamOperators.h"
#include "threads/BrokerLocks.h"

#include <cstdlib>

namespace {

/** Gives the run permission up while it waits, as everything under it must. */
TreflectConditionVar &gate() {
    static auto &instance = *new TreflectConditionVar(false);
    return instance;
}
bool open = false;
unsigned notes = 0;

using Locked = OSWrap::Lock<OSWrap::ConditionVar>;

bool onAddOne(TipprmiStream &request, TipprmiStream &response) {
    unsigned number = 0;
    request >> number;
    response << number + 1;
    return true;
}

bool onEcho(TipprmiStream &request, TipprmiStream &response) {
    std::string bytes;
    request >> bytes;
    response << bytes;
    return true;
}

bool onHold(TipprmiStream &, TipprmiStream &response) {
    say("holding");
    Locked lock(gate());
    while (!open) {
        gate().wait(OSWrap::TimeSpec::INFINITETIME);
    }
    response << 1U;
    return true;
}

bool onRefuse(TipprmiStream &, TipprmiStream &response) {
    response << std::string("half an answer");
    return false;
}

bool onThrough(TipprmiStream &request, TipprmiStream &response) {
    unsigned depth = 0;
    std::string own;
    std::string other;
    request >> depth >> own >> other;
    unsigned reached = 0;
    if (depth > 0) {
        reached = callThrough(TipprmiObjectClient(TipprmiOID(other, NamespaceId(1))), depth - 1, other, own) + 1;
    }
    response << reached;
    return true;
}

bool onNote(TipprmiStream &, TipprmiStream &) {
    Locked lock(gate());
    ++notes;
    return true;
}

bool onLeave(TipprmiStream &request, TipprmiStream &) {
    unsigned status = 0;
    request >> status;
    std::exit(static_cast<int>(status));
}

bool onDetour(TipprmiStream &request, TipprmiStream &response) {
    std::string other;
    request >> other;
    const bool good = callLeave(TipprmiObjectClient(TipprmiOID(other, NamespaceId(1))), 9);
    say("detour %d", good ? 1 : 0);
    response << 1U;
    return true;
}

/** Runs a call; `write` marshals the arguments, `read` what follows the exception container. */
template <class Write, class Read>
bool call(const TipprmiObjectClient &client, unsigned mc, const Write &write, const Read &read) {
    TipprmiStream request(100);
    TipprmiStream response(100);
    client.prepareRequestStream_(true, Service::kClass, mc, request);
    write(request);
    const bool sent = client.dispatch(true, Service::kClass, mc, request, response);
    client.prepareResponseStream_(true, response);
    const bool good = sent && !response.hasUnmarshallingFailed() && read(response);
    return good && !response.hasUnmarshallingFailed();
}

} // namespace

TipprmiOID oidOf(const std::string &name) {
    const std::string::size_type at = name.find('@');
    return at == std::string::npos
               ? TipprmiOID(name, NamespaceId(1))
               : TipprmiOID(name.substr(0, at), NamespaceId(static_cast<unsigned>(std::stoul(name.substr(at + 1)))));
}

bool Service::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) {
    using Handler = bool (*)(TipprmiStream &, TipprmiStream &);
    static constexpr Handler kHandlers[] = {nullptr,    &onAddOne, &onEcho,  &onHold,  &onRefuse,
                                            &onThrough, &onNote,   &onLeave, &onDetour};
    if (cc != kClass || mc == 0 || mc >= sizeof kHandlers / sizeof kHandlers[0]) {
        return TipprmiObjectSkeleton::dispatch(transaction, cc, mc, request, response);
    }
    prepareResponseStream_(response);
    return kHandlers[mc](request, response);
}

void Service::release() {
    Locked lock(gate());
    open = true;
    gate().broadcast();
}

unsigned Service::noted() {
    Locked lock(gate());
    return notes;
}

bool callAddOne(const TipprmiObjectClient &client, unsigned number) {
    return call(
        client, Service::addOne, [number](TipprmiStream &request) { request << number; },
        [number](TipprmiStream &response) {
            unsigned answer = 0;
            response >> answer;
            return answer == number + 1;
        });
}

bool callEcho(const TipprmiObjectClient &client, unsigned size) {
    const std::string bytes(size, static_cast<char>('a' + size % 26));
    return call(
        client, Service::echo, [&bytes](TipprmiStream &request) { request << bytes; },
        [&bytes](TipprmiStream &response) {
            std::string answer;
            response >> answer;
            return answer == bytes;
        });
}

bool callHold(const TipprmiObjectClient &client) {
    return call(
        client, Service::hold, [](TipprmiStream &) {},
        [](TipprmiStream &response) {
            unsigned answer = 0;
            response >> answer;
            return answer == 1;
        });
}

bool callRefuse(const TipprmiObjectClient &client) {
    return call(
        client, Service::refuse, [](TipprmiStream &) {}, [](TipprmiStream &) { return true; });
}

unsigned callThrough(const TipprmiObjectClient &client, unsigned depth, const std::string &own,
                     const std::string &other) {
    unsigned reached = 0;
    const bool good = call(
        client, Service::through, [&](TipprmiStream &request) { request << depth << own << other; },
        [&reached](TipprmiStream &response) {
            response >> reached;
            return true;
        });
    return good ? reached : ~0U;
}

bool callNote(const TipprmiObjectClient &client) {
    TipprmiStream request(100);
    TipprmiStream response(100);
    client.prepareRequestStream_(false, Service::kClass, Service::note, request);
    return client.dispatch(false, Service::kClass, Service::note, request, response);
}

bool callLeave(const TipprmiObjectClient &client, unsigned status) {
    return call(
        client, Service::leave, [status](TipprmiStream &request) { request << status; },
        [](TipprmiStream &) { return true; });
}

bool callDetour(const TipprmiObjectClient &client, const std::string &other) {
    return call(
        client, Service::detour, [&other](TipprmiStream &request) { request << other; },
        [](TipprmiStream &) { return true; });
}
