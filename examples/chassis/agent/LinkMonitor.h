#pragma once

#include "Link.h"
#include "Netlink.h"

#include <vector>

/** The kernel has made or changed an interface, or removed it: then `link` tells how it was. */
struct LinkEvent {
    bool gone = false;
    Link link;
};

/** Hears from the kernel what happens to interfaces. One thread at a time. */
class LinkMonitor {
public:
    enum class Outcome {
        complete, // all events are there
        lost,     // the kernel had no room for some, and none is there now: look at everything anew
        failed
    };

    /** From now on, in the network namespace that the calling thread is in. */
    Failure open();
    /** Readable when there are events. */
    int fd() const noexcept { return nl_socket_get_fd(socket_.get()); }
    /** Takes what is there, or a good part of it, oldest first, without waiting. */
    Outcome read(std::vector<LinkEvent> &events);
    /** After `failed`. */
    const std::string &problem() const noexcept { return problem_; }

private:
    Netlink::Socket socket_;
    std::string problem_;
};
