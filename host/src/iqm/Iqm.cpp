// The queue manager: one mutex and one condition variable guard every queue.
// With readable sources added, the interpreter thread sleeps in poll() on
// their descriptors and an eventfd instead, which posts and wake-ups then
// also write.
// Each piece of work carries a sequence number from one counter, so that a
// processing call naming several queues can take the oldest piece among them.
// Work always runs with the mutex released: it may post more work or wake the
// manager up, or process queued work itself; runningDepth counts how deep such
// pieces are nested, and is touched on the interpreter thread only.

#include <iqm/Iqm.hpp>

#include <foundation/core/except/Exception.hpp>
#include <kvm/KVM.hpp>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <exception>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace iqm {

namespace {

using Clock = std::chrono::steady_clock;
using Sequence = std::uint64_t;
constexpr Sequence anySequence = std::numeric_limits<Sequence>::max();

struct WorkItem {
    Sequence sequence = 0;
    std::function<void()> work;
    std::optional<boost::promise<void>> promise; // empty for detached work
};

using Queues = std::unordered_map<QueueName, std::deque<WorkItem>>;

struct DetachedErrorHandler {
    std::mutex mutex;
    std::function<void(std::exception_ptr)> handler;
};

DetachedErrorHandler& detachedErrorHandler() {
    static DetachedErrorHandler instance;
    return instance;
}

// Any thread.
void reportDetachedError(const std::exception_ptr& error) noexcept {
    try {
        std::function<void(std::exception_ptr)> handler;
        {
            auto& slot = detachedErrorHandler();
            std::lock_guard lock(slot.mutex);
            handler = slot.handler;
        }
        if (handler) {
            handler(error);
        } else {
            std::fprintf(stderr, "Error in queued work: %s\n",
                         foundation::core::except::describe(error).c_str());
        }
    } catch (...) {
        std::fputs("Error in queued work: the error could not be reported.\n", stderr);
    }
}

// Runs one piece of work and delivers its outcome; never throws.
void run(WorkItem& item) noexcept {
    try {
        item.work();
        if (item.promise) {
            item.promise->set_value();
        }
    } catch (...) {
        if (item.promise) {
            // Built from std::current_exception, so the poster's future
            // rethrows the original exception, type included.
            item.promise->set_exception(boost::exception_ptr(std::current_exception()));
        } else {
            reportDetachedError(std::current_exception());
        }
    }
}

// The wake-by time on the clock's own integer scale. Empty when there is no
// wake-by: none given, or one beyond half the clock's range (such as the
// largest finite double), where the conversion would overflow. Not-a-number
// counts as already passed.
std::optional<Clock::time_point> clockDeadline(const std::optional<SteadyTimePoint>& wakeBy) {
    if (!wakeBy) {
        return std::nullopt;
    }
    const double seconds = wakeBy->time_since_epoch().count();
    const double range = std::chrono::duration<double>(Clock::duration::max()).count() / 2;
    if (std::isnan(seconds) || seconds <= -range) {
        return Clock::time_point::min();
    }
    if (seconds >= range) {
        return std::nullopt;
    }
    return Clock::time_point(
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
}

} // namespace

struct Iqm::Impl {
    struct Source {
        SourceId id;
        int fd;
        std::shared_ptr<const std::function<Served()>> serve;
        bool resting = false; // left out of the next sleep
    };

    ~Impl() {
        if (wakeFd >= 0) {
            ::close(wakeFd);
        }
    }

    const std::thread::id interpreterThread = std::this_thread::get_id();
    mutable std::mutex mutex;
    std::condition_variable wakeUps;
    std::vector<Source> sources;
    SourceId nextSource = 1;
    int wakeFd = -1;           // made with the first source; kept until the end
    bool pollSleeping = false; // the interpreter thread sleeps in poll()
    Queues queues;
    Sequence nextSequence = 0;
    // Counts posts and wake-up calls, so that a sleeper can tell whether one
    // happened after it last looked.
    std::uint64_t wakeUpCount = 0;
    // Pieces of work running now, one inside another. Interpreter thread only.
    std::size_t runningDepth = 0;

    // Any thread.
    void requireInterpreterThread(const char* operation) const {
        if (std::this_thread::get_id() != interpreterThread) {
            throw std::logic_error(std::string("iqm::Iqm::") + operation +
                                   " called off the queue manager's interpreter thread.");
        }
    }

    // Any thread.
    void enqueue(const QueueName& queue, WorkItem item) {
        if (!item.work) {
            throw std::invalid_argument("Queued work must be callable.");
        }
        bool pollWake = false;
        {
            std::lock_guard lock(mutex);
            item.sequence = nextSequence++;
            queues[queue].push_back(std::move(item));
            ++wakeUpCount;
            pollWake = pollSleeping;
        }
        wake(pollWake);
    }

    // Wakes the sleeper after a wake-up was counted; `pollWake`: it sleeps in
    // poll(). Any thread, without the mutex.
    void wake(bool pollWake) {
        wakeUps.notify_all();
        if (pollWake) {
            const std::uint64_t one = 1;
            [[maybe_unused]] const ssize_t n = ::write(wakeFd, &one, sizeof one);
        }
    }

    // Any thread.
    Sequence sequenceNow() const {
        std::lock_guard lock(mutex);
        return nextSequence;
    }

    // Any thread.
    std::uint64_t wakeUpsNow() const {
        std::lock_guard lock(mutex);
        return wakeUpCount;
    }

    // The oldest piece of work of `names` posted before `horizon`, removed
    // from its queue. Called with the mutex held.
    std::optional<WorkItem> takeOldest(const QueueNames& names, Sequence horizon) {
        std::deque<WorkItem>* oldest = nullptr;
        for (const auto& name : names) {
            const auto it = queues.find(name);
            if (it == queues.end() || it->second.empty() ||
                it->second.front().sequence >= horizon) {
                continue;
            }
            if (!oldest || it->second.front().sequence < oldest->front().sequence) {
                oldest = &it->second;
            }
        }
        if (!oldest) {
            return std::nullopt;
        }
        WorkItem item = std::move(oldest->front());
        oldest->pop_front();
        return item;
    }

    // Runs the oldest piece of work of `names` posted before `horizon`; false
    // when there is none, or when work may nest no deeper. Interpreter thread
    // only.
    bool runOldest(const QueueNames& names, Sequence horizon) {
        if (runningDepth >= kMaxNestedWork) {
            return false;
        }
        std::optional<WorkItem> item;
        {
            std::lock_guard lock(mutex);
            item = takeOldest(names, horizon);
        }
        if (!item) {
            return false;
        }
        ++runningDepth;
        run(*item);
        --runningDepth;
        return true;
    }

    // Runs at most `limit` pieces of the work of `names` that is queued now.
    // Interpreter thread only.
    std::size_t runQueued(const QueueNames& names, std::optional<std::size_t> limit) {
        const Sequence horizon = sequenceNow();
        std::size_t ran = 0;
        while ((!limit || ran < *limit) && runOldest(names, horizon)) {
            ++ran;
        }
        return ran;
    }

    // Sleeps until a post or wake-up newer than `seen`, or until `deadline`.
    // Interpreter thread only.
    void sleep(std::uint64_t seen, const std::optional<Clock::time_point>& deadline) {
        std::unique_lock lock(mutex);
        const auto woken = [&] { return wakeUpCount != seen; };
        std::vector<Source> polled;
        for (Source& source : sources) {
            if (!std::exchange(source.resting, false)) {
                polled.push_back(source);
            }
        }
        if (!polled.empty() && !woken()) {
            pollSleeping = true;
            lock.unlock();
            sleepPolling(polled, deadline);
            lock.lock();
            pollSleeping = false;
        } else if (deadline) {
            wakeUps.wait_until(lock, *deadline, woken);
        } else {
            wakeUps.wait(lock, woken);
        }
    }

    // Sleeps in poll() on the wake-up eventfd and the sources' descriptors,
    // then serves the readable sources. Interpreter thread only, without the
    // mutex.
    void sleepPolling(const std::vector<Source>& polled,
                      const std::optional<Clock::time_point>& deadline) {
        std::vector<pollfd> fds{{wakeFd, POLLIN, 0}};
        for (const Source& source : polled) {
            fds.push_back({source.fd, POLLIN, 0});
        }
        timespec limit{};
        if (deadline) {
            const auto left = std::max(
                std::chrono::duration_cast<std::chrono::nanoseconds>(*deadline - Clock::now()),
                std::chrono::nanoseconds(0));
            limit.tv_sec = static_cast<time_t>(left.count() / 1'000'000'000);
            limit.tv_nsec = static_cast<long>(left.count() % 1'000'000'000);
        }
        if (::ppoll(fds.data(), fds.size(), deadline ? &limit : nullptr, nullptr) <= 0) {
            return; // the wake-by time, or a signal: the caller looks again
        }
        if (fds[0].revents != 0) {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t n = ::read(wakeFd, &count, sizeof count);
        }
        for (std::size_t i = 1; i < fds.size(); ++i) {
            if (fds[i].revents == 0) {
                continue;
            }
            const Served served = (*polled[i - 1].serve)();
            if (served == Served::Again) {
                continue;
            }
            std::lock_guard lock(mutex);
            const auto found = std::ranges::find_if(
                sources, [&](const Source& source) { return source.id == polled[i - 1].id; });
            if (found == sources.end()) {
                continue;
            }
            if (served == Served::Ended) {
                sources.erase(found);
            } else {
                found->resting = true;
            }
        }
    }
};

Iqm::Iqm() : impl_(std::make_unique<Impl>()) {}

Iqm::~Iqm() {
    // Work still queued is dropped, outside the mutex, one piece after
    // another; destroying its promises breaks the posters' futures. Dropping
    // a piece may release what it holds and so post more work here: that is
    // dropped in the next round.
    for (;;) {
        Queues dropped;
        {
            std::lock_guard lock(impl_->mutex);
            dropped.swap(impl_->queues);
        }
        if (dropped.empty()) {
            return;
        }
    }
}

std::shared_ptr<Iqm> Iqm::getCurrent() {
    const auto kvm = kvm::Factory::getCurrentLocalKVM();
    return kvm ? kvm->getIqm() : nullptr;
}

boost::future<void> Iqm::post(const QueueName& queue, std::function<void()> work) {
    boost::promise<void> promise;
    auto future = promise.get_future();
    impl_->enqueue(queue, WorkItem{0, std::move(work), std::move(promise)});
    return future;
}

void Iqm::postDetached(const QueueName& queue, std::function<void()> work) {
    impl_->enqueue(queue, WorkItem{0, std::move(work), std::nullopt});
}

bool Iqm::processOnce(const QueueNames& queues, std::optional<std::size_t> limit) {
    impl_->requireInterpreterThread("processOnce");
    return impl_->runQueued(queues, limit) > 0;
}

void Iqm::processUntil(const QueueNames& queues, const std::function<bool()>& stop,
                       std::optional<SteadyTimePoint> wakeBy) {
    impl_->requireInterpreterThread("processUntil");
    if (!stop) {
        throw std::invalid_argument("processUntil needs a stop predicate.");
    }
    const auto deadline = clockDeadline(wakeBy);
    for (;;) {
        // Read before asking the predicate: a wake-up that arrives after the
        // predicate answered false then ends the sleep below at once.
        const std::uint64_t seen = impl_->wakeUpsNow();
        // A user interrupt ends the call whatever it waits for; requesting one
        // wakes the manager, so a sleeping caller sees it at once.
        utInterruptState::ThrowIfInterruptPending();
        if (stop()) {
            return;
        }
        if (deadline && Clock::now() >= *deadline) {
            return;
        }
        if (impl_->runOldest(queues, anySequence)) {
            continue;
        }
        impl_->sleep(seen, deadline);
    }
}

void Iqm::wakeUp() {
    bool pollWake = false;
    {
        std::lock_guard lock(impl_->mutex);
        ++impl_->wakeUpCount;
        pollWake = impl_->pollSleeping;
    }
    impl_->wake(pollWake);
}

Iqm::SourceId Iqm::addReadable(int fd, std::function<Served()> serve) {
    if (fd < 0 || !serve) {
        throw std::invalid_argument("A readable source needs a descriptor and a function.");
    }
    auto shared = std::make_shared<const std::function<Served()>>(std::move(serve));
    std::lock_guard lock(impl_->mutex);
    if (impl_->wakeFd < 0) {
        impl_->wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (impl_->wakeFd < 0) {
            throw std::runtime_error("No event descriptor for the queue manager.");
        }
    }
    const SourceId id = impl_->nextSource++;
    impl_->sources.push_back({id, fd, std::move(shared)});
    return id;
}

void Iqm::removeReadable(SourceId source) {
    std::lock_guard lock(impl_->mutex);
    std::erase_if(impl_->sources, [source](const Impl::Source& s) { return s.id == source; });
}

void Iqm::runQueue(const QueueName& queue, std::optional<std::size_t> limit) {
    impl_->requireInterpreterThread("runQueue");
    impl_->runQueued(QueueNames{queue}, limit);
}

bool Iqm::atNestingLimit() const noexcept {
    return impl_->runningDepth >= kMaxNestedWork;
}

std::size_t Iqm::pending(const QueueName& queue) const {
    std::lock_guard lock(impl_->mutex);
    const auto it = impl_->queues.find(queue);
    return it == impl_->queues.end() ? 0 : it->second.size();
}

void setDetachedErrorHandler(std::function<void(std::exception_ptr)> handler) {
    auto& slot = detachedErrorHandler();
    std::lock_guard lock(slot.mutex);
    slot.handler = std::move(handler);
}

} // namespace iqm
