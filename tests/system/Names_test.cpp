#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Testing::Actor;

/** Names of objects as other actors are told of them. "~" stands for a zero byte, "_" for a space. */
class Names : public testing::Test {
protected:
    Names() {
        for (Actor *actor : {&one, &two}) {
            actor->ask("orb 1", "orb ");
        }
        for (Actor *actor : {&one, &two}) {
            EXPECT_TRUE(actor->askUntil("events members", "events ", "2"));
        }
        ask(one, "make root root");
    }
    static std::string ask(Actor &actor, const std::string &command) { return actor.ask("name " + command, "name "); }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=6"}};
    Actor one{unit_, 1};
    Actor two{unit_, 2};
};

TEST_F(Names, OfAnyLengthArriveWhole) {
    const std::string fifteen = "fifteen_letters";
    const std::string sixteen = "sixteen_letters!";
    ASSERT_EQ(15U, fifteen.size());
    ASSERT_EQ(16U, sixteen.size());
    for (const std::string &name : {std::string("a"), fifteen, sixteen, std::string(5000, 'x')}) {
        for (Actor *maker : {&one, &two}) { // with the parent here and there
            EXPECT_EQ("ok", ask(*maker, "make child " + name + " root"));
            for (Actor *actor : {&one, &two}) {
                EXPECT_EQ(name, ask(*actor, "rel child"));
                EXPECT_EQ("/root/" + name, ask(*actor, "abs child"));
                EXPECT_EQ("child", ask(*actor, "child root " + name));
                EXPECT_EQ("-", ask(*actor, "child root " + name + "x"));
                EXPECT_EQ("-", ask(*actor, "child root " + name.substr(1) + "~"));
            }
            EXPECT_EQ("ok", ask(*maker, "drop child"));
            EXPECT_EQ("", ask(one, "children root"));
        }
    }
}

TEST_F(Names, EndAtTheFirstZeroByte) {
    struct Case {
        const char *given;
        const char *name;
    };
    for (const Case &each :
         {Case{"ab~cd", "ab"}, Case{"fifteen_letters~", "fifteen_letters"},
          Case{"sixteen_letters!~more", "sixteen_letters!"}, Case{"~long_enough_for_the_heap", ""}}) {
        for (Actor *maker : {&one, &two}) {
            EXPECT_EQ("ok", ask(*maker, std::string("make child ") + each.given + " root"));
            for (Actor *actor : {&one, &two}) {
                EXPECT_EQ(each.name, ask(*actor, "rel child"));
                EXPECT_EQ(std::string("/root/") + each.name, ask(*actor, "abs child"));
                EXPECT_EQ("child", ask(*actor, "children root"));
                EXPECT_EQ("child", ask(*actor, std::string("child root ") + each.name));
                EXPECT_EQ("-", ask(*actor, std::string("child root ") + each.given));
            }
            EXPECT_EQ("ok", ask(*maker, "drop child"));
            EXPECT_EQ("", ask(two, "children root")) << each.given;
        }
    }
}

TEST_F(Names, UnderWhichChildrenAreKeptAreWhole) {
    ask(two, "make guest own");
    for (Actor *actor : {&one, &two}) {
        EXPECT_EQ("ok", ask(*actor, "adopt root ab~cd guest"));
        for (Actor *asker : {&one, &two}) {
            EXPECT_EQ("guest", ask(*asker, "child root ab~cd"));
            EXPECT_EQ("-", ask(*asker, "child root ab"));
            EXPECT_EQ("own", ask(*asker, "rel guest"));
        }
        EXPECT_EQ("ok", ask(*actor, "abandon root ab"));
        EXPECT_EQ("guest", ask(*actor, "children root"));
        EXPECT_EQ("ok", ask(*actor, "abandon root ab~cd"));
        EXPECT_EQ("", ask(*actor, "children root"));
    }
}

} // namespace
