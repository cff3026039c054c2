// qz-test-label: concurrency

#include <interpreter/Kdispatcher.hpp>

#include <foundation/core/except/Exception.hpp>
#include <kvm/KVM.hpp>
#include <matrix/Errors.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

using ArrayRef = boost::intrusive_ptr<dvArray>;

namespace {
ArrayRef scalar(double value) {
    return ArrayRef(matrix::to_korvex(dvCreateDoubleScalar(value)), false);
}
} // namespace

TEST(Kdispatcher, BelongsToTheCallingThreadsInterpreter) {
    EXPECT_THROW(Kdispatcher::getDispatcher(), std::logic_error);
    auto kvm = kvm::KVM::create();
    EXPECT_EQ(&Kdispatcher::getDispatcher(), &kvm->getDispatcher());
    EXPECT_EQ(kvm->getDispatcher().GetCurrentlyExecutingFunction(), "");
    EXPECT_EQ(kvm->getDispatcher().GetCurrentlyExecutingFunctionScope().name, "base");
    std::thread([] { EXPECT_THROW(Kdispatcher::getDispatcher(), std::logic_error); }).join();
}

TEST(Kdispatcher, LooksUpBuiltInsAndDefinedFunctions) {
    Kdispatcher dispatcher;
    const auto& scope = dispatcher.GetCurrentlyExecutingFunctionScope();
    const auto vertcat = dispatcher.lookup("vertcat", scope);
    ASSERT_TRUE(vertcat);
    EXPECT_EQ(dvGetDimensions((*vertcat)({scalar(1), scalar(2)}).get()),
              (matrix::Dimensions{2, 1}));

    EXPECT_FALSE(dispatcher.lookup("twice", scope));
    dispatcher.define("twice", [](std::size_t, const std::vector<ArrayRef>& in) {
        return std::vector<ArrayRef>{scalar(2 * dvGetDoubles(in.at(0).get())[0])};
    });
    EXPECT_EQ(dvGetDoubles((*dispatcher.lookup("twice", scope))({scalar(4)}).get())[0], 8.0);

    dispatcher.define(
        "twice", [](std::size_t, const std::vector<ArrayRef>&) { return std::vector<ArrayRef>{}; });
    EXPECT_THROW((*dispatcher.lookup("twice", scope))({}),
                 foundation::core::except::Exception<KORVEX::maxlhs>);
    EXPECT_THROW(dispatcher.define("empty", {}), std::invalid_argument);
}
