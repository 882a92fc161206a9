#include "Events.h"

#include "Exchange.h"
#include "Measure.h"

#include "objects/REFLECT_objectStub.h"
#include "orb/REFLECT_orb.h"
#include "platform/Log.h"
#include "platform/TransportLayer.h"
#include "rmi/CallHelper.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <list>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

namespace {

[[noreturn]] void fail(const char *what) {
    std::fprintf(stderr, "%s\n", what);
    std::_Exit(1);
}

template <class T>
void write(const T &value) {
    if (::write(STDOUT_FILENO, &value, sizeof value) != sizeof value) {
        fail("nobody reads what a helper says");
    }
}

/** Says that it is ready, and by what id its broker is known. */
void ready() {
    write(TreflectORB::getInstance(1)->termId().value());
}

void awaitEnd() {
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

class ThingMeta : public TreflectMetaObject {
public:
    ThingMeta() : TreflectMetaObject("Thing", Thing::kClass) {}
    void completeMetaInformation() override {}
};
ThingMeta &thingMeta = *new ThingMeta;

class NextCall : public ClientCallHookBaseV, public InParamHook, public OutParamHook {
public:
    explicit NextCall(unsigned number) : number_(number) {}
    void invoke() const override { result_ = number_ + 1; }
    void insertParameters(TipprmiSequence<TipprmiAny> &sequence) const override {
        TipprmiAny any;
        any.insert(number_);
        sequence.push_back(any);
    }
    const char *operationName() const override { return "next"; }
    void marshallIn(TipprmiStream &) const override {}
    void unmarshallOut(TipprmiStream &) const override {}
    unsigned result() const noexcept { return result_; }

private:
    const unsigned number_;
    mutable unsigned result_ = 0;
};

class Silent : public TipprmiObjectSkeleton {
public:
    explicit Silent(const std::string &name) : TipprmiObjectSkeleton(TipprmiOID(name, NamespaceId(1))) {}
    using TipprmiObjectSkeleton::dispatch;
    bool dispatch(bool, unsigned, unsigned, TipprmiStream &, TipprmiStream &) override {
        write('c');
        const TreflectReleaseHandlerState released;
        for (;;) {
            ::pause();
        }
    }
};

} // namespace

// --- objects and observers ------------------------------------------------------------------------------------------

Thing::Thing(const char *oid) : TreflectServerObject(TipprmiOID(oid, NamespaceId(1)), nullptr, "thing") {}

TipprmiSequence<unsigned> Thing::getServerClassIdSeq() const {
    TipprmiSequence<unsigned> ids;
    ids.push_back(kClass);
    return ids;
}

unsigned Thing::next(unsigned number) {
    const NextCall call(number);
    ClientCallHelper(call, call, call, *getClient()->getStub(), this, kClass, kNext, true);
    return call.result();
}

TreflectMetaObject &Thing::meta() {
    return thingMeta;
}

Counter::Counter(const char *oid) : TreflectObserver(TipprmiOID(oid, NamespaceId(1)), nullptr, "counter") {}

// --- actors ---------------------------------------------------------------------------------------------------------

Helper::Helper(const std::string &mode, const std::string &argument) {
    int in[2];
    int out[2];
    if (TreflectORB::getInstance(1) == nullptr || ::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        fail("no broker, or no pipes");
    }
    pid_ = startSelf(mode, argument, in[0], out[1]);
    input_ = in[1];
    output_ = out[0];
    const Transport::TerminationId id(read<unsigned>());
    const Clock::time_point limit = Clock::now() + std::chrono::seconds(30);
    while (!Transport::TransportLayer::exists(id)) {
        if (Clock::now() > limit) {
            fail("a helper does not appear");
        }
        ::sched_yield();
    }
}

Helper::~Helper() {
    ::close(input_);
    if (pid_ > 0) {
        ::waitpid(pid_, nullptr, 0);
    }
    ::close(output_);
}

void Helper::tell(const std::string &line) const {
    if (::write(input_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        fail("a helper does not listen");
    }
}

void Helper::readAll(void *to, std::size_t size) const {
    if (::read(output_, to, size) != static_cast<ssize_t>(size)) {
        fail("a helper says nothing");
    }
}

void Helper::kill() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

int serveWatch() {
    TreflectORB::getInstance(1);
    Counter counter;
    Thing::meta().observeCreations(&counter, false);
    ready();
    char byte = 0;
    if (::read(STDIN_FILENO, &byte, 1) == 1) { // how much is it?
        write(counter.told.load());
    }
    awaitEnd();
    const TreflectHandlerState state(true);
    Thing::meta().removeObserver(&counter);
    return 0;
}

int serveObserver(const std::string &name) {
    const Counter counter(name.c_str());
    ready();
    awaitEnd();
    return 0;
}

int serveHold(const std::string &name) {
    const Silent object(name);
    ready();
    for (;;) {
        ::pause();
    }
}

int serveBereaved() {
    Log::setSink([](int, const std::string &, const char *) {}); // each of them reports its failed call
    TreflectORB::getInstance(1);
    ready();
    char line[64];
    while (std::fgets(line, sizeof line, stdin) != nullptr) {
        std::string name(line);
        name.pop_back();
        const TreflectHandlerState state(true);
        const TipprmiObjectClient object(TipprmiOID(name, NamespaceId(1)));
        TipprmiStream request(100);
        TipprmiStream response(100);
        object.prepareRequestStream_(true, 1, 1, request);
        const bool sent = object.dispatch(true, 1, 1, request, response);
        const double time = now();
        if (sent || object.getStub_()->isValid()) {
            fail("a call of a dead actor succeeded, or its stub is valid");
        }
        write(time);
    }
    return 0;
}

int serveThings(const std::string &count) {
    std::list<Thing> things;
    {
        TreflectORB::getInstance(1);
        const TreflectHandlerState state(true);
        for (int i = std::atoi(count.c_str()); i > 0; --i) {
            things.emplace_back();
            things.back().sendCreationEvent(&Thing::meta());
        }
    }
    ready();
    awaitEnd();
    std::_Exit(0); // all of them at once
}

double now() {
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

} // namespace Bench
