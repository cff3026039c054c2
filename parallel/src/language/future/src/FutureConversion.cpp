// Futures as language objects: conversions between vectors of futures and
// object arrays of "parallel.Future", the own-object handle and the
// predecessors of continuation futures. Interpreter thread throughout.

#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/UnavailableFuture.hpp>

#include "BorrowedFutures.hpp"
#include "DiagnosticLogging.hpp"
#include "FutureClassNames.hpp"

#include <kcos/COSClass.hpp>
#include <kcos/array.hpp>

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
// ours to read: std::invalid_argument.
const std::shared_ptr<FutureBase>& futureCellOf(kcos::COSInterface& object) {
    const kcos::COSClass* cls = object.getObjectClass();
    void* data = cls != nullptr && cls->getInternedName() == names::futureClass()
                     ? object.getData(names::futureClass())
                     : nullptr;
    if (data == nullptr) {
        throw std::invalid_argument("Object of class '" + object.className() +
                                    "' is not a future.");
    }
    return *static_cast<const std::shared_ptr<FutureBase>*>(data);
}

bool isGone(const kcos::COSInterface* object) noexcept {
    return object == nullptr || object->isDestroyed();
}

// Stands for every null or deleted element of a borrowed array. Never
// destroyed: borrowed pointers to it may be held until the process ends.
FutureBase* unavailableStandIn() {
    static const auto* const standIn =
        new std::shared_ptr<FutureBase>(std::make_shared<UnavailableFuture>("parallel.Future"));
    return standIn->get();
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

namespace {

// Whether `remembered` holds exactly the objects of `elements`, each still
// the object it was when remembered.
bool holdsSameObjects(std::span<const std::shared_ptr<matrix::dvObject>> elements,
                      const std::vector<BorrowedElement>& remembered) {
    if (elements.size() != remembered.size()) {
        return false;
    }
    for (std::size_t i = 0; i < elements.size(); ++i) {
        // The array holds elements[i] alive, so a remembered object at the
        // same address that has not died is that very object.
        const BorrowedElement& entry = remembered[i];
        if (entry.element != elements[i].get() || (entry.element && entry.alive.expired())) {
            return false;
        }
    }
    return true;
}

void remember(std::span<const std::shared_ptr<matrix::dvObject>> elements, BorrowedArray& into) {
    into.elements.clear();
    into.futures.clear();
    into.elements.reserve(elements.size());
    for (const std::shared_ptr<matrix::dvObject>& element : elements) {
        kcos::COSInterface* object = omLiveObjectOf(element.get());
        FutureBase* future = isGone(object) ? unavailableStandIn() : futureCellOf(*object).get();
        into.elements.push_back({element.get(), element, object, future});
    }
}

} // namespace

void borrowFutures(const dvArray* array, BorrowedArray& into) {
    if (array == nullptr) {
        throw std::invalid_argument("Array is null.");
    }
    const auto elements = dvGetObjects(array);
    if (!holdsSameObjects(elements, into.elements)) {
        try {
            remember(elements, into);
        } catch (...) {
            into = {};
            throw;
        }
    }
    // Objects may have been deleted since: deletion is final.
    into.futures.resize(elements.size());
    for (std::size_t i = 0; i < elements.size(); ++i) {
        const BorrowedElement& entry = into.elements[i];
        into.futures[i] = isGone(entry.object) ? unavailableStandIn() : entry.future;
    }
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
