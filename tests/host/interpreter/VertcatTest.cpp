#include <interpreter/Kdispatcher.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using matrix::ClassID;
using matrix::Dimensions;
using matrix::detail::do_create_cell;
using matrix::detail::do_create_numeric;

namespace {

using ArrayRef = boost::intrusive_ptr<dvArray>;

ArrayRef adopt(matrix::unique_dvArray array) {
    return ArrayRef(matrix::to_korvex(std::move(array)), false);
}

template <class T = double>
ArrayRef numbers(Dimensions dims, std::vector<T> values) {
    constexpr bool isDouble = std::is_same_v<T, double>;
    auto array = do_create_numeric(dims, isDouble ? ClassID::Double : ClassID::Logical);
    if constexpr (isDouble) {
        std::ranges::copy(values, dvGetMutableDoubles(array.get()).begin());
    } else {
        std::ranges::copy(values, dvGetMutableLogicals(array.get()).begin());
    }
    return adopt(std::move(array));
}

ArrayRef text(std::string row) {
    return adopt(matrix::create(row.data(), row.size()));
}

ArrayRef stacked(const std::vector<ArrayRef>& inputs) {
    return interpreter::vertcat(1, inputs).at(0);
}

std::string errorOf(const std::vector<ArrayRef>& inputs) {
    try {
        interpreter::vertcat(1, inputs);
    } catch (const Veldspire::KException::KExceptionEnvelope& e) {
        return e.GetID();
    }
    return "no error";
}

std::vector<double> doublesOf(const ArrayRef& array) {
    const auto values = dvGetDoubles(array.get());
    return {values.begin(), values.end()};
}

} // namespace

TEST(Vertcat, StacksNumbersAndTurnsLogicalsIntoNumbers) {
    const auto column =
        stacked({numbers({1, 1}, {1.}), numbers({1, 1}, {2.}), numbers({1, 1}, {3.})});
    EXPECT_EQ(dvGetDimensions(column.get()), (Dimensions{3, 1}));
    EXPECT_EQ(doublesOf(column), (std::vector<double>{1, 2, 3}));

    // [1 2; 3 4] over [true false], column-major.
    const auto mixed =
        stacked({numbers({2, 2}, {1., 3., 2., 4.}), numbers<std::uint8_t>({1, 2}, {1, 0})});
    EXPECT_EQ(dvGetDimensions(mixed.get()), (Dimensions{3, 2}));
    EXPECT_EQ(doublesOf(mixed), (std::vector<double>{1, 3, 1, 2, 4, 0}));

    const auto flags =
        stacked({numbers<std::uint8_t>({1, 1}, {1}), numbers<std::uint8_t>({1, 1}, {0})});
    EXPECT_EQ(dvGetClassID(flags.get()), ClassID::Logical);
    EXPECT_EQ(dvGetLogicals(flags.get())[0], 1);
}

TEST(Vertcat, StacksCharRowsAndCells) {
    const auto chars = stacked({text("abc"), text("def")});
    EXPECT_EQ(dvGetDimensions(chars.get()), (Dimensions{2, 3}));
    EXPECT_EQ(dvGetChars(chars.get()), u"adbecf");

    auto top = do_create_cell({1, 2});
    dvSetCell(top.get(), 0, matrix::create("x", 1)); // element 1 stays empty
    const auto topRef = adopt(std::move(top));
    const auto cells = stacked({topRef, adopt(do_create_cell({1, 2}))});
    EXPECT_EQ(dvGetDimensions(cells.get()), (Dimensions{2, 2}));
    EXPECT_EQ(dvGetChars(dvGetCell(cells.get(), 0)), u"x");
    EXPECT_TRUE(dvGetCell(cells.get(), 0)->is_data_shared_impl()); // a shared copy
    EXPECT_EQ(dvGetCell(cells.get(), 2), nullptr);
}

TEST(Vertcat, SkipsZeroByZeroInputs) {
    const auto none = numbers({0, 0}, {});
    const auto five =
        stacked({none, numbers({1, 1}, {5.}), text(""), adopt(do_create_cell({0, 0}))});
    EXPECT_EQ(doublesOf(five), std::vector<double>{5});
    for (const auto& inputs : {std::vector<ArrayRef>{}, std::vector<ArrayRef>{none, text("")}}) {
        const auto empty = stacked(inputs);
        EXPECT_EQ(dvGetClassID(empty.get()), ClassID::Double);
        EXPECT_EQ(dvGetDimensions(empty.get()), (Dimensions{0, 0}));
    }
}

TEST(Vertcat, RaisesMismatchErrors) {
    const std::string dimensions = "KORVEX:catenate:dimensionMismatch";
    const std::string classes = "KORVEX:catenate:classMismatch";
    const auto one = numbers({1, 1}, {1.});
    EXPECT_EQ(errorOf({numbers({1, 2}, {1., 2.}), numbers({1, 3}, {1., 2., 3.})}), dimensions);
    EXPECT_EQ(errorOf({numbers({1, 0}, {}), one}), dimensions); // only 0-by-0 is skipped
    EXPECT_EQ(errorOf({numbers({1, 1, 2}, {1., 2.}), one}), dimensions);
    EXPECT_EQ(errorOf({one, text("ab")}), classes);
    EXPECT_EQ(errorOf({adopt(do_create_cell({1, 1})), one}), classes);
    EXPECT_EQ(errorOf({adopt(matrix::detail::do_create_struct({1, 1}, {"f"}))}), classes);
    EXPECT_EQ(errorOf({one, nullptr}), classes);
}
