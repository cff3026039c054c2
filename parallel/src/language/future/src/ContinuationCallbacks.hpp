#pragma once

// The callbacks that copy a continuation's inputs and outputs into the cache
// of its future, on the interpreter's thread.

#include <parallel/language/future/ContinuationTask.hpp>

#include "InterpreterSubmission.hpp"

#include <kvm/KVM.hpp>

#include <memory>

namespace parallel::language::future::detail {

// When `task` starts running, `setInputs(future, task.takeInputs())`; when
// it finishes, `setOutputsOrError(future, task.getOutputsOrError())`; each on
// the calling thread's interpreter (at once when the task event happens
// there, posted otherwise) and only while `future` exists. The callbacks name
// the interpreter by its identifier and hold the future weakly, so that
// neither is kept alive by a continuation that never runs. Interpreter thread.
// With `interpreter`, the identifier of the calling thread's interpreter,
// resolved by the caller.
template <class Future, class SetInputs, class SetOutputsOrError>
void attachCacheCallbacks(const std::shared_ptr<ContinuationTask>& task,
                          const std::weak_ptr<Future>& future, const char* sourceLabel,
                          kvutil::contextmgr::KcrID interpreter, SetInputs setInputs,
                          SetOutputsOrError setOutputsOrError) {
    const kvm::Target target = interpreter;
    // The running promise of a task that never runs stays pending: this
    // callback must not hold the task, or the task would hold itself.
    const std::weak_ptr<ContinuationTask> weakTask = task;
    // Boost runs this inside doNotifyRunning with TaskBase's mutex held: it
    // takes only the continuation's own mutex (takeInputs).
    task->afterRunningThen(boost::launch::sync, [=] {
        runOnInterpreter(
            target,
            [=] {
                const auto live = future.lock();
                const auto running = weakTask.lock();
                if (live && running) {
                    setInputs(*live, running->takeInputs());
                }
            },
            sourceLabel);
    });
    task->afterFinishThen(boost::launch::sync, [=] {
        runOnInterpreter(
            target,
            [=] {
                if (const auto live = future.lock()) {
                    setOutputsOrError(*live, task->getOutputsOrError());
                }
            },
            sourceLabel);
    });
}

template <class Future, class SetInputs, class SetOutputsOrError>
void attachCacheCallbacks(const std::shared_ptr<ContinuationTask>& task,
                          const std::weak_ptr<Future>& future, const char* sourceLabel,
                          SetInputs setInputs, SetOutputsOrError setOutputsOrError) {
    const std::shared_ptr<kvm::KVM> interpreter =
        kvm::Factory::getCurrentLocalKVM(kvm::NoActiveUSMBehavior::ReturnNull);
    attachCacheCallbacks(task, future, sourceLabel,
                         interpreter ? interpreter->getID() : kvutil::contextmgr::UndefinedKcrID,
                         std::move(setInputs), std::move(setOutputsOrError));
}

} // namespace parallel::language::future::detail
