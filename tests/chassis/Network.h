#pragma once

#include <string>

namespace Testing {

/**
 * A network namespace of the test's own, gone with the processes in it. Each operation brings the calling thread into
 * it, and so what the thread starts next; the end of the scope brings it back. Failures are texts, empty if all is
 * well.
 */
class Network {
public:
    Network();
    ~Network();
    Network(const Network &) = delete;
    Network &operator=(const Network &) = delete;

    /** Why there is none on this machine, or why there can be no interfaces in it: then nothing else may be called. */
    const std::string &problem() const noexcept { return problem_; }

    void enter() const;
    /** An interface that needs no other. */
    std::string add(const std::string &name);
    std::string addVeth(const std::string &name, const std::string &peer);
    std::string remove(const std::string &name);
    std::string rename(const std::string &name, const std::string &newName);
    std::string setMtu(const std::string &name, unsigned mtu);
    std::string setUp(const std::string &name, bool up);
    /** Makes it a port of the bridge; without a name it is none any more. */
    std::string setBridge(const std::string &name, const std::string &bridge);
    /** 0 if there is none. */
    unsigned index(const std::string &name);
    std::string macAddress(const std::string &name);
    unsigned mtu(const std::string &name);
    /** Into the network namespace of the other. */
    std::string move(const std::string &name, Network &other);
    /** Sends so many empty packets to itself over "lo", which has to be up. */
    std::string sendPackets(unsigned count);

private:
    int before_ = -1;
    int namespace_ = -1;
    std::string problem_;
};

} // namespace Testing

/** Skips the test, and says why, where the machine allows none. */
#define NEEDS(network)                                                                                                 \
    if (!(network).problem().empty()) {                                                                                \
        GTEST_SKIP() << (network).problem();                                                                           \
    }                                                                                                                  \
    static_assert(true, "")
