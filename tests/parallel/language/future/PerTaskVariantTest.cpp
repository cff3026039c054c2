#include <parallel/language/future/PerTaskVariant.hpp>

#include <gtest/gtest.h>

#include <string>
#include <variant>

namespace parallel::language::future {
namespace {

TEST(PerTaskVariant, OneValueAnswersEveryIndexAndAVectorStaysMultiWhateverItsLength) {
    PerTaskVariant<std::u16string> single(u"one");
    EXPECT_FALSE(single.isMulti());
    EXPECT_EQ(single.size(), 1u);
    EXPECT_EQ(single[5], u"one");
    single[3] = u"changed";
    EXPECT_EQ(single.getAsSingle(), u"changed");
    EXPECT_EQ(PerTaskVariant<std::u16string>().getAsSingle(), u""); // one value-initialised

    for (std::size_t n : {0u, 1u, 3u}) {
        PerTaskVariant<std::u16string> multi(std::vector<std::u16string>(n, u"x"));
        EXPECT_TRUE(multi.isMulti());
        EXPECT_EQ(multi.size(), n);
        EXPECT_THROW(multi.getAsSingle(), std::bad_variant_access);
    }
}

} // namespace
} // namespace parallel::language::future
