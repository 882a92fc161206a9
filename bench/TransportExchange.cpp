#include "Exchange.h"
#include "Stages.h"

#include "platform/Termination.h"
#include "platform/TransportLayer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace Bench {

namespace {

using Transport::AddressedMessage;

constexpr auto kGroup = static_cast<Transport::GroupId>(16);

/** Puts what it receives into a queue. */
class EndPoint : public Transport::TerminationImpl {
public:
    EndPoint() : TerminationImpl(kGroup, "bench") {}
    ~EndPoint() override { stop(); }
    bool receive(const AddressedMessage &message) override {
        received.push(message);
        return true;
    }
    Queue<AddressedMessage> received;
};

bool wantsAnswer(const AddressedMessage &message) {
    const AddressedMessage &read = message;
    return read.buf()[0] != 0;
}

class ThroughTransport : public Exchange {
public:
    ThroughTransport() {
        endPoint_ = std::make_unique<EndPoint>();
        endPoint_->start();
        int in[2];
        int out[2];
        if (::pipe(in) != 0 || ::pipe(out) != 0) {
            std::abort();
        }
        peer_ = startSelf("--serve-transport", "", in[0], out[1]);
        input_ = in[1];
        unsigned id = 0;
        if (::read(out[0], &id, sizeof id) != sizeof id) {
            std::abort();
        }
        ::close(out[0]);
        const Clock::time_point limit = Clock::now() + std::chrono::seconds(10);
        while (!(target_ = Transport::TransportLayer::getTermination(Transport::TerminationId(id)))) {
            if (Clock::now() > limit) {
                std::fprintf(stderr, "the peer does not appear\n");
                std::abort();
            }
            ::sched_yield();
        }
    }
    ~ThroughTransport() override {
        endPoint_.reset();
        ::close(input_);
        ::waitpid(peer_, nullptr, 0);
    }

    void call(unsigned size) override {
        send(size, true);
        endPoint_->received.pop();
    }
    void oneWay(unsigned size, unsigned count) override {
        for (unsigned i = 1; i < count; ++i) {
            send(size, false);
        }
        call(size);
    }
    pid_t peer() const override { return peer_; }

private:
    void send(unsigned size, bool answer) {
        AddressedMessage message = endPoint_->allocateMessage(size, 4);
        message.buf()[0] = answer ? 1 : 0;
        while (!target_->issue(message)) {
            ::sched_yield();
        }
    }

    std::unique_ptr<EndPoint> endPoint_;
    Transport::TerminationPtr target_;
    pid_t peer_ = -1;
    int input_ = -1;
};

} // namespace

std::unique_ptr<Exchange> transportExchange() {
    return std::make_unique<ThroughTransport>();
}

int serveTransport() {
    EndPoint endPoint;
    endPoint.start();
    const unsigned id = endPoint.termId().value();
    if (::write(STDOUT_FILENO, &id, sizeof id) != sizeof id) {
        return 1;
    }
    std::thread worker([&endPoint] {
        for (;;) {
            const AddressedMessage request = endPoint.received.pop();
            if (request.size() == 0) {
                return;
            }
            if (wantsAnswer(request)) {
                AddressedMessage answer = endPoint.allocateMessage(request.size(), 4);
                answer.buf()[0] = 1;
                Transport::TransportLayer::getTermination(request.originator())->issue(answer);
            }
        }
    });
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
    endPoint.received.push(AddressedMessage());
    worker.join();
    return 0;
}

} // namespace Bench
