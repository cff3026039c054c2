#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/OutputsOrErrorPropertyDvArray.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <cmddistributor/RuntimeException.hpp>

#include <gtest/gtest.h>

#include <stdexcept>

namespace parallel::language::future {
namespace {

using Veldspire::KException::KExceptionEnvelope;

boost::intrusive_ptr<dvArray> scalar(double value) {
    return boost::intrusive_ptr<dvArray>(matrix::to_korvex(dvCreateDoubleScalar(value)), false);
}

OutputsOrError outputs(DvArrayVector values) {
    return OutputsOrError(std::optional<DvArrayVector>(std::move(values)));
}

// The envelope stored in the error object made from `error`.
KExceptionEnvelope convert(std::exception_ptr error) {
    OutputsOrErrorPropertyDvArray converted{OutputsOrError(std::move(error))};
    EXPECT_TRUE(converted.isError());
    EXPECT_EQ(converted.getIfOutputs(), nullptr);
    EXPECT_EQ(converted.getIfError(), converted.get());
    return KExceptionEnvelope(converted.get());
}

TEST(OutputsOrErrorPropertyDvArray, OutputsBecomeARowCellOfIndependentCopiesAndNothingYetNothing) {
    OutputsOrErrorPropertyDvArray nothingYet{OutputsOrError(std::optional<DvArrayVector>())};
    EXPECT_EQ(nothingYet.get(), nullptr);
    EXPECT_FALSE(nothingYet.isError());
    OutputsOrErrorPropertyDvArray none{outputs({})};
    ASSERT_NE(none.getIfOutputs(), nullptr);
    EXPECT_EQ(dvGetDimensions(none.get()), (matrix::Dimensions{0, 0}));

    const DvArrayVector values{scalar(1.0), scalar(2.0), scalar(3.0)};
    OutputsOrErrorPropertyDvArray three{outputs(values)};
    ASSERT_NE(three.getIfOutputs(), nullptr);
    EXPECT_FALSE(three.isError());
    EXPECT_EQ(dvGetClassID(three.get()), matrix::ClassID::Cell);
    EXPECT_EQ(dvGetDimensions(three.get()), (matrix::Dimensions{1, 3}));
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(dvIsEqual(dvGetCell(three.get(), i), values[i].get()));
    }
    dvGetMutableDoubles(values[0].get())[0] = 42.0;
    EXPECT_EQ(dvGetDoubles(dvGetCell(three.get(), 0))[0], 1.0);
}

TEST(OutputsOrErrorPropertyDvArray, ErrorsKeepTheirIdentity) {
    const KExceptionEnvelope typed = convert(std::make_exception_ptr(
        errors::TooManyOutputsRequested(std::uint64_t{1}, std::uint64_t{3})));
    EXPECT_EQ(typed.GetID(), "KORVEX:parallel:future:TooManyOutputsRequested");
    ASSERT_EQ(typed.GetArguments().size(), 2u);
    EXPECT_EQ(std::get<std::uint64_t>(typed.GetArguments()[1]), 3u);

    KExceptionEnvelope withCause(errors::ExecutionErrors(), nullptr);
    withCause.AddCause(KExceptionEnvelope(errors::NoUnreadFutures(), nullptr));
    EXPECT_EQ(convert(std::make_exception_ptr(withCause)), withCause);

    EXPECT_EQ(convert(std::make_exception_ptr(errors::ExecutionCancelled())).GetID(),
              "parallel:fevalqueue:ExecutionCancelled");
}

TEST(OutputsOrErrorPropertyDvArray, OtherExceptionsAreConvertedInOrder) {
    // A distributor error is a std::exception too, but is unwrapped first.
    const KExceptionEnvelope work(errors::WaitOnUnavailableFuture(), nullptr);
    EXPECT_EQ(convert(std::make_exception_ptr(cmddistributor::RuntimeException(
                  3, "work failed", std::make_exception_ptr(work)))),
              work);

    const KExceptionEnvelope standard =
        convert(std::make_exception_ptr(std::out_of_range("index 7 is out of range")));
    EXPECT_EQ(standard.GetID(), "KORVEX:parallel:future:StdException");
    ASSERT_EQ(standard.GetArguments().size(), 1u);
    EXPECT_EQ(std::get<std::u16string>(standard.GetArguments()[0]), u"index 7 is out of range");

    EXPECT_EQ(convert(std::make_exception_ptr(42)).GetID(),
              "KORVEX:parallel:future:UnknownGetErrors");
}

} // namespace
} // namespace parallel::language::future
