#include "platform/NetNumVar.h"

#include <gtest/gtest.h>

#include <cstring>

namespace OSWrap {
namespace {

static_assert(sizeof(NetNumVar<std::uint32_t>) == 4 && alignof(NetNumVar<std::uint32_t>) == 1, "packed");
static_assert(sizeof(NetNumVar<std::int16_t>) == 2 && alignof(NetNumVar<std::int16_t>) == 1, "packed");

TEST(NetNumVar, HoldsBigEndianBytesAtAnyAddress) {
    struct Odd {
        char before;
        NetNumVar<std::uint32_t> number;
        NetNumVar<std::uint16_t> small;
        NetNumVar<std::int32_t> negative;
    } odd{};
    EXPECT_EQ(0U, odd.number.get());
    odd.number.set(0x01020304);
    odd.small.set(0xABCD);
    odd.negative.set(-2);
    EXPECT_EQ(0x01020304U, odd.number.get());
    EXPECT_EQ(0xABCDU, odd.small.get());
    EXPECT_EQ(-2, odd.negative.get());
    const unsigned char expected[] = {1, 2, 3, 4, 0xAB, 0xCD, 0xFF, 0xFF, 0xFF, 0xFE};
    EXPECT_EQ(0, std::memcmp(reinterpret_cast<const char *>(&odd) + 1, expected, sizeof expected));
}

TEST(NetNumVar, KeepsTheLimitsOfItsType) {
    NetNumVar<std::int16_t> small;
    for (int value : {-32768, -1, 0, 255, 256, 32767}) {
        small.set(static_cast<std::int16_t>(value));
        EXPECT_EQ(value, small.get());
    }
    NetNumVar<std::uint32_t> large;
    for (std::uint32_t value : {0U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        large.set(value);
        EXPECT_EQ(value, large.get());
    }
}

} // namespace
} // namespace OSWrap
