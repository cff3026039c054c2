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

// Adds two numbers; its executor reports every step to TaskBase. The sum and
// the diary are set before the task is shared.
class AddTask final : public pf::TaskBase {
public:
    AddTask(double a, double b) : result_(DvArrayVector{scalar(a + b)}) {
        doNotifyPending();
        doNotifyQueued();
    }

    // Executor thread, once.
    void run() {
        doNotifyRunning();
        doNotifyFinished();
    }

private:
    void doCancel() override {}
    pf::OutputsOrError doGetOutputsOrError() override { return result_; }
    std::u16string doGetDiary() override { return u"added\n"; }

    const pf::OutputsOrError result_;
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
