// Uses the installed headers and libraries across their boundary: an executor
// of its own (a TaskBase subclass) whose task is wrapped in a FevalFuture,
// waited on and fetched, and one evaluation on an installed LocalPool.
#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/TaskBase.hpp>

#include <kvm/KVM.hpp>
#include <localpool/LocalPool.hpp>
#include <matrix/dvArray.hpp>

#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace {

namespace pf = parallel::language::future;
using pf::DvArrayVector;

boost::intrusive_ptr<dvArray> scalar(double value) {
    return {matrix::to_korvex(dvCreateDoubleScalar(value)), false};
}

double valueOf(const boost::intrusive_ptr<dvArray>& array) {
    return dvGetDoubles(array.get())[0];
}

// Adds two numbers when run, reporting every step to TaskBase.
class AddTask final : public pf::TaskBase {
public:
    AddTask(double a, double b) : a_(a), b_(b) {
        doNotifyPending();
        doNotifyQueued();
    }

    // Executor thread, once.
    void run() {
        doNotifyRunning();
        {
            std::lock_guard lock(mutex_);
            result_ = pf::OutputsOrError(DvArrayVector{scalar(a_ + b_)});
            diary_ = u"added\n";
        }
        doNotifyFinished();
    }

private:
    void doCancel() override {}
    pf::OutputsOrError doGetOutputsOrError() override {
        std::lock_guard lock(mutex_);
        return result_;
    }
    std::u16string doGetDiary() override {
        std::lock_guard lock(mutex_);
        return diary_;
    }

    const double a_, b_;
    std::mutex mutex_;
    pf::OutputsOrError result_{std::optional<DvArrayVector>()};
    std::u16string diary_;
};

// A task of this program's own executor, seen through its future, and one
// evaluation on the installed local pool; false when any step went wrong.
bool ownTaskAndPoolEvaluation() {
    const auto task = std::make_shared<AddTask>(2, 3);
    const auto future =
        std::make_shared<pf::FevalFuture>(nullptr, nullptr, 1, DvArrayVector{}, task);
    const bool queued = future->getState() == pf::FutureState::Queued;
    std::thread executor([task] { task->run(); });
    const bool finished =
        pf::FutureBase::wait({future}, pf::FutureState::Finished, pf::Seconds(60));
    executor.join();
    const DvArrayVector added = pf::FutureBase::fetchOutputs({future}, true, 1);

    localpool::LocalPool pool(2);
    const boost::intrusive_ptr<dvArray> square(
        matrix::to_korvex(matrix::createFunctionHandle(
            "square",
            [](std::size_t, const DvArrayVector& in) {
                return DvArrayVector{scalar(valueOf(in.at(0)) * valueOf(in.at(0)))};
            })),
        false);
    const DvArrayVector squared =
        pf::FutureBase::fetchOutputs({pool.submit(square, 1, {scalar(7)})}, true, 1);
    return queued && finished && valueOf(added.at(0)) == 5 && future->getRead() &&
           future->getDiary().getAsSingle() == u"added\n" && valueOf(squared.at(0)) == 49;
}

} // namespace

int main() {
    const auto interpreter = kvm::KVM::create(); // waiting needs an interpreter thread
    if (!ownTaskAndPoolEvaluation()) {
        std::cerr << "consumer: the installed package did not work as expected\n";
        return 1;
    }
    return 0;
}
