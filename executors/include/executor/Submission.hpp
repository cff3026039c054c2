#pragma once

// The submission of work to an executor whose workers take their tasks from
// a PinnedQueue: the checks, the tasks and their future, their first
// notifications, and the refusal once the executor is shutting down. Both
// Executor::submit and Executor::submitOnAll come down to one call.
//
//   makeTask(function, numOutputs, inputs, pinnedWorker) -> std::shared_ptr<Task>
//       makes one task (pinnedWorker: std::nullopt for any worker); it may
//       refuse the work by throwing. The future is made only afterwards.
//       `inputs` are the future's shared copies of the caller's: the task
//       may keep and read them, never write them (a worker that hands them
//       to a function copies them first).
//
//   makeTask(function, numOutputs, inputs, pinnedWorker, allocator)
//       the same, for a makeTask that also takes a PairAllocator<Task>: it
//       makes the task with std::allocate_shared through it, and the task
//       and its future share one heap block (Executor::submit only).
//
// Threads: any thread.

#include <executor/ExecutorErrors.hpp>
#include <executor/PairBlock.hpp>
#include <executor/PinnedQueue.hpp>

#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/FevalOnAllFuture.hpp>
#include <parallel/language/future/VectorMultiTask.hpp>

#include <kcos/COSInterface.hpp>
#include <matrix/dvArray.hpp>

#include <memory>
#include <optional>
#include <span>
#include <type_traits>
#include <vector>

namespace executor {

// Refuses anything but a function handle: KORVEX:executor:InvalidFunction.
void checkFunction(const dvArray* function);

// Refuses what no worker could run, before anything is sized by the count:
// KORVEX:executor:InvalidFunction for a null or non-function `function`, the
// host's maxlhs error for more than kcos::kMaxNumOutputs outputs.
void checkSubmission(const boost::intrusive_ptr<dvArray>& function, unsigned int numOutputs);

// Brings every task to Pending, then every one to Queued. Before any worker
// can see them: a task still Unavailable would make a future of many tasks
// Unavailable while another one runs, and Running must never come first.
void markSubmitted(std::span<const std::shared_ptr<WorkerTask>> tasks);

// Cancels the tasks that a closed queue refused, then throws
// KORVEX:executor:PoolShutDown.
[[noreturn]] void refuseAfterShutdown(std::span<const std::shared_ptr<WorkerTask>> tasks);

// Executor::submit: one task, for any worker.
template <class Task, class MakeTask>
std::shared_ptr<parallel::language::future::FevalFuture>
submitTo(PinnedQueue<Task>& queue, boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
         DvArrayVector inputs, kcos::COSInterface* parent, MakeTask makeTask) {
    using parallel::language::future::FevalFuture;
    checkSubmission(function, numOutputs);
    parallel::language::future::InputCopies copies(std::move(inputs));
    std::shared_ptr<Task> task;
    std::shared_ptr<FevalFuture> future;
    if constexpr (std::is_invocable_v<MakeTask&, const boost::intrusive_ptr<dvArray>&, unsigned int,
                                      const DvArrayVector&, std::optional<std::size_t>,
                                      PairAllocator<Task>>) {
        const PairBlock::Holder block(PairBlock::roomFor<Task>() +
                                      PairBlock::roomFor<FevalFuture>());
        task = makeTask(function, numOutputs, copies.arrays, std::nullopt,
                        PairAllocator<Task>(block.get()));
        future = std::allocate_shared<FevalFuture>(PairAllocator<FevalFuture>(block.get()), parent,
                                                   std::move(function), numOutputs,
                                                   std::move(copies), task);
    } else {
        task = makeTask(function, numOutputs, copies.arrays, std::nullopt);
        future = std::make_shared<FevalFuture>(parent, std::move(function), numOutputs,
                                               std::move(copies), task);
    }
    task->markPendingAndQueued(); // what markSubmitted does for one task
    if (!queue.push(task)) {
        const std::shared_ptr<WorkerTask> asWorkerTask = task;
        refuseAfterShutdown({&asWorkerTask, 1});
    }
    return future;
}

// Executor::submitOnAll: task i pinned to worker i, gathered in one future.
template <class Task, class MakeTask>
std::shared_ptr<parallel::language::future::FevalOnAllFuture>
submitOnAllTo(PinnedQueue<Task>& queue, boost::intrusive_ptr<dvArray> function,
              unsigned int numOutputs, DvArrayVector inputs, kcos::COSInterface* parent,
              MakeTask makeTask) {
    checkSubmission(function, numOutputs);
    const parallel::language::future::InputCopies copies(inputs); // read by every task
    std::vector<std::shared_ptr<Task>> tasks;
    tasks.reserve(queue.getNumWorkers());
    for (std::size_t i = 0; i < queue.getNumWorkers(); ++i) {
        tasks.push_back(makeTask(function, numOutputs, copies.arrays, i));
    }
    const std::vector<std::shared_ptr<WorkerTask>> asWorkerTasks(tasks.begin(), tasks.end());
    auto future = std::make_shared<parallel::language::future::FevalOnAllFuture>(
        parent, std::move(function), numOutputs, std::move(inputs),
        std::make_shared<parallel::language::future::VectorMultiTask>(
            std::vector<std::shared_ptr<parallel::language::future::TaskBase>>(tasks.begin(),
                                                                               tasks.end())));
    markSubmitted(asWorkerTasks);
    if (!queue.pushPinned(std::move(tasks))) {
        refuseAfterShutdown(asWorkerTasks);
    }
    return future;
}

} // namespace executor
