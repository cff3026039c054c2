#pragma once

#include <parallel/language/future/Export.hpp>
#include <parallel/language/future/FetchNextState.hpp>
#include <parallel/language/future/FutureState.hpp>
#include <parallel/language/future/OutputFormat.hpp>
#include <parallel/language/future/PerTaskVariant.hpp>
#include <parallel/language/future/TimeTypes.hpp>

#include <kcos/COSInterface.hpp>
#include <matrix/dvArray.hpp>

#include <boost/thread/future.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <tuple>
#include <vector>

namespace parallel::language::future {

namespace detail {
class FetchNextDrain;
}

// The next future ID: 1, 2, 3, ... for the life of the library. Any thread;
// one sequentially consistent fetch-and-add.
QZ_FUTURE_API long long getNextID();

// Inputs replaced by shared copies of their own (null stays null): the values
// as they were when copied, whatever becomes of the caller's arrays. A future
// keeps them as they are; an executor may read the same arrays meanwhile,
// and neither writes them.
struct QZ_FUTURE_API InputCopies {
    explicit InputCopies(DvArrayVector inputs);
    DvArrayVector arrays;
};

// The base of every future the language sees. It owns what a future has
// whatever executes its work: the ID, the creation time, the function, the
// number of outputs, the inputs, the cached outputs-or-error, the Read flag
// and the handles on its language objects. Everything about execution is
// asked of the subclass through the private do* slots.
//
// Ownership: always held through std::shared_ptr<FutureBase>. Held arrays are
// property arrays, tied to the future's language object once it has one.
// Destroying a future never cancels its work.
//
// Threads: FutureBase takes no lock. Its non-static operations are called
// from one thread at a time (the language's thread in the class binding); the
// static operations on vectors of futures run on the interpreter thread.
// Only the ID counter is shared between futures. A kind whose waits may come
// from several threads guards what they share itself (AnyTaskRunning).
class QZ_FUTURE_API FutureBase : public std::enable_shared_from_this<FutureBase> {
public:
    static constexpr long long invalidID = -1;

    // For futures that run `function` on inputs (one input vector, or one per
    // task). An empty `id` draws the next ID.
    FutureBase(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
               unsigned int numOutputs, PerTaskVariant<DvArrayVector> inputs,
               std::optional<long long> id);
    // For futures that run `function` on one input vector, copied already.
    FutureBase(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
               unsigned int numOutputs, InputCopies inputs, std::optional<long long> id);
    // For continuation futures: run `function` once `predecessors` have
    // finished. The predecessors are kept as an object array of their
    // language objects; the future has no inputs of its own. Interpreter
    // thread (makes language objects).
    FutureBase(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
               unsigned int numOutputs,
               const std::vector<std::shared_ptr<FutureBase>>& predecessors,
               std::optional<long long> id);
    // The same, given the object array toKorvexArray(predecessors, {}) makes,
    // which the future holds as it is (its task may hold the same array).
    FutureBase(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
               unsigned int numOutputs, boost::intrusive_ptr<dvArray> predecessorArray,
               std::optional<long long> id);
    // An invalid future: ID -1, no function, no inputs.
    FutureBase();
    virtual ~FutureBase();
    FutureBase(const FutureBase&) = delete;
    FutureBase& operator=(const FutureBase&) = delete;

    // Time helpers shared by tasks and futures.
    static WallClockTimePoint getCurrentTime() { return clock::getCurrentTime(); }
    static SteadyTimePoint getCurrentSteadyTime() { return clock::getCurrentSteadyTime(); }
    static Seconds calcDuration(const WallClockTimePoint& start, const WallClockTimePoint& finish) {
        return clock::calcDuration(start, finish);
    }

    long long getID() const noexcept { return id_; }
    bool isInvalid() const noexcept { return id_ == invalidID; }
    unsigned int getNumOutputs() const noexcept { return numOutputs_; }
    const kcos::COSInterface* getParent() const noexcept { return parent_.get(); }
    // A shared copy of the function; null when there is none.
    boost::intrusive_ptr<dvArray> getFunction() const;
    bool getRead() const noexcept { return read_; }

    FutureState getState() const { return doGetState(); }
    bool isMultiFuture() const { return doIsMultiFuture(); }
    const char* getCosAliasName() const { return doGetCosAliasName(); }
    PerTaskVariant<std::u16string> getDiary() const { return doGetDiary(); }
    WallClockTimePoint getStartTime() const { return doGetStartTime(); }
    WallClockTimePoint getFinishTime() const { return doGetFinishTime(); }
    // The creation time, or the start time of work that started earlier.
    WallClockTimePoint getCreateTime() const;
    Seconds getRunningDuration() const;

    // Cancels the work unless the future is unavailable.
    void cancel();
    void afterFinishThen(boost::launch policy, std::function<void()> callback);

    // The inputs read back as vectors; an absent entry gives an empty optional.
    PerTaskVariant<std::optional<DvArrayVector>> getInputs() const;
    // The input cell (single), or a 1-by-N cell of the tasks' input cells.
    matrix::unique_dvArray getInputsAsDvArray() const;

    // The getters below fill the outputs-or-error cache once the work has
    // finished; before that they see neither outputs nor an error. Errors of
    // the work are returned, never thrown.
    PerTaskVariant<std::optional<DvArrayVector>> getOutputs();
    matrix::unique_dvArray getOutputsAsDvArray();
    PerTaskVariant<std::exception_ptr> getError();
    matrix::unique_dvArray getErrorAsDvArray();
    bool hasError();
    // Output k of every task that has outputs, joined per `format`: one
    // array per output. Throws FetchOutputsConcatenationFailed when the
    // concatenated form cannot be built.
    DvArrayVector getOutputsAs(unsigned int numOutputs, OutputFormat format);

    // The arrays this future owns as properties (function, inputs, cache),
    // not copied; null entries are left out.
    std::vector<dvArray*> getOwnedResources();

    // The predecessors of a continuation future; empty for other futures.
    // Interpreter thread.
    std::vector<std::shared_ptr<FutureBase>> getPredecessors() const;

    // Waits until every future has at least reached `state` (Running or
    // Finished), running the interpreter's queued work as it comes and
    // honouring user interrupts at once. True when all got there before the
    // deadline. Throws WaitOnUnavailableFuture / WaitOnUnsubmittedFuture for
    // futures that cannot be waited on, and WaitNestingLimit when queued work
    // is nested as deep as it may go and a continuation has not finished.
    // Interpreter thread.
    static bool wait(std::vector<std::shared_ptr<FutureBase>> futures, FutureState state,
                     Seconds timeout);
    static bool wait(std::vector<std::shared_ptr<FutureBase>> futures, FutureState state,
                     const SteadyTimePoint& deadline);

    // Waits for every future to finish, marks them read, raises the errors
    // of failed work as one ExecutionErrors error, and returns `numOutputs`
    // arrays: output k of all futures concatenated (uniform output) or as
    // cells. Interpreter thread.
    static DvArrayVector fetchOutputs(std::vector<std::shared_ptr<FutureBase>> futures,
                                      bool uniformOutput, unsigned int numOutputs);

    // Takes the first unread finished future (waiting up to `timeout` for
    // one), marks it read and returns its index and `numOutputs` outputs.
    // Interpreter thread.
    //
    // A drain (one call per future on the same vector) costs O(1) per call
    // amortised: each thread remembers what it learnt about the last vector
    // it was given, known by the address of its elements, their number and
    // the futures at its ends, and looks again only at entries it has not
    // seen read. Every entry it does look at is checked against what it
    // remembers, but an entry replaced in place among those it skips is
    // not seen: give a vector whose entries were replaced a new allocation
    // (or use another vector object) to have it looked at afresh.
    static std::tuple<FetchNextState, std::size_t, DvArrayVector>
    fetchNext(const std::vector<std::shared_ptr<FutureBase>>& futures, unsigned int numOutputs,
              Seconds timeout);

    // Conversions between futures and object arrays of the language class
    // "parallel.Future" (interpreter thread; the class must be registered).
    // A future keeps one language object for its whole life: the first
    // conversion wraps it into a new object, every later one reuses that
    // object. `dims` empty gives a 1-by-N array; otherwise their product
    // must be N (std::invalid_argument).
    static matrix::unique_dvArray
    toKorvexArray(const std::vector<std::shared_ptr<FutureBase>>& futures,
                  const std::vector<std::size_t>& dims);
    // The futures of an object array, in element order. Null and deleted
    // elements become unavailable futures; an element that is an object of
    // another class raises NonFutureElement.
    static std::vector<std::shared_ptr<FutureBase>> fromKorvexArray(const dvArray* array);
    static std::shared_ptr<FutureBase> fromKorvexCosi(kcos::COSInterface* object);

    // Whether two vectors hold futures with equal IDs, position by position
    // (two unavailable futures are equal). Any thread.
    static bool isEqual(const std::vector<std::shared_ptr<FutureBase>>& a,
                        const std::vector<std::shared_ptr<FutureBase>>& b);

protected:
    // For multi-task subclasses: per-task inputs and cache of `n` empty entries.
    void initMultiTaskInputs(std::size_t n);
    void initMultiTaskOutputsOrError(std::size_t n);
    void setInputs(const PerTaskVariant<DvArrayVector>& inputs);
    void setInputs(std::size_t index, const DvArrayVector& inputs);
    void setOutputsOrError(const PerTaskVariant<OutputsOrError>& outputsOrError);
    void setOutputsOrError(std::size_t index, const OutputsOrError& outputsOrError);

private:
    virtual void doCancel() = 0;
    virtual boost::shared_future<void> doGetWaitableFuture() = 0;
    virtual bool doWait(FutureState state, SteadyTimePoint deadline) = 0;
    virtual void doAfterFinishThen(boost::launch policy, std::function<void()> callback) = 0;
    virtual PerTaskVariant<std::u16string> doGetDiary() const = 0;
    virtual WallClockTimePoint doGetFinishTime() const = 0;
    virtual PerTaskVariant<OutputsOrError> doGetOutputsOrError() const = 0;
    virtual WallClockTimePoint doGetStartTime() const = 0;
    virtual FutureState doGetState() const = 0;
    virtual bool doIsMultiFuture() const;
    // Where a single future keeps the outputs of its finished work unwrapped
    // (see outputsOrError_); null, as here, when it always builds the cell.
    virtual DvArrayVector* doOutputsToWrap() const noexcept;
    virtual const char* doGetCosAliasName() const = 0;

    void initOutputsOrErrorIfNeeded();
    // Builds the single input cell from inputsToWrap_, once.
    void wrapInputsIfNeeded() const;
    // Builds the single outputs cell from the outputs kept unwrapped, once.
    void wrapOutputsIfNeeded();
    // A copy of output k of entry `i` of the cache (null when it has no
    // outputs, or fewer); the cache is filled already.
    boost::intrusive_ptr<dvArray> copyOfOutput(std::size_t i, unsigned int k) const;
    // Copies of the outputs of entry `i` of the cache; empty when it has none.
    std::optional<DvArrayVector> copiesOfOutputs(std::size_t i) const;
    // Holds `function` (see functionToWrap_); null stays null.
    void keepFunction(boost::intrusive_ptr<dvArray> function);
    // Makes function_ from functionToWrap_, once.
    void wrapFunctionIfNeeded() const;
    bool isOutputsOrErrorCached() const;
    DvArrayVector doFetchNext(unsigned int numOutputs);
    // fetchNext by what `drain` remembers of `futures` (which it must have
    // been made for: detail::StaleFutures otherwise), or by a walk over all
    // of them on the drain's first use and when a call this one is nested
    // in is using the drain.
    static std::tuple<FetchNextState, std::size_t, DvArrayVector>
    fetchNextThrough(detail::FetchNextDrain& drain,
                     std::span<const std::shared_ptr<FutureBase>> futures, unsigned int numOutputs,
                     Seconds timeout);
    // The fetch of `future`, at `index`: the queued "parallel" work runs
    // first (the future is owned through it), then doFetchNext.
    static std::tuple<FetchNextState, std::size_t, DvArrayVector>
    fetchAt(std::shared_ptr<FutureBase> future, std::size_t index, unsigned int numOutputs);
    // wait, on futures the caller holds for the whole call.
    static bool waitFor(std::span<const std::shared_ptr<FutureBase>> futures, FutureState state,
                        const SteadyTimePoint& deadline);
    // fetchNext by a walk over every future, from the first.
    static std::tuple<FetchNextState, std::size_t, DvArrayVector>
    fetchNextAmong(std::span<const std::shared_ptr<FutureBase>> futures, unsigned int numOutputs,
                   Seconds timeout);
    friend class detail::FetchNextDrain; // reads waitable futures
    void setRead(bool read) noexcept { read_ = read; }
    // Remembers `object` as the own language object and accounts every owned
    // array's memory to it.
    void setCosi(kcos::COSInterface* object);
    friend struct FutureBaseAccess;
    // Accounts `array`'s memory to the own language object, once there is one.
    void setChildParentRoot(const dvArray* array);

    WallClockTimePoint createTime_{};
    // The function as a property array. A function handle, an immutable
    // value, is held as given (functionToWrap_) until the property array is
    // first needed.
    mutable PropertyDvArray function_;
    mutable boost::intrusive_ptr<dvArray> functionToWrap_;
    long long id_ = invalidID;
    unsigned int numOutputs_ = 0;
    bool read_ = false;                 // next to id_: both read on every fetchNext visit
    mutable bool inputsWrapped_ = true; // false while inputsToWrap_ holds the inputs
    bool outputsWrapped_ = true;        // false while doOutputsToWrap() holds the outputs
    kcos::COSInterfacePtr parent_;
    PropertyDvArray predecessors_;
    // The inputs as property cells, one per task. A single future keeps its
    // inputs as shared copies (inputsToWrap_, which its executor may read
    // too) until a cell is first needed: a future that never meets the
    // language never builds one.
    mutable PerTaskVariant<PropertyDvArray> inputs_;
    mutable DvArrayVector inputsToWrap_;
    // The outputs-or-error cache, one entry per task. A single future without
    // a language object, of a kind that has room for it (doOutputsToWrap),
    // keeps the outputs of its finished work as the work gave them (shared
    // with the task, read only) until a cell is first needed; its entry stays
    // empty meanwhile.
    PerTaskVariant<OutputsOrErrorPropertyDvArray> outputsOrError_;
    kcos::COSInterfacePtr cosi_;
};

} // namespace parallel::language::future
