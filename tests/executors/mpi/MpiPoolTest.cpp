// The cluster pool on its own: evaluations on worker processes read like
// evaluations on worker threads, cancellation and shutdown reach the workers,
// and bad input is refused without losing anything.
#include "ClusterTestSupport.hpp"

#include <mpipool/FunctionRegistry.hpp>

#include <parallel/language/future/FetchNextState.hpp>
#include <parallel/language/future/ScopedTaskFinishedListener.hpp>
#include <parallel/language/future/support/ContinuationSupport.hpp>

#include <localpool/LocalPool.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <kcos/array.hpp>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>

namespace mpipool::testing {
namespace {

using Envelope = Veldspire::KException::KExceptionEnvelope;
using FuturePtr = std::shared_ptr<future::FevalFuture>;

// Arrays of every kind that crosses processes, nested and empty ones included.
DvArrayVector everyKind() {
    matrix::unique_dvArray matrix23 =
        matrix::detail::do_create_numeric({2, 3}, matrix::ClassID::Double);
    for (std::size_t i = 0; i < 6; ++i) {
        dvGetMutableDoubles(matrix23.get())[i] = 0.5 * static_cast<double>(i) - 1;
    }
    matrix::unique_dvArray flags =
        matrix::detail::do_create_numeric({1, 3}, matrix::ClassID::Logical);
    dvGetMutableLogicals(flags.get())[1] = 1;
    matrix::unique_dvArray record = matrix::detail::do_create_struct({1, 2}, {"name", "value"});
    dvSetField(record.get(), 0, "name", matrix::create(u"\u00e9t\u00e9", 3));
    dvSetField(record.get(), 1, "value", dvCreateDoubleScalar(7));
    matrix::unique_dvArray cell = matrix::detail::do_create_cell({2, 2});
    dvSetCell(cell.get(), 0, std::move(record));
    dvSetCell(cell.get(), 1, matrix::from_korvex(handle("plusOne").detach()));
    dvSetCell(cell.get(), 3, dvCreateLogicalScalar(true)); // element 2 stays empty
    auto array = [](matrix::unique_dvArray a) {
        return Array(matrix::to_korvex(std::move(a)), false);
    };
    return {array(std::move(matrix23)),
            array(std::move(flags)),
            array(matrix::createChars({2, 2}, u"abcd")),
            array(std::move(cell)),
            array(matrix::detail::do_create_numeric({0, 0}, matrix::ClassID::Double)),
            array(matrix::createChars({1, 0}, u"")),
            array(matrix::detail::do_create_struct({0, 1}, {"field"})),
            handle("identity")};
}

// The same functions on the same inputs, on worker threads and on worker
// processes: equal outputs, equal errors (identifiers, texts, arguments and
// causes), equal diaries; times from the workers' reports.
TEST(MpiPool, FuturesReadTheSameAsOnTheLocalPool) {
    struct Case {
        const char* function;
        unsigned int numOutputs;
        DvArrayVector inputs;
    };
    const DvArrayVector kinds = everyKind();
    const std::vector<Case> cases = {
        {"identity", static_cast<unsigned int>(kinds.size()), kinds},
        {"callFirst", 1, {handle("plusOne"), scalar(2)}},
        {"plusOne", 0, {}},
        {"plusOne", 1, {scalar(41)}},
        {"plusOne", 3, {scalar(1)}}, // too many outputs asked for
        {"fail", 1, {scalar(1)}},
        {"fail", 1, {scalar(2)}},
        {"fail", 1, {scalar(3)}},
        {"fail", 1, {scalar(4)}},
    };
    localpool::LocalPool local(2);
    MpiPool remote(cluster());
    EXPECT_EQ(remote.getNumWorkers(), static_cast<std::size_t>(cluster().getSize() - 1));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.function);
        const FuturePtr here = local.submit(handle(c.function), c.numOutputs, c.inputs);
        const FuturePtr there = remote.submit(handle(c.function), c.numOutputs, c.inputs);
        ASSERT_TRUE(reaches(here, FutureState::Finished));
        ASSERT_TRUE(reaches(there, FutureState::Finished));
        EXPECT_GT(there->getStartTime().time_since_epoch().count(), 0.0);
        EXPECT_LE(there->getStartTime(), there->getFinishTime());
        EXPECT_EQ(here->getTask()->getDiary(), there->getTask()->getDiary());
        const matrix::unique_dvArray hereError = here->getErrorAsDvArray();
        const matrix::unique_dvArray thereError = there->getErrorAsDvArray();
        ASSERT_EQ(hereError == nullptr, thereError == nullptr);
        if (hereError) {
            EXPECT_EQ(Envelope(hereError.get()), Envelope(thereError.get()))
                << Envelope(hereError.get()).what() << " / " << Envelope(thereError.get()).what();
        } else {
            EXPECT_TRUE(
                dvIsEqual(here->getOutputsAsDvArray().get(), there->getOutputsAsDvArray().get()));
        }
    }
}

// Only Finished wakes a fetchNext asleep on another thread: every task that
// a cancel or the shutdown ends must tell the listeners.
struct CountingListener : future::TaskFinishedListener {
    std::atomic<int> calls{0};
    void onTaskFinished() override { ++calls; }
};

// Occupies every worker of `pool` until the returned futures are cancelled,
// one after another: each goes out while the pool knows the ones before run.
std::vector<FuturePtr> occupyEveryWorker(MpiPool& pool) {
    std::vector<FuturePtr> running;
    for (std::size_t i = 0; i < pool.getNumWorkers(); ++i) {
        running.push_back(pool.submit(handle("untilStopped"), 1, {}));
        EXPECT_TRUE(reaches(running.back(), FutureState::Running));
    }
    return running;
}

TEST(MpiPool, CancelSkipsQueuedWorkAndStopsRunningWork) {
    MpiPool pool(cluster());
    const std::vector<FuturePtr> running = occupyEveryWorker(pool);
    const FuturePtr queued = pool.submit(handle("tally"), 1, {});
    EXPECT_EQ(queued->getState(), FutureState::Queued);
    const auto finished = std::make_shared<CountingListener>();
    const future::ScopedTaskFinishedListener listening(finished);
    queued->cancel();
    EXPECT_EQ(errorOf(queued), kCancelled);
    EXPECT_EQ(finished->calls, 1) << "the cancel of a queued task";
    for (const auto& f : running) {
        f->cancel();
        EXPECT_EQ(errorOf(f), kCancelled);
    }
    // Every worker is free again, and none ever ran the cancelled tally; task
    // i of an evaluation on every worker runs on worker i (rank i + 1).
    const auto onAll = pool.submitOnAll(handle("tallyAndRank"), 2, {});
    const DvArrayVector all = future::FutureBase::fetchOutputs({onAll}, true, 2);
    for (std::size_t i = 0; i < pool.getNumWorkers(); ++i) {
        EXPECT_EQ(dvGetDoubles(all.at(0).get())[i], 0);
        EXPECT_EQ(dvGetDoubles(all.at(1).get())[i], static_cast<double>(i + 1));
    }
}

TEST(MpiPool, ShutdownStopsRunningWorkCancelsQueuedWorkAndFreesTheWorkers) {
    std::vector<FuturePtr> running;
    FuturePtr queued;
    const auto finished = std::make_shared<CountingListener>();
    const future::ScopedTaskFinishedListener listening(finished);
    {
        MpiPool pool(cluster());
        running = occupyEveryWorker(pool);
        queued = pool.submit(handle("plusOne"), 1, {});
        EXPECT_EQ(thrownBy([] { MpiPool{cluster()}; }), "KORVEX:mpipool:PoolAlreadyOpen");
    }
    // Asked to stop by the shutdown, the running functions return normally.
    for (const auto& f : running) {
        EXPECT_EQ(outputOf(f), 1);
    }
    EXPECT_EQ(errorOf(queued), kCancelled);
    EXPECT_EQ(finished->calls, static_cast<int>(running.size()) + 1);
    MpiPool next(cluster());
    EXPECT_EQ(outputOf(next.submit(handle("plusOne"), 1, {scalar(9)})), 10);
}

TEST(MpiPool, RefusesWhatCannotBeSentAndLosesNothing) {
    MpiPool pool(cluster());
    const FuturePtr before = pool.submit(handle("plusOne"), 1, {scalar(1)});
    const Array unregistered(matrix::to_korvex(matrix::createFunctionHandle("notRegistered", {})),
                             false);
    EXPECT_EQ(thrownBy([&] { pool.submit(unregistered, 1, {}); }),
              "KORVEX:mpipool:UnregisteredFunction");
    try {
        pool.submitOnAll(handle("identity"), 1, {unregistered});
        ADD_FAILURE() << "an unregistered function handle was sent";
    } catch (const std::exception& e) {
        EXPECT_NE(std::string(e.what()).find("'notRegistered'"), std::string::npos) << e.what();
    }
    const Array object(
        matrix::to_korvex(kcos::array::create(Envelope("a:b", u"c").GetExceptionObject())), false);
    EXPECT_EQ(thrownBy([&] {
                  pool.submit(handle("identity"), 1, {scalar(1), object});
              }),
              "KORVEX:mpipool:UnsupportedArray");
    EXPECT_EQ(thrownBy([&] { pool.submit(handle("plusOne"), 4000000000u, {}); }), "KORVEX:maxlhs");
    EXPECT_EQ(thrownBy([&] { registerFunction("plusOne", {}); }),
              "KORVEX:mpipool:DuplicateFunction");

    // Failures on the worker become the future's error.
    EXPECT_EQ(errorOf(pool.submit(handle("giveObject"), 1, {})), "KORVEX:mpipool:UnsupportedArray");

    EXPECT_EQ(outputOf(before), 2);
    EXPECT_EQ(outputOf(pool.submit(handle("plusOne"), 1, {scalar(2)})), 3);

    pool.shutdown();
    EXPECT_EQ(thrownBy([&] { pool.submit(handle("plusOne"), 1, {}); }),
              "KORVEX:executor:PoolShutDown");
    EXPECT_EQ(thrownBy([&] { pool.submitOnAll(handle("plusOne"), 1, {}); }),
              "KORVEX:executor:PoolShutDown");
}

// The tests run with 64 KiB chunks (see CMakeLists.txt): an array of a few
// MiB crosses in dozens of chunks each way and arrives whole; a cell nested
// deeper than any stack crosses as well.
TEST(MpiPool, LargeAndDeepArraysCrossWhole) {
    MpiPool pool(cluster());
    constexpr std::size_t kDoubles = 300'000;
    matrix::unique_dvArray big =
        matrix::detail::do_create_numeric({kDoubles, 1}, matrix::ClassID::Double);
    for (std::size_t i = 0; i < kDoubles; ++i) {
        dvGetMutableDoubles(big.get())[i] = static_cast<double>(i) * 0.25;
    }
    const Array input(matrix::to_korvex(std::move(big)), false);
    const FuturePtr f = pool.submit(handle("identity"), 1, {input});
    ASSERT_TRUE(reaches(f, FutureState::Finished));
    const auto result = f->getTask()->getOutputsOrError();
    ASSERT_FALSE(result.hasError()) << errorOf(f);
    const std::span<const double> back = dvGetDoubles(result.value()->at(0).get());
    const std::span<const double> sent = dvGetDoubles(input.get());
    EXPECT_TRUE(std::ranges::equal(back, sent));

    const std::size_t depth = future::testing::underSanitizer() ? 10'000 : 100'000;
    matrix::unique_dvArray nest = dvCreateDoubleScalar(7);
    for (std::size_t i = 0; i < depth; ++i) {
        matrix::unique_dvArray outer = matrix::detail::do_create_cell({1, 1});
        dvSetCell(outer.get(), 0, std::move(nest));
        nest = std::move(outer);
    }
    const FuturePtr deep =
        pool.submit(handle("identity"), 1, {Array(matrix::to_korvex(std::move(nest)), false)});
    ASSERT_EQ(errorOf(deep), "");
    const dvArray* level = deep->getTask()->getOutputsOrError().value()->at(0).get();
    for (std::size_t i = 0; i < depth && level != nullptr; ++i) {
        level = dvGetCell(level, 0);
    }
    ASSERT_NE(level, nullptr);
    EXPECT_EQ(valueOf(level), 7);
}

// A fetchNext asleep on the interpreter thread wakes as each worker's result arrives.
TEST(MpiPool, FetchNextTakesFuturesInFinishingOrder) {
    MpiPool pool(cluster(), 2);
    // The first keeps its worker until the shutdown (it runs before the others
    // go out, so the shutdown stops it rather than cancels it); the others
    // share the second worker.
    const FuturePtr first = pool.submit(handle("untilStopped"), 1, {});
    ASSERT_TRUE(reaches(first, FutureState::Running));
    const std::vector<std::shared_ptr<future::FutureBase>> futures = {
        first, pool.submit(handle("plusOne"), 1, {scalar(1)}),
        pool.submit(handle("plusOne"), 1, {scalar(2)})};
    const auto next = [&] {
        auto [state, index, outputs] =
            future::FutureBase::fetchNext(futures, 1, future::Seconds(60));
        EXPECT_EQ(state, future::FetchNextState::Fetched);
        return std::make_pair(index, outputs.empty() ? -1.0 : valueOf(outputs[0].get()));
    };
    EXPECT_EQ(next(), std::make_pair(std::size_t{1}, 2.0));
    EXPECT_EQ(next(), std::make_pair(std::size_t{2}, 3.0));
    pool.shutdown();
    EXPECT_EQ(next(), std::make_pair(std::size_t{0}, 1.0));
}

// Work that outlasts the submitting thread's look for its result, waited for
// on a thread that takes no reports in: the pool's own link takes it in.
TEST(MpiPool, ResultsReachAWaitOffTheInterpreterThread) {
    MpiPool pool(cluster());
    for (int i = 0; i < 3; ++i) {
        const FuturePtr f = pool.submit(handle("pause"), 1, {scalar(20)});
        std::thread elsewhere([&] { EXPECT_TRUE(reaches(f, FutureState::Finished)); });
        elsewhere.join();
    }
}

TEST(MpiPool, RefusesWorkerCountsTheClusterCannotGive) {
    const auto available = static_cast<std::size_t>(cluster().getSize() - 1);
    EXPECT_EQ(thrownBy([] { MpiPool{cluster(), 0}; }), "KORVEX:mpipool:InvalidNumWorkers");
    EXPECT_EQ(thrownBy([&] {
                  MpiPool{cluster(), available + 1};
              }),
              "KORVEX:mpipool:InvalidNumWorkers");
    MpiPool one(cluster(), 1);
    EXPECT_EQ(one.getNumWorkers(), 1u);
}

} // namespace
} // namespace mpipool::testing
