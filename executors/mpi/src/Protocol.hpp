#pragma once

// The messages between the client (rank 0) and the workers. Every message is
// a byte buffer: a Boost.Serialization binary archive (see Codec.hpp), sent
// as MPI_CHAR on the cluster's own communicator. Between one sender and one
// receiver, messages arrive in the order they were sent.
//
//   client -> worker   kTask     an evaluation: id, function name, number of
//                                outputs, inputs
//                      kStop     stop the evaluation with this id, if it is
//                                the worker's (stale ids are ignored)
//                      kExit     leave serve(): the client ends the cluster
//   worker -> client   kStarted  the evaluation with this id has started
//                      kResult   its outputs or error, and its diary
//
// A worker has at most one evaluation from the client at a time: the client
// sends the next one after the result of the last.

#include <boost/mpi/communicator.hpp>
#include <boost/mpi/status.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace mpipool::protocol {

inline constexpr int kTask = 1;
inline constexpr int kStop = 2;
inline constexpr int kExit = 3;
inline constexpr int kStarted = 11;
inline constexpr int kResult = 12;

inline constexpr int kClientRank = 0;

using Bytes = std::string;

inline void send(const boost::mpi::communicator& comm, int rank, int tag, const Bytes& bytes) {
    comm.send(rank, tag, bytes.data(), static_cast<int>(bytes.size()));
}

// Receives the message that `status` (from a probe) describes.
inline Bytes receive(const boost::mpi::communicator& comm, const boost::mpi::status& status) {
    Bytes bytes(static_cast<std::size_t>(status.count<char>().value_or(0)), '\0');
    comm.recv(status.source(), status.tag(), bytes.data(), static_cast<int>(bytes.size()));
    return bytes;
}

} // namespace mpipool::protocol
