#pragma once

// Which evaluations a worker has started, kept in memory the client shares
// with the workers on its own host: a worker stores each id as it starts
// the evaluation (instead of writing a Started frame). The client reads the
// last one to tell that a run lasts (latest), and the recent ones once it
// has lost that worker, to tell what may have run there from what never
// started.
//
// Setup (collective, when the cluster starts): the client creates a segment
// under a random name and writes a random nonce into it; every rank learns
// name and nonce; a worker that can open the segment and finds the nonce
// there is on the client's host and uses it, any other keeps sending Started
// frames. The client removes the name once every worker has answered, so
// nothing is left behind when processes die; the mappings stay.
//
// Layout: a header (nonce, number of slots), then one slot per worker (index
// rank - 1): a count of starts and a ring of the last kRing ids started.
// Only the worker writes its slot, one thread at a time; the client reads it
// at any time: the count, stored after the id it counts (release), tells
// which ids are written.
//
// Threads: record() on the worker's runner; latest() and recent() on the
// client's link thread.

#include "Codec.hpp"

#include <boost/interprocess/mapped_region.hpp>
#include <boost/mpi/communicator.hpp>

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

namespace mpipool {

class StartRecord {
public:
    // The ids of the last kRing starts are kept: more than a worker can have
    // in flight at once.
    static constexpr std::size_t kRing = 512;

    // Collective: every rank calls it once when the cluster starts. On the
    // client, the records of all workers; on a worker, its own record, or
    // null when it is not on the client's host (or anything failed: the
    // Started frames serve then).
    static std::unique_ptr<StartRecord> share(const boost::mpi::communicator& comm);

    // That evaluation `id` starts now. Worker, before it runs the function.
    void record(codec::TaskId id) noexcept;
    // The id of the last start of worker `rank`; none before its first, or
    // for a worker that does not use the record. Client.
    std::optional<codec::TaskId> latest(int rank) const noexcept;
    // The ids of the last starts of worker `rank` (at most kRing, oldest
    // first); none for a worker that does not use the record. Client, once
    // that worker is gone.
    std::vector<codec::TaskId> recent(int rank) const;

private:
    struct Slot;
    static std::size_t segmentSize(std::size_t slots);
    StartRecord(boost::interprocess::mapped_region region, Slot* own);
    Slot* slot(int rank) const noexcept;
    // How many starts `rank` has recorded (acquire: their ids are there).
    std::uint64_t count(int rank) const noexcept;

    boost::interprocess::mapped_region region_;
    Slot* own_; // a worker's slot; null on the client
};

} // namespace mpipool
