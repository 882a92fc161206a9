#include "chassis/Network.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <net/if.h>
#include <netlink/addr.h>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <netlink/route/link/veth.h>
#include <netlink/socket.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Testing {

namespace {

constexpr char kNamespace[] = "/proc/thread-self/ns/net";

struct Release {
    void operator()(nl_sock *socket) const { nl_socket_free(socket); }
    void operator()(rtnl_link *link) const { rtnl_link_put(link); }
};

using Socket = std::unique_ptr<nl_sock, Release>;
using Link = std::unique_ptr<rtnl_link, Release>;

std::string errorOf(int result) {
    return result < 0 ? nl_geterror(result) : "";
}

Socket connected() {
    Socket socket(nl_socket_alloc());
    nl_connect(socket.get(), NETLINK_ROUTE);
    return socket;
}

Link find(nl_sock *socket, const std::string &name) {
    rtnl_link *link = nullptr;
    rtnl_link_get_kernel(socket, 0, name.c_str(), &link);
    return Link(link);
}

std::string make(const std::string &name, const char *type) {
    const Socket socket = connected();
    const Link link(rtnl_link_alloc());
    rtnl_link_set_name(link.get(), name.c_str());
    rtnl_link_set_type(link.get(), type);
    return errorOf(rtnl_link_add(socket.get(), link.get(), NLM_F_CREATE | NLM_F_EXCL));
}

std::string change(const std::string &name, const std::function<void(rtnl_link *)> &set) {
    const Socket socket = connected();
    const Link link = find(socket.get(), name);
    if (link == nullptr) {
        return "no interface " + name;
    }
    const Link changes(rtnl_link_alloc());
    set(changes.get());
    return errorOf(rtnl_link_change(socket.get(), link.get(), changes.get(), 0));
}

} // namespace

Network::Network() : before_(::open(kNamespace, O_RDONLY | O_CLOEXEC)) {
    if (::unshare(CLONE_NEWNET) != 0) {
        problem_ = std::string("no network namespace can be made here: ") + std::strerror(errno);
        return;
    }
    namespace_ = ::open(kNamespace, O_RDONLY | O_CLOEXEC);
    struct if_nameindex *const names = ::if_nameindex();
    for (const struct if_nameindex *each = names; each != nullptr && each->if_index != 0; ++each) {
        if (std::strcmp(each->if_name, "lo") != 0) { // of tunnels, if net.core.fb_tunnels_only_for_init_net is 0
            problem_ = "a new network namespace has more than \"lo\" here: " + std::string(each->if_name);
        }
    }
    ::if_freenameindex(names);
    if (!problem_.empty()) {
        return;
    }
    std::string failure = addVeth("try0", "try1");
    failure = failure.empty() ? remove("try0") : failure;
    failure = failure.empty() ? add("try0") : failure;
    failure = failure.empty() ? remove("try0") : failure;
    if (!failure.empty()) {
        problem_ = "the kernel has not the kinds of interfaces that this test needs: " + failure;
    }
}

Network::~Network() {
    if (before_ >= 0) {
        static_cast<void>(::setns(before_, CLONE_NEWNET));
        ::close(before_);
    }
    ::close(namespace_);
}

void Network::enter() const {
    if (::setns(namespace_, CLONE_NEWNET) != 0) {
        std::abort(); // the test would change the machine's own interfaces
    }
}

std::string Network::add(const std::string &name) {
    enter();
    const std::string failure = make(name, "bridge");
    return failure == nl_geterror(-NLE_OPNOTSUPP) ? make(name, "dummy") : failure; // kernels differ in what they have
}

std::string Network::addVeth(const std::string &name, const std::string &peer) {
    enter();
    const Link link(rtnl_link_veth_alloc());
    rtnl_link_set_name(link.get(), name.c_str());
    const Link other(rtnl_link_veth_get_peer(link.get()));
    rtnl_link_set_name(other.get(), peer.c_str());
    return errorOf(rtnl_link_add(connected().get(), link.get(), NLM_F_CREATE | NLM_F_EXCL));
}

std::string Network::remove(const std::string &name) {
    enter();
    const Socket socket = connected();
    const Link link = find(socket.get(), name);
    return link == nullptr ? "no interface " + name : errorOf(rtnl_link_delete(socket.get(), link.get()));
}

std::string Network::rename(const std::string &name, const std::string &newName) {
    enter();
    return change(name, [&newName](rtnl_link *link) { rtnl_link_set_name(link, newName.c_str()); });
}

std::string Network::setMtu(const std::string &name, unsigned mtu) {
    enter();
    return change(name, [mtu](rtnl_link *link) { rtnl_link_set_mtu(link, mtu); });
}

std::string Network::setUp(const std::string &name, bool up) {
    enter();
    return change(name, [up](rtnl_link *link) { (up ? rtnl_link_set_flags : rtnl_link_unset_flags)(link, IFF_UP); });
}

std::string Network::move(const std::string &name, Network &other) {
    enter();
    return change(name, [&other](rtnl_link *link) { rtnl_link_set_ns_fd(link, other.namespace_); });
}

std::string Network::setBridge(const std::string &name, const std::string &bridge) {
    enter();
    const auto master = static_cast<int>(bridge.empty() ? 0 : index(bridge));
    return change(name, [master](rtnl_link *link) { rtnl_link_set_master(link, master); });
}

unsigned Network::index(const std::string &name) {
    enter();
    return ::if_nametoindex(name.c_str());
}

std::string Network::macAddress(const std::string &name) {
    enter();
    const Link link = find(connected().get(), name);
    char text[64];
    return link != nullptr ? nl_addr2str(rtnl_link_get_addr(link.get()), text, sizeof text) : "";
}

unsigned Network::mtu(const std::string &name) {
    enter();
    const Link link = find(connected().get(), name);
    return link != nullptr ? rtnl_link_get_mtu(link.get()) : 0;
}

std::string Network::sendPackets(unsigned count) {
    enter();
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(9);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string failure;
    const int receiver = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); // else answers would be packets, too
    if (::bind(receiver, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        failure = std::strerror(errno);
    }
    for (unsigned i = 0; i < count && failure.empty(); ++i) {
        if (::sendto(socket, "", 0, 0, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) {
            failure = std::strerror(errno);
        }
    }
    ::close(socket);
    ::close(receiver);
    return failure;
}

} // namespace Testing
