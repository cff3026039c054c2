// qz-test-label: concurrency

#include <foundation/core/except/Exception.hpp>
#include <matrix/Errors.hpp>
#include <matrix/dvArray.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using foundation::core::except::Exception;
using matrix::ClassID;
using matrix::unique_dvArray;
using matrix::detail::do_create_cell;
using matrix::detail::do_create_struct;
using matrix::detail::do_deep_copy;
using matrix::detail::do_shared_copy;

namespace {

using Ref = boost::intrusive_ptr<dvArray>;

struct TestObject : matrix::dvObject {
    std::string name = "pkg.Thing";
    const std::string& className() const noexcept override { return name; }
};

template <class F>
std::string messageOf(F&& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "no exception";
}

double firstDouble(const dvArray* a) {
    return dvGetDoubles(a)[0];
}

} // namespace

TEST(DvArray, CreationDimensionsAndClassNames) {
    auto text = matrix::create(u"abc", 3);
    EXPECT_EQ(dvGetDimensions(text.get()), (matrix::Dimensions{1, 3}));
    EXPECT_EQ(dvGetChars(text.get()), u"abc");
    EXPECT_STREQ(dvGetClassName(text.get()), "char");
    EXPECT_EQ(dvGetDimensions(matrix::create("", 0).get()), (matrix::Dimensions{0, 0}));
    EXPECT_EQ(dvGetChars(matrix::create("h\xc3\xa9", 3).get()), u"h\u00e9");

    auto stack = matrix::dvCreateStackStruct(0);
    EXPECT_EQ(dvGetDimensions(stack.get()), (matrix::Dimensions{0, 1}));
    EXPECT_TRUE(dvIsEmpty(stack.get()));
    EXPECT_EQ(dvGetFieldNames(stack.get()), (std::vector<std::string>{"file", "name", "line"}));

    EXPECT_EQ(dvGetNumberOfElements(do_create_cell({2, 3}).get()), 6u);
    EXPECT_STREQ(dvGetClassName(do_create_cell({0, 0}).get()), "cell");
    EXPECT_TRUE(dvIsLogicalScalar(dvCreateLogicalScalar(true).get()));
    EXPECT_TRUE(dvIsRealDoubleScalar(dvCreateDoubleScalar(2.5).get()));
    EXPECT_FALSE(dvIsRealDoubleScalar(dvCreateLogicalScalar(true).get()));
    auto numeric = matrix::detail::do_create_numeric({1, 1}, ClassID::Logical);
    EXPECT_EQ(dvGetLogicals(numeric.get())[0], 0);
    EXPECT_THROW(matrix::detail::do_create_numeric({1, 1}, ClassID::Double, false),
                 std::invalid_argument);
    EXPECT_EQ(messageOf([&] { dvGetDoubles(numeric.get()); }), "Array is not double array.");
}

TEST(DvArray, SharedCopyIsIndependentAfterWrite) {
    auto original = dvCreateDoubleScalar(1.0);
    auto copy = do_shared_copy(original.get());
    EXPECT_TRUE(original->is_data_shared_impl());
    dvGetMutableDoubles(copy.get())[0] = 2.0;
    EXPECT_EQ(firstDouble(original.get()), 1.0);
    EXPECT_EQ(firstDouble(copy.get()), 2.0);
    EXPECT_FALSE(original->is_data_shared_impl());

    auto cell = do_create_cell({1, 2});
    dvSetCell(cell.get(), 0, dvCreateDoubleScalar(5.0));
    auto cellCopy = do_shared_copy(cell.get());
    EXPECT_EQ(messageOf([&] { dvSetCell(cell.get(), 1, nullptr); }), "Cell array is not writable.");
    dvReplaceCell(cellCopy.get(), 0, matrix::create("x", 1));
    EXPECT_EQ(firstDouble(dvGetCell(cell.get(), 0)), 5.0);
    EXPECT_EQ(dvGetClassID(dvGetCell(cellCopy.get(), 0)), ClassID::Char);
    EXPECT_FALSE(dvIsEqual(cell.get(), cellCopy.get()));
}

TEST(DvArray, DeepCopyAndEquality) {
    auto cell = do_create_cell({1, 2});
    dvSetCell(cell.get(), 0, dvCreateDoubleScalar(3.0));
    auto copy = do_deep_copy(cell.get());
    EXPECT_FALSE(copy->is_data_shared_impl());
    EXPECT_NE(dvGetCell(copy.get(), 0), dvGetCell(cell.get(), 0));
    EXPECT_TRUE(dvIsEqual(cell.get(), copy.get()));
    EXPECT_EQ(dvGetCell(copy.get(), 1), nullptr);

    auto a = do_create_struct({1, 1}, {"x", "y"});
    auto b = do_create_struct({1, 1}, {"y", "x"});
    dvSetField(a.get(), 0, "x", dvCreateDoubleScalar(1.0));
    dvSetField(b.get(), 0, "x", dvCreateDoubleScalar(1.0));
    EXPECT_TRUE(dvIsEqual(a.get(), b.get()));
    dvSetField(b.get(), 0, "y", dvCreateDoubleScalar(1.0));
    EXPECT_FALSE(dvIsEqual(a.get(), b.get()));
    EXPECT_TRUE(dvIsEqual(dvDuplicateArray(b.get()).get(), b.get()));
    EXPECT_FALSE(dvIsEqual(do_create_cell({1, 2}).get(), do_create_cell({2, 1}).get()));
}

TEST(DvArray, CellAndStructErrors) {
    auto cell = do_create_cell({1, 1});
    auto number = dvCreateDoubleScalar(1.0);
    EXPECT_EQ(messageOf([&] { dvGetCell(number.get(), 0); }), "Array is not cell array.");
    EXPECT_EQ(messageOf([&] { dvGetCell(cell.get(), 1); }), "Cell index is out of range.");
    EXPECT_THROW(dvReplaceCell(cell.get(), 1, nullptr), std::out_of_range);

    auto s = do_create_struct({1, 1}, {"a"});
    EXPECT_EQ(messageOf([&] { dvGetField(cell.get(), 0, "a"); }), "Array is not struct array.");
    EXPECT_EQ(messageOf([&] { dvGetField(s.get(), 1, "a"); }), "Struct index is out of range.");
    EXPECT_EQ(messageOf([&] { dvGetField(s.get(), 0, "b"); }), "Wrong field name.");
    auto shared = do_shared_copy(s.get());
    EXPECT_EQ(messageOf([&] { dvSetField(s.get(), 0, "a", nullptr); }),
              "Struct array is not writable.");
    shared.reset();
    dvSetField(s.get(), 0, "a", matrix::create("v", 1));
    EXPECT_EQ(dvGetChars(dvGetField(s.get(), 0, "a")), u"v");
}

TEST(DvArray, FunctionHandleInvocation) {
    auto fh = matrix::createFunctionHandle(
        "twice", [](std::size_t, const std::vector<Ref>& in) -> std::vector<Ref> {
            if (in.empty()) {
                throw std::runtime_error("no input");
            }
            return {
                Ref(matrix::to_korvex(dvCreateDoubleScalar(2 * firstDouble(in[0].get()))), false)};
        });
    EXPECT_STREQ(dvGetClassName(fh.get()), "function_handle");
    EXPECT_EQ(dvGetFunctionHandleName(fh.get()), "twice");
    EXPECT_TRUE(dvIsEqual(fh.get(), dvDuplicateArray(fh.get()).get()));

    auto input = dvCreateDoubleScalar(4.0);
    dvArray* in[] = {input.get()};
    dvArray* out[1] = {nullptr};
    dvInvokeFunctionHandle(fh.get(), 1, out, 1, in);
    auto result = matrix::from_korvex(out[0]);
    EXPECT_EQ(firstDouble(result.get()), 8.0);
    EXPECT_FALSE(input->is_data_shared_impl());

    EXPECT_EQ(messageOf([&] { dvInvokeFunctionHandle(fh.get(), 0, nullptr, 0, nullptr); }),
              "no input");
    dvArray* two[2] = {};
    EXPECT_THROW(dvInvokeFunctionHandle(fh.get(), 2, two, 1, in), Exception<KORVEX::maxlhs>);
    EXPECT_EQ(two[0], nullptr);
    EXPECT_EQ(messageOf([&] { dvInvokeFunctionHandle(input.get(), 0, nullptr, 0, nullptr); }),
              "Array is not function handle.");
}

TEST(DvArray, ConcurrentReferenceCounting) {
    auto thing = std::make_shared<TestObject>();
    std::weak_ptr<TestObject> watch = thing;
    Ref array(matrix::to_korvex(matrix::createObjectArray({1, 1}, "pkg.Thing")), false);
    dvSetObject(array.get(), 0, std::move(thing));
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        // Each thread gets its own reference; the last one dropped frees the array.
        threads.emplace_back([mine = array, &wrong]() mutable {
            for (int i = 0; i < 5000; ++i) {
                Ref copy = mine;
                dvArray* raw = matrix::to_korvex(do_shared_copy(copy.get()));
                wrong += dvGetObject(raw, 0) != dvGetObject(mine.get(), 0);
                matrix::destroyArray(raw);
            }
            mine.reset();
        });
    }
    array.reset();
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(watch.expired());
}

TEST(DvArray, WriteAfterSharerReleasedOnAnotherThread) {
    auto cell = do_create_cell({1, 1});
    dvSetCell(cell.get(), 0, dvCreateDoubleScalar(1.0));
    std::thread reader(
        [copy = Ref(matrix::to_korvex(do_shared_copy(cell.get())), false)]() mutable {
            EXPECT_EQ(firstDouble(dvGetCell(copy.get(), 0)), 1.0);
            copy.reset();
        });
    while (cell->is_data_shared_impl()) {
        std::this_thread::yield();
    }
    dvSetCell(cell.get(), 0, dvCreateDoubleScalar(2.0)); // in place, no race with the reader
    EXPECT_EQ(firstDouble(dvGetCell(cell.get(), 0)), 2.0);
    reader.join();
}

TEST(DvArray, RootRecords) {
    auto owner = std::make_shared<matrix::RootRecord>();
    auto array = do_create_cell({1, 4});
    auto root = dvGetRootRecordForArray(array.get());
    ASSERT_TRUE(root);
    EXPECT_GT(root->getBytes(), 0u);
    auto copy = do_shared_copy(array.get());
    EXPECT_NE(dvGetRootRecordForArray(copy.get()), root);
    EXPECT_FALSE(root->isAccountedTo(owner.get()));
    dvSetParentRoot(root, owner);
    EXPECT_EQ(root->getParent(), owner);
    EXPECT_TRUE(root->isAccountedTo(owner.get()));
    EXPECT_FALSE(dvGetRootRecordForArray(copy.get())->isAccountedTo(owner.get()));
    EXPECT_THROW(owner->setParent(root), std::invalid_argument);
}

TEST(DvArray, CheckIndex) {
    EXPECT_EQ(dvCheckIndex(0.0), 0u);
    EXPECT_EQ(dvCheckIndex(42.0), 42u);
    for (double bad : {-1.0, 1.5, std::nan(""), std::numeric_limits<double>::infinity(), 1e30}) {
        try {
            dvCheckIndex(bad);
            ADD_FAILURE() << bad;
        } catch (const Exception<KORVEX::badsubscript>& e) {
            EXPECT_EQ(e.get_error_id(), "KORVEX:badsubscript");
        }
    }
    EXPECT_THROW(matrix::detail::error_minrhs(), Exception<KORVEX::minrhs>);
    EXPECT_THROW(matrix::detail::error_maxrhs(), Exception<KORVEX::maxrhs>);
}

TEST(DvArray, ObjectArrays) {
    auto thing = std::make_shared<TestObject>();
    auto objects = matrix::createObjectArray({1, 2}, "pkg.Thing");
    EXPECT_STREQ(dvGetClassName(objects.get()), "pkg.Thing");
    EXPECT_EQ(dvGetObject(objects.get(), 1), nullptr);
    auto copy = do_shared_copy(objects.get());
    dvSetObject(copy.get(), 1, thing);
    EXPECT_EQ(dvGetObject(objects.get(), 1), nullptr);
    EXPECT_EQ(dvGetObject(copy.get(), 1), thing);
    EXPECT_EQ(dvGetObject(do_deep_copy(copy.get()).get(), 1), thing);
    EXPECT_EQ(messageOf([&] { dvGetObject(objects.get(), 2); }), "Object index is out of range.");
    EXPECT_EQ(messageOf([&] {
                  dvSetObject(do_create_cell({1, 1}).get(), 0, thing);
              }),
              "Array is not object array.");
    matrix::destroyArray(nullptr);
}
