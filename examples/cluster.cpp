// The demo's kind of evaluations on a cluster pool, whose workers are the
// processes of an MPI job:
//
//   scripts/cluster-run -n 3 build/release/examples/cluster                   # this machine
//   scripts/cluster-run -n 9 --hostfile hosts build/release/examples/cluster  # across machines
//
// Rank 0 runs the interpreter and the futures; every other rank is a worker.
// Every process registers the same functions, since functions cross by name.
//
// In order:
//   - parallel.FevalFuture, the language constructor, starts evaluations on
//     the cluster pool; fetchNext takes each result as it arrives, one of
//     them an error with its cause;
//   - a long evaluation is cancelled on its worker;
//   - afterAll totals the results on this process;
//   - parallel.FevalOnAllFuture asks every worker where it runs;
//   - a Monte Carlo estimate of pi, split into 64 evaluations.

#include <mpipool/Cluster.hpp>
#include <mpipool/FunctionRegistry.hpp>
#include <mpipool/MpiPool.hpp>

#include <executor/LanguageClasses.hpp>
#include <parallel/language/future/AfterAllFuture.hpp>
#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/Module.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <foundation/core/str/Utf.hpp>
#include <kcos/COSClass.hpp>
#include <kcos/Language.hpp>
#include <kvm/KVM.hpp>

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <iostream>
#include <thread>

namespace {

namespace pf = parallel::language::future;
using pf::FutureBase;
using Array = boost::intrusive_ptr<dvArray>;
using Futures = std::vector<std::shared_ptr<FutureBase>>;

constexpr double kSamplesPerTask = 2e6;
constexpr int kMonteCarloTasks = 64;

Array number(double value) {
    return {matrix::to_korvex(dvCreateDoubleScalar(value)), false};
}

Array word(const std::string& text) {
    return {matrix::to_korvex(matrix::create(text.c_str(), text.size())), false};
}

double numberOf(const Array& value) {
    return dvGetDoubles(value.get())[0];
}

std::string hostName() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return name;
}

// The functions every process registers, the same way.
void registerFunctions() {
    // x squared, after x tenths of a second; says so in its diary.
    mpipool::registerFunction("slowSquare", [](std::size_t, const pf::DvArrayVector& in) {
        const double x = numberOf(in.at(0));
        for (int tenth = 0; tenth < x && !mpipool::stopRequested(); ++tenth) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        kvm::print(u"squared on " + foundation::core::str::toUtf16(hostName()) + u"\n");
        return pf::DvArrayVector{number(x * x)};
    });
    mpipool::registerFunction("invertMatrix",
                              [](std::size_t, const pf::DvArrayVector&) -> pf::DvArrayVector {
                                  throw Veldspire::KException::KExceptionEnvelope(
                                      "demo:singular", u"The matrix is singular.");
                              });
    mpipool::registerFunction("whereAmI", [](std::size_t, const pf::DvArrayVector&) {
        return pf::DvArrayVector{
            word("rank " + std::to_string(mpipool::thisRank()) + " on " + hostName())};
    });
    mpipool::registerFunction("monteCarlo", [](std::size_t, const pf::DvArrayVector& in) {
        std::uint64_t state =
            0x9E3779B97F4A7C15ull ^ static_cast<std::uint64_t>(numberOf(in.at(1)) + 1);
        double hits = 0;
        for (double i = 0; i < numberOf(in.at(0)); ++i) {
            state ^= state << 13, state ^= state >> 7, state ^= state << 17;
            const double x = static_cast<double>(state >> 11) * 0x1.0p-53;
            state ^= state << 13, state ^= state >> 7, state ^= state << 17;
            const double y = static_cast<double>(state >> 11) * 0x1.0p-53;
            hits += x * x + y * y <= 1.0 ? 1 : 0;
        }
        return pf::DvArrayVector{number(hits)};
    });
}

// parallel.FevalFuture(fcn, numOutputs, args...), as the language calls it.
std::shared_ptr<FutureBase> construct(const char* function, std::vector<Array> args) {
    std::vector<Array> all{mpipool::functionHandle(function), number(1)};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<dvArray*> raw;
    for (const auto& arg : all) {
        raw.push_back(arg.get());
    }
    matrix::unique_dvArray object(omConstructObjectWithClient(
        kcos::internal::makeInterned("parallel.FevalFuture"), static_cast<int>(raw.size()),
        raw.data(), COSGetPublicClient()));
    return FutureBase::fromKorvexArray(object.get()).at(0);
}

std::string diaryOf(const std::shared_ptr<FutureBase>& future) {
    const auto feval = std::dynamic_pointer_cast<pf::FevalFuture>(future);
    return feval ? foundation::core::str::toUtf8(feval->getTask()->getDiary()) : "";
}

void section(const char* title) {
    std::cout << "\n== " << title << '\n';
}

Futures evaluateAsTheyArrive() {
    section("fetchNext: each result as it arrives");
    const Futures f = {construct("slowSquare", {number(5)}), construct("invertMatrix", {}),
                       construct("slowSquare", {number(1)}), construct("slowSquare", {number(3)})};
    for (std::size_t k = 0; k < f.size(); ++k) {
        try {
            auto [state, index, outputs] = FutureBase::fetchNext(f, 1, pf::Seconds(30));
            std::cout << "  f(" << index + 1 << ") gave " << numberOf(outputs.at(0))
                      << "; diary: " << diaryOf(f[index]);
        } catch (const Veldspire::KException::KExceptionEnvelope& error) {
            std::cout << "  an evaluation failed: " << error.what() << '\n';
            for (const auto& cause : error.GetCauses()) {
                std::cout << "    cause " << cause.GetID() << ": " << cause.what() << '\n';
            }
        }
    }
    return f;
}

void cancelALongOne(mpipool::MpiPool& pool) {
    section("cancel: a long evaluation, stopped on its worker");
    const auto f = pool.submit(mpipool::functionHandle("slowSquare"), 1, {number(600)});
    f->getTask()->wait(pf::FutureState::Running,
                       pf::clock::getCurrentSteadyTime() + pf::Seconds(30));
    f->cancel();
    const auto error = f->getErrorAsDvArray();
    std::cout << "  state after cancel: "
              << (f->getState() == pf::FutureState::Finished ? "finished" : "not finished")
              << ", error: " << Veldspire::KException::KExceptionEnvelope(error.get()).what()
              << '\n';
}

void totalWithAfterAll(const Futures& f) {
    section("afterAll: the total of the squares, on this process");
    const Array total(matrix::to_korvex(matrix::createFunctionHandle(
                          "total",
                          [](std::size_t, const pf::DvArrayVector& in) {
                              double sum = 0;
                              for (const double x : dvGetDoubles(in.at(0).get())) {
                                  sum += x;
                              }
                              return pf::DvArrayVector{number(sum)};
                          })),
                      false);
    const Futures squares = {f[0], f[2], f[3]};
    const auto all = pf::AfterAllFuture::build(nullptr, total, 1, squares, {}, false);
    auto [state, index, outputs] = FutureBase::fetchNext({all}, 1, pf::Seconds(30));
    std::cout << "  25 + 1 + 9 = " << numberOf(outputs.at(0)) << '\n';
}

void askEveryWorker() {
    section("parallel.FevalOnAllFuture: one evaluation on every worker");
    dvArray* args[] = {mpipool::functionHandle("whereAmI").detach(), number(1).detach()};
    matrix::unique_dvArray object(omConstructObjectWithClient(
        kcos::internal::makeInterned("parallel.FevalOnAllFuture"), 2, args, COSGetPublicClient()));
    for (dvArray* arg : args) {
        matrix::destroyArray(arg);
    }
    const auto outputs =
        FutureBase::fetchOutputs(FutureBase::fromKorvexArray(object.get()), false, 1);
    const dvArray* cell = outputs.at(0).get();
    for (std::size_t i = 0; i < dvGetNumberOfElements(cell); ++i) {
        std::cout << "  " << foundation::core::str::toUtf8(dvGetChars(dvGetCell(cell, i))) << '\n';
    }
}

void estimatePi(mpipool::MpiPool& pool) {
    section("Monte Carlo: pi from 64 evaluations");
    const auto started = std::chrono::steady_clock::now();
    Futures f;
    for (int i = 0; i < kMonteCarloTasks; ++i) {
        f.push_back(pool.submit(mpipool::functionHandle("monteCarlo"), 1,
                                {number(kSamplesPerTask), number(i)}));
    }
    const auto hits = FutureBase::fetchOutputs(f, true, 1);
    double total = 0;
    for (const double h : dvGetDoubles(hits.at(0).get())) {
        total += h;
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
    std::cout << "  pi is about " << 4 * total / (kMonteCarloTasks * kSamplesPerTask) << " ("
              << kMonteCarloTasks * kSamplesPerTask << " samples on " << pool.getNumWorkers()
              << " workers in " << took.count() << " s)\n";
}

} // namespace

int main(int argc, char** argv) {
    registerFunctions();
    mpipool::Cluster cluster(argc, argv);
    if (!cluster.isClient()) {
        return cluster.serve();
    }
    const auto interpreter = kvm::KVM::create();
    KVInitialize_libqzparallellanguagefuture();
    executor::registerLanguageClasses();
    try {
        auto pool = std::make_shared<mpipool::MpiPool>(cluster);
        std::cout << "A cluster pool of " << pool->getNumWorkers()
                  << " worker processes; client on " << hostName() << '\n';
        executor::setLanguagePool(pool);
        const Futures f = evaluateAsTheyArrive();
        cancelALongOne(*pool);
        totalWithAfterAll(f);
        askEveryWorker();
        estimatePi(*pool);
        executor::setLanguagePool(nullptr);
    } catch (const std::exception& error) {
        executor::setLanguagePool(nullptr);
        std::cout << "The example stopped on an error: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
