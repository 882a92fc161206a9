#pragma once

#include "Link.h"
#include "Netlink.h"

#include <vector>

/** Asks the kernel about interfaces, and changes them. Each operation is one exchange of messages, which the kernel
 *  answers at once. One thread at a time; here that is whoever has the run permission. */
class Kernel {
public:
    Kernel();
    ~Kernel();
    Kernel(const Kernel &) = delete;
    Kernel &operator=(const Kernel &) = delete;

    /** In the network namespace that the calling thread is in; needed before everything else. */
    Failure open();
    Failure link(unsigned index, Link &link);
    Failure links(std::vector<Link> &links);
    Failure setMtu(unsigned index, unsigned mtu);
    Failure setUp(unsigned index, bool up);
    /** Mbit/s; 0 if it is not known. */
    unsigned speed(const std::string &name) const;

private:
    Failure exchange(const Netlink::Message &request, std::vector<Link> *links);
    Failure reopen();

    Netlink::Socket socket_;
    int control_ = -1; // for what only the older interface of the kernel tells
};
