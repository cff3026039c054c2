#include "WorkerLoop.hpp"

#include "Evaluation.hpp"

#include <boost/mpi/status.hpp>

#include <iostream>

namespace mpipool {

using foundation::core::sync::LockGuard;
using foundation::core::sync::UniqueLock;

StopWatcher::StopWatcher(const boost::mpi::communicator& comm,
                         foundation::core::sync::Mutex& mpiMutex)
    : comm_(comm), mpiMutex_(mpiMutex), thread_([this] { loop(); }) {}

StopWatcher::~StopWatcher() {
    {
        const LockGuard lock(mutex_);
        quit_ = true;
    }
    quitNews_.notify_one();
    thread_.join();
}

void StopWatcher::watch(codec::TaskId id) {
    const LockGuard lock(mutex_);
    watched_ = id;
    stop_ = false;
    watching_ = true;
}

void StopWatcher::unwatch() {
    const LockGuard lock(mutex_);
    watching_ = false;
}

void StopWatcher::pollOnce() {
    const LockGuard mpi(mpiMutex_);
    if (!watching_) {
        return; // the function returned while this thread waited for MPI
    }
    if (const auto status = comm_.iprobe(protocol::kClientRank, protocol::kStop)) {
        const codec::TaskId id = codec::decodeTaskId(protocol::receive(comm_, *status));
        const LockGuard lock(mutex_);
        if (id == watched_) {
            stop_ = true;
        }
    }
}

void StopWatcher::loop() noexcept {
    UniqueLock lock(mutex_);
    while (!quit_) {
        quitNews_.wait_for(lock.native(), kPollInterval);
        if (quit_ || !watching_) {
            continue;
        }
        lock.unlock();
        try {
            pollOnce();
        } catch (...) {
            std::cerr << "mpipool: a worker could not read a stop request" << std::endl;
        }
        lock.lock();
    }
}

WorkerLoop::WorkerLoop(const boost::mpi::communicator& comm)
    : comm_(comm), watcher_(comm, mpiMutex_) {}

void WorkerLoop::run() {
    UniqueLock mpi(mpiMutex_);
    PollPacer pacer;
    while (true) {
        const auto status = comm_.iprobe(protocol::kClientRank, boost::mpi::any_tag);
        if (!status) {
            pacer.pause(mpi.native(), noNews_);
            continue;
        }
        const protocol::Bytes bytes = protocol::receive(comm_, *status);
        switch (status->tag()) {
        case protocol::kTask: {
            // The function runs without the MPI mutex: the watcher polls meanwhile.
            const codec::TaskMessage task = codec::decodeTask(bytes);
            protocol::send(comm_, protocol::kClientRank, protocol::kStarted,
                           codec::encodeTaskId(task.id));
            watcher_.watch(task.id);
            mpi.unlock();
            const protocol::Bytes result = evaluate(task, watcher_.stopFlag());
            watcher_.unwatch();
            mpi.lock();
            protocol::send(comm_, protocol::kClientRank, protocol::kResult, result);
            break;
        }
        case protocol::kStop:
            break; // for a task that has finished
        case protocol::kExit:
            return;
        default:
            std::cerr << "mpipool: worker " << comm_.rank() << " ignored a message with tag "
                      << status->tag() << std::endl;
        }
        pacer.reset();
    }
}

} // namespace mpipool
