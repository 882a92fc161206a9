#include "view/Path.h"

#include <gtest/gtest.h>

namespace {

using View::Path;

Path parsed(const std::string &text) {
    Path path;
    EXPECT_TRUE(View::parsePath(text, path)) << text;
    return path;
}

TEST(Path, MayBeginAtTheRootOrBelowIt) {
    EXPECT_EQ((Path{"slot2", "eth0"}), parsed("/chassis/slot2/eth0"));
    EXPECT_EQ((Path{"slot2", "eth0"}), parsed("slot2/eth0"));
    EXPECT_EQ((Path{"slot2", "eth0"}), parsed("chassis/slot2/eth0"));
    EXPECT_EQ((Path{"slot2"}), parsed("/chassis/slot2/"));
    EXPECT_EQ(Path(), parsed("/chassis"));
    EXPECT_EQ(Path(), parsed("/chassis/"));
    EXPECT_EQ(Path(), parsed("/"));
    EXPECT_EQ((Path{"slot2", "eth0", "x"}), parsed("slot2/eth0/x"));
}

TEST(Path, HasNoEmptyNames) {
    Path path;
    EXPECT_FALSE(View::parsePath("slot2//eth0", path));
    EXPECT_FALSE(View::parsePath("//slot2", path));
    EXPECT_FALSE(View::parsePath("slot2//", path));
    EXPECT_FALSE(View::parsePath("", path));
}

TEST(Path, IsWrittenFromTheRoot) {
    EXPECT_EQ("/chassis", View::pathText({}));
    EXPECT_EQ("/chassis/slot2/a\\x1bb", View::pathText({"slot2", "a\x1b"
                                                                 "b"}));
}

TEST(Counted, TellsOneFromMany) {
    EXPECT_EQ("0 ports", View::counted(0, "port"));
    EXPECT_EQ("1 port", View::counted(1, "port"));
    EXPECT_EQ("2 ports", View::counted(2, "port"));
}

TEST(Nearest, PutsTheMostSimilarNamesFirst) {
    EXPECT_EQ((std::vector<std::string>{"eth0", "eth10"}), View::nearest("ethO", {"lo", "eth10", "eth0"}, 2));
    EXPECT_EQ((std::vector<std::string>{"lo", "eth0"}), View::nearest("l0", {"eth0", "lo"}, 5));
    EXPECT_TRUE(View::nearest("x", {}, 3).empty());
}

} // namespace
