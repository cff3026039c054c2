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
#include <utility>
#include <vector>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <cpuid.h>
#include <x86intrin.h>
#define QZ_TIMELINE_HAS_TSC 1
#endif

namespace parallel::language::future {

namespace {

using Clock = std::chrono::steady_clock;

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

// Memory for the logs, in blocks of kBlockBytes. Blocks of logs that are
// gone are kept, up to kMaxKeptBytes, for the logs of later recordings: a
// block taken from here costs no page faults, and a recorder made again and
// again reuses the memory of the last. Any thread; one lock per block.
class BlockPool {
public:
    static constexpr std::size_t kBlockBytes = std::size_t{16} << 10;
    static constexpr std::size_t kMaxKeptBytes = std::size_t{32} << 20;

    // Never destroyed: threads may give blocks back while the program ends.
    static BlockPool& instance() {
        static BlockPool* const pool = new BlockPool;
        return *pool;
    }

    // Throws std::bad_alloc.
    void* take() {
        {
            foundation::core::sync::LockGuard lock(mutex_);
            if (!kept_.empty()) {
                void* block = kept_.back();
                kept_.pop_back();
                return block;
            }
        }
        return ::operator new(kBlockBytes);
    }

    void give(void* block) noexcept {
        {
            foundation::core::sync::LockGuard lock(mutex_);
            if (kept_.size() < kept_.capacity()) {
                kept_.push_back(block);
                return;
            }
        }
        ::operator delete(block);
    }

private:
    BlockPool() { kept_.reserve(kMaxKeptBytes / kBlockBytes); }

    foundation::core::sync::Mutex mutex_;
    std::vector<void*> kept_ QZ_GUARDED_BY(mutex_); // never grows past its capacity
};

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
        // Iteratively: a long chain of chunks must not recurse.
        Chunk* chunk = head_;
        for (std::size_t i = 0; chunk != nullptr; i += kChunkSize) {
            for (std::size_t k = 0; k < kChunkSize && i + k < count; ++k) {
                std::destroy_at(chunk->at(k));
            }
            Chunk* next = chunk->next;
            chunk->~Chunk();
            BlockPool::instance().give(chunk);
            chunk = next;
        }
        if (spare_ != nullptr) {
            spare_->~Chunk();
            BlockPool::instance().give(spare_);
        }
    }

    // Makes room for one more element: the next append cannot throw. Writer
    // thread. Throws std::bad_alloc.
    void reserveOne() {
        if (size_.load(std::memory_order_relaxed) % kChunkSize == 0 && spare_ == nullptr) {
            spare_ = ::new (BlockPool::instance().take()) Chunk;
        }
    }

    // Writer thread. Throws std::bad_alloc, appending nothing.
    void append(T value) {
        const std::size_t size = size_.load(std::memory_order_relaxed);
        const std::size_t slot = size % kChunkSize;
        if (slot == 0) {
            Chunk* added = spare_ != nullptr ? std::exchange(spare_, nullptr)
                                             : ::new (BlockPool::instance().take()) Chunk;
            (tail_ != nullptr ? tail_->next : head_) = added;
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
        const Chunk* chunk = head_;
        for (std::size_t i = 0; i < count; ++i) {
            if (i != 0 && i % kChunkSize == 0) {
                chunk = chunk->next;
            }
            visit(*chunk->at(i % kChunkSize));
        }
    }

private:
    // As many elements as fit a block after the link to the next chunk.
    static constexpr std::size_t kChunkSize =
        (BlockPool::kBlockBytes - sizeof(void*) - alignof(T)) / sizeof(T);

    // One block: room for kChunkSize elements, made as they are appended (a
    // new chunk costs no pass over its memory), and the link to the next.
    struct Chunk {
        Chunk* next = nullptr;
        alignas(T) std::byte storage[sizeof(T) * kChunkSize];

        T* at(std::size_t slot) noexcept {
            return std::launder(reinterpret_cast<T*>(storage + slot * sizeof(T)));
        }
        const T* at(std::size_t slot) const noexcept {
            return std::launder(reinterpret_cast<const T*>(storage + slot * sizeof(T)));
        }
    };
    static_assert(sizeof(Chunk) <= BlockPool::kBlockBytes &&
                  alignof(Chunk) <= alignof(std::max_align_t));

    Chunk* head_ = nullptr;
    Chunk* tail_ = nullptr;  // writer only
    Chunk* spare_ = nullptr; // writer only: made by reserveOne
    std::atomic<std::size_t> size_{0};
};

// Event times are ticks: the processor's time-stamp counter where it is
// invariant and the system clock is built on it (a read costs a third of a
// steady_clock read), else steady_clock nanoseconds. Chosen by the first
// recorder, before any event is recorded, and never changed (later recorders
// store the same answer).
std::atomic<bool> gUseTsc{false};

void chooseTicks() noexcept {
#ifdef QZ_TIMELINE_HAS_TSC
    static const bool useTsc = [] {
        unsigned eax = 0;
        unsigned ebx = 0;
        unsigned ecx = 0;
        unsigned edx = 0;
        if (__get_cpuid(0x80000007u, &eax, &ebx, &ecx, &edx) == 0 || (edx & (1u << 8)) == 0) {
            return false; // no invariant counter
        }
        // The counter agrees between processors when the kernel keeps time
        // with it; elsewhere (or where that can't be read) it is not trusted.
        try {
            std::ifstream source(
                "/sys/devices/system/clocksource/clocksource0/current_clocksource");
            std::string name;
            return static_cast<bool>(source >> name) && name == "tsc";
        } catch (...) {
            return false;
        }
    }();
    gUseTsc.store(useTsc, std::memory_order_relaxed);
#endif
}

std::uint64_t ticksNow() noexcept {
#ifdef QZ_TIMELINE_HAS_TSC
    if (gUseTsc.load(std::memory_order_relaxed)) {
        return __rdtsc();
    }
#endif
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
            .count());
}

// A tick count and the steady_clock time read together.
struct Anchor {
    std::uint64_t ticks = 0;
    Clock::time_point at{};
};

// The closest pair of three: the ticks midway between two reads around the
// clock read.
Anchor anchorNow() noexcept {
    Anchor best;
    std::uint64_t bestSpread = std::numeric_limits<std::uint64_t>::max();
    for (int attempt = 0; attempt < 3; ++attempt) {
        const std::uint64_t before = ticksNow();
        const Clock::time_point at = Clock::now();
        const std::uint64_t after = ticksNow();
        if (after >= before && after - before < bestSpread) {
            bestSpread = after - before;
            best = {before + (after - before) / 2, at};
        }
    }
    if (bestSpread == std::numeric_limits<std::uint64_t>::max()) {
        best = {ticksNow(), Clock::now()};
    }
    return best;
}

enum class EventKind : std::uint8_t {
    Created,
    Queued,
    Running,
    Finished,
    Failed,
    Cancelled,
    Lane, // the thread's lane from its next Running event on
};
constexpr unsigned kKindBits = 3;

constexpr std::uint32_t kNoText = std::numeric_limits<std::uint32_t>::max();

// One event as the notifying thread appended it, in 16 bytes (a future's
// four events fill one cache line). `word` is the task's
// serial (a Lane event: its text) shifted left by kKindBits, then the kind:
// serials, counted from 1, never reach 2^61.
struct Record {
    std::uint64_t ticks;
    std::uint64_t word;
};

// What a Created event adds, in a log of its own: the k-th Created record of
// a thread goes with its k-th CreatedInfo.
struct CreatedInfo {
    long long futureId;
    std::uint32_t kindText; // the future's kind
    std::uint32_t text;     // the function's name
};

// One event as replay reads it.
struct Event {
    std::uint64_t ticks = 0;
    std::uint64_t task = 0;           // TaskBase::getSerial()
    long long futureId = -1;          // Created
    std::uint32_t kindText = kNoText; // Created: the future's kind
    std::uint32_t text = kNoText;     // Created: function name; Running: named lane
    EventKind kind = EventKind::Created;
};

// The events of one thread during one recording, and the texts they name.
// Shared by the recording and the thread (which may outlive each other).
// Cache-line aligned: the sizes its thread stores on every event share no
// line with another thread's log.
class alignas(64) ThreadLog {
public:
    // Writer thread. Throws std::bad_alloc, appending nothing.
    void append(std::uint64_t ticks, EventKind kind, std::uint64_t value) {
        records_.append({ticks, (value << kKindBits) | static_cast<std::uint64_t>(kind)});
    }
    // Writer thread. The info first, so that a reader that sees the record
    // sees it; once it is in, the record cannot fail to follow (the k-th
    // record must meet the k-th info). Throws std::bad_alloc, appending
    // nothing.
    void appendCreated(std::uint64_t ticks, std::uint64_t task, const CreatedInfo& info) {
        records_.reserveOne();
        created_.append(info);
        append(ticks, EventKind::Created, task);
    }

    // The index of `text` among the texts, appended unless it is the one
    // `cache` last gave. Writer thread.
    struct TextCache {
        std::string text;
        std::uint32_t index = kNoText;
    };
    std::uint32_t textOf(const std::string& text, TextCache& cache) {
        if (cache.index == kNoText || cache.text != text) {
            const auto index = static_cast<std::uint32_t>(texts_.size());
            texts_.append(text);
            cache.index = kNoText; // until the text is copied
            cache.text = text;
            cache.index = index;
        }
        return cache.index;
    }
    TextCache laneCache;
    TextCache functionCache;
    // The index of the future kind `kind` (a string literal), appended
    // unless it is the last one asked for. Writer thread.
    std::uint32_t kindTextOf(const char* kind) {
        if (kind != lastKind_) {
            lastKindText_ = static_cast<std::uint32_t>(texts_.size());
            texts_.append(kind);
            lastKind_ = kind;
        }
        return lastKindText_;
    }
    // The version of the thread's name (ThisThread::nameVersion) that the
    // last Lane record gave; 0, an unnamed thread, before the first.
    std::uint64_t laneVersion = 0;

    // A reader's copy of what is published now, decoded: events in the order
    // sent, their ticks made non-decreasing (a thread moved to another
    // processor may read a counter a little behind), and the texts they name
    // (read after the records, so that every named text is there).
    void snapshot(std::vector<Event>& events, std::vector<std::string>& texts) const {
        const std::size_t recordCount = records_.size();
        const std::size_t createdCount = created_.size();
        const std::size_t textCount = texts_.size();
        std::vector<CreatedInfo> created;
        created.reserve(createdCount);
        created_.forEach(createdCount, [&](const CreatedInfo& info) { created.push_back(info); });
        events.reserve(recordCount);
        std::size_t nextCreated = 0;
        std::uint32_t lane = kNoText;
        std::uint64_t latest = 0;
        records_.forEach(recordCount, [&](const Record& record) {
            latest = std::max(latest, record.ticks);
            const auto kind = static_cast<EventKind>(record.word & ((1u << kKindBits) - 1));
            const std::uint64_t value = record.word >> kKindBits;
            if (kind == EventKind::Lane) {
                lane = static_cast<std::uint32_t>(value);
                return;
            }
            Event event;
            event.ticks = latest;
            event.task = value;
            event.kind = kind;
            if (kind == EventKind::Created) {
                const CreatedInfo& info = created.at(nextCreated++);
                event.futureId = info.futureId;
                event.kindText = info.kindText;
                event.text = info.text;
            } else if (kind == EventKind::Running) {
                event.text = lane;
            }
            events.push_back(event);
        });
        texts.reserve(textCount);
        texts_.forEach(textCount, [&](const std::string& text) { texts.push_back(text); });
    }

private:
    const char* lastKind_ = nullptr;
    std::uint32_t lastKindText_ = kNoText;
    AppendLog<Record> records_;
    AppendLog<CreatedInfo> created_;
    AppendLog<std::string> texts_;
};

} // namespace

// What a recorder has recorded: one log per thread that has sent an event.
// `logs` and `anchors` are guarded by gMutex (below); the logs themselves
// are not. The anchors convert ticks to times: the first is taken as the
// recording starts, one more by each read of the entries, after it has
// copied the logs; a time is interpolated between the two anchors around its
// ticks, so that a later read gives the events of an earlier one the same
// times.
struct Recording {
    std::vector<Anchor> anchors;
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

// What every event of the calling thread reads: trivial, so that reaching it
// costs no check that it was made.
struct ThisThread {
    // The thread's log (owned by tOwned.log), and the recording it belongs
    // to; 0 for none.
    ThreadLog* log = nullptr;
    std::uint64_t generation = 0;
    // Counts the names given; 0 while the thread has had none.
    std::uint64_t nameVersion = 0;
    // Set once the thread's tOwned is destroyed: its events are lost.
    bool ended = false;
};
thread_local ThisThread tThis;

// What the calling thread owns, touched on its first event of a recording and
// when it is named.
struct ThisThreadOwned {
    ThisThreadOwned() = default;
    ThisThreadOwned(const ThisThreadOwned&) = delete;
    ThisThreadOwned& operator=(const ThisThreadOwned&) = delete;
    ~ThisThreadOwned() {
        tThis.log = nullptr;
        tThis.generation = 0;
        tThis.ended = true;
    }

    // The lane name given by nameThisThread; empty for an unnamed thread.
    std::string name;
    std::shared_ptr<ThreadLog> log;
};
thread_local ThisThreadOwned tOwned;

// The calling thread's log for the active recording, registered with it on
// the thread's first event; null while nothing records.
ThreadLog* logOfThisThread(ThisThread& self) QZ_EXCLUDES(gMutex) {
    const std::uint64_t generation = gGeneration.load(std::memory_order_acquire);
    if (generation == 0) {
        return nullptr;
    }
    if (self.generation == generation) {
        return self.log;
    }
    if (self.ended) {
        return nullptr;
    }
    ThisThreadOwned& owned = tOwned;
    foundation::core::sync::LockGuard lock(gMutex);
    if (gActive == nullptr) {
        return nullptr;
    }
    auto log = std::make_shared<ThreadLog>();
    gActive->logs.push_back(log);
    owned.log = std::move(log);
    self.log = owned.log.get();
    self.generation = gActive->generation;
    return self.log;
}

// Appends an event of `task`, stamped now, to the calling thread's log. An
// exception (out of memory) loses the event, never the caller's
// notification.
void record(EventKind kind, const TaskBase* task) noexcept {
    try {
        if (ThreadLog* log = logOfThisThread(tThis)) {
            log->append(ticksNow(), kind, task->getSerial());
        }
    } catch (...) {
    }
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
    try {
        ThreadLog* log = logOfThisThread(tThis);
        if (log == nullptr) {
            return;
        }
        CreatedInfo info{future.getID(), log->kindTextOf(kind), kNoText};
        try {
            const std::string function = functionNameOf(future);
            if (!function.empty()) {
                info.text = log->textOf(function, log->functionCache);
            }
        } catch (...) {
        }
        for (const TaskBase* task : tasks) {
            log->appendCreated(ticksNow(), task->getSerial(), info);
        }
    } catch (...) {
    }
}

// Microseconds from the first anchor to `ticks`, interpolated between the
// anchors around it (extrapolated from the first or last two). `anchors` has
// two or more, in order.
double microsecondsAt(std::uint64_t ticks, std::span<const Anchor> anchors) {
    auto after = std::upper_bound(anchors.begin(), anchors.end(), ticks,
                                  [](std::uint64_t t, const Anchor& a) { return t < a.ticks; });
    after = std::clamp(after, anchors.begin() + 1, anchors.end() - 1);
    const Anchor& low = *(after - 1);
    const Anchor& high = *after;
    using Micro = std::chrono::duration<double, std::micro>;
    const double base = Micro(low.at - anchors.front().at).count();
    if (high.ticks == low.ticks) {
        return base;
    }
    const double fraction = static_cast<double>(static_cast<std::int64_t>(ticks - low.ticks)) /
                            static_cast<double>(high.ticks - low.ticks);
    return base + fraction * Micro(high.at - low.at).count();
}

// The entries that `events` (of one log each) describe, replayed in time
// order (a thread's own events in the order it sent them).
std::vector<TimelineEntry> replay(const std::vector<std::vector<Event>>& events,
                                  const std::vector<std::vector<std::string>>& texts,
                                  std::span<const Anchor> anchors) {
    struct Sent {
        const Event* event;
        std::size_t log;
        std::size_t sequence;
    };
    std::vector<Sent> order;
    for (std::size_t i = 0; i < events.size(); ++i) {
        for (std::size_t k = 0; k < events[i].size(); ++k) {
            order.push_back({&events[i][k], i, k});
        }
    }
    std::sort(order.begin(), order.end(), [](const Sent& a, const Sent& b) {
        return std::tie(a.event->ticks, a.log, a.sequence) <
               std::tie(b.event->ticks, b.log, b.sequence);
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
        const double now = microsecondsAt(event.ticks, anchors);
        switch (event.kind) {
        case EventKind::Created:
            entry.futureId = event.futureId;
            entry.futureKind = texts[sent.log][event.kindText];
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
        case EventKind::Lane: // taken in by ThreadLog::snapshot
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
    try {
        ThisThread& self = tThis;
        if (ThreadLog* log = logOfThisThread(self)) {
            const std::uint64_t ticks = ticksNow();
            if (log->laneVersion != self.nameVersion) {
                // Named (or renamed) since its last run: a Lane record first.
                const std::string& name = tOwned.name;
                const std::uint32_t text =
                    name.empty() ? kNoText : log->textOf(name, log->laneCache);
                log->append(ticks, EventKind::Lane, text);
                log->laneVersion = self.nameVersion;
            }
            log->append(ticks, EventKind::Running, task->getSerial());
        }
    } catch (...) {
    }
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
    chooseTicks();
    impl_->recording.anchors.reserve(2);
    impl_->recording.anchors.push_back(anchorNow());
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
    {
        foundation::core::sync::LockGuard lock(gMutex);
        logs = impl_->recording.logs;
    }
    std::vector<std::vector<Event>> events(logs.size());
    std::vector<std::vector<std::string>> texts(logs.size());
    for (std::size_t i = 0; i < logs.size(); ++i) {
        logs[i]->snapshot(events[i], texts[i]);
    }
    // After the copies, so that every event copied is before the last anchor.
    std::vector<Anchor> anchors;
    {
        foundation::core::sync::LockGuard lock(gMutex);
        impl_->recording.anchors.push_back(anchorNow());
        anchors = impl_->recording.anchors;
    }
    return replay(events, texts, anchors);
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
    detail::timeline::tOwned.name = std::move(name);
    ++detail::timeline::tThis.nameVersion;
}

std::string TimelineRecorder::thisThreadName() {
    return detail::timeline::tOwned.name;
}

void TimelineRecorder::nameThisThreadByDefault(std::string_view executorName) noexcept {
    std::string& name = detail::timeline::tOwned.name;
    if (!name.empty()) {
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
        name = std::string(executorName) + " worker " + std::to_string(number);
        ++detail::timeline::tThis.nameVersion;
    } catch (...) {
        // Out of memory: the lane stays "thread N".
    }
}

} // namespace parallel::language::future
