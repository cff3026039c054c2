// Draining N futures held in one object array by calling the language method
// "fetchNext" on the array until it raises NoUnreadFutures, as a program in
// the language does:
//
//     for k = 1:numel(F), [idx, value] = fetchNext(F); end
//
// The futures are FevalFutures over bench tasks, finished before the drain
// (argument Finishing::Before) or finished by another thread in a random
// order while the drain waits (Finishing::During).
//
// The drain should cost the same per call whatever N is: counters
// ns_per_call (time over the N + 1 calls) and ms_per_drain.

#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/Module.hpp>

#include <foundation/core/except/Exception.hpp>
#include <kcos/Language.hpp>
#include <kvm/KVM.hpp>

#include "FetchNextDrainSupport.hpp"

#include <benchmark/benchmark.h>

namespace {

namespace pf = parallel::language::future;
using namespace bench::drain;

// Calls "fetchNext" for the index and one output until NoUnreadFutures;
// the number of calls that fetched a future.
std::size_t drain(const dvArray* futures) {
    for (std::size_t fetched = 0;; ++fetched) {
        try {
            auto outputs = omInvokeMethod("fetchNext", 2, {futures}, COSGetPublicClient());
            benchmark::DoNotOptimize(outputs.data());
        } catch (const foundation::core::except::IMsgIDException& error) {
            if (error.get_error_id() != "KORVEX:parallel:future:NoUnreadFutures") {
                throw;
            }
            return fetched;
        }
    }
}

void BM_FetchNextMethodDrain(benchmark::State& state) {
    const auto interpreter = kvm::KVM::create();
    KVInitialize_libqzparallellanguagefuture();
    timeDrains(state, [](DrainFutures& made) {
        std::shared_ptr<dvArray> array(
            matrix::to_korvex(pf::FutureBase::toKorvexArray(made.futures, {})),
            matrix::destroyArray);
        made.futures.clear(); // the array holds them alone, as in the language
        return [array] { return std::optional(drain(array.get())); };
    });
}

} // namespace

BENCHMARK(BM_FetchNextMethodDrain)->Apply(drainArguments);

BENCHMARK_MAIN();
