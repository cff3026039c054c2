#include <fl/i18n/MessageCatalog.hpp>

#include <foundation/core/str/Utf.hpp>

#include <charconv>
#include <string_view>
#include <type_traits>
#include <unordered_map>

namespace fl::i18n {

namespace {

using foundation::core::except::MessageArgument;
using foundation::core::except::MessageArguments;

// English texts by full identifier. Built once on first use, read-only after.
const std::unordered_map<std::string_view, std::u16string_view>& catalogue() {
    static const std::unordered_map<std::string_view, std::u16string_view> texts{
        // Futures.
        {"KORVEX:parallel:future:ContinuationOnEmpty",
         u"Cannot attach a continuation to an empty array of futures."},
        {"KORVEX:parallel:future:ContinuationOnPending",
         u"Cannot attach a continuation to an unavailable future."},
        {"KORVEX:parallel:future:CreateFutureInvalidNumOutputs",
         u"The number of outputs must be a whole number given as a double scalar."},
        {"KORVEX:parallel:future:CreateFutureNegativeNumOutputArgs",
         u"The number of outputs must not be negative."},
        {"KORVEX:parallel:future:ExecutionCancelled", u"Execution of the future was cancelled."},
        {"KORVEX:parallel:future:ExecutionErrors",
         u"One or more futures resulted in an error. See the causes for details."},
        {"KORVEX:parallel:future:EvaluationClassesNotRegistered",
         u"Cannot start an evaluation: no executor has registered the classes that start "
         u"evaluations. Call executor::registerLanguageClasses() once before the first "
         u"parallel.FevalFuture or parallel.FevalOnAllFuture."},
        {"KORVEX:parallel:future:FailedToInterpretState",
         u"Unable to interpret the state to wait for. Use \"running\" or \"finished\"."},
        {"KORVEX:parallel:future:FetchNextFutureErrored",
         u"The future returned by fetchNext finished with an error. See the cause for "
         u"details."},
        {"KORVEX:parallel:future:FetchNextInvalidFuture",
         u"fetchNext cannot be used with an invalid future."},
        {"KORVEX:parallel:future:FetchNextTimeoutScalar",
         u"The timeout for fetchNext must be a non-negative double scalar."},
        {"KORVEX:parallel:future:FetchNextUnsupportedFutureType",
         u"fetchNext is not supported for this type of future."},
        {"KORVEX:parallel:future:FetchOutputsConcatenationFailed",
         u"Unable to concatenate the outputs of the futures. Call fetchOutputs with "
         u"'UniformOutput' set to false to get the outputs in a cell array."},
        {"KORVEX:parallel:future:FetchOutputsMixFevalOnAllAfterEach",
         u"fetchOutputs cannot combine futures that run on all workers with afterEach futures. "
         u"Call fetchOutputs on each future separately."},
        {"KORVEX:parallel:future:FetchOutputsOnEmpty",
         u"fetchOutputs cannot be used with an empty array of futures."},
        {"KORVEX:parallel:future:FetchOutputsOnUnavailableFuture",
         u"Cannot fetch the outputs of an unavailable future."},
        {"KORVEX:parallel:future:FetchOutputsScalarAfterEachFuture",
         u"fetchOutputs accepts an afterEach future only on its own. Call fetchOutputs on each "
         u"future separately."},
        {"KORVEX:parallel:future:FetchOutputsScalarFevalOnAll",
         u"fetchOutputs accepts a future that runs on all workers only on its own. Call "
         u"fetchOutputs on each future separately."},
        {"KORVEX:parallel:future:FetchOutputsSyntax",
         u"Invalid arguments to fetchOutputs. The only option is 'UniformOutput' followed by "
         u"true or false."},
        {"KORVEX:parallel:future:FirstArgNotFunctionHandle",
         u"The continuation function must be a function handle."},
        {"KORVEX:parallel:future:InvalidStateToWait",
         u"Cannot wait for the state '{0}'. The states that can be waited for are: {1}."},
        {"KORVEX:parallel:future:NoUnreadFutures",
         u"There are no unread futures left to fetch. Every future has already been read."},
        {"KORVEX:parallel:future:NonFutureElement",
         u"An element of the future array is an object of class '{0}', which is not a future."},
        {"KORVEX:parallel:future:PrecedingExecutionErrors",
         u"The continuation did not run because the preceding futures with IDs {0} resulted in "
         u"errors. See the causes for details."},
        {"KORVEX:parallel:future:PrecedingOutputsConcatenationFailed",
         u"Unable to concatenate the outputs of the preceding futures into the inputs of the "
         u"continuation."},
        {"KORVEX:parallel:future:StdException", u"An error occurred: {0}"},
        {"KORVEX:parallel:future:TimeOutInvalid",
         u"The timeout must be a non-negative double scalar."},
        {"KORVEX:parallel:future:TooManyOutputsRequested",
         u"Too many outputs requested: the futures have {0} outputs, but {1} were requested."},
        {"KORVEX:parallel:future:UnknownGetErrors",
         u"The future resulted in an error of an unknown kind."},
        {"KORVEX:parallel:future:UnknownWaitErrors",
         u"An unknown error occurred while waiting for the future."},
        {"KORVEX:parallel:future:WaitNestingLimit",
         u"Waits are nested {0} deep in queued work, the limit: this wait cannot run the queued "
         u"work that its futures need to finish. Wait for them outside the continuation."},
        {"KORVEX:parallel:future:WaitOnUnavailableFuture",
         u"Cannot wait on an unavailable future."},
        {"KORVEX:parallel:future:WaitOnUnsubmittedFuture",
         u"Cannot wait on a future that has not been submitted."},
        // Argument parsing and validation.
        {"KORVEX:InputParser:ParamMustBeChar",
         u"Parameter names must be character vectors or string scalars."},
        {"KORVEX:InputParser:ParamMissingValue",
         u"The parameter '{0}' must be followed by a value."},
        {"KORVEX:InputParser:UnmatchedParameter", u"'{0}' is not a recognised parameter. {1}"},
        {"KORVEX:InputParser:ValidParameters", u"For a list of valid names, see the help of {0}."},
        {"KORVEX:InputParser:THIS_FUNCTION_LITERAL", u"this function"},
        {"KORVEX:validateattributes:invalidType",
         u"The value of '{0}' must be of type {1}, but it is of type {2}."},
        {"KORVEX:string:MustBeStringScalarOrCharacterVector",
         u"The input must be a string scalar or a character vector."},
        {"KORVEX:string:MissingNotSupported", u"A missing string is not supported here."},
        // The host's own.
        {"KORVEX:maxlhs", u"Too many output arguments."},
        {"KORVEX:maxrhs", u"Too many input arguments."},
        {"KORVEX:minrhs", u"Not enough input arguments."},
        {"KORVEX:badsubscript",
         u"Index must be a non-negative whole number and not larger than the array allows."},
        {"KORVEX:interrupted", u"Operation terminated by user."},
        {"KORVEX:catenate:dimensionMismatch",
         u"Dimensions of arrays being concatenated are not consistent: arrays stacked "
         u"vertically must be 2-D and have the same number of columns."},
        {"KORVEX:catenate:classMismatch",
         u"Arrays of these classes cannot be concatenated. Numbers combine with logical values; "
         u"character arrays and cell arrays combine only with arrays of their own class."},
        {"KORVEX:cmddistributor:RuntimeError", u"The command distributor reported an error: {0}"},
        {"KORVEX:unknown:UserError", u"{0}"},
        {"KORVEX:UndefinedFunction", u"Undefined function '{0}'."},
        // Every executor.
        {"KORVEX:executor:InvalidFunction", u"The function to evaluate must be a function handle."},
        {"KORVEX:executor:PoolShutDown", u"The pool is shutting down and takes no more work."},
        {"KORVEX:executor:PinnedTaskCount",
         u"One task per worker is pinned to the workers: {0} tasks for {1} workers."},
        // The local pool's language classes.
        {"KORVEX:executor:NoPool", u"No pool is open to run the evaluation on."},
        {"KORVEX:executor:InvalidNumOutputs",
         u"The number of outputs must be a whole, non-negative double scalar."},
        {"KORVEX:executor:InvalidArgument", u"Invalid argument to the pool's queue."},
        // The cluster pool.
        {"KORVEX:mpipool:UnregisteredFunction",
         u"The function '{0}' is not registered for the cluster. Register it with "
         u"mpipool::registerFunction, the same way on every process."},
        {"KORVEX:mpipool:DuplicateFunction", u"A function named '{0}' is registered already."},
        {"KORVEX:mpipool:UnsupportedArray",
         u"Arrays of class '{0}' cannot be sent to another process. Send double, logical, char, "
         u"cell or struct arrays, or handles of registered functions."},
        {"KORVEX:mpipool:InvalidNumWorkers",
         u"A cluster pool needs between 1 and {1} workers; {0} were asked for."},
        {"KORVEX:mpipool:NoWorkers",
         u"The cluster has no worker processes. Start the program with mpirun -n 2 or more."},
        {"KORVEX:mpipool:PoolAlreadyOpen",
         u"A cluster pool is open already. Shut it down before opening another."},
        {"KORVEX:mpipool:NotClient",
         u"Only the client process (rank 0) opens cluster pools; worker processes serve."},
        {"KORVEX:mpipool:ClusterExists", u"The cluster is started once per process."},
        {"KORVEX:mpipool:ServeOnClient",
         u"The client process (rank 0) opens cluster pools; only worker processes serve."},
        {"KORVEX:mpipool:UnreadableMessage",
         u"A message from another process of the cluster could not be read: {0}"},
        {"KORVEX:mpipool:WorkerLost",
         u"The worker process of rank {0} is gone; the work that ran there is lost."},
        {"KORVEX:mpipool:NoWorkersLeft",
         u"Every worker process of the cluster pool is gone; it cannot run any more work."},
        {"KORVEX:mpipool:ClusterEnded",
         u"The cluster of this process has ended; MPI cannot start again in one process."},
        {"KORVEX:mpipool:CausesTooDeep",
         u"The error cannot be sent to another process of the cluster: its causes nest more "
         u"than {0} deep."},
        // The class-object system.
        {"KORVEX:kcos:UndefinedClass", u"Unable to find the class '{0}'."},
        {"KORVEX:kcos:NoSuchProperty", u"Unrecognised property '{0}' of class '{1}'."},
        {"KORVEX:kcos:GetProhibited", u"You cannot read the property '{0}' of class '{1}'."},
        {"KORVEX:kcos:SetProhibited",
         u"You cannot set the read-only property '{0}' of class '{1}'."},
        {"KORVEX:kcos:NoSuchMethod", u"Unrecognised method '{0}' of class '{1}'."},
        {"KORVEX:kcos:MethodProhibited", u"You cannot call the method '{0}' of class '{1}'."},
        {"KORVEX:kcos:InvalidHandle", u"Invalid or deleted object."},
        {"KORVEX:kcos:ScalarObjectRequired",
         u"Properties can be read and set on a single object only."},
        {"KORVEX:kcos:InvalidInputType", u"Input {1} of the method '{0}' must be of type '{2}'."},
        // Host classes (datetime, duration, displayer, queues).
        {"KORVEX:datetime:InvalidInput",
         u"Invalid datetime arguments. Use datetime(X, 'ConvertFrom', 'epochtime', "
         u"'TicksPerSecond', T, 'TimeZone', Z) or subsasgn of '.TimeZone'."},
        {"KORVEX:duration:InvalidInput",
         u"Invalid duration arguments. Use duration(hours, minutes, seconds) with double "
         u"scalars."},
        {"KORVEX:FutureDisplayer:InvalidInput",
         u"Invalid arguments to the future displayer: give the class name, then an array of "
         u"futures."},
    };
    return texts;
}

template <class Number>
std::u16string formatNumber(Number value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::u16string(buffer, result.ptr); // digits are ASCII
}

std::u16string format(const MessageArgument& argument) {
    return std::visit(
        [](const auto& value) -> std::u16string {
            if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::u16string>) {
                return value;
            } else {
                return formatNumber(value);
            }
        },
        argument);
}

// Replaces each "{n}" whose n names an argument; other braces stay as written.
std::u16string fillIn(std::u16string_view text, const MessageArguments& arguments) {
    std::u16string out;
    std::size_t pos = 0;
    while (pos < text.size()) {
        const std::size_t open = text.find(u'{', pos);
        if (open == std::u16string_view::npos) {
            break;
        }
        std::size_t index = 0;
        std::size_t end = open + 1;
        while (end < text.size() && text[end] >= u'0' && text[end] <= u'9' && end - open < 6) {
            index = index * 10 + static_cast<std::size_t>(text[end] - u'0');
            ++end;
        }
        const bool placeholder =
            end > open + 1 && end < text.size() && text[end] == u'}' && index < arguments.size();
        out.append(text.substr(pos, open - pos));
        if (placeholder) {
            out += format(arguments[index]);
            pos = end + 1;
        } else {
            out += u'{';
            pos = open + 1;
        }
    }
    out.append(text.substr(std::min(pos, text.size())));
    return out;
}

} // namespace

QzLocale::QzLocale() : name_("en_US") {}

const QzLocale& QzLocale::global() {
    static const QzLocale locale;
    return locale;
}

const std::string& QzLocale::name() const noexcept {
    return name_;
}

std::u16string MessageCatalog::get_message(const foundation::core::except::MessageID& id,
                                           const MessageArguments& arguments, const QzLocale&) {
    const std::string key = id.str();
    const auto& texts = catalogue();
    if (const auto it = texts.find(key); it != texts.end()) {
        return fillIn(it->second, arguments);
    }
    std::u16string out = foundation::core::str::toUtf16(key);
    for (const auto& argument : arguments) {
        out += u' ';
        out += format(argument);
    }
    return out;
}

bool MessageCatalog::has_message(const foundation::core::except::MessageID& id) {
    return catalogue().contains(id.str());
}

} // namespace fl::i18n
