// Futures as language objects: conversions between vectors of futures and
// object arrays of "parallel.Future", the own-object handle and the
// predecessors of continuation futures. Interpreter thread throughout.

#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/UnavailableFuture.hpp>

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

FutureBase::FutureBase(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                       unsigned int numOutputs,
                       const std::vector<std::shared_ptr<FutureBase>>& predecessors,
                       std::optional<long long> id)
    : createTime_(getCurrentTime()),
      function_(function ? omCopyArrayForPropertyContainment(function.get()) : nullptr),
      id_(id ? *id : getNextID()), numOutputs_(numOutputs),
      parent_(parent, kcos::COSReferenceType::Weak),
      predecessors_(
          omPrepareArrayForPropertyContainment(matrix::to_korvex(toKorvexArray(predecessors, {})))),
      inputs_(PropertyDvArray()) {}

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

std::vector<std::shared_ptr<FutureBase>> FutureBase::fromKorvexArray(const dvArray* array) {
    QZ_FUTURE_TRACE(logger());
    if (array == nullptr) {
        throw std::invalid_argument("Array is null.");
    }
    // The array holds its objects for the whole call: no handle is needed.
    const std::vector<kcos::COSInterface*> elements = omGetLiveArrayElements(array);
    std::vector<std::shared_ptr<FutureBase>> futures;
    futures.reserve(elements.size());
    for (kcos::COSInterface* element : elements) {
        futures.push_back(fromKorvexCosi(element));
    }
    return futures;
}

std::shared_ptr<FutureBase> FutureBase::fromKorvexCosi(kcos::COSInterface* object) {
    if (object == nullptr || object->isDestroyed()) {
        return std::make_shared<UnavailableFuture>("parallel.Future");
    }
    // Only objects made by the future class carry a future under its key;
    // any other object's data is not ours to read.
    const kcos::COSClass* cls = object->getObjectClass();
    void* data = cls != nullptr && cls->getInternedName() == names::futureClass()
                     ? object->getData(names::futureClass())
                     : nullptr;
    if (data == nullptr) {
        throw std::invalid_argument("Object of class '" + object->className() +
                                    "' is not a future.");
    }
    return *static_cast<std::shared_ptr<FutureBase>*>(data);
}

void FutureBase::setCosi(kcos::COSInterface* object) {
    cosi_ = kcos::COSInterfacePtr(object, kcos::COSReferenceType::Weak);
    const matrix::RootRecordPtr root = omGetRootRecord(object);
    for (dvArray* array : getOwnedResources()) {
        dvSetParentRoot(dvGetRootRecordForArray(array), root);
    }
}

} // namespace parallel::language::future
