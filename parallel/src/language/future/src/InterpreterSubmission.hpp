#pragma once

// Handing work to an interpreter's own thread through its command
// distributor: work with a result, short callbacks, and releases of host
// arrays owned for an interpreter.

#include <cmddistributor/CmdDistributor.hpp>
#include <kvm/TaskReference.hpp>
#include <matrix/dvArray.hpp>

#include <boost/function.hpp>
#include <boost/make_shared.hpp>

#include <functional>
#include <memory>
#include <string>

namespace parallel::language::future::detail {

// Source labels of the requests this library submits.
inline constexpr const char* kContinuationTaskSource = "src/ContinuationTask";
inline constexpr const char* kAfterEachFutureSource = "src/AfterEachFuture";
inline constexpr const char* kAfterAllFutureSource = "src/AfterAllFuture";

// The queue of continuations and of the callbacks that update futures.
inline const std::u16string kParallelQueueName = u"parallel";
// The interpreter stream of every request of this library.
inline constexpr cmddistributor::IqmStreamID kStreamID = -2;
// The execution status and message of work submitted where no distributor is.
inline constexpr const char* kNoCmdDistributorMessage = "No CmdDistributor available";

template <class T>
struct Submission {
    kvm::Future<T> result;
    boost::shared_ptr<kvm::TaskReference> reference;
};

// Submits `work` to `target`'s command distributor with `options`; the result
// future receives its value or error. Without a distributor nothing is
// thrown: the result is complete at once with a RuntimeException of status
// NoDistributor and the reference is a null one. Any thread.
template <class T>
Submission<T> submitToInterpreter(const kvm::Target& target, boost::function<T()> work,
                                  cmddistributor::RunOptions options, cmddistributor::IDType id,
                                  const char* sourceLabel) {
    auto [distributor, output, error] = kvm::detail::getCmdDistributorAndSinks(target, options);
    if (!distributor) {
        boost::promise<T> failed;
        cmddistributor::detail::setError(
            failed, std::make_exception_ptr(cmddistributor::RuntimeException(
                        cmddistributor::NoDistributor, kNoCmdDistributorMessage)));
        return {kvm::Future<T>(failed.get_future()),
                boost::make_shared<kvm::detail::NullCmdDistributorTaskReference>()};
    }
    auto request = boost::make_shared<cmddistributor::FcnCmdRequest<T>>(
        kStreamID, std::move(output), std::move(error), std::move(work), sourceLabel);
    boost::shared_ptr<kvm::TaskReference> reference =
        boost::make_shared<kvm::detail::CmdDistributorTaskReference>(distributor, id);
    auto delegate = boost::make_shared<cmddistributor::PromiseDelegateT<T>>();
    kvm::Future<T> result = delegate->getFuture();
    distributor->submit(std::move(request), std::move(delegate), std::move(options), id);
    return {std::move(result), std::move(reference)};
}

// Runs `callback` on interpreter `target`: at once when called on that
// interpreter's thread, otherwise at its next dequeue point of "parallel",
// not waited for. Failures of the callback reach nobody. Any thread; hold
// no lock the callback needs.
void runOnInterpreter(const kvm::Target& target, std::function<void()> callback,
                      const char* sourceLabel) noexcept;

} // namespace parallel::language::future::detail
