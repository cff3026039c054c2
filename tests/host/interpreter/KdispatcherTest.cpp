// qz-test-label: concurrency

#include <interpreter/Kdispatcher.hpp>

#include <foundation/core/except/Exception.hpp>
#include <kcos/Errors.hpp>
#include <kvm/KVM.hpp>
#include <matrix/Errors.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

using Arrays = std::vector<boost::intrusive_ptr<dvArray>>;
using foundation::core::except::Exception;

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
    EXPECT_THROW(dispatcher.lookup("same", scope).value()({}), Exception<KORVEX::maxlhs>);
    EXPECT_THROW(dispatcher.define("empty", {}), std::invalid_argument);
}

TEST(Kdispatcher, CalledFunctionsAreTheExecutingFunction) {
    const auto kvm = kvm::KVM::create();
    Kdispatcher& dispatcher = Kdispatcher::getDispatcher();
    std::string seen;
    dispatcher.define("test.who", [&](std::size_t, const Arrays&) {
        seen = Kdispatcher::getDispatcher().GetCurrentlyExecutingFunction();
        return Arrays{};
    });
    {
        const Kdispatcher::ExecutingFunction outer(dispatcher, "outer");
        inCallFcn("test.who", 0, nullptr, 0, nullptr);
        EXPECT_EQ(dispatcher.GetCurrentlyExecutingFunction(), "outer");
    }
    EXPECT_EQ(seen, "test.who");
    EXPECT_EQ(dispatcher.GetCurrentlyExecutingFunction(), "");
    dvArray* out = nullptr;
    EXPECT_THROW(inCallFcn("test.who", 1, &out, 0, nullptr), Exception<KORVEX::maxlhs>);
    EXPECT_THROW(inCallFcn("no.such.function", 0, nullptr, 0, nullptr),
                 Exception<KORVEX::UndefinedFunction>);
}

TEST(Kdispatcher, WarnOnceCannotSaveWarnsOncePerClassName) {
    const auto kvm = kvm::KVM::create();
    const auto name = matrix::create("test.SavedOnce", 14);
    std::u16string shown;
    {
        kvm::DiarySink sink(shown);
        dvArray* input = name.get();
        inCallFcn("parallel.internal.warnOnceCannotSave", 0, nullptr, 1, &input);
        inCallFcn("parallel.internal.warnOnceCannotSave", 0, nullptr, 1, &input);
    }
    EXPECT_EQ(shown, u"Warning: Objects of class 'test.SavedOnce' cannot be saved; they load as "
                     u"unavailable futures.\n");
}
