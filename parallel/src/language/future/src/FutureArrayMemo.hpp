#pragma once

// What fetchNext keeps about one object array of futures, so that a drain
// (fetchNext on the same array again and again) neither converts the array
// nor walks what it has read on every call. Interpreter thread.
//
// The memo travels with the array's element storage (matrix::ObjectsMemo):
// shared copies of the array share it, and it goes with the storage or at
// its first write (an element replaced, the class changed). What else could
// change an answer:
//   - an element object deleted: each class counts its deleted objects; when
//     a count has moved since the memo last looked, the elements are looked
//     at again (deletion is final: a memo that saw an unavailable element
//     keeps saying so, and no longer holds the futures);
//   - Read flags changed through another array or fetchOutputs: they only go
//     from false to true, which the drain allows for (FetchNextDrain.hpp).
//
// The memo owns the futures (so they outlive language code that fetchNext
// runs while it waits) until it sees one of its elements unavailable.

#include <parallel/language/future/FutureBase.hpp>

#include "FetchNextDrain.hpp"

#include <kcos/COSClass.hpp>
#include <matrix/dvArray.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace parallel::language::future::binding {

class FutureArrayMemo : public matrix::ObjectsMemo {
public:
    // The memo of `array`, made on first use or when an element object was
    // deleted since. An element that is an object of another class raises
    // NonFutureElement (and no memo is kept).
    static std::shared_ptr<FutureArrayMemo> of(const dvArray* array);

    bool empty() const noexcept { return size_ == 0; }
    // Some element is null, deleted, or an unavailable future.
    bool hasUnavailable() const noexcept { return unavailable_; }
    // The futures in element order; only without unavailable elements.
    detail::FutureSpan futures() const noexcept { return futures_; }
    detail::FetchNextDrain& drain() noexcept { return *drain_; }

private:
    // The classes of the elements, each with its deletion count when the
    // elements were last looked at.
    using DeletionCounts = std::vector<std::pair<const kcos::COSClass*, std::uint64_t>>;

    static std::shared_ptr<FutureArrayMemo> make(const dvArray* array);
    bool deletionsUnchanged() const noexcept;
    // Brings the counts up to date; false when an element was deleted.
    bool recheckElements(const dvArray* array);

    std::size_t size_ = 0;
    bool unavailable_ = false;
    std::vector<std::shared_ptr<FutureBase>> futures_;
    DeletionCounts deletionCounts_;
    std::optional<detail::FetchNextDrain> drain_;
};

} // namespace parallel::language::future::binding
