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

// With the creation class, the evaluation names forward their inputs to it
// (LanguageScenarioTest.cpp); this program never registers it, and is told so.
TEST_F(FutureClass, ConstructorInputsNeedAnEvaluationNameAndTheCreationClass) {
    for (const char* name : {"parallel.AfterEachFuture", "parallel.Future"}) {
        EXPECT_THROW(construct(name, {scalar(1)}), Exception<KORVEX::maxrhs>) << name;
    }
    for (const char* name : {"parallel.FevalFuture", "parallel.FevalOnAllFuture"}) {
        EXPECT_THROW(construct(name, {scalar(1)}), errors::EvaluationClassesNotRegistered) << name;
    }
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
    EXPECT_EQ(owned->getKVArrays(kcos::COSClient::getClassClient(), object).drain(),
              outer.future->getOwnedResources());
    auto interfaces = owned->getInterfaces(kcos::COSClient::getClassClient(), object);
    ASSERT_TRUE(interfaces.hasMoreElements());
    EXPECT_EQ(interfaces.nextElement(), omGetLiveArrayElement(innerObject.get(), 0));
    EXPECT_FALSE(interfaces.hasMoreElements());
}

TEST_F(FutureClass, SavingWarnsForEveryObjectAndLoadsAsUnavailable) {
    std::vector<std::string> warned;
    Kdispatcher::getDispatcher().define("parallel.internal.warnOnceCannotSave",
                                        [&warned](std::size_t, const DvArrayVector& in) {
                                            warned.push_back(textOf(in.at(0).get()));
                                            return DvArrayVector{};
                                        });
    TestFuture a, b;
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
    auto classOf = [](const matrix::unique_dvArray& array) {
        return textOf(call("class", 1, {array.get()}).at(0).get());
    };
    EXPECT_EQ(classOf(feval), "parallel.FevalFuture");
    EXPECT_EQ(classOf(mixed), "parallel.Future");
    EXPECT_EQ(classOf(none), "parallel.Future");
    EXPECT_THROW(call("class", 2, {feval.get()}), Exception<KORVEX::maxlhs>);

    namespace str = Veldspire::String;
    auto isa = [](const matrix::unique_dvArray& array, const boost::intrusive_ptr<dvArray>& name) {
        return dvGetLogicals(call("isa", 1, {array.get(), name.get()}).at(0).get())[0] != 0;
    };
    EXPECT_TRUE(isa(none, text("handle")));
    EXPECT_TRUE(isa(none, text("parallel.Future")));
    EXPECT_FALSE(isa(none, text("parallel.FevalFuture")));
    EXPECT_TRUE(isa(feval, own(str::createScalar(u"parallel.FevalFuture"))));
    EXPECT_FALSE(isa(mixed, text("parallel.FevalFuture")));
    EXPECT_THROW(isa(feval, scalar(1)), errors::MustBeStringScalarOrCharacterVector);
    EXPECT_THROW(isa(feval, own(str::create({1, 2}, {u"a", u"b"}))),
                 errors::MustBeStringScalarOrCharacterVector);
    EXPECT_THROW(isa(feval, own(str::createScalar(std::nullopt))), errors::MissingNotSupported);
}

TEST_F(FutureClass, DispShowsTheFuturesThroughTheDisplayer) {
    const auto a = TestFuture().finishedWith({scalar(1)}).future;
    const auto array = objects({a});
    std::u16string shown;
    {
        kvm::DiarySink sink(shown);
        call("disp", 0, {array.get()});
    }
    const std::string text = foundation::core::str::toUtf8(shown);
    EXPECT_NE(text.find(std::to_string(a->getID())), std::string::npos) << text;
    EXPECT_NE(text.find("finished"), std::string::npos) << text;
}

} // namespace
} // namespace parallel::language::future
