// Cluster futures as the language uses them: fetchNext, and the language
// constructors running on the cluster pool.
#include "ClusterTestSupport.hpp"

#include <localpool/LanguageClasses.hpp>
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
