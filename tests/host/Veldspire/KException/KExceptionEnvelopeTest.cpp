#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <cmddistributor/RuntimeException.hpp>
#include <matrix/Errors.hpp>

#include <gtest/gtest.h>

#include <stdexcept>

namespace KORVEX::parallel::future {
struct TooManyOutputsRequested {
    static constexpr const char* component = "KORVEX:parallel:future";
    static constexpr const char* key = "TooManyOutputsRequested";
};
} // namespace KORVEX::parallel::future

using namespace Veldspire::KException;
using cmddistributor::RuntimeException;
using foundation::core::except::Exception;
using foundation::core::except::MessageArguments;
using TooMany = Exception<KORVEX::parallel::future::TooManyOutputsRequested>;

namespace {

// A user error without a message identifier.
class PlainUserError : public foundation::core::except::IUserException {
public:
    const char* what() const noexcept override { return "plain"; }
    [[noreturn]] void rethrow() const override { throw *this; }
    std::u16string get_message() const override { return u"Something went wrong."; }
};

KExceptionEnvelope tooMany(std::uint64_t requested) {
    return KExceptionEnvelope(TooMany(std::uint64_t{1}, requested), nullptr);
}

} // namespace

TEST(KExceptionEnvelope, TakesIdentifiersArgumentsAndTextFromTheError) {
    const KExceptionEnvelope envelope = tooMany(3);
    EXPECT_EQ(envelope.GetID(), "KORVEX:parallel:future:TooManyOutputsRequested");
    EXPECT_EQ(envelope.GetArguments(), (MessageArguments{std::uint64_t{1}, std::uint64_t{3}}));
    EXPECT_EQ(envelope.GetMessage(), TooMany(std::uint64_t{1}, std::uint64_t{3}).get_message());
    EXPECT_EQ(dvGetNumberOfElements(envelope.GetStack()), 0u);

    const KExceptionEnvelope plain(PlainUserError(), nullptr);
    EXPECT_EQ(plain.GetID(), "KORVEX:unknown:UserError");
    EXPECT_EQ(plain.GetArguments(), MessageArguments{u"Something went wrong."});
    EXPECT_EQ(plain.GetMessage(), u"Something went wrong.");
}

TEST(KExceptionEnvelope, EqualityCoversCausesThroughCopiesAndErrorArrays) {
    KExceptionEnvelope a(Exception<KORVEX::maxlhs>(), nullptr);
    KExceptionEnvelope b = a;
    a.AddCause(tooMany(2));
    EXPECT_FALSE(a == b);
    b.AddCauses({tooMany(3)});
    EXPECT_FALSE(a == b); // causes differ in their arguments
    KExceptionEnvelope copy = a;
    copy.AddCause(tooMany(4));
    EXPECT_EQ(a.GetCauses().size(), 1u); // a copy owns its causes
    // Round trips through error arrays: OutputsOrErrorPropertyDvArrayTest.cpp.

    const auto number = dvCreateDoubleScalar(1.0);
    const auto twoErrors = matrix::createObjectArray({1, 2}, "KException");
    for (const dvArray* notAnError :
         {number.get(), twoErrors.get(), static_cast<dvArray*>(nullptr)}) {
        EXPECT_THROW(KExceptionEnvelope{notAnError}, std::invalid_argument);
    }
}

TEST(KExceptionEnvelope, CreateKExceptionUsesTheWorkErrorWhenItHasOne) {
    const KExceptionEnvelope envelope = tooMany(2);
    for (auto work : {std::make_exception_ptr(envelope),
                      std::make_exception_ptr(TooMany(std::uint64_t{1}, std::uint64_t{2}))}) {
        EXPECT_TRUE(CreateKException(RuntimeException(1, "failed", work)) == envelope);
    }
    for (auto work : {std::exception_ptr(), std::make_exception_ptr(std::runtime_error("x"))}) {
        const KExceptionEnvelope fallback =
            CreateKException(RuntimeException(2, "queue gone", work));
        EXPECT_EQ(fallback.GetID(), "KORVEX:cmddistributor:RuntimeError");
        EXPECT_EQ(fallback.GetArguments(), MessageArguments{u"queue gone"});
        EXPECT_EQ(fallback.GetMessage(), u"The command distributor reported an error: queue gone");
    }
}
