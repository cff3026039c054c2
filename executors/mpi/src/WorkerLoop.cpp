#include "WorkerLoop.hpp"

#include "Evaluation.hpp"

#include <boost/exception/diagnostic_information.hpp>
#include <boost/mpi/status.hpp>

#include <iostream>
#include <thread>

namespace mpipool {

using foundation::core::sync::LockGuard;
using foundation::core::sync::UniqueLock;

namespace {

std::uint64_t microsSince(std::chrono::steady_clock::time_point start) {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::steady_clock::now() - start)
                                          .count());
}

} // namespace

WorkerLoop::WorkerLoop(const boost::mpi::communicator& comm, ControlSocket& control,
                       StartRecord* starts)
    : comm_(comm), control_(control), starts_(starts), outbox_(comm),
      standbySleep_(standby_.fd(), control.fd()) {}

WorkerLoop::Ending WorkerLoop::run() {
    std::thread other([this] { serve(); });
    serve();
    other.join();
    try {
        sendReports(true);
        const LockGuard mpi(mpiMutex_);
        while (!clientGone() && outbox_.progress()) {
            std::this_thread::yield();
        }
    } catch (...) {
        std::cerr << "mpipool: worker " << comm_.rank() << " could not send its last reports: "
                  << boost::current_exception_diagnostic_information() << std::endl;
    }
    if (clientGone()) {
        return Ending::ClientGone;
    }
    return skipFinalize_ ? Ending::SkipFinalize : Ending::Finalize;
}

bool WorkerLoop::clientGone() {
    const LockGuard lock(mutex_);
    return clientGone_;
}

void WorkerLoop::serve() noexcept {
    UniqueLock lock(mutex_);
    while (true) {
        if (!runnerTaken_ && !queue_.empty() && !leaving_) {
            // Run what is queued; the other thread takes the reader's part
            // if the run lasts (a batch), or once anything arrives (a lone
            // task, which sets no timer: sporadic work).
            runnerTaken_ = true;
            const bool unread = !readerTaken_;
            const bool lone = queue_.size() == 1;
            lock.unlock();
            if (unread && lone) {
                standbySleep_.watch();
            } else if (unread) {
                standby_.setIn(kHandOver);
            }
            runQueued();
            if (unread && lone) {
                standbySleep_.unwatch();
            } else if (unread) {
                standby_.callOff();
            }
            lock.lock();
            runnerTaken_ = false;
        } else if (leaving_) {
            standby_.setIn({}); // the other thread leaves too
            break;
        } else if (!readerTaken_) {
            readerTaken_ = true;
            lock.unlock();
            readOnce();
            lock.lock();
            readerTaken_ = false;
        } else {
            lock.unlock();
            standbySleep_.wait();
            standby_.drain();
            lock.lock();
        }
    }
}

void WorkerLoop::runQueued() {
    while (true) {
        codec::TaskMessage task;
        bool holdBack = false;
        {
            const LockGuard lock(mutex_);
            if (queue_.empty() || leaving_) {
                return;
            }
            task = std::move(queue_.front());
            queue_.pop_front();
            running_ = task.id;
            stop_ = false;
            if (starts_ == nullptr) {
                // Held back while more tasks follow: the next start, a report
                // or the reader's timer sends it.
                holdBack = !queue_.empty();
                if (holdBack && !startHeldBack_) {
                    startHeldBack_ = true;
                    heldBackSince_ = Clock::now();
                    waker_.wake(); // the reader sets its timer by it
                }
                startHeldBack_ = startHeldBack_ && holdBack;
            }
        }
        // Before it runs: a client that loses this worker knows it started.
        if (starts_ != nullptr) {
            starts_->record(task.id);
        } else {
            control_.write(protocol::Frame::Started, task.id, holdBack);
        }
        const auto start = Clock::now(); // after the frame: the run's time leaves it out
        protocol::Bytes result = evaluate(task, stop_);
        const std::uint64_t runMicros = microsSince(start);
        bool due = false;
        {
            const LockGuard lock(mutex_);
            running_.reset();
            reports_.add(std::move(result), [&](batch::Writer& open, const protocol::Bytes& small) {
                open.addReport(batch::Report::Finished, task.id, runMicros, small);
            });
            due = reported();
        }
        if (due) {
            sendReports(false);
        }
    }
}

bool WorkerLoop::reported() {
    // Out at once when the worker runs dry (the client waits for nothing
    // else) or the batch is full; else the reader sends it in time.
    reportsDue_ = reportsDue_ || queue_.empty() || reports_.items() >= kReportBatchItems ||
                  reports_.bytes() >= kReportBatchBytes;
    if (reports_.items() == 1) {
        oldestReport_ = Clock::now();
        if (!reportsDue_) {
            waker_.wake(); // the reader sets its timer by the oldest report
        }
    }
    return reportsDue_;
}

std::chrono::microseconds WorkerLoop::sleepLimit() const {
    if (reportsDue_) {
        return std::chrono::microseconds(0);
    }
    std::optional<Clock::time_point> due;
    if (!reports_.empty()) {
        due = oldestReport_ + kReportDelay;
    }
    if (startHeldBack_) {
        due = std::min(due.value_or(Clock::time_point::max()), heldBackSince_ + kReportDelay);
    }
    if (!due) {
        return std::chrono::microseconds(-1);
    }
    return std::max(std::chrono::duration_cast<std::chrono::microseconds>(*due - Clock::now()),
                    std::chrono::microseconds(0));
}

void WorkerLoop::pushHeldBack() {
    {
        const LockGuard lock(mutex_);
        if (!startHeldBack_ || Clock::now() - heldBackSince_ < kReportDelay) {
            return;
        }
        startHeldBack_ = false;
    }
    control_.write(protocol::Frame::Push);
}

void WorkerLoop::readOnce() noexcept {
    try {
        std::chrono::microseconds limit;
        {
            const LockGuard lock(mutex_);
            limit = sleepLimit();
        }
        bool sending = false;
        {
            const LockGuard mpi(mpiMutex_);
            sending = !outbox_.idle();
        }
        // A message on its way in, or a send that MPI moves only while it is
        // called: keep at it.
        if (announced_ > 0 || sending) {
            limit = std::chrono::microseconds(0);
            std::this_thread::yield();
        }
        const std::vector<int> fds{control_.fd(), waker_.fd()};
        std::vector<bool> ready;
        waitReadable(fds, ready, limit);
        if (ready[1]) {
            waker_.drain();
        }
        if (ready[0]) {
            std::vector<FrameMessage> frames;
            const bool clientThere = control_.readAvailable(frames);
            const bool exit = !handleFrames(frames);
            if (exit || !clientThere) {
                leave(!exit);
                return;
            }
        }
        receiveAnnounced();
        sendReports(false);
        pushHeldBack();
        const LockGuard mpi(mpiMutex_);
        outbox_.progress();
    } catch (...) {
        std::cerr << "mpipool: worker " << comm_.rank() << " lost its link to the client: "
                  << boost::current_exception_diagnostic_information() << std::endl;
        leave(true); // the runner returns once its function does
    }
}

bool WorkerLoop::handleFrames(std::vector<FrameMessage>& frames) {
    for (FrameMessage& frame : frames) {
        switch (frame.frame) {
        case protocol::Frame::Wake:
            announced_ += std::max<std::uint64_t>(frame.value, 1);
            break;
        case protocol::Frame::Batch:
            // Its tasks queue behind those of the batches announced before.
            while (announced_ > 0) {
                receiveAnnounced();
            }
            queueTasks({protocol::kTasks, std::move(frame.batch)});
            break;
        case protocol::Frame::Stop:
            // The task may be in a batch announced before: take it in first.
            while (announced_ > 0) {
                receiveAnnounced();
            }
            stop(frame.value);
            break;
        case protocol::Frame::Exit:
            skipFinalize_ = frame.value != 0;
            return false;
        default:
            std::cerr << "mpipool: worker " << comm_.rank() << " ignored a control frame"
                      << std::endl;
        }
    }
    return true;
}

void WorkerLoop::receiveAnnounced() {
    const LockGuard mpi(mpiMutex_);
    protocol::receiveAnnounced(
        comm_, protocol::kClientRank, announced_, [this] { return control_.peerClosed(); },
        [this](protocol::Message& message) { queueTasks(message); });
}

void WorkerLoop::queueTasks(const protocol::Message& message) {
    std::vector<codec::TaskMessage> tasks;
    if (message.tag == protocol::kTask) {
        tasks.push_back(codec::decodeTask(message.bytes)); // a large one alone
    } else if (message.tag == protocol::kTasks) {
        batch::Reader reader(message.bytes);
        while (const auto item = reader.nextTask()) {
            tasks.push_back(codec::decodeTask(*item));
        }
    } else {
        std::cerr << "mpipool: worker " << comm_.rank() << " ignored a message" << std::endl;
    }
    const LockGuard lock(mutex_);
    std::ranges::move(tasks, std::back_inserter(queue_));
}

void WorkerLoop::stop(codec::TaskId id) {
    const LockGuard lock(mutex_);
    if (running_ == id) {
        stop_ = true;
        return;
    }
    const auto queued = std::ranges::find_if(
        queue_, [id](const codec::TaskMessage& task) { return task.id == id; });
    if (queued != queue_.end()) {
        queue_.erase(queued);
        reports_.add({}, [id](batch::Writer& open, const protocol::Bytes&) {
            open.addReport(batch::Report::Skipped, id);
        });
        static_cast<void>(reported()); // the reader sends it at the end of its turn
    }
    // Else it has finished: its report is on its way.
}

void WorkerLoop::leave(bool clientGone) {
    {
        const LockGuard lock(mutex_);
        leaving_ = true;
        clientGone_ = clientGone_ || clientGone;
        stop_ = true;
        queue_.clear();
    }
    standby_.setIn({});
}

void WorkerLoop::sendReports(bool force) {
    // One sender at a time: the chunks of a message must not mix.
    const LockGuard mpi(mpiMutex_);
    std::vector<protocol::Message> messages;
    {
        const LockGuard lock(mutex_);
        if (reports_.empty() ||
            !(force || reportsDue_ || Clock::now() - oldestReport_ >= kReportDelay)) {
            return;
        }
        reportsDue_ = false;
        startHeldBack_ = false; // the wake frame sends what was held back
        messages = reports_.take();
    }
    sendAnnounced(outbox_, control_, protocol::kClientRank, std::move(messages));
    if (!outbox_.idle()) {
        // MPI moves the rest, and lets its buffer go, only while called: the
        // reader calls it until then instead of sleeping.
        waker_.wake();
    }
}

} // namespace mpipool
