#include <parallel/language/future/PerTaskVariant.hpp>

#include <gtest/gtest.h>

#include <string>
#include <variant>

namespace parallel::language::future {
namespace {

TEST(PerTaskVariant, DefaultIsOneValueInitialisedValue) {
    PerTaskVariant<std::u16string> diary;
    EXPECT_FALSE(diary.isMulti());
    EXPECT_EQ(diary.size(), 1u);
    EXPECT_EQ(diary[0], u"");
    PerTaskVariant<std::exception_ptr> error;
    EXPECT_EQ(error.getAsSingle(), nullptr);
    PerTaskVariant<PropertyDvArray> array;
    EXPECT_EQ(array[0], nullptr);
}

TEST(PerTaskVariant, OneLoopServesBothShapes) {
    PerTaskVariant<std::u16string> single(u"one");
    EXPECT_EQ(single[5], u"one");
    single[3] = u"changed";
    EXPECT_EQ(single.getAsSingle(), u"changed");

    PerTaskVariant<std::u16string> multi(std::vector<std::u16string>{u"a", u"b", u"c"});
    EXPECT_TRUE(multi.isMulti());
    std::u16string joined;
    for (std::size_t i = 0; i < multi.size(); ++i) {
        joined += multi[i];
    }
    EXPECT_EQ(joined, u"abc");
}

TEST(PerTaskVariant, VectorsStayMultiWhateverTheirLength) {
    PerTaskVariant<std::u16string> none(std::vector<std::u16string>{});
    EXPECT_TRUE(none.isMulti());
    EXPECT_EQ(none.size(), 0u);
    PerTaskVariant<std::u16string> one(std::vector<std::u16string>{u"x"});
    EXPECT_TRUE(one.isMulti());
    EXPECT_EQ(one.size(), 1u);
    EXPECT_THROW(one.getAsSingle(), std::bad_variant_access);
}

TEST(PerTaskVariant, MoveOnlyValuesMove) {
    std::vector<PropertyDvArray> arrays;
    arrays.emplace_back(matrix::to_korvex(dvCreateDoubleScalar(1.0)));
    arrays.emplace_back();
    PerTaskVariant<PropertyDvArray> owner(std::move(arrays));
    dvArray* first = owner[0].get();
    PerTaskVariant<PropertyDvArray> moved(std::move(owner));
    EXPECT_EQ(moved[0].get(), first);
    EXPECT_EQ(moved[1], nullptr);
}

} // namespace
} // namespace parallel::language::future
