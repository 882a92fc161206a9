#pragma once

#include <cstdint>
#include <string>

/** What the kernel says of one network interface at one instant. */
struct Link {
    unsigned index = 0; // never 0 in truth
    std::string name;   // any bytes but '/' and white space
    std::string macAddress;
    unsigned mtu = 0;
    bool up = false;
    std::string operState;
    struct {
        std::uint64_t bytes = 0;
        std::uint64_t packets = 0;
        std::uint64_t errors = 0;
        std::uint64_t drops = 0;
    } rx, tx;
};

/** Why the kernel refused. */
struct Failure {
    int code = 0; // errno; 0: it did not
    std::string reason;

    explicit operator bool() const noexcept { return code != 0; }
    /** With the text of the code. */
    static Failure of(int code);
};
