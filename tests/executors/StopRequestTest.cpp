#include <executor/StopRequest.hpp>

#include <localpool/LocalPool.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace executor {
namespace {

TEST(StopRequest, ReadsTheFlagOfTheInnermostScopeOnItsOwnThreadOnly) {
    EXPECT_FALSE(stopRequested());
    std::atomic<bool> outer{true};
    std::atomic<bool> inner{false};
    {
        const StopFlagScope outerScope(outer);
        EXPECT_TRUE(stopRequested());
        {
            const StopFlagScope innerScope(inner);
            EXPECT_FALSE(stopRequested());
            inner = true;
            EXPECT_TRUE(stopRequested());
            bool elsewhere = true;
            std::thread([&] { elsewhere = stopRequested(); }).join();
            EXPECT_FALSE(elsewhere);
        }
        outer = false;
        EXPECT_FALSE(stopRequested()) << "the outer flag again";
    }
    EXPECT_FALSE(stopRequested());
}

TEST(StopRequest, IsTheSameRequestUnderAPoolsName) {
    std::atomic<bool> stop{true};
    const StopFlagScope scope(stop);
    EXPECT_TRUE(localpool::stopRequested());
}

} // namespace
} // namespace executor
