#include "threads/ReleaseHook_p.h"

#include "support/Concurrency.h"
#include "threads/DebugPermission_p.h"

#include <gtest/gtest.h>

namespace {

using Permission = DebugPermission<Debugging_t<1>>;

/** Counts its calls, and those in which the permission was free. */
struct Seen {
    explicit Seen(const Permission &of) : permission(of) {}
    static void call(void *self) {
        auto &seen = *static_cast<Seen *>(self);
        ++seen.calls;
        seen.free += seen.permission.owner() == 0 ? 1 : 0;
    }

    const Permission &permission;
    unsigned calls = 0;
    unsigned free = 0;
};

TEST(ReleaseHook, RunsOnceAndAfterThePermissionIsGivenUp) {
    Permission permission;
    Seen seen(permission);
    permission.get();
    ReleaseHook::set(&Seen::call, &seen);
    EXPECT_EQ(0U, seen.calls);
    permission.release();
    EXPECT_EQ(1U, seen.calls);
    EXPECT_EQ(1U, seen.free);
    EXPECT_FALSE(ReleaseHook::clear());
    permission.get();
    permission.release();
    EXPECT_EQ(1U, seen.calls);
}

TEST(ReleaseHook, IsNotRunOnceItIsCleared) {
    Permission permission;
    Seen seen(permission);
    EXPECT_FALSE(ReleaseHook::clear());
    ReleaseHook::set(&Seen::call, &seen);
    EXPECT_TRUE(ReleaseHook::clear());
    EXPECT_FALSE(ReleaseHook::clear());
    permission.get();
    permission.release();
    EXPECT_EQ(0U, seen.calls);
}

TEST(ReleaseHook, IsThatOfTheThreadWhichGivesThePermissionUp) {
    Permission permission;
    Seen seen(permission);
    ReleaseHook::set(&Seen::call, &seen);
    {
        Testing::TestThread other([&] {
            permission.get();
            permission.release();
        });
    }
    EXPECT_EQ(0U, seen.calls);
    permission.release(); // not its owner: nothing is given up
    EXPECT_EQ(0U, seen.calls);
    permission.get();
    permission.release();
    EXPECT_EQ(1U, seen.calls);
}

/** What it does may take the permission again, and set another. */
TEST(ReleaseHook, MayTakeThePermissionItself) {
    struct Again {
        static void call(void *self) {
            auto &again = *static_cast<Again *>(self);
            again.permission.get();
            if (++again.calls < 3) {
                ReleaseHook::set(&Again::call, self);
            }
            again.permission.release();
        }
        Permission permission;
        unsigned calls = 0;
    } again;
    ReleaseHook::set(&Again::call, &again);
    again.permission.get();
    again.permission.release();
    EXPECT_EQ(3U, again.calls);
    EXPECT_EQ(0U, again.permission.owner());
}

} // namespace
