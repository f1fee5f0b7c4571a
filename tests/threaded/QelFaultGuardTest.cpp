#include "threaded/QelFaultGuard.h"

#include "support/RealFaults.h"

#include <gtest/gtest.h>

#include <csignal>
#include <stdexcept>
#include <unistd.h>

namespace {

TEST(QelFaultGuardTest, FaultsBecomeRecordsWithTheirCodeAddressAndStack)
{
    QelFaultRecord fault;
    EXPECT_FALSE(QelRunGuarded("Segv", [] { WriteToForbiddenPage(); }, fault));
    EXPECT_EQ(fault.Code, 0xC0000005u);
    EXPECT_EQ(fault.Signal, SIGSEGV);
    EXPECT_TRUE(IsInside(fault.Address, &WriteToForbiddenPage)) << fault.Address;
    EXPECT_GT(fault.FrameCount, 0);
    EXPECT_EQ(QelLastExceptionCode(), 0xC0000005u);
}

// An inner guard catches its own fault, and leaves the outer one armed whether it
// returned, faulted or was left by an exception; a stale inner frame would send the
// outer fault into a dead stack frame.
TEST(QelFaultGuardTest, NestedGuardsEachCatchTheirOwnFaults)
{
    QelFaultRecord outer;
    QelFaultRecord inner;
    bool innerSurvived = true;
    bool threw = false;
    bool reachedEnd = false;
    const bool outerSurvived = QelRunGuarded(
        "Outer",
        [&] {
            innerSurvived = QelRunGuarded("Inner", [] { WriteToForbiddenPage(); }, inner);
            try {
                QelFaultRecord unused;
                (void)QelRunGuarded("Throwing", [] { throw std::runtime_error("thrown"); }, unused);
            } catch (const std::runtime_error&) {
                threw = true;
            }
            DivideByZero();
            reachedEnd = true;
        },
        outer);
    EXPECT_FALSE(innerSurvived);
    EXPECT_EQ(inner.Code, 0xC0000005u);
    EXPECT_TRUE(threw);
    EXPECT_FALSE(outerSurvived);
    EXPECT_FALSE(reachedEnd);
    EXPECT_EQ(outer.Code, 0xC0000094u);
    EXPECT_EQ(outer.Signal, SIGFPE);
    EXPECT_TRUE(IsInside(outer.Address, &DivideByZero)) << outer.Address;
}

// Death tests start a fresh copy of the binary, so the guard's handlers are
// installed there for the first time, over the disposition the test sets.
TEST(QelFaultGuardDeathTest, AFaultOutsideAnyGuardGoesToTheDispositionThatWasThereBefore)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::signal(SIGSEGV, SIG_DFL);
            QelFaultRecord fault;
            (void)QelRunGuarded("Installs", [] {}, fault);
            WriteToForbiddenPage();
        },
        ::testing::KilledBySignal(SIGSEGV), "");
    EXPECT_EXIT(
        {
            std::signal(SIGFPE, [](int) { _exit(42); });
            QelFaultRecord fault;
            (void)QelRunGuarded("Installs", [] { DivideByZero(); }, fault);
            DivideByZero();
        },
        ::testing::ExitedWithCode(42), "");
}

}  // namespace
