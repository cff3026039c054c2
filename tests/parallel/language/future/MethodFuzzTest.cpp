// The randomized method test: reaches every language entry of
// "parallel.Future", its aliases and the local pool's language classes with
// random argument kinds and counts: methods through omInvokeMethod and through
// omCallMethod (static, sometimes with no inputs at all, and on an object),
// constructors (also called as methods), and property reads and assignments.
// support/MethodFuzzChecks.hpp holds the values, the plans and the checks.
// QZ_FUZZ_SEED=<n> repeats a run. Calls that wait only see futures that are
// finished, failed, never submitted or unavailable, so none can block;
// futures evaluated on the pool reach only the calls that never wait.
// Besides, future arrays at times hold an object of another class, some
// continuations wait themselves, and every few rounds a long chain of
// continuations is made and dropped.
#include "support/MethodFuzzChecks.hpp"

#include <executor/LanguageClasses.hpp>
#include <localpool/LocalPool.hpp>

#include <kvm/KVM.hpp>

#include <cstdlib>

namespace parallel::language::future {
namespace {

using namespace fuzz;

class MethodFuzz : public testing::LanguageTest {
protected:
    MethodFuzz() {
        executor::registerLanguageClasses();
        executor::setLanguagePool(std::make_shared<localpool::LocalPool>(2));
    }
    ~MethodFuzz() override { executor::setLanguagePool(nullptr); }
};

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
    std::vector<std::string> properties =
        omGetPropertyNames(interned("parallel.Future"), COSGetPublicClient());
    properties.insert(properties.end(),
                      {"hHasParentProperty", "OwnedResources", "Futures", "NoSuch"});
    std::vector<const char*> constructed(std::begin(kFutureClasses), std::end(kFutureClasses));
    constructed.insert(constructed.end(), {kQueueClass, kCreationClass});
    // An object of another class for future arrays; no call reaches it
    // otherwise, so none can make it refer to itself.
    const Array otherObject = own(testing::construct(kQueueClass));
    std::vector<Entry> live; // evaluations on the pool, some still running
    std::map<std::string, int> successes;

    for (int round = 0; round < 60; ++round) {
        std::vector<Entry> settled = settledFutures();
        std::vector<Entry> any = settled;
        any.push_back({"queued", TestFuture(1).submitted().future});
        any.push_back({"running", TestFuture(1).running().future});
        any.insert(any.end(), live.begin(), live.end());
        if (round % 6 == 0) {
            const Array head = own(testing::objects({settled.at(1).future}));
            // Continuations that wait take a few milliseconds each.
            const bool waits = rng() % 2 == 0;
            const std::string function = waits ? "@waits" : "@echo";
            const std::string fault = unacceptedOutcome(
                [&] { dropChain(rng, head, pool.at(function), waits ? 100 : 3000); });
            if (!fault.empty()) {
                faults.push_back("chain of afterAll(" + function + ") dropped -> " + fault);
            }
        }
        for (int n = 0; n < 100; ++n) {
            const std::size_t kind = rng() % 10; // 0-6 methods, 7 constructors, 8-9 properties
            const Plan& plan = kind < 7 ? pick(rng, kPlans) : kPlans.front();
            const std::vector<const char*>& slots = kind == 7  ? kEvaluation
                                                    : kind < 7 ? plan.slots
                                                               : std::vector<const char*>{};
            // Mostly the way the language reaches the method: on its object,
            // or statically on its class for the pool's builders.
            const std::size_t way = rng() % 5;
            const Path path = way < 3   ? (plan.takesFutures ? Path::Invoke : Path::Static)
                              : way < 4 ? (plan.takesFutures ? Path::Static : Path::Invoke)
                                        : Path::OnObject;
            const kcos::COSClient* client =
                rng() % 4 == 0 ? kcos::COSClient::getClassClient() : COSGetPublicClient();
            const int numOutputs = pickNumOutputs(rng);
            const bool mayWait = kind < 7 && !plan.neverWaits;
            // Inputs of evaluations reach pool workers: no objects there.
            const bool evaluates =
                kind == 7 || (kind < 7 && std::string_view(plan.method).starts_with("build"));

            // The inputs: the futures first where the plan takes them, then its
            // likely values, or values of any kind in any number.
            std::vector<Array> inputs;
            std::string call;
            if (kind >= 8 || (kind < 7 && plan.takesFutures)) {
                auto [subject, name] = futureArray(rng, mayWait ? settled : any, otherObject);
                if (rng() % 8 == 0) {
                    name = std::next(pool.begin(), rng() % pool.size())->first;
                    subject = pool.at(name);
                }
                inputs.push_back(subject);
                call += "; " + name;
            }
            const bool likely = rng() % 5 < 3;
            const std::size_t count = !likely     ? rng() % 6
                                      : rng() % 2 ? slots.size()
                                                  : rng() % (slots.size() + 1);
            for (std::size_t i = 0; i < count && kind < 8; ++i) {
                std::string name = likely && i < slots.size() && rng() % 10 != 0
                                       ? pickWord(rng, slots[i])
                                       : std::next(pool.begin(), rng() % pool.size())->first;
                if (!likely && rng() % 8 == 0) {
                    name = rng() % 2 ? "same" : "futures";
                }
                if (evaluates &&
                    (name == "same" || name == "futures" || name.starts_with("queue"))) {
                    name = "1";
                }
                if (name == "same" && !inputs.empty()) {
                    inputs.push_back(inputs.front());
                } else if (name == "futures" || name == "same") {
                    std::tie(inputs.emplace_back(), name) =
                        futureArray(rng, mayWait ? settled : any, otherObject);
                } else {
                    inputs.push_back(pool.at(name));
                }
                call += "; " + name;
            }
            if (kind < 7 && path == Path::Static && rng() % 4 == 0) {
                inputs.clear(); // no inputs at all
                call = "; (none)";
            }
            std::vector<const dvArray*> raw(inputs.size());
            std::transform(inputs.begin(), inputs.end(), raw.begin(),
                           [](auto& a) { return a.get(); });

            // The call itself.
            std::vector<matrix::unique_dvArray> outputs;
            std::string what, key; // the call as shown, and as counted
            std::function<void()> run;
            if (kind < 7) {
                const char* className = path == Path::Invoke || !plan.takesFutures
                                            ? plan.className
                                            : kFutureClasses[rng() % 5];
                key = plan.method;
                what = std::string(plan.method) + (path == Path::Invoke ? " invoked"
                                                   : path == Path::Static
                                                       ? " static on " + std::string(className)
                                                       : " on " + std::string(className));
                run = [&, className] {
                    outputs = callAlong(path, className, plan.method, numOutputs, raw, client);
                };
            } else if (kind == 7) {
                const char* className = pick(rng, constructed);
                key = what = std::string("construct ") + className;
                run = [&, className] {
                    std::vector<dvArray*> args;
                    for (const Array& input : inputs) {
                        args.push_back(input.get());
                    }
                    outputs.emplace_back(omConstructObjectWithClient(
                        interned(className), static_cast<int>(args.size()), args.data(), client));
                };
            } else {
                const std::string property = pick(rng, properties);
                const bool assign = kind == 9;
                key = what = (assign ? "set " : "get ") + property;
                const Array value = std::next(pool.begin(), rng() % pool.size())->second;
                run = [&, property, assign, value] {
                    if (assign) {
                        omSetProperty(inputs.at(0).get(), property, value.get(), client);
                    } else {
                        outputs.push_back(omGetProperty(inputs.at(0).get(), property, client));
                    }
                };
            }
            call = what + "(nargout " + std::to_string(numOutputs) + call + ")";
            bool succeeded = false;
            std::string fault = unacceptedOutcome([&] {
                run();
                succeeded = true;
                ++successes[key];
            });
            if (succeeded && kind < 7 && plan.isConstructor()) {
                fault = "a constructor ran as a method";
            }

            // Continuations run now; evaluations join the futures that never wait.
            const bool madeFutures =
                !outputs.empty() && outputs.at(0) &&
                dvGetClassID(outputs.at(0).get()) == matrix::ClassID::Object &&
                std::any_of(std::begin(kFutureClasses), std::end(kFutureClasses),
                            [&](std::string_view name) {
                                return name == dvGetClassName(outputs.at(0).get());
                            });
            if (madeFutures && kind < 7 && std::string_view(plan.method).starts_with("after")) {
                fault += unacceptedOutcome([&] {
                    for (int i = 0; i < 100 && testing::runParallelQueue(); ++i) {
                    }
                    const auto future = futureOf(outputs.at(0).get());
                    if (future->getState() == FutureState::Finished) {
                        settled.push_back({plan.method + std::to_string(future->getID()), future});
                    }
                });
            } else if (madeFutures && dvGetNumberOfElements(outputs.at(0).get()) == 1) {
                const auto future = futureOf(outputs.at(0).get());
                Entry entry{"pool" + std::to_string(future->getID()), future};
                if (live.size() < 8) {
                    live.push_back(entry);
                } else {
                    live[rng() % live.size()] = entry;
                }
                any.push_back(entry);
            }
            if (!fault.empty()) {
                faults.push_back(call + " -> " + fault);
            }
        }
        shown.clear();
    }
    live.clear();
    iqm::setDetachedErrorHandler({});
    expectEveryEntryReached(successes, properties);
    for (std::size_t i = 0; i < std::min<std::size_t>(faults.size(), 25); ++i) {
        ADD_FAILURE() << faults[i];
    }
    EXPECT_TRUE(faults.empty()) << faults.size() << " unaccepted outcomes with seed " << seed;
}

} // namespace
} // namespace parallel::language::future
