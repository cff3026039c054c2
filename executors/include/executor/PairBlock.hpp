#pragma once

// One heap block for two objects made with std::allocate_shared (a task and
// its future): one allocation where there would be two. Each object's
// control block and the object itself are placed in the block through a
// PairAllocator; the block is freed once both are gone and its maker has let
// go of it. What does not fit in the room left is allocated on its own.
//
// States: made (its maker holds it), then one more user per object placed in
// it; each object gone, or the maker letting go, is one user less, and the
// last one frees the block.
//
// Threads: the maker places the objects; any thread may then destroy them.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace executor {

class PairBlock {
public:
    // A block with `room` bytes for objects, held by its maker (the Holder).
    // Throws std::bad_alloc.
    static PairBlock* make(std::uint32_t room) {
        void* memory = ::operator new(sizeof(PairBlock) + room);
        return ::new (memory) PairBlock(room);
    }

    // The room std::allocate_shared<T> takes with a PairAllocator (its
    // control block: a vtable pointer, two counts and the allocator, then T),
    // and the padding that aligning it may take.
    template <class T>
    static constexpr std::uint32_t roomFor() noexcept {
        constexpr std::size_t align = alignof(T) > alignof(void*) ? alignof(T) : alignof(void*);
        constexpr std::size_t header = (3 * sizeof(void*) + align - 1) / align * align;
        return static_cast<std::uint32_t>(header + sizeof(T) + align - alignof(PairBlock));
    }

    // `bytes` aligned to `alignment` in the room left, which the caller then
    // uses until it gives the memory back; null when they do not fit. The
    // maker's thread, while it holds the block.
    void* take(std::size_t bytes, std::size_t alignment) noexcept {
        void* at = room() + used_;
        std::size_t left = capacity_ - used_;
        if (std::align(alignment, bytes, at, left) == nullptr) {
            return nullptr;
        }
        used_ = static_cast<std::uint32_t>(static_cast<std::byte*>(at) - room() +
                                           static_cast<std::ptrdiff_t>(bytes));
        users_.fetch_add(1, std::memory_order_relaxed);
        return at;
    }

    bool holds(const void* memory) const noexcept {
        const auto* at = static_cast<const std::byte*>(memory);
        return at >= room() && at < room() + capacity_;
    }

    // One user less; the last frees the block. Any thread.
    void release() noexcept {
        if (users_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            this->~PairBlock();
            ::operator delete(static_cast<void*>(this));
        }
    }

    // The maker's hold on the block, let go at the end of its scope.
    class Holder {
    public:
        explicit Holder(std::uint32_t room) : block_(make(room)) {}
        ~Holder() { block_->release(); }
        Holder(const Holder&) = delete;
        Holder& operator=(const Holder&) = delete;
        PairBlock* get() const noexcept { return block_; }

    private:
        PairBlock* block_;
    };

private:
    explicit PairBlock(std::uint32_t capacity) noexcept : capacity_(capacity) {}
    ~PairBlock() = default;

    std::byte* room() noexcept { return reinterpret_cast<std::byte*>(this + 1); }
    const std::byte* room() const noexcept { return reinterpret_cast<const std::byte*>(this + 1); }

    std::atomic<std::uint32_t> users_{1}; // the maker
    std::uint32_t used_ = 0;
    const std::uint32_t capacity_;
};

// The allocator that places what std::allocate_shared allocates in a
// PairBlock, and elsewhere what does not fit.
template <class T>
class PairAllocator {
public:
    using value_type = T;

    explicit PairAllocator(PairBlock* block) noexcept : block_(block) {}
    template <class U>
    PairAllocator(const PairAllocator<U>& other) noexcept : block_(other.block()) {}

    T* allocate(std::size_t n) {
        if (void* memory = block_->take(n * sizeof(T), alignof(T))) {
            return static_cast<T*>(memory);
        }
        return std::allocator<T>().allocate(n);
    }

    void deallocate(T* memory, std::size_t n) noexcept {
        if (block_->holds(memory)) {
            block_->release();
        } else {
            std::allocator<T>().deallocate(memory, n);
        }
    }

    PairBlock* block() const noexcept { return block_; }

    template <class U>
    bool operator==(const PairAllocator<U>& other) const noexcept {
        return block_ == other.block();
    }

private:
    PairBlock* block_;
};

} // namespace executor
