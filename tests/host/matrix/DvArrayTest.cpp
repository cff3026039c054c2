// qz-test-label: concurrency

#include <foundation/core/except/Exception.hpp>
#include <kcos/COSInterface.hpp>
#include <matrix/Errors.hpp>
#include <matrix/dvArray.hpp>
#include <support/ErrorIds.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <latch>
#include <stdexcept>
#include <thread>

using foundation::core::except::Exception;
using namespace matrix::detail;
using Ref = boost::intrusive_ptr<dvArray>;

using testsupport::thrownBy;

TEST(DvArray, CopiesAreIndependentValuesThatCompareEqual) {
    auto original = dvCreateDoubleScalar(1.0);
    auto copy = do_shared_copy(original.get());
    dvGetMutableDoubles(copy.get())[0] = 2.0;
    EXPECT_EQ(dvGetDoubles(original.get())[0], 1.0);
    auto cell = do_create_cell({1, 1});
    dvSetCell(cell.get(), 0, matrix::create("x", 1));
    auto deep = dvDuplicateArray(cell.get());
    EXPECT_NE(dvGetCell(deep.get(), 0), dvGetCell(cell.get(), 0));
    EXPECT_TRUE(dvIsEqual(deep.get(), cell.get()));
    EXPECT_FALSE(dvIsEqual(do_create_cell({1, 2}).get(), do_create_cell({2, 1}).get()));
    auto a = do_create_struct({1, 1}, {"x", "y"});
    auto b = do_create_struct({1, 1}, {"y", "x"}); // fields compare by name
    dvSetField(a.get(), 0, "x", dvCreateDoubleScalar(1.0));
    dvSetField(b.get(), 0, "x", dvCreateDoubleScalar(1.0));
    EXPECT_TRUE(dvIsEqual(a.get(), b.get()));
    dvSetField(b.get(), 0, "y", dvCreateDoubleScalar(1.0));
    EXPECT_FALSE(dvIsEqual(a.get(), b.get()));
}

TEST(DvArray, ShapesAreNormalizedAndOutliveCopyOnWrite) {
    using matrix::Dimensions;
    const std::pair<Dimensions, Dimensions> shapes[] = {
        {{}, {1, 1}},     {{0}, {0, 1}},       {{1, 0, 1}, {1, 0}},
        {{0, 0}, {0, 0}}, {{3, 1, 1}, {3, 1}}, {{1, 1, 2}, {1, 1, 2}}};
    for (const auto& [given, normalized] : shapes) {
        EXPECT_EQ(dvGetDimensions(do_create_cell(given).get()), normalized);
    }
    // Elements held inline (one) and on the heap (many) alike.
    for (const std::size_t n : {1, 100}) {
        auto original = do_create_numeric({n, 1}, matrix::ClassID::Logical);
        auto copy = do_shared_copy(original.get());
        const Dimensions& dims = dvGetDimensions(copy.get());
        dvGetMutableLogicals(copy.get())[n - 1] = 1;
        EXPECT_EQ(dvGetLogicals(original.get())[n - 1], 0);
        original.reset();
        EXPECT_EQ(dims, (Dimensions{n, 1}));
        EXPECT_EQ(dvGetLogicals(copy.get())[n - 1], 1);
    }
}

TEST(DvArray, AccessErrorsAndIndexChecks) {
    auto cell = do_create_cell({1, 1});
    auto s = do_create_struct({1, 1}, {"a"});
    auto number = dvCreateDoubleScalar(1.0);
    const auto sharers = std::pair(do_shared_copy(cell.get()), do_shared_copy(s.get()));
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { dvSetCell(cell.get(), 0, nullptr); }, "Cell array is not writable."},
        {[&] { dvSetField(s.get(), 0, "a", nullptr); }, "Struct array is not writable."},
        {[&] { dvGetCell(number.get(), 0); }, "Array is not cell array."},
        {[&] { dvGetCell(cell.get(), 1); }, "Cell index is out of range."},
        {[&] { dvGetField(cell.get(), 0, "a"); }, "Array is not struct array."},
        {[&] { dvGetField(s.get(), 1, "a"); }, "Struct index is out of range."},
        {[&] { dvGetField(s.get(), 0, "b"); }, "Wrong field name."},
        {[&] { dvSetObject(cell.get(), 0, nullptr); }, "Array is not object array."},
        {[&] { dvGetDoubles(cell.get()); }, "Array is not double array."},
    };
    for (const auto& [call, message] : cases) {
        EXPECT_EQ(thrownBy(call), message);
    }
    EXPECT_EQ(dvCheckIndex(42.0), 42u);
    for (double bad : {-1.0, 1.5, std::nan(""), 1e30}) {
        EXPECT_THROW(dvCheckIndex(bad), Exception<KORVEX::badsubscript>) << bad;
    }
}

TEST(DvArray, FunctionHandleCallPassesOutputsAndErrors) {
    auto same = matrix::createFunctionHandle("same", [](std::size_t, const std::vector<Ref>& in) {
        return in.empty() ? throw std::runtime_error("no input") : in;
    });
    auto input = dvCreateDoubleScalar(4.0);
    dvArray* in[] = {input.get()};
    dvArray* out[2] = {};
    dvInvokeFunctionHandle(same.get(), 1, out, 1, in);
    EXPECT_EQ(matrix::from_korvex(out[0]).get(), input.get());
    EXPECT_EQ(thrownBy([&] { dvInvokeFunctionHandle(same.get(), 0, nullptr, 0, nullptr); }),
              "no input");
    out[0] = nullptr;
    EXPECT_THROW(dvInvokeFunctionHandle(same.get(), 2, out, 1, in), Exception<KORVEX::maxlhs>);
    EXPECT_EQ(out[0], nullptr);
}

TEST(DvArray, ReferencesAndSharedStorageAcrossThreads) {
    auto thing = std::make_shared<kcos::COSInterface>("pkg.Thing");
    std::weak_ptr<kcos::COSInterface> watch = thing;
    Ref array(matrix::to_korvex(matrix::createObjectArray({1, 1}, "pkg.Thing")), false);
    dvSetObject(array.get(), 0, std::move(thing));
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    std::latch started(4);
    std::vector<matrix::RootRecordPtr> roots(4);
    for (int t = 0; t < 4; ++t) {
        // Each thread gets its own reference; the last one dropped frees the array.
        // The first requests for the root record race: all get the same one.
        threads.emplace_back([mine = array, &wrong, &started, &root = roots[t]]() mutable {
            started.arrive_and_wait();
            root = dvGetRootRecordForArray(mine.get());
            for (int i = 0; i < 5000; ++i) {
                wrong += dvGetObject(do_shared_copy(Ref(mine).get()).get(), 0) !=
                         dvGetObject(mine.get(), 0);
            }
            mine.reset();
        });
    }
    array.reset();
    // A cell's storage is writable in place again once its last sharer dropped it.
    auto cell = do_create_cell({1, 1});
    std::latch dropped(1);
    threads.emplace_back(
        [copy = Ref(matrix::to_korvex(do_shared_copy(cell.get())), false), &dropped]() mutable {
            EXPECT_EQ(dvGetCell(copy.get(), 0), nullptr);
            copy.reset();
            dropped.count_down();
        });
    dropped.wait();
    dvSetCell(cell.get(), 0, dvCreateDoubleScalar(2.0)); // in place, no race with the reader
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(std::ranges::count(roots, roots[0]), 4);
}

TEST(DvArray, ObjectsMemoLivesWithTheElementStorageUntilItIsWritten) {
    struct Memo : matrix::ObjectsMemo {};
    const auto object = std::make_shared<kcos::COSInterface>("test.Thing");
    const auto original = matrix::createObjectArray({1, 2}, "test.Thing");
    EXPECT_EQ(dvGetObjectsMemo(original.get()), nullptr);
    const auto memo = std::make_shared<Memo>();
    dvSetObjectsMemo(original.get(), memo);
    const auto copy = do_shared_copy(original.get());
    EXPECT_EQ(dvGetObjectsMemo(copy.get()), memo); // shared storage, shared memo

    dvSetObject(original.get(), 0, object); // copy-on-write: a fresh storage
    EXPECT_EQ(dvGetObjectsMemo(original.get()), nullptr);
    EXPECT_EQ(dvGetObjectsMemo(copy.get()), memo);
    dvSetObject(copy.get(), 1, object); // written in place
    EXPECT_EQ(dvGetObjectsMemo(copy.get()), nullptr);
    dvSetObjectsMemo(copy.get(), memo);
    setObjectArrayClass(copy.get(), "test.Other");
    EXPECT_EQ(dvGetObjectsMemo(copy.get()), nullptr);
    EXPECT_EQ(dvGetObjectsMemo(do_deep_copy(original.get()).get()), nullptr);
    EXPECT_THROW(dvGetObjectsMemo(dvCreateDoubleScalar(1).get()), std::invalid_argument);
}

TEST(DvArray, RootRecordParents) {
    auto owner = std::make_shared<matrix::RootRecord>();
    auto array = do_create_cell({1, 4});
    auto root = dvGetRootRecordForArray(array.get());
    auto copy = do_shared_copy(array.get());
    dvSetParentRoot(root, owner);
    EXPECT_TRUE(root->isAccountedTo(owner.get()));
    EXPECT_FALSE(dvGetRootRecordForArray(copy.get())->isAccountedTo(owner.get()));
    EXPECT_THROW(owner->setParent(root), std::invalid_argument);
}
