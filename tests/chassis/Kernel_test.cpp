#include "Kernel.h"
#include "LinkMonitor.h"
#include "chassis/Network.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <poll.h>

namespace {

using Testing::Network;

const Link *named(const std::vector<Link> &links, const std::string &name) {
    const auto found =
        std::find_if(links.begin(), links.end(), [&name](const Link &link) { return link.name == name; });
    return found != links.end() ? &*found : nullptr;
}

// --- messages -------------------------------------------------------------------------------------------------------

/** A message about an interface, for each test to spoil. */
class Parse : public testing::Test {
protected:
    Parse() { begin(RTM_NEWLINK, AF_UNSPEC, 7); }

    void begin(int type, unsigned char family, int index) {
        message_.reset(nlmsg_alloc_simple(type, 0));
        ifinfomsg head{};
        head.ifi_family = family;
        head.ifi_index = index;
        head.ifi_flags = IFF_UP;
        nlmsg_append(message_.get(), &head, sizeof head, NLMSG_ALIGNTO);
    }
    bool parse() { return Netlink::parse(nlmsg_hdr(message_.get()), link_); }

    static constexpr unsigned IFF_UP = 1;
    Netlink::Message message_;
    Link link_;
};

TEST_F(Parse, TakesAllThatIsThere) {
    nla_put_string(message_.get(), IFLA_IFNAME, "eth7");
    nla_put_u32(message_.get(), IFLA_MTU, 9000);
    nla_put_u8(message_.get(), IFLA_OPERSTATE, 6);
    nla_put(message_.get(), IFLA_ADDRESS, 6, "\x02\x00\x5e\x10\x00\xff");
    rtnl_link_stats64 counters{};
    counters.rx_bytes = 0x123456789ABCDEFULL;
    counters.tx_bytes = 2;
    counters.rx_packets = 3;
    counters.tx_packets = 4;
    counters.rx_errors = 5;
    counters.tx_errors = 6;
    counters.rx_dropped = 7;
    counters.tx_dropped = 8;
    nla_put(message_.get(), IFLA_STATS64, sizeof counters, &counters);
    ASSERT_TRUE(parse());
    EXPECT_EQ(7U, link_.index);
    EXPECT_EQ("eth7", link_.name);
    EXPECT_EQ(9000U, link_.mtu);
    EXPECT_TRUE(link_.up);
    EXPECT_EQ("up", link_.operState);
    EXPECT_EQ("02:00:5e:10:00:ff", link_.macAddress);
    EXPECT_EQ(0x123456789ABCDEFULL, link_.rx.bytes);
    EXPECT_EQ(2U, link_.tx.bytes);
    EXPECT_EQ(3U, link_.rx.packets);
    EXPECT_EQ(4U, link_.tx.packets);
    EXPECT_EQ(5U, link_.rx.errors);
    EXPECT_EQ(6U, link_.tx.errors);
    EXPECT_EQ(7U, link_.rx.drops);
    EXPECT_EQ(8U, link_.tx.drops);
}

TEST_F(Parse, DoesWithoutWhatIsNotThere) {
    nla_put_string(message_.get(), IFLA_IFNAME, "x");
    nla_put_u32(message_.get(), IFLA_MTU, 1500);
    nla_put(message_.get(), IFLA_STATS64, 8, "\1\0\0\0\0\0\0\0"); // of an older kernel
    ASSERT_TRUE(parse());
    EXPECT_EQ("x", link_.name);
    EXPECT_EQ("", link_.macAddress);
    EXPECT_EQ(1500U, link_.mtu);
    EXPECT_EQ("", link_.operState);
    EXPECT_NE(0U, link_.rx.packets);
    EXPECT_EQ(0U, link_.tx.packets);
}

TEST_F(Parse, RefusesWhatIsNotAboutAnInterface) {
    EXPECT_FALSE(parse()); // no name
    for (const auto &[type, family, index] : {std::tuple<int, unsigned char, int>{RTM_NEWLINK, AF_BRIDGE, 7},
                                              {RTM_NEWADDR, AF_UNSPEC, 7},
                                              {RTM_NEWLINK, AF_UNSPEC, 0},
                                              {RTM_NEWLINK, AF_UNSPEC, -1},
                                              {RTM_SETLINK, AF_UNSPEC, 7}}) {
        begin(type, family, index);
        nla_put_string(message_.get(), IFLA_IFNAME, "x");
        nla_put_u32(message_.get(), IFLA_MTU, 1500);
        EXPECT_FALSE(parse()) << type << " " << int{family} << " " << index;
    }
    begin(RTM_DELLINK, AF_UNSPEC, 7);
    nla_put_string(message_.get(), IFLA_IFNAME, "x");
    EXPECT_TRUE(parse());
}

TEST_F(Parse, RefusesWhatSaysNoMoreThanTheName) { // a wireless interface has looked for networks
    nla_put_string(message_.get(), IFLA_IFNAME, "wlan0");
    nla_put(message_.get(), IFLA_WIRELESS, 4, "\x04\x00\x19\x8b");
    EXPECT_FALSE(parse());
    nla_put_u32(message_.get(), IFLA_MTU, 1500);
    EXPECT_TRUE(parse());
}

TEST_F(Parse, SurvivesEveryLength) {
    nla_put_string(message_.get(), IFLA_IFNAME, "eth7");
    nla_put_u32(message_.get(), IFLA_MTU, 9000);
    nla_put_u8(message_.get(), IFLA_OPERSTATE, 250);
    const unsigned length = nlmsg_hdr(message_.get())->nlmsg_len;
    for (unsigned cut = 0; cut < length; ++cut) {
        std::vector<char> copy(cut < sizeof(nlmsghdr) ? sizeof(nlmsghdr) : cut); // exactly, for the sanitizers to see
        std::copy_n(reinterpret_cast<const char *>(nlmsg_hdr(message_.get())), copy.size(), copy.begin());
        auto *const header = reinterpret_cast<nlmsghdr *>(copy.data());
        header->nlmsg_len = cut;
        Link link;
        if (Netlink::parse(header, link)) {
            EXPECT_EQ("eth7", link.name);
        }
    }
}

// --- the kernel -----------------------------------------------------------------------------------------------------

TEST(Kernel, ReadsWithoutPrivileges) {
    Kernel kernel;
    ASSERT_FALSE(kernel.open());
    std::vector<Link> links;
    ASSERT_FALSE(kernel.links(links));
    const Link *const listed = named(links, "lo");
    ASSERT_NE(nullptr, listed);
    Link read;
    ASSERT_FALSE(kernel.link(listed->index, read));
    EXPECT_EQ("lo", read.name);
    EXPECT_EQ(listed->index, read.index);
    EXPECT_EQ("00:00:00:00:00:00", read.macAddress);
    EXPECT_EQ(listed->mtu, read.mtu);
    EXPECT_EQ(0U, kernel.speed("lo"));
    EXPECT_EQ(0U, kernel.speed("a name that is much too long for an interface"));
}

TEST(Kernel, SaysThatThereIsNoSuchInterface) {
    Kernel kernel;
    ASSERT_FALSE(kernel.open());
    Link link;
    for (const unsigned index : {0x7FFFFFFFU, 12345678U}) {
        const Failure failure = kernel.link(index, link);
        EXPECT_EQ(ENODEV, failure.code);
        EXPECT_NE(std::string::npos, failure.reason.find("No such device")) << failure.reason;
        EXPECT_EQ(0U, link.index);
    }
    EXPECT_TRUE(kernel.link(0, link));
    EXPECT_TRUE(kernel.link(0xFFFFFFFFU, link));
    EXPECT_FALSE(kernel.link(1, link)) << "a refusal must not disturb the next request";
    EXPECT_EQ(1U, link.index);
}

TEST(Kernel, ChangesInterfacesAndTellsWhyItDoesNot) {
    Network network;
    NEEDS(network);
    ASSERT_EQ("", network.addVeth("left", "right"));
    Kernel kernel;
    ASSERT_FALSE(kernel.open());
    const unsigned index = network.index("left");
    EXPECT_FALSE(kernel.setMtu(index, 1400));
    EXPECT_FALSE(kernel.setUp(index, true));
    Link link;
    ASSERT_FALSE(kernel.link(index, link));
    EXPECT_EQ(1400U, link.mtu);
    EXPECT_TRUE(link.up);
    EXPECT_EQ(network.macAddress("left"), link.macAddress);
    EXPECT_FALSE(kernel.setUp(index, false));
    ASSERT_FALSE(kernel.link(index, link));
    EXPECT_FALSE(link.up);
    EXPECT_EQ(10000U, kernel.speed("left"));

    const Failure tooLarge = kernel.setMtu(index, 1000000);
    EXPECT_EQ(EINVAL, tooLarge.code);
    EXPECT_NE(std::string::npos, tooLarge.reason.find(" (Invalid argument)")) << tooLarge.reason;
    ASSERT_EQ("", network.remove("left"));
    EXPECT_EQ(ENODEV, kernel.setMtu(index, 1400).code);
    EXPECT_EQ(ENODEV, kernel.setUp(index, true).code);
    EXPECT_EQ(ENODEV, kernel.link(index, link).code);
}

// --- events ---------------------------------------------------------------------------------------------------------

class Monitor : public testing::Test {
protected:
    void SetUp() override {
        NEEDS(network_);
        ASSERT_FALSE(monitor_.open());
    }
    /** The kernel has put an event there when what caused it has returned. */
    std::vector<LinkEvent> read() {
        std::vector<LinkEvent> events;
        EXPECT_EQ(LinkMonitor::Outcome::complete, monitor_.read(events)) << monitor_.problem();
        return events;
    }

    Network network_;
    LinkMonitor monitor_;
};

TEST_F(Monitor, TellsOfWhatComesChangesAndGoes) {
    EXPECT_TRUE(read().empty()); // what was there before is no event
    ASSERT_EQ("", network_.addVeth("left", "right"));
    const unsigned index = network_.index("left");
    pollfd readable{monitor_.fd(), POLLIN, 0};
    EXPECT_EQ(1, ::poll(&readable, 1, 0));
    std::vector<LinkEvent> events = read();
    EXPECT_EQ(0, ::poll(&readable, 1, 0));
    const auto about = [index](const LinkEvent &event) { return event.link.index == index; };
    const auto made = std::find_if(events.begin(), events.end(), about);
    ASSERT_NE(events.end(), made);
    EXPECT_FALSE(made->gone);
    EXPECT_EQ("left", made->link.name);

    ASSERT_EQ("", network_.setMtu("left", 1300));
    events = read();
    ASSERT_FALSE(events.empty());
    EXPECT_FALSE(events.back().gone);
    EXPECT_EQ(1300U, events.back().link.mtu);

    ASSERT_EQ("", network_.remove("left"));
    events = read();
    const auto gone = std::find_if(events.begin(), events.end(),
                                   [&about](const LinkEvent &event) { return event.gone && about(event); });
    ASSERT_NE(events.end(), gone);
    EXPECT_EQ("left", gone->link.name);
}

TEST_F(Monitor, SaysThatEventsWereLost) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    for (unsigned i = 0; i < 3000; ++i) {
        ASSERT_EQ("", network_.setMtu("left", 1000 + i % 2));
    }
    std::vector<LinkEvent> events;
    LinkMonitor::Outcome outcome = LinkMonitor::Outcome::complete;
    for (int i = 0; i < 100 && outcome == LinkMonitor::Outcome::complete; ++i) {
        outcome = monitor_.read(events);
    }
    EXPECT_EQ(LinkMonitor::Outcome::lost, outcome);
    EXPECT_TRUE(events.empty());
    EXPECT_TRUE(read().empty()) << "older than what is found by looking at everything now";
    ASSERT_EQ("", network_.setMtu("left", 1300));
    events = read();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(1300U, events.back().link.mtu);
}

} // namespace
