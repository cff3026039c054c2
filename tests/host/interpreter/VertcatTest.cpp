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

TEST(Vertcat, StacksNumbersLogicalsCharsAndCells) {
    // [1 2; 3 4] over [5 6]; logical values among numbers become numbers.
    EXPECT_TRUE(dvIsEqual(stacked({numbers({2, 2}, {1, 3, 2, 4}), numbers({1, 2}, {5, 6})}).get(),
                          numbers({3, 2}, {1, 3, 5, 2, 4, 6}).get()));
    EXPECT_TRUE(dvIsEqual(stacked({flag(true), numbers({1, 1}, {2})}).get(),
                          numbers({2, 1}, {1, 2}).get()));
    const auto flags = stacked({flag(true), flag(false)});
    EXPECT_EQ(dvGetClassID(flags.get()), ClassID::Logical);
    EXPECT_EQ(dvGetDimensions(flags.get()), (Dimensions{2, 1}));

    const auto chars = stacked({text("abc"), text("def")});
    EXPECT_EQ(dvGetDimensions(chars.get()), (Dimensions{2, 3}));
    EXPECT_EQ(dvGetChars(chars.get()), u"adbecf");

    auto top = do_create_cell({1, 2});
    dvSetCell(top.get(), 0, matrix::create("x", 1)); // element 1 stays empty
    const auto cells = stacked({adopt(std::move(top)), adopt(do_create_cell({1, 2}))});
    EXPECT_EQ(dvGetDimensions(cells.get()), (Dimensions{2, 2}));
    EXPECT_EQ(dvGetChars(dvGetCell(cells.get(), 0)), u"x");
    EXPECT_EQ(dvGetCell(cells.get(), 2), nullptr);
}

TEST(Vertcat, SkipsZeroByZeroInputs) {
    const auto none = numbers({0, 0}, {});
    const auto five = numbers({1, 1}, {5});
    EXPECT_TRUE(dvIsEqual(stacked({none, five, text(""), adopt(do_create_cell({0, 0}))}).get(),
                          five.get()));
    for (const auto& inputs : {Inputs{}, Inputs{none, text("")}}) {
        EXPECT_TRUE(dvIsEqual(stacked(inputs).get(), none.get()));
    }
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
