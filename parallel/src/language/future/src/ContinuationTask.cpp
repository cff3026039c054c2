// Continuation tasks, and how work reaches the interpreter's own thread.

#include <parallel/language/future/ContinuationTask.hpp>

#include <parallel/language/future/FutureErrors.hpp>

#include "Concatenation.hpp"
#include "ErrorConversion.hpp"
#include "FutureClassNames.hpp"
#include "InterpreterSubmission.hpp"
#include "TimelineEvents.hpp"

#include <foundation/usm/Detail.hpp>
#include <kcos/array.hpp>

#include <boost/function.hpp>

#include <algorithm>
#include <atomic>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

namespace parallel::language::future {

using Veldspire::KException::KExceptionEnvelope;

namespace detail {

namespace {

bool isCurrentInterpreter(const kvm::Target& target) {
    if (!foundation::usm::Detail<foundation::usm::scope::Kvm>::isRequiredContextActive()) {
        return false;
    }
    const std::shared_ptr<kvm::KVM> current = kvm::Factory::getCurrentLocalKVM();
    if (const auto* kvm = boost::get<std::shared_ptr<kvm::KVM>>(&target)) {
        return current && *kvm == current;
    }
    return current && current->getID() == boost::get<kvutil::contextmgr::KcrID>(target);
}

} // namespace

void runOnInterpreter(const kvm::Target& target, std::function<void()> callback,
                      const char* sourceLabel) noexcept {
    try {
        if (isCurrentInterpreter(target)) {
            callback();
            return;
        }
        submitToInterpreter<void>(
            target, boost::function<void()>(std::move(callback)),
            cmddistributor::RunOptions(cmddistributor::WhenToDequeue::AtDequeuePoint,
                                       parallelQueueName()),
            kvm::detail::createID(), sourceLabel);
    } catch (...) {
        // A callback's failure reaches nobody.
    }
}

} // namespace detail

namespace {

using Predecessors = std::span<const std::shared_ptr<FutureBase>>;

// Releases a host array the standard way.
void releaseArray(dvArray* array) {
    matrix::destroyArray(array);
}

// Deleter of a host array that must be released under its interpreter's
// rules: on a blessed interpreter's own thread (a release request posted to
// it, not waited for; directly once the interpreter is gone), otherwise under
// the interpreter lock. Any thread.
struct DvArrayDeleter {
    bool releaseUnderInterpreterRules = false;
    boost::function<void(dvArray*)> release;
    kvutil::contextmgr::KcrID kcrID = kvutil::contextmgr::UndefinedKcrID;

    void operator()(dvArray* array) const noexcept {
        if (array == nullptr) {
            return;
        }
        if (!releaseUnderInterpreterRules) {
            release(array);
        } else if (kcrID >= kvutil::contextmgr::BlessedKcrID) {
            postRelease(array);
        } else {
            std::lock_guard lock(kvutil::kvm::getBFL());
            release(array);
        }
    }

    void postRelease(dvArray* array) const noexcept {
        const std::shared_ptr<cmddistributor::CmdDistributor> distributor =
            cmddistributor::CmdDistributor::instance(kcrID);
        if (!distributor) {
            release(array);
            return;
        }
        try {
            // The request owns the array: released when it runs, or wherever
            // the request is dropped should it never run.
            std::shared_ptr<dvArray> owned(array, release);
            auto request = boost::make_shared<cmddistributor::FcnCmdRequest<void>>(
                detail::kStreamID, nullptr, nullptr,
                boost::function<void()>([owned]() mutable { owned.reset(); }),
                detail::kContinuationTaskSource);
            distributor->submit(
                std::move(request), boost::make_shared<cmddistributor::PromiseDelegateT<void>>(),
                cmddistributor::RunOptions(cmddistributor::WhenToDequeue::AtDequeuePoint, u""),
                cmddistributor::IDType{});
        } catch (...) {
            // Only allocation can fail here, before `owned` took the array.
        }
    }
};

// A reference to `function` the work item may own: the function handle
// itself (immutable, so shared as it is), any other array a shared copy.
dvArray* referenceForWork(boost::intrusive_ptr<dvArray> function) {
    if (dvGetClassID(function.get()) == matrix::ClassID::FunctionHandle) {
        return function.detach();
    }
    return matrix::to_korvex(matrix::detail::do_shared_copy(function.get()));
}

// Refuses a null function or no predecessors (std::invalid_argument).
void checkBuildArguments(const boost::intrusive_ptr<dvArray>& function, Predecessors predecessors) {
    if (!function) {
        throw std::invalid_argument("A continuation needs a function.");
    }
    if (predecessors.empty()) {
        throw std::invalid_argument("A continuation needs at least one predecessor.");
    }
}

// The IDs of the failed predecessors, joined by "," (no spaces).
std::u16string joinIDs(const std::vector<long long>& ids) {
    std::string joined;
    for (const long long id : ids) {
        if (!joined.empty()) {
            joined += ',';
        }
        joined += std::to_string(id);
    }
    return std::u16string(joined.begin(), joined.end());
}

// PrecedingExecutionErrors naming `failedIDs`, with `errors` as causes.
[[noreturn]] void raisePrecedingExecutionErrors(const std::vector<long long>& failedIDs,
                                                const std::vector<std::exception_ptr>& errors) {
    KExceptionEnvelope failure(errors::PrecedingExecutionErrors(joinIDs(failedIDs)),
                               matrix::dvCreateStackStruct(0));
    for (const std::exception_ptr& error : errors) {
        failure.AddCause(detail::toKExceptionEnvelope(error));
    }
    throw failure;
}

// The arguments made from the predecessors' outputs: their first M outputs
// (M the fewest any has), concatenated across predecessors when there are
// several. Interpreter thread.
DvArrayVector argumentsFromOutputs(const std::vector<std::shared_ptr<FutureBase>>& predecessors) {
    unsigned int fewest = std::numeric_limits<unsigned int>::max();
    std::vector<long long> failedIDs;
    std::vector<std::exception_ptr> errors;
    std::vector<DvArrayVector> outputs;
    outputs.reserve(predecessors.size());
    for (const auto& predecessor : predecessors) {
        fewest = std::min(fewest, predecessor->getNumOutputs());
        if (!predecessor->hasError()) {
            outputs.push_back(predecessor->getOutputsAs(fewest, OutputFormat::Concatenated));
            continue;
        }
        failedIDs.push_back(predecessor->getID());
        const PerTaskVariant<std::exception_ptr> failures = predecessor->getError();
        for (std::size_t i = 0; i < failures.size(); ++i) {
            if (failures[i]) {
                errors.push_back(failures[i]);
            }
        }
    }
    if (!failedIDs.empty()) {
        raisePrecedingExecutionErrors(failedIDs, errors);
    }
    if (outputs.size() == 1) {
        outputs.front().resize(fewest);
        return std::move(outputs.front());
    }
    DvArrayVector arguments;
    arguments.reserve(fewest);
    for (unsigned int j = 0; j < fewest; ++j) {
        DvArrayVector parts;
        parts.reserve(outputs.size());
        for (const DvArrayVector& source : outputs) {
            parts.push_back(source[j]);
        }
        arguments.push_back(
            detail::concatenateVertically<errors::PrecedingOutputsConcatenationFailed>(parts));
    }
    return arguments;
}

// One argument: the predecessors as a "parallel.Future" array of `size`.
DvArrayVector argumentOfFutures(const std::vector<std::shared_ptr<FutureBase>>& predecessors,
                                const std::vector<std::size_t>& size) {
    matrix::unique_dvArray array = FutureBase::toKorvexArray(predecessors, size);
    omSetClassOfHeterogeneousArray(array.get(), names::futureClass());
    return {boost::intrusive_ptr<dvArray>(matrix::to_korvex(std::move(array)), false)};
}

// A request submitted not ready, released by its ID; nothing is done once
// its distributor is gone (or when there was none). Any thread.
struct HeldRequest {
    std::weak_ptr<cmddistributor::CmdDistributor> distributor;
    cmddistributor::IDType id{};

    void release() const {
        if (const auto owner = distributor.lock()) {
            owner->setReadyToExecute(id);
        }
    }
};

// Makes the held-back request ready once every predecessor has finished:
// with one predecessor straight from its finish, with several when a shared
// countdown reaches zero (acq_rel: the last decrement sees every earlier
// predecessor's finish). Interpreter thread; the callbacks run on the thread
// that finishes each predecessor.
void releaseWhenAllFinished(Predecessors predecessors, HeldRequest request) {
    if (predecessors.size() == 1) {
        predecessors.front()->afterFinishThen(
            boost::launch::sync, [request = std::move(request)] { request.release(); });
        return;
    }
    struct Countdown {
        std::atomic<std::size_t> remaining;
        HeldRequest request;
    };
    const auto countdown = std::make_shared<Countdown>();
    countdown->remaining.store(predecessors.size(), std::memory_order_relaxed);
    countdown->request = std::move(request);
    for (const auto& predecessor : predecessors) {
        predecessor->afterFinishThen(boost::launch::sync, [countdown] {
            if (countdown->remaining.fetch_sub(1, std::memory_order_acq_rel) == 1) {
                countdown->request.release();
            }
        });
    }
}

} // namespace

void ContinuationTask::InterpreterArrayRelease::operator()(dvArray* array) const noexcept {
    DvArrayDeleter{true, releaseArray, kcrID}(array);
}

// The work item of a continuation, run by the command distributor on the
// interpreter thread; what it works on is the task's. It refers to the task
// without owning it (small enough for the function object's own buffer): the
// request's delegate, which the distributor holds with the work item until
// the request is done, holds the task.
struct ContinuationWork {
    ContinuationTask* task;

    ContinuationTask::RequestResult operator()() const {
        // Once the work has run, successfully or not, the arrays go.
        const std::shared_ptr<void> releaseArrays(nullptr, [this](void*) {
            task->function_.reset();
            task->predecessors_.reset();
        });
        try {
            return run();
        } catch (...) {
            detail::timeline::onFailed(task);
            throw;
        }
    }

private:
    // The futures the task follows, as fromKorvexArray gives them.
    std::vector<std::shared_ptr<FutureBase>> predecessors() const {
        if (!task->predecessorIndex_) {
            return FutureBase::fromKorvexArray(task->predecessors_.get());
        }
        // The array holds its objects for the whole call: no handle is needed.
        const auto elements = dvGetObjects(task->predecessors_.get());
        return {
            FutureBase::fromKorvexCosi(omLiveObjectOf(elements[*task->predecessorIndex_].get()))};
    }

    ContinuationTask::RequestResult run() const {
        const std::vector<std::shared_ptr<FutureBase>> futures = predecessors();
        DvArrayVector arguments = task->passFuture_
                                      ? argumentOfFutures(futures, task->predecessorSize_)
                                      : argumentsFromOutputs(futures);
        {
            foundation::core::sync::LockGuard lock(task->mutex_);
            task->inputArguments_ = arguments;
        }
        task->doNotifyRunning();
        // Nothing is sized by the requested count before the function has
        // given that many outputs: a count from the language allocates nothing.
        DvArrayVector outputs =
            dvInvokeFunctionHandle(task->function_.get(), task->numOutputs_, arguments);
        const std::size_t produced = outputs.size();
        {
            foundation::core::sync::LockGuard lock(task->mutex_);
            task->outputs_ = std::move(outputs);
        }
        return ContinuationTask::RequestResult(produced);
    }
};

// Receives the result of a continuation's request, keeps its error in the
// task and then reports the task Finished, in the thread that completes the
// request (at once inside the submission when there is no distributor). A
// delegate dropped without a result, its request never completed, keeps
// boost::broken_promise as the error. Holds the task until then.
class FinishingDelegate final : public cmddistributor::PromiseDelegate {
public:
    explicit FinishingDelegate(std::shared_ptr<ContinuationTask> task) : task_(std::move(task)) {}

    ~FinishingDelegate() override {
        if (!delivered_) {
            finish(std::make_exception_ptr(boost::broken_promise()));
        }
    }

    void deliver(const cmddistributor::IIPResult* result) override {
        cmddistributor::detail::requireResult(result);
        delivered_ = true;
        finish(errorOf(*result));
    }

private:
    // The error a result stands for; none for the work's own result.
    static std::exception_ptr errorOf(const cmddistributor::IIPResult& result) {
        if (result.executionStatus != cmddistributor::Completed) {
            return cmddistributor::detail::errorOf(result);
        }
        if (boost::any_cast<ContinuationTask::RequestResult>(&result.value) == nullptr) {
            return std::make_exception_ptr(boost::bad_any_cast());
        }
        return nullptr;
    }

    void finish(std::exception_ptr error) noexcept {
        {
            foundation::core::sync::LockGuard lock(task_->mutex_);
            task_->requestError_ = std::move(error);
        }
        try {
            task_->doNotifyFinished();
        } catch (...) {
            // The finish callbacks' failures reach nobody.
        }
    }

    std::shared_ptr<ContinuationTask> task_;
    bool delivered_ = false; // the distributor delivers once, before dropping the delegate
};

ContinuationTask::ContinuationTask(Token) {}

ContinuationTask::~ContinuationTask() = default;

std::shared_ptr<ContinuationTask>
ContinuationTask::build(boost::intrusive_ptr<dvArray> function, std::size_t numOutputs,
                        const std::vector<std::shared_ptr<FutureBase>>& predecessors,
                        std::vector<std::size_t> predecessorSize, bool passFuture) {
    checkBuildArguments(function, predecessors);
    boost::intrusive_ptr<dvArray> predecessorArray(
        matrix::to_korvex(FutureBase::toKorvexArray(predecessors, {})), false);
    return build(std::move(function), numOutputs, predecessors, std::move(predecessorArray),
                 std::move(predecessorSize), passFuture);
}

std::shared_ptr<ContinuationTask>
ContinuationTask::build(boost::intrusive_ptr<dvArray> function, std::size_t numOutputs,
                        const std::vector<std::shared_ptr<FutureBase>>& predecessors,
                        boost::intrusive_ptr<dvArray> predecessorArray,
                        std::vector<std::size_t> predecessorSize, bool passFuture,
                        std::optional<std::size_t> predecessorIndex) {
    return build(Destination::current(), std::move(function), numOutputs, predecessors,
                 std::move(predecessorArray), std::move(predecessorSize), passFuture,
                 predecessorIndex);
}

ContinuationTask::Destination ContinuationTask::Destination::current() {
    Destination destination;
    if (const std::shared_ptr<kvm::KVM> interpreter = kvm::Factory::getCurrentLocalKVM()) {
        destination.kcrID = interpreter->getID();
        destination.distributor = cmddistributor::CmdDistributor::instance(destination.kcrID);
    }
    return destination;
}

std::shared_ptr<ContinuationTask>
ContinuationTask::build(const Destination& destination, boost::intrusive_ptr<dvArray> function,
                        std::size_t numOutputs, Predecessors predecessors,
                        boost::intrusive_ptr<dvArray> predecessorArray,
                        std::vector<std::size_t> predecessorSize, bool passFuture,
                        std::optional<std::size_t> predecessorIndex) {
    checkBuildArguments(function, predecessors);
    const kvutil::contextmgr::KcrID kcrID = destination.kcrID;
    auto task = std::make_shared<ContinuationTask>(Token{});

    task->function_ = InterpreterOwnedArray(referenceForWork(std::move(function)),
                                            InterpreterArrayRelease{kcrID});
    task->predecessors_ =
        InterpreterOwnedArray(predecessorArray.detach(), InterpreterArrayRelease{kcrID});
    task->predecessorIndex_ = predecessorIndex;
    task->numOutputs_ = numOutputs;
    task->predecessorSize_ = std::move(predecessorSize);
    task->passFuture_ = passFuture;

    // A predecessor once finished stays so: when all are already, the
    // request goes ready at once and needs no finish callback. Otherwise it
    // is held back until the last one finishes (even if that has happened
    // meanwhile: the callback then runs at once).
    const bool allFinished =
        std::all_of(predecessors.begin(), predecessors.end(), [](const auto& predecessor) {
            return predecessor->getState() == FutureState::Finished;
        });

    // Default sinks: printed output reaches the console as any other, and a
    // failure's message is not written anywhere (the task keeps the error).
    cmddistributor::RunOptions options(cmddistributor::WhenToDequeue::AtDequeuePoint,
                                       detail::parallelQueueName());
    options.setReadyToExecute(allFinished);

    task->doNotifyQueued();
    auto delegate = boost::make_shared<FinishingDelegate>(task);
    const cmddistributor::IDType id = kvm::detail::createID();
    if (detail::submitRequest<RequestResult>(
            destination.distributor, boost::function<RequestResult()>(ContinuationWork{task.get()}),
            std::move(options), id, detail::kContinuationTaskSource, std::move(delegate))) {
        task->distributor_ = destination.distributor;
        task->requestID_ = id;
    }
    if (allFinished) {
        return task;
    }

    try {
        releaseWhenAllFinished(predecessors, HeldRequest{task->distributor_, id});
    } catch (...) {
        // A predecessor that cannot report its finish: the continuation
        // would never run. Withdraw it.
        task->cancel();
        throw;
    }
    return task;
}

DvArrayVector ContinuationTask::takeInputs() {
    foundation::core::sync::LockGuard lock(mutex_);
    return std::exchange(inputArguments_, {});
}

void ContinuationTask::doCancel() {
    if (const auto distributor = distributor_.lock()) {
        distributor->cancel(requestID_);
    }
}

OutputsOrError ContinuationTask::doGetOutputsOrError() {
    if (getState() != FutureState::Finished) {
        return OutputsOrError(std::optional<DvArrayVector>());
    }
    const auto cancelled = [] {
        return OutputsOrError(std::make_exception_ptr(errors::ExecutionCancelled()));
    };
    try {
        std::exception_ptr requestError;
        {
            foundation::core::sync::LockGuard lock(mutex_);
            requestError = requestError_;
        }
        if (requestError) {
            std::rethrow_exception(requestError);
        }
    } catch (const cmddistributor::RuntimeException& error) {
        if (error.getExecutionStatus() == cmddistributor::Cancelled) {
            return cancelled();
        }
        return OutputsOrError(std::make_exception_ptr(error));
    } catch (const cmddistributor::AlreadyCancelledException&) {
        return cancelled();
    } catch (...) {
        return OutputsOrError(std::current_exception());
    }
    foundation::core::sync::LockGuard lock(mutex_);
    return OutputsOrError(std::optional<DvArrayVector>(std::exchange(outputs_, {})));
}

std::u16string ContinuationTask::doGetDiary() {
    return {};
}

} // namespace parallel::language::future
