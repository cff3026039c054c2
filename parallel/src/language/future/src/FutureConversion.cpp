// Futures as language objects: conversions between vectors of futures and
// object arrays of "parallel.Future", the own-object handle and the
// predecessors of continuation futures. Interpreter thread throughout.

#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/UnavailableFuture.hpp>

#include "DiagnosticLogging.hpp"
#include "FutureArrayMemo.hpp"
#include "FutureClassNames.hpp"

#include <foundation/core/str/Utf.hpp>
#include <kcos/COSClass.hpp>
#include <kcos/array.hpp>

#include <algorithm>
#include <functional>
#include <memory>
#include <numeric>
#include <stdexcept>

namespace parallel::language::future {

namespace {

logging::Logger& logger() noexcept {
    return logging::futureBaseLogger();
}

kcos::COSClass& futureClass() {
    kcos::COSClass* cls = kcos::COSClass::getClass(names::futureClass());
    if (cls == nullptr) {
        throw std::logic_error("The class parallel.Future is not registered: initialise the "
                               "module libqzparallellanguagefuture first.");
    }
    return *cls;
}

matrix::Dimensions arrayDimensions(std::size_t count, const std::vector<std::size_t>& dims) {
    if (dims.empty()) {
        return {1, count};
    }
    const std::size_t product =
        std::accumulate(dims.begin(), dims.end(), std::size_t{1}, std::multiplies<>());
    if (product != count) {
        throw std::invalid_argument("The dimensions do not match the number of futures.");
    }
    return dims;
}

// A new language object owning a shared reference to `future`.
kcos::COSInterfacePtr wrapFuture(kcos::COSClass& cls, const std::shared_ptr<FutureBase>& future) {
    auto cell = std::make_unique<std::shared_ptr<FutureBase>>(future);
    kcos::COSInterfacePtr object = omWrapData(&cls, cell.get());
    cell.release(); // owned by the object now
    return object;
}

} // namespace

std::vector<std::shared_ptr<FutureBase>> FutureBase::getPredecessors() const {
    if (!predecessors_) {
        return {};
    }
    return fromKorvexArray(predecessors_.get());
}

matrix::unique_dvArray
FutureBase::toKorvexArray(const std::vector<std::shared_ptr<FutureBase>>& futures,
                          const std::vector<std::size_t>& dims) {
    QZ_FUTURE_TRACE(logger());
    kcos::COSClass& cls = futureClass();
    matrix::unique_dvArray array =
        kcos::array::create(arrayDimensions(futures.size(), dims), names::futureClass());
    for (std::size_t i = 0; i < futures.size(); ++i) {
        const std::shared_ptr<FutureBase>& future = futures[i];
        if (!future) {
            throw std::invalid_argument("A future to convert is null.");
        }
        kcos::COSInterfacePtr element;
        if (future->cosi_) {
            element = kcos::COSInterfacePtr(future->cosi_.get(), kcos::COSReferenceType::Strong);
        } else {
            element = wrapFuture(cls, future);
            future->setCosi(element.get());
        }
        omSetArrayElement(array.get(), i, element);
    }
    return array;
}

namespace {

// The cell holding the future of a live object. Only objects made by the
// future class carry a future under its key; any other object's data is not
// ours to read: NonFutureElement.
const std::shared_ptr<FutureBase>& futureCellOf(kcos::COSInterface& object) {
    const kcos::COSClass* cls = object.getObjectClass();
    void* data = cls != nullptr && cls->getInternedName() == names::futureClass()
                     ? object.getData(names::futureClass())
                     : nullptr;
    if (data == nullptr) {
        throw errors::NonFutureElement(foundation::core::str::toUtf16(object.className()));
    }
    return *static_cast<const std::shared_ptr<FutureBase>*>(data);
}

bool isGone(const kcos::COSInterface* object) noexcept {
    return object == nullptr || object->isDestroyed();
}

} // namespace

std::vector<std::shared_ptr<FutureBase>> FutureBase::fromKorvexArray(const dvArray* array) {
    QZ_FUTURE_TRACE(logger());
    if (array == nullptr) {
        throw std::invalid_argument("Array is null.");
    }
    // The array holds its objects for the whole call: no handle is needed.
    const auto elements = dvGetObjects(array);
    std::vector<std::shared_ptr<FutureBase>> futures;
    futures.reserve(elements.size());
    for (const std::shared_ptr<matrix::dvObject>& element : elements) {
        futures.push_back(fromKorvexCosi(omLiveObjectOf(element.get())));
    }
    return futures;
}

std::shared_ptr<FutureBase> FutureBase::fromKorvexCosi(kcos::COSInterface* object) {
    if (isGone(object)) {
        return std::make_shared<UnavailableFuture>("parallel.Future");
    }
    return futureCellOf(*object);
}

namespace binding {

std::shared_ptr<FutureArrayMemo> FutureArrayMemo::of(const dvArray* array) {
    if (array == nullptr) {
        throw std::invalid_argument("Array is null.");
    }
    auto memo = std::dynamic_pointer_cast<FutureArrayMemo>(dvGetObjectsMemo(array));
    if (memo && (memo->deletionsUnchanged() || memo->recheckElements(array))) {
        return memo;
    }
    memo = make(array);
    dvSetObjectsMemo(array, memo);
    return memo;
}

std::shared_ptr<FutureArrayMemo> FutureArrayMemo::make(const dvArray* array) {
    auto memo = std::make_shared<FutureArrayMemo>();
    // The array holds its objects for the whole call: no handle is needed.
    const auto elements = dvGetObjects(array);
    memo->size_ = elements.size();
    memo->futures_.reserve(elements.size());
    for (const std::shared_ptr<matrix::dvObject>& element : elements) {
        kcos::COSInterface* object = omLiveObjectOf(element.get());
        if (isGone(object)) {
            memo->unavailable_ = true;
            continue; // the other elements are still checked to be futures
        }
        const std::shared_ptr<FutureBase>& future = futureCellOf(*object);
        memo->unavailable_ = memo->unavailable_ || future->isInvalid();
        memo->futures_.push_back(future);
        const kcos::COSClass* cls = object->getObjectClass();
        if (std::ranges::find(memo->deletionCounts_, cls, &DeletionCounts::value_type::first) ==
            memo->deletionCounts_.end()) {
            memo->deletionCounts_.emplace_back(cls, cls->getDeletionCount());
        }
    }
    if (memo->unavailable_) {
        memo->futures_ = {}; // final: the futures are not needed again
        memo->deletionCounts_.clear();
    } else {
        memo->drain_.emplace(memo->futures_);
    }
    return memo;
}

bool FutureArrayMemo::deletionsUnchanged() const noexcept {
    return unavailable_ ||
           std::ranges::all_of(deletionCounts_, [](const DeletionCounts::value_type& entry) {
               return entry.first->getDeletionCount() == entry.second;
           });
}

bool FutureArrayMemo::recheckElements(const dvArray* array) {
    DeletionCounts counts = deletionCounts_;
    for (auto& [cls, count] : counts) {
        count = cls->getDeletionCount();
    }
    for (const std::shared_ptr<matrix::dvObject>& element : dvGetObjects(array)) {
        if (isGone(omLiveObjectOf(element.get()))) {
            return false;
        }
    }
    deletionCounts_ = std::move(counts);
    return true;
}

} // namespace binding

void FutureBase::setCosi(kcos::COSInterface* object) {
    cosi_ = kcos::COSInterfacePtr(object, kcos::COSReferenceType::Weak);
    const matrix::RootRecordPtr root = omGetRootRecord(object);
    for (dvArray* array : getOwnedResources()) {
        dvSetParentRoot(dvGetRootRecordForArray(array), root);
    }
}

} // namespace parallel::language::future
