// qz-test-label: concurrency
// Many evaluations on the local pool, batch after batch, with failures and
// cancels from another thread: every future ends exactly one way, and the
// pool keeps nothing of the work that has ended. QZ_SOAK_BATCHES=<n> sets the
// number of batches (fewer by default in sanitizer and debug builds).
#include <localpool/LocalPool.hpp>

#include <parallel/language/future/support/FutureTestSupport.hpp>
#include <support/ErrorIds.hpp>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace localpool {
namespace {

namespace future = parallel::language::future;
using namespace future::testing;
using future::FutureState;
using Array = boost::intrusive_ptr<dvArray>;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !defined(NDEBUG)
constexpr int kDefaultBatches = 20;
#else
constexpr int kDefaultBatches = 200;
#endif
constexpr int kBatchSize = 250;
constexpr std::size_t kWorkers = 4;

// What a function does: answer x + 1, fail, or spin until asked to stop
// (only ever given to futures that are cancelled).
enum class Mode { Answer, Fail, UntilStopped };

Array functionFor(Mode mode) {
    return functionHandle("soaked", [mode](std::size_t, const DvArrayVector& in) {
        if (mode == Mode::Fail) {
            throw KExceptionEnvelope("soak:Failed", u"Failed on purpose.");
        }
        while (mode == Mode::UntilStopped && !stopRequested()) {
            std::this_thread::yield();
        }
        return DvArrayVector{scalar(valueOf(in.at(0).get()) + 1)};
    });
}

// "answered", "failed" or "cancelled", or what went wrong.
std::string outcomeOf(const std::shared_ptr<FevalFuture>& f, double input) {
    const auto task = f->getTask();
    if (!task->wait(FutureState::Finished, secondsFromNow(kGenerous.count()))) {
        return "not finished";
    }
    const auto result = task->getOutputsOrError();
    if (!result.hasError()) {
        return valueOf(result.value().value().at(0).get()) == input + 1 ? "answered"
                                                                        : "wrong output";
    }
    const std::string id = testsupport::idOf(result.error());
    return id == "KORVEX:parallel:future:ExecutionCancelled" ? "cancelled"
           : id == "soak:Failed"                             ? "failed"
                                                             : id;
}

TEST(LocalPoolSoak, EveryFutureEndsOneWayAndThePoolKeepsNothingOfEndedWork) {
    const char* fromEnvironment = std::getenv("QZ_SOAK_BATCHES");
    const int batches = fromEnvironment ? std::atoi(fromEnvironment) : kDefaultBatches;
    std::mt19937_64 rng(20240612);
    const Array functions[] = {functionFor(Mode::Answer), functionFor(Mode::Fail),
                               functionFor(Mode::UntilStopped)};
    const Array nothing = functionFor(Mode::Answer);
    LocalPool pool(kWorkers);
    std::map<std::string, int> total;

    for (int batch = 0; batch < batches; ++batch) {
        std::vector<std::shared_ptr<FevalFuture>> futures;
        std::vector<Mode> modes;
        std::vector<bool> cancelled(kBatchSize, false);
        std::vector<std::size_t> toCancel;
        for (int i = 0; i < kBatchSize; ++i) {
            const auto draw = rng() % 10;
            const Mode mode = draw < 6 ? Mode::Answer : draw < 8 ? Mode::Fail : Mode::UntilStopped;
            modes.push_back(mode);
            futures.push_back(pool.submit(functions[static_cast<int>(mode)], 1,
                                          {scalar(batch * kBatchSize + i)}));
            if (mode == Mode::UntilStopped || rng() % 8 == 0) {
                toCancel.push_back(futures.size() - 1);
                cancelled[futures.size() - 1] = true;
            }
        }
        std::shuffle(toCancel.begin(), toCancel.end(), rng);
        // Cancels while the futures are waited for and run.
        std::jthread canceller([&] {
            for (std::size_t i : toCancel) {
                futures[i]->cancel();
            }
        });

        std::map<std::string, int> counts;
        for (int i = 0; i < kBatchSize; ++i) {
            const std::string outcome = outcomeOf(futures[i], batch * kBatchSize + i);
            ++counts[outcome];
            const std::string expected = modes[i] == Mode::Answer ? "answered"
                                         : modes[i] == Mode::Fail ? "failed"
                                                                  : "cancelled";
            if (outcome != expected && !(cancelled[i] && outcome == "cancelled")) {
                ADD_FAILURE() << "batch " << batch << " future " << i << ": " << outcome;
            }
        }
        canceller.join();
        EXPECT_EQ(counts["answered"] + counts["failed"] + counts["cancelled"], kBatchSize);
        EXPECT_LE(counts["cancelled"], static_cast<int>(toCancel.size()));
        for (const auto& [outcome, n] : counts) {
            total[outcome] += n;
        }

        // Every worker takes its pinned task only after it has let go of the
        // one before: then nothing of this batch is held by the pool.
        const auto barrier = pool.submitOnAll(nothing, 1, {scalar(0)});
        ASSERT_TRUE(future::FutureBase::wait({barrier}, FutureState::Finished, kGenerous));
        std::vector<std::weak_ptr<void>> ended;
        for (const auto& f : futures) {
            ended.push_back(f);
            ended.push_back(f->getTask());
        }
        futures.clear();
        EXPECT_TRUE(
            std::all_of(ended.begin(), ended.end(), [](const auto& w) { return w.expired(); }))
            << "batch " << batch << ": the pool still holds ended work";
    }
    EXPECT_EQ(total["answered"] + total["failed"] + total["cancelled"], batches * kBatchSize);
    EXPECT_GT(total["failed"], 0);
    EXPECT_GT(total["answered"], 0);
}

} // namespace
} // namespace localpool
