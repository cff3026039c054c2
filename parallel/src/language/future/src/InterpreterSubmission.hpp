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
#include <tuple>

namespace parallel::language::future::detail {

// Source labels of the requests this library submits.
inline constexpr const char* kContinuationTaskSource = "src/ContinuationTask";
inline constexpr const char* kAfterEachFutureSource = "src/AfterEachFuture";
inline constexpr const char* kAfterAllFutureSource = "src/AfterAllFuture";

// The queue of continuations and of the callbacks that update futures, one
// name shared by all their requests. Any thread.
inline const cmddistributor::RunOptions::QueueName& parallelQueueName() {
    static const cmddistributor::RunOptions::QueueName name =
        std::make_shared<const std::u16string>(u"parallel");
    return name;
}
// The interpreter stream of every request of this library.
inline constexpr cmddistributor::IqmStreamID kStreamID = -2;
// The execution status and message of work submitted where no distributor is.
inline constexpr const char* kNoCmdDistributorMessage = "No CmdDistributor available";

template <class T>
struct Submission {
    kvm::Future<T> result;
    boost::shared_ptr<kvm::TaskReference> reference;
};

// Submits `work` to `distributor` (already resolved; may be null) with
// `options` and their sinks, as request `id`; `delegate` receives the result.
// Without a distributor nothing is thrown: the delegate receives at once a
// result of status NoDistributor and false is returned. Any thread.
template <class T>
bool submitRequest(const std::shared_ptr<cmddistributor::CmdDistributor>& distributor,
                   boost::function<T()> work, cmddistributor::RunOptions options,
                   cmddistributor::IDType id, const char* sourceLabel,
                   boost::shared_ptr<cmddistributor::PromiseDelegate> delegate) {
    if (!distributor) {
        cmddistributor::IIPResult missing;
        missing.executionStatus = cmddistributor::NoDistributor;
        missing.message = kNoCmdDistributorMessage;
        delegate->deliver(&missing);
        return false;
    }
    auto request = boost::make_shared<cmddistributor::FcnCmdRequest<T>>(
        kStreamID, options.getOutputStream(), options.getErrorStream(), std::move(work),
        sourceLabel);
    distributor->submit(std::move(request), std::move(delegate), std::move(options), id);
    return true;
}

// Submits `work` to `target`'s command distributor with `options`; `delegate`
// receives the result. Without a distributor nothing is thrown: the delegate
// receives at once a result of status NoDistributor and the reference is a
// null one. Any thread.
template <class T>
boost::shared_ptr<kvm::TaskReference>
submitToInterpreter(const kvm::Target& target, boost::function<T()> work,
                    cmddistributor::RunOptions options, cmddistributor::IDType id,
                    const char* sourceLabel,
                    boost::shared_ptr<cmddistributor::PromiseDelegate> delegate) {
    const auto distributor = std::get<0>(kvm::detail::getCmdDistributorAndSinks(target, options));
    if (!submitRequest<T>(distributor, std::move(work), std::move(options), id, sourceLabel,
                          std::move(delegate))) {
        return boost::make_shared<kvm::detail::NullCmdDistributorTaskReference>();
    }
    return boost::make_shared<kvm::detail::CmdDistributorTaskReference>(distributor, id);
}

// As above, the result going to a future: its value, or its error (a
// RuntimeException of status NoDistributor without a distributor). Any thread.
template <class T>
Submission<T> submitToInterpreter(const kvm::Target& target, boost::function<T()> work,
                                  cmddistributor::RunOptions options, cmddistributor::IDType id,
                                  const char* sourceLabel) {
    auto delegate = boost::make_shared<cmddistributor::PromiseDelegateT<T>>();
    kvm::Future<T> result = delegate->getFuture();
    boost::shared_ptr<kvm::TaskReference> reference = submitToInterpreter<T>(
        target, std::move(work), std::move(options), id, sourceLabel, std::move(delegate));
    return {std::move(result), std::move(reference)};
}

// Runs `callback` on interpreter `target`: at once when called on that
// interpreter's thread, otherwise at its next dequeue point of "parallel",
// not waited for. Failures of the callback reach nobody. Any thread; hold
// no lock the callback needs.
void runOnInterpreter(const kvm::Target& target, std::function<void()> callback,
                      const char* sourceLabel) noexcept;

} // namespace parallel::language::future::detail
