// Calls every method of "parallel.Future" with random argument kinds and
// counts. Each call must succeed or raise a language error (an identifier
// under "KORVEX:", or the queue's cancellation error); any other exception, or
// an error escaping queued work, is a fault. QZ_FUZZ_SEED=<n> repeats a run.
// Methods that wait only see futures that are finished, failed, never
// submitted or unavailable, so no call can block. "submit" has no queue class
// registered here: it can only raise the host's errors.
#include "ContinuationSupport.hpp"

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <kvm/KVM.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <typeinfo>

namespace parallel::language::future {
namespace {

using testing::futureOf;
using testing::scalar;
using testing::TestFuture;
using testing::text;
using Veldspire::KException::KExceptionEnvelope;
using Array = boost::intrusive_ptr<dvArray>;
using Rng = std::mt19937_64;

Array own(matrix::unique_dvArray array) {
    return Array(matrix::to_korvex(std::move(array)), false);
}

Array numeric(matrix::Dimensions dims, matrix::ClassID type = matrix::ClassID::Double) {
    return own(matrix::detail::do_create_numeric(dims, type));
}

struct Entry {
    std::string name;
    std::shared_ptr<FutureBase> future;
};

std::map<std::string, Array> valuePool() {
    std::map<std::string, Array> pool;
    const double inf = std::numeric_limits<double>::infinity();
    for (double d :
         {std::numeric_limits<double>::quiet_NaN(), inf, -inf, -1., 0., 1., 1.5, 2., 4294967295.}) {
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
    // Continuation functions: echo, answer nothing, answer three outputs
    // whatever is asked, fail with a language or a C++ error. They keep
    // nothing: futures passed to them must not outlive the run.
    const char* handles[] = {"@echo", "@none", "@three", "@fails", "@throws"};
    for (int mode = 0; mode < 5; ++mode) {
        pool[handles[mode]] = own(matrix::createFunctionHandle(
            "fuzzed", [mode](std::size_t n, const DvArrayVector& in) -> DvArrayVector {
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
    return pool;
}

// Per method: whether it never waits (so submitted, unfinished futures are
// safe), and the likely values of its extra inputs, ' '-separated; "futures"
// is another future array, "same" the first input again.
struct Plan {
    const char* method;
    bool neverWaits;
    std::vector<const char*> slots;
};
const char* const kFlags = "true false logical(1x2)";
const char* const kAfter[] = {"@echo @none @three @fails @throws",
                              "0 1 2 -1 1.5 nan inf 4.29497e+09",
                              R"("PassFuture" "pass" "" "bogus")", kFlags};
const std::vector<Plan> kPlans{
    {"afterEach", false, {std::begin(kAfter), std::end(kAfter)}},
    {"afterAll", false, {std::begin(kAfter), std::end(kAfter)}},
    {"cancel", true, {}},
    {"disp", true, {}},
    {"fetchNext", false, {"0 inf nan -1 double(0x0) true double(1x2)"}},
    {"fetchOutputs", false, {R"("UniformOutput" "uni" "" "bogus" char(2x2))", kFlags}},
    {"class", true, {}},
    {"isa", true, {R"("parallel.Future" "handle" "Finished" char(0x0))"}},
    {"isequal", true, {"same futures 1", "same futures"}},
    {"wait", false, {R"("running" "Finished" "failed" "bogus" char(0x0))", "0 inf nan -1 1.5"}},
    {"submit", false, {"futures 1"}},
};

std::string pickWord(Rng& rng, const char* words) {
    std::istringstream in(words);
    const std::vector<std::string> all{std::istream_iterator<std::string>(in), {}};
    return all[rng() % all.size()];
}

// Finished, failed, never submitted, deleted and unavailable futures; fresh each round.
std::vector<Entry> settledFutures() {
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

// The first input: an empty array, a constructed unavailable future, or one
// to four futures as a row, a column or along the third dimension, sometimes
// with a null element.
std::pair<Array, std::string> firstInput(Rng& rng, const std::vector<Entry>& from) {
    if (rng() % 10 == 0) {
        return {own(FutureBase::toKorvexArray({}, {0, rng() % 2})), "empty"};
    } else if (rng() % 10 == 0) {
        return {own(testing::construct("parallel.Future")), "parallel.Future()"};
    }
    const std::size_t n = 1 + rng() % 4, hole = rng() % 6 == 0 ? rng() % n : n, shape = rng() % 3;
    std::vector<std::shared_ptr<FutureBase>> futures;
    std::string name;
    for (std::size_t i = 0; i < n; ++i) {
        const Entry& entry = from[rng() % from.size()];
        futures.push_back(entry.future);
        name += (i == 0 ? "[" : ", ") + (i == hole ? "null" : entry.name);
    }
    const std::vector<matrix::Dimensions> shapes{{1, n}, {n, 1}, {1, 1, n}};
    const Array array = own(FutureBase::toKorvexArray(futures, shapes[shape]));
    if (hole < n) {
        dvSetObject(array.get(), hole, nullptr);
    }
    return {array, name + (shape == 0 ? "]" : shape == 1 ? "]'" : "] along dim 3")};
}

// Empty when `run` succeeds or raises a language error; otherwise what it raised.
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

class MethodFuzz : public testing::LanguageTest {};

TEST_F(MethodFuzz, EveryCallSucceedsOrRaisesALanguageError) {
    const char* fromEnvironment = std::getenv("QZ_FUZZ_SEED");
    const std::uint64_t seed =
        fromEnvironment ? std::strtoull(fromEnvironment, nullptr, 10) : 20240611;
    std::printf("MethodFuzz seed %llu (QZ_FUZZ_SEED repeats it)\n",
                static_cast<unsigned long long>(seed));
    Rng rng(seed);
    std::vector<std::string> faults;
    iqm::setDetachedErrorHandler([&](std::exception_ptr error) {
        faults.push_back("queued work raised: " + foundation::core::except::describe(error));
    });
    std::u16string shown; // what "disp" prints
    const kvm::DiarySink sink(shown);
    const std::map<std::string, Array> pool = valuePool();
    std::map<std::string, int> successes;
    for (int round = 0; round < 50; ++round) {
        std::vector<Entry> settled = settledFutures();
        std::vector<Entry> any = settled;
        any.push_back({"queued", TestFuture(1).submitted().future});
        any.push_back({"running", TestFuture(1).running().future});
        for (int n = 0; n < 100; ++n) {
            const Plan& plan = kPlans[rng() % kPlans.size()];
            const int numOutputs = static_cast<int>(rng() % 8 == 0 ? 2 + rng() % 2 : rng() % 2);
            std::string call = plan.method + ("(nargout " + std::to_string(numOutputs));
            auto [subject, subjectName] = firstInput(rng, plan.neverWaits ? any : settled);
            std::vector<Array> inputs{subject};
            call += "; " + subjectName;
            const bool likely = rng() % 5 < 3; // extra inputs of the kinds the method reads
            const std::size_t slots = plan.slots.size();
            const std::size_t count = !likely ? rng() % 6 : rng() % 2 ? slots : rng() % (slots + 1);
            for (std::size_t i = 0; i < count; ++i) {
                std::string name = likely && i < slots && rng() % 10 != 0
                                       ? pickWord(rng, plan.slots[i])
                                       : std::next(pool.begin(), rng() % pool.size())->first;
                if (!likely && rng() % 8 == 0) {
                    name = rng() % 2 ? "same" : "futures";
                }
                if (name == "same") {
                    inputs.push_back(subject);
                } else if (name == "futures") {
                    std::tie(inputs.emplace_back(), name) = firstInput(rng, settled);
                } else {
                    inputs.push_back(pool.at(name));
                }
                call += "; " + name;
            }
            call += ")";
            std::vector<const dvArray*> raw(inputs.size());
            std::transform(inputs.begin(), inputs.end(), raw.begin(),
                           [](auto& a) { return a.get(); });
            std::vector<matrix::unique_dvArray> outputs;
            std::string fault = unacceptedOutcome([&] {
                outputs = testing::call(plan.method, numOutputs, raw);
                ++successes[plan.method];
            });
            if (!outputs.empty() && std::string_view(plan.method).starts_with("after")) {
                fault = unacceptedOutcome([&] { // run the continuation, keep it when finished
                    for (int i = 0; i < 100 && testing::runParallelQueue(); ++i) {
                    }
                    const auto future = futureOf(outputs.at(0).get());
                    if (future->getState() == FutureState::Finished) {
                        settled.push_back({plan.method + std::to_string(future->getID()), future});
                    }
                });
            }
            if (!fault.empty()) {
                faults.push_back(call + " -> " + fault);
            }
        }
        shown.clear();
    }
    iqm::setDetachedErrorHandler({});
    for (const Plan& plan : kPlans) { // a method that always fails is a fault too
        EXPECT_TRUE(successes[plan.method] > 0 || plan.method == std::string("submit"))
            << plan.method;
    }
    for (std::size_t i = 0; i < std::min<std::size_t>(faults.size(), 25); ++i) {
        ADD_FAILURE() << faults[i];
    }
    EXPECT_TRUE(faults.empty()) << faults.size() << " unaccepted outcomes with seed " << seed;
}

} // namespace
} // namespace parallel::language::future
