#include "Torture.h"

#include "Output.h"
#include "platform/Thread.h"
#include "rmi/IPPRMI_objectClient.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr unsigned kClass = 0x7A;
constexpr unsigned kWork = 1;
constexpr unsigned kDeepest = 3;

std::atomic<unsigned> incarnation{0};
std::atomic<unsigned> lastNumber{0};
std::atomic<unsigned> good{0};
std::atomic<unsigned> failed{0};
std::atomic<bool> resting{false};

/** What only the object of this name answers to this question of this caller. */
unsigned answerTo(unsigned caller, unsigned number, const std::string &name) {
    unsigned sum = 2166136261U;
    const auto mix = [&sum](unsigned value) { sum = (sum ^ value) * 16777619U; };
    mix(caller);
    mix(number);
    mix(number >> 16U);
    for (const char c : name) {
        mix(static_cast<unsigned char>(c));
    }
    return sum;
}

std::string padding(unsigned number, unsigned size) {
    return std::string(size, static_cast<char>('A' + number % 26));
}

/** An object under torture. Its handle, which callers send along, is how it is called back. */
class Target : public TipprmiObjectSkeleton {
public:
    explicit Target(const std::string &name) : TipprmiObjectSkeleton(TipprmiOID(name, NamespaceId(1))), name_(name) {}
    const std::string &name() const { return name_; }

    using TipprmiObjectSkeleton::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;

private:
    const std::string name_;
};

Target *target = nullptr; // until the end of the process

/** Whom a handle leads to, as far as it is known. */
struct Peer {
    std::string name;
    TipprmiObjectClient client;
    unsigned incarnation = 0; // 0 before the first answer
};

/** One call with a number of its own; false if it failed. A wrong answer is reported and counts as a failure. */
bool work(Peer &peer, unsigned depth, unsigned size) {
    const unsigned self = incarnation;
    const unsigned number = ++lastNumber;
    const std::string sent = padding(number, size);
    TipprmiStream request(100);
    TipprmiStream response(100);
    peer.client.prepareRequestStream_(true, kClass, kWork, request);
    request << self << number << depth << target->name() << *target->getClient() << sent;
    if (!peer.client.dispatch(true, kClass, kWork, request, response)) {
        return false;
    }
    peer.client.prepareResponseStream_(true, response);
    unsigned answer = 0;
    unsigned by = 0;
    std::string received;
    response >> answer >> by >> received;
    if (response.hasUnmarshallingFailed() || answer == 0) {
        return false; // an exception
    }
    const bool sameIncarnation = peer.incarnation == 0 || peer.incarnation == by;
    if (answer != answerTo(self, number, peer.name) || received != sent || !sameIncarnation) {
        say("wrong answer to %u of %u, asked %s of %u: %X by %u, %zu bytes of %zu", number, self, peer.name.c_str(),
            peer.incarnation, answer, by, received.size(), sent.size());
        return false;
    }
    peer.incarnation = by;
    return true;
}

bool Target::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) {
    if (cc != kClass || mc != kWork) {
        return TipprmiObjectSkeleton::dispatch(transaction, cc, mc, request, response);
    }
    unsigned caller = 0;
    unsigned number = 0;
    unsigned depth = 0;
    std::string callerName;
    Peer back;
    std::string bytes;
    request >> caller >> number >> depth >> callerName >> back.client >> bytes;
    if (request.hasUnmarshallingFailed()) {
        say("wrong request");
        return false;
    }
    if (depth > 0) {
        back.name = callerName;
        back.incarnation = caller;
        ++(work(back, depth - 1, 10) ? good : failed);
    }
    prepareResponseStream_(response);
    response << answerTo(caller, number, name_) << incarnation.load() << bytes;
    return true;
}

class Tormentor : public OSWrap::Thread {
public:
    Tormentor(unsigned seed, std::vector<std::string> others)
        : Thread(OSWrap::Priority(0), OSWrap::SchedulingPolicy(0), 256 * 1024, "tormentor", false), random_(seed),
          others_(std::move(others)) {}

protected:
    int run() override {
        const TreflectHandlerState state(true);
        std::vector<Peer> peers(others_.size());
        while (!resting) {
            const std::size_t which = random_() % peers.size();
            Peer &peer = peers[which];
            if (peer.name.empty() || random_() % 32 == 0) {
                peer = Peer{others_[which], TipprmiObjectClient(TipprmiOID(others_[which], NamespaceId(1)))};
            }
            const unsigned depth = random_() % 4 == 0 ? 1 + static_cast<unsigned>(random_() % kDeepest) : 0;
            const unsigned size = static_cast<unsigned>(random_() % (random_() % 64 == 0 ? 100000 : 200));
            if (work(peer, depth, size)) {
                ++good;
            } else {
                ++failed;
                peer = Peer{}; // is looked up anew
            }
        }
        return 0;
    }

private:
    std::minstd_rand random_;
    const std::vector<std::string> others_;
};

std::vector<std::unique_ptr<Tormentor>> &tormentors() {
    static auto &instance = *new std::vector<std::unique_ptr<Tormentor>>; // they run until the end of the process
    return instance;
}

} // namespace

void onTorment(std::istringstream &arguments) {
    unsigned own = 0;
    std::string name;
    unsigned threads = 0;
    arguments >> own >> name >> threads;
    std::vector<std::string> others;
    for (std::string other; arguments >> other;) {
        others.push_back(other);
    }
    incarnation = own;
    resting = false;
    if (target == nullptr) {
        const TreflectHandlerState state(true);
        target = new Target(name);
    }
    for (unsigned i = 0; i < threads; ++i) {
        tormentors().push_back(std::make_unique<Tormentor>(own * 64 + i, others));
        tormentors().back()->start();
    }
    say("tormented");
}

void onProgress(std::istringstream &) {
    say("progress %u", good.load());
}

void onRest(std::istringstream &) {
    resting = true;
    for (const auto &tormentor : tormentors()) {
        tormentor->join();
    }
    tormentors().clear();
    say("rested %u %u", good.load(), failed.load());
}
