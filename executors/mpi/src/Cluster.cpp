#include "ClusterImpl.hpp"

#include "MpiErrors.hpp"
#include "WorkerLoop.hpp"

#include <boost/exception/diagnostic_information.hpp>

#include <atomic>
#include <cstdlib>
#include <iostream>

namespace mpipool {

namespace {

std::atomic<int> gRank{-1};
std::atomic<bool> gClusterMade{false};
std::atomic<bool> gClusterEnded{false};

} // namespace

std::vector<int> Cluster::Impl::liveRanks() const {
    std::vector<int> ranks;
    for (std::size_t i = 0; i < lost->size(); ++i) {
        if (!(*lost)[i]) {
            ranks.push_back(static_cast<int>(i) + 1);
        }
    }
    return ranks;
}

std::shared_ptr<ClientLink> Cluster::Impl::openLink(std::size_t numWorkers) {
    const foundation::core::sync::LockGuard lock(linkMutex);
    if (const auto open = link.lock(); open && !open->isFinished()) {
        throw errors::PoolAlreadyOpen();
    }
    std::vector<int> ranks = liveRanks();
    ranks.resize(std::min(numWorkers, ranks.size()));
    std::vector<ControlSocket*> sockets;
    for (const int rank : ranks) {
        sockets.push_back(control.at(static_cast<std::size_t>(rank - 1)).get());
    }
    auto opened = ClientLink::open(comm, std::move(ranks), std::move(sockets), lost, starts.get());
    link = opened;
    return opened;
}

Cluster::Cluster(int& argc, char**& argv) : impl_(std::make_unique<Impl>()) {
    if (gClusterEnded) {
        throw errors::ClusterEnded();
    }
    if (gClusterMade.exchange(true)) {
        throw errors::ClusterExists();
    }
    impl_->environment =
        std::make_unique<boost::mpi::environment>(argc, argv, boost::mpi::threading::serialized);
    if (impl_->environment->thread_level() < boost::mpi::threading::serialized) {
        std::cerr << "mpipool: this MPI does not allow calls from more than one thread"
                  << std::endl;
        boost::mpi::environment::abort(1);
    }
    impl_->comm = boost::mpi::communicator(MPI_COMM_WORLD, boost::mpi::comm_duplicate);
    if (const char* chunk = std::getenv("KORVEX_MPIPOOL_CHUNK_BYTES"); chunk && *chunk) {
        protocol::setChunkSize(std::strtoull(chunk, nullptr, 10));
    }
    try {
        impl_->control = connectControlChannels(impl_->comm);
        impl_->starts = StartRecord::share(impl_->comm);
    } catch (...) {
        std::cerr << "mpipool: process " << impl_->comm.rank() << " could not connect the cluster: "
                  << boost::current_exception_diagnostic_information() << std::endl;
        boost::mpi::environment::abort(1);
    }
    impl_->lost = std::make_shared<LostRanks>(static_cast<std::size_t>(impl_->comm.size() - 1));
    gRank = impl_->comm.rank();
}

Cluster::~Cluster() {
    if (isClient()) {
        std::shared_ptr<ClientLink> open;
        {
            const foundation::core::sync::LockGuard lock(impl_->linkMutex);
            open = impl_->link.lock();
        }
        if (open) {
            open->close();
            open->waitUntilFinished();
        }
        // MPI cannot finalize once a process is lost: it would wait for it.
        const std::vector<int> live = impl_->liveRanks();
        impl_->skipFinalize = live.size() < impl_->lost->size();
        for (const int rank : live) {
            impl_->control[static_cast<std::size_t>(rank - 1)]->write(protocol::Frame::Exit,
                                                                      impl_->skipFinalize ? 1 : 0);
        }
    }
    impl_->control.clear();
    impl_->comm = boost::mpi::communicator(); // released before MPI is finalized
    if (impl_->skipFinalize) {
        // A process of the job is lost: the process ends without finalizing,
        // its MPI environment kept (never destroyed) until then.
        static auto* const kept = new std::vector<std::unique_ptr<boost::mpi::environment>>();
        kept->push_back(std::move(impl_->environment));
    }
    impl_->environment.reset();
    gRank = -1;
    gClusterEnded = true;
}

int Cluster::getRank() const noexcept {
    return impl_->comm.rank();
}

int Cluster::getSize() const noexcept {
    return impl_->comm.size();
}

int Cluster::serve() {
    if (isClient()) {
        throw errors::ServeOnClient();
    }
    try {
        const WorkerLoop::Ending ending =
            WorkerLoop(impl_->comm, *impl_->control.at(0), impl_->starts.get()).run();
        impl_->skipFinalize = ending != WorkerLoop::Ending::Finalize;
        if (ending == WorkerLoop::Ending::ClientGone) {
            std::cerr << "mpipool: worker " << getRank() << " lost its client" << std::endl;
            return 1;
        }
    } catch (...) {
        // The client would wait for this worker forever: end the whole job.
        std::cerr << "mpipool: worker " << getRank()
                  << " failed: " << boost::current_exception_diagnostic_information() << std::endl;
        boost::mpi::environment::abort(1);
    }
    return 0;
}

int thisRank() noexcept {
    return gRank;
}

} // namespace mpipool
