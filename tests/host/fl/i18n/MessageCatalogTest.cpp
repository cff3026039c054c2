#include <fl/i18n/MessageCatalog.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>

using fl::i18n::MessageCatalog;
using fl::i18n::QzLocale;
using foundation::core::except::MessageArguments;
using foundation::core::except::MessageID;

namespace {

MessageID future(const char* key) {
    return {"KORVEX:parallel:future", key};
}

MessageID split(const std::string& id) {
    const auto colon = id.rfind(':');
    return {id.substr(0, colon), id.substr(colon + 1)};
}

} // namespace

TEST(MessageCatalog, EveryIdentifierHasATextWithOnePlaceholderPerArgument) {
    const std::pair<std::string, int> identifiers[] = {
        {"KORVEX:parallel:future:ContinuationOnEmpty", 0},
        {"KORVEX:parallel:future:ContinuationOnPending", 0},
        {"KORVEX:parallel:future:CreateFutureInvalidNumOutputs", 0},
        {"KORVEX:parallel:future:CreateFutureNegativeNumOutputArgs", 0},
        {"KORVEX:parallel:future:ExecutionCancelled", 0},
        {"KORVEX:parallel:future:ExecutionErrors", 0},
        {"KORVEX:parallel:future:FailedToInterpretState", 0},
        {"KORVEX:parallel:future:FetchNextFutureErrored", 0},
        {"KORVEX:parallel:future:FetchNextInvalidFuture", 0},
        {"KORVEX:parallel:future:FetchNextTimeoutScalar", 0},
        {"KORVEX:parallel:future:FetchNextUnsupportedFutureType", 0},
        {"KORVEX:parallel:future:FetchOutputsConcatenationFailed", 0},
        {"KORVEX:parallel:future:FetchOutputsMixFevalOnAllAfterEach", 0},
        {"KORVEX:parallel:future:FetchOutputsOnEmpty", 0},
        {"KORVEX:parallel:future:FetchOutputsOnUnavailableFuture", 0},
        {"KORVEX:parallel:future:FetchOutputsScalarAfterEachFuture", 0},
        {"KORVEX:parallel:future:FetchOutputsScalarFevalOnAll", 0},
        {"KORVEX:parallel:future:FetchOutputsSyntax", 0},
        {"KORVEX:parallel:future:FirstArgNotFunctionHandle", 0},
        {"KORVEX:parallel:future:InvalidStateToWait", 2},
        {"KORVEX:parallel:future:NoUnreadFutures", 0},
        {"KORVEX:parallel:future:PrecedingExecutionErrors", 1},
        {"KORVEX:parallel:future:PrecedingOutputsConcatenationFailed", 0},
        {"KORVEX:parallel:future:StdException", 1},
        {"KORVEX:parallel:future:TimeOutInvalid", 0},
        {"KORVEX:parallel:future:TooManyOutputsRequested", 2},
        {"KORVEX:parallel:future:UnknownGetErrors", 0},
        {"KORVEX:parallel:future:UnknownWaitErrors", 0},
        {"KORVEX:parallel:future:WaitOnUnavailableFuture", 0},
        {"KORVEX:parallel:future:WaitOnUnsubmittedFuture", 0},
        {"KORVEX:InputParser:ParamMustBeChar", 0},
        {"KORVEX:InputParser:ParamMissingValue", 1},
        {"KORVEX:InputParser:UnmatchedParameter", 2},
        {"KORVEX:InputParser:ValidParameters", 1},
        {"KORVEX:InputParser:THIS_FUNCTION_LITERAL", 0},
        {"KORVEX:validateattributes:invalidType", 3},
        {"KORVEX:string:MustBeStringScalarOrCharacterVector", 0},
        {"KORVEX:string:MissingNotSupported", 0},
        {"KORVEX:maxlhs", 0},
        {"KORVEX:maxrhs", 0},
        {"KORVEX:minrhs", 0},
        {"KORVEX:badsubscript", 0},
        {"KORVEX:cmddistributor:RuntimeError", 1},
        {"KORVEX:unknown:UserError", 1},
    };
    for (const auto& [id, count] : identifiers) {
        SCOPED_TRACE(id);
        ASSERT_TRUE(MessageCatalog::has_message(split(id)));
        const std::u16string text = MessageCatalog::get_message(split(id));
        EXPECT_FALSE(text.empty());
        for (int i = 0; i <= count; ++i) {
            // Built piecewise: GCC 12 warns falsely (-Wrestrict) on "{" + std::string.
            std::string placeholder = "{";
            placeholder += std::to_string(i);
            placeholder += '}';
            const std::u16string wide(placeholder.begin(), placeholder.end());
            EXPECT_EQ(text.find(wide) != std::u16string::npos, i < count) << placeholder;
        }
    }
}

TEST(MessageCatalog, FormatsEachArgumentKind) {
    EXPECT_EQ(MessageCatalog::get_message({"KORVEX", "maxlhs"}), u"Too many output arguments.");
    EXPECT_EQ(MessageCatalog::get_message({"KORVEX:unknown", "UserError"}, {std::int64_t{-42}}),
              u"-42");
    EXPECT_EQ(MessageCatalog::get_message({"KORVEX:unknown", "UserError"},
                                          {std::uint64_t{18446744073709551615ull}}),
              u"18446744073709551615");
    const std::pair<double, std::u16string> doubles[] = {
        {1.0, u"1"}, {0.1, u"0.1"}, {-2.5, u"-2.5"}, {1.0 / 3.0, u"0.3333333333333333"}};
    for (const auto& [value, expected] : doubles) {
        EXPECT_EQ(MessageCatalog::get_message({"KORVEX:unknown", "UserError"}, {value}), expected);
    }
    EXPECT_EQ(MessageCatalog::get_message({"KORVEX:unknown", "UserError"}, {u"\u00e9t\u00e9"}),
              u"\u00e9t\u00e9");
}

TEST(MessageCatalog, FillsPlaceholdersInOrderAndLeavesOtherBracesAlone) {
    const std::u16string text = MessageCatalog::get_message(future("TooManyOutputsRequested"),
                                                            {std::uint64_t{2}, std::uint64_t{5}});
    EXPECT_NE(text.find(u"2"), std::u16string::npos);
    EXPECT_LT(text.find(u"2"), text.find(u"5"));
    // An argument whose own text looks like a placeholder is not expanded again.
    EXPECT_EQ(MessageCatalog::get_message({"KORVEX:unknown", "UserError"}, {u"{0} {1}"}),
              u"{0} {1}");
    // Missing arguments leave their placeholders visible.
    EXPECT_NE(MessageCatalog::get_message(future("InvalidStateToWait"), {u"failed"}).find(u"{1}"),
              std::u16string::npos);
}

TEST(MessageCatalog, UnknownIdentifierGivesItselfFollowedByTheArguments) {
    const MessageID id{"KORVEX:nowhere", "Missing"};
    EXPECT_FALSE(MessageCatalog::has_message(id));
    EXPECT_EQ(MessageCatalog::get_message(id), u"KORVEX:nowhere:Missing");
    EXPECT_EQ(MessageCatalog::get_message(id, {std::int64_t{7}, u"x", 0.5}),
              u"KORVEX:nowhere:Missing 7 x 0.5");
}

TEST(MessageCatalog, GlobalLocaleIsAmericanEnglish) {
    EXPECT_EQ(QzLocale::global().name(), "en_US");
    EXPECT_EQ(&QzLocale::global(), &QzLocale::global());
}
