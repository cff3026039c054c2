// The properties of the language class "parallel.Future": read-only views of
// the native future behind an object. Interpreter thread; the values come
// from FutureBase getters, which synchronise with task threads themselves.

#include <parallel/language/future/FutureBase.hpp>

#include "ClassBinding.hpp"
#include "DiagnosticLogging.hpp"
#include "FutureClassNames.hpp"

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <kcos/COSClass.hpp>
#include <kcos/Enumeration.hpp>
#include <kcos/Language.hpp>
#include <kcos/array.hpp>

#include <array>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace parallel::language::future::binding {

namespace {

constexpr unsigned kHiddenAttributes = 0x2000;
constexpr unsigned kVisibleAttributes = 0x2800;
constexpr unsigned kOwnedResourcesAttributes = 0x20;

kcos::COSDataTypePtr anyType() {
    return kcos::COSTypeRepository::getType(names::intern("any"));
}

matrix::unique_dvArray emptyDouble() {
    return matrix::detail::do_create_numeric({0, 0}, matrix::ClassID::Double);
}

matrix::unique_dvArray emptyCell() {
    return matrix::detail::do_create_cell({0, 0});
}

// Owning arguments handed to the host as borrowed raw pointers.
template <std::size_t N>
std::array<dvArray*, N> borrow(std::array<matrix::unique_dvArray, N>& owned) {
    std::array<dvArray*, N> raw{};
    for (std::size_t i = 0; i < N; ++i) {
        raw[i] = owned[i].get();
    }
    return raw;
}

// A property whose value is computed from the object's future. Writes are
// accepted and ignored (the host refuses them to the language already).
class PropertyBase : public kcos::COSPropT {
public:
    PropertyBase(kcos::InternedName classKey, kcos::InternedName name, bool hidden)
        : kcos::COSPropT(name, anyType(), 0, 2, hidden ? kHiddenAttributes : kVisibleAttributes,
                         nullptr),
          classKey_(classKey) {}

    void getValue(kcos::COSValue* out, kcos::COSInterface* object) const override {
        const std::shared_ptr<FutureBase> future = futureOf(object, classKey_);
        out->setRawArray(getRawDvArray(*future));
    }
    void setValue(kcos::COSInterface*, const kcos::COSValue&) const override {}
    void releaseValue(kcos::COSInterface*, dvArray* value) const override {
        matrix::destroyArray(value);
    }

    // The value as a raw array carrying its reference; null for no value.
    virtual dvArray* getRawDvArray(FutureBase& future) const {
        return matrix::to_korvex(getDvArray(future));
    }
    virtual matrix::unique_dvArray getDvArray(FutureBase&) const { return {}; }

private:
    kcos::InternedName classKey_;
};

template <class T>
class ScalarProperty : public PropertyBase {
public:
    using Getter = std::function<T(const FutureBase&)>;
    ScalarProperty(kcos::InternedName classKey, kcos::InternedName name, bool hidden, Getter get)
        : PropertyBase(classKey, name, hidden), get_(std::move(get)) {}

    matrix::unique_dvArray getDvArray(FutureBase& future) const override {
        const T value = get_(future);
        if constexpr (std::is_same_v<T, bool>) {
            auto array = matrix::detail::do_create_uninitnumeric({1, 1}, matrix::ClassID::Logical);
            dvGetMutableLogicals(array.get())[0] = value ? 1 : 0;
            return array;
        } else {
            auto array = matrix::detail::do_create_uninitnumeric({1, 1}, matrix::ClassID::Double);
            dvGetMutableDoubles(array.get())[0] = value;
            return array;
        }
    }

private:
    Getter get_;
};

// A datetime of the language in the local time zone; the empty datetime for
// a time that is not set (0.0).
class DateTimeProperty : public PropertyBase {
public:
    using Getter = std::function<WallClockTimePoint(const FutureBase&)>;
    DateTimeProperty(kcos::InternedName classKey, kcos::InternedName name, Getter get)
        : PropertyBase(classKey, name, false), get_(std::move(get)) {}

    dvArray* getRawDvArray(FutureBase& future) const override {
        const double seconds = get_(future).time_since_epoch().count();
        const kcos::InternedName datetime = names::intern("datetime");
        if (seconds == 0.0) {
            dvArray* empty = nullptr;
            omCallMethod(datetime, names::intern("empty"), COSGetPublicClient(), 1, &empty, 0,
                         nullptr, true);
            return empty;
        }
        std::array<matrix::unique_dvArray, 7> arguments{dvCreateDoubleScalar(seconds * 1e6),
                                                        charRow("ConvertFrom"),
                                                        charRow("epochtime"),
                                                        charRow("TicksPerSecond"),
                                                        dvCreateDoubleScalar(1e6),
                                                        charRow("TimeZone"),
                                                        charRow("UTC")};
        auto raw = borrow(arguments);
        const matrix::unique_dvArray utc(omConstructObjectWithClient(
            datetime, static_cast<int>(raw.size()), raw.data(), COSGetPublicClient()));

        matrix::unique_dvArray subscript =
            matrix::detail::do_create_struct({1, 1}, {"type", "subs"});
        dvSetField(subscript.get(), 0, "type", charRow("."));
        dvSetField(subscript.get(), 0, "subs", charRow("TimeZone"));
        const matrix::unique_dvArray local = charRow("local");
        std::array<dvArray*, 3> inputs{utc.get(), subscript.get(), local.get()};
        dvArray* result = nullptr;
        omCallMethod(datetime, names::intern("subsasgn"), COSGetPublicClient(), 1, &result,
                     static_cast<int>(inputs.size()), inputs.data(), false);
        return result;
    }

private:
    Getter get_;
};

class InputArgumentsProperty : public PropertyBase {
public:
    using PropertyBase::PropertyBase;
    matrix::unique_dvArray getDvArray(FutureBase& future) const override {
        return future.getInputsAsDvArray();
    }
};

class OutputArgumentsProperty : public PropertyBase {
public:
    using PropertyBase::PropertyBase;
    matrix::unique_dvArray getDvArray(FutureBase& future) const override {
        matrix::unique_dvArray outputs = future.getOutputsAsDvArray();
        return outputs ? std::move(outputs) : emptyCell();
    }
};

class DiaryProperty : public PropertyBase {
public:
    using PropertyBase::PropertyBase;
    matrix::unique_dvArray getDvArray(FutureBase& future) const override {
        const PerTaskVariant<std::u16string> diary = future.getDiary();
        if (!diary.isMulti()) {
            const std::u16string& text = diary.getAsSingle();
            return matrix::create(text.data(), text.size());
        }
        matrix::unique_dvArray cell = matrix::detail::do_create_cell({1, diary.size()});
        for (std::size_t i = 0; i < diary.size(); ++i) {
            dvSetCell(cell.get(), i, matrix::create(diary[i].data(), diary[i].size()));
        }
        return cell;
    }
};

bool isCancellation(const dvArray* error) {
    try {
        return Veldspire::KException::KExceptionEnvelope(error).GetID() ==
               "parallel:fevalqueue:ExecutionCancelled";
    } catch (const std::invalid_argument&) {
        return false; // not an error object
    }
}

bool isEmptyEntry(const dvArray* entry) {
    return entry == nullptr || dvIsEmpty(entry);
}

// The error: an empty "ParallelException" array when there is none; per
// task, the first cancellation alone, or every task's error with empty
// "ParallelException" arrays for the tasks without one.
class ErrorProperty : public PropertyBase {
public:
    using PropertyBase::PropertyBase;
    dvArray* getRawDvArray(FutureBase& future) const override {
        QZ_FUTURE_TRACE(logging::classInfoLogger());
        const kcos::InternedName parallelException = names::intern("ParallelException");
        matrix::unique_dvArray errors = future.getErrorAsDvArray();
        if (!errors) {
            return omCreateKCOSEmpty(parallelException);
        }
        if (dvGetClassID(errors.get()) != matrix::ClassID::Cell) {
            return matrix::to_korvex(matrix::detail::do_shared_copy(errors.get()));
        }
        const std::size_t count = dvGetNumberOfElements(errors.get());
        if (count == 0) {
            return matrix::to_korvex(emptyCell());
        }
        bool allEmpty = true;
        for (std::size_t i = 0; i < count; ++i) {
            const dvArray* entry = dvGetCell(errors.get(), i);
            if (!isEmptyEntry(entry)) {
                allEmpty = false;
                if (isCancellation(entry)) {
                    matrix::unique_dvArray only = matrix::detail::do_create_cell({1, 1});
                    dvSetCell(only.get(), 0, matrix::detail::do_shared_copy(entry));
                    return matrix::to_korvex(std::move(only));
                }
            } else {
                dvSetCell(errors.get(), i, kcos::array::create(0, 0, parallelException));
            }
        }
        return matrix::to_korvex(allEmpty ? emptyCell() : std::move(errors));
    }
};

class FunctionProperty : public PropertyBase {
public:
    using PropertyBase::PropertyBase;
    matrix::unique_dvArray getDvArray(FutureBase& future) const override {
        const boost::intrusive_ptr<dvArray> function = future.getFunction();
        return function ? matrix::detail::do_deep_copy(function.get()) : emptyDouble();
    }
};

// The word of a state; a value outside the table raises std::out_of_range
// with the text the language has always shown for it.
const std::u16string& stateWord(FutureState state) {
    static const std::unordered_map<FutureState, std::u16string> words{
        {FutureState::Pending, u"pending"},         {FutureState::Queued, u"queued"},
        {FutureState::Running, u"running"},         {FutureState::Finished, u"finished"},
        {FutureState::Unavailable, u"unavailable"},
    };
    const auto it = words.find(state);
    if (it == words.end()) {
        throw std::out_of_range("invalid unordered_map<K, T> key");
    }
    return it->second;
}

class StateProperty : public PropertyBase {
public:
    using PropertyBase::PropertyBase;
    matrix::unique_dvArray getDvArray(FutureBase& future) const override {
        const std::u16string& word = stateWord(future.getState());
        return matrix::create(word.data(), word.size());
    }
};

class ParentProperty : public PropertyBase {
public:
    using PropertyBase::PropertyBase;
    dvArray* getRawDvArray(FutureBase& future) const override {
        // The handle only reads the object; the const is the getter's.
        auto* parent = const_cast<kcos::COSInterface*>(future.getParent());
        if (parent == nullptr) {
            return matrix::to_korvex(emptyDouble());
        }
        return omCreateKCOSScalar(kcos::COSInterfacePtr(parent, kcos::COSReferenceType::Strong));
    }
};

class PredecessorsProperty : public PropertyBase {
public:
    using PropertyBase::PropertyBase;
    matrix::unique_dvArray getDvArray(FutureBase& future) const override {
        return FutureBase::toKorvexArray(future.getPredecessors(), {});
    }
};

class RunningDurationProperty : public PropertyBase {
public:
    using PropertyBase::PropertyBase;
    dvArray* getRawDvArray(FutureBase& future) const override {
        std::array<matrix::unique_dvArray, 3> arguments{
            dvCreateDoubleScalar(0.0), dvCreateDoubleScalar(0.0),
            dvCreateDoubleScalar(future.getRunningDuration().count())};
        auto raw = borrow(arguments);
        return omConstructObjectWithClient(names::intern("duration"), static_cast<int>(raw.size()),
                                           raw.data(), COSGetPublicClient());
    }
};

// Yields the arrays of a vector in order.
class VectorEnumerationUtil : public kcos::EnumerationUtil<dvArray*> {
public:
    explicit VectorEnumerationUtil(std::vector<dvArray*> arrays) : arrays_(std::move(arrays)) {}
    bool hasMoreElements() const override { return next_ < arrays_.size(); }
    dvArray* nextElement() override {
        if (next_ >= arrays_.size()) {
            throw kcos::ENoElements();
        }
        return arrays_[next_++];
    }

private:
    std::vector<dvArray*> arrays_;
    std::size_t next_ = 0;
};

// Yields the objects held in each array of an outer enumeration, array by
// array, as the data type "any" finds them.
class InterfacePerDvArrayEnumerationUtil : public kcos::EnumerationUtil<kcos::COSInterface*> {
public:
    explicit InterfacePerDvArrayEnumerationUtil(kcos::Enumeration<dvArray*> arrays)
        : arrays_(std::move(arrays)), type_(anyType()) {
        advance();
    }
    bool hasMoreElements() const override { return inner_.hasMoreElements(); }
    kcos::COSInterface* nextElement() override {
        if (!inner_.hasMoreElements()) {
            throw kcos::ENoElements();
        }
        kcos::COSInterface* object = inner_.nextElement();
        advance();
        return object;
    }

private:
    // Moves to the next array that still has objects to give.
    void advance() {
        while (!inner_.hasMoreElements() && arrays_.hasMoreElements()) {
            inner_ = type_->getInterfaces(arrays_.nextElement());
        }
    }

    kcos::Enumeration<dvArray*> arrays_;
    kcos::COSDataTypePtr type_;
    kcos::Enumeration<kcos::COSInterface*> inner_;
};

// Closed to the language; shows the host's walks over an object's contents
// the arrays its future owns.
class OwnedResourcesProperty : public kcos::COSPropT {
public:
    explicit OwnedResourcesProperty(kcos::InternedName classKey)
        : kcos::COSPropT(names::intern("OwnedResources"), anyType(), 2, 2,
                         kOwnedResourcesAttributes, nullptr),
          classKey_(classKey) {}

    void getValue(kcos::COSValue* out, kcos::COSInterface*) const override { out->reset(); }
    void setValue(kcos::COSInterface*, const kcos::COSValue&) const override {}
    void releaseValue(kcos::COSInterface*, dvArray*) const override {}
    bool canContainInterfaces() const override { return true; }

    kcos::Enumeration<dvArray*> getKVArrays(const kcos::COSClient*,
                                            kcos::COSInterface* object) const override {
        return kcos::Enumeration<dvArray*>(
            std::make_unique<VectorEnumerationUtil>(ownedResources(object)));
    }
    kcos::Enumeration<kcos::COSInterface*>
    getInterfaces(const kcos::COSClient* client, kcos::COSInterface* object) const override {
        return kcos::Enumeration<kcos::COSInterface*>(
            std::make_unique<InterfacePerDvArrayEnumerationUtil>(getKVArrays(client, object)));
    }

private:
    // The arrays stay owned by the future, which the object keeps alive.
    std::vector<dvArray*> ownedResources(kcos::COSInterface* object) const {
        FutureCell* cell = findFutureCell(object, classKey_);
        return cell != nullptr && *cell ? (*cell)->getOwnedResources() : std::vector<dvArray*>{};
    }

    kcos::InternedName classKey_;
};

} // namespace

void addProperties(kcos::COSClass& cls) {
    const kcos::InternedName key = cls.getInternedName();
    auto add = [&cls](kcos::COSPropT* created) {
        addOwned(cls, std::unique_ptr<kcos::COSPropT>(created));
    };
    auto name = [](const char* text) { return names::intern(text); };
    using Double = ScalarProperty<double>;
    using Bool = ScalarProperty<bool>;

    add(new DateTimeProperty(key, name("CreateDateTime"),
                             [](const FutureBase& f) { return f.getCreateTime(); }));
    add(new DateTimeProperty(key, name("StartDateTime"),
                             [](const FutureBase& f) { return f.getStartTime(); }));
    add(new DateTimeProperty(key, name("FinishDateTime"),
                             [](const FutureBase& f) { return f.getFinishTime(); }));
    add(new Double(key, name("ID"), false,
                   [](const FutureBase& f) { return static_cast<double>(f.getID()); }));
    add(new Double(key, name("NumOutputArguments"), false,
                   [](const FutureBase& f) { return static_cast<double>(f.getNumOutputs()); }));
    add(new Bool(key, name("Read"), false, [](const FutureBase& f) { return f.getRead(); }));
    add(new Bool(key, name("hHasParentProperty"), true,
                 [](const FutureBase& f) { return f.getParent() != nullptr; }));
    add(new InputArgumentsProperty(key, name("InputArguments"), false));
    add(new OutputArgumentsProperty(key, name("OutputArguments"), false));
    add(new DiaryProperty(key, name("Diary"), false));
    add(new ErrorProperty(key, name("Error"), false));
    add(new FunctionProperty(key, name("Function"), false));
    add(new StateProperty(key, name("State"), false));
    add(new ParentProperty(key, name("Parent"), false));
    add(new PredecessorsProperty(key, name("Predecessors"), false));
    add(new RunningDurationProperty(key, name("RunningDuration"), false));
    add(new OwnedResourcesProperty(key));
}

} // namespace parallel::language::future::binding
