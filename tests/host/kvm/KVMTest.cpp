// qz-test-label: concurrency

#include <kvm/KVM.hpp>

#include <foundation/core/except/Exception.hpp>
#include <interpreter/Kdispatcher.hpp>
#include <iqm/Iqm.hpp>
#include <kvm/Errors.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

#include <unistd.h>

using kvm::Factory;
using kvm::KVM;

namespace {

using Interrupted = foundation::core::except::Exception<KORVEX::interrupted>;

bool interruptThrown() {
    try {
        utInterruptState::ThrowIfInterruptPending();
    } catch (const Interrupted& e) {
        EXPECT_EQ(e.get_message(), u"Operation terminated by user.");
        return true;
    }
    return false;
}

// Sleeps in the interpreter's queue manager, at most 60 s, until the
// interrupt is thrown; true when it was. `onAsleep` runs once the predicate
// has answered false the first time.
bool waitForInterrupt(KVM& kvm, const std::function<void()>& onAsleep) {
    bool first = true, thrown = false;
    kvm.getIqm()->processUntil(
        {},
        [&] {
            if (std::exchange(first, false)) {
                onAsleep();
                return false;
            }
            return thrown = interruptThrown();
        },
        std::chrono::time_point_cast<std::chrono::duration<double>>(
            std::chrono::steady_clock::now() + std::chrono::seconds(60)));
    return thrown;
}

} // namespace

TEST(KVM, CreateMakesTheCallingThreadAnInterpreterThread) {
    EXPECT_EQ(Factory::getCurrentLocalKVM(), nullptr);
    EXPECT_EQ(iqm::Iqm::getCurrent(), nullptr);
    auto first = KVM::create();
    EXPECT_EQ(Factory::getCurrentLocalKVM(), first);
    EXPECT_EQ(iqm::Iqm::getCurrent(), first->getIqm());
    EXPECT_EQ(&Kdispatcher::getDispatcher(), &first->getDispatcher());
    EXPECT_THROW(KVM::create(), std::logic_error);

    std::shared_ptr<KVM> seenElsewhere = first;
    kvutil::contextmgr::KcrID otherID = 0;
    std::thread([&] {
        seenElsewhere = Factory::getCurrentLocalKVM();
        otherID = KVM::create()->getID();
    }).join();
    EXPECT_EQ(seenElsewhere, nullptr);
    EXPECT_GT(first->getID(), 0);
    EXPECT_GT(otherID, first->getID());

    first.reset();
    EXPECT_EQ(Factory::getCurrentLocalKVM(), nullptr);
    EXPECT_GT(KVM::create()->getID(), otherID);
}

TEST(KVM, InterruptFromAnotherThreadWakesTheInterpreterAndIsThrownOnce) {
    EXPECT_FALSE(interruptThrown()); // no interpreter: nothing to throw
    auto kvm = KVM::create();
    std::promise<void> asleep;
    std::thread interrupter([&] {
        asleep.get_future().wait();
        kvm->requestInterrupt();
    });
    const bool thrown = waitForInterrupt(*kvm, [&] { asleep.set_value(); });
    interrupter.join();
    EXPECT_TRUE(thrown);
    EXPECT_FALSE(interruptThrown());
}

TEST(KVM, CtrlCRequestsAnInterruptUntilTheInterpreterIsGone) {
    struct sigaction before {};
    sigaction(SIGINT, nullptr, &before);
    {
        auto kvm = KVM::create();
        kvm->handleInterruptSignal();
        kvm->handleInterruptSignal(); // a second call changes nothing
        std::exception_ptr refused;
        std::thread([&] {
            try {
                KVM::create()->handleInterruptSignal();
            } catch (...) {
                refused = std::current_exception();
            }
        }).join();
        EXPECT_THROW(std::rethrow_exception(refused), std::logic_error);

        EXPECT_TRUE(waitForInterrupt(*kvm, [] { ASSERT_EQ(kill(getpid(), SIGINT), 0); }));
    }
    struct sigaction after {};
    sigaction(SIGINT, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
}

TEST(KVM, PrintWritesToTheInnermostDiaryOrStandardOutput) {
    std::u16string outer, inner;
    {
        kvm::DiarySink outerSink(outer);
        kvm::print(u"one ");
        {
            kvm::DiarySink innerSink(inner);
            kvm::print(u"two");
        }
        kvm::print(u"three");
    }
    EXPECT_EQ(outer, u"one three");
    EXPECT_EQ(inner, u"two");
    testing::internal::CaptureStdout();
    kvm::print(u"caf\u00e9\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "caf\xc3\xa9\n");
}
