#include "WorkerLoop.hpp"

#include "Evaluation.hpp"

#include <boost/mpi/status.hpp>

#include <iostream>

namespace mpipool {

StopWatcher::StopWatcher(const boost::mpi::communicator& comm, std::mutex& mpiMutex)
    : comm_(comm), mpiMutex_(mpiMutex), thread_([this] { loop(); }) {}

StopWatcher::~StopWatcher() {
    {
        const std::lock_guard lock(mutex_);
        quit_ = true;
    }
    quitNews_.notify_one();
    thread_.join();
}

void StopWatcher::watch(codec::TaskId id) {
    const std::lock_guard lock(mutex_);
    watched_ = id;
    stop_ = false;
    watching_ = true;
}

void StopWatcher::unwatch() {
    const std::lock_guard lock(mutex_);
    watching_ = false;
}

void StopWatcher::pollOnce() {
    const std::lock_guard mpi(mpiMutex_);
    if (!watching_) {
        return; // the function returned while this thread waited for MPI
    }
    if (const auto status = comm_.iprobe(protocol::kClientRank, protocol::kStop)) {
        const codec::TaskId id = codec::decodeTaskId(protocol::receive(comm_, *status));
        const std::lock_guard lock(mutex_);
        if (id == watched_) {
            stop_ = true;
        }
    }
}

void StopWatcher::loop() noexcept {
    std::unique_lock lock(mutex_);
    while (!quitNews_.wait_for(lock, kPollInterval, [this] { return quit_; })) {
        if (!watching_) {
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
    std::unique_lock mpi(mpiMutex_);
    PollPacer pacer;
    while (true) {
        const auto status = comm_.iprobe(protocol::kClientRank, boost::mpi::any_tag);
        if (!status) {
            pacer.pause(mpi, noNews_, [] { return false; });
            continue;
        }
        const protocol::Bytes bytes = protocol::receive(comm_, *status);
        switch (status->tag()) {
        case protocol::kTask:
            runTask(bytes, mpi);
            break;
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

void WorkerLoop::runTask(const protocol::Bytes& bytes, std::unique_lock<std::mutex>& mpi) {
    const codec::TaskMessage task = codec::decodeTask(bytes);
    protocol::send(comm_, protocol::kClientRank, protocol::kStarted, codec::encodeTaskId(task.id));
    watcher_.watch(task.id);
    mpi.unlock();
    const protocol::Bytes result = evaluate(task, watcher_.stopFlag());
    watcher_.unwatch();
    mpi.lock();
    protocol::send(comm_, protocol::kClientRank, protocol::kResult, result);
}

} // namespace mpipool
