#include "ClusterImpl.hpp"

#include "MpiErrors.hpp"
#include "WorkerLoop.hpp"

#include <boost/exception/diagnostic_information.hpp>

#include <atomic>
#include <iostream>

namespace mpipool {

namespace {

std::atomic<int> gRank{-1};
std::atomic<bool> gClusterMade{false};

} // namespace

std::shared_ptr<ClientLink> Cluster::Impl::openLink(std::size_t numWorkers) {
    const foundation::core::sync::LockGuard lock(linkMutex);
    if (const auto open = link.lock(); open && !open->isFinished()) {
        throw errors::PoolAlreadyOpen();
    }
    auto opened = ClientLink::open(comm, numWorkers);
    link = opened;
    return opened;
}

Cluster::Cluster(int& argc, char**& argv) : impl_(std::make_unique<Impl>()) {
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
        try {
            for (int rank = 1; rank < getSize(); ++rank) {
                protocol::send(impl_->comm, rank, protocol::kExit, {});
            }
        } catch (...) {
            std::cerr << "mpipool: could not tell the workers to leave: "
                      << boost::current_exception_diagnostic_information() << std::endl;
            boost::mpi::environment::abort(1);
        }
    }
    impl_->comm = boost::mpi::communicator(); // released before MPI is finalized
    impl_->environment.reset();
    gRank = -1;
    gClusterMade = false;
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
        WorkerLoop(impl_->comm).run();
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
