// The language classes of the local pool: "FutureCreation" builds futures on
// the language pool, "FevalQueue" is the pool's queue as a language object.

#include <executor/LanguageClasses.hpp>

#include <executor/ExecutorErrors.hpp>
#include <executor/Submission.hpp>
#include <parallel/language/future/FutureBase.hpp>

#include <foundation/core/sync/Mutex.hpp>

#include <kcos/COSClass.hpp>
#include <kcos/Language.hpp>
#include <kcos/array.hpp>

#include <cmath>
#include <limits>
#include <mutex>
#include <span>
#include <vector>

namespace executor {

namespace {

using parallel::language::future::FutureBase;

// The largest number of outputs an unsigned int holds, as the language gives it.
constexpr double kLargestNumOutputs = std::numeric_limits<unsigned int>::max();

foundation::core::sync::Mutex gPoolMutex;
std::shared_ptr<executor::Executor> gPool QZ_GUARDED_BY(gPoolMutex);

kcos::InternedName intern(const char* name) {
    return kcos::internal::makeInterned(name);
}

kcos::COSDataTypePtr typeNamed(const char* name) {
    return kcos::COSTypeRepository::getType(intern(name));
}

std::shared_ptr<executor::Executor> requirePool() {
    std::shared_ptr<executor::Executor> pool = getLanguagePool();
    if (!pool) {
        throw errors::NoPool();
    }
    return pool;
}

// The number of outputs: a whole, non-negative double scalar.
unsigned int numOutputsArgument(const dvArray* value) {
    if (value == nullptr || !dvIsRealDoubleScalar(value)) {
        throw errors::InvalidNumOutputs();
    }
    const double n = dvGetDoubles(value)[0];
    if (!(n >= 0.0) || n != std::floor(n) || n > kLargestNumOutputs) {
        throw errors::InvalidNumOutputs();
    }
    return static_cast<unsigned int>(n);
}

boost::intrusive_ptr<dvArray> functionArgument(const dvArray* value) {
    executor::checkFunction(value);
    return boost::intrusive_ptr<dvArray>(matrix::to_korvex(matrix::detail::do_shared_copy(value)),
                                         false);
}

// A static method of the creation class: (fcn, numOutputs, args...) -> one future.
class BuildMethod : public kcos::COSMethodBase {
public:
    enum class Kind { OneWorker, AllWorkers };

    BuildMethod(const char* name, Kind kind)
        : kcos::COSMethodBase(intern(name), kcos::access::Public, nullptr), kind_(kind) {
        setStatic();
        getSignature().addInputType(typeNamed("any"));
        getSignature().setVariableInputs();
        getSignature().addOutputType(typeNamed("parallel.Future"));
    }

    void invoke(const kcos::COSClient*, int& numOutputs, kcos::COSValue* outputs, int numInputs,
                const kcos::COSValue* inputs) override {
        if (numInputs < 2) {
            matrix::detail::error_minrhs();
        }
        boost::intrusive_ptr<dvArray> function = functionArgument(inputs[0].getArray());
        const unsigned int count = numOutputsArgument(inputs[1].getArray());
        DvArrayVector arguments;
        for (int i = 2; i < numInputs; ++i) {
            const dvArray* input = inputs[i].getArray();
            if (input == nullptr) {
                throw errors::InvalidArgument();
            }
            arguments.emplace_back(matrix::to_korvex(matrix::detail::do_shared_copy(input)), false);
        }
        const std::shared_ptr<executor::Executor> pool = requirePool();
        std::shared_ptr<FutureBase> future;
        if (kind_ == Kind::OneWorker) {
            future = pool->submit(std::move(function), count, std::move(arguments));
        } else {
            future = pool->submitOnAll(std::move(function), count, std::move(arguments));
        }
        outputs[0].setArray(FutureBase::toKorvexArray({future}, {}));
        numOutputs = 1;
    }

private:
    Kind kind_;
};

class FutureCreationInfo : public kcos::COSClassInfo {
public:
    const char* getName() const override { return "FutureCreation"; }
    void initializeClass(kcos::COSClass* cls, const kcos::COSClient*) override {
        addMethod(*cls, new BuildMethod("buildFutures", BuildMethod::Kind::OneWorker));
        addMethod(*cls, new BuildMethod("buildOnAllFutures", BuildMethod::Kind::AllWorkers));
    }

    static void addMethod(kcos::COSClass& cls, kcos::COSMethodBase* created) {
        std::unique_ptr<kcos::COSMethodBase> method(created);
        cls.addMethod(method.get());
        method.release();
    }
};

// The queue's constructor: no arguments; the object lists no futures yet.
class QueueConstructor : public kcos::COSMethodBase {
public:
    QueueConstructor() : kcos::COSMethodBase(intern("FevalQueue"), kcos::access::Public, nullptr) {
        getSignature().addOutputType(typeNamed("parallel.FevalQueue"));
    }
    void invoke(const kcos::COSClient*, int& numOutputs, kcos::COSValue* outputs, int,
                const kcos::COSValue*) override {
        requirePool();
        kcos::COSInterface* queue = omGetLiveArrayElement(outputs[0].getArray(), 0);
        queue->setStoredValue(intern("Futures"),
                              boost::intrusive_ptr<dvArray>(
                                  omCreateKCOSArray(intern("parallel.Future"), {1, 0}), false));
        numOutputs = 1;
    }
};

// submitFutures(queue, futures): appends the futures to the queue's list.
class SubmitFuturesMethod : public kcos::COSMethodBase {
public:
    SubmitFuturesMethod()
        : kcos::COSMethodBase(intern("submitFutures"), kcos::access::Public, nullptr) {
        getSignature().addInputType(typeNamed("parallel.FevalQueue"));
        getSignature().addInputType(typeNamed("parallel.Future"));
    }
    void invoke(const kcos::COSClient*, int& numOutputs, kcos::COSValue*, int numInputs,
                const kcos::COSValue* inputs) override {
        if (numInputs < 2) {
            matrix::detail::error_minrhs();
        }
        if (inputs[0].getArray() == nullptr || dvGetNumberOfElements(inputs[0].getArray()) != 1) {
            throw errors::InvalidArgument(); // one queue object, not an empty array
        }
        kcos::COSInterface* queue = omGetLiveArrayElement(inputs[0].getArray(), 0);
        const dvArray* submitted = inputs[1].getArray();
        if (queue == nullptr || queue->isDestroyed()) {
            throw errors::InvalidArgument();
        }
        const kcos::InternedName futuresName = intern("Futures");
        const boost::intrusive_ptr<dvArray> listed = queue->getStoredValue(futuresName);
        const std::size_t before = listed ? dvGetNumberOfElements(listed.get()) : 0;
        const std::size_t added = dvGetNumberOfElements(submitted);
        matrix::unique_dvArray all(
            omCreateKCOSArray(intern("parallel.Future"), {1, before + added}));
        for (std::size_t i = 0; i < before; ++i) {
            omSetArrayElement(all.get(), i, omGetArrayElement(listed.get(), i));
        }
        for (std::size_t i = 0; i < added; ++i) {
            omSetArrayElement(all.get(), before + i, omGetArrayElement(submitted, i));
        }
        queue->setStoredValue(
            futuresName, boost::intrusive_ptr<dvArray>(matrix::to_korvex(std::move(all)), false));
        numOutputs = 0;
    }
};

class FevalQueueInfo : public kcos::COSClassInfo {
public:
    const char* getName() const override { return "FevalQueue"; }
    bool isHandleClass() const override { return true; }
    void initializeClass(kcos::COSClass* cls, const kcos::COSClient*) override {
        std::unique_ptr<kcos::COSPropT> futures(new kcos::COSPropT(
            intern("Futures"), typeNamed("parallel.Future"), kcos::access::Public,
            kcos::access::Private, kcos::property_attribute::Visible, nullptr));
        cls->addProperty(futures.get());
        futures.release();
        FutureCreationInfo::addMethod(*cls, new QueueConstructor());
        FutureCreationInfo::addMethod(*cls, new SubmitFuturesMethod());
    }
};

template <class Info>
void registerInfo(const char* package) {
    std::unique_ptr<Info> info(new Info);
    kcos::omGetNamespace(package)->registerClassInfo(info.get(), 0, 0);
    info.release();
}

std::once_flag gRegistered;

} // namespace

void registerLanguageClasses() {
    std::call_once(gRegistered, [] {
        registerInfo<FutureCreationInfo>("parallel.internal.queue");
        registerInfo<FevalQueueInfo>("parallel");
    });
}

void setLanguagePool(std::shared_ptr<executor::Executor> pool) {
    const foundation::core::sync::LockGuard lock(gPoolMutex);
    gPool = std::move(pool);
}

std::shared_ptr<executor::Executor> getLanguagePool() {
    const foundation::core::sync::LockGuard lock(gPoolMutex);
    return gPool;
}

} // namespace executor
