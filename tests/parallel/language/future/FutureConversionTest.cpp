#include "support/LanguageTestSupport.hpp"

#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/UnavailableFuture.hpp>

namespace parallel::language::future {
namespace {

using namespace testing;

using FutureConversion = LanguageTest;

TEST_F(FutureConversion, AFutureKeepsOneLanguageObject) {
    TestFuture a, b;
    const auto first = objects({a.future, b.future});
    const auto second = FutureBase::toKorvexArray({b.future, a.future}, {2, 1});

    EXPECT_EQ(dvGetDimensions(second.get()), (matrix::Dimensions{2, 1}));
    EXPECT_EQ(std::string(dvGetClassName(first.get())), "parallel.Future");
    EXPECT_EQ(omGetArrayElement(first.get(), 0).get(), omGetArrayElement(second.get(), 1).get());
    EXPECT_EQ(omGetArrayElement(first.get(), 1).get(), omGetArrayElement(second.get(), 0).get());

    const auto back = FutureBase::fromKorvexArray(second.get());
    ASSERT_EQ(back.size(), 2u);
    EXPECT_EQ(back[0], b.future);
    EXPECT_EQ(back[1], a.future);
}

TEST_F(FutureConversion, TheObjectKeepsItsFutureAlive) {
    std::weak_ptr<FutureBase> watch;
    matrix::unique_dvArray array;
    {
        TestFuture f;
        watch = f.future;
        array = objects({f.future});
    }
    EXPECT_FALSE(watch.expired());
    array.reset();
    EXPECT_TRUE(watch.expired());
}

TEST_F(FutureConversion, DeletedAndMissingObjectsBecomeUnavailableFutures) {
    TestFuture a, b;
    const auto array = objects({a.future, b.future});
    const matrix::unique_dvArray first(omCreateKCOSScalar(omGetArrayElement(array.get(), 0)));
    omDeleteObjects(first.get());

    const auto futures = FutureBase::fromKorvexArray(array.get());
    EXPECT_EQ(futures[0]->getID(), FutureBase::invalidID);
    EXPECT_EQ(futures[0]->getState(), FutureState::Unavailable);
    EXPECT_STREQ(futures[0]->getCosAliasName(), "parallel.Future");
    EXPECT_EQ(futures[1], b.future);

    EXPECT_EQ(FutureBase::fromKorvexCosi(nullptr)->getID(), FutureBase::invalidID);
    const auto holes = kcos::array::create({1, 2}, interned("parallel.Future"));
    for (const auto& future : FutureBase::fromKorvexArray(holes.get())) {
        EXPECT_TRUE(future->isInvalid());
    }
}

TEST_F(FutureConversion, ShapesAndBadInput) {
    const auto none = objects({});
    EXPECT_EQ(dvGetDimensions(none.get()), (matrix::Dimensions{1, 0}));
    EXPECT_TRUE(FutureBase::fromKorvexArray(none.get()).empty());

    TestFuture f;
    EXPECT_THROW(FutureBase::toKorvexArray({f.future}, {2, 2}), std::invalid_argument);
    EXPECT_THROW(FutureBase::toKorvexArray({nullptr}, {}), std::invalid_argument);
    EXPECT_THROW(FutureBase::fromKorvexArray(scalar(1).get()), std::invalid_argument);
    const auto notAFuture = construct("duration", {scalar(0), scalar(0), scalar(1)});
    EXPECT_THROW(FutureBase::fromKorvexArray(notAFuture.get()), errors::NonFutureElement);
}

TEST_F(FutureConversion, OwnedArraysAreAccountedToTheObject) {
    TestFuture f(1, {scalar(1), scalar(2)});
    f.finishedWith({scalar(3)});
    ASSERT_FALSE(f.future->hasError()); // fills the cache
    const auto array = objects({f.future});
    const kcos::COSInterfacePtr object = omGetArrayElement(array.get(), 0);
    const matrix::RootRecordPtr root = omGetRootRecord(object.get());

    const std::vector<dvArray*> owned = f.future->getOwnedResources();
    ASSERT_EQ(owned.size(), 2u); // inputs and outputs; no function
    for (dvArray* resource : owned) {
        EXPECT_TRUE(dvGetRootRecordForArray(resource)->isAccountedTo(root.get()));
    }
}

TEST_F(FutureConversion, ContinuationFuturesKeepTheirPredecessorsAsObjects) {
    TestFuture a, b;
    const auto function =
        functionHandle("f", [](std::size_t, const DvArrayVector&) { return DvArrayVector{}; });
    const auto after = std::make_shared<ChainLink>(Futures{a.future, b.future}, function);

    const auto predecessors = after->getPredecessors();
    ASSERT_EQ(predecessors.size(), 2u);
    EXPECT_EQ(predecessors[0], a.future);
    EXPECT_EQ(predecessors[1], b.future);
    EXPECT_FALSE(after->getInputs().getAsSingle().has_value());
    // The function only: predecessors are no owned resource, inputs are absent.
    EXPECT_EQ(after->getOwnedResources().size(), 1u);

    const auto predecessorObjects = objects({a.future});
    const auto property = testing::property(objects({after}).get(), "Predecessors");
    EXPECT_EQ(dvGetDimensions(property.get()), (matrix::Dimensions{1, 2}));
    EXPECT_EQ(omGetArrayElement(property.get(), 0).get(),
              omGetArrayElement(predecessorObjects.get(), 0).get());
}

} // namespace
} // namespace parallel::language::future
