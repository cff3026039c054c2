#pragma once

// The batches that travel as one MPI message (Protocol.hpp): kTasks holds
// encoded evaluations, kReports holds what a worker reports of them. Items
// are length-prefixed; every number is 64-bit, in the machine's order (all
// processes run one build on one kind of machine). An item of kSeparate bytes
// or more travels alone instead (kTask, kResult), so that a large array is
// not copied into a batch.
//
//   task item     size, encoded task (Codec.hpp)
//   report item   kind, task id, run time in microseconds, size, encoded
//                 result (size 0 but for Finished)
//
// Threads: any; a writer or reader is used by one thread.

#include "Protocol.hpp"

#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

namespace mpipool::batch {

enum class Report : std::uint64_t { Finished = 2, Skipped = 3 };

inline constexpr std::size_t kSeparate = std::size_t{64} << 10;

// A batch whose items average at most this many bytes travels in a Batch
// frame (Protocol.hpp), any other as an MPI message.
inline constexpr std::size_t kFrameItemBytes = 256;

struct ReportItem {
    Report kind;
    std::uint64_t id;
    std::uint64_t runMicros;
    std::string_view result; // into the batch's bytes
};

class Writer {
public:
    void addTask(std::string_view encoded) {
        put(encoded.size());
        bytes_.append(encoded);
        ++count_;
    }
    void addReport(Report kind, std::uint64_t id, std::uint64_t runMicros = 0,
                   std::string_view result = {}) {
        put(static_cast<std::uint64_t>(kind));
        put(id);
        put(runMicros);
        put(result.size());
        bytes_.append(result);
        ++count_;
    }
    std::size_t size() const noexcept { return bytes_.size(); }
    std::size_t count() const noexcept { return count_; }
    bool empty() const noexcept { return count_ == 0; }
    protocol::Bytes take() noexcept {
        count_ = 0;
        return std::move(bytes_);
    }

private:
    void put(std::uint64_t value) {
        if (bytes_.capacity() < kFirstCapacity) {
            bytes_.reserve(kFirstCapacity); // one allocation for a few items
        }
        bytes_.append(reinterpret_cast<const char*>(&value), 8);
    }
    // Room for about ten small items: a batch of one (a sporadic task or
    // report) costs a small allocation, not a large one that makes the
    // allocator tidy its free lists first; a larger batch grows by doubling.
    static constexpr std::size_t kFirstCapacity = 960;
    protocol::Bytes bytes_;
    std::size_t count_ = 0;
};

// Messages for one peer, in the order they go: small items gathered into
// batches of `batchTag`, large ones alone with `aloneTag`.
class Outgoing {
public:
    Outgoing(int batchTag, int aloneTag) : batchTag_(batchTag), aloneTag_(aloneTag) {}

    // Adds an encoded item; `addSmall` writes it into the open batch when it
    // is small. Large ones keep their buffer.
    template <class AddSmall>
    void add(protocol::Bytes&& encoded, AddSmall addSmall) {
        ++items_;
        if (encoded.size() < kSeparate) {
            addSmall(open_, encoded);
            return;
        }
        closeBatch();
        messages_.push_back({aloneTag_, std::move(encoded)});
    }
    std::size_t items() const noexcept { return items_; }
    bool empty() const noexcept { return items_ == 0; }
    std::size_t bytes() const noexcept {
        std::size_t total = open_.size();
        for (const auto& message : messages_) {
            total += message.bytes.size();
        }
        return total;
    }
    // The messages to send, in order; empties this.
    std::vector<protocol::Message> take() {
        closeBatch();
        items_ = 0;
        return std::move(messages_);
    }

private:
    void closeBatch() {
        if (!open_.empty()) {
            const bool inFrame = open_.size() <= open_.count() * kFrameItemBytes;
            messages_.push_back({batchTag_, open_.take(), inFrame});
        }
    }
    int batchTag_;
    int aloneTag_;
    Writer open_;
    std::vector<protocol::Message> messages_;
    std::size_t items_ = 0;
};

// Reads items until the end; a malformed batch reads as ending early.
class Reader {
public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}

    std::optional<std::string_view> nextTask() {
        std::uint64_t size = 0;
        if (!get(size) || size > rest_.size()) {
            return std::nullopt;
        }
        return take(size);
    }
    std::optional<ReportItem> nextReport() {
        std::uint64_t kind = 0;
        ReportItem item{};
        std::uint64_t size = 0;
        if (!get(kind) || !get(item.id) || !get(item.runMicros) || !get(size) ||
            size > rest_.size()) {
            return std::nullopt;
        }
        item.kind = static_cast<Report>(kind);
        item.result = take(size);
        return item;
    }

private:
    bool get(std::uint64_t& value) {
        if (rest_.size() < 8) {
            return false;
        }
        std::memcpy(&value, rest_.data(), 8);
        rest_.remove_prefix(8);
        return true;
    }
    std::string_view take(std::size_t size) {
        const std::string_view taken = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return taken;
    }
    std::string_view rest_;
};

} // namespace mpipool::batch
