#include "support/LanguageTestSupport.hpp"

#include <parallel/language/future/FutureErrors.hpp>

#include <Veldspire/String/String.hpp>
#include <interpreter/Kdispatcher.hpp>
#include <kcos/Errors.hpp>
#include <matrix/Errors.hpp>

#include <algorithm>
#include <array>

namespace parallel::language::future {
namespace {

using namespace testing;
using foundation::core::except::Exception;

using FutureClass = LanguageTest;

kcos::COSClassInfo* registeredInfo() {
    return kcos::omGetNamespace("parallel")->findClassInfo("Future");
}

TEST_F(FutureClass, RegistersOnceWithItsAliases) {
    kcos::COSClass* cls = kcos::COSClass::getClass(interned("parallel.Future"));
    ASSERT_NE(cls, nullptr);
    EXPECT_EQ(cls->getInternedName().str(), "parallel.Future");
    EXPECT_EQ(std::u16string(cls->getClassInfo().getDescription()), u"Unified Future 2.0");
    for (const char* alias : {"parallel.FevalFuture", "parallel.FevalOnAllFuture",
                              "parallel.AfterEachFuture", "parallel.AfterAllFuture"}) {
        EXPECT_EQ(kcos::COSClass::getClass(interned(alias)), cls) << alias;
    }
    EXPECT_TRUE(
        cls->isSubclassOf(*kcos::COSClass::getClass(interned("korvex.mixin.Heterogeneous"))));

    kcos::COSClassInfo* info = registeredInfo();
    KVInitialize_libqzparallellanguagefuture();
    EXPECT_EQ(registeredInfo(), info);
}

TEST_F(FutureClass, RegistersOnEveryCallWhenClassStateIsPerSession) {
    omSetKcosUsingUSM(true);
    kcos::COSClassInfo* before = registeredInfo();
    KVInitialize_libqzparallellanguagefuture();
    kcos::COSClassInfo* once = registeredInfo();
    KVInitialize_libqzparallellanguagefuture();
    omSetKcosUsingUSM(false);
    EXPECT_NE(once, before);
    EXPECT_NE(registeredInfo(), once);
    EXPECT_NE(kcos::COSClass::getClass(interned("parallel.FevalFuture")), nullptr);
}

TEST_F(FutureClass, ConstructorWithoutInputsMakesAnUnavailableFutureOfTheNameCalled) {
    for (const char* name :
         {"parallel.Future", "parallel.FevalFuture", "parallel.AfterEachFuture"}) {
        const auto object = construct(name);
        EXPECT_EQ(std::string(dvGetClassName(object.get())), "parallel.Future");
        EXPECT_EQ(textOf(call("class", 1, {object.get()}).at(0).get()), name);
        EXPECT_EQ(propertyText(object.get(), "State"), "unavailable");
        EXPECT_EQ(valueOf(property(object.get(), "ID").get()), -1.0);
        // The object keeps presenting the same future.
        const auto again = FutureBase::toKorvexArray(FutureBase::fromKorvexArray(object.get()), {});
        EXPECT_EQ(omGetArrayElement(again.get(), 0).get(),
                  omGetArrayElement(object.get(), 0).get());
    }
}

TEST_F(FutureClass, ConstructorInputsNeedAnEvaluationNameAndTheCreationClass) {
    // The creation class is not registered in this program until the next test.
    EXPECT_THROW(construct("parallel.FevalFuture", {scalar(1)}), Exception<KORVEX::maxrhs>);
    EXPECT_THROW(construct("parallel.AfterEachFuture", {scalar(1)}), Exception<KORVEX::maxrhs>);
    EXPECT_THROW(construct("parallel.Future", {scalar(1)}), Exception<KORVEX::maxrhs>);
}

// Stands in for the creation class: records the call and answers a marker.
struct CreationCalls {
    std::string method;
    std::vector<double> inputs;
};
CreationCalls gCreationCalls;

class RecordingBuild : public kcos::COSMethodBase {
public:
    explicit RecordingBuild(const char* name) : kcos::COSMethodBase(interned(name), 0, nullptr) {
        setStatic();
        getSignature().addInputType(kcos::COSTypeRepository::getType(interned("any")));
        getSignature().setVariableInputs();
        getSignature().addOutputType(kcos::COSTypeRepository::getType(interned("any")));
    }
    void invoke(const kcos::COSClient*, int& numOutputs, kcos::COSValue* outputs, int numInputs,
                const kcos::COSValue* inputs) override {
        gCreationCalls.method = getName().str();
        gCreationCalls.inputs.clear();
        for (int i = 0; i < numInputs; ++i) {
            gCreationCalls.inputs.push_back(valueOf(inputs[i].getArray()));
        }
        outputs[0].setArray(dvCreateDoubleScalar(42));
        numOutputs = 1;
    }
};

class RecordingCreationInfo : public kcos::COSClassInfo {
public:
    const char* getName() const override { return "FutureCreation"; }
    void initializeClass(kcos::COSClass* cls, const kcos::COSClient*) override {
        cls->addMethod(new RecordingBuild("buildFutures"));
        cls->addMethod(new RecordingBuild("buildOnAllFutures"));
    }
};

TEST_F(FutureClass, EvaluationNamesForwardTheirInputsToTheCreationClass) {
    kcos::omGetNamespace("parallel.internal.queue")
        ->registerClassInfo(new RecordingCreationInfo, 0, 0);

    const auto result = construct("parallel.FevalFuture", {scalar(1), scalar(2), scalar(3)});
    EXPECT_EQ(valueOf(result.get()), 42.0);
    EXPECT_EQ(gCreationCalls.method, "buildFutures");
    EXPECT_EQ(gCreationCalls.inputs, (std::vector<double>{1, 2, 3}));

    construct("parallel.FevalOnAllFuture", {scalar(7)});
    EXPECT_EQ(gCreationCalls.method, "buildOnAllFutures");
    EXPECT_THROW(construct("parallel.AfterAllFuture", {scalar(1)}), Exception<KORVEX::maxrhs>);
}

TEST_F(FutureClass, ListsVisibleMembersOnly) {
    const auto properties = omGetPropertyNames(interned("parallel.Future"), COSGetPublicClient());
    const std::vector<std::string> expected{
        "CreateDateTime", "StartDateTime",  "FinishDateTime",  "ID",           "NumOutputArguments",
        "Read",           "InputArguments", "OutputArguments", "Diary",        "Error",
        "Function",       "State",          "Parent",          "Predecessors", "RunningDuration"};
    EXPECT_EQ(properties, expected);

    const auto methods = omGetMethodNames(interned("parallel.FevalFuture"), COSGetPublicClient());
    const std::vector<std::string> visibleMethods{"Future",  "afterAll",  "afterEach",
                                                  "cancel",  "fetchNext", "fetchOutputs",
                                                  "isequal", "wait"};
    EXPECT_EQ(methods, visibleMethods); // "class", "isa", "disp" and "submit" are hidden
    // Hidden, yet readable and callable.
    TestFuture f;
    const auto object = objects({f.future});
    EXPECT_FALSE(dvGetLogicals(property(object.get(), "hHasParentProperty").get())[0]);
}

TEST_F(FutureClass, PropertiesCannotBeAssignedAndOwnedResourcesAreClosed) {
    TestFuture f;
    f.submitted();
    const auto object = objects({f.future});
    EXPECT_THROW(omSetProperty(object.get(), "State", scalar(1).get(), COSGetPublicClient()),
                 Exception<KORVEX::kcos::SetProhibited>);
    EXPECT_THROW(omSetProperty(object.get(), "ID", scalar(5).get(), COSGetPublicClient()),
                 Exception<KORVEX::kcos::SetProhibited>);
    EXPECT_THROW(property(object.get(), "OwnedResources"), Exception<KORVEX::kcos::GetProhibited>);
    EXPECT_EQ(propertyText(object.get(), "State"), "queued");
    EXPECT_EQ(valueOf(property(object.get(), "ID").get()), static_cast<double>(f.future->getID()));
}

TEST_F(FutureClass, OwnedResourcesShowTheObjectsAFutureHolds) {
    TestFuture inner;
    const auto innerObject = objects({inner.future});
    TestFuture outer(
        1, {boost::intrusive_ptr<dvArray>(
               matrix::to_korvex(matrix::detail::do_shared_copy(innerObject.get())), false)});
    const auto outerObject = objects({outer.future});
    kcos::COSInterface* object = omGetLiveArrayElement(outerObject.get(), 0);
    const kcos::COSPropT* owned =
        kcos::COSClass::getClass(interned("parallel.Future"))->findProperty("OwnedResources");
    ASSERT_NE(owned, nullptr);
    EXPECT_TRUE(owned->canContainInterfaces());

    auto arrays = owned->getKVArrays(kcos::COSClient::getClassClient(), object).drain();
    EXPECT_EQ(arrays, outer.future->getOwnedResources());
    auto interfaces = owned->getInterfaces(kcos::COSClient::getClassClient(), object);
    ASSERT_TRUE(interfaces.hasMoreElements());
    EXPECT_EQ(interfaces.nextElement(), omGetLiveArrayElement(innerObject.get(), 0));
    EXPECT_FALSE(interfaces.hasMoreElements());
    EXPECT_THROW(interfaces.nextElement(), kcos::ENoElements);
}

TEST_F(FutureClass, SavingWarnsForEveryObjectAndLoadsAsUnavailable) {
    std::vector<std::string> warned;
    Kdispatcher::getDispatcher().define("parallel.internal.warnOnceCannotSave",
                                        [&warned](std::size_t, const DvArrayVector& in) {
                                            warned.push_back(textOf(in.at(0).get()));
                                            return DvArrayVector{};
                                        });
    TestFuture a;
    TestFuture b;
    const auto array = objects({a.future, b.future});

    const kcos::SavedArray saved = omSaveObjects(array.get());
    EXPECT_EQ(warned, (std::vector<std::string>{"parallel.Future", "parallel.Future"}));
    ASSERT_EQ(saved.elements.size(), 2u);

    const auto loaded = omLoadObjects(saved);
    EXPECT_EQ(dvGetDimensions(loaded.get()), (matrix::Dimensions{1, 2}));
    for (const auto& future : FutureBase::fromKorvexArray(loaded.get())) {
        EXPECT_TRUE(future->isInvalid());
        EXPECT_EQ(future->getState(), FutureState::Unavailable);
    }
}

TEST_F(FutureClass, ClassAndIsaAnswerFromTheAliasNames) {
    TestFuture a;
    const auto feval = objects({a.future});
    const auto plain = construct("parallel.AfterEachFuture");
    const auto none = objects({});
    const auto mixed =
        FutureBase::toKorvexArray({a.future, FutureBase::fromKorvexArray(plain.get()).at(0)}, {});

    auto classOf = [](const dvArray* array) {
        return textOf(call("class", 1, {array}).at(0).get());
    };
    EXPECT_EQ(classOf(feval.get()), "parallel.FevalFuture");
    EXPECT_EQ(classOf(mixed.get()), "parallel.Future");
    EXPECT_EQ(classOf(none.get()), "parallel.Future");

    auto isa = [](const dvArray* array, const char* name) {
        const auto answer = call("isa", 1, {array, text(name).get()});
        return dvGetLogicals(answer.at(0).get())[0] != 0;
    };
    EXPECT_TRUE(isa(none.get(), "handle"));
    EXPECT_TRUE(isa(none.get(), "parallel.Future"));
    EXPECT_FALSE(isa(none.get(), "parallel.FevalFuture"));
    EXPECT_TRUE(isa(feval.get(), "parallel.FevalFuture"));
    EXPECT_FALSE(isa(mixed.get(), "parallel.FevalFuture"));
    EXPECT_THROW(call("isa", 1, {feval.get(), scalar(1).get()}),
                 errors::MustBeStringScalarOrCharacterVector);

    namespace str = Veldspire::String;
    const auto named = str::createScalar(u"parallel.FevalFuture");
    EXPECT_TRUE(dvGetLogicals(call("isa", 1, {feval.get(), named.get()}).at(0).get())[0]);
    EXPECT_THROW(call("isa", 1, {feval.get(), str::createScalar(std::nullopt).get()}),
                 errors::MissingNotSupported);
    EXPECT_THROW(call("isa", 1, {feval.get(), str::create({1, 2}, {u"a", u"b"}).get()}),
                 errors::MustBeStringScalarOrCharacterVector);
    EXPECT_THROW(call("class", 2, {feval.get()}), Exception<KORVEX::maxlhs>);
}

TEST_F(FutureClass, DispShowsTheFuturesThroughTheDisplayer) {
    TestFuture a;
    a.finishedWith({scalar(1)});
    const auto array = objects({a.future});
    std::u16string shown;
    {
        kvm::DiarySink sink(shown);
        call("disp", 0, {array.get()});
    }
    const std::string text = foundation::core::str::toUtf8(shown);
    EXPECT_NE(text.find(std::to_string(a.future->getID())), std::string::npos) << text;
    EXPECT_NE(text.find("finished"), std::string::npos) << text;
}

} // namespace
} // namespace parallel::language::future
