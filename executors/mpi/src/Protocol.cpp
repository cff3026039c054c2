#include "Protocol.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

namespace mpipool::protocol {

namespace {

// 1 GiB: well inside an int count, and few chunks for the largest arrays.
constexpr std::size_t kDefaultChunkSize = std::size_t{1} << 30;
std::atomic<std::size_t> gChunkSize{kDefaultChunkSize};

// How long progress() keeps at a pending send before its owner looks at
// anything else.
// Only for large sends: a small one completes on a later call anyway.
constexpr std::chrono::microseconds kProgressSpin{200};
constexpr std::size_t kLargeSend = std::size_t{64} << 10;

// The header of a chunked buffer.
struct BigHeader {
    std::uint64_t size;
    std::uint64_t tag;
};

// Sends to lost processes, kept until the process ends (see abandon).
std::mutex gAbandonedMutex;
std::vector<std::shared_ptr<const Bytes>>& abandoned() {
    static auto* kept = new std::vector<std::shared_ptr<const Bytes>>(); // never freed
    return *kept;
}

void keepUntilExit(std::shared_ptr<const Bytes> bytes) {
    const std::lock_guard lock(gAbandonedMutex);
    abandoned().push_back(std::move(bytes));
}

} // namespace

std::size_t chunkSize() noexcept {
    return gChunkSize.load(std::memory_order_relaxed);
}

void setChunkSize(std::size_t bytes) noexcept {
    gChunkSize.store(std::clamp<std::size_t>(bytes, 1, INT_MAX), std::memory_order_relaxed);
}

bool sameHostShortcuts() noexcept {
    const char* tcpOnly = std::getenv("KORVEX_MPIPOOL_TCP_ONLY");
    return tcpOnly == nullptr || *tcpOnly == '\0' || std::strcmp(tcpOnly, "0") == 0;
}

Outbox::~Outbox() {
    progress();
    // The owner ends once the other side has answered all it was sent, or is
    // gone: what is still pending then is abandoned.
    for (Pending& send : pending_) {
        keepUntilExit(std::move(send.bytes));
    }
}

void Outbox::post(int rank, int tag, std::shared_ptr<const Bytes> bytes, const char* data,
                  std::size_t size) {
    boost::mpi::request request = comm_.isend(rank, tag, data, static_cast<int>(size));
    pending_.push_back({rank, std::move(bytes), std::move(request)});
}

void Outbox::send(int rank, int tag, Bytes bytes) {
    auto kept = std::make_shared<const Bytes>(std::move(bytes));
    const std::size_t chunk = chunkSize();
    if (kept->size() <= chunk) {
        post(rank, tag, kept, kept->data(), kept->size());
        return;
    }
    auto header = std::make_shared<Bytes>(sizeof(BigHeader), '\0');
    const BigHeader fields{kept->size(), static_cast<std::uint64_t>(tag)};
    std::memcpy(header->data(), &fields, sizeof fields);
    post(rank, kBig, header, header->data(), header->size());
    for (std::size_t offset = 0; offset < kept->size(); offset += chunk) {
        post(rank, kChunk, kept, kept->data() + offset, std::min(chunk, kept->size() - offset));
    }
}

bool Outbox::progress() {
    // MPI moves a large buffer piece by piece, and only while it is called:
    // stay a moment with what is pending instead of leaving it to the next
    // turn of the owner's loop.
    const auto until = std::chrono::steady_clock::now() + kProgressSpin;
    while (true) {
        std::erase_if(pending_, [](Pending& send) { return send.request.test().has_value(); });
        const bool large = std::ranges::any_of(
            pending_, [](const Pending& send) { return send.bytes->size() >= kLargeSend; });
        if (!large || std::chrono::steady_clock::now() >= until) {
            return !pending_.empty();
        }
    }
}

void Outbox::abandon(int rank) {
    std::erase_if(pending_, [rank](Pending& send) {
        if (send.rank != rank) {
            return false;
        }
        keepUntilExit(std::move(send.bytes));
        return true;
    });
}

boost::optional<boost::mpi::status> probeAnnounced(const boost::mpi::communicator& comm,
                                                   int source) {
    const auto until = std::chrono::steady_clock::now() + kProbePatience;
    while (true) {
        auto status = comm.iprobe(source, boost::mpi::any_tag);
        if (status || std::chrono::steady_clock::now() >= until) {
            return status;
        }
    }
}

std::optional<Message> receive(const boost::mpi::communicator& comm,
                               const boost::mpi::status& status,
                               const std::function<bool()>& gone) {
    const int source = status.source();
    const auto count = static_cast<std::size_t>(status.count<char>().value_or(0));
    if (status.tag() != kBig) {
        Message message{status.tag(), Bytes(count, '\0')};
        comm.recv(source, status.tag(), message.bytes.data(), static_cast<int>(count));
        return message;
    }
    BigHeader header{};
    if (count != sizeof header) {
        Bytes skipped(count, '\0');
        comm.recv(source, kBig, skipped.data(), static_cast<int>(count));
        return std::nullopt; // not a header of this build
    }
    comm.recv(source, kBig, reinterpret_cast<char*>(&header), static_cast<int>(sizeof header));
    Message message{static_cast<int>(header.tag), Bytes(header.size, '\0')};
    for (std::size_t offset = 0; offset < message.bytes.size();) {
        // The sender's chunk size may differ from ours: take each chunk as it
        // comes, at most what is left.
        boost::optional<boost::mpi::status> chunk;
        while (!(chunk = comm.iprobe(source, kChunk))) {
            if (gone()) {
                return std::nullopt;
            }
            std::this_thread::yield();
        }
        const auto size = static_cast<std::size_t>(chunk->count<char>().value_or(0));
        if (size == 0 || size > message.bytes.size() - offset) {
            return std::nullopt;
        }
        boost::mpi::request request =
            comm.irecv(source, kChunk, message.bytes.data() + offset, static_cast<int>(size));
        while (!request.test()) {
            if (gone()) {
                // MPI keeps the request: the buffer it fills must outlive it.
                keepUntilExit(std::make_shared<const Bytes>(std::move(message.bytes)));
                return std::nullopt;
            }
            std::this_thread::yield();
        }
        offset += size;
    }
    return message;
}

void receiveAnnounced(const boost::mpi::communicator& comm, int source, std::size_t& announced,
                      const std::function<bool()>& gone,
                      const std::function<void(Message&)>& take) {
    while (announced > 0) {
        const auto status = probeAnnounced(comm, source);
        if (!status) {
            return;
        }
        std::optional<Message> message = receive(comm, *status, gone);
        --announced;
        if (message) {
            take(*message);
        }
    }
}

} // namespace mpipool::protocol
