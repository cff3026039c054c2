#pragma once

#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/TaskBase.hpp>

#include <foundation/core/sync/Mutex.hpp>
#include <foundation/korvexdata/Array.hpp>
#include <kvm/Future.hpp>
#include <kvm/TaskReference.hpp>

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace parallel::language::future {

struct ContinuationWork;
class FinishingDelegate;

// The task of a continuation: a language function run once on the
// interpreter's own thread after its predecessor futures have finished, on
// their outputs (or on the futures themselves).
//
// Life of a continuation:
//   build:   Unavailable -> Queued; the work is submitted at once to the
//            interpreter's command distributor: ready when every predecessor
//            has already finished, otherwise held back (not ready).
//   last predecessor finishes (its thread): a held request is made ready.
//   work item (interpreter thread, at a dequeue point of "parallel"): makes
//            the arguments -> Running -> calls the function -> stores outputs.
//   request completes (thread that completes it): -> Finished.
//   cancel (any thread): -> Finished (cancelled); a request that has not
//            started never runs.
// Arguments that cannot be made (a predecessor failed, concatenation failed)
// take the task from Queued to Finished without a start time; every failure
// is the task's error, read through getOutputsOrError.
//
// Ownership: made and held through std::shared_ptr by build only; the command
// distributor holds the request's delegate, and with it the task, until the
// request is done (the work item refers to the task without owning it); the
// delegate stores the request's error in the task before it reports
// Finished. The task holds its request weakly (its distributor's weak
// pointer and the request's ID).
//
// Threads: build on the interpreter thread. The task's own mutex guards the
// input arguments, the outputs and the request's error only; state and times
// are TaskBase's.
class QZ_FUTURE_API ContinuationTask : public TaskBase {
    struct Token {};

public:
    using RequestResult = std::vector<foundation::korvexdata::Array>;

    // Submits the work of running `function` for `numOutputs` outputs once
    // every future of `predecessors` (at least one) has finished, in their
    // order. Without `passFuture` the function gets the first M outputs of
    // the predecessors (M: the fewest any gives), each output concatenated
    // across predecessors with "vertcat" when there are several; with it, one
    // "parallel.Future" array of the predecessors shaped `predecessorSize`.
    // Returns the task Queued. Throws std::invalid_argument for a null
    // function or no predecessors. Interpreter thread.
    static std::shared_ptr<ContinuationTask>
    build(boost::intrusive_ptr<dvArray> function, std::size_t numOutputs,
          const std::vector<std::shared_ptr<FutureBase>>& predecessors,
          std::vector<std::size_t> predecessorSize, bool passFuture);
    // The same, given `predecessorArray`, the object array of the
    // predecessors that FutureBase::toKorvexArray(predecessors, {}) makes:
    // the task holds it (a reference, not a copy), so that a future may share
    // it. Nothing may change the array afterwards. With `predecessorIndex`,
    // the array may hold more futures: the task follows its element
    // `predecessorIndex` only, which must be the one future of
    // `predecessors`. Interpreter thread.
    static std::shared_ptr<ContinuationTask>
    build(boost::intrusive_ptr<dvArray> function, std::size_t numOutputs,
          const std::vector<std::shared_ptr<FutureBase>>& predecessors,
          boost::intrusive_ptr<dvArray> predecessorArray, std::vector<std::size_t> predecessorSize,
          bool passFuture, std::optional<std::size_t> predecessorIndex = std::nullopt);

    // The interpreter of the calling thread (undefined without one) and its
    // command distributor (null without one), resolved once for several
    // builds. Interpreter thread.
    struct Destination {
        kvutil::contextmgr::KcrID kcrID = kvutil::contextmgr::UndefinedKcrID;
        std::shared_ptr<cmddistributor::CmdDistributor> distributor;

        static Destination current();
    };
    // The same, submitted to `destination`, which must be current().
    static std::shared_ptr<ContinuationTask>
    build(const Destination& destination, boost::intrusive_ptr<dvArray> function,
          std::size_t numOutputs, std::span<const std::shared_ptr<FutureBase>> predecessors,
          boost::intrusive_ptr<dvArray> predecessorArray, std::vector<std::size_t> predecessorSize,
          bool passFuture, std::optional<std::size_t> predecessorIndex);

    explicit ContinuationTask(Token);
    ~ContinuationTask() override;

    // The arguments the function was called with, once: a second call (or a
    // call before the work started) gives none. Any thread.
    DvArrayVector takeInputs() QZ_EXCLUDES(mutex_);

private:
    friend struct ContinuationWork;
    friend class FinishingDelegate;

    // Cancels the request unless it has started running.
    void doCancel() override;
    // The function's outputs, handed out once (later calls give none), or
    // the request's error; ExecutionCancelled for a cancelled request.
    OutputsOrError doGetOutputsOrError() override QZ_EXCLUDES(mutex_);
    // Always empty: a continuation keeps no diary.
    std::u16string doGetDiary() override;

    // Releases a host array under its interpreter's rules (posted to a
    // blessed interpreter, otherwise under the interpreter lock). Any thread.
    struct InterpreterArrayRelease {
        kvutil::contextmgr::KcrID kcrID;
        void operator()(dvArray* array) const noexcept;
    };
    using InterpreterOwnedArray = std::unique_ptr<dvArray, InterpreterArrayRelease>;

    // What the work item works on: set by build before submission, then the
    // interpreter thread's only; the arrays are released once it has run
    // (or with the task, when it never runs).
    InterpreterOwnedArray function_;
    InterpreterOwnedArray predecessors_;          // an object array of the predecessors' objects
    std::optional<std::size_t> predecessorIndex_; // the one element followed; empty: all
    std::size_t numOutputs_ = 0;
    std::vector<std::size_t> predecessorSize_;
    bool passFuture_ = false;

    foundation::core::sync::Mutex mutex_;
    DvArrayVector inputArguments_ QZ_GUARDED_BY(mutex_);
    DvArrayVector outputs_ QZ_GUARDED_BY(mutex_);
    std::exception_ptr requestError_ QZ_GUARDED_BY(mutex_); // the request's, once Finished
    // The request: its distributor (empty until submitted, and without one)
    // and its ID there.
    std::weak_ptr<cmddistributor::CmdDistributor> distributor_;
    cmddistributor::IDType requestID_{};
};

} // namespace parallel::language::future
