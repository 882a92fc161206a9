#include "platform/UnitFigures.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <sys/resource.h>

namespace {

TEST(UnitFigures, TheSizeOfTheActorIsInKib) {
    const long before = oscwGetActorSize();
    EXPECT_GT(before, 500);
    constexpr std::size_t kMore = 32UL * 1024 * 1024;
    const std::unique_ptr<volatile char[]> more(new volatile char[kMore]);
    for (std::size_t i = 0; i < kMore; i += 512) {
        more[i] = 1;
    }
    EXPECT_GT(oscwGetActorSize() - before, 16L * 1024);
    EXPECT_LT(oscwGetActorSize() - before, 1024L * 1024);
}

TEST(UnitFigures, FreeMemoryIsInKibAndLessThanThereIs) {
    std::ifstream file("/proc/meminfo");
    std::string label;
    long total = 0;
    file >> label >> total;
    ASSERT_EQ("MemTotal:", label);
    EXPECT_GT(oscwGetUnitFreeMem(), 1000);
    EXPECT_LT(oscwGetUnitFreeMem(), total);
}

TEST(UnitFigures, AreUnknownWithoutDescriptors) {
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
    const long size = oscwGetActorSize();
    const long free = oscwGetUnitFreeMem();
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(-1, size);
    EXPECT_EQ(-1, free);
    EXPECT_GT(oscwGetActorSize(), 0);
}

} // namespace
