#include <kcos/COSInterface.hpp>
#include <kcos/array.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

TEST(PropertyArrays, CreateMakesOneByOneObjectArrayOfTheObjectsClass) {
    auto widget = std::make_shared<kcos::COSInterface>("pkg.Widget");
    auto array = kcos::array::create(widget);
    EXPECT_EQ(dvGetDimensions(array.get()), (matrix::Dimensions{1, 1}));
    EXPECT_STREQ(dvGetClassName(array.get()), "pkg.Widget");
    EXPECT_EQ(dvGetObject(array.get(), 0), widget);
    EXPECT_THROW(kcos::array::create(nullptr), std::invalid_argument);
}

TEST(PropertyArrays, HeldCopiesAreIndependentValues) {
    using PropertyArray = std::unique_ptr<dvArray, kcos::property_array_deleter>;
    PropertyArray held(
        omPrepareArrayForPropertyContainment(matrix::to_korvex(dvCreateDoubleScalar(3))));
    PropertyArray copy(omCopyArrayForPropertyContainment(held.get()));
    dvGetMutableDoubles(copy.get())[0] = 4.0;
    EXPECT_EQ(dvGetDoubles(held.get())[0], 3.0);
    EXPECT_EQ(omCopyArrayForPropertyContainment(nullptr), nullptr);
}
