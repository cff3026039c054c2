#include <foundation/core/except/Exception.hpp>

#include <gtest/gtest.h>

#include <boost/exception/exception.hpp>

#include <stdexcept>

// Tags of this test's own, for two identifiers of the catalogue.
namespace exception_test {
QZHOST_ERROR_TAG("KORVEX:parallel:future", TooManyOutputsRequested)
struct ExecutionCancelled {
    static constexpr const char* component = "KORVEX:parallel:future";
    static constexpr const char* key = "ExecutionCancelled";
    static constexpr const char* error_id = "parallel:fevalqueue:ExecutionCancelled";
};
} // namespace exception_test

using namespace foundation::core::except;
using TooMany = Exception<exception_test::TooManyOutputsRequested>;
using Cancelled = Exception<exception_test::ExecutionCancelled>;

TEST(Exception, CarriesIdentifiersArgumentsAndCatalogueText) {
    const TooMany error(std::uint64_t{1}, std::uint64_t{3});
    EXPECT_EQ(error.get_message_id().str(), "KORVEX:parallel:future:TooManyOutputsRequested");
    EXPECT_EQ(error.get_error_id(), "KORVEX:parallel:future:TooManyOutputsRequested");
    EXPECT_EQ(error.get_arguments(), (MessageArguments{std::uint64_t{1}, std::uint64_t{3}}));
    EXPECT_EQ(error.get_message(),
              u"Too many outputs requested: the futures have 1 outputs, but 3 were requested.");
    EXPECT_STREQ(error.what(),
                 "Too many outputs requested: the futures have 1 outputs, but 3 were requested.");
    // A tag may name another error identifier than its message identifier.
    const Cancelled cancelled;
    EXPECT_EQ(cancelled.get_error_id(), "parallel:fevalqueue:ExecutionCancelled");
    EXPECT_EQ(cancelled.get_message_id().str(), "KORVEX:parallel:future:ExecutionCancelled");
}

TEST(Exception, RethrowAndCloneKeepTheMostDerivedType) {
    const TooMany original(std::uint64_t{2}, std::uint64_t{4});
    const IException& base = original;
    try {
        base.rethrow();
        FAIL() << "rethrow returned";
    } catch (const TooMany& again) {
        EXPECT_EQ(again.get_arguments(), original.get_arguments());
    }
    const boost::exception_detail::clone_base* copy = original.clone();
    EXPECT_NE(dynamic_cast<const TooMany*>(copy), nullptr);
    delete copy;
}
