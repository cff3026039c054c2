#include "ClientLink.hpp"

#include "MpiErrors.hpp"

#include <executor/FinishOnceCancelled.hpp>
#include <executor/NotifySafely.hpp>
#include <parallel/language/future/TimelineRecorder.hpp>

#include <boost/exception/diagnostic_information.hpp>
#include <boost/mpi/environment.hpp>
#include <boost/mpi/status.hpp>

#include <iostream>
#include <string>

namespace mpipool {

using foundation::core::sync::LockGuard;

// A lost worker's unreported starts are among its last kRing.
static_assert(StartRecord::kRing >= 2 * ClientLink::kMaxInFlight);
// The Batch frames unread in a socket fit its buffer (Protocol.hpp).
static_assert(ClientLink::kMaxInFlight * batch::kFrameItemBytes <= std::size_t{32} << 10);

ClientLink::ClientLink(boost::mpi::communicator comm, std::vector<int> ranks,
                       std::vector<ControlSocket*> control, std::shared_ptr<LostRanks> lost,
                       const StartRecord* starts)
    : comm_(std::move(comm)), ranks_(std::move(ranks)), control_(std::move(control)),
      lost_(std::move(lost)), starts_(starts), work_(std::make_shared<WorkList>(ranks_.size())),
      outbox_(comm_), announced_(ranks_.size(), 0), gone_(ranks_.size(), false),
      lastRun_(ranks_.size(), 0), lastSize_(ranks_.size(), 0), lastStart_(ranks_.size()) {
    for (const ControlSocket* socket : control_) {
        socketFds_.push_back(socket->fd());
    }
    // Until a worker's first task is back, nothing says its tasks are short.
    std::fill(lastRun_.begin(), lastRun_.end(), kShortRunMicros);
}

std::shared_ptr<ClientLink> ClientLink::open(boost::mpi::communicator comm, std::vector<int> ranks,
                                             std::vector<ControlSocket*> control,
                                             std::shared_ptr<LostRanks> lost,
                                             const StartRecord* starts) {
    std::shared_ptr<ClientLink> link(new ClientLink(std::move(comm), std::move(ranks),
                                                    std::move(control), std::move(lost), starts));
    std::promise<void> finished;
    link->finished_ = finished.get_future().share();
    std::promise<std::thread::id> started;
    auto threadId = started.get_future();
    std::thread([link, finished = std::move(finished), started = std::move(started)]() mutable {
        started.set_value(std::this_thread::get_id());
        link->run();
        link.reset();
        finished.set_value();
    }).detach();
    link->threadId_ = threadId.get();
    return link;
}

void ClientLink::close() noexcept {
    for (const auto& task : work_->close()) {
        executor::cancelUnrun(*task); // never sent: no report will come for it
    }
}

bool ClientLink::isFinished() const {
    return finished_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

void ClientLink::waitUntilFinished() const {
    if (!isLinkThread()) {
        finished_.wait();
    }
}

bool ClientLink::isLinkThread() const noexcept {
    return std::this_thread::get_id() == threadId_;
}

std::vector<std::size_t> ClientLink::windows() const {
    std::vector<std::size_t> window(ranks_.size(), 1);
    for (std::size_t worker = 0; worker < window.size(); ++worker) {
        if (lastRun_[worker] < kShortRunMicros && lastSize_[worker] < kSmallTask) {
            window[worker] = kMaxInFlight;
        }
    }
    return window;
}

void ClientLink::run() noexcept {
    std::vector<int> fds{work_->waker().fd()};
    fds.insert(fds.end(), socketFds_.begin(), socketFds_.end());
    const std::vector<int> wakerOnly{fds.front()};
    std::vector<bool> ready(fds.size(), false);
    // Kept from turn to turn with its room: a busy turn has hundreds.
    std::vector<Event> events;
    bool startLookDue = false; // the last sleep was set to end for a look at the start records
    while (true) {
        try {
            if (ready[0]) {
                work_->waker().drain();
            }
            // What the workers said frees them first; their next tasks go out
            // before the notifications run, so that workers and client
            // overlap. The notifications run without the MPI mutex: what
            // they call may submit.
            events.clear();
            WorkList::Orders orders;
            std::vector<std::size_t> lostNow;
            bool busy = false;
            bool listening = true;
            bool lookingAtStarts = false;
            {
                const LockGuard mpi(mpiMutex_);
                takeIn(ready, events);
                if (startLookDue && std::ranges::none_of(ready, std::identity{})) {
                    lookAtStarts(events); // a sleep for it that nothing ended
                }
                const bool poolWasIdle = work_->allIdle();
                orders = work_->takeOrders(windows());
                watchFirst(poolWasIdle, orders.sends);
                for (const WorkList::Send& batch : orders.sends) {
                    send(batch, events);
                }
                for (const WorkList::Stop& stop : orders.stops) {
                    control_[stop.worker]->write(protocol::Frame::Stop, stop.task);
                }
                std::ranges::move(stashed_, std::back_inserter(events));
                stashed_.clear();
                for (std::size_t worker = 0; worker < gone_.size(); ++worker) {
                    if (gone_[worker] && !(*lost_)[static_cast<std::size_t>(ranks_[worker] - 1)]) {
                        (*lost_)[static_cast<std::size_t>(ranks_[worker] - 1)] = true;
                        outbox_.abandon(ranks_[worker]);
                        lostNow.push_back(worker);
                    }
                }
                outbox_.progress();
                ended_ = orders.drained;
                busy = mpiBusy() || watching();
                listening_ = busy || !work_->allIdle();
                lookingAtStarts_ = listening_ && starts_ != nullptr && work_->anyUnstarted();
                listening = listening_;
                lookingAtStarts = lookingAtStarts_;
                deliveryMutex_.lock(); // before a waiter reads what comes next
            }
            for (const auto& task : orders.unrunnable) {
                const auto pinned = task->getPinnedWorker();
                fail(*task, pinned ? std::make_exception_ptr(
                                         errors::WorkerLost(std::int64_t{ranks_.at(*pinned)}))
                                   : std::make_exception_ptr(errors::NoWorkersLeft()));
            }
            for (Event& event : events) {
                deliver(event);
            }
            events.clear(); // the tasks are not kept until the next turn
            // Last, so that what a lost worker reported before it went counts.
            for (const std::size_t worker : lostNow) {
                lose(worker);
            }
            deliveryMutex_.unlock();
            if (orders.drained) {
                return;
            }
            // Asleep until a frame or news, but for a message on its way in,
            // a send that MPI moves only while it is called, or a watch.
            std::chrono::microseconds limit(-1);
            if (busy) {
                limit = std::chrono::microseconds(0);
                std::this_thread::yield();
            }
            if (listening) {
                startLookDue = limit.count() < 0 && lookingAtStarts;
                if (startLookDue) {
                    limit = kStartLook;
                }
                waitReadable(fds, ready, limit);
            } else {
                waitReadable(wakerOnly, ready, kIdleLook);
                if (ready[0]) {
                    ready.resize(fds.size(), false);
                } else {
                    waitReadable(fds, ready, std::chrono::microseconds(0)); // the look
                }
            }
        } catch (...) {
            // MPI reports its failures as exceptions; the job cannot go on
            // without its link.
            std::cerr << "mpipool: the client's link to its workers failed: "
                      << boost::current_exception_diagnostic_information() << std::endl;
            boost::mpi::environment::abort(1);
        }
    }
}

void ClientLink::sendNow() {
    if (!isLinkThread() && !work_->anyIdle()) {
        // Every worker has work in flight: the link thread sends the new
        // tasks, batched, when the next report arrives.
        return;
    }
    if (isLinkThread() || !mpiMutex_.try_lock()) {
        // From a notification, or the link thread is at MPI: it sends on its
        // next turn.
        work_->news();
        return;
    }
    bool failed = false;
    Quiet quiet = Quiet::No;
    bool unheardWork = false;
    try {
        failed = sendTaken(quiet);
        unheardWork = unheard();
    } catch (...) {
        mpiMutex_.unlock();
        throw;
    }
    mpiMutex_.unlock();
    // This thread takes the reports in itself only after a send to a quiet
    // pool that a waiter serves, and not inside a notification: steady work
    // comes back before a thread would look for it here.
    const bool takeInHere = unheardWork && quiet == Quiet::Yes && !failed && !delivering();
    if (failed || quiet == Quiet::Watched || (unheardWork && !takeInHere)) {
        work_->news(); // the link thread runs their notifications, watches, or listens
    }
    if (quiet != Quiet::No) {
        // A worker on this core runs the task now, not once this thread
        // sleeps: its report is then here when this thread comes to wait,
        // or to take it in.
        std::this_thread::yield();
    }
    if (takeInHere) {
        std::vector<bool> ready;
        waitReadable(socketFds_, ready, std::chrono::microseconds(0));
        ready.insert(ready.begin(), false); // index worker + 1
        static_cast<void>(serveHere(ready));
    }
}

bool ClientLink::sendTaken(Quiet& quiet) {
    std::vector<Event> failed;
    const bool poolWasIdle = work_->allIdle();
    const std::vector<WorkList::Send> sends = work_->takeSendsToIdle(windows());
    quiet = watchFirst(poolWasIdle, sends);
    for (const WorkList::Send& batch : sends) {
        send(batch, failed);
    }
    std::ranges::move(failed, std::back_inserter(stashed_));
    return !failed.empty();
}

ClientLink::Quiet ClientLink::watchFirst(bool poolWasIdle,
                                         const std::vector<WorkList::Send>& sends) {
    if (!poolWasIdle || sends.empty()) {
        return Quiet::No;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now - lastReport_ < kQuietBeforeWatch) {
        return Quiet::No; // steady work: the reports keep the link thread busy
    }
    if (waiterServes_) {
        return Quiet::Yes;
    }
    watchUntil_ = now + kWatch;
    return Quiet::Watched;
}

bool ClientLink::watching() const {
    return !work_->allIdle() && std::chrono::steady_clock::now() < watchUntil_;
}

bool& ClientLink::delivering() noexcept {
    thread_local bool delivering = false;
    return delivering;
}

iqm::Iqm::Served ClientLink::serveWaiter(std::size_t worker) noexcept {
    std::vector<bool> ready(control_.size() + 1, false);
    ready.at(worker + 1) = true;
    return serveHere(ready);
}

iqm::Iqm::Served ClientLink::serveHere(const std::vector<bool>& ready) noexcept {
    if (delivering()) {
        return iqm::Iqm::Served::Elsewhere;
    }
    if (!mpiMutex_.try_lock()) {
        // The link thread is at it (for as long as a large send takes), or
        // another thread is: whoever has the MPI mutex takes the reports in
        // or wakes the link thread for them.
        return iqm::Iqm::Served::Elsewhere;
    }
    if (!deliveryMutex_.try_lock()) {
        // The link thread still runs the notifications of what it read: what
        // comes next must follow them, and it reads that next.
        const bool wake = unheard();
        mpiMutex_.unlock();
        if (wake) {
            work_->news();
        }
        return iqm::Iqm::Served::Elsewhere;
    }
    std::vector<Event> events;
    bool gone = false;
    bool wake = false;
    try {
        if (ended_) {
            deliveryMutex_.unlock();
            mpiMutex_.unlock();
            return iqm::Iqm::Served::Ended; // the sockets may serve another pool now
        }
        takeIn(ready, events);
        for (std::size_t worker = 0; worker < gone_.size(); ++worker) {
            gone = gone || (ready[worker + 1] && gone_[worker]);
        }
        wake = unheard();
    } catch (...) {
        // What the link thread meets again on its turn, and ends the job for.
        gone = true;
    }
    mpiMutex_.unlock();
    delivering() = true;
    for (Event& event : events) {
        deliver(event);
    }
    delivering() = false;
    deliveryMutex_.unlock();
    if (wake || gone || (!events.empty() && work_->anyWaiting())) {
        // The link thread listens for the work still out, handles a loss,
        // and refills the windows freed: it may have missed the reports this
        // thread took.
        work_->news();
    }
    return gone ? iqm::Iqm::Served::Ended : iqm::Iqm::Served::Again;
}

void ClientLink::takeIn(const std::vector<bool>& ready, std::vector<Event>& events) {
    readFrames(ready, events);
    receiveReports(events);
    if (!events.empty()) {
        lastReport_ = std::chrono::steady_clock::now();
    }
}

void ClientLink::readFrames(const std::vector<bool>& ready, std::vector<Event>& events) {
    std::vector<FrameMessage> frames;
    for (std::size_t worker = 0; worker < control_.size(); ++worker) {
        if (!ready[worker + 1] || gone_[worker]) {
            continue;
        }
        frames.clear();
        gone_[worker] = !control_[worker]->readAvailable(frames);
        for (const FrameMessage& frame : frames) {
            if (frame.frame == protocol::Frame::Wake) {
                announced_[worker] += std::max<std::uint64_t>(frame.value, 1);
            } else if (frame.frame == protocol::Frame::Batch) {
                readReports(worker, frame.batch, events);
            } else if (frame.frame == protocol::Frame::Started) {
                if (auto task = work_->started(worker, frame.value)) {
                    events.push_back({std::move(task), Event::Started, std::nullopt, worker});
                }
            }
        }
    }
}

void ClientLink::receiveReports(std::vector<Event>& events) {
    std::vector<protocol::Message> messages;
    for (std::size_t worker = 0; worker < announced_.size(); ++worker) {
        ControlSocket& control = *control_[worker];
        messages.clear();
        protocol::receiveAnnounced(
            comm_, ranks_[worker], announced_[worker], [&control] { return control.peerClosed(); },
            [&messages](protocol::Message& message) { messages.push_back(std::move(message)); });
        if (gone_[worker]) {
            announced_[worker] = 0; // it died before it sent the rest
        }
        for (const protocol::Message& message : messages) {
            if (message.tag == protocol::kReports) {
                readReports(worker, message.bytes, events);
            } else if (message.tag == protocol::kResult) {
                // A large result alone: as if it ran long.
                finished(worker, codec::decodeResult(message.bytes), kShortRunMicros, events);
            }
        }
    }
}

void ClientLink::readReports(std::size_t worker, std::string_view bytes,
                             std::vector<Event>& events) {
    batch::Reader reader(bytes);
    while (const auto item = reader.nextReport()) {
        if (item->kind == batch::Report::Finished) {
            finished(worker, codec::decodeResult(item->result), item->runMicros, events);
        } else if (auto task = work_->finish(worker, item->id).task) {
            events.push_back({std::move(task), Event::Skipped, std::nullopt, worker});
        }
    }
}

void ClientLink::finished(std::size_t worker, codec::ResultMessage result, std::uint64_t runMicros,
                          std::vector<Event>& events) {
    WorkList::Flight flight = work_->finish(worker, result.id);
    if (flight.task) {
        lastRun_[worker] = runMicros;
        if (!flight.started) {
            events.push_back({flight.task, Event::Started, std::nullopt, worker});
        }
        events.push_back({std::move(flight.task), Event::Finished, std::move(result), worker});
    }
    // Else not in flight there: a report this build cannot have sent.
}

void ClientLink::lookAtStarts(std::vector<Event>& events) {
    for (std::size_t worker = 0; worker < ranks_.size(); ++worker) {
        const std::optional<codec::TaskId> latest = starts_->latest(ranks_[worker]);
        if (!latest || latest == lastStart_[worker]) {
            continue;
        }
        lastStart_[worker] = latest;
        if (auto task = work_->started(worker, *latest)) {
            events.push_back({std::move(task), Event::Started, std::nullopt, worker});
        }
    }
}

void ClientLink::send(const WorkList::Send& send, std::vector<Event>& events) {
    batch::Outgoing tasks(protocol::kTasks, protocol::kTask);
    for (const auto& task : send.tasks) {
        try {
            protocol::Bytes encoded = task->encode();
            lastSize_[send.worker] = encoded.size();
            tasks.add(std::move(encoded), [](batch::Writer& open, const protocol::Bytes& small) {
                open.addTask(small);
            });
        } catch (...) {
            // Cannot be sent after all: it fails as if it ran.
            work_->finish(send.worker, task->getId());
            events.push_back({task, Event::Started, std::nullopt, send.worker});
            codec::ResultMessage failure;
            failure.result = codec::OutputsOrError(std::current_exception());
            events.push_back({task, Event::Finished, std::move(failure), send.worker});
        }
    }
    if (tasks.empty()) {
        return;
    }
    if (!sendAnnounced(outbox_, *control_[send.worker], ranks_[send.worker], tasks.take())) {
        gone_[send.worker] = true;
    }
}

void ClientLink::deliver(Event& event) {
    ClusterTask& task = *event.task;
    switch (event.kind) {
    case Event::Started: {
        // The timeline puts the task on the lane of the rank that runs it.
        using parallel::language::future::TimelineRecorder;
        std::string waiterLane;
        const bool waiter = !isLinkThread();
        if (waiter) {
            waiterLane = TimelineRecorder::thisThreadName();
        }
        TimelineRecorder::nameThisThread("rank " + std::to_string(ranks_[event.worker]));
        executor::notifySafely("mpipool", "Running", [&] { task.markRunning(); });
        if (waiter) {
            TimelineRecorder::nameThisThread(std::move(waiterLane));
        }
        break;
    }
    case Event::Finished:
        task.setResult(std::move(event.result->result), std::move(event.result->diary));
        executor::finishRun("mpipool", task);
        break;
    case Event::Skipped:
        // Stopped before it started: a cancel, or the pool's shutdown.
        executor::notifySafely("mpipool", "Finished", [&] { executor::cancelUnrun(task); });
        break;
    }
}

void ClientLink::fail(ClusterTask& task, std::exception_ptr error) {
    task.setResult(codec::OutputsOrError(std::move(error)), {});
    executor::finishRun("mpipool", task);
}

void ClientLink::lose(std::size_t worker) {
    const int rank = ranks_[worker];
    std::cerr << "mpipool: lost worker rank " << rank << std::endl;
    // What it recorded as started, though it never said so, ran there.
    WorkList::Loss loss =
        work_->lose(worker, starts_ ? starts_->recent(rank) : std::vector<codec::TaskId>{});
    for (const auto& task : loss.failed) {
        fail(*task, std::make_exception_ptr(errors::WorkerLost(std::int64_t{rank})));
    }
    for (const auto& task : loss.refused) {
        executor::cancelUnrun(*task);
    }
}

} // namespace mpipool
