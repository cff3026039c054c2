#pragma once

// A first-in first-out list of an executor's waiting tasks: a std::deque
// whose blocks, once freed, are kept for its next ones instead of going back
// to the allocator. An executor's queue is filled by the submitting thread
// and drained by the workers; with a plain deque the workers freed the
// submitting thread's blocks, and those cross-thread frees made the
// allocator consolidate its free lists, a large part of the cost of a task.
//
// Storage: as a std::deque, plus up to kBlocksKept freed blocks (each a few
// hundred bytes), kept until the list is destroyed.
//
// Threads: none of its own; its owner guards it (PinnedQueue's mutex), and
// the kept blocks with it.

#include <algorithm>
#include <cstddef>
#include <deque>
#include <iterator>
#include <new>
#include <utility>
#include <vector>

namespace executor {

namespace detail {

// Blocks given back, by size, for the next allocation of that size.
class KeptBlocks {
public:
    KeptBlocks() = default;
    KeptBlocks(const KeptBlocks&) = delete;
    KeptBlocks& operator=(const KeptBlocks&) = delete;
    ~KeptBlocks() {
        for (const auto& [bytes, block] : blocks_) {
            ::operator delete(block, bytes);
        }
    }

    void* take(std::size_t bytes) {
        if (!blocks_.empty() && blocks_.back().first == bytes) {
            void* block = blocks_.back().second;
            blocks_.pop_back();
            return block;
        }
        return ::operator new(bytes);
    }

    void give(void* block, std::size_t bytes) noexcept {
        if (blocks_.size() < kBlocksKept) {
            try {
                blocks_.emplace_back(bytes, block);
                return;
            } catch (...) {
                // Not kept: freed below.
            }
        }
        ::operator delete(block, bytes);
    }

    static constexpr std::size_t kBlocksKept = 1024;

private:
    std::vector<std::pair<std::size_t, void*>> blocks_;
};

// A std::deque's allocator drawing on one KeptBlocks.
template <class U>
struct KeptBlocksAllocator {
    using value_type = U;

    explicit KeptBlocksAllocator(KeptBlocks* kept) noexcept : blocks(kept) {}
    template <class V>
    KeptBlocksAllocator(const KeptBlocksAllocator<V>& other) noexcept : blocks(other.blocks) {}

    U* allocate(std::size_t n) { return static_cast<U*>(blocks->take(n * sizeof(U))); }
    void deallocate(U* block, std::size_t n) noexcept { blocks->give(block, n * sizeof(U)); }

    template <class V>
    bool operator==(const KeptBlocksAllocator<V>& other) const noexcept {
        return blocks == other.blocks;
    }

    KeptBlocks* blocks;
};

} // namespace detail

template <class T>
class TaskFifo {
public:
    TaskFifo() = default;
    TaskFifo(const TaskFifo&) = delete;
    TaskFifo& operator=(const TaskFifo&) = delete;

    bool empty() const noexcept { return items_.empty(); }

    void push(T item) { items_.push_back(std::move(item)); }

    // The oldest entry, taken out. The list must not be empty.
    T take() {
        T item = std::move(items_.front());
        items_.pop_front();
        return item;
    }

    // Takes out every entry for which `pred` is true; whether there was one.
    template <class Pred>
    bool eraseIf(Pred pred) {
        return std::erase_if(items_, pred) != 0;
    }

    // Appends every entry, oldest first, to `out`, and empties the list.
    void takeAllInto(std::vector<T>& out) {
        out.insert(out.end(), std::make_move_iterator(items_.begin()),
                   std::make_move_iterator(items_.end()));
        items_.clear();
    }

private:
    detail::KeptBlocks kept_; // declared first: outlives the deque's blocks
    std::deque<T, detail::KeptBlocksAllocator<T>> items_{detail::KeptBlocksAllocator<T>(&kept_)};
};

} // namespace executor
