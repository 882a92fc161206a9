#include "view/Picture.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

using View::Event;
using View::ObjectKey;
using View::Picture;
using Kind = View::Event::Kind;

constexpr unsigned kAgent = 0x00050201; // in slot 2
constexpr unsigned kOther = 0x00060301; // in slot 3

PortState up(unsigned mtu) {
    return {"up", "up", mtu};
}

class PictureTest : public testing::Test {
protected:
    static Event about(Kind kind, unsigned broker) {
        Event event;
        event.kind = kind;
        event.broker = broker;
        event.slot = broker >> 8 & 0xFFU;
        return event;
    }
    static Event aboutPort(Kind kind, unsigned broker, unsigned number) {
        Event event = about(kind, broker);
        event.key = {broker, number};
        return event;
    }
    std::string came(unsigned broker, const std::string &actor) {
        Event event = about(Kind::brokerCame, broker);
        event.actor = actor;
        return picture_.apply(event).text;
    }
    std::string gone(unsigned broker) { return picture_.apply(about(Kind::brokerGone, broker)).text; }
    std::string created(unsigned broker, unsigned number, const std::string &name, const PortState &state,
                        Kind kind = Kind::portCreated) {
        Event event = aboutPort(kind, broker, number);
        event.name = name;
        event.state = state;
        event.address = "02:00:00:00:00:01";
        return picture_.apply(event).text;
    }
    std::string deleted(unsigned broker, unsigned number) {
        return picture_.apply(aboutPort(Kind::portDeleted, broker, number)).text;
    }
    std::string changed(unsigned broker, unsigned number, const PortState &state) {
        Event event = aboutPort(Kind::portChanged, broker, number);
        event.state = state;
        return picture_.apply(event).text;
    }

    Picture picture_;
};

TEST_F(PictureTest, TellsOfAPortFromItsCreationToItsDeletion) {
    EXPECT_EQ("slot 2  port eth1 created: up, mtu 1500, 02:00:00:00:00:01", created(kAgent, 7, "eth1", up(1500)));
    EXPECT_EQ(1U, picture_.ports().size());
    EXPECT_EQ("slot 2  port eth1 changed: mtu 1500 -> 1400", changed(kAgent, 7, up(1400)));
    EXPECT_EQ("slot 2  port eth1 changed: admin up -> down, oper up -> down",
              changed(kAgent, 7, {"down", "down", 1400}));
    EXPECT_EQ("slot 2  port eth1 deleted", deleted(kAgent, 7));
    EXPECT_TRUE(picture_.ports().empty());
}

TEST_F(PictureTest, SaysWhichPortsWereThereBefore) {
    EXPECT_EQ("slot 2  port lo found: up/unknown, mtu 65536, 02:00:00:00:00:01",
              created(kAgent, 1, "lo", {"up", "unknown", 65536}, Kind::portFound));
}

TEST_F(PictureTest, TellsEachThingOnce) {
    created(kAgent, 7, "eth1", up(1500), Kind::portFound);
    EXPECT_EQ("", created(kAgent, 7, "eth1", up(1500)));
    EXPECT_EQ("", changed(kAgent, 7, up(1500)));
    deleted(kAgent, 7);
    EXPECT_EQ("", deleted(kAgent, 7));
    came(kAgent, "port_agent");
    EXPECT_EQ("", came(kAgent, "port_agent"));
    gone(kAgent);
    EXPECT_EQ("", gone(kAgent));
}

TEST_F(PictureTest, KnowsNothingOfPortsItHasNotHeardOf) {
    EXPECT_EQ("", deleted(kAgent, 7));
    EXPECT_EQ("", changed(kAgent, 7, up(1500)));
    EXPECT_TRUE(picture_.ports().empty());
}

TEST_F(PictureTest, APortWithoutInterfaceIsKeptUntilItsDeletion) {
    EXPECT_EQ("slot 2  port eth1 created: gone before it could be asked", created(kAgent, 7, "eth1", PortState()));
    EXPECT_EQ("slot 2  port eth1 deleted", deleted(kAgent, 7));
}

TEST_F(PictureTest, APortWithoutDeletionToComeIsPassedOver) {
    Event event = aboutPort(Kind::portFound, kAgent, 7);
    event.name = "eth1";
    event.lasting = false;
    EXPECT_EQ("", picture_.apply(event).text);
    EXPECT_TRUE(picture_.ports().empty());
}

TEST_F(PictureTest, PortsGoWithTheirActorAndNoOthers) {
    came(kAgent, "port_agent");
    created(kAgent, 2, "lo", up(65536));
    created(kAgent, 1, "eth1", up(1500));
    created(kOther, 1, "eth0", up(1500));
    EXPECT_EQ("slot 2  actor port_agent (broker 0x00050201) is gone, and with it 2 ports: eth1, lo", gone(kAgent));
    ASSERT_EQ(1U, picture_.ports().size());
    EXPECT_EQ((ObjectKey{kOther, 1}), picture_.ports().begin()->first);
    EXPECT_EQ("slot 2  port lo created: up, mtu 65536, 02:00:00:00:00:01", created(0x00090201, 2, "lo", up(65536)))
        << "of the actor that came in its place";
}

TEST_F(PictureTest, ManyLostPortsAreCountedInOneLine) {
    for (unsigned i = 1; i <= 8; ++i) {
        created(kAgent, i, "p" + std::to_string(i), up(1500));
    }
    EXPECT_EQ("slot 2  actor (broker 0x00050201) is gone, and with it 8 ports: p1, p2, p3, p4, p5, p6, ...",
              gone(kAgent));
}

TEST_F(PictureTest, NewsSayWhatTheyAreAbout) {
    Event event = aboutPort(Kind::portCreated, kAgent, 7);
    event.name = "eth1";
    event.state = up(1500);
    const Picture::News news = picture_.apply(event);
    EXPECT_EQ(2U, news.slot);
    EXPECT_EQ("eth1", news.port);
    EXPECT_EQ("eth1", picture_.apply(aboutPort(Kind::portDeleted, kAgent, 7)).port);
    EXPECT_EQ("", picture_.apply(about(Kind::brokerCame, kAgent)).port);
}

TEST_F(PictureTest, TheTreeIsATableBySlotAndName) {
    came(kAgent, "port_agent");
    created(kOther, 1, "b", up(1500));
    created(kAgent, 2, "lo", {"up", "unknown", 65536});
    created(kAgent, 1, "c", up(1400));
    const std::string since = View::timeText({});
    EXPECT_EQ("SLOT  PORT  STATE         MTU  ADDRESS            SINCE         ACTOR\n"
              "   2  c     up           1400  02:00:00:00:00:01  " +
                  since +
                  "  port_agent (broker 0x00050201)\n"
                  "   2  lo    up/unknown  65536  02:00:00:00:00:01  " +
                  since +
                  "  port_agent (broker 0x00050201)\n"
                  "   3  b     up           1500  02:00:00:00:00:01  " +
                  since +
                  "  (broker 0x00060301)\n"
                  "3 ports in 2 slots\n",
              picture_.tree());
}

TEST_F(PictureTest, NamesCannotForgeLines) {
    EXPECT_EQ("slot 2  port a\\x0ab created: up, mtu 1, 02:00:00:00:00:01", created(kAgent, 1, "a\nb", up(1)));
    EXPECT_EQ("slot 2  port a\\x0ab deleted", deleted(kAgent, 1));
}

TEST(TimeText, HasMillisecondsWithAllTheirDigits) {
    std::tm parts{};
    parts.tm_year = 120;
    parts.tm_mday = 2;
    parts.tm_hour = 3;
    parts.tm_min = 4;
    parts.tm_sec = 5;
    parts.tm_isdst = -1;
    const auto time = std::chrono::system_clock::from_time_t(std::mktime(&parts));
    EXPECT_EQ("03:04:05.007", View::timeText(time + std::chrono::microseconds(7900)));
}

} // namespace
