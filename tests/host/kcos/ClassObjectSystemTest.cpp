#include <kcos/COSClass.hpp>
#include <kcos/Errors.hpp>
#include <kcos/Language.hpp>
#include <kcos/array.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <interpreter/Kdispatcher.hpp>
#include <kvm/KVM.hpp>
#include <matrix/Errors.hpp>

#include <gtest/gtest.h>

#include <foundation/core/str/Utf.hpp>

#include <climits>

namespace {

using foundation::core::except::Exception;
using kcos::internal::makeInterned;

matrix::unique_dvArray number(double value) {
    return dvCreateDoubleScalar(value);
}

double valueOf(const dvArray* array) {
    return dvGetDoubles(array)[0];
}

// A counter class: instance data is a double; the constructor records the
// name it was called by; "add" (instance) and "make" (static) methods;
// property "Count" (read-only, computed), "Label" (stored, public), "Secret"
// (private), "Note" (hidden).
struct Counter {
    double value = 0;
    std::string calledAs;
};

struct Events {
    int initialized = 0;
    int created = 0;
    int destroyed = 0;
};
Events gEvents;

kcos::COSDataTypePtr any() {
    return kcos::COSTypeRepository::getType(makeInterned("any"));
}

Counter* counterOf(kcos::COSInterface* object) {
    return static_cast<Counter*>(object->getData(makeInterned("test.Counter")));
}

class CountProperty : public kcos::COSPropT {
public:
    CountProperty()
        : kcos::COSPropT(makeInterned("Count"), any(), kcos::access::Public, kcos::access::Private,
                         kcos::property_attribute::Visible | kcos::property_attribute::Dependent,
                         nullptr) {}
    void getValue(kcos::COSValue* out, kcos::COSInterface* object) const override {
        out->setArray(number(counterOf(object)->value));
    }
};

class Method : public kcos::COSMethodBase {
public:
    using Body = std::function<void(int&, kcos::COSValue*, int, const kcos::COSValue*)>;
    Method(const char* name, Body body, bool visible = true)
        : kcos::COSMethodBase(makeInterned(name), kcos::access::Public, nullptr),
          body_(std::move(body)), visible_(visible) {}
    void invoke(const kcos::COSClient*, int& n, kcos::COSValue* out, int nin,
                const kcos::COSValue* in) override {
        body_(n, out, nin, in);
    }
    bool isVisible() const override { return visible_; }

private:
    Body body_;
    bool visible_;
};

class CounterInfo : public kcos::COSClassInfo {
public:
    const char* getName() const override { return "Counter"; }
    bool hasNativeInstanceData() const override { return true; }
    void* createInstanceData() override {
        ++gEvents.created;
        return new Counter();
    }
    void destroyInstanceData(kcos::COSInterface*, void* data) override {
        ++gEvents.destroyed;
        delete static_cast<Counter*>(data);
    }
    void initializeClass(kcos::COSClass* cls, const kcos::COSClient*) override {
        ++gEvents.initialized;
        cls->addProperty(new CountProperty());
        cls->addProperty(new kcos::COSPropT(makeInterned("Label"), any(), 0, 0,
                                            kcos::property_attribute::Visible, nullptr));
        cls->addProperty(new kcos::COSPropT(makeInterned("Secret"), any(), 2, 2,
                                            kcos::property_attribute::Visible, nullptr));
        cls->addProperty(new kcos::COSPropT(makeInterned("Note"), any(), 0, 0, 0, nullptr));
        auto* constructor = new Method(
            "Counter", [](int& n, kcos::COSValue* out, int nin, const kcos::COSValue* in) {
                Counter* counter = counterOf(omGetLiveArrayElement(out[0].getArray(), 0));
                counter->value = nin > 0 ? valueOf(in[0].getArray()) : 0;
                counter->calledAs = Kdispatcher::getDispatcher().GetCurrentlyExecutingFunction();
                n = 1;
            });
        constructor->getSignature().addInputType(any());
        cls->addMethod(constructor);
        auto* add =
            new Method("add", [](int& n, kcos::COSValue* out, int, const kcos::COSValue* in) {
                Counter* counter = counterOf(omGetLiveArrayElement(in[0].getArray(), 0));
                counter->value += valueOf(in[1].getArray());
                out[0].setBool(counter->value > 10);
                n = 1;
            });
        add->getSignature().addInputType(
            kcos::COSTypeRepository::getType(makeInterned("test.Counter")));
        add->getSignature().addInputType(any());
        add->getSignature().addOutputType(
            kcos::COSTypeRepository::getType(makeInterned("logical scalar")));
        cls->addMethod(add);
        auto* make = new Method(
            "make",
            [](int& n, kcos::COSValue* out, int, const kcos::COSValue*) {
                out[0].setArray(number(7));
                out[1].setArray(number(8));
                n = 2;
            },
            false);
        make->setStatic();
        make->getSignature().addOutputType(any());
        make->getSignature().setVariableOutputs();
        cls->addMethod(make);
    }
};

class ClassObjectSystem : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        kcos::omGetNamespace("test")->registerClassInfo(new CounterInfo, 0, 0);
        kcos::COSDictionary::registerBuiltinClassAlias(makeInterned("test.Tally"),
                                                       makeInterned("test.Counter"), false);
    }
    std::shared_ptr<kvm::KVM> interpreter = kvm::KVM::create();

    static matrix::unique_dvArray construct(const char* name, std::vector<dvArray*> args = {}) {
        return matrix::unique_dvArray(omConstructObjectWithClient(
            makeInterned(name), static_cast<int>(args.size()), args.data(), COSGetPublicClient()));
    }
};

TEST_F(ClassObjectSystem, ClassesAreBuiltOnceOnFirstUseAndAliasesNameThem) {
    EXPECT_EQ(makeInterned("a.b"), makeInterned(std::string("a.") + "b"));
    EXPECT_FALSE(makeInterned("a.b") == makeInterned("a.c"));
    const int before = gEvents.initialized;
    kcos::COSClass* cls = kcos::COSClass::getClass(makeInterned("test.Counter"));
    ASSERT_NE(cls, nullptr);
    EXPECT_EQ(kcos::COSClass::getClass(makeInterned("test.Tally")), cls);
    EXPECT_EQ(gEvents.initialized, std::max(before, 1));
    EXPECT_EQ(cls->getInternedName().str(), "test.Counter");
    EXPECT_EQ(kcos::COSClass::getClass(makeInterned("test.Missing")), nullptr);
    EXPECT_THROW(kcos::COSDictionary::registerBuiltinClassAlias(makeInterned("test.Tally"),
                                                                makeInterned("test.Other"), false),
                 std::invalid_argument);
    EXPECT_THROW(construct("test.Missing"), Exception<KORVEX::kcos::UndefinedClass>);
}

TEST_F(ClassObjectSystem, ConstructionRunsTheConstructorUnderTheNameWritten) {
    const auto counter = construct("test.Tally", {number(4).get()});
    EXPECT_EQ(std::string(dvGetClassName(counter.get())), "test.Counter");
    Counter* data = counterOf(omGetLiveArrayElement(counter.get(), 0));
    EXPECT_EQ(data->value, 4);
    EXPECT_EQ(data->calledAs, "test.Tally");
    EXPECT_EQ(Kdispatcher::getDispatcher().GetCurrentlyExecutingFunction(), "");
    EXPECT_THROW(construct("test.Counter", {number(1).get(), number(2).get()}),
                 Exception<KORVEX::maxrhs>);
}

TEST_F(ClassObjectSystem, InstanceDataIsReleasedOnceWhetherDeletedOrDropped) {
    const int created = gEvents.created;
    const int destroyed = gEvents.destroyed;
    const kcos::COSClass& counterClass = *kcos::COSClass::getClass(makeInterned("test.Counter"));
    const std::uint64_t deletions = counterClass.getDeletionCount();
    auto deleted = construct("test.Counter");
    omDeleteObjects(deleted.get());
    omDeleteObjects(deleted.get());
    EXPECT_EQ(gEvents.destroyed, destroyed + 1);
    EXPECT_EQ(counterClass.getDeletionCount(), deletions + 1); // counted once, on deletion
    EXPECT_TRUE(omGetArrayElement(deleted.get(), 0)->isDestroyed());
    EXPECT_THROW(omGetProperty(deleted.get(), "Count", COSGetPublicClient()),
                 Exception<KORVEX::kcos::InvalidHandle>);
    deleted.reset();
    EXPECT_EQ(gEvents.destroyed, destroyed + 1);

    construct("test.Counter").reset();
    EXPECT_EQ(gEvents.created, created + 2);
    EXPECT_EQ(gEvents.destroyed, destroyed + 2);
    EXPECT_EQ(counterClass.getDeletionCount(), deletions + 1); // dropping is no deletion
}

TEST_F(ClassObjectSystem, PropertiesHonourAccessAndVisibility) {
    const auto counter = construct("test.Counter", {number(3).get()});
    const auto* client = COSGetPublicClient();
    EXPECT_EQ(valueOf(omGetProperty(counter.get(), "Count", client).get()), 3);
    EXPECT_THROW(omSetProperty(counter.get(), "Count", number(1).get(), client),
                 Exception<KORVEX::kcos::SetProhibited>);
    EXPECT_THROW(omGetProperty(counter.get(), "Secret", client),
                 Exception<KORVEX::kcos::GetProhibited>);
    EXPECT_THROW(omGetProperty(counter.get(), "Nope", client),
                 Exception<KORVEX::kcos::NoSuchProperty>);
    EXPECT_EQ(dvGetNumberOfElements(omGetProperty(counter.get(), "Label", client).get()), 0u);
    omSetProperty(counter.get(), "Label", number(9).get(), client);
    EXPECT_EQ(valueOf(omGetProperty(counter.get(), "Label", client).get()), 9);

    EXPECT_EQ(omGetPropertyNames(makeInterned("test.Tally"), client),
              (std::vector<std::string>{"Count", "Label"}));
    EXPECT_EQ(omGetMethodNames(makeInterned("test.Counter"), client),
              (std::vector<std::string>{"Counter", "add"}));
    const auto pair = kcos::array::create({1, 2}, makeInterned("test.Counter"));
    EXPECT_THROW(omGetProperty(pair.get(), "Count", client),
                 Exception<KORVEX::kcos::ScalarObjectRequired>);
}

TEST_F(ClassObjectSystem, MethodCallsAreCheckedAgainstTheirSignature) {
    const auto counter = construct("test.Counter", {number(8).get()});
    const auto* client = COSGetPublicClient();
    const auto className = makeInterned("test.Counter");

    const auto add = [&](int nout, dvArray** out, std::vector<dvArray*> in) {
        omCallMethod(className, makeInterned("add"), client, nout, out, static_cast<int>(in.size()),
                     in.data(), false);
    };
    const auto five = number(5);
    dvArray* result = nullptr;
    add(1, &result, {counter.get(), five.get()});
    const matrix::unique_dvArray answer(result);
    EXPECT_TRUE(dvIsLogicalScalar(answer.get()) && dvGetLogicals(answer.get())[0]);

    dvArray* twoResults[2] = {};
    EXPECT_THROW(add(2, twoResults, {counter.get(), five.get()}), Exception<KORVEX::maxlhs>);
    EXPECT_THROW(add(1, &result, {counter.get(), five.get(), five.get()}),
                 Exception<KORVEX::maxrhs>);
    EXPECT_THROW(add(1, &result, {five.get(), five.get()}),
                 Exception<KORVEX::kcos::InvalidInputType>);
    EXPECT_THROW(
        omCallMethod(className, makeInterned("nope"), client, 0, nullptr, 0, nullptr, true),
        Exception<KORVEX::kcos::NoSuchMethod>);

    dvArray* made[2] = {};
    omCallMethod(className, makeInterned("make"), client, 2, made, 0, nullptr, true);
    EXPECT_EQ(valueOf(made[0]), 7);
    EXPECT_EQ(valueOf(made[1]), 8);
    matrix::destroyArray(made[0]);
    matrix::destroyArray(made[1]);
    // Variable outputs still have a bound, checked before any buffer is sized.
    for (int absurd : {static_cast<int>(kcos::kMaxNumOutputs) + 1, INT_MAX}) {
        EXPECT_THROW(
            omCallMethod(className, makeInterned("make"), client, absurd, made, 0, nullptr, true),
            Exception<KORVEX::maxlhs>);
    }
    // Constructors called as methods: FutureMethodsTest.cpp and MethodFuzzTest.cpp.
}

TEST_F(ClassObjectSystem, ObjectArraysShareObjectsAndCopyOnWrite) {
    const auto a = construct("test.Counter", {number(1).get()});
    const auto b = construct("test.Counter", {number(2).get()});
    auto pair = kcos::array::create({1, 2}, makeInterned("test.Counter"));
    omSetArrayElement(pair.get(), 0, omGetArrayElement(a.get(), 0));
    const auto copy = matrix::detail::do_shared_copy(pair.get());
    omSetArrayElement(pair.get(), 1, omGetArrayElement(b.get(), 0));

    EXPECT_EQ(omGetLiveArrayElement(pair.get(), 0), omGetLiveArrayElement(a.get(), 0));
    EXPECT_EQ(omGetLiveArrayElement(pair.get(), 1), omGetLiveArrayElement(b.get(), 0));
    EXPECT_FALSE(omGetArrayElement(copy.get(), 1)); // the copy kept its own elements
    EXPECT_EQ(omLiveObjectOf(dvGetObjects(copy.get())[0].get()), omGetLiveArrayElement(a.get(), 0));
    const auto error = kcos::array::create(
        Veldspire::KException::KExceptionEnvelope("test:error", u"failed").GetExceptionObject());
    EXPECT_EQ(omLiveObjectOf(dvGetObjects(error.get())[0].get()), nullptr);
    EXPECT_EQ(omGetLiveArrayElement(error.get(), 0), nullptr);
    EXPECT_THROW(omGetArrayElement(pair.get(), 2), std::out_of_range);
    EXPECT_THROW(omGetArrayElement(number(1).get(), 0), std::invalid_argument);

    const matrix::unique_dvArray empty(omCreateKCOSEmpty(makeInterned("test.Counter")));
    EXPECT_EQ(dvGetDimensions(empty.get()), (matrix::Dimensions{0, 0}));
    omSetClassOfHeterogeneousArray(pair.get(), makeInterned("test.Tally"));
    EXPECT_EQ(std::string(dvGetClassName(pair.get())), "test.Tally");
    EXPECT_THROW(omSetClassOfHeterogeneousArray(pair.get(), makeInterned("test.Missing")),
                 Exception<KORVEX::kcos::UndefinedClass>);

    auto objects = any()->getInterfaces(pair.get());
    EXPECT_EQ(objects.drain().size(), 2u);
    EXPECT_THROW(objects.nextElement(), kcos::ENoElements);
}

TEST_F(ClassObjectSystem, SavedObjectsLoadWithTheirStoredProperties) {
    const auto counter = construct("test.Counter", {number(5).get()});
    omSetProperty(counter.get(), "Label", number(9).get(), COSGetPublicClient());
    const kcos::SavedArray saved = omSaveObjects(counter.get());
    ASSERT_EQ(saved.elements.size(), 1u);
    EXPECT_EQ(saved.elements[0].className, "test.Counter");

    const auto loaded = omLoadObjects(saved);
    EXPECT_NE(omGetLiveArrayElement(loaded.get(), 0), omGetLiveArrayElement(counter.get(), 0));
    EXPECT_EQ(valueOf(omGetProperty(loaded.get(), "Label", COSGetPublicClient()).get()), 9);
    // Computed properties are not saved: the loaded object starts from its instance data.
    EXPECT_EQ(valueOf(omGetProperty(loaded.get(), "Count", COSGetPublicClient()).get()), 0);
}

} // namespace
