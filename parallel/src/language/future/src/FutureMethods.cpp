// The constructor and the methods of the language class "parallel.Future".
// Interpreter thread; the methods take no locks of their own.

#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/UnavailableFuture.hpp>

#include <parallel/language/future/AfterAllFuture.hpp>
#include <parallel/language/future/AfterEachFuture.hpp>
#include <parallel/language/future/FetchNextState.hpp>

#include "ClassBinding.hpp"
#include "DiagnosticLogging.hpp"
#include "FutureArrayMemo.hpp"
#include "FutureClassNames.hpp"
#include "MethodArguments.hpp"

#include <foundation/core/str/Utf.hpp>
#include <interpreter/Kdispatcher.hpp>
#include <kcos/COSClass.hpp>
#include <kcos/Errors.hpp>
#include <kcos/Language.hpp>
#include <kcos/array.hpp>

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace parallel::language::future::binding {

namespace {

kcos::COSDataTypePtr typeNamed(const char* name) {
    return kcos::COSTypeRepository::getType(names::intern(name));
}

const std::string& defaultClassName() {
    static const std::string name = "parallel.Future";
    return name;
}

// The name the user wrote to construct the object, alias or not.
std::string calledClassName() {
    try {
        const std::string& executing = Kdispatcher::getDispatcher().GetCurrentlyExecutingFunction();
        return executing.empty() ? defaultClassName() : executing;
    } catch (const std::logic_error&) {
        return defaultClassName(); // no interpreter on this thread
    }
}

// The constructor under every name of the class: without inputs, an
// unavailable future that presents the name it was called by; with inputs,
// under the two evaluation names, the futures that the creation class builds.
class FutureConstructor : public kcos::COSMethodBase {
public:
    FutureConstructor() : kcos::COSMethodBase(names::intern("Future"), 0, nullptr) {
        getSignature().addOutputType(typeNamed("parallel.Future"));
        getSignature().addInputType(typeNamed("any"));
        getSignature().setVariableInputs();
    }

    void invoke(const kcos::COSClient*, int& numOutputs, kcos::COSValue* outputs, int numInputs,
                const kcos::COSValue* inputs) override {
        dvArray* underConstruction = outputs[0].getArray();
        kcos::COSInterface* object =
            underConstruction != nullptr ? omGetLiveArrayElement(underConstruction, 0) : nullptr;
        if (object == nullptr || object->getObjectClass() == nullptr) {
            refuseCallAsMethod(); // only construction hands over an object
        }
        const kcos::InternedName classKey = object->getObjectClass()->getInternedName();
        const std::string calledName = calledClassName();

        if (numInputs == 0) {
            FutureCell* cell = findFutureCell(object, classKey);
            if (cell == nullptr) {
                refuseCallAsMethod(); // an object of another class
            }
            *cell = std::make_shared<UnavailableFuture>(calledName);
            FutureBaseAccess::setCosi(**cell, object);
            numOutputs = 1;
            return;
        }

        const char* method = calledName == "parallel.FevalFuture"        ? "buildFutures"
                             : calledName == "parallel.FevalOnAllFuture" ? "buildOnAllFutures"
                                                                         : nullptr;
        const kcos::InternedName creationClass =
            names::intern("parallel.internal.queue.FutureCreation");
        if (method == nullptr) {
            matrix::detail::error_maxrhs();
        }
        if (kcos::COSClass::getClass(creationClass) == nullptr) {
            throw errors::EvaluationClassesNotRegistered();
        }
        std::vector<dvArray*> arguments;
        arguments.reserve(static_cast<std::size_t>(numInputs));
        for (int i = 0; i < numInputs; ++i) {
            arguments.push_back(inputs[i].getArray());
        }
        dvArray* result = nullptr;
        omCallMethod(creationClass, names::intern(method), COSGetPublicClient(), 1, &result,
                     numInputs, arguments.data(), true);
        outputs[0].setRawArray(result); // drops the array under construction
        numOutputs = 1;
    }

private:
    [[noreturn]] static void refuseCallAsMethod() {
        throw foundation::core::except::Exception<KORVEX::kcos::MethodProhibited>(
            std::u16string(u"Future"), std::u16string(u"parallel.Future"));
    }
};

// A method called on an array of futures (its first input).
class MethodBase : public kcos::COSMethodBase {
public:
    MethodBase(kcos::InternedName classKey, kcos::InternedName name, bool visible)
        : kcos::COSMethodBase(name, 0, nullptr), classKey_(classKey), visible_(visible) {
        getSignature().addInputType(typeNamed("parallel.Future"));
    }

    // A static call may come without the futures: refused (minrhs) before
    // any method reads them.
    void invoke(const kcos::COSClient*, int& numOutputs, kcos::COSValue* outputs, int numInputs,
                const kcos::COSValue* inputs) override {
        if (numInputs < 1) {
            matrix::detail::error_minrhs();
        }
        doInvoke(numOutputs, outputs,
                 std::span<const kcos::COSValue>(inputs, static_cast<std::size_t>(numInputs)));
    }
    bool isVisible() const override { return visible_; }

protected:
    kcos::InternedName classKey() const noexcept { return classKey_; }

private:
    virtual void doInvoke(int& numOutputs, kcos::COSValue*, std::span<const kcos::COSValue>) const {
        numOutputs = 0;
    }

    kcos::InternedName classKey_;
    bool visible_;
};

// Further inputs of any type, any number; outputs likewise.
void declareAnyInputs(kcos::COSMethodSignature& signature) {
    signature.addInputType(typeNamed("any"));
    signature.setVariableInputs();
}
void declareAnyOutputs(kcos::COSMethodSignature& signature) {
    signature.addOutputType(typeNamed("any"));
    signature.setVariableOutputs();
}

// The alias name of each element; empty for a missing or deleted element.
std::vector<std::optional<std::string>> aliasNames(const dvArray* futures,
                                                   kcos::InternedName classKey) {
    const std::size_t count = dvGetNumberOfElements(futures);
    std::vector<std::optional<std::string>> names;
    names.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const kcos::COSInterfacePtr element = omGetArrayElement(futures, i);
        if (!element || element->isDestroyed()) {
            names.emplace_back();
        } else {
            names.emplace_back(futureOf(element.get(), classKey)->getCosAliasName());
        }
    }
    return names;
}

// The alias name every element presents, or "parallel.Future" when they
// differ, when one is gone, or when there are none.
std::string commonAliasName(const dvArray* futures, kcos::InternedName classKey) {
    const auto names = aliasNames(futures, classKey);
    if (names.empty() || !names.front()) {
        return defaultClassName();
    }
    const bool same = std::all_of(names.begin(), names.end(),
                                  [&](const auto& name) { return name == names.front(); });
    return same ? *names.front() : defaultClassName();
}

// Raises the host's argument-count errors: more than `maxOutputs` outputs,
// fewer than `minInputs` or more than `maxInputs` inputs.
void checkCounts(int numOutputs, int maxOutputs, std::size_t numInputs, std::size_t minInputs,
                 std::size_t maxInputs) {
    if (numOutputs > maxOutputs) {
        matrix::detail::error_maxlhs();
    }
    if (numInputs > maxInputs) {
        matrix::detail::error_maxrhs();
    }
    if (numInputs < minInputs) {
        matrix::detail::error_minrhs();
    }
}

class ClassMethod : public MethodBase {
public:
    ClassMethod(kcos::InternedName classKey) : MethodBase(classKey, names::intern("class"), false) {
        declareAnyInputs(getSignature());
        declareAnyOutputs(getSignature());
    }

private:
    void doInvoke(int& numOutputs, kcos::COSValue* outputs,
                  std::span<const kcos::COSValue> inputs) const override {
        checkCounts(numOutputs, 1, inputs.size(), 1, 1);
        const std::string name = commonAliasName(arrayOf(inputs[0]), classKey());
        numOutputs = 1;
        outputs[0].setArray(charRow(name));
    }
};

bool isAliasOf(const dvArray* futures, kcos::InternedName classKey, const std::string& name) {
    if (name == defaultClassName() || name == "handle") {
        return true;
    }
    const auto names = aliasNames(futures, classKey);
    return !names.empty() && std::all_of(names.begin(), names.end(),
                                         [&](const auto& alias) { return alias == name; });
}

class IsaMethod : public MethodBase {
public:
    IsaMethod(kcos::InternedName classKey) : MethodBase(classKey, names::intern("isa"), false) {
        declareAnyInputs(getSignature());
        declareAnyOutputs(getSignature());
    }

private:
    void doInvoke(int& numOutputs, kcos::COSValue* outputs,
                  std::span<const kcos::COSValue> inputs) const override {
        checkCounts(numOutputs, 1, inputs.size(), 2, 2);
        const std::string name = parseClassName(inputs.back().getArray());
        numOutputs = 1;
        outputs[0].setArray(dvCreateLogicalScalar(isAliasOf(arrayOf(inputs[0]), classKey(), name)));
    }
};

// The futures of a method's first input.
std::vector<std::shared_ptr<FutureBase>> futuresOf(const kcos::COSValue& value) {
    return FutureBase::fromKorvexArray(arrayOf(value));
}

// Refuses futures a method cannot read: none raises Empty, an unavailable
// one raises Unavailable.
template <class Empty, class Unavailable, class Futures>
void refuseUnreadable(const Futures& futures) {
    if (futures.empty()) {
        throw Empty();
    }
    if (std::any_of(futures.begin(), futures.end(),
                    [](const auto& future) { return future->isInvalid(); })) {
        throw Unavailable();
    }
}

// The futures of `value` for a method that reads them (refuseUnreadable).
template <class Empty, class Unavailable>
std::vector<std::shared_ptr<FutureBase>> readableFuturesOf(const kcos::COSValue& value) {
    std::vector<std::shared_ptr<FutureBase>> futures = futuresOf(value);
    refuseUnreadable<Empty, Unavailable>(futures);
    return futures;
}

// A shared copy of `array` as an output value.
void setSharedCopy(kcos::COSValue& output, const boost::intrusive_ptr<dvArray>& array) {
    output.setArray(matrix::detail::do_shared_copy(array.get()));
}

// "afterEach" and "afterAll": a continuation future over the futures.
template <class Future>
class AfterMethod : public MethodBase {
public:
    AfterMethod(kcos::InternedName classKey, const char* name)
        : MethodBase(classKey, names::intern(name), true) {
        declareAnyInputs(getSignature());
        getSignature().addOutputType(typeNamed("parallel.Future"));
    }

private:
    void doInvoke(int& numOutputs, kcos::COSValue* outputs,
                  std::span<const kcos::COSValue> inputs) const override {
        const std::vector<std::shared_ptr<FutureBase>> predecessors = futuresOf(inputs[0]);
        if (predecessors.empty()) {
            throw errors::ContinuationOnEmpty();
        }
        const matrix::Dimensions dims = dvGetDimensions(arrayOf(inputs[0]));
        checkCounts(numOutputs, 1, inputs.size(), 3, 5);
        if (inputs.size() == 4) {
            raiseMissingValue(inputs[3].getArray());
        }
        const dvArray* function = inputs[1].getArray();
        if (function == nullptr || dvGetClassID(function) != matrix::ClassID::FunctionHandle) {
            throw errors::FirstArgNotFunctionHandle();
        }
        boost::intrusive_ptr<dvArray> functionCopy(
            matrix::to_korvex(matrix::detail::do_shared_copy(function)), false);
        const unsigned int count = parseNumOutputs(inputs[2].getArray());
        const bool passFuture =
            inputs.size() == 5 && parsePassFuture(inputs[3].getArray(), inputs[4].getArray());
        const std::shared_ptr<FutureBase> future =
            Future::build(nullptr, std::move(functionCopy), count, predecessors, dims, passFuture);
        outputs[0].setArray(FutureBase::toKorvexArray({future}, {}));
        numOutputs = 1;
    }
};

// Cancels the futures, larger IDs first.
class CancelMethod : public MethodBase {
public:
    CancelMethod(kcos::InternedName classKey)
        : MethodBase(classKey, names::intern("cancel"), true) {}

private:
    void doInvoke(int& numOutputs, kcos::COSValue*,
                  std::span<const kcos::COSValue> inputs) const override {
        QZ_FUTURE_TRACE(logging::classInfoLogger());
        std::vector<std::shared_ptr<FutureBase>> futures = futuresOf(inputs[0]);
        logging::writeMessage(
            logging::classInfoLogger(), logging::kMessage,
            [&](std::ostream& out) { out << "Number of futures to cancel" << futures.size(); });
        std::sort(futures.begin(), futures.end(),
                  [](const auto& a, const auto& b) { return a->getID() > b->getID(); });
        for (const auto& future : futures) {
            future->cancel();
        }
        numOutputs = 0;
    }
};

// The next finished future: its 1-based index, then its outputs.
class FetchNextMethod : public MethodBase {
public:
    FetchNextMethod(kcos::InternedName classKey)
        : MethodBase(classKey, names::intern("fetchNext"), true) {
        declareAnyInputs(getSignature());
        declareAnyOutputs(getSignature());
    }

private:
    void doInvoke(int& numOutputs, kcos::COSValue* outputs,
                  std::span<const kcos::COSValue> inputs) const override {
        // Called on one array again and again by a drain: the array's memo
        // spares converting it and walking what was read on every call.
        const std::shared_ptr<FutureArrayMemo> memo = FutureArrayMemo::of(arrayOf(inputs[0]));
        if (memo->empty()) {
            throw errors::NoUnreadFutures();
        }
        if (memo->hasUnavailable()) {
            throw errors::FetchNextInvalidFuture();
        }
        numOutputs = std::max(numOutputs, 1);
        checkCounts(0, 0, inputs.size(), 1, 2);
        const auto wanted = static_cast<unsigned int>(numOutputs - 1);
        Seconds timeout = noTimeout();
        if (inputs.size() == 2) {
            if (!isValidTimeout(inputs[1].getArray())) {
                throw errors::FetchNextTimeoutScalar();
            }
            timeout = timeoutOf(inputs[1].getArray());
        }
        auto [state, index, fetched] =
            FutureBaseAccess::fetchNextThrough(memo->drain(), memo->futures(), wanted, timeout);
        switch (state) {
        case FetchNextState::Fetched:
            outputs[0].setArray(dvCreateDoubleScalar(static_cast<double>(index) + 1.0));
            for (unsigned int i = 0; i < wanted; ++i) {
                setSharedCopy(outputs[i + 1], fetched.at(i));
            }
            return;
        case FetchNextState::TimedOut:
            for (int i = 0; i < numOutputs; ++i) {
                outputs[i].setArray(
                    matrix::detail::do_create_numeric({0, 0}, matrix::ClassID::Double));
            }
            return;
        case FetchNextState::InvalidFuture:
            throw errors::FetchNextInvalidFuture();
        case FetchNextState::NoUnreadFutures:
            throw errors::NoUnreadFutures();
        case FetchNextState::UnsupportedFutureType:
            throw errors::FetchNextUnsupportedFutureType();
        case FetchNextState::NotSubmitted:
            throw errors::WaitOnUnsubmittedFuture();
        }
    }
};

// The outputs of all the futures, concatenated or as cells.
class FetchOutputsMethod : public MethodBase {
public:
    FetchOutputsMethod(kcos::InternedName classKey)
        : MethodBase(classKey, names::intern("fetchOutputs"), true) {
        declareAnyInputs(getSignature());
        declareAnyOutputs(getSignature());
    }

private:
    void doInvoke(int& numOutputs, kcos::COSValue* outputs,
                  std::span<const kcos::COSValue> inputs) const override {
        std::vector<std::shared_ptr<FutureBase>> futures =
            readableFuturesOf<errors::FetchOutputsOnEmpty, errors::FetchOutputsOnUnavailableFuture>(
                inputs[0]);
        bool uniform = true;
        if (inputs.size() >= 3) {
            const std::optional<bool> value = singleLogical(inputs[2].getArray());
            if (!matchesOption(inputs[1].getArray(), "UniformOutput") || !value) {
                throw errors::FetchOutputsSyntax();
            }
            uniform = *value;
        }
        const unsigned int fewest =
            (*std::min_element(futures.begin(), futures.end(), [](const auto& a, const auto& b) {
                return a->getNumOutputs() < b->getNumOutputs();
            }))->getNumOutputs();
        if (fewest > 0) {
            numOutputs = std::max(numOutputs, 1);
        }
        if (numOutputs < 0 || static_cast<unsigned int>(numOutputs) > fewest) {
            throw errors::TooManyOutputsRequested(std::uint64_t{fewest},
                                                  static_cast<std::uint64_t>(numOutputs));
        }
        checkCounts(0, 0, inputs.size(), 1, 3);
        if (inputs.size() == 2) {
            throw errors::FetchOutputsSyntax();
        }
        const DvArrayVector gathered = FutureBase::fetchOutputs(
            std::move(futures), uniform, static_cast<unsigned int>(numOutputs));
        for (std::size_t i = 0; i < gathered.size(); ++i) {
            setSharedCopy(outputs[i], gathered[i]);
        }
    }
};

// Whether all inputs hold the same futures in the same shape.
class IsEqualMethod : public MethodBase {
public:
    IsEqualMethod(kcos::InternedName classKey)
        : MethodBase(classKey, names::intern("isequal"), true) {
        declareAnyInputs(getSignature());
        getSignature().addOutputType(typeNamed("logical scalar"));
    }

private:
    void doInvoke(int& numOutputs, kcos::COSValue* outputs,
                  std::span<const kcos::COSValue> inputs) const override {
        checkCounts(numOutputs, 1, inputs.size(), 2, std::numeric_limits<std::size_t>::max());
        outputs[0].setBool(allEqual(inputs));
        numOutputs = 1;
    }

    static bool allEqual(std::span<const kcos::COSValue> inputs) {
        const auto array = [&](std::size_t i) { return inputs[i].getArray(); };
        for (std::size_t i = 1; i < inputs.size(); ++i) {
            if (array(i) == nullptr ||
                std::string_view(dvGetClassName(array(i))) != dvGetClassName(array(0))) {
                return false;
            }
        }
        for (std::size_t i = 1; i < inputs.size(); ++i) {
            if (dvGetDimensions(array(i)) != dvGetDimensions(array(0))) {
                return false;
            }
        }
        for (std::size_t i = 1; i < inputs.size(); ++i) {
            if (!FutureBase::isEqual(futuresOf(inputs[i - 1]), futuresOf(inputs[i]))) {
                return false;
            }
        }
        return true;
    }
};

// Waits for the futures to reach a state, with an optional timeout.
class WaitMethod : public MethodBase {
public:
    WaitMethod(kcos::InternedName classKey) : MethodBase(classKey, names::intern("wait"), true) {
        declareAnyInputs(getSignature());
        getSignature().addOutputType(typeNamed("logical scalar"));
    }

private:
    void doInvoke(int& numOutputs, kcos::COSValue* outputs,
                  std::span<const kcos::COSValue> inputs) const override {
        const std::vector<std::shared_ptr<FutureBase>> futures = futuresOf(inputs[0]);
        checkCounts(numOutputs, 1, inputs.size(), 1, 3);
        const FutureState state =
            inputs.size() >= 2 ? parseStateWord(inputs[1].getArray()) : FutureState::Finished;
        if (inputs.size() == 3) {
            numOutputs = 1;
            if (!isValidTimeout(inputs[2].getArray())) {
                throw errors::TimeOutInvalid();
            }
            outputs[0].setBool(FutureBase::wait(futures, state, timeoutOf(inputs[2].getArray())));
            return;
        }
        FutureBase::wait(futures, state, noTimeout());
        if (numOutputs == 1) {
            outputs[0].setBool(true);
        }
    }
};

// Shows a future array through the language's displayer class.
class DisplayMethod : public MethodBase {
public:
    DisplayMethod(kcos::InternedName classKey)
        : MethodBase(classKey, names::intern("disp"), false),
          displayerClass_(std::string("parallel.internal.future") + "." + "FutureDisplayer") {}

private:
    void doInvoke(int& numOutputs, kcos::COSValue*,
                  std::span<const kcos::COSValue> inputs) const override {
        const kcos::InternedName displayerClass = names::intern(displayerClass_);
        const matrix::unique_dvArray className = charRow(defaultClassName());
        dvArray* constructorArgument = className.get();
        const matrix::unique_dvArray displayer(omConstructObjectWithClient(
            displayerClass, 1, &constructorArgument, COSGetPublicClient()));
        const matrix::unique_dvArray futures = matrix::detail::do_shared_copy(arrayOf(inputs[0]));
        std::array<dvArray*, 2> arguments{displayer.get(), futures.get()};
        omCallMethod(displayerClass, names::intern("doDisp"), COSGetPublicClient(), 0, nullptr,
                     static_cast<int>(arguments.size()), arguments.data(), false);
        numOutputs = 0;
    }

    std::string displayerClass_;
};

// Hands the futures to a queue of the language.
class SubmitMethod : public MethodBase {
public:
    SubmitMethod(kcos::InternedName classKey)
        : MethodBase(classKey, names::intern("submit"), false) {
        declareAnyInputs(getSignature());
        declareAnyOutputs(getSignature());
    }

private:
    void doInvoke(int&, kcos::COSValue*, std::span<const kcos::COSValue> inputs) const override {
        if (inputs.size() < 2) {
            matrix::detail::error_minrhs();
        }
        std::array<dvArray*, 2> arguments{inputs[1].getArray(), inputs[0].getArray()};
        omCallMethod(names::intern("parallel.FevalQueue"), names::intern("submitFutures"),
                     COSGetPublicClient(), 0, nullptr, static_cast<int>(arguments.size()),
                     arguments.data(), false);
    }
};

} // namespace

void addMethods(kcos::COSClass& cls) {
    const kcos::InternedName key = cls.getInternedName();
    addOwned(cls, std::make_unique<FutureConstructor>());
    addOwned(cls, std::make_unique<AfterMethod<AfterAllFuture>>(key, "afterAll"));
    addOwned(cls, std::make_unique<AfterMethod<AfterEachFuture>>(key, "afterEach"));
    addOwned(cls, std::make_unique<CancelMethod>(key));
    addOwned(cls, std::make_unique<DisplayMethod>(key));
    addOwned(cls, std::make_unique<FetchNextMethod>(key));
    addOwned(cls, std::make_unique<FetchOutputsMethod>(key));
    addOwned(cls, std::make_unique<ClassMethod>(key));
    addOwned(cls, std::make_unique<IsaMethod>(key));
    addOwned(cls, std::make_unique<IsEqualMethod>(key));
    addOwned(cls, std::make_unique<WaitMethod>(key));
    addOwned(cls, std::make_unique<SubmitMethod>(key));
}

} // namespace parallel::language::future::binding
