#include <Veldspire/String/String.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

namespace str = Veldspire::String;

TEST(String, ArraysHoldTextsAndMissingStrings) {
    const auto scalar = str::createScalar(u"text");
    EXPECT_TRUE(str::isString(scalar.get()));
    EXPECT_EQ(std::string(dvGetClassName(scalar.get())), "string");
    EXPECT_EQ(str::getString(scalar.get()), std::u16string(u"text"));
    EXPECT_FALSE(str::getString(str::createScalar(std::nullopt).get()).has_value());

    const auto grid = str::create({2, 3}, {u"a", u"b", std::nullopt, u"", u"e", u"f"});
    EXPECT_EQ(dvGetDimensions(grid.get()), (matrix::Dimensions{2, 3}));
    EXPECT_TRUE(str::isString(grid.get()));
    EXPECT_TRUE(str::isString(str::create({0, 0}, {}).get()));

    const auto chars = matrix::create(u"text", 4);
    EXPECT_FALSE(str::isString(chars.get()));
    EXPECT_FALSE(str::isString(nullptr));
}

TEST(String, RefusesWhatIsNotAStringScalarOrDoesNotFill) {
    EXPECT_THROW(str::create({1, 2}, {u"one"}), std::invalid_argument);
    EXPECT_THROW(str::getString(str::create({1, 2}, {u"a", u"b"}).get()), std::invalid_argument);
    EXPECT_THROW(str::getString(str::create({0, 0}, {}).get()), std::invalid_argument);
    EXPECT_THROW(str::getString(matrix::create(u"a", 1).get()), std::invalid_argument);
}

} // namespace
