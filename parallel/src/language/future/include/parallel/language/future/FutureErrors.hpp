#pragma once

// The errors the library raises. Each is its own type,
// foundation::core::except::Exception<Tag>, caught as
// foundation::core::except::IUserException or std::exception. The tags live
// in namespaces named after the message component; the aliases in
// parallel::language::future::errors name the exception types:
//
//     throw errors::NoUnreadFutures();
//     throw errors::TooManyOutputsRequested(std::uint64_t{1}, std::uint64_t{2});

#include <parallel/language/future/Export.hpp>

#include <foundation/core/except/Exception.hpp>

// Keys of the component "KORVEX:parallel:future", except ExecutionCancelled,
// which has an error identifier of its own.
#define QZ_FUTURE_ERROR_KEYS(X)                                                                    \
    X(ContinuationOnEmpty)                                                                         \
    X(ContinuationOnPending)                                                                       \
    X(CreateFutureInvalidNumOutputs)                                                               \
    X(CreateFutureNegativeNumOutputArgs)                                                           \
    X(EvaluationClassesNotRegistered)                                                              \
    X(ExecutionErrors)                                                                             \
    X(FailedToInterpretState)                                                                      \
    X(FetchNextFutureErrored)                                                                      \
    X(FetchNextInvalidFuture)                                                                      \
    X(FetchNextTimeoutScalar)                                                                      \
    X(FetchNextUnsupportedFutureType)                                                              \
    X(FetchOutputsConcatenationFailed)                                                             \
    X(FetchOutputsMixFevalOnAllAfterEach)                                                          \
    X(FetchOutputsOnEmpty)                                                                         \
    X(FetchOutputsOnUnavailableFuture)                                                             \
    X(FetchOutputsScalarAfterEachFuture)                                                           \
    X(FetchOutputsScalarFevalOnAll)                                                                \
    X(FetchOutputsSyntax)                                                                          \
    X(FirstArgNotFunctionHandle)                                                                   \
    X(InvalidStateToWait)                                                                          \
    X(NoUnreadFutures)                                                                             \
    X(NonFutureElement)                                                                            \
    X(PrecedingExecutionErrors)                                                                    \
    X(PrecedingOutputsConcatenationFailed)                                                         \
    X(StdException)                                                                                \
    X(TimeOutInvalid)                                                                              \
    X(TooManyOutputsRequested)                                                                     \
    X(UnknownGetErrors)                                                                            \
    X(UnknownWaitErrors)                                                                           \
    X(WaitNestingLimit)                                                                            \
    X(WaitOnUnavailableFuture)                                                                     \
    X(WaitOnUnsubmittedFuture)

namespace KORVEX::parallel::future {
#define QZ_FUTURE_TAG(Key) QZHOST_ERROR_TAG("KORVEX:parallel:future", Key)
QZ_FUTURE_ERROR_KEYS(QZ_FUTURE_TAG)
#undef QZ_FUTURE_TAG
struct QZ_FUTURE_API ExecutionCancelled {
    static constexpr const char* component = "KORVEX:parallel:future";
    static constexpr const char* key = "ExecutionCancelled";
    static constexpr const char* error_id = "parallel:fevalqueue:ExecutionCancelled";
};
} // namespace KORVEX::parallel::future

namespace KORVEX::InputParser {
QZHOST_ERROR_TAG("KORVEX:InputParser", ParamMustBeChar)
QZHOST_ERROR_TAG("KORVEX:InputParser", ParamMissingValue)
QZHOST_ERROR_TAG("KORVEX:InputParser", UnmatchedParameter)
} // namespace KORVEX::InputParser

namespace KORVEX::validateattributes {
struct QZ_FUTURE_API invalidType {
    static constexpr const char* component = "KORVEX:validateattributes";
    static constexpr const char* key = "invalidType";
    static constexpr const char* error_id = "KORVEX:invalidType";
};
} // namespace KORVEX::validateattributes

namespace KORVEX::string {
QZHOST_ERROR_TAG("KORVEX:string", MustBeStringScalarOrCharacterVector)
QZHOST_ERROR_TAG("KORVEX:string", MissingNotSupported)
} // namespace KORVEX::string

namespace parallel::language::future::errors {
#define QZ_FUTURE_ALIAS(Key)                                                                       \
    using Key = foundation::core::except::Exception<::KORVEX::parallel::future::Key>;
QZ_FUTURE_ERROR_KEYS(QZ_FUTURE_ALIAS)
QZ_FUTURE_ALIAS(ExecutionCancelled)
#undef QZ_FUTURE_ALIAS
using ParamMustBeChar = foundation::core::except::Exception<::KORVEX::InputParser::ParamMustBeChar>;
using ParamMissingValue =
    foundation::core::except::Exception<::KORVEX::InputParser::ParamMissingValue>;
using UnmatchedParameter =
    foundation::core::except::Exception<::KORVEX::InputParser::UnmatchedParameter>;
using InvalidType = foundation::core::except::Exception<::KORVEX::validateattributes::invalidType>;
using MustBeStringScalarOrCharacterVector =
    foundation::core::except::Exception<::KORVEX::string::MustBeStringScalarOrCharacterVector>;
using MissingNotSupported =
    foundation::core::except::Exception<::KORVEX::string::MissingNotSupported>;
} // namespace parallel::language::future::errors

#undef QZ_FUTURE_ERROR_KEYS
