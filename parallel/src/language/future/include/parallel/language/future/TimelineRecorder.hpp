#pragma once

#include <parallel/language/future/Export.hpp>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace parallel::language::future {

class TaskBase;

// What a timeline knows of one task. Times are microseconds since the
// recorder started; a negative time is an event not seen while recording.
struct TimelineEntry {
    enum class Outcome { Unfinished, Completed, Failed, Cancelled };

    long long futureId = -1;   // -1 when no future was made for it while recording
    std::string futureKind;    // "FevalFuture", "AfterEachFuture", ...; empty without a future
    std::string function;      // the function handle's name, when it has one
    std::string worker;        // the lane of the thread that ran it; empty when it never ran
    double createdUs = -1.0;   // its future was made
    double queuedUs = -1.0;    // the executor queued it (the last time, after a re-queue)
    double startedUs = -1.0;   // it started running (the last time)
    double finishedUs = -1.0;  // the executor reported it finished
    double cancelledUs = -1.0; // it was cancelled (at most once)
    Outcome outcome = Outcome::Unfinished;
};

// Records the life of every task, whatever its executor, while it exists:
// when each future is made, and when its tasks are queued, start, finish or
// are cancelled, and which thread ran them. Turned on by constructing one and
// off by destroying it; at most one records at a time.
//
// A finished task counts as completed unless its failure is recorded: by its
// executor (recordFailure), or when its error is handed out through
// TaskBase::getOutputsOrError. The recorder itself never asks a task for its
// outputs, which some tasks hand out once only.
//
// Cost: with no recorder, each task notification and each new future pays one
// relaxed atomic load. While recording, each event costs a read of the
// processor's time-stamp counter (of steady_clock where that counter can't be
// trusted) and a 16-byte append to the notifying thread's own log (a new
// future 16 bytes more): no lock is taken and no memory is shared with other
// threads but for the log's first event (which registers the thread's log
// under the recorder's mutex) and a new 16 KiB block of the log every 1,000
// or so events, taken from the blocks that earlier recordings left (up to
// 32 MiB are kept) or newly allocated. The logs are merged, in time order,
// and the counts turned into times when the entries are read.
//
// A task's events are matched by TaskBase::getSerial(), never reused, so a
// task made after another one died at the same address gets an entry of its
// own.
//
// Threads and memory ordering: any thread constructs, reads and destroys a
// recorder; events come from every thread. Each thread appends to a log of
// its own and publishes each event with a release store of the log's size;
// entries() reads every log's size with acquire and so sees every event whose
// append finished before the call, and any event that happened before one of
// those (its thread published it first). An event racing with entries(), or
// with the start or end of the recording, may or may not be in it. A thread
// keeps its log of a recording that has ended until its first event of the
// next recording, or its exit; no event touches the recorder after it is
// destroyed.
class QZ_FUTURE_API TimelineRecorder {
public:
    // Throws std::logic_error when another recorder is recording.
    TimelineRecorder();
    ~TimelineRecorder();
    TimelineRecorder(const TimelineRecorder&) = delete;
    TimelineRecorder& operator=(const TimelineRecorder&) = delete;

    // One entry per task seen, in the order first seen. Any thread.
    std::vector<TimelineEntry> entries() const;

    // The entries so far as trace-event JSON (for trace viewers such as
    // Perfetto or chrome://tracing) or as an SVG picture. Throws
    // std::runtime_error naming the file when it can't be written.
    void writeTraceEvents(const std::filesystem::path& file) const;
    void writeSvg(const std::filesystem::path& file) const;

    // For executors: the work of `task` failed. Call it before notifying
    // Finished. Costs one relaxed atomic load while nothing records. Any
    // thread.
    static void recordFailure(const TaskBase& task) noexcept;

    // Names the lane of the calling thread ("worker 3", "interpreter") for
    // the tasks it runs from now on. An unnamed thread's lane is "thread N",
    // numbered as threads first run a task; executor::runAsWorker names its
    // thread by nameThisThreadByDefault. Works with or without a recorder;
    // costs a thread-local string assignment. Any thread.
    static void nameThisThread(std::string name);
    // The calling thread's lane name given by nameThisThread; empty if none.
    // Any thread.
    static std::string thisThreadName();

    // Names the calling thread's lane "<executorName> worker N" unless it has
    // a name already; N counts the threads of `executorName` named so, in the
    // order they call this. executor::runAsWorker calls it before every task,
    // so that every executor's threads are named. Costs a thread-local check
    // once the thread has a name. Any thread.
    static void nameThisThreadByDefault(std::string_view executorName) noexcept;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The writers behind writeTraceEvents and writeSvg, for entries from anywhere.
// The trace has one thread per lane: a bar per run ("X" events, with the
// future, its kind, outcome and times as arguments), the wait between queued
// (or made) and start as an async span, and an instant event per cancel.
QZ_FUTURE_API std::string toTraceEventJson(const std::vector<TimelineEntry>& entries);
// One lane per worker, a bar per run coloured by outcome (completed, failed,
// cancelled, unfinished) and labelled with its future and function (inside
// the bar, or beside it when the bar is too short), a thin line beneath the
// bars for the wait before each run, a cross for a cancel, a "failed early"
// lane with a red dot for each task that failed without running, a "not
// started" lane for the others that never ran, a time axis and a legend.
// Each mark's tooltip gives its future, function and times.
QZ_FUTURE_API std::string toSvg(const std::vector<TimelineEntry>& entries);

} // namespace parallel::language::future
