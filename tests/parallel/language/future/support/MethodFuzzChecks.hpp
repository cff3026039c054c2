#pragma once

// What the randomized method test calls with and how it judges the outcome:
// values by name, one plan per method with the likely values of its inputs,
// arrays of futures in every state a call may meet, the paths along which the
// language reaches a method, and the checks of each call and of a whole run.
// Each call must succeed or raise a language error (an identifier under
// "KORVEX:", or the queue's cancellation error); any other exception, a
// crash, or an error escaping queued work is a fault.

#include "ContinuationSupport.hpp"

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <kvm/KVM.hpp>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <iterator>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

namespace parallel::language::future::fuzz {

using testing::futureOf;
using testing::interned;
using testing::own;
using testing::scalar;
using testing::TestFuture;
using testing::text;
using Veldspire::KException::KExceptionEnvelope;
using Array = boost::intrusive_ptr<dvArray>;
using Rng = std::mt19937_64;

inline Array numeric(matrix::Dimensions dims, matrix::ClassID type = matrix::ClassID::Double) {
    return own(matrix::detail::do_create_numeric(dims, type));
}

struct Entry {
    std::string name;
    std::shared_ptr<FutureBase> future;
};

const char* const kFutureClasses[] = {"parallel.Future", "parallel.FevalFuture",
                                      "parallel.FevalOnAllFuture", "parallel.AfterEachFuture",
                                      "parallel.AfterAllFuture"};
const char* const kCreationClass = "parallel.internal.queue.FutureCreation";
const char* const kQueueClass = "parallel.FevalQueue";

// Values by name. The functions echo, answer nothing, answer three outputs
// whatever is asked, fail with a language or a C++ error, or (on the
// interpreter thread, as a continuation) wait briefly with fetchNext and wait
// on a future that never finishes, then echo; they keep nothing, so futures
// passed to them do not outlive the run, and they may run on pool workers.
// "queue" is a queue object of the language pool, "queue(0x0)" an empty array
// of that class.
inline std::map<std::string, Array> valuePool() {
    std::map<std::string, Array> pool;
    const double inf = std::numeric_limits<double>::infinity();
    for (double d : {std::numeric_limits<double>::quiet_NaN(), inf, -inf, -1., 0., 1., 1.5, 2.,
                     65537., 4294967295.}) {
        char name[16];
        std::snprintf(name, sizeof name, "%g", d);
        pool[name] = scalar(d);
    }
    pool["true"] = own(dvCreateLogicalScalar(true));
    pool["false"] = own(dvCreateLogicalScalar(false));
    pool["logical(1x2)"] = numeric({1, 2}, matrix::ClassID::Logical);
    pool["double(1x2)"] = numeric({1, 2});
    pool["double(0x0)"] = numeric({0, 0});
    for (const char* word : {"PassFuture", "pass", "UniformOutput", "uni", "", "running",
                             "Finished", "failed", "bogus", "parallel.Future", "handle"}) {
        pool['"' + std::string(word) + '"'] = text(word);
    }
    pool["char(0x0)"] = own(matrix::createChars({0, 0}, u""));
    pool["char(2x2)"] = own(matrix::createChars({2, 2}, u"abcd"));
    pool["char(non-ASCII)"] = own(matrix::create(u"\u00e9t\u00e9", 3));
    pool["cell(1x2)"] = own(matrix::detail::do_create_cell({1, 2}));
    pool["struct"] = own(matrix::detail::do_create_struct({1, 1}, {"a"}));
    const Array neverFinishes =
        own(FutureBase::toKorvexArray({TestFuture(1).running().future}, {}));
    const char* handles[] = {"@echo", "@none", "@three", "@fails", "@throws", "@waits"};
    for (int mode = 0; mode < 6; ++mode) {
        pool[handles[mode]] = own(matrix::createFunctionHandle(
            "fuzzed",
            [mode, neverFinishes](std::size_t n, const DvArrayVector& in) -> DvArrayVector {
                if (mode == 5 && kvm::Factory::getCurrentLocalKVM()) {
                    const dvArray* waitedOn = neverFinishes.get();
                    omInvokeMethod("fetchNext", 0, {waitedOn, scalar(0.001).get()},
                                   COSGetPublicClient());
                    omInvokeMethod("wait", 1,
                                   {waitedOn, text("finished").get(), scalar(0.001).get()},
                                   COSGetPublicClient());
                }
                if (mode == 3) {
                    throw KExceptionEnvelope("fuzz:UserFailure", u"The function failed.");
                } else if (mode == 4) {
                    throw std::runtime_error("The function threw.");
                }
                return mode == 1   ? DvArrayVector{}
                       : mode == 2 ? DvArrayVector{scalar(1), scalar(2), scalar(3)}
                                   : DvArrayVector(in.begin(), in.begin() + std::min(in.size(), n));
            }));
    }
    pool["queue"] = own(testing::construct(kQueueClass));
    pool["queue(0x0)"] = own(kcos::array::create({0, 0}, interned(kQueueClass)));
    return pool;
}

// One method: its class, whether it never waits (so futures that are still
// running are safe), whether its first input is an array of futures, and the
// likely values of its other inputs, ' '-separated: "futures" is another
// future array, "same" the first input again. Methods named after their class
// are constructors, which no method call may reach.
struct Plan {
    const char* className;
    const char* method;
    bool neverWaits;
    bool takesFutures;
    std::vector<const char*> slots;

    bool isConstructor() const {
        return std::string_view(className).ends_with("." + std::string(method));
    }
};
const char* const kFunctions = "@echo @none @three @fails @throws @waits";
const char* const kCounts = "0 1 2 -1 1.5 nan inf 65537 4.29497e+09 true";
const char* const kFlags = "true false logical(1x2)";
const std::vector<const char*> kAfter{kFunctions, kCounts, R"("PassFuture" "pass" "" "bogus")",
                                      kFlags};
const std::vector<const char*> kEvaluation{kFunctions, kCounts, "1 \"bogus\" cell(1x2) struct",
                                           "2"};
const std::vector<Plan> kPlans{
    {"parallel.Future", "afterEach", false, true, kAfter},
    {"parallel.Future", "afterAll", false, true, kAfter},
    {"parallel.Future", "cancel", true, true, {}},
    {"parallel.Future", "disp", true, true, {}},
    {"parallel.Future", "fetchNext", false, true, {"0 inf nan -1 double(0x0) true double(1x2)"}},
    {"parallel.Future",
     "fetchOutputs",
     false,
     true,
     {R"("UniformOutput" "uni" "" "bogus" char(2x2))", kFlags}},
    {"parallel.Future", "class", true, true, {}},
    {"parallel.Future", "isa", true, true, {R"("parallel.Future" "handle" "Finished" char(0x0))"}},
    {"parallel.Future", "isequal", true, true, {"same futures 1", "same futures"}},
    {"parallel.Future",
     "wait",
     false,
     true,
     {R"("running" "Finished" "failed" "bogus" char(0x0))", "0 inf nan -1 1.5"}},
    {"parallel.Future", "submit", false, true, {"queue futures 1"}},
    {"parallel.Future", "Future", true, true, {"@echo 1"}},
    {kCreationClass, "buildFutures", true, false, kEvaluation},
    {kCreationClass, "buildOnAllFutures", true, false, kEvaluation},
    {kQueueClass, "submitFutures", true, false, {"queue queue(0x0)", "futures"}},
    {kQueueClass, "FevalQueue", true, false, {"queue queue(0x0)"}},
};

inline std::string pickWord(Rng& rng, const char* words) {
    std::istringstream in(words);
    const std::vector<std::string> all{std::istream_iterator<std::string>(in), {}};
    return all[rng() % all.size()];
}

template <class T>
const T& pick(Rng& rng, const std::vector<T>& from) {
    return from[rng() % from.size()];
}

// Mostly 0 or 1, at times a few, and now and then a count no call may ask for.
inline int pickNumOutputs(Rng& rng) {
    const auto draw = rng() % 24;
    const int absurd[] = {-1, static_cast<int>(kcos::kMaxNumOutputs) + 1, INT_MAX};
    return draw < 3 ? absurd[draw] : (draw < 5 ? 2 : 0) + static_cast<int>(rng() % 2);
}

// Finished, failed, never submitted, deleted and unavailable futures; fresh each round.
inline std::vector<Entry> settledFutures() {
    const auto done = [](unsigned int n, DvArrayVector outputs) {
        return TestFuture(n).finishedWith(std::move(outputs)).future;
    };
    const auto failed = [](auto error) {
        return TestFuture(1).failedWith(std::make_exception_ptr(error)).future;
    };
    testing::TestOnAllFuture onAll(2);
    for (const auto& task : onAll.tasks) {
        task->result = OutputsOrError(std::optional<DvArrayVector>(DvArrayVector{scalar(3)}));
        task->runToFinish();
    }
    const auto deleted = done(1, {scalar(5)});
    omDeleteObjects(testing::objects({deleted}).get());
    return {{"done()", done(0, {})},
            {"done(7)", done(1, {scalar(7)})},
            {"done(8,'x')", done(2, {scalar(8), text("x")})},
            {"done('ab')", done(1, {text("ab")})},
            {"done(2x2)", done(1, {numeric({2, 2})})},
            {"failed(envelope)", failed(KExceptionEnvelope("fuzz:TaskFailure", u"Failed."))},
            {"failed(runtime_error)", failed(std::runtime_error("Failed."))},
            {"pending", TestFuture(1).future},
            {"deleted", deleted},
            {"unavailable", futureOf(testing::construct("parallel.Future").get())},
            {"onAll(3;3)", onAll.future}};
}

// How a call names the element of another class in a future array.
const char* const kOtherObject = "other object";

// An array of futures: empty, a constructed unavailable future, or one to
// four futures as a row, a column or along the third dimension, sometimes
// with a null element or with `other`'s object (of another class) in one.
inline std::pair<Array, std::string> futureArray(Rng& rng, const std::vector<Entry>& from,
                                                 const Array& other) {
    if (rng() % 10 == 0) {
        return {own(FutureBase::toKorvexArray({}, {0, rng() % 2})), "empty"};
    } else if (rng() % 10 == 0) {
        return {own(testing::construct("parallel.Future")), "parallel.Future()"};
    }
    const std::size_t n = 1 + rng() % 4, hole = rng() % 6 == 0 ? rng() % n : n, shape = rng() % 3,
                      alien = rng() % 8 == 0 ? rng() % n : n;
    std::vector<std::shared_ptr<FutureBase>> futures;
    std::string name;
    for (std::size_t i = 0; i < n; ++i) {
        const Entry& entry = pick(rng, from);
        futures.push_back(entry.future);
        name += (i == 0 ? "[" : ", ") + (i == hole    ? "null"
                                         : i == alien ? std::string(kOtherObject)
                                                      : entry.name);
    }
    const std::vector<matrix::Dimensions> shapes{{1, n}, {n, 1}, {1, 1, n}};
    const Array array = own(FutureBase::toKorvexArray(futures, shapes[shape]));
    if (hole < n) {
        dvSetObject(array.get(), hole, nullptr);
    }
    if (alien < n && alien != hole) {
        omSetArrayElement(array.get(), alien, omGetArrayElement(other.get(), 0));
    }
    return {array, name + (shape == 0 ? "]" : shape == 1 ? "]'" : "] along dim 3")};
}

// Empty when `run` succeeds or raises a language error; otherwise what it
// raised.
template <class Run>
std::string unacceptedOutcome(Run&& run) {
    const auto accepted = [](const std::string& id) {
        return id.rfind("KORVEX:", 0) == 0 || id == "parallel:fevalqueue:ExecutionCancelled";
    };
    try {
        run();
        return "";
    } catch (const foundation::core::except::IMsgIDException& error) {
        return accepted(error.get_error_id()) ? "" : "error " + error.get_error_id();
    } catch (const KExceptionEnvelope& error) {
        return accepted(error.GetID()) ? "" : "error " + error.GetID();
    } catch (const std::exception& error) {
        return std::string(typeid(error).name()) + ": " + error.what();
    } catch (...) {
        return "an unknown exception";
    }
}

enum class Path { Invoke, Static, OnObject };

// A chain of up to `maxLevels` afterAll levels made through the language on
// `head`, each on the one before, run in part (or not at all) and dropped;
// what is left queued runs with later continuations.
inline void dropChain(Rng& rng, const Array& head, const Array& function, std::size_t maxLevels) {
    const std::size_t levels = 1 + rng() % maxLevels;
    const Array one = scalar(1);
    Array link = head;
    for (std::size_t i = 0; i < levels; ++i) {
        link = own(std::move(omInvokeMethod("afterAll", 1, {link.get(), function.get(), one.get()},
                                            COSGetPublicClient())
                                 .at(0)));
    }
    const std::size_t toRun = rng() % 2 == 0 ? 0 : rng() % (levels + 1);
    for (std::size_t i = 0; i < toRun && testing::runParallelQueue(); ++i) {
    }
}

// Calls `method` as the language does along `path`; the outputs produced.
inline std::vector<matrix::unique_dvArray> callAlong(Path path, const char* className,
                                                     const char* method, int numOutputs,
                                                     std::vector<const dvArray*> inputs,
                                                     const kcos::COSClient* client) {
    if (path == Path::Invoke) {
        return omInvokeMethod(method, numOutputs, inputs, client);
    }
    std::vector<dvArray*> raw;
    for (const dvArray* input : inputs) {
        raw.push_back(const_cast<dvArray*>(input)); // only read
    }
    // Room for the counts a call may give; a larger one must be refused unwritten.
    std::vector<dvArray*> out(static_cast<std::size_t>(std::clamp(numOutputs, 1, 4)), nullptr);
    omCallMethod(interned(className), interned(method), client, numOutputs, out.data(),
                 static_cast<int>(raw.size()), raw.data(), path == Path::Static);
    std::vector<matrix::unique_dvArray> outputs;
    for (int i = 0; i < std::min(numOutputs, static_cast<int>(out.size())); ++i) {
        outputs.emplace_back(out[static_cast<std::size_t>(i)]);
    }
    return outputs;
}

// The checks after a run: every method succeeded at least once (one that
// always fails is a fault too), every future class was constructed, and every
// readable property was read.
inline void expectEveryEntryReached(std::map<std::string, int>& successes,
                                    const std::vector<std::string>& properties) {
    for (const Plan& plan : kPlans) {
        EXPECT_TRUE(successes[plan.method] > 0 || plan.isConstructor()) << plan.method;
    }
    for (const char* className : kFutureClasses) {
        EXPECT_GT(successes[std::string("construct ") + className], 0) << className;
    }
    for (const std::string& property : properties) {
        if (property != "NoSuch" && property != "Futures") {
            EXPECT_GT(successes["get " + property], 0) << property;
        }
    }
}

} // namespace parallel::language::future::fuzz
