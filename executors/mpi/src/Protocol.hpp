#pragma once

// How the client (rank 0) and the workers talk. Two channels join the client
// to each worker:
//
//   the control channel, a stream connection (ControlChannel.hpp), carries small
//   frames (Frame: a tag and a 64-bit value) that wake the other side: a blocked
//   thread waits on sockets, never polls MPI. Its end is the news of a lost
//   process: the kernel closes a dead process's sockets.
//
//     client -> worker   Wake     MPI messages follow (value: how many)
//                        Batch    a kTasks batch follows in the stream
//                                 (value: its size in bytes)
//                        Stop     stop the evaluation with this id, or skip
//                                 it if it has not started
//                        Exit     leave serve(): the client ends the cluster
//                                 (value 1: a process is lost, skip
//                                 MPI_Finalize)
//     worker -> client   Wake     MPI messages follow (value: how many)
//                        Batch    a kReports batch follows in the stream
//                                 (value: its size in bytes)
//                        Started  the evaluation with this id starts now:
//                                 sent before it runs, so that the client
//                                 knows what a lost worker may have run;
//                                 held back (corked) while more tasks are
//                                 queued behind it. A worker that records
//                                 its starts (StartRecord.hpp) sends it only
//                                 for a run that lasts.
//                        Push     nothing: sends the frames held back
//
//   A batch of small items travels in a Batch frame itself (Batch.hpp says
//   which): the frame that wakes the receiver brings it. The bytes of such
//   batches a side has written and the other has not read stay well below
//   what the socket buffers hold (a worker has at most
//   ClientLink::kMaxInFlight tasks in flight, whose items average at most
//   kFrameItemBytes), so that a write never waits for a peer that is itself
//   writing.
//
//   MPI, on the cluster's own communicator, carries the other data: byte
//   buffers (MPI_CHAR), sent without blocking and then announced by a Wake
//   frame, so that a small one has arrived when the frame wakes the receiver.
//   A receiver takes in the messages announced before a Batch frame before
//   the batch, so that both arrive in the order they were sent.
//
//     client -> worker   kTasks    a batch of encoded evaluations (Batch.hpp)
//                        kTask     one large encoded evaluation
//     worker -> client   kReports  a batch of reports: finished (with the
//                                  encoded result), skipped
//                        kResult   one large encoded result
//
// A buffer larger than the chunk size travels as a kBig message holding its
// size and tag, then as many kChunk messages as it takes (64-bit sizes; every MPI
// count fits an int). Between one sender and one receiver, messages arrive in
// the order they were sent, so the chunks of one buffer are never mixed with
// another's: each side sends from one thread only.

#include <boost/mpi/communicator.hpp>
#include <boost/mpi/request.hpp>
#include <boost/mpi/status.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

namespace mpipool::protocol {

// MPI tags.
inline constexpr int kTasks = 1;
inline constexpr int kReports = 2;
inline constexpr int kBig = 3;
inline constexpr int kChunk = 4;
inline constexpr int kTask = 5;   // one large encoded evaluation
inline constexpr int kResult = 6; // one large encoded result

// Control frame tags.
enum class Frame : std::uint8_t { Wake = 1, Stop = 2, Exit = 3, Started = 4, Push = 5, Batch = 6 };

inline constexpr int kClientRank = 0;

using Bytes = std::string;

// The largest MPI message; larger buffers are chunked. A test may lower it
// (setChunkSize) to exercise chunking cheaply. Any thread; set it before the
// cluster starts, the same on every process.
std::size_t chunkSize() noexcept;
void setChunkSize(std::size_t bytes) noexcept;

// Whether workers on the client's host take the shortcuts open to them: a
// local control socket and starts recorded in shared memory. False when
// KORVEX_MPIPOOL_TCP_ONLY is set (not empty, not "0"): every worker is then
// served as one on another host is (TCP, a start frame per task). The
// client decides; any thread.
bool sameHostShortcuts() noexcept;

// Sends buffers without blocking and keeps each one alive until MPI is done
// with it. The thread that owns it (one per process side) calls progress()
// while anything is pending: MPI moves a large buffer only when called.
class Outbox {
public:
    explicit Outbox(const boost::mpi::communicator& comm) : comm_(comm) {}
    ~Outbox();
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    void send(int rank, int tag, Bytes bytes);
    // Completes what MPI has finished with; true while sends are pending.
    bool progress();
    bool idle() const noexcept { return pending_.empty(); }
    // Forgets the sends to `rank`, a process that is gone: MPI would never
    // complete them. Their buffers are kept until the process ends, since MPI
    // may still hold them.
    void abandon(int rank);

private:
    struct Pending {
        int rank;
        std::shared_ptr<const Bytes> bytes;
        boost::mpi::request request;
    };
    void post(int rank, int tag, std::shared_ptr<const Bytes> bytes, const char* data,
              std::size_t size);

    const boost::mpi::communicator& comm_;
    std::list<Pending> pending_;
};

// Probes for a message from `source` that is known to be on its way: MPI
// may need a few calls to take in a message just sent, so it keeps at it for
// up to kProbePatience before it gives up (nothing then).
inline constexpr std::chrono::microseconds kProbePatience{50};
boost::optional<boost::mpi::status> probeAnnounced(const boost::mpi::communicator& comm,
                                                   int source);

struct Message {
    int tag = 0; // kTasks, kTask, kReports or kResult
    Bytes bytes;
    bool inFrame = false; // a batch that travels in a Batch frame
};

// Receives the buffer that the probed `status` begins: one message, or a
// kBig header and its chunks. While a chunk is awaited, `gone` is asked
// whether the sender is lost; then the receive gives up with nothing. The
// thread that owns the process's MPI side.
std::optional<Message> receive(const boost::mpi::communicator& comm,
                               const boost::mpi::status& status, const std::function<bool()>& gone);

// Receives the messages from `source` that were announced (`announced`
// counts them off) and have arrived, handing each one read whole to `take`;
// stops at the first that has not arrived. `gone` as for receive. The thread
// that owns the process's MPI side.
void receiveAnnounced(const boost::mpi::communicator& comm, int source, std::size_t& announced,
                      const std::function<bool()>& gone, const std::function<void(Message&)>& take);

} // namespace mpipool::protocol
