#pragma once

// The control channel between the client and one worker: a stream
// connection carrying frames (Protocol.hpp), and the setup that connects
// every worker to the client when the cluster starts: a worker on the
// client's host connects to an abstract local socket under a random name
// (cheaper to write to and wake through), any other over TCP. A thread that
// sleeps waits on these sockets (and a Waker for news of its own process)
// with poll().
//
// Lost processes: the kernel closes the sockets of a process that dies, so
// the other end reads the end of the stream at once. A machine that stops
// answering is noticed by TCP keepalive and the unacknowledged-data timeout
// (kDeadPeerTimeout).
//
// Threads: a ControlSocket is read by one thread at a time; any thread
// writes (one frame at a time, under its mutex).

#include "Protocol.hpp"

#include <foundation/core/sync/Mutex.hpp>

#include <sys/uio.h>

#include <boost/mpi/communicator.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace mpipool {

inline constexpr std::chrono::seconds kDeadPeerTimeout{3};

struct FrameMessage {
    protocol::Frame frame;
    std::uint64_t value;
    protocol::Bytes batch; // what a Batch frame brings
};

class ControlSocket {
public:
    explicit ControlSocket(int fd);
    ~ControlSocket();
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

    int fd() const noexcept { return fd_; }
    // Writes one frame; false when the peer is gone. With `holdBack`, the
    // kernel may keep it (and the frames after it) until a frame without, or
    // for up to 200 ms; once written it is the kernel's, so it still reaches
    // the peer if this process dies.
    bool write(protocol::Frame frame, std::uint64_t value = 0, bool holdBack = false) noexcept
        QZ_EXCLUDES(writeMutex_);
    // Writes a Batch frame that brings `batch`; false when the peer is gone.
    bool writeBatch(std::string_view batch) noexcept QZ_EXCLUDES(writeMutex_);
    // Whether the peer has closed its end (frames may still be unread). Any
    // thread.
    bool peerClosed() const noexcept;
    // Reads what has arrived without blocking and appends the whole frames;
    // false once the stream has ended or broken, or brought a batch larger
    // than kMaxBatch (the frames before are still appended; an end right
    // after them may be read on the next call). Throws std::bad_alloc.
    bool readAvailable(std::vector<FrameMessage>& frames);

    // More than the socket buffers hold: a larger batch is a broken stream.
    static constexpr std::size_t kMaxBatch = std::size_t{1} << 20;

private:
    static constexpr std::size_t kFrameSize = 9;
    bool writeAll(const ::iovec* parts, std::size_t count, bool holdBack) noexcept
        QZ_REQUIRES(writeMutex_);

    int fd_;
    foundation::core::sync::Mutex writeMutex_;
    // The frame being read: its header, then the batch it brings.
    std::array<unsigned char, kFrameSize> partial_{};
    std::size_t partialSize_ = 0;
    std::optional<FrameMessage> reading_;
};

// A counter descriptor that a thread asleep in poll() waits on: it reads
// ready once counted, until drained. Owns the descriptor.
class PolledCounter {
public:
    PolledCounter(const PolledCounter&) = delete;
    PolledCounter& operator=(const PolledCounter&) = delete;

    int fd() const noexcept { return fd_; }
    void drain() noexcept;

protected:
    // Takes `fd`; throws std::runtime_error naming `what` when it is invalid.
    PolledCounter(int fd, const char* what);
    ~PolledCounter();

    const int fd_;
};

// Wakes a thread asleep in poll() from another thread of this process.
class Waker : public PolledCounter {
public:
    Waker();
    void wake() noexcept;
};

// Wakes a thread asleep in poll() on fd() at a time another thread sets,
// unless it is called off before: setting and calling off wake no one.
class Alarm : public PolledCounter {
public:
    Alarm();
    // Rings after `delay` (at once for zero), instead of when set before.
    void setIn(std::chrono::nanoseconds delay) noexcept;
    void callOff() noexcept;
};

// A sleep (epoll) on a descriptor that always counts, and on one that counts
// only while watched: another thread watches and unwatches it while a
// thread sleeps, with a cheap call each and no timer. The watched one stays
// registered and is armed for one wake-up at a time; unwatched, it may still
// end one sleep early, once, when it breaks or its peer hangs up. wait(),
// watch() and unwatch() from any thread.
class WatchedSleep {
public:
    // Throws std::runtime_error when the kernel refuses.
    WatchedSleep(int always, int watchable);
    ~WatchedSleep();
    WatchedSleep(const WatchedSleep&) = delete;
    WatchedSleep& operator=(const WatchedSleep&) = delete;

    // Until `always`, or the watched descriptor, is readable.
    void wait() noexcept;
    void watch() noexcept;
    void unwatch() noexcept;

private:
    int epoll_;
    int watchable_;
};

// Connects the workers of `comm` to its rank 0: collective, every rank calls
// it once when the cluster starts. On rank 0, the socket of each worker
// (index rank - 1); on a worker, its one socket to the client. The client
// listens on the address KORVEX_MPIPOOL_HOST names, else its host name.
// Throws std::runtime_error when the connections cannot be made.
std::vector<std::unique_ptr<ControlSocket>>
connectControlChannels(const boost::mpi::communicator& comm);

// Sends `messages` to `rank` without blocking, then the Wake frame that
// announces them: a small message has arrived by the time the frame wakes
// the peer, a large one moves while both sides call MPI. False when the
// peer's control connection is gone. The thread that owns `outbox`.
bool sendAnnounced(protocol::Outbox& outbox, ControlSocket& control, int rank,
                   std::vector<protocol::Message> messages);

// Waits until one of `fds` is readable or `timeout` passes (negative: no
// limit); the readable ones are flagged in `ready`.
void waitReadable(const std::vector<int>& fds, std::vector<bool>& ready,
                  std::chrono::microseconds timeout);

} // namespace mpipool
