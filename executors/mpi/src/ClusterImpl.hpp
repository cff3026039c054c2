#pragma once

// The cluster's state, shared with the pools it opens.

#include "ClientLink.hpp"
#include "ControlChannel.hpp"
#include "StartRecord.hpp"

#include <mpipool/Cluster.hpp>

#include <boost/mpi/communicator.hpp>
#include <boost/mpi/environment.hpp>

#include <foundation/core/sync/Mutex.hpp>

#include <memory>
#include <vector>

namespace mpipool {

struct Cluster::Impl {
    std::unique_ptr<boost::mpi::environment> environment;
    // A duplicate of the world communicator: the pool's messages never mix
    // with the program's own.
    boost::mpi::communicator comm;
    // Rank 0: one per worker (index rank - 1); a worker: its one to rank 0.
    std::vector<std::unique_ptr<ControlSocket>> control;
    std::shared_ptr<LostRanks> lost; // rank 0
    // Rank 0: the workers' start records; a worker: its own. Null when not
    // shared (see StartRecord.hpp).
    std::unique_ptr<StartRecord> starts;
    // A process of the job is lost: MPI cannot finalize (it would wait for
    // the lost one), so the process ends without.
    bool skipFinalize = false;

    foundation::core::sync::Mutex linkMutex;
    std::weak_ptr<ClientLink> link QZ_GUARDED_BY(linkMutex); // the open pool's, rank 0

    // The ranks of the worker processes not lost, lowest first. Rank 0.
    std::vector<int> liveRanks() const;
    // Starts the link of a new pool over the first `numWorkers` live
    // workers. Throws PoolAlreadyOpen while the last pool's link has not
    // finished. Rank 0.
    std::shared_ptr<ClientLink> openLink(std::size_t numWorkers) QZ_EXCLUDES(linkMutex);
};

} // namespace mpipool
