#include <interpreter/Kdispatcher.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using matrix::ClassID;
using matrix::Dimensions;
using matrix::detail::do_create_cell;
using ArrayRef = boost::intrusive_ptr<dvArray>;
using Inputs = std::vector<ArrayRef>;

namespace {

ArrayRef adopt(matrix::unique_dvArray array) {
    return ArrayRef(matrix::to_korvex(std::move(array)), false);
}

// Values in column-major order.
ArrayRef numbers(Dimensions dims, std::vector<double> values) {
    auto array = matrix::detail::do_create_numeric(dims, ClassID::Double);
    std::ranges::copy(values, dvGetMutableDoubles(array.get()).begin());
    return adopt(std::move(array));
}

ArrayRef text(std::string row) {
    return adopt(matrix::create(row.data(), row.size()));
}

ArrayRef flag(bool value) {
    return adopt(dvCreateLogicalScalar(value));
}

ArrayRef stacked(const Inputs& inputs) {
    return interpreter::vertcat(1, inputs).at(0);
}

} // namespace

TEST(Vertcat, StacksNumbersLogicalsCharsAndCellsSkippingZeroByZeroInputs) {
    const auto none = numbers({0, 0}, {});
    const auto five = numbers({1, 1}, {5});
    auto flags = matrix::detail::do_create_numeric({2, 1}, ClassID::Logical);
    dvGetMutableLogicals(flags.get())[0] = 1;
    const std::pair<Inputs, ArrayRef> cases[] = {
        // [1 2; 3 4] over [5 6], values in column-major order
        {{numbers({2, 2}, {1, 3, 2, 4}), numbers({1, 2}, {5, 6})},
         numbers({3, 2}, {1, 3, 5, 2, 4, 6})},
        {{flag(true), numbers({1, 1}, {2})}, numbers({2, 1}, {1, 2})}, // logicals become numbers
        {{flag(true), flag(false)}, adopt(std::move(flags))},
        {{text("abc"), text("def")}, adopt(matrix::createChars({2, 3}, u"adbecf"))},
        {{none, five, text(""), adopt(do_create_cell({0, 0}))}, five},
        {{}, none},
        {{none, text("")}, none},
    };
    for (const auto& [inputs, expected] : cases) {
        const auto result = stacked(inputs);
        EXPECT_EQ(dvGetClassID(result.get()), dvGetClassID(expected.get()));
        EXPECT_TRUE(dvIsEqual(result.get(), expected.get()));
    }

    auto top = do_create_cell({1, 2});
    dvSetCell(top.get(), 0, matrix::create("x", 1)); // element 1 stays empty
    const auto cells = stacked({adopt(std::move(top)), adopt(do_create_cell({1, 2}))});
    EXPECT_EQ(dvGetDimensions(cells.get()), (Dimensions{2, 2}));
    EXPECT_EQ(dvGetChars(dvGetCell(cells.get(), 0)), u"x");
    EXPECT_EQ(dvGetCell(cells.get(), 2), nullptr);
}

TEST(Vertcat, RaisesMismatchErrors) {
    const std::string dimensions = "dimensionMismatch", classes = "classMismatch";
    const auto one = numbers({1, 1}, {1});
    const std::pair<Inputs, std::string> cases[] = {
        {{numbers({1, 2}, {1, 2}), numbers({1, 3}, {1, 2, 3})}, dimensions},
        {{numbers({1, 0}, {}), one}, dimensions}, // only 0-by-0 is skipped
        {{numbers({1, 1, 2}, {1, 2}), one}, dimensions},
        {{one, text("ab")}, classes},
        {{adopt(do_create_cell({1, 1})), one}, classes},
        {{adopt(matrix::detail::do_create_struct({1, 1}, {"f"}))}, classes},
        {{one, nullptr}, classes},
    };
    for (const auto& [inputs, id] : cases) {
        try {
            interpreter::vertcat(1, inputs);
            ADD_FAILURE() << "no error for " << id;
        } catch (const Veldspire::KException::KExceptionEnvelope& e) {
            EXPECT_EQ(e.GetID(), "KORVEX:catenate:" + id);
        }
    }
}
