#include "LinkMonitor.h"

#include <cerrno>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>

namespace {

constexpr int kBuffer = 1 << 20; // bytes; some hundred events
constexpr int kAtOnce = 100;     // messages: signals are to be seen in between
constexpr int kOutdated = 10000; // messages: more than there can be in the buffer

int took(nl_msg *message, void *argument) {
    auto &events = *static_cast<std::vector<LinkEvent> *>(argument);
    LinkEvent event;
    const bool fromKernel = nlmsg_get_src(message)->nl_pid == 0;
    if (fromKernel && Netlink::parse(nlmsg_hdr(message), event.link)) {
        event.gone = nlmsg_hdr(message)->nlmsg_type == RTM_DELLINK;
        events.push_back(event);
    }
    return NL_OK;
}

} // namespace

Failure LinkMonitor::open() {
    Failure failure;
    socket_ = Netlink::connect(failure);
    if (socket_ == nullptr) {
        return failure;
    }
    nl_socket_disable_seq_check(socket_.get()); // events answer nothing
    int result = nl_socket_set_buffer_size(socket_.get(), kBuffer, 0);
    if (result >= 0) {
        result = nl_socket_set_nonblocking(socket_.get());
    }
    if (result >= 0) {
        result = nl_socket_add_memberships(socket_.get(), RTNLGRP_LINK, 0);
    }
    return result < 0 ? Failure{EIO, nl_geterror(result)} : Failure{};
}

LinkMonitor::Outcome LinkMonitor::read(std::vector<LinkEvent> &events) {
    events.clear();
    nl_socket_modify_cb(socket_.get(), NL_CB_VALID, NL_CB_CUSTOM, took, &events);
    bool lost = false;
    int result = 0;
    // If some were lost, those that are there tell of a time before the listing that comes now: they all have to go.
    for (int i = 0; i < (lost ? kOutdated : kAtOnce) && result >= 0; ++i) {
        result = nl_recvmsgs_default(socket_.get());
        if (result == -NLE_NOMEM) { // the kernel's word for "no room"
            lost = true;
            result = 0;
        }
    }
    if (result < 0 && result != -NLE_AGAIN) {
        problem_ = nl_geterror(result);
        return Outcome::failed;
    }
    if (lost) {
        events.clear();
        return Outcome::lost;
    }
    return Outcome::complete;
}
