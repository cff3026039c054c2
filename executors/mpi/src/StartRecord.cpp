#include "StartRecord.hpp"

#include "Protocol.hpp"

#include <boost/interprocess/shared_memory_object.hpp>
#include <boost/mpi/collectives/broadcast.hpp>
#include <boost/serialization/string.hpp>

#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <random>
#include <string>

namespace mpipool {

namespace ipc = boost::interprocess;

namespace {

struct Header {
    std::array<std::uint64_t, 2> nonce;
    std::uint64_t slots;
};

} // namespace

struct StartRecord::Slot {
    std::uint64_t count; // starts so far; through std::atomic_ref
    std::array<codec::TaskId, kRing> ids;
};

std::size_t StartRecord::segmentSize(std::size_t slots) {
    return sizeof(Header) + slots * sizeof(Slot);
}

StartRecord::StartRecord(ipc::mapped_region region, Slot* own)
    : region_(std::move(region)), own_(own) {}

StartRecord::Slot* StartRecord::slot(int rank) const noexcept {
    auto* base = static_cast<char*>(region_.get_address()) + sizeof(Header);
    return reinterpret_cast<Slot*>(base) + (rank - 1);
}

std::unique_ptr<StartRecord> StartRecord::share(const boost::mpi::communicator& comm) {
    std::string name;
    std::array<std::uint64_t, 2> nonce{};
    std::unique_ptr<StartRecord> record;
    const auto slots = static_cast<std::size_t>(comm.size() - 1);
    if (comm.rank() == protocol::kClientRank && protocol::sameHostShortcuts()) {
        std::random_device random;
        for (auto& part : nonce) {
            part = (std::uint64_t{random()} << 32) ^ random();
        }
        name = "/qzmpipool-" + std::to_string(::getpid()) + "-" + std::to_string(nonce[0] >> 16);
        try {
            ipc::shared_memory_object memory(ipc::create_only, name.c_str(), ipc::read_write);
            memory.truncate(static_cast<ipc::offset_t>(segmentSize(slots)));
            ipc::mapped_region region(memory, ipc::read_write);
            *static_cast<Header*>(region.get_address()) = Header{nonce, slots};
            record.reset(new StartRecord(std::move(region), nullptr));
        } catch (const ipc::interprocess_exception&) {
            ipc::shared_memory_object::remove(name.c_str());
            name.clear(); // no shared memory: the workers send Started frames
        }
    }
    boost::mpi::broadcast(comm, name, protocol::kClientRank);
    boost::mpi::broadcast(comm, nonce.data(), static_cast<int>(nonce.size()),
                          protocol::kClientRank);
    if (comm.rank() != protocol::kClientRank && !name.empty()) {
        try {
            ipc::shared_memory_object memory(ipc::open_only, name.c_str(), ipc::read_write);
            ipc::mapped_region region(memory, ipc::read_write);
            const auto* header = static_cast<const Header*>(region.get_address());
            if (region.get_size() >= segmentSize(slots) && header->nonce == nonce &&
                header->slots == slots) {
                record.reset(new StartRecord(std::move(region), nullptr));
                record->own_ = record->slot(comm.rank());
            }
        } catch (const ipc::interprocess_exception&) {
            // Another host: the Started frames serve.
        }
    }
    // Every worker has looked: the name can go.
    comm.barrier();
    if (comm.rank() == protocol::kClientRank && !name.empty()) {
        ipc::shared_memory_object::remove(name.c_str());
    }
    return record;
}

void StartRecord::record(codec::TaskId id) noexcept {
    std::atomic_ref<std::uint64_t> count(own_->count);
    const std::uint64_t n = count.load(std::memory_order_relaxed);
    // Relaxed: the client may read a slot the ring comes round to again.
    std::atomic_ref<codec::TaskId>(own_->ids[n % kRing]).store(id, std::memory_order_relaxed);
    count.store(n + 1, std::memory_order_release);
}

std::uint64_t StartRecord::count(int rank) const noexcept {
    const auto* header = static_cast<const Header*>(region_.get_address());
    if (rank < 1 || static_cast<std::uint64_t>(rank) > header->slots) {
        return 0;
    }
    return std::atomic_ref<std::uint64_t>(slot(rank)->count).load(std::memory_order_acquire);
}

std::optional<codec::TaskId> StartRecord::latest(int rank) const noexcept {
    const std::uint64_t n = count(rank);
    if (n == 0) {
        return std::nullopt;
    }
    return std::atomic_ref<codec::TaskId>(slot(rank)->ids[(n - 1) % kRing])
        .load(std::memory_order_relaxed);
}

std::vector<codec::TaskId> StartRecord::recent(int rank) const {
    const std::uint64_t n = count(rank);
    std::vector<codec::TaskId> ids;
    for (std::uint64_t i = n - std::min<std::uint64_t>(n, kRing); i < n; ++i) {
        ids.push_back(std::atomic_ref<codec::TaskId>(slot(rank)->ids[i % kRing])
                          .load(std::memory_order_relaxed));
    }
    return ids;
}

} // namespace mpipool
