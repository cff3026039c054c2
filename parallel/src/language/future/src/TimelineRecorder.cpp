#include <parallel/language/future/TimelineRecorder.hpp>

#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/MultiTask.hpp>
#include <parallel/language/future/TaskBase.hpp>

#include "TimelineEvents.hpp"

#include <foundation/core/sync/Mutex.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <span>
#include <stdexcept>
#include <tuple>
#include <unordered_map>
#include <vector>

namespace parallel::language::future {

namespace {

using Clock = std::chrono::steady_clock;

// The lane name given by nameThisThread; empty for an unnamed thread.
thread_local std::string tThreadName;

// How many threads of each executor nameThisThreadByDefault has named.
foundation::core::sync::Mutex gDefaultNamesMutex;
std::map<std::string, std::size_t, std::less<>> gDefaultNamesOf QZ_GUARDED_BY(gDefaultNamesMutex);

// Writes `text` to `file`, or throws naming the file.
void writeFile(const std::filesystem::path& file, const std::string& text) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) {
        throw std::runtime_error("Could not write the timeline to " + file.string() + ".");
    }
}

} // namespace

namespace detail::timeline {

namespace {

// An append-only sequence with one writer and any number of readers: the
// writer appends (its thread only); a reader sees every element appended
// before the size it reads. Elements never move and are never changed once
// appended. Memory ordering: append stores the new size with release after
// writing the element (and, for a new chunk, the link to it); size() loads it
// with acquire, so whatever a reader reads below that size is complete.
template <class T>
class AppendLog {
public:
    AppendLog() = default;
    AppendLog(const AppendLog&) = delete;
    AppendLog& operator=(const AppendLog&) = delete;
    ~AppendLog() {
        const std::size_t count = size_.load(std::memory_order_acquire);
        std::unique_ptr<Chunk> chunk = std::move(head_);
        // Iteratively: a long chain of chunks must not recurse.
        for (std::size_t i = 0; chunk; i += kChunkSize) {
            for (std::size_t k = 0; k < kChunkSize && i + k < count; ++k) {
                std::destroy_at(chunk->at(k));
            }
            chunk = std::move(chunk->next);
        }
    }

    // Writer thread. Throws std::bad_alloc, appending nothing.
    void append(T value) {
        const std::size_t size = size_.load(std::memory_order_relaxed);
        const std::size_t slot = size % kChunkSize;
        if (slot == 0) {
            auto chunk = std::make_unique_for_overwrite<Chunk>();
            Chunk* added = chunk.get();
            (tail_ != nullptr ? tail_->next : head_) = std::move(chunk);
            tail_ = added;
        }
        ::new (static_cast<void*>(tail_->storage + slot * sizeof(T))) T(std::move(value));
        size_.store(size + 1, std::memory_order_release);
    }

    // Any thread.
    std::size_t size() const noexcept { return size_.load(std::memory_order_acquire); }

    // Calls `visit` on elements 0 .. count-1, count <= an earlier size().
    template <class Visit>
    void forEach(std::size_t count, Visit&& visit) const {
        const Chunk* chunk = head_.get();
        for (std::size_t i = 0; i < count; ++i) {
            if (i != 0 && i % kChunkSize == 0) {
                chunk = chunk->next.get();
            }
            visit(*chunk->at(i % kChunkSize));
        }
    }

private:
    static constexpr std::size_t kChunkSize = 1024;
    // Room for kChunkSize elements, made as they are appended: a new chunk
    // costs no pass over its memory.
    struct Chunk {
        alignas(T) std::byte storage[sizeof(T) * kChunkSize];
        std::unique_ptr<Chunk> next;

        T* at(std::size_t slot) noexcept {
            return std::launder(reinterpret_cast<T*>(storage + slot * sizeof(T)));
        }
        const T* at(std::size_t slot) const noexcept {
            return std::launder(reinterpret_cast<const T*>(storage + slot * sizeof(T)));
        }
    };

    std::unique_ptr<Chunk> head_;
    Chunk* tail_ = nullptr; // writer only
    std::atomic<std::size_t> size_{0};
};

enum class EventKind : std::uint8_t { Created, Queued, Running, Finished, Failed, Cancelled };

constexpr std::uint32_t kNoText = std::numeric_limits<std::uint32_t>::max();

// One event as the notifying thread appended it.
struct Event {
    Clock::time_point at{};
    std::uint64_t task = 0;           // TaskBase::getSerial()
    long long futureId = -1;          // Created
    const char* futureKind = nullptr; // Created: a string literal
    std::uint32_t text = kNoText;     // Created: function name; Running: named lane
    EventKind kind = EventKind::Created;
};

// The events of one thread during one recording, and the texts they name.
// Shared by the recording and the thread (which may outlive each other).
class ThreadLog {
public:
    // Writer thread.
    void append(const Event& event) { events_.append(event); }

    // The index of `text` among the texts, appended unless it is the one
    // `cache` last gave. Writer thread.
    struct TextCache {
        std::string text;
        std::uint32_t index = kNoText;
    };
    std::uint32_t textOf(const std::string& text, TextCache& cache) {
        if (cache.index == kNoText || cache.text != text) {
            cache.text = text;
            cache.index = static_cast<std::uint32_t>(texts_.size());
            texts_.append(text);
        }
        return cache.index;
    }
    TextCache laneCache;
    TextCache functionCache;

    // A reader's copy of what is published now: events, and the texts they
    // name (read after the events, so that every named text is there).
    void snapshot(std::vector<Event>& events, std::vector<std::string>& texts) const {
        const std::size_t eventCount = events_.size();
        const std::size_t textCount = texts_.size();
        events.reserve(eventCount);
        events_.forEach(eventCount, [&](const Event& event) { events.push_back(event); });
        texts.reserve(textCount);
        texts_.forEach(textCount, [&](const std::string& text) { texts.push_back(text); });
    }

private:
    AppendLog<Event> events_;
    AppendLog<std::string> texts_;
};

} // namespace

// What a recorder has recorded: one log per thread that has sent an event.
// `logs` is guarded by gMutex (below); the logs themselves are not.
struct Recording {
    Clock::time_point start = Clock::now();
    std::uint64_t generation = 0;
    std::vector<std::shared_ptr<ThreadLog>> logs;
};

std::atomic<bool> gRecording{false};

namespace {

foundation::core::sync::Mutex gMutex;
// The recording of the recorder that is recording; null while none is.
Recording* gActive QZ_GUARDED_BY(gMutex) QZ_PT_GUARDED_BY(gMutex) = nullptr;
std::uint64_t gLastGeneration QZ_GUARDED_BY(gMutex) = 0;
// The generation of the active recording, 0 while none is. Stored under
// gMutex with release, loaded without it with acquire.
std::atomic<std::uint64_t> gGeneration{0};

// The calling thread's log, and the recording it belongs to.
struct ThisThreadLog {
    std::shared_ptr<ThreadLog> log;
    std::uint64_t generation = 0;
};
thread_local ThisThreadLog tLog;

// The calling thread's log for the active recording, registered with it on
// the thread's first event; null while nothing records.
ThreadLog* logOfThisThread() QZ_EXCLUDES(gMutex) {
    const std::uint64_t generation = gGeneration.load(std::memory_order_acquire);
    if (generation == 0) {
        return nullptr;
    }
    if (tLog.generation == generation) {
        return tLog.log.get();
    }
    foundation::core::sync::LockGuard lock(gMutex);
    if (gActive == nullptr) {
        return nullptr;
    }
    auto log = std::make_shared<ThreadLog>();
    gActive->logs.push_back(log);
    tLog = {std::move(log), gActive->generation};
    return tLog.log.get();
}

// Appends `event`, stamped now, to the calling thread's log. An exception
// (out of memory) loses the event, never the caller's notification.
template <class Complete>
void record(EventKind kind, std::uint64_t task, Complete complete) noexcept {
    try {
        Event event;
        event.at = Clock::now();
        event.kind = kind;
        event.task = task;
        if (ThreadLog* log = logOfThisThread()) {
            complete(event, *log);
            log->append(event);
        }
    } catch (...) {
    }
}

void record(EventKind kind, const TaskBase* task) noexcept {
    record(kind, task->getSerial(), [](Event&, ThreadLog&) {});
}

std::string functionNameOf(const FutureBase& future) {
    const boost::intrusive_ptr<dvArray> function = future.getFunction();
    if (!function || dvGetClassID(function.get()) != matrix::ClassID::FunctionHandle) {
        return {};
    }
    return dvGetFunctionHandleName(function.get());
}

// Records `tasks` as the tasks of `future`, made now; the function's name
// read once.
void recordTasksOfFuture(std::span<const TaskBase* const> tasks, const FutureBase& future,
                         const char* kind) noexcept {
    std::string function;
    try {
        function = functionNameOf(future);
    } catch (...) {
    }
    for (const TaskBase* task : tasks) {
        record(EventKind::Created, task->getSerial(), [&](Event& event, ThreadLog& log) {
            event.futureId = future.getID();
            event.futureKind = kind;
            if (!function.empty()) {
                event.text = log.textOf(function, log.functionCache);
            }
        });
    }
}

// The entries that `logs` describe: their events replayed in time order (a
// thread's own events in the order it sent them).
std::vector<TimelineEntry> replay(const std::vector<std::shared_ptr<ThreadLog>>& logs,
                                  Clock::time_point start) {
    struct Sent {
        const Event* event;
        std::size_t log;
        std::size_t sequence;
    };
    std::vector<std::vector<Event>> events(logs.size());
    std::vector<std::vector<std::string>> texts(logs.size());
    std::vector<Sent> order;
    for (std::size_t i = 0; i < logs.size(); ++i) {
        logs[i]->snapshot(events[i], texts[i]);
        for (std::size_t k = 0; k < events[i].size(); ++k) {
            order.push_back({&events[i][k], i, k});
        }
    }
    std::sort(order.begin(), order.end(), [](const Sent& a, const Sent& b) {
        return std::tie(a.event->at, a.log, a.sequence) < std::tie(b.event->at, b.log, b.sequence);
    });

    std::vector<TimelineEntry> entries;
    std::unordered_map<std::uint64_t, std::size_t> entryOfTask;
    std::unordered_map<std::size_t, std::string> unnamedLanes; // by log: one log per thread
    for (const Sent& sent : order) {
        const Event& event = *sent.event;
        const auto [found, added] = entryOfTask.try_emplace(event.task, entries.size());
        if (added) {
            entries.emplace_back();
        }
        TimelineEntry& entry = entries[found->second];
        const double now = std::chrono::duration<double, std::micro>(event.at - start).count();
        switch (event.kind) {
        case EventKind::Created:
            entry.futureId = event.futureId;
            entry.futureKind = event.futureKind;
            entry.function = event.text != kNoText ? texts[sent.log][event.text] : std::string();
            entry.createdUs = now;
            break;
        case EventKind::Queued:
            entry.queuedUs = now;
            break;
        case EventKind::Running:
            entry.startedUs = now;
            if (event.text != kNoText) {
                entry.worker = texts[sent.log][event.text];
            } else {
                const auto [lane, isNew] = unnamedLanes.try_emplace(sent.log);
                if (isNew) {
                    lane->second = "thread " + std::to_string(unnamedLanes.size());
                }
                entry.worker = lane->second;
            }
            break;
        case EventKind::Finished:
            entry.finishedUs = now;
            if (entry.outcome == TimelineEntry::Outcome::Unfinished) {
                entry.outcome = TimelineEntry::Outcome::Completed;
            }
            break;
        case EventKind::Failed:
            if (entry.outcome != TimelineEntry::Outcome::Cancelled) {
                entry.outcome = TimelineEntry::Outcome::Failed;
            }
            break;
        case EventKind::Cancelled:
            if (entry.cancelledUs < 0.0) {
                entry.cancelledUs = now;
            }
            if (entry.outcome == TimelineEntry::Outcome::Unfinished) {
                entry.outcome = TimelineEntry::Outcome::Cancelled;
            }
            break;
        }
    }
    return entries;
}

} // namespace

void recordFutureCreated(const TaskBase* task, const FutureBase& future,
                         const char* kind) noexcept {
    const std::array<const TaskBase*, 1> tasks{task};
    recordTasksOfFuture(tasks, future, kind);
}

void recordFutureCreated(const MultiTask& tasks, unsigned long long count, const FutureBase& future,
                         const char* kind) noexcept {
    try {
        std::vector<const TaskBase*> alive;
        for (unsigned long long i = 0; i < count; ++i) {
            if (const std::shared_ptr<TaskBase> task = tasks.getTask(i)) {
                alive.push_back(task.get()); // the future holds its tasks
            }
        }
        recordTasksOfFuture(alive, future, kind);
    } catch (...) {
    }
}

void recordQueued(const TaskBase* task) noexcept {
    record(EventKind::Queued, task);
}

void recordRunning(const TaskBase* task) noexcept {
    record(EventKind::Running, task->getSerial(), [](Event& event, ThreadLog& log) {
        if (!tThreadName.empty()) {
            event.text = log.textOf(tThreadName, log.laneCache);
        }
    });
}

void recordFinished(const TaskBase* task) noexcept {
    record(EventKind::Finished, task);
}

void recordFailed(const TaskBase* task) noexcept {
    record(EventKind::Failed, task);
}

void recordCancelled(const TaskBase* task) noexcept {
    record(EventKind::Cancelled, task);
}

} // namespace detail::timeline

struct TimelineRecorder::Impl {
    detail::timeline::Recording recording QZ_GUARDED_BY(detail::timeline::gMutex);
};

TimelineRecorder::TimelineRecorder() : impl_(std::make_unique<Impl>()) {
    using namespace detail::timeline;
    foundation::core::sync::LockGuard lock(gMutex);
    if (gActive != nullptr) {
        throw std::logic_error("Another timeline recorder is recording.");
    }
    impl_->recording.generation = ++gLastGeneration;
    gActive = &impl_->recording;
    gGeneration.store(impl_->recording.generation, std::memory_order_release);
    gRecording.store(true, std::memory_order_relaxed);
}

TimelineRecorder::~TimelineRecorder() {
    using namespace detail::timeline;
    foundation::core::sync::LockGuard lock(gMutex);
    gRecording.store(false, std::memory_order_relaxed);
    gGeneration.store(0, std::memory_order_release);
    gActive = nullptr;
}

std::vector<TimelineEntry> TimelineRecorder::entries() const {
    using namespace detail::timeline;
    std::vector<std::shared_ptr<ThreadLog>> logs;
    Clock::time_point start;
    {
        foundation::core::sync::LockGuard lock(gMutex);
        logs = impl_->recording.logs;
        start = impl_->recording.start;
    }
    return replay(logs, start);
}

void TimelineRecorder::writeTraceEvents(const std::filesystem::path& file) const {
    writeFile(file, toTraceEventJson(entries()));
}

void TimelineRecorder::writeSvg(const std::filesystem::path& file) const {
    writeFile(file, toSvg(entries()));
}

void TimelineRecorder::recordFailure(const TaskBase& task) noexcept {
    detail::timeline::onFailed(&task);
}

void TimelineRecorder::nameThisThread(std::string name) {
    tThreadName = std::move(name);
}

void TimelineRecorder::nameThisThreadByDefault(std::string_view executorName) noexcept {
    if (!tThreadName.empty()) {
        return;
    }
    try {
        std::size_t number = 0;
        {
            const foundation::core::sync::LockGuard lock(gDefaultNamesMutex);
            auto found = gDefaultNamesOf.find(executorName);
            if (found == gDefaultNamesOf.end()) {
                found = gDefaultNamesOf.emplace(std::string(executorName), 0).first;
            }
            number = ++found->second;
        }
        tThreadName = std::string(executorName) + " worker " + std::to_string(number);
    } catch (...) {
        // Out of memory: the lane stays "thread N".
    }
}

} // namespace parallel::language::future
