#pragma once

// How a future over several tasks answers from them: its state and times
// folded from the tasks', its diaries and outputs-or-errors per task, and
// waits and callbacks over all of them (the wait for a first running task is
// AnyTaskRunning, in MultiTask.hpp). The count is asked afresh each time.
// Any thread; thread safety is the tasks'.

#include <parallel/language/future/MultiTask.hpp>
#include <parallel/language/future/PerTaskVariant.hpp>

#include <functional>

namespace parallel::language::future::detail {

// Unavailable if any task is; else Running if any runs, or if some but not
// all have finished; Finished when all have (and for no tasks); Pending when
// all are; Queued otherwise.
FutureState foldState(MultiTask& tasks);
// The earliest start time that is set; 0 when none is.
WallClockTimePoint foldStartTime(MultiTask& tasks);
// The latest finish time; 0 while any task has none.
WallClockTimePoint foldFinishTime(MultiTask& tasks);

PerTaskVariant<std::u16string> diariesOf(MultiTask& tasks);
PerTaskVariant<OutputsOrError> outputsOrErrorsOf(MultiTask& tasks);

// Cancels every task, in order.
void cancelEach(MultiTask& tasks);
// Waits for each task to finish in turn, stopping at the first that does not
// by `deadline`; true when all did.
bool waitForEachFinished(MultiTask& tasks, const SteadyTimePoint& deadline);
// Runs `callback` under `policy` once every task has finished.
void afterAllFinishedThen(MultiTask& tasks, boost::launch policy, std::function<void()> callback);

} // namespace parallel::language::future::detail
