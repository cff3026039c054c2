#pragma once

// The futures of an object array as plain pointers, for methods that walk a
// whole array on every call ("fetchNext" in a drain loop). Interpreter thread.
//
// Each thread remembers the last array it converted: which objects it held
// and their futures. A call on an array holding the very same objects (same
// addresses, objects still alive) reuses the futures without looking into
// the objects' class or instance data, and touches no reference count; only
// each object's deleted flag is read again. Any other array is converted
// afresh and becomes the remembered one. The memory kept is one entry per
// element of the last array; the objects themselves are not kept alive.
//
// A borrowed pointer is valid while the array holds its objects: for the
// duration of a method call, until language code runs (which may delete
// future objects). Whatever must outlive running language code is owned
// (shared_from_this) before it runs.

#include <parallel/language/future/FutureBase.hpp>

#include <kcos/COSInterface.hpp>
#include <matrix/dvArray.hpp>

#include <memory>
#include <span>
#include <vector>

namespace parallel::language::future::binding {

// One element of a converted array.
struct BorrowedElement {
    matrix::dvObject* element;             // as the array held it; may be null
    std::weak_ptr<matrix::dvObject> alive; // whether that very object still lives
    kcos::COSInterface* object;            // the element as a class object, or null
    FutureBase* future;                    // its future; the unavailable stand-in if none
};

// The last array converted on a thread and its futures.
struct BorrowedArray {
    std::vector<BorrowedElement> elements;
    std::vector<FutureBase*> futures;
};

// Fills `into` with the futures of `array`, in element order, reusing what
// it remembers of the same objects. Null and deleted elements give an
// unavailable future; an element that is no future object throws
// std::invalid_argument (and `into` is left empty).
void borrowFutures(const dvArray* array, BorrowedArray& into);

// The futures of an array, borrowed through this thread's remembered array;
// a call nested inside another (from language code run while waiting) finds
// it taken and converts into one of its own.
class BorrowedFutures {
public:
    explicit BorrowedFutures(const dvArray* array) : array_(std::move(remembered())) {
        borrowFutures(array, array_);
    }
    ~BorrowedFutures() { remembered() = std::move(array_); }
    BorrowedFutures(const BorrowedFutures&) = delete;
    BorrowedFutures& operator=(const BorrowedFutures&) = delete;

    std::span<FutureBase* const> get() const noexcept { return array_.futures; }

private:
    static BorrowedArray& remembered() {
        thread_local BorrowedArray array;
        return array;
    }

    BorrowedArray array_;
};

} // namespace parallel::language::future::binding
