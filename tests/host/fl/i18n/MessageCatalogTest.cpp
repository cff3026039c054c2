#include <fl/i18n/MessageCatalog.hpp>

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

using fl::i18n::MessageCatalog;
using foundation::core::except::MessageArgument;
using foundation::core::except::MessageID;

namespace {

MessageID split(const std::string& id) {
    const auto colon = id.rfind(':');
    return {id.substr(0, colon), id.substr(colon + 1)};
}

} // namespace

TEST(MessageCatalog, EveryIdentifierHasATextWithOnePlaceholderPerArgument) {
    // Identifiers by number of arguments; those without a ':' are of "KORVEX:parallel:future".
    const std::pair<int, std::string> groups[] = {
        {0,
         "ContinuationOnEmpty ContinuationOnPending CreateFutureInvalidNumOutputs "
         "EvaluationClassesNotRegistered "
         "CreateFutureNegativeNumOutputArgs ExecutionCancelled ExecutionErrors "
         "FailedToInterpretState FetchNextFutureErrored FetchNextInvalidFuture "
         "FetchNextTimeoutScalar FetchNextUnsupportedFutureType FetchOutputsConcatenationFailed "
         "FetchOutputsMixFevalOnAllAfterEach FetchOutputsOnEmpty FetchOutputsOnUnavailableFuture "
         "FetchOutputsScalarAfterEachFuture FetchOutputsScalarFevalOnAll FetchOutputsSyntax "
         "FirstArgNotFunctionHandle NoUnreadFutures PrecedingOutputsConcatenationFailed "
         "TimeOutInvalid UnknownGetErrors UnknownWaitErrors WaitOnUnavailableFuture "
         "WaitOnUnsubmittedFuture KORVEX:InputParser:ParamMustBeChar "
         "KORVEX:InputParser:THIS_FUNCTION_LITERAL "
         "KORVEX:string:MustBeStringScalarOrCharacterVector KORVEX:string:MissingNotSupported "
         "KORVEX:maxlhs KORVEX:maxrhs KORVEX:minrhs KORVEX:badsubscript KORVEX:interrupted "
         "KORVEX:catenate:dimensionMismatch KORVEX:catenate:classMismatch"},
        {1, "NonFutureElement PrecedingExecutionErrors StdException WaitNestingLimit "
            "KORVEX:InputParser:ParamMissingValue "
            "KORVEX:InputParser:ValidParameters KORVEX:cmddistributor:RuntimeError "
            "KORVEX:unknown:UserError"},
        {2, "InvalidStateToWait TooManyOutputsRequested KORVEX:InputParser:UnmatchedParameter"},
        {3, "KORVEX:validateattributes:invalidType"},
    };
    for (const auto& [count, identifiers] : groups) {
        std::istringstream words(identifiers);
        for (std::string id; words >> id;) {
            SCOPED_TRACE(id);
            const MessageID full =
                split(id.find(':') == std::string::npos ? "KORVEX:parallel:future:" + id : id);
            ASSERT_TRUE(MessageCatalog::has_message(full));
            const std::u16string text = MessageCatalog::get_message(full);
            for (int i = 0; i <= count; ++i) {
                const std::u16string placeholder{u'{', static_cast<char16_t>(u'0' + i), u'}'};
                EXPECT_EQ(text.find(placeholder) != std::u16string::npos, i < count) << i;
            }
        }
    }
}

TEST(MessageCatalog, FormatsArgumentsIntoPlaceholdersOrAfterAnUnknownIdentifier) {
    const std::pair<MessageArgument, std::u16string> arguments[] = {
        {std::int64_t{-42}, u"-42"},
        {std::uint64_t{18446744073709551615ull}, u"18446744073709551615"},
        {1.0, u"1"},
        {1.0 / 3.0, u"0.3333333333333333"},
        {u"\u00e9t\u00e9", u"\u00e9t\u00e9"},
        {u"{0} {1}", u"{0} {1}"}, // an argument's own braces are not expanded again
    };
    for (const auto& [argument, expected] : arguments) {
        EXPECT_EQ(MessageCatalog::get_message({"KORVEX:unknown", "UserError"}, {argument}),
                  expected);
    }
    // Missing arguments leave their placeholders visible.
    EXPECT_NE(
        MessageCatalog::get_message({"KORVEX:parallel:future", "InvalidStateToWait"}, {u"failed"})
            .find(u"{1}"),
        std::u16string::npos);
    // An identifier the catalogue lacks gives itself followed by the arguments.
    const MessageID id{"KORVEX:nowhere", "Missing"};
    EXPECT_FALSE(MessageCatalog::has_message(id));
    EXPECT_EQ(MessageCatalog::get_message(id), u"KORVEX:nowhere:Missing");
    EXPECT_EQ(MessageCatalog::get_message(id, {std::int64_t{7}, u"x", 0.5}),
              u"KORVEX:nowhere:Missing 7 x 0.5");
}
