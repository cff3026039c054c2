#include "ClientLink.hpp"

#include "Codec.hpp"

#include <executor/FinishOnceCancelled.hpp>
#include <executor/NotifySafely.hpp>
#include <parallel/language/future/TimelineRecorder.hpp>

#include <boost/exception/diagnostic_information.hpp>
#include <boost/mpi/environment.hpp>
#include <boost/mpi/status.hpp>

#include <iostream>
#include <string>

namespace mpipool {

namespace {

int rankOf(std::size_t worker) {
    return static_cast<int>(worker) + 1;
}

} // namespace

ClientLink::ClientLink(boost::mpi::communicator comm, std::size_t numWorkers)
    : comm_(std::move(comm)), work_(std::make_shared<WorkList>(numWorkers)) {}

std::shared_ptr<ClientLink> ClientLink::open(boost::mpi::communicator comm,
                                             std::size_t numWorkers) {
    std::shared_ptr<ClientLink> link(new ClientLink(std::move(comm), numWorkers));
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
        executor::cancelUnrun(*task); // never sent: no result will come for it
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

void ClientLink::run() noexcept {
    PollPacer pacer;
    while (true) {
        try {
            // What the workers said frees them first; their next tasks go out
            // before the notifications run, so that workers and client
            // overlap.
            std::vector<Event> events;
            while (const auto status = comm_.iprobe(boost::mpi::any_source, boost::mpi::any_tag)) {
                if (auto event = receive(*status)) {
                    events.push_back(std::move(*event));
                }
            }
            const WorkList::Orders orders = work_->takeOrders();
            for (const auto& send : orders.sends) {
                protocol::send(comm_, rankOf(send.worker), protocol::kTask,
                               send.task->takePayload());
            }
            for (const auto& stop : orders.stops) {
                protocol::send(comm_, rankOf(stop.worker), protocol::kStop,
                               codec::encodeTaskId(stop.task));
            }
            for (Event& event : events) {
                deliver(event);
            }
            if (orders.drained) {
                return;
            }
            if (!events.empty() || !orders.sends.empty() || !orders.stops.empty()) {
                pacer.reset();
                continue;
            }
            work_->waitForOrders(pacer);
        } catch (...) {
            // MPI reports its failures as exceptions; the job cannot go on
            // without its link, and MPI cannot lose a process and carry on.
            std::cerr << "mpipool: the client's link to its workers failed: "
                      << boost::current_exception_diagnostic_information() << std::endl;
            boost::mpi::environment::abort(1);
        }
    }
}

std::optional<ClientLink::Event> ClientLink::receive(const boost::mpi::status& status) {
    const protocol::Bytes bytes = protocol::receive(comm_, status);
    const int rank = status.source();
    if (rank < 1 || static_cast<std::size_t>(rank) > work_->getNumWorkers()) {
        std::cerr << "mpipool: ignored a message from rank " << rank
                  << ", which is no worker of the pool" << std::endl;
        return std::nullopt;
    }
    const auto worker = static_cast<std::size_t>(rank - 1);
    if (status.tag() == protocol::kStarted) {
        if (auto task = work_->inHand(worker, codec::decodeTaskId(bytes))) {
            return Event{std::move(task), std::nullopt, worker};
        }
        return std::nullopt;
    }
    if (status.tag() == protocol::kResult) {
        // An unreadable id throws: the link cannot tell whose result it is.
        codec::ResultMessage result = codec::decodeResult(bytes);
        if (auto task = work_->finish(worker, result.id)) {
            return Event{std::move(task), std::move(result), worker};
        }
        std::cerr << "mpipool: ignored the result of task " << result.id << " from worker "
                  << worker << ", which did not have it" << std::endl;
        return std::nullopt;
    }
    std::cerr << "mpipool: ignored a message with tag " << status.tag() << std::endl;
    return std::nullopt;
}

void ClientLink::deliver(Event& event) {
    ClusterTask& task = *event.task;
    if (!event.result) {
        // The timeline puts the task on the lane of the rank that runs it.
        parallel::language::future::TimelineRecorder::nameThisThread(
            "rank " + std::to_string(event.worker + 1));
        executor::notifySafely("mpipool", "Running", [&] { task.markRunning(); });
        return;
    }
    task.setResult(std::move(event.result->result), std::move(event.result->diary));
    executor::notifySafely("mpipool", "Finished", [&] { task.markFinished(); });
}

} // namespace mpipool
