// A worker process that dies: run under mpirun with --enable-recovery and
// three workers, so that the job goes on. The work that ran there fails with
// "KORVEX:mpipool:WorkerLost", the work that never started there runs on the
// others (once), a worker that dies idle is noticed without any work, and
// once the last worker is gone every unfinished future fails and new work is
// refused.
#include "ClusterTestSupport.hpp"

#include <unistd.h>

#include <chrono>
#include <thread>

namespace mpipool::testing {
namespace {

using FuturePtr = std::shared_ptr<future::FevalFuture>;

// The error identifier of task `i` of `f` ("" without one).
std::string errorOfTask(const std::shared_ptr<future::FevalOnAllFuture>& f, std::size_t i) {
    EXPECT_TRUE(future::FutureBase::wait({f}, FutureState::Finished, future::Seconds(60)));
    const std::exception_ptr error = f->getError()[i];
    return error ? thrownBy([&] { std::rethrow_exception(error); }) : "";
}

// Every "tally" gave its count or failed because its worker was lost. One
// that ran twice (on the lost worker, unreported, then elsewhere) failed on
// the mark of its first run.
void expectNothingRanTwice(const std::vector<FuturePtr>& tallies) {
    for (std::size_t i = 0; i < tallies.size(); ++i) {
        const std::string error = errorOf(tallies[i]);
        EXPECT_TRUE(error.empty() || error == "KORVEX:mpipool:WorkerLost") << error;
        std::filesystem::remove(ranMark(::getpid(), static_cast<double>(i)));
    }
}

TEST(MpiPoolWorkerLoss, FailsTheLostWorkOnlyAndGoesOnWithTheOthers) {
    MpiPool pool(cluster());
    ASSERT_EQ(pool.getNumWorkers(), 3u);

    // Phase 1: rank 3 dies while every worker has work in flight.
    std::vector<FuturePtr> tallies;
    const auto tally = [&] {
        tallies.push_back(pool.submit(
            handle("tally"), 2, {scalar(::getpid()), scalar(static_cast<double>(tallies.size()))}));
    };
    for (int i = 0; i < 200; ++i) {
        tally();
    }
    const auto dies = pool.submitOnAll(handle("exitOnRank"), 1, {scalar(3)});
    for (int i = 0; i < 200; ++i) {
        tally();
    }
    EXPECT_EQ(errorOfTask(dies, 0), "");
    EXPECT_EQ(errorOfTask(dies, 1), "");
    EXPECT_EQ(errorOfTask(dies, 2), "KORVEX:mpipool:WorkerLost");
    expectNothingRanTwice(tallies);
    EXPECT_EQ(pool.getNumWorkers(), 2u);

    // Phase 2: rank 2 dies while the pool is idle, and no thread waits: the
    // pool notices on its own, which the loop gives a generous deadline.
    const auto diesIdle = pool.submitOnAll(handle("exitSoonOnRank"), 1, {scalar(2), scalar(20)});
    EXPECT_EQ(errorOfTask(diesIdle, 1), "");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (pool.getNumWorkers() == 2 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(pool.getNumWorkers(), 1u);
    const FuturePtr later = pool.submit(handle("tally"), 2, {});
    EXPECT_EQ(errorOf(later), "");

    // Phase 3: the last worker dies with work queued behind it.
    const FuturePtr last = pool.submit(handle("exitOnRank"), 1, {scalar(1), scalar(200)});
    std::vector<FuturePtr> stranded;
    for (int i = 0; i < 20; ++i) {
        stranded.push_back(pool.submit(handle("plusOne"), 1, {scalar(i)}));
    }
    EXPECT_EQ(errorOf(last), "KORVEX:mpipool:WorkerLost");
    for (const FuturePtr& f : stranded) {
        const std::string error = errorOf(f);
        EXPECT_TRUE(error == "KORVEX:mpipool:NoWorkersLeft" || error.empty()) << error;
    }
    EXPECT_EQ(pool.getNumWorkers(), 0u);
    EXPECT_EQ(thrownBy([&] { pool.submit(handle("plusOne"), 1, {}); }),
              "KORVEX:mpipool:NoWorkersLeft");
    EXPECT_EQ(thrownBy([&] { pool.submitOnAll(handle("plusOne"), 1, {}); }),
              "KORVEX:mpipool:NoWorkersLeft");
}

} // namespace
} // namespace mpipool::testing
