#pragma once

// The processes of an MPI job as a cluster: rank 0 is the client, which runs
// the interpreter and opens pools (mpipool::MpiPool) one at a time; every
// other rank is a worker, which serves the client's evaluations until the
// client ends the cluster.
//
//   int main(int argc, char** argv) {
//       registerMyFunctions();                  // the same on every process
//       mpipool::Cluster cluster(argc, argv);
//       if (!cluster.isClient()) {
//           return cluster.serve();
//       }
//       auto pool = std::make_shared<mpipool::MpiPool>(cluster);
//       ...                                     // pools end before the cluster
//   }
//
// States: rank 0: Started -> (PoolOpen -> Started)* -> Ended; worker ranks:
// Started -> Serving -> Ended. Ending the cluster on rank 0 shuts down a pool
// still open, then tells every worker to leave serve(). MPI is initialised
// by the constructor (one thread at a time calls MPI: the main thread, or
// the link thread of the open pool) and finalized by the destructor.
//
// Besides MPI, rank 0 keeps a TCP connection to each worker, made by the
// constructor: small frames on it wake sleeping threads (no process polls
// while it has nothing to do), and its end tells of a lost process. A worker
// whose client is gone leaves serve().
//
// Environment: KORVEX_MPIPOOL_HOST, the address the workers reach rank 0 at
// (default: rank 0's host name); KORVEX_MPIPOOL_CHUNK_BYTES, the largest MPI
// message (default 1 GiB; larger buffers are sent in chunks), the same on
// every process.
//
// Ownership: one per process, made and destroyed on the main thread.

#include <memory>

namespace mpipool {

class Cluster {
public:
    // Throws the host error "KORVEX:mpipool:ClusterExists" for a second
    // cluster in one process, and "KORVEX:mpipool:ClusterEnded" for one made
    // after the process's cluster ended (MPI starts once per process).
    Cluster(int& argc, char**& argv);
    ~Cluster();
    Cluster(const Cluster&) = delete;
    Cluster& operator=(const Cluster&) = delete;

    int getRank() const noexcept;
    // The number of processes, client included.
    int getSize() const noexcept;
    bool isClient() const noexcept { return getRank() == 0; }

    // Runs the client's evaluations until the client ends the cluster, then
    // returns 0 (a status for main); returns 1 when the client is gone. MPI
    // is not finalized once a process of the job is lost: it would wait for
    // the lost one. Worker ranks only: throws the host
    // error "KORVEX:mpipool:ServeOnClient" on rank 0.
    int serve();

private:
    friend class MpiPool;
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The rank of this process; -1 when no cluster has been made. Any thread.
int thisRank() noexcept;

} // namespace mpipool
