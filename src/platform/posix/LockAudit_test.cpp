#include "platform/LockAudit_p.h"

#include "platform/Lock.h"
#include "platform/Mutex.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <csignal>

#ifndef NDEBUG

namespace {

using Locked = OSWrap::Lock<OSWrap::Mutex>;

SCENARIO(auditWithoutLock) {
    OSWrap::Mutex one;
    OSWrap::Mutex two;
    {
        Locked first(one);
        Locked second(two);
    }
    LockAudit::assertNoPlainLock("nothing to complain about");
}

SCENARIO(auditWithLock) {
    OSWrap::Mutex one;
    OSWrap::Mutex two;
    Locked first(one);
    { Locked second(two); }
    LockAudit::assertNoPlainLock("this must not be done");
}

SCENARIO(auditWithExemptLock) {
    OSWrap::Mutex exempt{OSWrap::Mutex::RunPermissionAware{}};
    Locked lock(exempt);
    LockAudit::assertNoPlainLock("nothing to complain about");
}

TEST(LockAudit, AbortsWithTheReasonWhenAPlainLockIsHeld) {
    EXPECT_EQ(0, Testing::runScenario("auditWithoutLock").exitStatus);
    EXPECT_EQ(0, Testing::runScenario("auditWithExemptLock").exitStatus);
    const Testing::ProcessResult result = Testing::runScenario("auditWithLock");
    EXPECT_EQ(SIGABRT, result.signal);
    EXPECT_NE(std::string::npos, result.output.find("ReflectORB: this must not be done (lock 0x"));
}

} // namespace

#endif
