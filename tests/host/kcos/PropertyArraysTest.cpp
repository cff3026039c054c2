#include <kcos/array.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

struct Widget : matrix::dvObject {
    std::string name = "pkg.Widget";
    const std::string& className() const noexcept override { return name; }
};

} // namespace

TEST(PropertyArrays, CreateMakesOneByOneObjectArray) {
    auto widget = std::make_shared<Widget>();
    auto array = kcos::array::create(widget);
    EXPECT_EQ(dvGetClassID(array.get()), matrix::ClassID::Object);
    EXPECT_EQ(dvGetDimensions(array.get()), (matrix::Dimensions{1, 1}));
    EXPECT_STREQ(dvGetClassName(array.get()), "pkg.Widget");
    EXPECT_EQ(dvGetObject(array.get(), 0), widget);
    EXPECT_THROW(kcos::array::create(nullptr), std::invalid_argument);
}

TEST(PropertyArrays, PrepareAndCopyForContainment) {
    EXPECT_EQ(omPrepareArrayForPropertyContainment(nullptr), nullptr);
    EXPECT_EQ(omCopyArrayForPropertyContainment(nullptr), nullptr);

    dvArray* raw = matrix::to_korvex(dvCreateDoubleScalar(3.0));
    std::unique_ptr<dvArray, kcos::property_array_deleter> held(
        omPrepareArrayForPropertyContainment(raw));
    EXPECT_EQ(held.get(), raw);

    std::unique_ptr<dvArray, kcos::property_array_deleter> copy(
        omCopyArrayForPropertyContainment(held.get()));
    ASSERT_NE(copy.get(), held.get());
    EXPECT_TRUE(held->is_data_shared_impl());
    EXPECT_TRUE(dvIsEqual(copy.get(), held.get()));
    dvGetMutableDoubles(copy.get())[0] = 4.0;
    EXPECT_EQ(dvGetDoubles(held.get())[0], 3.0);
}
