#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <cmddistributor/RuntimeException.hpp>
#include <kcos/array.hpp>

#include <gtest/gtest.h>

#include <stdexcept>

namespace KORVEX::parallel::future {
struct TooManyOutputsRequested {
    static constexpr const char* component = "KORVEX:parallel:future";
    static constexpr const char* key = "TooManyOutputsRequested";
};
struct ExecutionErrors {
    static constexpr const char* component = "KORVEX:parallel:future";
    static constexpr const char* key = "ExecutionErrors";
};
} // namespace KORVEX::parallel::future

using namespace Veldspire::KException;
using foundation::core::except::Exception;
using foundation::core::except::MessageArguments;
using TooMany = Exception<KORVEX::parallel::future::TooManyOutputsRequested>;
using ExecutionErrors = Exception<KORVEX::parallel::future::ExecutionErrors>;

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

TEST(KExceptionEnvelope, TakesIdentifiersArgumentsAndTextFromATypedException) {
    const KExceptionEnvelope envelope = tooMany(3);
    EXPECT_EQ(envelope.GetID(), "KORVEX:parallel:future:TooManyOutputsRequested");
    EXPECT_EQ(envelope.GetMessageID().key, "TooManyOutputsRequested");
    EXPECT_EQ(envelope.GetArguments(), (MessageArguments{std::uint64_t{1}, std::uint64_t{3}}));
    EXPECT_EQ(envelope.GetMessage(), TooMany(std::uint64_t{1}, std::uint64_t{3}).get_message());
    EXPECT_STREQ(envelope.what(), TooMany(std::uint64_t{1}, std::uint64_t{3}).what());
    ASSERT_NE(envelope.GetStack(), nullptr);
    EXPECT_EQ(dvGetNumberOfElements(envelope.GetStack()), 0u);
    EXPECT_FALSE(envelope.GetFillStackOnThrow());
}

TEST(KExceptionEnvelope, UserErrorWithoutIdentifierBecomesUnknownUserError) {
    const KExceptionEnvelope envelope(PlainUserError(), nullptr, true);
    EXPECT_EQ(envelope.GetID(), "KORVEX:unknown:UserError");
    EXPECT_EQ(envelope.GetArguments(), MessageArguments{u"Something went wrong."});
    EXPECT_EQ(envelope.GetMessage(), u"Something went wrong.");
    EXPECT_TRUE(envelope.GetFillStackOnThrow());
}

TEST(KExceptionEnvelope, ComparesCausesRecursivelyAndCopiesThem) {
    KExceptionEnvelope a(ExecutionErrors(), nullptr);
    KExceptionEnvelope b(ExecutionErrors(), nullptr);
    a.AddCause(tooMany(2));
    EXPECT_FALSE(a == b);
    b.AddCauses({tooMany(3)});
    EXPECT_FALSE(a == b); // causes differ in their arguments
    KExceptionEnvelope copy = a;
    EXPECT_TRUE(copy == a);
    copy.AddCause(tooMany(4));
    EXPECT_EQ(a.GetCauses().size(), 1u); // deep copy
    EXPECT_FALSE(copy == a);
}

TEST(KExceptionEnvelope, RoundTripsThroughAnErrorObjectArray) {
    KExceptionEnvelope original(ExecutionErrors(), nullptr);
    original.AddCause(tooMany(2));
    const auto object = original.GetExceptionObject();
    EXPECT_EQ(object->className(), "KException");
    const matrix::unique_dvArray array = kcos::array::create(object);
    const KExceptionEnvelope back(array.get());
    EXPECT_TRUE(back == original);
    EXPECT_EQ(back.GetCauses().at(0).GetArguments(), original.GetCauses().at(0).GetArguments());
}

TEST(KExceptionEnvelope, RefusesArraysThatAreNotErrorObjects) {
    const auto number = dvCreateDoubleScalar(1.0);
    const auto twoErrors = matrix::createObjectArray({1, 2}, "KException");
    const std::initializer_list<const dvArray*> arrays{nullptr, number.get(), twoErrors.get()};
    for (const dvArray* array : arrays) {
        try {
            KExceptionEnvelope envelope(array);
            ADD_FAILURE() << "accepted a non-error array";
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(), "Array is not an error object.");
        }
    }
}

TEST(KExceptionEnvelope, CreateKExceptionUsesTheWorkErrorWhenItHasOne) {
    using cmddistributor::RuntimeException;
    const KExceptionEnvelope envelope = tooMany(2);
    EXPECT_TRUE(CreateKException(
                    RuntimeException(1, "failed", std::make_exception_ptr(envelope))) == envelope);
    EXPECT_TRUE(
        CreateKException(RuntimeException(
            1, "failed", std::make_exception_ptr(TooMany(std::uint64_t{1}, std::uint64_t{2})))) ==
        envelope);

    for (auto work : {std::exception_ptr(), std::make_exception_ptr(std::runtime_error("x"))}) {
        const KExceptionEnvelope fallback =
            CreateKException(RuntimeException(2, "queue gone", work));
        EXPECT_EQ(fallback.GetID(), "KORVEX:cmddistributor:RuntimeError");
        EXPECT_EQ(fallback.GetArguments(), MessageArguments{u"queue gone"});
        EXPECT_EQ(fallback.GetMessage(), u"The command distributor reported an error: queue gone");
    }
}
