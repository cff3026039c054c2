// qz-test-label: concurrency

#include <kvm/KVM.hpp>

#include <foundation/core/except/Exception.hpp>
#include <iqm/Iqm.hpp>
#include <kvm/Errors.hpp>
#include <support/ErrorIds.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <thread>
#include <utility>

#include <unistd.h>

using kvm::KVM;

namespace {

bool interruptThrown() {
    return testsupport::thrownBy([] { utInterruptState::ThrowIfInterruptPending(); }) ==
           "KORVEX:interrupted";
}

// Sleeps in the interpreter's queue manager, at most 60 s, until it throws
// the interrupt; true when it did. `onAsleep` runs once the predicate has
// first answered false.
bool waitForInterrupt(KVM& kvm, const std::function<void()>& onAsleep) {
    bool first = true;
    try {
        kvm.getIqm()->processUntil(
            {},
            [&] {
                if (std::exchange(first, false)) {
                    onAsleep();
                }
                return false;
            },
            std::chrono::time_point_cast<std::chrono::duration<double>>(
                std::chrono::steady_clock::now() + std::chrono::seconds(60)));
    } catch (const foundation::core::except::Exception<KORVEX::interrupted>&) {
        return true;
    }
    return false;
}

} // namespace

TEST(KVM, CreateMakesTheCallingThreadAnInterpreterThreadUntilDestroyed) {
    EXPECT_EQ(iqm::Iqm::getCurrent(), nullptr);
    auto kvm = KVM::create();
    EXPECT_EQ(kvm::Factory::getCurrentLocalKVM(), kvm);
    EXPECT_EQ(iqm::Iqm::getCurrent(), kvm->getIqm());
    EXPECT_THROW(KVM::create(), std::logic_error);
    std::thread([] {
        EXPECT_EQ(kvm::Factory::getCurrentLocalKVM(), nullptr);
        EXPECT_NO_THROW(KVM::create());
    }).join();
    kvm.reset();
    EXPECT_EQ(kvm::Factory::getCurrentLocalKVM(), nullptr);
    EXPECT_NO_THROW(KVM::create());
}

TEST(KVM, InterruptFromAnotherThreadOrCtrlCWakesTheInterpreterAndIsThrownOnce) {
    EXPECT_FALSE(interruptThrown()); // no interpreter: nothing to throw
    struct sigaction before {};
    sigaction(SIGINT, nullptr, &before);
    {
        auto kvm = KVM::create();
        std::jthread interrupter;
        EXPECT_TRUE(waitForInterrupt(
            *kvm, [&] { interrupter = std::jthread([&] { kvm->requestInterrupt(); }); }));
        EXPECT_FALSE(interruptThrown());

        kvm->handleInterruptSignal();
        std::thread([] {
            EXPECT_THROW(KVM::create()->handleInterruptSignal(), std::logic_error);
        }).join();
        EXPECT_TRUE(waitForInterrupt(*kvm, [] { ASSERT_EQ(kill(getpid(), SIGINT), 0); }));
    }
    struct sigaction after {};
    sigaction(SIGINT, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler); // Ctrl-C handling ends with the interpreter
}
