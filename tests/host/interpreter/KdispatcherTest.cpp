// qz-test-label: concurrency

#include <interpreter/Kdispatcher.hpp>

#include <foundation/core/except/Exception.hpp>
#include <kvm/KVM.hpp>
#include <matrix/Errors.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

using Arrays = std::vector<boost::intrusive_ptr<dvArray>>;

TEST(Kdispatcher, BelongsToTheCallingThreadsInterpreter) {
    EXPECT_THROW(Kdispatcher::getDispatcher(), std::logic_error);
    auto kvm = kvm::KVM::create();
    EXPECT_EQ(&Kdispatcher::getDispatcher(), &kvm->getDispatcher());
    std::thread([] { EXPECT_THROW(Kdispatcher::getDispatcher(), std::logic_error); }).join();
}

TEST(Kdispatcher, LooksUpBuiltInsAndDefinedFunctions) {
    Kdispatcher dispatcher;
    const auto& scope = dispatcher.GetCurrentlyExecutingFunctionScope();
    const boost::intrusive_ptr<dvArray> two(matrix::to_korvex(dvCreateDoubleScalar(2)), false);
    EXPECT_EQ(dvGetNumberOfElements(dispatcher.lookup("vertcat", scope).value()({two, two}).get()),
              2u);
    EXPECT_FALSE(dispatcher.lookup("same", scope));
    dispatcher.define("same", [](std::size_t, const Arrays& in) { return in; });
    EXPECT_EQ(dispatcher.lookup("same", scope).value()({two}), two);
    // Redefinition replaces; a function without outputs raises "KORVEX:maxlhs".
    dispatcher.define("same", [](std::size_t, const Arrays&) { return Arrays{}; });
    EXPECT_THROW(dispatcher.lookup("same", scope).value()({}),
                 foundation::core::except::Exception<KORVEX::maxlhs>);
    EXPECT_THROW(dispatcher.define("empty", {}), std::invalid_argument);
}
