// In place of the C library's, in an agent: what the kernel tells of an interface with an MTU of 1234 is cut down to
// the interface's name, as it is when a wireless one has found a network.

#include <cstring>
#include <dlfcn.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace {

constexpr unsigned kMtu = 1234;

bool isFromKernel(const msghdr &message) {
    const auto *const from = static_cast<const sockaddr_nl *>(message.msg_name);
    return from != nullptr && message.msg_namelen == sizeof *from && from->nl_family == AF_NETLINK && from->nl_pid == 0;
}

/** The length that is left. */
ssize_t cut(nlmsghdr *header, ssize_t length) {
    if (!NLMSG_OK(header, length) || header->nlmsg_type != RTM_NEWLINK) {
        return length;
    }
    const rtattr *name = nullptr;
    unsigned mtu = 0;
    auto *const begin = IFLA_RTA(NLMSG_DATA(header));
    auto left = static_cast<int>(IFLA_PAYLOAD(header));
    for (const rtattr *each = begin; RTA_OK(each, left); each = RTA_NEXT(each, left)) {
        name = each->rta_type == IFLA_IFNAME ? each : name;
        if (each->rta_type == IFLA_MTU) {
            std::memcpy(&mtu, RTA_DATA(each), sizeof mtu);
        }
    }
    if (name == nullptr || mtu != kMtu) {
        return length;
    }
    const unsigned size = RTA_ALIGN(name->rta_len);
    std::memmove(begin, name, size);
    header->nlmsg_len = NLMSG_SPACE(sizeof(ifinfomsg)) + size;
    return header->nlmsg_len;
}

} // namespace

extern "C" __attribute__((visibility("default"))) ssize_t recvmsg(int socket, msghdr *message, int flags) {
    using Function = ssize_t (*)(int, msghdr *, int);
    static const auto original = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "recvmsg"));
    const ssize_t length = original(socket, message, flags);
    if (length <= 0 || (flags & MSG_PEEK) != 0 || !isFromKernel(*message)) {
        return length;
    }
    return cut(static_cast<nlmsghdr *>(message->msg_iov[0].iov_base), length);
}
