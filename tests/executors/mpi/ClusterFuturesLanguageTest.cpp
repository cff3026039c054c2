// Cluster futures as the language uses them: fetchNext, continuations, and
// the language constructors running on the cluster pool.
#include "ClusterTestSupport.hpp"

#include <localpool/LanguageClasses.hpp>
#include <parallel/language/future/AfterAllFuture.hpp>
#include <parallel/language/future/AfterEachFuture.hpp>
#include <parallel/language/future/FetchNextState.hpp>

#include <kcos/COSClass.hpp>
#include <kcos/Language.hpp>

namespace mpipool::testing {
namespace {

using future::FutureBase;
using FuturePtr = std::shared_ptr<FutureBase>;
const future::Seconds kPatience(60);

// fetchNext over `futures`: the index it took and its first output.
std::pair<std::size_t, double> next(const std::vector<FuturePtr>& futures) {
    auto [state, index, outputs] = FutureBase::fetchNext(futures, 1, kPatience);
    EXPECT_EQ(state, future::FetchNextState::Fetched);
    return {index, outputs.empty() || !outputs[0] ? -1.0 : valueOf(outputs[0].get())};
}

// A function for continuations, run on this (the interpreter's) thread.
Array sumOfFirstInput() {
    return Array(matrix::to_korvex(matrix::createFunctionHandle(
                     "sum",
                     [](std::size_t, const DvArrayVector& in) {
                         double sum = 0;
                         for (const double x : dvGetDoubles(in.at(0).get())) {
                             sum += x;
                         }
                         return DvArrayVector{scalar(sum)};
                     })),
                 false);
}

matrix::unique_dvArray construct(const char* className, std::vector<Array> args) {
    std::vector<dvArray*> raw;
    for (const auto& arg : args) {
        raw.push_back(arg.get());
    }
    return matrix::unique_dvArray(omConstructObjectWithClient(
        kcos::internal::makeInterned(className), static_cast<int>(raw.size()), raw.data(),
        COSGetPublicClient()));
}

TEST(ClusterFutures, FetchNextTakesThemInFinishingOrder) {
    MpiPool pool(cluster(), 2);
    // The first keeps its worker until the shutdown; the others share the second worker.
    const std::vector<FuturePtr> futures = {pool.submit(handle("untilStopped"), 1, {}),
                                            pool.submit(handle("plusOne"), 1, {scalar(1)}),
                                            pool.submit(handle("plusOne"), 1, {scalar(2)})};
    EXPECT_EQ(next(futures), std::make_pair(std::size_t{1}, 2.0));
    EXPECT_EQ(next(futures), std::make_pair(std::size_t{2}, 3.0));
    pool.shutdown();
    EXPECT_EQ(next(futures), std::make_pair(std::size_t{0}, 1.0));
}

TEST(ClusterFutures, ContinuationsRunOverThem) {
    MpiPool pool(cluster());
    std::vector<FuturePtr> futures;
    for (double x : {1.0, 2.0, 3.0}) {
        futures.push_back(pool.submit(handle("plusOne"), 1, {scalar(x)}));
    }
    const FuturePtr each =
        future::AfterEachFuture::build(nullptr, sumOfFirstInput(), 1, futures, {}, false);
    const FuturePtr all =
        future::AfterAllFuture::build(nullptr, sumOfFirstInput(), 1, futures, {}, false);
    // fetchNext runs the queued continuations, the ones of `each` included.
    EXPECT_EQ(next({all}).second, 9);
    const DvArrayVector perFuture = FutureBase::fetchOutputs({each}, true, 1);
    const auto values = dvGetDoubles(perFuture.at(0).get());
    EXPECT_EQ(std::vector<double>(values.begin(), values.end()), (std::vector<double>{2, 3, 4}));

    // A failed cluster future is never passed on.
    const FuturePtr failed = pool.submit(handle("fail"), 1, {scalar(1)});
    const FuturePtr after =
        future::AfterAllFuture::build(nullptr, sumOfFirstInput(), 1, {failed}, {}, false);
    EXPECT_EQ(thrownBy([&] { FutureBase::fetchNext({after}, 1, kPatience); }),
              "KORVEX:parallel:future:FetchNextFutureErrored");
    EXPECT_TRUE(after->hasError());
}

TEST(ClusterFutures, TheLanguageConstructorsRunOnTheClusterPool) {
    localpool::setLanguagePool(std::make_shared<MpiPool>(cluster()));
    const matrix::unique_dvArray one =
        construct("parallel.FevalFuture", {handle("plusOne"), scalar(1), scalar(41)});
    const matrix::unique_dvArray onAll =
        construct("parallel.FevalOnAllFuture", {handle("rank"), scalar(1)});
    EXPECT_EQ(next(FutureBase::fromKorvexArray(one.get())).second, 42);
    const DvArrayVector ranks =
        FutureBase::fetchOutputs(FutureBase::fromKorvexArray(onAll.get()), true, 1);
    EXPECT_EQ(dvGetNumberOfElements(ranks.at(0).get()),
              static_cast<std::size_t>(cluster().getSize() - 1));
    const Array unregistered(matrix::to_korvex(matrix::createFunctionHandle("onlyHere", {})),
                             false);
    EXPECT_EQ(thrownBy([&] {
                  construct("parallel.FevalFuture", {unregistered, scalar(0)});
              }),
              "KORVEX:mpipool:UnregisteredFunction");
    localpool::setLanguagePool(nullptr);
}

} // namespace
} // namespace mpipool::testing
