#include "threaded/QelFaultGuard.h"

#include "support/RealFaults.h"

#include <gtest/gtest.h>

#include <csignal>
#include <stdexcept>
#include <tuple>
#include <unistd.h>

namespace {

// A fault becomes a record of its code, signal, address and stack, and a crash
// report. An inner guard catches its own fault, and leaves the outer one armed
// whether it returned, faulted or was left by an exception; a stale inner frame
// would send the outer fault into a dead stack frame.
TEST(QelFaultGuardTest, NestedGuardsEachCatchTheirOwnFaults)
{
    QelFaultRecord outer, inner, unused;
    bool innerSurvived = true, threw = false, reachedEnd = false;
    const bool outerSurvived = QelRunGuarded(
        "Outer",
        [&] {
            innerSurvived = QelRunGuarded("Inner", [] { WriteToForbiddenPage(); }, inner);
            try {
                (void)QelRunGuarded("Throwing", [] { throw std::runtime_error("thrown"); }, unused);
            } catch (const std::runtime_error&) {
                threw = true;
            }
            DivideByZero();
            reachedEnd = true;
        },
        outer);
    EXPECT_EQ(std::tuple(innerSurvived, threw, outerSurvived, reachedEnd), std::tuple(false, true, false, false));
    EXPECT_EQ(std::pair(inner.Code, inner.Signal), std::pair(0xC0000005u, SIGSEGV));
    EXPECT_TRUE(IsInside(inner.Address, &WriteToForbiddenPage)) << inner.Address;
    EXPECT_GT(inner.FrameCount, 0);
    EXPECT_EQ(std::pair(outer.Code, outer.Signal), std::pair(0xC0000094u, SIGFPE));
    EXPECT_TRUE(IsInside(outer.Address, &DivideByZero)) << outer.Address;
    EXPECT_EQ(QelLastExceptionCode(), 0xC0000094u);
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
