#pragma once

// The interpreter's queue manager: named queues of work that run only on the
// interpreter's thread, inside the processing calls below.
//
// Threads: post, postDetached and wakeUp from any thread; the processing
// calls (processOnce, processUntil, runQueue) on the interpreter thread only.
// Work runs in posting order per queue; a processing call that names several
// queues takes the oldest piece of work among them. Work that throws never
// leaves a processing call: its exception reaches the poster's future, or,
// for detached work, the host's error report (reportDetachedError).
//
// Nesting: work may itself call a processing call (a wait inside queued work
// runs further queued work), so pieces of work run one inside another. At
// most kMaxNestedWork of them are on the interpreter's stack at once; a
// processing call made inside the innermost one runs no work (processUntil
// still waits, for its predicate, a wake-up or its wake-by time), and the
// queued work runs once the stack has unwound.

#include <host/Export.hpp>

#include <boost/thread/future.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>

namespace iqm {

using QueueName = std::u16string;
using QueueNames = std::unordered_set<std::u16string>;
using SteadyTimePoint =
    std::chrono::time_point<std::chrono::steady_clock, std::chrono::duration<double>>;

class QZHOST_API Iqm {
public:
    // The deepest that pieces of work nest, one running inside another:
    // the recursion limit an array language has for its functions.
    static constexpr std::size_t kMaxNestedWork = 500;

    Iqm();
    ~Iqm();
    Iqm(const Iqm&) = delete;
    Iqm& operator=(const Iqm&) = delete;

    // The queue manager of the calling thread's interpreter; null on a thread
    // that is not an interpreter thread.
    static std::shared_ptr<Iqm> getCurrent();

    // Queues `work` under `queue`; the future receives its completion or error.
    boost::future<void> post(const QueueName& queue, std::function<void()> work);
    // Queues `work` under `queue`; an error goes to the host's error report.
    void postDetached(const QueueName& queue, std::function<void()> work);

    // Runs queued work of the named queues, at most `limit` pieces (all that
    // is queued when empty), without waiting. True when any work ran.
    // Runs nothing at the nesting limit (see the banner), as do processUntil
    // and runQueue.
    bool processOnce(const QueueNames& queues, std::optional<std::size_t> limit);

    // Runs queued work of the named queues until `stop` answers true. `stop`
    // is asked before the first sleep, after every piece of work and after
    // every wake-up. Sleeps without polling while there is nothing to run,
    // until work is posted, wakeUp is called, or `wakeBy` passes. A user
    // interrupt of the calling thread's interpreter (kvm::KVM::requestInterrupt,
    // which wakes the manager) is looked at before each question to `stop`:
    // it is taken and thrown as the host's interrupt error (KORVEX:interrupted).
    void processUntil(const QueueNames& queues, const std::function<bool()>& stop,
                      std::optional<SteadyTimePoint> wakeBy = std::nullopt);

    // Wakes a thread sleeping in processUntil so that it asks its predicate again.
    void wakeUp();

    // A file descriptor that the sleeping interpreter thread serves itself:
    // while processUntil sleeps and `fd` turns readable, `serve` runs on the
    // interpreter thread (not as queued work), and processUntil then asks its
    // predicate again. For a library whose results arrive on a socket: the
    // thread that waits for them takes them in, instead of being woken by a
    // thread that did. `serve` answers how to go on (Served); it must not
    // throw, and may run once more after removeReadable returns on another
    // thread. `fd` stays open until the source is removed. Any thread.
    enum class Served {
        Again,     // poll it in the next sleep
        Elsewhere, // another thread takes its input in and wakes the manager
                   // if it matters: not polled in the next sleep
        Ended,     // the descriptor has ended: the source is removed
    };
    using SourceId = std::uint64_t;
    SourceId addReadable(int fd, std::function<Served()> serve);
    void removeReadable(SourceId source);

    // Runs queued work of one queue, at most `limit` pieces (all that is
    // queued when empty).
    void runQueue(const QueueName& queue, std::optional<std::size_t> limit);

    // Pieces of work queued under `queue` and not yet run. Any thread.
    std::size_t pending(const QueueName& queue) const;

    // Whether kMaxNestedWork pieces of work are running one inside another,
    // so that processing calls run no more. Interpreter thread only.
    bool atNestingLimit() const noexcept;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Where errors of detached work go: standard error, unless a handler is set.
// Any thread; the handler runs on the interpreter thread.
QZHOST_API void setDetachedErrorHandler(std::function<void(std::exception_ptr)> handler);

} // namespace iqm
