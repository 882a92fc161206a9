#include "Netlink.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/addr.h>
#include <netlink/attr.h>
#include <netlink/route/link.h>
#include <system_error>

Failure Failure::of(int code) {
    return {code, std::generic_category().message(code)};
}

namespace Netlink {

namespace {

std::string textOf(const nlattr *attribute) {
    const auto *const text = static_cast<const char *>(nla_data(attribute));
    return std::string(text, ::strnlen(text, static_cast<std::size_t>(nla_len(attribute))));
}

std::string addressOf(const nlattr *attribute) {
    static constexpr char digits[] = "0123456789abcdef";
    const auto *const bytes = static_cast<const unsigned char *>(nla_data(attribute));
    std::string text;
    for (int i = 0; i < nla_len(attribute); ++i) {
        text += i == 0 ? "" : ":";
        text += digits[bytes[i] >> 4U];
        text += digits[bytes[i] & 15U];
    }
    return text;
}

void takeCounters(const nlattr *attribute, Link &link) {
    rtnl_link_stats64 all{}; // the attribute need not be aligned, nor as long as this
    std::memcpy(&all, nla_data(attribute), std::min(sizeof all, static_cast<std::size_t>(nla_len(attribute))));
    link.rx = {all.rx_bytes, all.rx_packets, all.rx_errors, all.rx_dropped};
    link.tx = {all.tx_bytes, all.tx_packets, all.tx_errors, all.tx_dropped};
}

} // namespace

Socket connect(Failure &failure) {
    Socket socket(nl_socket_alloc());
    if (socket == nullptr) {
        failure = Failure::of(ENOMEM);
        return nullptr;
    }
    const int result = nl_connect(socket.get(), NETLINK_ROUTE);
    if (result < 0) {
        failure = {EIO, nl_geterror(result)};
        return nullptr;
    }
    nl_socket_enable_msg_peek(socket.get()); // interfaces with many functions have long messages
    return socket;
}

bool parse(nlmsghdr *header, Link &link) {
    if ((header->nlmsg_type != RTM_NEWLINK && header->nlmsg_type != RTM_DELLINK) ||
        nlmsg_valid_hdr(header, sizeof(ifinfomsg)) == 0) {
        return false;
    }
    const auto *const head = static_cast<const ifinfomsg *>(nlmsg_data(header));
    nlattr *attributes[IFLA_MAX + 1];
    if (head->ifi_family != AF_UNSPEC || head->ifi_index <= 0 ||
        nlmsg_parse(header, sizeof(ifinfomsg), attributes, IFLA_MAX, nullptr) < 0 ||
        attributes[IFLA_IFNAME] == nullptr) {
        return false;
    }
    if (header->nlmsg_type == RTM_NEWLINK && attributes[IFLA_MTU] == nullptr) {
        return false; // something else of the interface has changed, as a wireless one's network
    }
    link.index = static_cast<unsigned>(head->ifi_index);
    link.up = (head->ifi_flags & IFF_UP) != 0;
    link.name = textOf(attributes[IFLA_IFNAME]);
    if (const nlattr *address = attributes[IFLA_ADDRESS]) {
        link.macAddress = addressOf(address);
    }
    if (attributes[IFLA_MTU] != nullptr && nla_len(attributes[IFLA_MTU]) >= 4) {
        link.mtu = nla_get_u32(attributes[IFLA_MTU]);
    }
    if (attributes[IFLA_OPERSTATE] != nullptr && nla_len(attributes[IFLA_OPERSTATE]) >= 1) {
        char text[32];
        link.operState = rtnl_link_operstate2str(nla_get_u8(attributes[IFLA_OPERSTATE]), text, sizeof text);
    }
    if (attributes[IFLA_STATS64] != nullptr) {
        takeCounters(attributes[IFLA_STATS64], link);
    }
    return true;
}

} // namespace Netlink
