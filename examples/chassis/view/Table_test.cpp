#include "view/Options.h"
#include "view/Table.h"

#include <gtest/gtest.h>

namespace {

using View::Table;

TEST(Table, ColumnsAreAsWideAsWhatStandsInThem) {
    Table table({{"NAME", Table::Align::left}, {"MTU", Table::Align::right}, {"X", Table::Align::left}});
    table.add({"eth0", "1500", "a"});
    table.add({"a-longer-name", "7"});
    EXPECT_EQ("NAME            MTU  X\n"
              "eth0           1500  a\n"
              "a-longer-name     7\n",
              table.text());
}

TEST(Table, CountsCharactersRatherThanBytes) {
    Table table({{"N", Table::Align::left}, {"M", Table::Align::left}});
    table.add({"\xC3\xA9t\xC3\xA9", "x"});
    table.add({"abcd", "y"});
    EXPECT_EQ("N     M\n"
              "\xC3\xA9t\xC3\xA9   x\n"
              "abcd  y\n",
              table.text());
}

TEST(Number, IsNothingButDigitsUpToALimit) {
    unsigned number = 0;
    EXPECT_TRUE(View::parseNumber("1500", 4294967295U, number));
    EXPECT_EQ(1500U, number);
    EXPECT_TRUE(View::parseNumber("4294967295", 4294967295U, number));
    EXPECT_EQ(4294967295U, number);
    for (const char *text : {"", "-1", "+1", " 1", "1 ", "0x10", "1e3", "4294967296", "99999999999"}) {
        EXPECT_FALSE(View::parseNumber(text, 4294967295U, number)) << text;
    }
    EXPECT_FALSE(View::parseNumber("256", 255, number));
}

} // namespace
