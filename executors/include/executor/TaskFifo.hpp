#pragma once

// A first-in first-out list over one vector that keeps its storage while
// entries pass through: taking the oldest entry moves a start index; the
// vector is emptied (its capacity kept) when the last entry is taken, and
// compacted once the taken slots are the larger part. A std::deque frees a
// block every few entries instead; in an executor's queue those blocks are
// made by the submitting thread and freed by the workers, which made the
// allocator's cross-thread frees a large part of the cost of a task.
//
// Storage: as large as the longest backlog seen, given back when the list
// empties after a backlog of more than kLargestKept entries.
//
// Threads: none of its own; its owner guards it (PinnedQueue's mutex).

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>
#include <vector>

namespace executor {

template <class T>
class TaskFifo {
public:
    bool empty() const noexcept { return head_ == items_.size(); }

    void push(T item) { items_.push_back(std::move(item)); }

    // The oldest entry, taken out. The list must not be empty.
    T take() {
        T item = std::move(items_[head_]);
        ++head_;
        settle();
        return item;
    }

    // Takes out every entry for which `pred` is true; whether there was one.
    template <class Pred>
    bool eraseIf(Pred pred) {
        const auto first = items_.begin() + static_cast<std::ptrdiff_t>(head_);
        const auto kept = std::remove_if(first, items_.end(), pred);
        const bool erased = kept != items_.end();
        items_.erase(kept, items_.end());
        settle();
        return erased;
    }

    // Appends every entry, oldest first, to `out`, and empties the list.
    void takeAllInto(std::vector<T>& out) {
        out.insert(out.end(),
                   std::make_move_iterator(items_.begin() + static_cast<std::ptrdiff_t>(head_)),
                   std::make_move_iterator(items_.end()));
        head_ = items_.size();
        settle();
    }

private:
    static constexpr std::size_t kLargestKept = 1 << 16;
    static constexpr std::size_t kCompactFrom = 64;

    // Drops the taken slots: all of them once nothing is left, otherwise
    // when they are the larger part (each entry is moved O(1) times).
    void settle() {
        if (head_ == items_.size()) {
            if (items_.capacity() > kLargestKept) {
                std::vector<T>().swap(items_);
            } else {
                items_.clear();
            }
            head_ = 0;
        } else if (head_ >= kCompactFrom && head_ * 2 > items_.size()) {
            items_.erase(items_.begin(), items_.begin() + static_cast<std::ptrdiff_t>(head_));
            head_ = 0;
        }
    }

    std::vector<T> items_;
    std::size_t head_ = 0; // items_[0, head_) are taken (moved from)
};

} // namespace executor
