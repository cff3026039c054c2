// qz-test-label: concurrency

#include <cmddistributor/CmdDistributor.hpp>
#include <cmddistributor/RuntimeException.hpp>
#include <foundation/usm/Detail.hpp>
#include <iqm/Iqm.hpp>
#include <kvm/Future.hpp>
#include <kvm/KVM.hpp>
#include <kvm/TaskReference.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <future>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

using namespace cmddistributor;
using kvm::detail::createID;
using testing::ThrowsMessage;

namespace {

using Text = std::basic_stringbuf<char16_t>;

template <class T>
struct Submitted {
    IDType id;
    kvm::Future<T> future;
};

// The RuntimeException that `future` has delivered; a test failure when it has not.
template <class T>
RuntimeException failureOf(kvm::Future<T>& future) {
    try {
        if (future.is_ready()) {
            future.get();
        }
    } catch (const RuntimeException& e) {
        return e;
    }
    ADD_FAILURE() << "the request has not completed with a RuntimeException";
    return RuntimeException(Completed, "");
}

class CmdDistributorTest : public testing::Test {
protected:
    // Submits `work` to the "parallel" queue under `id`, held unless `ready`.
    template <class T>
    Submitted<T> submit(boost::function<T()> work, bool ready, IDType id = createID(),
                        Sink output = nullptr, Sink error = nullptr) {
        auto delegate = boost::make_shared<PromiseDelegateT<T>>();
        RunOptions options(WhenToDequeue::AtDequeuePoint, u"parallel");
        options.setReadyToExecute(ready);
        distributor->submit(boost::make_shared<FcnCmdRequest<T>>(-2, output, error, work, "test"),
                            delegate, options, id);
        return {id, delegate->getFuture()};
    }
    bool dequeue() { return kvm->getIqm()->processOnce({u"parallel"}, std::nullopt); }

    std::shared_ptr<kvm::KVM> kvm = kvm::KVM::create();
    std::shared_ptr<CmdDistributor> distributor = CmdDistributor::instance(kvm->getID());
};

// Held and queued requests cancelled are checked through ContinuationTaskTest.cpp.
TEST_F(CmdDistributorTest, CancelDoesNotStopRunningOrDoneRequestsNorDeadlockFromInside) {
    // From inside its work and from another thread while it runs.
    const IDType self = createID();
    CancelStatus fromInside = CancelStatus::Cancelled;
    auto running = submit<CancelStatus>(
        [&] {
            fromInside = distributor->cancel(self);
            return std::async(std::launch::async, [&] { return distributor->cancel(self); }).get();
        },
        true, self);
    EXPECT_TRUE(dequeue());
    EXPECT_EQ(fromInside, CancelStatus::Running);
    EXPECT_EQ(running.future.get(), CancelStatus::Running);
    EXPECT_EQ(distributor->cancel(self), CancelStatus::Done);
}

TEST_F(CmdDistributorTest, FailingWorkCompletesWithStatusOneAndPrintedTextGoesToItsSinks) {
    auto output = boost::make_shared<Text>(), error = boost::make_shared<Text>();
    auto thrown = submit<int>(
        []() -> int {
            kvm::print(u"partial");
            throw std::out_of_range("x");
        },
        true, createID(), output, error);
    submit<void>([] { kvm::print(u"to stdout"); }, true);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(dequeue());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "to stdout");
    EXPECT_EQ(output->str(), u"partial");
    EXPECT_EQ(error->str(), u"x\n");

    const RuntimeException failure = failureOf(thrown.future);
    EXPECT_EQ(failure.getExecutionStatus(), Failed);
    EXPECT_THROW(std::rethrow_exception(failure.getWorkError()), std::out_of_range);
}

TEST_F(CmdDistributorTest, DestroyingTheInterpreterCancelsWhatHasNotRunAndRefusesLaterRequests) {
    auto token = std::make_shared<bool>(false);
    const std::weak_ptr<bool> watch = token;
    auto held = submit<bool>([token] { return *token = true; }, false);
    auto queued = submit<bool>([token] { return *token = true; }, true);
    token.reset();
    const auto id = kvm->getID();
    kvm.reset();
    EXPECT_EQ(failureOf(held.future).getExecutionStatus(), Cancelled);
    EXPECT_EQ(failureOf(queued.future).getExecutionStatus(), Cancelled);
    EXPECT_EQ(CmdDistributor::instance(id), nullptr);

    auto late = submit<int>([] { return 1; }, true);
    EXPECT_THROW(late.future.get(), AlreadyCancelledException);
    distributor.reset();
    EXPECT_TRUE(watch.expired()); // the requests were let go without running
}

TEST_F(CmdDistributorTest, RefusesNullRequestsAndIDsThatCannotNameAHeldRequest) {
    const auto delegate = boost::make_shared<PromiseDelegateT<int>>();
    EXPECT_THAT([&] { distributor->submit(nullptr, delegate, RunOptions({}, {}, {}, {}), 1); },
                ThrowsMessage<std::invalid_argument>("request cannot be null."));
    auto taken = submit<int>([] { return 1; }, false);
    for (const IDType id : {IDType{0}, taken.id}) {
        EXPECT_THAT([&] { submit<int>([] { return 2; }, false, id); },
                    ThrowsMessage<std::invalid_argument>("request ID is missing or in use."));
    }
    distributor->setReadyToExecute(taken.id);
    ASSERT_TRUE(dequeue()); // else the result would never come
    EXPECT_EQ(taken.future.get(), 1);
}

TEST_F(CmdDistributorTest, OnlyInterpretersMadeWithADistributorHaveOne) {
    using Kvm = foundation::usm::Detail<foundation::usm::scope::Kvm>;
    using kvm::Factory, kvm::NoActiveUSMBehavior, kvm::detail::getCmdDistributorAndSinks;
    const RunOptions options(WhenToDequeue::AtDequeuePoint, u"parallel");
    EXPECT_EQ(std::get<0>(getCmdDistributorAndSinks(kvm, options)), distributor);
    EXPECT_EQ(std::get<0>(getCmdDistributorAndSinks(kvutil::contextmgr::UndefinedKcrID, options)),
              nullptr);
    EXPECT_TRUE(Kvm::isRequiredContextActive());
    std::thread([&] {
        EXPECT_FALSE(Kvm::isRequiredContextActive());
        EXPECT_THROW(Factory::getCurrentLocalKVM(NoActiveUSMBehavior::Throw), std::logic_error);
        EXPECT_EQ(Factory::getCurrentLocalKVM(NoActiveUSMBehavior::ReturnNull), nullptr);
    }).join();
}

} // namespace
