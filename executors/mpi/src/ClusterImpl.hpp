#pragma once

// The cluster's state, shared with the pools it opens.

#include "ClientLink.hpp"

#include <mpipool/Cluster.hpp>

#include <boost/mpi/communicator.hpp>
#include <boost/mpi/environment.hpp>

#include <foundation/core/sync/Mutex.hpp>

#include <memory>

namespace mpipool {

struct Cluster::Impl {
    std::unique_ptr<boost::mpi::environment> environment;
    // A duplicate of the world communicator: the pool's messages never mix
    // with the program's own.
    boost::mpi::communicator comm;

    foundation::core::sync::Mutex linkMutex;
    std::weak_ptr<ClientLink> link QZ_GUARDED_BY(linkMutex); // the open pool's, rank 0

    // Starts the link of a new pool over ranks 1 to numWorkers. Throws
    // PoolAlreadyOpen while the last pool's link has not finished. Rank 0.
    std::shared_ptr<ClientLink> openLink(std::size_t numWorkers) QZ_EXCLUDES(linkMutex);
};

} // namespace mpipool
