#pragma once

#include "Link.h"

#include <memory>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>

/** What both netlink sockets have in common. */
namespace Netlink {

struct Release {
    void operator()(nl_sock *socket) const noexcept { nl_socket_free(socket); }
    void operator()(nl_msg *message) const noexcept { nlmsg_free(message); }
    void operator()(nl_cb *callbacks) const noexcept { nl_cb_put(callbacks); }
};

using Socket = std::unique_ptr<nl_sock, Release>;
using Message = std::unique_ptr<nl_msg, Release>;
using Callbacks = std::unique_ptr<nl_cb, Release>;

/** Connected to the kernel's interfaces, those of the calling thread's network namespace; null with `failure`. */
Socket connect(Failure &failure);

/** False for messages that do not describe an interface itself: bridges tell of their ports, and wireless interfaces of
 *  their networks, with the same kind. */
bool parse(nlmsghdr *header, Link &link);

} // namespace Netlink
