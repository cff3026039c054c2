// qz-test-label: concurrency
// The methods of "parallel.Future" called as the language calls them: the
// object array first, the number of outputs the caller asks for, and the
// errors the language sees for bad arguments.
#include "support/ContinuationSupport.hpp"

#include <Veldspire/String/String.hpp>
#include <parallel/language/future/FutureErrors.hpp>

#include <cmath>
#include <latch>
#include <limits>
#include <thread>
#include <tuple>

namespace parallel::language::future {
namespace {

using namespace testing;
using foundation::core::except::IMsgIDException;
using foundation::core::except::MessageArguments;
using Array = boost::intrusive_ptr<dvArray>;
using Inputs = std::vector<const dvArray*>;

const std::string kFuture = "KORVEX:parallel:future:";

// What a call raised, as the language sees it.
struct Raised {
    std::string id = "(nothing raised)";
    MessageArguments arguments;
    std::vector<std::string> causes;
};

template <class Run>
Raised raisedBy(Run&& run) {
    try {
        run();
    } catch (const IMsgIDException& error) {
        return {error.get_error_id(), error.get_arguments(), {}};
    } catch (const KExceptionEnvelope& error) {
        Raised result{error.GetID(), error.GetArguments(), {}};
        for (const auto& cause : error.GetCauses()) {
            result.causes.push_back(cause.GetID());
        }
        return result;
    }
    return {};
}

Raised raised(const char* method, int numOutputs, Inputs inputs) {
    return raisedBy([&] { call(method, numOutputs, std::move(inputs)); });
}

template <class... Words>
MessageArguments texts(Words... words) {
    return {std::u16string(words)...};
}

bool truth(const matrix::unique_dvArray& answer) {
    EXPECT_TRUE(dvIsLogicalScalar(answer.get()));
    return dvGetLogicals(answer.get())[0] != 0;
}

std::vector<double> doublesOf(const matrix::unique_dvArray& array) {
    const auto values = dvGetDoubles(array.get());
    return {values.begin(), values.end()};
}

class FutureMethods : public LanguageTest {
protected:
    const Array yes = own(dvCreateLogicalScalar(true));
    const Array no = own(dvCreateLogicalScalar(false));
    const Array one = scalar(1), zero = scalar(0), generous = scalar(60),
                finished = text("finished");
    const Array nothing = own(objects({}));
    const Array unavailable = own(construct("parallel.Future"));
    const std::shared_ptr<FutureBase> done = TestFuture().finishedWith({scalar(1)}).future;
    const Array f = own(objects({done})); // the finished future `done`
};

// Which future fetchNext answers with, or which error, is checked against a
// plain walk in FetchNextDrainTest.cpp; this checks what it hands back.
TEST_F(FutureMethods, FetchNextGivesTheIndexAndOutputsOrEmptiesAndRefusesBadArguments) {
    TestFuture first, second, failed, next;
    first.running();
    second.finishedWith({scalar(7)});
    failed.failedWith(std::make_exception_ptr(KExceptionEnvelope("user:oops", u"Broke.")));
    next.finishedWith({scalar(2)});
    const auto both = objects({first.future, second.future});
    const auto fetched = call("fetchNext", 2, {both.get()});
    ASSERT_EQ(fetched.size(), 2u);
    EXPECT_EQ(valueOf(fetched[0].get()), 2.0);
    EXPECT_EQ(valueOf(fetched[1].get()), 7.0);
    const auto timedOut = call("fetchNext", 2, {both.get(), zero.get()});
    ASSERT_EQ(timedOut.size(), 2u);
    EXPECT_TRUE(isEmptyOfClass(timedOut[0].get(), "double") &&
                isEmptyOfClass(timedOut[1].get(), "double"));
    first.task->doNotifyFinished();
    const auto infinity = scalar(std::numeric_limits<double>::infinity());
    EXPECT_EQ(call("fetchNext", 0, {both.get(), infinity.get()}).size(), 1u) << "the index only";

    const Array wide = own(matrix::detail::do_create_numeric({1, 2}, matrix::ClassID::Double));
    for (const Array& timeout : {scalar(-1), scalar(std::nan("")), text("1"), wide}) {
        EXPECT_EQ(raised("fetchNext", 1, {both.get(), timeout.get()}).id,
                  kFuture + "FetchNextTimeoutScalar");
    }
    EXPECT_EQ(raised("fetchNext", 1, {both.get(), one.get(), one.get()}).id, "KORVEX:maxrhs");
    EXPECT_EQ(raised("fetchNext", 1, {nothing.get()}).id, kFuture + "NoUnreadFutures");
    // A failed future raises once, then the next one is fetched.
    const auto failedFirst = objects({failed.future, next.future});
    const Raised errored = raised("fetchNext", 2, {failedFirst.get()});
    EXPECT_EQ(errored.id, kFuture + "FetchNextFutureErrored");
    EXPECT_EQ(errored.causes, std::vector<std::string>{"user:oops"});
    EXPECT_EQ(valueOf(call("fetchNext", 1, {failedFirst.get()}).at(0).get()), 2.0);
}

TEST_F(FutureMethods, FetchNextAndWaitEndOnAUserInterruptAndTakeIt) {
    TestFuture never;
    never.running();
    const auto futures = objects({never.future});
    const auto nothingYet = [&] {
        const auto answer = call("fetchNext", 1, {futures.get(), zero.get()});
        return isEmptyOfClass(answer.at(0).get(), "double");
    };
    EXPECT_TRUE(nothingYet()); // so that the interrupted fetchNext is a drain's later call
    for (const Inputs& inputs : {Inputs{futures.get(), generous.get()},
                                 Inputs{futures.get(), finished.get(), generous.get()}}) {
        const char* method = inputs.size() == 2 ? "fetchNext" : "wait";
        // Requested before the call, then from another thread once it waits:
        // the queued work it runs while waiting lets that thread go. Ignored,
        // the interrupt would leave the call to time out, raising nothing.
        std::thread([&] { interpreter->requestInterrupt(); }).join();
        EXPECT_EQ(raised(method, 1, inputs).id, "KORVEX:interrupted") << method;
        std::latch waiting(1);
        std::jthread interrupter([&] {
            waiting.wait();
            interpreter->requestInterrupt();
        });
        interpreter->getIqm()->postDetached(u"parallel", [&] { waiting.count_down(); });
        EXPECT_EQ(raised(method, 1, inputs).id, "KORVEX:interrupted") << method;
        EXPECT_FALSE(interpreter->consumeInterrupt())
            << method; // taken, not left for the next call
    }
    EXPECT_TRUE(nothingYet());
    never.task->doNotifyFinished();
}

TEST_F(FutureMethods, CallsWithoutTheFuturesAndConstructorCallsRaiseHostErrors) {
    const auto* client = COSGetPublicClient();
    for (const char* className : {"parallel.Future", "parallel.AfterAllFuture"}) {
        for (const char* method : {"afterAll", "afterEach", "cancel", "class", "disp", "fetchNext",
                                   "fetchOutputs", "isa", "isequal", "submit", "wait"}) {
            EXPECT_EQ(raisedBy([&] {
                          omCallMethod(interned(className), interned(method), client, 0, nullptr, 0,
                                       nullptr, true);
                      }).id,
                      "KORVEX:minrhs")
                << className << "." << method;
        }
        dvArray* result = nullptr;
        dvArray* const inputs[] = {f.get()};
        for (bool isStatic : {true, false}) {
            EXPECT_EQ(raisedBy([&] {
                          omCallMethod(interned(className), interned("Future"), client, 1, &result,
                                       1, inputs, isStatic);
                      }).id,
                      "KORVEX:kcos:MethodProhibited");
        }
    }
    EXPECT_EQ(raised("Future", 1, {f.get()}).id, "KORVEX:kcos:MethodProhibited");
}

TEST_F(FutureMethods, FetchOutputsTakesAnyPrefixOfItsOptionAndRefusesEverythingElse) {
    TestFuture a, b, none(0);
    a.finishedWith({scalar(1)});
    b.running().task->result = OutputsOrError(std::optional<DvArrayVector>({scalar(2)}));
    none.finishedWith({});
    const auto both = objects({a.future, b.future});
    // Queued work, run only while fetchOutputs waits.
    interpreter->getIqm()->postDetached(u"parallel", [&] { b.task->doNotifyFinished(); });

    const auto joined = call("fetchOutputs", 1, {both.get()});
    EXPECT_EQ(doublesOf(joined.at(0)), (std::vector<double>{1, 2}));
    EXPECT_EQ(dvGetDimensions(joined[0].get()), (matrix::Dimensions{2, 1}));
    EXPECT_TRUE(a.future->getRead() && b.future->getRead());
    for (const char* name : {"UniformOutput", "uni", "UNIFORMOUTPUT", ""}) {
        const auto cells = call("fetchOutputs", 1, {both.get(), text(name).get(), no.get()});
        ASSERT_EQ(std::string(dvGetClassName(cells.at(0).get())), "cell") << name;
        ASSERT_EQ(dvGetDimensions(cells[0].get()), (matrix::Dimensions{2, 1})) << name;
        EXPECT_EQ(valueOf(dvGetCell(cells[0].get(), 1)), 2.0) << name;
        const auto uniform = call("fetchOutputs", 1, {both.get(), text(name).get(), yes.get()});
        EXPECT_EQ(doublesOf(uniform.at(0)), (std::vector<double>{1, 2})) << name;
    }

    const Array option = text("UniformOutput"), bogus = text("bogus");

    for (const Inputs& inputs :
         {Inputs{f.get(), option.get()}, Inputs{f.get(), option.get(), one.get()},
          Inputs{f.get(), bogus.get(), no.get()}}) {
        EXPECT_EQ(raised("fetchOutputs", 1, inputs).id, kFuture + "FetchOutputsSyntax")
            << inputs.size() << " inputs";
    }
    EXPECT_EQ(raised("fetchOutputs", 1, {f.get(), option.get(), no.get(), option.get()}).id,
              "KORVEX:maxrhs");
    EXPECT_EQ(raised("fetchOutputs", 1, {nothing.get()}).id, kFuture + "FetchOutputsOnEmpty");
    EXPECT_EQ(raised("fetchOutputs", 1, {unavailable.get()}).id,
              kFuture + "FetchOutputsOnUnavailableFuture");

    const auto noneArray = objects({none.future});
    EXPECT_TRUE(call("fetchOutputs", 0, {noneArray.get()}).empty());
    const Raised tooMany = raised("fetchOutputs", 1, {noneArray.get()});
    EXPECT_EQ(tooMany.id, kFuture + "TooManyOutputsRequested");
    EXPECT_EQ(tooMany.arguments, (MessageArguments{std::uint64_t{0}, std::uint64_t{1}}));
}

// Failures are the causes, folded to one when all failed alike; every
// future is read all the same.
TEST_F(FutureMethods, FetchOutputsRaisesTheFailuresOrTheConcatenationFailure) {
    const auto failed = [](auto error) {
        return TestFuture().failedWith(std::make_exception_ptr(error)).future;
    };
    const std::runtime_error same("same");
    const auto unread = TestFuture().finishedWith({scalar(1)}).future;
    const auto word = TestFuture().finishedWith({text("ab")}).future;
    const std::string execution = kFuture + "ExecutionErrors", thrown = kFuture + "StdException",
                      timeOut = kFuture + "TimeOutInvalid";
    const std::vector<std::tuple<Futures, std::string, std::vector<std::string>>> cases{
        {{unread, failed(same), failed(same)}, execution, {thrown, thrown}},
        {{failed(same), failed(same)}, execution, {thrown}},
        {{failed(same), failed(errors::TimeOutInvalid())}, execution, {thrown, timeOut}},
        {{failed(errors::TimeOutInvalid())}, execution, {timeOut}},
        {{done, word},
         kFuture + "FetchOutputsConcatenationFailed",
         {"KORVEX:catenate:classMismatch"}},
    };
    for (const auto& [futures, id, causes] : cases) {
        const Raised error = raised("fetchOutputs", 1, {objects(futures).get()});
        EXPECT_EQ(error.id, id);
        EXPECT_EQ(error.causes, causes) << id;
    }
    EXPECT_TRUE(unread->getRead() && word->getRead());
}

TEST_F(FutureMethods, WaitTellsWhetherTheFuturesReachedTheStateAndRefusesOthers) {
    TestFuture running;
    const auto q = objects({TestFuture().submitted().future});
    const auto r = objects({running.running().future});
    const auto both = objects({done, running.future});

    EXPECT_TRUE(truth(call("wait", 1, {r.get(), text("Running").get(), generous.get()}).at(0)));
    EXPECT_FALSE(truth(call("wait", 1, {q.get(), text("running").get(), zero.get()}).at(0)));
    EXPECT_FALSE(truth(call("wait", 1, {both.get(), finished.get(), zero.get()}).at(0)));
    // The work that finishes the future runs on this thread, queued from another.
    std::thread poster([&, queue = interpreter->getIqm()] {
        queue->postDetached(u"parallel", [&] { running.task->doNotifyFinished(); });
    });
    EXPECT_TRUE(truth(call("wait", 1, {both.get()}).at(0)));
    poster.join();
    EXPECT_TRUE(truth(call("wait", 1, {both.get(), text("FINISHED").get(), zero.get()}).at(0)));

    EXPECT_TRUE(truth(call("wait", 1, {nothing.get(), finished.get(), zero.get()}).at(0)));

    TestFuture pending;
    pending.task->doNotifyPending();
    const std::shared_ptr<FutureBase> unnotified = TestFuture().future,
                                      invalid = futureOf(unavailable.get());
    for (const auto& [futures, id] : std::vector<std::pair<Futures, std::string>>{
             {{done, pending.future}, "WaitOnUnsubmittedFuture"},
             {{unnotified}, "WaitOnUnsubmittedFuture"},
             {{done, invalid}, "WaitOnUnavailableFuture"}}) {
        EXPECT_EQ(raised("wait", 1, {objects(futures).get()}).id, kFuture + id);
    }
    for (const char16_t* state : {u"pending", u"Queued", u"failed", u"unavailable"}) {
        const auto word = matrix::create(state, std::char_traits<char16_t>::length(state));
        const Raised invalid = raised("wait", 1, {f.get(), word.get()});
        EXPECT_EQ(invalid.id, kFuture + "InvalidStateToWait");
        EXPECT_EQ(invalid.arguments, texts(state, u"running finished"));
    }
    for (const Array& state : {text("bogus"), one}) {
        EXPECT_EQ(raised("wait", 1, {f.get(), state.get()}).id, kFuture + "FailedToInterpretState");
    }
    const Array negative = scalar(-1);
    EXPECT_EQ(raised("wait", 1, {f.get(), finished.get(), negative.get()}).id,
              kFuture + "TimeOutInvalid");
    EXPECT_EQ(raised("wait", 2, {f.get()}).id, "KORVEX:maxlhs");
    EXPECT_EQ(raised("wait", 1, {f.get(), finished.get(), one.get(), one.get()}).id,
              "KORVEX:maxrhs");
}

// Option names and state words may be string scalars; a missing string, a
// string array of two, or text outside ASCII is no name at all.
TEST_F(FutureMethods, StringScalarsAreTextWhereOptionsAndStatesAreRead) {
    namespace str = Veldspire::String;
    const Array uni = own(str::createScalar(u"uni"));
    const Array running = own(str::createScalar(u"Running"));
    const Array missing = own(str::createScalar(std::nullopt));
    const Array pair = own(str::create({1, 2}, {u"uni", u"uni"}));
    const Array accented = own(str::createScalar(u"uni\u00e9"));

    EXPECT_EQ(doublesOf(call("fetchOutputs", 1, {f.get(), uni.get(), yes.get()}).at(0)),
              std::vector<double>{1});
    EXPECT_TRUE(truth(call("wait", 1, {f.get(), running.get(), zero.get()}).at(0)));
    for (const Array& notText : {missing, pair, accented}) {
        EXPECT_EQ(raised("fetchOutputs", 1, {f.get(), notText.get(), yes.get()}).id,
                  kFuture + "FetchOutputsSyntax");
        EXPECT_EQ(raised("wait", 1, {f.get(), notText.get()}).id,
                  kFuture + "FailedToInterpretState");
    }
}

// The host lets an array of the future class hold objects of other classes
// (a load can make one): every method that reads the futures refuses it with
// a typed error naming that class.
TEST_F(FutureMethods, MethodsRefuseAnArrayHoldingAnotherObject) {
    const auto mixed = objects({done, done});
    const auto stranger = std::make_shared<kcos::COSInterface>("test.Stranger");
    omSetArrayElement(mixed.get(), 1,
                      kcos::COSInterfacePtr(stranger.get(), kcos::COSReferenceType::Strong));
    const RecordingFunction fn;
    for (const auto& [method, inputs] : std::vector<std::pair<const char*, Inputs>>{
             {"wait", {mixed.get()}},
             {"fetchNext", {mixed.get()}},
             {"fetchOutputs", {mixed.get()}},
             {"cancel", {mixed.get()}},
             {"afterEach", {mixed.get(), fn.handle.get(), one.get()}},
             {"afterAll", {mixed.get(), fn.handle.get(), one.get()}},
             {"isequal", {mixed.get(), mixed.get()}}}) {
        const Raised refused = raised(method, 0, inputs);
        EXPECT_EQ(refused.id, kFuture + "NonFutureElement") << method;
        EXPECT_EQ(refused.arguments, texts(u"test.Stranger")) << method;
    }
}

TEST_F(FutureMethods, CancelGoesFromTheLargestIDAndTakesNoFurtherInputs) {
    std::vector<long long> cancelled;
    std::vector<std::shared_ptr<FutureBase>> futures;
    for (long long id : {4, 9, 7}) {
        auto task = TestTask::make();
        task->onCancel = [&cancelled, id] { cancelled.push_back(id); };
        task->advanceTo(FutureState::Queued);
        futures.push_back(
            std::make_shared<FevalFuture>(nullptr, nullptr, 1, DvArrayVector{}, task, id));
    }
    EXPECT_TRUE(call("cancel", 0, {objects(futures).get()}).empty());
    EXPECT_EQ(cancelled, (std::vector<long long>{9, 7, 4}));

    // The method declares no inputs beyond the futures: the host refuses more.
    TestFuture other;
    other.submitted();
    EXPECT_EQ(raised("cancel", 0, {objects({other.future}).get(), one.get()}).id, "KORVEX:maxrhs");
    EXPECT_EQ(other.task->cancelCalls, 0);
}

TEST_F(FutureMethods, IsequalComparesClassDimensionsAndIDs) {
    TestFuture a, b;
    const auto ab = objects({a.future, b.future});
    const auto abAgain = objects({a.future, b.future});
    const auto ba = objects({b.future, a.future});
    const auto abColumn = FutureBase::toKorvexArray({a.future, b.future}, {2, 1});
    const std::vector<std::pair<Inputs, bool>> cases{
        {{ab.get(), abAgain.get()}, true}, {{ab.get(), ab.get(), abAgain.get()}, true},
        {{ab.get(), ba.get()}, false},     {{ab.get(), abColumn.get()}, false},
        {{ab.get(), one.get()}, false},    {{ab.get(), abAgain.get(), ba.get()}, false},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(truth(call("isequal", 1, cases[i].first).at(0)), cases[i].second) << "case " << i;
    }
    EXPECT_EQ(raised("isequal", 1, {ab.get()}).id, "KORVEX:minrhs");
    EXPECT_EQ(raised("isequal", 2, {ab.get(), ab.get()}).id, "KORVEX:maxlhs");
}

TEST_F(FutureMethods, ContinuationsRefuseBadArguments) {
    const RecordingFunction fn;
    const Array h = fn.handle, pass = text("PassFuture"), bogus = text("bogus");
    const Array fraction = scalar(1.5), negative = scalar(-1), letter = text("1");
    const Array noString = own(Veldspire::String::createScalar(std::nullopt));
    const Array bogusString = own(Veldspire::String::createScalar(u"Bogus"));
    const std::string parser = "KORVEX:InputParser:";
    struct Case {
        Inputs inputs;
        std::string id;
        MessageArguments arguments; // checked when given
    };
    const std::vector<Case> cases{
        {{nothing.get(), h.get(), one.get()}, kFuture + "ContinuationOnEmpty", {}},
        {{f.get(), h.get(), one.get(), pass.get(), yes.get(), pass.get()}, "KORVEX:maxrhs", {}},
        {{f.get(), h.get()}, "KORVEX:minrhs", {}},
        {{f.get(), h.get(), one.get(), pass.get()},
         parser + "ParamMissingValue",
         texts(u"PassFuture")},
        {{f.get(), h.get(), one.get(), one.get()}, parser + "ParamMustBeChar", {}},
        {{f.get(), h.get(), one.get(), bogus.get(), yes.get()}, parser + "UnmatchedParameter", {}},
        {{f.get(), h.get(), one.get(), noString.get(), yes.get()}, parser + "ParamMustBeChar", {}},
        {{f.get(), h.get(), one.get(), bogusString.get(), yes.get()},
         parser + "UnmatchedParameter",
         texts(u"Bogus", u"For a list of valid names, see the help of this function.")},
        {{f.get(), one.get(), one.get()}, kFuture + "FirstArgNotFunctionHandle", {}},
        {{f.get(), h.get(), fraction.get()}, kFuture + "CreateFutureInvalidNumOutputs", {}},
        {{f.get(), h.get(), negative.get()}, kFuture + "CreateFutureNegativeNumOutputArgs", {}},
        {{f.get(), h.get(), letter.get()}, kFuture + "CreateFutureInvalidNumOutputs", {}},
        {{f.get(), h.get(), one.get(), pass.get(), one.get()},
         "KORVEX:invalidType",
         texts(u"PassFuture", u"logical", u"double")},
    };
    for (const char* method : {"afterEach", "afterAll"}) {
        for (std::size_t i = 0; i < cases.size(); ++i) {
            const Raised error = raised(method, 1, cases[i].inputs);
            EXPECT_EQ(error.id, cases[i].id) << method << " case " << i;
            if (!cases[i].arguments.empty()) {
                EXPECT_EQ(error.arguments, cases[i].arguments) << method << " case " << i;
            }
        }
        EXPECT_EQ(raised(method, 2, {f.get(), h.get(), one.get()}).id, "KORVEX:maxlhs") << method;
    }
    EXPECT_TRUE(fn.calls->empty());
}

TEST_F(FutureMethods, ContinuationsAreBuiltOfTheirClassAndFetched) {
    const Futures ab{TestFuture().finishedWith({scalar(1)}).future,
                     TestFuture().finishedWith({scalar(2)}).future};
    const auto both = objects(ab);
    auto classOf = [](const matrix::unique_dvArray& array) {
        return textOf(call("class", 1, {array.get()}).at(0).get());
    };
    const RecordingFunction doubled([](std::size_t, const DvArrayVector& in) {
        return DvArrayVector{scalar(2 * valueOf(in.at(0).get()))};
    });
    const auto each = call("afterEach", 1, {both.get(), doubled.handle.get(), one.get()});
    ASSERT_EQ(each.size(), 1u);
    EXPECT_EQ(dvGetDimensions(each[0].get()), (matrix::Dimensions{1, 1}));
    EXPECT_EQ(classOf(each[0]), "parallel.AfterEachFuture");
    EXPECT_TRUE(truth(call("wait", 1, {each[0].get(), finished.get(), generous.get()})[0]));
    EXPECT_EQ(doublesOf(call("fetchOutputs", 1, {each[0].get()}).at(0)),
              (std::vector<double>{2, 4}));

    // Passing the futures, with the option name shortened.
    const RecordingFunction count([](std::size_t, const DvArrayVector& in) {
        return DvArrayVector{scalar(static_cast<double>(dvGetNumberOfElements(in.at(0).get())))};
    });
    const auto all = call(
        "afterAll", 1, {both.get(), count.handle.get(), one.get(), text("pass").get(), yes.get()});
    EXPECT_EQ(classOf(all.at(0)), "parallel.AfterAllFuture");
    call("wait", 0, {all[0].get(), finished.get(), generous.get()});
    EXPECT_EQ(doublesOf(call("fetchOutputs", 1, {all[0].get()}).at(0)), std::vector<double>{2});
    ASSERT_EQ(count.calls->size(), 1u);
    const dvArray* given = count.calls->at(0).at(0).get();
    EXPECT_EQ(std::string(dvGetClassName(given)), "parallel.Future");
    EXPECT_TRUE(FutureBase::isEqual(FutureBase::fromKorvexArray(given), ab));
}

} // namespace
} // namespace parallel::language::future
