#include "Kernel.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <linux/ethtool.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netlink/attr.h>
#include <netlink/errno.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/** A listing that interfaces came into or went from meanwhile is asked for again, so often. */
constexpr int kListings = 50;

struct Exchange {
    std::vector<Link> *links = nullptr;
    bool ended = false;
    bool disturbed = false; // the listing
    Failure failure;
};

int took(nl_msg *message, void *argument) {
    auto &exchange = *static_cast<Exchange *>(argument);
    Link link;
    if (exchange.links != nullptr && Netlink::parse(nlmsg_hdr(message), link)) {
        exchange.links->push_back(link);
    }
    return NL_OK;
}

int ended(nl_msg *, void *argument) {
    static_cast<Exchange *>(argument)->ended = true;
    return NL_STOP;
}

int disturbed(nl_msg *, void *argument) {
    static_cast<Exchange *>(argument)->disturbed = true;
    return NL_OK;
}

/** What the kernel says beside the code, if anything. */
std::string explanation(nlmsgerr *error) {
    auto *const header = reinterpret_cast<nlmsghdr *>(reinterpret_cast<char *>(error) - NLMSG_HDRLEN);
    if ((header->nlmsg_flags & NLM_F_ACK_TLVS) == 0) {
        return {};
    }
    std::size_t before = sizeof(nlmsgerr); // and, unless it is left out, the rest of the request
    if ((header->nlmsg_flags & NLM_F_CAPPED) == 0 && error->msg.nlmsg_len >= sizeof(nlmsghdr)) {
        before += NLMSG_ALIGN(error->msg.nlmsg_len) - sizeof(nlmsghdr);
    }
    const std::size_t length = header->nlmsg_len - NLMSG_HDRLEN;
    if (header->nlmsg_len < NLMSG_HDRLEN || before >= length) {
        return {};
    }
    auto *const first = reinterpret_cast<nlattr *>(reinterpret_cast<char *>(error) + before);
    const nlattr *const text = nla_find(first, static_cast<int>(length - before), NLMSGERR_ATTR_MSG);
    if (text == nullptr) {
        return {};
    }
    const auto *const words = static_cast<const char *>(nla_data(text));
    return std::string(words, ::strnlen(words, static_cast<std::size_t>(nla_len(text))));
}

int refused(sockaddr_nl *, nlmsgerr *error, void *argument) {
    auto &exchange = *static_cast<Exchange *>(argument);
    exchange.ended = true;
    exchange.failure = Failure::of(-error->error);
    const std::string words = explanation(error);
    if (!words.empty()) {
        exchange.failure.reason = words + " (" + exchange.failure.reason + ")";
    }
    return NL_STOP;
}

Netlink::Message requestOf(int type, int flags, const ifinfomsg &head) {
    Netlink::Message request(nlmsg_alloc_simple(type, NLM_F_REQUEST | flags));
    ifinfomsg copy = head;
    if (request != nullptr && nlmsg_append(request.get(), &copy, sizeof copy, NLMSG_ALIGNTO) < 0) {
        request.reset();
    }
    return request;
}

ifinfomsg headOf(unsigned index) {
    ifinfomsg head{};
    head.ifi_family = AF_UNSPEC;
    head.ifi_index = static_cast<int>(index);
    return head;
}

} // namespace

Kernel::Kernel() = default;

Kernel::~Kernel() {
    if (control_ >= 0) {
        ::close(control_);
    }
}

Failure Kernel::open() {
    control_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); // without it speeds are not known
    return reopen();
}

Failure Kernel::reopen() {
    Failure failure;
    socket_ = Netlink::connect(failure);
    if (socket_ != nullptr) {
        const int on = 1; // older kernels refuse with a code only
        static_cast<void>(::setsockopt(nl_socket_get_fd(socket_.get()), SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on));
        static_cast<void>(::setsockopt(nl_socket_get_fd(socket_.get()), SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on));
    }
    return failure;
}

Failure Kernel::exchange(const Netlink::Message &request, std::vector<Link> *links) {
    const Netlink::Callbacks callbacks(nl_cb_alloc(NL_CB_DEFAULT));
    if (request == nullptr || callbacks == nullptr) {
        return Failure::of(ENOMEM);
    }
    if (socket_ == nullptr) {
        if (Failure failure = reopen()) {
            return failure;
        }
    }
    Exchange exchange;
    exchange.links = links;
    nl_cb_set(callbacks.get(), NL_CB_VALID, NL_CB_CUSTOM, took, &exchange);
    nl_cb_set(callbacks.get(), NL_CB_ACK, NL_CB_CUSTOM, ended, &exchange);
    nl_cb_set(callbacks.get(), NL_CB_FINISH, NL_CB_CUSTOM, ended, &exchange);
    nl_cb_set(callbacks.get(), NL_CB_DUMP_INTR, NL_CB_CUSTOM, disturbed, &exchange);
    nl_cb_err(callbacks.get(), NL_CB_CUSTOM, refused, &exchange);
    int result = nl_send_auto(socket_.get(), request.get());
    while (result >= 0 && !exchange.ended) {
        result = nl_recvmsgs(socket_.get(), callbacks.get());
    }
    if (!exchange.ended) {
        socket_.reset(); // what is still to come must not be taken for the answer of another request
        return {EIO, nl_geterror(result)};
    }
    if (exchange.disturbed) {
        return Failure::of(EAGAIN);
    }
    return exchange.failure;
}

Failure Kernel::link(unsigned index, Link &link) {
    std::vector<Link> links;
    if (Failure failure = exchange(requestOf(RTM_GETLINK, 0, headOf(index)), &links)) {
        return failure;
    }
    if (links.size() != 1 || links[0].index != index) {
        return Failure::of(ENODEV);
    }
    link = links[0];
    return {};
}

Failure Kernel::links(std::vector<Link> &links) {
    Failure failure = Failure::of(EAGAIN);
    for (int i = 0; i < kListings && failure.code == EAGAIN; ++i) {
        links.clear();
        failure = exchange(requestOf(RTM_GETLINK, NLM_F_DUMP, headOf(0)), &links);
    }
    return failure;
}

Failure Kernel::setMtu(unsigned index, unsigned mtu) {
    Netlink::Message request = requestOf(RTM_SETLINK, NLM_F_ACK, headOf(index));
    if (request != nullptr && nla_put_u32(request.get(), IFLA_MTU, mtu) < 0) {
        request.reset();
    }
    return exchange(request, nullptr);
}

Failure Kernel::setUp(unsigned index, bool up) {
    ifinfomsg head = headOf(index);
    head.ifi_change = IFF_UP;
    head.ifi_flags = up ? static_cast<unsigned>(IFF_UP) : 0U;
    return exchange(requestOf(RTM_SETLINK, NLM_F_ACK, head), nullptr);
}

unsigned Kernel::speed(const std::string &name) const {
    // The settings and behind them three masks of as many words as the kernel wants room for.
    alignas(ethtool_link_settings) std::array<unsigned char, sizeof(ethtool_link_settings) + 3U * 127U * 4U> room{};
    auto *const settings = reinterpret_cast<ethtool_link_settings *>(room.data());
    ifreq request{};
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    request.ifr_data = reinterpret_cast<char *>(room.data());
    settings->cmd = ETHTOOL_GLINKSETTINGS; // the first answer is how much room it wants, as a negative number
    if (::ioctl(control_, SIOCETHTOOL, &request) != 0 || settings->link_mode_masks_nwords >= 0) {
        return 0;
    }
    settings->link_mode_masks_nwords = static_cast<__s8>(-settings->link_mode_masks_nwords);
    settings->cmd = ETHTOOL_GLINKSETTINGS;
    if (::ioctl(control_, SIOCETHTOOL, &request) != 0 || settings->speed == static_cast<__u32>(SPEED_UNKNOWN)) {
        return 0;
    }
    return settings->speed;
}
