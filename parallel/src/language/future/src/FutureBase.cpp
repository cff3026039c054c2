#include <parallel/language/future/FutureBase.hpp>

#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/ScopedTaskFinishedListener.hpp>

#include "Concatenation.hpp"
#include "DiagnosticLogging.hpp"
#include "ErrorConversion.hpp"
#include "FetchNextDrain.hpp"
#include "PropertyArrays.hpp"

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <interpreter/Kdispatcher.hpp>
#include <iqm/Iqm.hpp>
#include <kvm/KVM.hpp>

#include <foundation/core/sync/Mutex.hpp>

#include <algorithm>
#include <atomic>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace parallel::language::future {

using Veldspire::KException::KExceptionEnvelope;

namespace {

logging::Logger& logger() noexcept {
    return logging::futureBaseLogger();
}

// The longest a wait blocks in one pass. Within a pass it wakes as soon as a
// task finishes, work is queued for the interpreter thread or an interrupt is
// requested.
constexpr Seconds kWaitSlice{1.0};
// How often a wait for Running looks at its futures: a task that starts
// running, unlike one that finishes, wakes nobody.
constexpr Seconds kRunningLookInterval{0.005};

std::atomic<long long> gNextID{1};

// The queues whose work keeps running while the interpreter thread waits.
const iqm::QueueNames& waitingQueueNames() {
    static const iqm::QueueNames names{u"parallel", u"serialQueueWork"};
    return names;
}

const iqm::QueueName kParallelQueue = u"parallel";

// Applies `convert` to every entry, keeping the single or per-task shape.
template <class R, class T, class Convert>
PerTaskVariant<R> mapEntries(const PerTaskVariant<T>& entries, Convert&& convert) {
    if (!entries.isMulti()) {
        return PerTaskVariant<R>(convert(entries.getAsSingle()));
    }
    std::vector<R> converted;
    converted.reserve(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        converted.push_back(convert(entries[i]));
    }
    return PerTaskVariant<R>(std::move(converted));
}

PerTaskVariant<PropertyDvArray> toPropertyCells(const PerTaskVariant<DvArrayVector>& inputs) {
    return mapEntries<PropertyDvArray>(inputs, detail::makePropertyCell);
}

// A single entry's copy, or a 1-by-N cell of copies of each entry, of the
// array `select` picks from the entry.
template <class T, class Select>
matrix::unique_dvArray entriesAsDvArray(const PerTaskVariant<T>& entries, Select&& select) {
    if (!entries.isMulti()) {
        return detail::copyArray(select(entries.getAsSingle()));
    }
    matrix::unique_dvArray cell = matrix::detail::do_create_cell({1, entries.size()});
    for (std::size_t i = 0; i < entries.size(); ++i) {
        dvSetCell(cell.get(), i, detail::copyArray(select(entries[i])));
    }
    return cell;
}

KExceptionEnvelope envelopeOf(const foundation::core::except::IUserException& error) {
    return KExceptionEnvelope(error, matrix::dvCreateStackStruct(0));
}

// Moves output k out of `source`, which holds copies of the caller's own;
// null when the source has fewer outputs.
boost::intrusive_ptr<dvArray> takeOutput(DvArrayVector& source, unsigned int k) {
    return k < source.size() ? std::move(source[k]) : nullptr;
}

// Output k of every source joined vertically, for k below `numOutputs`: no
// source gives null arrays, one source its own arrays unchanged.
DvArrayVector concatenateEach(std::vector<DvArrayVector> sources, unsigned int numOutputs) {
    if (sources.empty()) {
        return DvArrayVector(numOutputs);
    }
    if (sources.size() == 1) {
        sources.front().resize(numOutputs);
        return std::move(sources.front());
    }
    DvArrayVector joined;
    joined.reserve(numOutputs);
    for (unsigned int k = 0; k < numOutputs; ++k) {
        DvArrayVector parts;
        parts.reserve(sources.size());
        for (DvArrayVector& source : sources) {
            parts.push_back(takeOutput(source, k));
        }
        joined.push_back(
            detail::concatenateVertically<errors::FetchOutputsConcatenationFailed>(parts));
    }
    return joined;
}

// Output k of every source gathered into an M-by-1 cell, one row per source.
DvArrayVector gatherIntoCells(std::vector<DvArrayVector> sources, unsigned int numOutputs) {
    DvArrayVector cells;
    cells.reserve(numOutputs);
    for (unsigned int k = 0; k < numOutputs; ++k) {
        matrix::unique_dvArray cell = matrix::detail::do_create_cell({sources.size(), 1});
        for (std::size_t i = 0; i < sources.size(); ++i) {
            dvSetCell(cell.get(), i, matrix::from_korvex(takeOutput(sources[i], k).detach()));
        }
        cells.emplace_back(matrix::to_korvex(std::move(cell)), false);
    }
    return cells;
}

// Throws the error `makeFailure` makes with the errors among `errors` as
// causes: the one error once when every entry failed the same way, otherwise
// each in entry order. Made only when there is an error to throw.
template <class MakeFailure>
void raiseExecutionErrors(const PerTaskVariant<std::exception_ptr>& errors,
                          MakeFailure makeFailure) {
    std::vector<KExceptionEnvelope> causes;
    for (std::size_t i = 0; i < errors.size(); ++i) {
        if (errors[i]) {
            causes.push_back(detail::toKExceptionEnvelope(errors[i]));
        }
    }
    if (causes.empty()) {
        return;
    }
    const bool allFailedAlike =
        causes.size() == errors.size() &&
        std::all_of(causes.begin(), causes.end(),
                    [&](const KExceptionEnvelope& cause) { return cause == causes.front(); });
    KExceptionEnvelope failure = makeFailure();
    if (allFailedAlike) {
        failure.AddCause(causes.front());
    } else {
        failure.AddCauses(causes);
    }
    throw failure;
}

// One future waiting in fetchNext's walk.
struct FetchNextWaitableFuture {
    std::size_t index;
    boost::shared_future<void> future;
};
using Candidates = std::vector<FetchNextWaitableFuture>;

// Wakes the waiting interpreter whenever any task finishes. Any thread.
class WaitForAnyTaskFinishedListener : public TaskFinishedListener {
public:
    explicit WaitForAnyTaskFinishedListener(std::shared_ptr<iqm::Iqm> queueManager)
        : queueManager_(std::move(queueManager)) {}
    void onTaskFinished() override { queueManager_->wakeUp(); }

private:
    std::shared_ptr<iqm::Iqm> queueManager_;
};

// Wakes the interpreter that waits for every future to finish when a task
// finishes: at every finish, or, while it watches a task, only once that one
// has finished (the waiter has nothing to do before its last future is
// done). Any thread.
class WakeWhenWatchedFinishesListener : public TaskFinishedListener {
public:
    explicit WakeWhenWatchedFinishesListener(std::shared_ptr<iqm::Iqm> queueManager)
        : queueManager_(std::move(queueManager)) {}

    // The task to watch; null: none. Set before the waiter looks at the
    // task's state, so that a finish it has not seen finds the task here.
    void watch(const std::shared_ptr<TaskBase>& task) QZ_EXCLUDES(mutex_) {
        const foundation::core::sync::LockGuard lock(mutex_);
        watched_ = task;
        watching_.store(task != nullptr, std::memory_order_relaxed);
    }

    void onTaskFinished() override QZ_EXCLUDES(mutex_) {
        std::shared_ptr<TaskBase> watched;
        if (watching_.load(std::memory_order_relaxed)) { // a wake-up too many is harmless
            const foundation::core::sync::LockGuard lock(mutex_);
            watched = watched_;
        }
        if (!watched || watched->getState() == FutureState::Finished) {
            queueManager_->wakeUp();
        }
    }

private:
    const std::shared_ptr<iqm::Iqm> queueManager_;
    foundation::core::sync::Mutex mutex_;
    std::shared_ptr<TaskBase> watched_ QZ_GUARDED_BY(mutex_);
    std::atomic<bool> watching_{false}; // whether watched_ is set: no lock to find it empty
};

// The one task whose state is the future's, if it has one.
std::shared_ptr<TaskBase> singleTaskOf(const FutureBase& future) {
    const auto* feval = dynamic_cast<const FevalFuture*>(&future);
    return feval != nullptr ? feval->getTask() : nullptr;
}

Candidates::const_iterator firstReady(Candidates::const_iterator first,
                                      Candidates::const_iterator last) {
    return std::find_if(first, last, [](const FetchNextWaitableFuture& candidate) {
        return candidate.future.is_ready();
    });
}

// The queue manager of the calling interpreter thread, where fetchNext waits.
std::shared_ptr<iqm::Iqm> waitingQueueManager() {
    std::shared_ptr<iqm::Iqm> queueManager = iqm::Iqm::getCurrent();
    if (!queueManager) {
        throw std::logic_error("fetchNext waits on an interpreter thread only.");
    }
    return queueManager;
}

// Runs the interpreter's queued work until `done` answers true or the
// deadline passes; `done` is asked before sleeping and after every piece of
// work and every wake-up. Interpreter thread.
void dequeueUntil(iqm::Iqm& queueManager, const std::function<bool()>& done,
                  const SteadyTimePoint& deadline) {
    queueManager.processUntil(
        waitingQueueNames(), [&] { return done() || clock::getCurrentSteadyTime() > deadline; },
        deadline);
}

// Runs the interpreter's queued work until a candidate is ready or the
// deadline passes, woken by every task that finishes; the first ready
// candidate, or `last`. Interpreter thread.
Candidates::const_iterator waitForAnyWithDequeue(Candidates::const_iterator first,
                                                 Candidates::const_iterator last,
                                                 const SteadyTimePoint& deadline) {
    const std::shared_ptr<iqm::Iqm> queueManager = waitingQueueManager();
    ScopedTaskFinishedListener registration(
        std::make_shared<WaitForAnyTaskFinishedListener>(queueManager));
    dequeueUntil(
        *queueManager, [&] { return firstReady(first, last) != last; }, deadline);
    return firstReady(first, last);
}

void runParallelQueue() {
    if (std::shared_ptr<iqm::Iqm> queueManager = iqm::Iqm::getCurrent()) {
        queueManager->runQueue(kParallelQueue, std::nullopt);
    }
}

// Whether `future` finishes only through work that runs on the interpreter
// thread: a continuation that has not finished yet.
bool needsInterpreterToFinish(const FutureBase& future) {
    const std::string_view kind = future.getCosAliasName();
    return (kind == "parallel.AfterAllFuture" || kind == "parallel.AfterEachFuture") &&
           future.getState() != FutureState::Finished;
}

} // namespace

long long getNextID() {
    return gNextID.fetch_add(1);
}

FutureBase::FutureBase(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                       unsigned int numOutputs, PerTaskVariant<DvArrayVector> inputs,
                       std::optional<long long> id)
    : createTime_(getCurrentTime()), id_(id ? *id : getNextID()), numOutputs_(numOutputs),
      parent_(parent, kcos::COSReferenceType::Weak),
      inputs_(inputs.isMulti() ? toPropertyCells(inputs) : PerTaskVariant(PropertyDvArray())) {
    keepFunction(std::move(function));
    if (!inputs.isMulti()) {
        inputsToWrap_ = InputCopies(std::move(inputs.getAsSingle())).arrays;
        inputsWrapped_ = false;
    }
}

FutureBase::FutureBase(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                       unsigned int numOutputs, InputCopies inputs, std::optional<long long> id)
    : createTime_(getCurrentTime()), id_(id ? *id : getNextID()), numOutputs_(numOutputs),
      inputsWrapped_(false), parent_(parent, kcos::COSReferenceType::Weak),
      inputs_(PropertyDvArray()), inputsToWrap_(std::move(inputs.arrays)) {
    keepFunction(std::move(function));
}

InputCopies::InputCopies(DvArrayVector inputs) : arrays(std::move(inputs)) {
    for (auto& array : arrays) {
        if (array) {
            array.reset(matrix::to_korvex(matrix::detail::do_shared_copy(array.get())), false);
        }
    }
}

void FutureBase::wrapInputsIfNeeded() const {
    if (!inputsWrapped_) {
        // Copied again: the executor may still be reading the arrays kept.
        inputs_.getAsSingle() = detail::makePropertyCell(inputsToWrap_);
        inputsToWrap_.clear();
        inputsWrapped_ = true;
    }
}

void FutureBase::wrapOutputsIfNeeded() {
    if (!outputsWrapped_) {
        DvArrayVector outputs;
        outputs.swap(*doOutputsToWrap());
        outputsWrapped_ = true;
        setOutputsOrError(PerTaskVariant<OutputsOrError>(
            OutputsOrError(std::optional<DvArrayVector>(std::move(outputs)))));
    }
}

boost::intrusive_ptr<dvArray> FutureBase::copyOfOutput(std::size_t i, unsigned int k) const {
    const dvArray* output = nullptr;
    if (!outputsWrapped_) {
        const DvArrayVector& outputs = *doOutputsToWrap();
        output = k < outputs.size() ? outputs[k].get() : nullptr;
    } else if (const dvArray* cell = outputsOrError_[i].getIfOutputs()) {
        if (dvGetClassID(cell) != matrix::ClassID::Cell) {
            throw std::invalid_argument("Array is not cell array.");
        }
        output = k < dvGetNumberOfElements(cell) ? dvGetCell(cell, k) : nullptr;
    }
    return {matrix::to_korvex(detail::copyArray(output)), false};
}

std::optional<DvArrayVector> FutureBase::copiesOfOutputs(std::size_t i) const {
    if (outputsWrapped_) {
        return detail::readCell(outputsOrError_[i].getIfOutputs());
    }
    DvArrayVector copies;
    const DvArrayVector& outputs = *doOutputsToWrap();
    copies.reserve(outputs.size());
    for (const auto& output : outputs) {
        copies.emplace_back(matrix::to_korvex(detail::copyArray(output.get())), false);
    }
    return copies;
}

FutureBase::FutureBase(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                       unsigned int numOutputs,
                       const std::vector<std::shared_ptr<FutureBase>>& predecessors,
                       std::optional<long long> id)
    : FutureBase(
          parent, std::move(function), numOutputs,
          boost::intrusive_ptr<dvArray>(matrix::to_korvex(toKorvexArray(predecessors, {})), false),
          id) {}

FutureBase::FutureBase(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                       unsigned int numOutputs, boost::intrusive_ptr<dvArray> predecessorArray,
                       std::optional<long long> id)
    : createTime_(getCurrentTime()), id_(id ? *id : getNextID()), numOutputs_(numOutputs),
      parent_(parent, kcos::COSReferenceType::Weak),
      predecessors_(omPrepareArrayForPropertyContainment(predecessorArray.detach())),
      inputs_(PropertyDvArray()) {
    keepFunction(std::move(function));
}

void FutureBase::keepFunction(boost::intrusive_ptr<dvArray> function) {
    if (function && dvGetClassID(function.get()) == matrix::ClassID::FunctionHandle) {
        functionToWrap_ = std::move(function); // immutable: shared as it is
    } else if (function) {
        function_.reset(omCopyArrayForPropertyContainment(function.get()));
    }
}

void FutureBase::wrapFunctionIfNeeded() const {
    if (functionToWrap_) {
        function_.reset(omCopyArrayForPropertyContainment(functionToWrap_.get()));
        functionToWrap_.reset();
    }
}

FutureBase::FutureBase() : inputs_(detail::makePropertyCell({})) {}

FutureBase::~FutureBase() = default;

bool FutureBase::doIsMultiFuture() const {
    return false;
}

DvArrayVector* FutureBase::doOutputsToWrap() const noexcept {
    return nullptr;
}

boost::intrusive_ptr<dvArray> FutureBase::getFunction() const {
    const dvArray* function = functionToWrap_ ? functionToWrap_.get() : function_.get();
    if (function == nullptr) {
        return nullptr;
    }
    return boost::intrusive_ptr<dvArray>(
        matrix::to_korvex(matrix::detail::do_shared_copy(function)), false);
}

WallClockTimePoint FutureBase::getCreateTime() const {
    const WallClockTimePoint start = doGetStartTime();
    if (start.time_since_epoch().count() == 0.0) {
        return createTime_;
    }
    return std::min(createTime_, start);
}

Seconds FutureBase::getRunningDuration() const {
    return calcDuration(getStartTime(), getFinishTime());
}

void FutureBase::cancel() {
    if (doGetState() == FutureState::Unavailable) {
        return;
    }
    doCancel();
}

void FutureBase::afterFinishThen(boost::launch policy, std::function<void()> callback) {
    doAfterFinishThen(policy, std::move(callback));
}

PerTaskVariant<std::optional<DvArrayVector>> FutureBase::getInputs() const {
    wrapInputsIfNeeded();
    return mapEntries<std::optional<DvArrayVector>>(
        inputs_, [](const PropertyDvArray& cell) { return detail::readCell(cell.get()); });
}

matrix::unique_dvArray FutureBase::getInputsAsDvArray() const {
    wrapInputsIfNeeded();
    return entriesAsDvArray(inputs_, [](const PropertyDvArray& cell) { return cell.get(); });
}

PerTaskVariant<std::optional<DvArrayVector>> FutureBase::getOutputs() {
    initOutputsOrErrorIfNeeded();
    if (!outputsOrError_.isMulti()) {
        return PerTaskVariant<std::optional<DvArrayVector>>(copiesOfOutputs(0));
    }
    std::vector<std::optional<DvArrayVector>> outputs;
    outputs.reserve(outputsOrError_.size());
    for (std::size_t i = 0; i < outputsOrError_.size(); ++i) {
        outputs.push_back(copiesOfOutputs(i));
    }
    return PerTaskVariant<std::optional<DvArrayVector>>(std::move(outputs));
}

matrix::unique_dvArray FutureBase::getOutputsAsDvArray() {
    initOutputsOrErrorIfNeeded();
    wrapOutputsIfNeeded();
    return entriesAsDvArray(outputsOrError_, [](const OutputsOrErrorPropertyDvArray& entry) {
        return entry.getIfOutputs();
    });
}

PerTaskVariant<std::exception_ptr> FutureBase::getError() {
    initOutputsOrErrorIfNeeded();
    return mapEntries<std::exception_ptr>(
        outputsOrError_, [](const OutputsOrErrorPropertyDvArray& entry) -> std::exception_ptr {
            if (const dvArray* error = entry.getIfError()) {
                return std::make_exception_ptr(KExceptionEnvelope(error));
            }
            return nullptr;
        });
}

matrix::unique_dvArray FutureBase::getErrorAsDvArray() {
    initOutputsOrErrorIfNeeded();
    return entriesAsDvArray(outputsOrError_, [](const OutputsOrErrorPropertyDvArray& entry) {
        return entry.getIfError();
    });
}

bool FutureBase::hasError() {
    initOutputsOrErrorIfNeeded();
    for (std::size_t i = 0; i < outputsOrError_.size(); ++i) {
        if (outputsOrError_[i].isError()) {
            return true;
        }
    }
    return false;
}

DvArrayVector FutureBase::getOutputsAs(unsigned int numOutputs, OutputFormat format) {
    initOutputsOrErrorIfNeeded();
    if (format == OutputFormat::Concatenated && !outputsOrError_.isMulti()) {
        // What concatenateEach makes of one source or none, without the
        // vector of sources.
        DvArrayVector outputs;
        outputs.reserve(numOutputs);
        for (unsigned int k = 0; k < numOutputs; ++k) {
            outputs.push_back(copyOfOutput(0, k));
        }
        return outputs;
    }
    std::vector<DvArrayVector> collected;
    for (std::size_t i = 0; i < outputsOrError_.size(); ++i) {
        if (std::optional<DvArrayVector> outputs = copiesOfOutputs(i)) {
            collected.push_back(std::move(*outputs));
        }
    }
    if (format != OutputFormat::Concatenated) {
        return gatherIntoCells(std::move(collected), numOutputs);
    }
    return concatenateEach(std::move(collected), numOutputs);
}

std::vector<dvArray*> FutureBase::getOwnedResources() {
    wrapFunctionIfNeeded();
    wrapInputsIfNeeded();
    wrapOutputsIfNeeded();
    std::vector<dvArray*> owned;
    owned.reserve(1 + inputs_.size() + outputsOrError_.size());
    if (function_) {
        owned.push_back(function_.get());
    }
    for (std::size_t i = 0; i < inputs_.size(); ++i) {
        if (inputs_[i]) {
            owned.push_back(inputs_[i].get());
        }
    }
    for (std::size_t i = 0; i < outputsOrError_.size(); ++i) {
        if (dvArray* array = outputsOrError_[i].get()) {
            owned.push_back(array);
        }
    }
    return owned;
}

void FutureBase::initMultiTaskInputs(std::size_t n) {
    inputsToWrap_.clear();
    inputsWrapped_ = true;
    inputs_ = PerTaskVariant<PropertyDvArray>(std::vector<PropertyDvArray>(n));
}

void FutureBase::initMultiTaskOutputsOrError(std::size_t n) {
    outputsOrError_ = PerTaskVariant<OutputsOrErrorPropertyDvArray>(
        std::vector<OutputsOrErrorPropertyDvArray>(n));
}

void FutureBase::setInputs(const PerTaskVariant<DvArrayVector>& inputs) {
    inputsToWrap_.clear();
    inputsWrapped_ = true;
    inputs_ = toPropertyCells(inputs);
    for (std::size_t i = 0; i < inputs_.size(); ++i) {
        setChildParentRoot(inputs_[i].get());
    }
}

void FutureBase::setInputs(std::size_t index, const DvArrayVector& inputs) {
    wrapInputsIfNeeded();
    inputs_[index] = detail::makePropertyCell(inputs);
    setChildParentRoot(inputs_[index].get());
}

void FutureBase::setOutputsOrError(const PerTaskVariant<OutputsOrError>& outputsOrError) {
    if (!outputsWrapped_) {
        doOutputsToWrap()->clear();
        outputsWrapped_ = true;
    }
    outputsOrError_ =
        mapEntries<OutputsOrErrorPropertyDvArray>(outputsOrError, [](const OutputsOrError& entry) {
            return OutputsOrErrorPropertyDvArray(entry);
        });
    for (std::size_t i = 0; i < outputsOrError_.size(); ++i) {
        setChildParentRoot(outputsOrError_[i].get());
    }
}

void FutureBase::setOutputsOrError(std::size_t index, const OutputsOrError& outputsOrError) {
    wrapOutputsIfNeeded();
    outputsOrError_[index] = OutputsOrErrorPropertyDvArray(outputsOrError);
    setChildParentRoot(outputsOrError_[index].get());
}

void FutureBase::initOutputsOrErrorIfNeeded() {
    if (isOutputsOrErrorCached()) {
        return;
    }
    // A kind with room for unwrapped outputs has one task, which itself
    // answers nothing before it has finished: no separate look at the state.
    DvArrayVector* const keep = doOutputsToWrap();
    if (keep == nullptr && doGetState() != FutureState::Finished) {
        return;
    }
    PerTaskVariant<OutputsOrError> fresh = doGetOutputsOrError();
    if (keep != nullptr && !outputsOrError_.isMulti() && !fresh.isMulti() && !cosi_ &&
        !fresh.getAsSingle().hasError() && fresh.getAsSingle().value()) {
        // Kept as they are until a cell is needed: most outputs are only
        // fetched, and each fetch copies what it hands out.
        *keep = std::move(*fresh.getAsSingle().value());
        outputsWrapped_ = false;
        return;
    }
    if (!outputsOrError_.isMulti() || fresh.size() != outputsOrError_.size()) {
        setOutputsOrError(fresh);
        return;
    }
    // Entries cached already stay: their work may hand its outputs out once only.
    for (std::size_t i = 0; i < fresh.size(); ++i) {
        if (outputsOrError_[i].get() == nullptr) {
            setOutputsOrError(i, fresh[i]);
        }
    }
}

bool FutureBase::isOutputsOrErrorCached() const {
    if (!outputsWrapped_) {
        return true;
    }
    for (std::size_t i = 0; i < outputsOrError_.size(); ++i) {
        if (outputsOrError_[i].get() == nullptr) {
            return false;
        }
    }
    return true;
}

void FutureBase::setChildParentRoot(const dvArray* array) {
    if (array == nullptr || !cosi_) {
        return;
    }
    dvSetParentRoot(dvGetRootRecordForArray(array), omGetRootRecord(cosi_.get()));
}

bool FutureBase::wait(std::vector<std::shared_ptr<FutureBase>> futures, FutureState state,
                      Seconds timeout) {
    QZ_FUTURE_TRACE(logger());
    return wait(std::move(futures), state, getCurrentSteadyTime() + timeout);
}

bool FutureBase::wait(std::vector<std::shared_ptr<FutureBase>> futures, FutureState state,
                      const SteadyTimePoint& deadline) {
    QZ_FUTURE_TRACE(logger());
    return waitFor(futures, state, deadline);
}

bool FutureBase::waitFor(std::span<const std::shared_ptr<FutureBase>> futures, FutureState state,
                         const SteadyTimePoint& deadline) {
    const auto reachedState = [state](FutureState current) {
        return current == FutureState::Finished ||
               (state == FutureState::Running && current == FutureState::Running);
    };
    const auto reached = [&](const FutureBase& future) { return reachedState(future.getState()); };
    // Looked at after every wake-up: the futures already seen there are not
    // asked again: a wait on N futures asks N times plus once per wake-up
    // (the check below counts for the leading ones that have reached it).
    // Waiting for Finished, the waiter is woken only once the last future
    // not seen finished yet is done, when that future has a task to watch.
    std::size_t firstUnreached = 0;
    for (std::size_t i = 0; i < futures.size(); ++i) {
        const FutureState current = futures[i]->getState();
        if (current != FutureState::Pending && current != FutureState::Unavailable) {
            if (i == firstUnreached && reachedState(current)) {
                ++firstUnreached;
            }
            continue;
        }
        if (std::any_of(futures.begin(), futures.end(),
                        [](const auto& f) { return f->getID() == invalidID; })) {
            throw errors::WaitOnUnavailableFuture();
        }
        throw errors::WaitOnUnsubmittedFuture();
    }
    std::size_t lastUnreached = futures.size(); // those behind it have finished
    std::shared_ptr<WakeWhenWatchedFinishesListener> waker;
    const auto watchLastUnreached = [&] {
        while (lastUnreached > firstUnreached) {
            const FutureBase& last = *futures[lastUnreached - 1];
            std::shared_ptr<TaskBase> task = singleTaskOf(last);
            waker->watch(task);
            if (!task || !reached(last)) {
                return;
            }
            --lastUnreached;
        }
    };
    const auto allReached = [&] {
        while (firstUnreached < futures.size() && reached(*futures[firstUnreached])) {
            ++firstUnreached;
        }
        if (firstUnreached == futures.size()) {
            return true;
        }
        if (waker && state == FutureState::Finished) {
            watchLastUnreached();
        }
        return false;
    };
    const std::shared_ptr<iqm::Iqm> queueManager = iqm::Iqm::getCurrent();
    // Inside queued work nested as deep as it may go, this wait runs no
    // queued work: it blocks for work that finishes elsewhere (on a pool),
    // but a continuation would never run, so waiting for one is an error.
    if (queueManager && queueManager->atNestingLimit() && !allReached() &&
        std::any_of(futures.begin(), futures.end(),
                    [](const auto& future) { return needsInterpreterToFinish(*future); })) {
        throw errors::WaitNestingLimit(std::uint64_t{iqm::Iqm::kMaxNestedWork});
    }
    // Queued work and interrupt requests wake the queue manager themselves.
    std::optional<ScopedTaskFinishedListener> wakeOnFinish;
    // Let go of before the registration ends: a notification still under way
    // may hold the listener, but no longer the task it watched.
    std::unique_ptr<WakeWhenWatchedFinishesListener, void (*)(WakeWhenWatchedFinishesListener*)>
        unwatch(nullptr,
                [](WakeWhenWatchedFinishesListener* listener) { listener->watch(nullptr); });
    if (queueManager) {
        waker = std::make_shared<WakeWhenWatchedFinishesListener>(queueManager);
        wakeOnFinish.emplace(std::shared_ptr<TaskFinishedListener>(waker));
        unwatch.reset(waker.get());
    }
    const Seconds longestPass =
        queueManager && state == FutureState::Running ? kRunningLookInterval : kWaitSlice;
    SteadyTimePoint now = getCurrentSteadyTime();
    for (;;) {
        const SteadyTimePoint passEnd = now + std::min(longestPass, deadline - now);
        if (queueManager) {
            queueManager->processUntil(waitingQueueNames(), allReached, passEnd);
        } else {
            utInterruptState::ThrowIfInterruptPending();
            for (const auto& future : futures) {
                if (!future->doWait(state, passEnd)) {
                    break;
                }
            }
        }
        if (allReached()) {
            runParallelQueue();
            return true;
        }
        now = getCurrentSteadyTime();
        if (!(deadline > now)) {
            return false;
        }
    }
}

DvArrayVector FutureBase::fetchOutputs(std::vector<std::shared_ptr<FutureBase>> futures,
                                       bool uniformOutput, unsigned int numOutputs) {
    QZ_FUTURE_TRACE(logger());
    if (std::any_of(futures.begin(), futures.end(),
                    [](const auto& future) { return future->getID() == invalidID; })) {
        throw errors::FetchOutputsOnUnavailableFuture();
    }
    if (futures.size() >= 2) {
        bool afterEach = false;
        bool otherMulti = false;
        for (const auto& future : futures) {
            if (future->isMultiFuture()) {
                (std::string_view(future->getCosAliasName()) == "parallel.AfterEachFuture"
                     ? afterEach
                     : otherMulti) = true;
            }
        }
        if (afterEach && otherMulti) {
            throw errors::FetchOutputsMixFevalOnAllAfterEach();
        }
        if (otherMulti) {
            throw errors::FetchOutputsScalarFevalOnAll();
        }
        if (afterEach) {
            throw errors::FetchOutputsScalarAfterEachFuture();
        }
    }
    // Before anything is sized by it, the count is checked against the
    // fewest outputs any future has (none without futures).
    const auto fewest =
        std::min_element(futures.begin(), futures.end(), [](const auto& a, const auto& b) {
            return a->getNumOutputs() < b->getNumOutputs();
        });
    const unsigned int available = fewest == futures.end() ? 0 : (*fewest)->getNumOutputs();
    if (numOutputs > available) {
        throw errors::TooManyOutputsRequested(std::uint64_t{available}, std::uint64_t{numOutputs});
    }
    if (!std::all_of(futures.begin(), futures.end(),
                     [](const auto& future) { return future->getRead(); })) {
        waitFor(futures, FutureState::Finished,
                getCurrentSteadyTime() + Seconds(std::numeric_limits<double>::max()));
    }
    for (const auto& future : futures) {
        future->setRead(true);
    }

    const auto executionErrors = [] { return envelopeOf(errors::ExecutionErrors()); };
    if (futures.size() == 1) {
        raiseExecutionErrors(futures.front()->getError(), executionErrors);
    } else if (std::any_of(futures.begin(), futures.end(),
                           [](const auto& future) { return future->hasError(); })) {
        std::vector<std::exception_ptr> errors;
        errors.reserve(futures.size());
        for (const auto& future : futures) {
            errors.push_back(future->getError().getAsSingle());
        }
        raiseExecutionErrors(PerTaskVariant<std::exception_ptr>(std::move(errors)),
                             executionErrors);
    }

    if (numOutputs == 0) {
        return {};
    }
    if (uniformOutput && futures.size() >= 2) {
        // Output k of every future (each single, as checked above) goes
        // straight into the parts of output k, without a vector per future.
        DvArrayVector joined;
        joined.reserve(numOutputs);
        DvArrayVector parts;
        parts.reserve(futures.size());
        for (unsigned int k = 0; k < numOutputs; ++k) {
            parts.clear();
            for (const auto& future : futures) {
                parts.push_back(future->copyOfOutput(0, k));
            }
            joined.push_back(
                detail::concatenateVertically<errors::FetchOutputsConcatenationFailed>(parts));
        }
        return joined;
    }
    const OutputFormat format = uniformOutput ? OutputFormat::Concatenated : OutputFormat::Cell;
    std::vector<DvArrayVector> perFuture;
    perFuture.reserve(futures.size());
    for (const auto& future : futures) {
        perFuture.push_back(future->getOutputsAs(numOutputs, format));
    }
    return concatenateEach(std::move(perFuture), numOutputs);
}

std::tuple<FetchNextState, std::size_t, DvArrayVector>
FutureBase::fetchAt(std::shared_ptr<FutureBase> future, std::size_t index,
                    unsigned int numOutputs) {
    runParallelQueue();
    return std::tuple(FetchNextState::Fetched, index, future->doFetchNext(numOutputs));
}

std::tuple<FetchNextState, std::size_t, DvArrayVector>
FutureBase::fetchNextAmong(std::span<const std::shared_ptr<FutureBase>> futures,
                           unsigned int numOutputs, Seconds timeout) {
    bool someSubmitted = false;
    Candidates candidates;
    for (std::size_t i = 0; i < futures.size(); ++i) {
        FutureBase& future = *futures[i];
        if (future.isMultiFuture()) {
            return {FetchNextState::UnsupportedFutureType, 0, {}};
        }
        if (future.getID() == invalidID) {
            return {FetchNextState::InvalidFuture, 0, {}};
        }
        if (future.getRead()) {
            // Only futures that were waited on or fetched are read, so a read
            // future counts as submitted without asking its work for a state.
            someSubmitted = true;
            continue;
        }
        const FutureState state = future.getState();
        if (state == FutureState::Pending || state == FutureState::Unavailable) {
            continue;
        }
        someSubmitted = true;
        boost::shared_future<void> waitable = future.doGetWaitableFuture();
        if (waitable.is_ready()) {
            return fetchAt(futures[i], i, numOutputs);
        }
        candidates.push_back({i, std::move(waitable)});
    }
    if (candidates.empty()) {
        return {
            someSubmitted ? FetchNextState::NoUnreadFutures : FetchNextState::NotSubmitted, 0, {}};
    }
    if (const auto queueManager = iqm::Iqm::getCurrent();
        queueManager && queueManager->atNestingLimit() &&
        std::all_of(candidates.begin(), candidates.end(), [&](const auto& candidate) {
            return needsInterpreterToFinish(*futures[candidate.index]);
        })) {
        throw errors::WaitNestingLimit(std::uint64_t{iqm::Iqm::kMaxNestedWork});
    }
    const SteadyTimePoint deadline = getCurrentSteadyTime() + timeout;
    const auto ready = waitForAnyWithDequeue(candidates.cbegin(), candidates.cend(), deadline);
    if (ready == candidates.cend()) {
        return {FetchNextState::TimedOut, 0, {}};
    }
    return fetchAt(futures[ready->index], ready->index, numOutputs);
}

namespace {

// Runs the interpreter's queued work until a future that `drain` saw running
// has finished, none is left running, or the deadline passes; woken by the
// watched futures as they finish. That future, if one finished. Interpreter
// thread.
std::optional<std::size_t> waitForAnyWithDequeue(detail::FetchNextDrain& drain,
                                                 detail::FutureSpan futures,
                                                 const SteadyTimePoint& deadline) {
    const std::shared_ptr<iqm::Iqm> queueManager = waitingQueueManager();
    drain.beginWait(queueManager);
    const std::unique_ptr<detail::FetchNextDrain, void (*)(detail::FetchNextDrain*)> ending(
        &drain, [](detail::FetchNextDrain* waited) { waited->endWait(); });
    std::optional<std::size_t> finished;
    dequeueUntil(
        *queueManager,
        [&] {
            finished = drain.finishedSinceWaitBegan(futures);
            return finished || !drain.hasRunning(futures);
        },
        deadline);
    return finished;
}

// The drain of the last vector given to FutureBase::fetchNext on this thread,
// known by the address of its elements. Shared with the calls using it, so
// that a nested call may replace it.
struct RememberedVector {
    const void* elements = nullptr;
    std::shared_ptr<detail::FetchNextDrain> drain;
};

RememberedVector& rememberedVector() {
    thread_local RememberedVector remembered;
    return remembered;
}

std::shared_ptr<detail::FetchNextDrain>
rememberVector(const std::vector<std::shared_ptr<FutureBase>>& futures) {
    RememberedVector& remembered = rememberedVector();
    remembered.elements = futures.data();
    remembered.drain = std::make_shared<detail::FetchNextDrain>(futures);
    return remembered.drain;
}

} // namespace

std::tuple<FetchNextState, std::size_t, DvArrayVector>
FutureBase::fetchNextThrough(detail::FetchNextDrain& drain,
                             std::span<const std::shared_ptr<FutureBase>> futures,
                             unsigned int numOutputs, Seconds timeout) {
    // Walks where the drain cannot be used: nested in another call's wait on it.
    const detail::FetchNextDrain::Lease lease(drain);
    if (!lease) {
        return fetchNextAmong(futures, numOutputs, timeout);
    }
    drain.checkEnds(futures);
    if (drain.takeFirstUse()) {
        return fetchNextAmong(futures, numOutputs, timeout);
    }
    std::optional<SteadyTimePoint> deadline;
    for (;;) {
        if (const std::optional<std::size_t> finished = drain.nextFinished(futures)) {
            return fetchAt(futures[*finished], *finished, numOutputs);
        }
        if (const std::optional<FetchNextState> stopped = drain.stopper()) {
            return {*stopped, 0, {}};
        }
        drain.promoteSubmitted(futures);
        if (!drain.hasRunning(futures)) {
            return {drain.sawRead() ? FetchNextState::NoUnreadFutures
                                    : FetchNextState::NotSubmitted,
                    0,
                    {}};
        }
        // At the queue manager's nesting limit the walk waits instead: it
        // tells whether anything it would wait for can finish without queued
        // work (nothing is read yet, so its answer is this call's).
        if (waitingQueueManager()->atNestingLimit()) {
            return fetchNextAmong(futures, numOutputs, timeout);
        }
        if (!deadline) {
            deadline = getCurrentSteadyTime() + timeout;
        }
        if (const auto finished = waitForAnyWithDequeue(drain, futures, *deadline)) {
            return fetchAt(futures[*finished], *finished, numOutputs);
        }
        if (drain.hasRunning(futures)) {
            return {FetchNextState::TimedOut, 0, {}};
        }
        // Every future it waited for turned out read: answer afresh.
    }
}

std::tuple<FetchNextState, std::size_t, DvArrayVector>
FutureBase::fetchNext(const std::vector<std::shared_ptr<FutureBase>>& futures,
                      unsigned int numOutputs, Seconds timeout) {
    const RememberedVector& remembered = rememberedVector();
    std::shared_ptr<detail::FetchNextDrain> drain = remembered.drain;
    if (!drain || remembered.elements != futures.data()) {
        drain = rememberVector(futures);
    }
    try {
        return fetchNextThrough(*drain, futures, numOutputs, timeout);
    } catch (const detail::StaleFutures&) {
        return fetchNextThrough(*rememberVector(futures), futures, numOutputs, timeout);
    }
}

bool FutureBase::isEqual(const std::vector<std::shared_ptr<FutureBase>>& a,
                         const std::vector<std::shared_ptr<FutureBase>>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const auto& x, const auto& y) { return x->getID() == y->getID(); });
}

DvArrayVector FutureBase::doFetchNext(unsigned int numOutputs) {
    if (numOutputs > numOutputs_) {
        throw errors::TooManyOutputsRequested(std::uint64_t{numOutputs_},
                                              std::uint64_t{numOutputs});
    }
    setRead(true);
    const std::shared_ptr<FutureBase> self = shared_from_this();
    if (self->hasError()) { // the error to raise is built only when needed
        raiseExecutionErrors(self->getError(),
                             [] { return envelopeOf(errors::FetchNextFutureErrored()); });
    }
    if (numOutputs == 0) {
        return {};
    }
    return concatenateEach({self->getOutputsAs(numOutputs, OutputFormat::Concatenated)},
                           numOutputs);
}

} // namespace parallel::language::future
