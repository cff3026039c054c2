// fetchNext remembers what it learnt of an array (or a native vector) between calls. Random
// arrays, through random steps (futures moving on or finishing while a call waits, read through
// fetchOutputs, objects deleted, elements replaced), must get the answers of a plain walk.
#include "support/LanguageTestSupport.hpp"

#include <parallel/language/future/UnavailableFuture.hpp>

#include <iqm/Iqm.hpp>

#include <map>
#include <numeric>
#include <random>
#include <set>

namespace parallel::language::future {
namespace {

using namespace testing;
using State = FetchNextState;

// The walk that defines the answer: the state, the index fetched, and the
// unread futures it would wait for.
struct Walk {
    State state = State::TimedOut;
    std::size_t index = 0;
    std::vector<std::size_t> running = {};
};

Walk referenceWalk(const Futures& futures) {
    Walk walk;
    bool someSubmitted = false;
    for (std::size_t i = 0; i < futures.size(); ++i) {
        const FutureBase& future = *futures[i];
        const FutureState state = future.getState();
        if (future.isMultiFuture() || future.isInvalid()) {
            return {future.isMultiFuture() ? State::UnsupportedFutureType : State::InvalidFuture};
        } else if (future.getRead()) {
            someSubmitted = true;
        } else if (state != FutureState::Pending && state != FutureState::Unavailable) {
            someSubmitted = true;
            if (state == FutureState::Finished) {
                return {State::Fetched, i};
            }
            walk.running.push_back(i);
        }
    }
    if (walk.running.empty()) {
        walk.state = someSubmitted ? State::NoUnreadFutures : State::NotSubmitted;
    }
    return walk;
}

const char* const kStates[] = {"invalid",   "fetched ",    "none unread",
                               "timed out", "unsupported", "not submitted"};
const std::string kFuture = "KORVEX:parallel:future:";
const std::map<State, std::string> kMethodErrors{
    {State::UnsupportedFutureType, kFuture + "FetchNextUnsupportedFutureType"},
    {State::NoUnreadFutures, kFuture + "NoUnreadFutures"},
    {State::NotSubmitted, kFuture + "WaitOnUnsubmittedFuture"}};

class Drain : public LanguageTest {
protected:
    std::mt19937 random;
    std::vector<TestFuture> plain;
    std::map<const FutureBase*, bool> fails;
    matrix::unique_dvArray arrays[2];
    Futures natives[2]; // each array's futures, as a native vector

    std::size_t below(std::size_t n) {
        return std::uniform_int_distribution<std::size_t>(0, n - 1)(random);
    }
    TestFuture& pick() { return plain[below(plain.size())]; }
    static void advance(TestFuture& f) {
        const FutureState state = f.future->getState();
        state == FutureState::Unavailable ? f.task->doNotifyPending()
        : state == FutureState::Pending   ? f.task->doNotifyQueued()
        : state == FutureState::Queued    ? f.task->doNotifyRunning()
        : state == FutureState::Running   ? f.task->doNotifyFinished()
                                          : void();
    }

    void makeWorld(unsigned seed) {
        random.seed(seed);
        plain.clear();
        for (std::size_t i = 0; i < 32; ++i) {
            TestFuture& f = plain.emplace_back();
            const bool fail = fails[f.future.get()] = below(5) == 0;
            f.task->result = fail ? OutputsOrError(std::make_exception_ptr(std::runtime_error("")))
                                  : OutputsOrError(std::optional<DvArrayVector>({scalar(1)}));
            for (std::size_t steps = below(5); steps > 0; --steps) {
                advance(f);
            }
        }
        const Futures odd{TestOnAllFuture(2).future, std::make_shared<UnavailableFuture>("x")};
        for (int a = 0; a < 2; ++a) {
            natives[a].clear();
            for (std::size_t n = 1 + below(24); n > 0; --n) {
                natives[a].push_back(below(60) == 0 ? odd[below(2)] : pick().future);
            }
            arrays[a] = objects(natives[a]);
        }
    }

    // What a call through array `a` answers per the walk over `futures`.
    std::string expected(const Futures& futures, const Walk& walk, std::size_t wanted,
                         bool method) {
        if (method && std::ranges::any_of(futures, [](auto& f) { return f->isInvalid(); })) {
            return kFuture + "FetchNextInvalidFuture";
        }
        if (walk.state == State::Fetched) {
            return wanted > 1                         ? kFuture + "TooManyOutputsRequested"
                   : fails[futures[walk.index].get()] ? kFuture + "FetchNextFutureErrored"
                                                      : "fetched " + std::to_string(walk.index + 1);
        }
        return method && kMethodErrors.contains(walk.state) ? kMethodErrors.at(walk.state)
                                                            : kStates[int(walk.state)];
    }

    // The answer as text: "fetched <1-based index>", a native state, or an error identifier.
    std::string fetchNext(int a, std::size_t wanted, double timeout, bool method) try {
        if (method) {
            const auto seconds = scalar(timeout);
            const auto out = call("fetchNext", int(wanted) + 1, {arrays[a].get(), seconds.get()});
            return dvIsEmpty(out.at(0).get())
                       ? "timed out"
                       : "fetched " + std::to_string(int(valueOf(out[0].get())));
        }
        const auto [state, index, outputs] =
            FutureBase::fetchNext(natives[a], unsigned(wanted), Seconds(timeout));
        return kStates[int(state)] + (state == State::Fetched ? std::to_string(index + 1) : "");
    } catch (const foundation::core::except::IMsgIDException& error) {
        return error.get_error_id();
    } catch (const KExceptionEnvelope& error) {
        return error.GetID();
    }

    // One call through array `a`. When the walk waits and `wait` is set,
    // work queued for the wait finishes some futures, one it waits for among them.
    void checkCall(int a, bool method, bool wait) {
        const Futures futures = method ? FutureBase::fromKorvexArray(arrays[a].get()) : natives[a];
        Walk walk = referenceWalk(futures);
        const std::size_t wanted = below(4) == 0 ? 2 : below(2);
        wait = wait && expected(futures, walk, wanted, method) == "timed out";
        if (wait) {
            const auto& awaited = futures[walk.running[below(walk.running.size())]];
            std::vector<TestFuture*> finishing;
            for (TestFuture& f : plain) {
                below(4) == 0 || f.future == awaited ? finishing.push_back(&f) : void();
            }
            walk = {State::Fetched, *std::ranges::find_if(walk.running, [&](std::size_t i) {
                        return std::ranges::any_of(
                            finishing, [&](auto* f) { return f->future == futures[i]; });
                    })};
            interpreter->getIqm()->postDetached(u"parallel", [finishing] {
                for (TestFuture* f : finishing) {
                    while (f->future->getState() != FutureState::Finished) {
                        advance(*f);
                    }
                }
            });
        }
        EXPECT_EQ(fetchNext(a, wanted, wait ? 60.0 : 0.0, method),
                  expected(futures, walk, wanted, method));
    }
};

TEST_F(Drain, EveryCallAnswersAsAWalkFromTheFirstFuture) {
    for (unsigned seed = 1; seed <= 40 && !HasFailure(); ++seed) {
        makeWorld(seed);
        for (int step = 0; step < 120 && !HasFailure(); ++step) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
            const int a = int(below(2));
            const std::size_t action = below(100);
            if (action < 30) {
                advance(pick());
            } else if (action < 85) {
                checkCall(a, action % 2 == 0, action % 3 == 0);
            } else if (TestFuture& f = pick();
                       action < 92 && f.task->getState() == FutureState::Finished) {
                try { // read through another way; a failure is raised, and read too
                    FutureBase::fetchOutputs({f.future}, true, 0);
                } catch (const KExceptionEnvelope&) {
                }
            } else if (action == 92) {
                omDeleteObjects(objects({f.future}).get());
            } else if (action > 95) {
                const std::size_t at = below(natives[a].size());
                Futures changed = natives[a]; // a new allocation while the old one lives
                changed[at] = f.future;
                omSetArrayElement(arrays[a].get(), at,
                                  omGetArrayElement(objects({f.future}).get(), 0));
                natives[a].swap(changed);
            }
        }
    }
}

// Thousands of futures finishing in a random order, a few between calls: the
// drain's record of the finished ones spans many words and levels.
TEST_F(Drain, AnswersTheLowestFinishedAmongThousands) {
    random.seed(7);
    plain = std::vector<TestFuture>(5000);
    for (TestFuture& f : plain) {
        natives[0].push_back(f.running().future);
    }
    std::vector<std::size_t> order(plain.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::shuffle(order, random);
    std::set<std::size_t> finished;
    for (std::size_t next = 0; next < order.size() || !finished.empty();) {
        for (std::size_t n = below(40); n > 0 && next < order.size(); --n, ++next) {
            finished.insert(order[next]);
            plain[order[next]].task->doNotifyFinished();
        }
        if (!finished.empty()) {
            ASSERT_EQ(fetchNext(0, 0, 0.0, false),
                      "fetched " + std::to_string(*finished.begin() + 1));
            finished.erase(finished.begin());
        }
    }
    EXPECT_EQ(fetchNext(0, 0, 0.0, false), "none unread");
}

} // namespace
} // namespace parallel::language::future
