// A handful of evaluations on a local pool of four workers, started from the
// language: each is an object of the class "parallel.Future" made by the
// constructor "parallel.FevalFuture". The array of them is displayed, then
// collected on the interpreter thread in the order they finish. One of them
// fails; its error shows up through fetchNext, through fetchOutputs and in
// its "Error" property. Finally "parallel.FevalOnAllFuture" runs one
// evaluation on every worker: its outputs and diaries come back per worker.
// Last, continuations: "afterEach" post-processes each evaluation's result on
// the interpreter thread as it arrives, and "afterAll" combines them; one
// failing evaluation turns the combination into PrecedingExecutionErrors.
//
// Nothing is traced unless KORVEX_LOG names channels, for example
//   KORVEX_LOG="parallel::language::future::FutureBase=96" ./demo
// which writes the traces to standard error.

#include <parallel/language/future/AfterAllFuture.hpp>
#include <parallel/language/future/AfterEachFuture.hpp>
#include <parallel/language/future/FetchNextState.hpp>
#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/Module.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <foundation/core/str/Utf.hpp>
#include <foundation/log/configuration.hpp>
#include <kcos/Language.hpp>
#include <kcos/array.hpp>
#include <kvm/KVM.hpp>
#include <localpool/LanguageClasses.hpp>
#include <localpool/LocalPool.hpp>
#include <matrix/dvArray.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace pf = parallel::language::future;
using Arrays = std::vector<boost::intrusive_ptr<dvArray>>;
using Veldspire::KException::KExceptionEnvelope;
using namespace std::chrono_literals;

boost::intrusive_ptr<dvArray> scalar(double value) {
    return {matrix::to_korvex(dvCreateDoubleScalar(value)), false};
}

double valueOf(const Arrays& arrays) {
    return dvGetDoubles(arrays.at(0).get())[0];
}

boost::intrusive_ptr<dvArray> function(std::string name, matrix::FunctionBody body) {
    return {matrix::to_korvex(matrix::createFunctionHandle(std::move(name), std::move(body))),
            false};
}

// x -> x * x after `delay`.
boost::intrusive_ptr<dvArray> slowSquare(std::chrono::milliseconds delay) {
    return function("slowSquare", [delay](std::size_t, const Arrays& inputs) -> Arrays {
        std::this_thread::sleep_for(delay);
        const double x = valueOf(inputs);
        return {scalar(x * x)};
    });
}

// Gives up on its matrix after a while, as a solver would on a singular one.
boost::intrusive_ptr<dvArray> invertMatrix() {
    return function("invertMatrix", [](std::size_t, const Arrays&) -> Arrays {
        std::this_thread::sleep_for(300ms);
        throw KExceptionEnvelope("demo:invertMatrix:singular",
                                 u"Matrix is singular to working precision.");
    });
}

// Tells what it does into its diary.
boost::intrusive_ptr<dvArray> chattyHalf() {
    return function("chattyHalf", [](std::size_t, const Arrays& inputs) -> Arrays {
        const double x = valueOf(inputs);
        char line[64];
        std::snprintf(line, sizeof line, "halving %g\n", x);
        kvm::print(foundation::core::str::toUtf16(line));
        std::this_thread::sleep_for(200ms);
        kvm::print(u"done\n");
        return {scalar(x / 2)};
    });
}

std::string text(const std::u16string& utf16) {
    return foundation::core::str::toUtf8(utf16);
}

// Meant to run once on every worker: takes the next number, counting up from
// its input in the order the workers get to it, reports it in its diary and
// gives it back.
boost::intrusive_ptr<dvArray> rollCall(std::shared_ptr<std::atomic<int>> next) {
    return function("rollCall", [next](std::size_t, const Arrays& inputs) -> Arrays {
        const int number = static_cast<int>(valueOf(inputs)) + next->fetch_add(1);
        kvm::print(
            foundation::core::str::toUtf16("reporting as number " + std::to_string(number) + "\n"));
        return {scalar(number)};
    });
}

void printCauses(const KExceptionEnvelope& error, const std::string& indent) {
    for (const KExceptionEnvelope& cause : error.GetCauses()) {
        std::cout << indent << "caused by " << cause.GetID() << ": " << text(cause.GetMessage())
                  << '\n';
        printCauses(cause, indent + "  ");
    }
}

void printError(const char* what, const KExceptionEnvelope& error) {
    std::cout << "  " << what << ": " << error.GetID() << "\n    " << text(error.GetMessage())
              << '\n';
    printCauses(error, "    ");
}

// The lines of a diary, one by one.
void printDiary(const std::string& diary) {
    for (std::size_t start = 0; start < diary.size();) {
        const std::size_t end = std::min(diary.find('\n', start), diary.size());
        std::cout << "      diary: " << diary.substr(start, end - start) << '\n';
        start = end + 1;
    }
}

// One line per fetched future: index, ID, value (none when it failed) and
// how long it ran, then its diary, if it printed anything, line by line.
void printFetched(std::size_t index, const pf::FutureBase& future, std::optional<double> value) {
    char shown[32] = "failed";
    if (value) {
        std::snprintf(shown, sizeof shown, "value %g", *value);
    }
    char line[128];
    std::snprintf(line, sizeof line, "  index %zu  ID %lld  %-12s ran %.3f s", index,
                  future.getID(), shown, future.getRunningDuration().count());
    std::cout << line << '\n';
    printDiary(text(future.getDiary().getAsSingle()));
}

// The language's ways in: construct an object, read a property, call a method.
matrix::unique_dvArray construct(const char* className, const Arrays& args) {
    std::vector<dvArray*> raw;
    for (const auto& arg : args) {
        raw.push_back(arg.get());
    }
    return matrix::unique_dvArray(omConstructObjectWithClient(
        kcos::internal::makeInterned(className), static_cast<int>(raw.size()), raw.data(),
        COSGetPublicClient()));
}

matrix::unique_dvArray property(const dvArray* object, const char* name) {
    return omGetProperty(object, name, COSGetPublicClient());
}

std::string charsOf(const dvArray* array) {
    return text(std::u16string(dvGetChars(array)));
}

void disp(const dvArray* futures) {
    omInvokeMethod("disp", 0, {futures}, COSGetPublicClient());
}

// "parallel.FevalOnAllFuture": one evaluation on every worker (task i runs on
// worker i); the outputs as a cell, one row per worker, each with what that
// worker wrote into its diary (the "Diary" property, a cell per worker).
void showOnAll() {
    const auto object =
        construct("parallel.FevalOnAllFuture",
                  {rollCall(std::make_shared<std::atomic<int>>(0)), scalar(1), scalar(1.0)});
    const auto future = pf::FutureBase::fromKorvexArray(object.get()).at(0);
    std::cout << "\nOne evaluation on every worker (ID " << future->getID() << ", class "
              << charsOf(
                     omInvokeMethod("class", 1, {object.get()}, COSGetPublicClient()).at(0).get())
              << "):\n";
    const auto cell = pf::FutureBase::fetchOutputs({future}, false, 1).at(0);
    const auto diaries = property(object.get(), "Diary");
    for (std::size_t i = 0; i < dvGetNumberOfElements(cell.get()); ++i) {
        std::cout << "  worker " << i << "  value " << dvGetDoubles(dvGetCell(cell.get(), i))[0]
                  << '\n';
        printDiary(charsOf(dvGetCell(diaries.get(), i)));
    }
}

// Continuations of evaluations on `pool`: "afterEach" runs `postProcess` on
// the interpreter thread for each result as it arrives; "afterAll" runs
// `combine` once all are in, with the results concatenated into a column.
// Waiting in fetchNext keeps the interpreter thread running them promptly.
void showContinuations(localpool::LocalPool& pool) {
    const std::thread::id interpreterThread = std::this_thread::get_id();
    const auto postProcess =
        function("postProcess", [interpreterThread](std::size_t, const Arrays& in) -> Arrays {
            std::cout << "  afterEach: got " << valueOf(in) << " on the "
                      << (std::this_thread::get_id() == interpreterThread ? "interpreter" : "wrong")
                      << " thread\n";
            return {scalar(valueOf(in) + 0.5)};
        });
    const auto combine = function("combine", [](std::size_t, const Arrays& in) -> Arrays {
        const auto column = dvGetDoubles(in.at(0).get());
        double sum = 0;
        for (const double x : column) {
            sum += x;
        }
        std::cout << "  afterAll: the sum of " << column.size() << " results is " << sum << '\n';
        return {scalar(sum)};
    });

    std::vector<std::shared_ptr<pf::FutureBase>> squares;
    for (const double x : {1.0, 2.0, 3.0}) {
        squares.push_back(pool.submit(slowSquare(100ms * static_cast<int>(x)), 1, {scalar(x)}));
    }
    auto withFailure = squares;
    withFailure.push_back(pool.submit(invertMatrix(), 1, {scalar(0.0)}));
    std::cout << "\nContinuations of " << squares.size()
              << " squares and one evaluation that fails "
              << "(ID " << withFailure.back()->getID() << "):\n";

    const auto each = pf::AfterEachFuture::build(nullptr, postProcess, 1, withFailure, {}, false);
    const std::vector<std::shared_ptr<pf::FutureBase>> combined{
        pf::AfterAllFuture::build(nullptr, combine, 1, squares, {}, false),
        pf::AfterAllFuture::build(nullptr, combine, 1, withFailure, {}, false)};

    const pf::Seconds timeout(60.0);
    for (;;) {
        try {
            const auto [state, index, outputs] = pf::FutureBase::fetchNext(combined, 1, timeout);
            if (state != pf::FetchNextState::Fetched) {
                break;
            }
            std::cout << "  fetchNext: combination " << index << " gave " << valueOf(outputs)
                      << '\n';
        } catch (const KExceptionEnvelope& error) {
            printError("fetchNext raised", error);
        }
    }
    pf::FutureBase::wait({each}, pf::FutureState::Finished, timeout);
    const auto errors = each->getError();
    std::cout << "  afterEach entries with an error: ";
    for (std::size_t i = 0; i < errors.size(); ++i) {
        if (errors[i]) {
            std::cout << i << ' ';
        }
    }
    std::cout << '\n';
}

} // namespace

int main() {
    const auto interpreter = kvm::KVM::create();
    interpreter->handleInterruptSignal();
    foundation::log::configure_from_environment();
    std::optional<foundation::log::ConsoleSink> traces;
    if (std::getenv("KORVEX_LOG") != nullptr) {
        traces.emplace(std::cerr);
    }

    // The module registers "parallel.Future"; the pool's classes let the
    // constructor "parallel.FevalFuture" start evaluations on it.
    KVInitialize_libqzparallellanguagefuture();
    localpool::registerLanguageClasses();
    const auto pool = std::make_shared<localpool::LocalPool>(4);
    localpool::setLanguagePool(pool);

    // Each: the function, the number of outputs, the input.
    const std::vector<Arrays> evaluations{
        {slowSquare(600ms), scalar(1), scalar(3.0)}, {invertMatrix(), scalar(1), scalar(0.0)},
        {slowSquare(100ms), scalar(1), scalar(4.0)}, {chattyHalf(), scalar(1), scalar(10.0)},
        {slowSquare(400ms), scalar(1), scalar(5.0)},
    };
    std::vector<std::shared_ptr<pf::FutureBase>> futures;
    for (const Arrays& args : evaluations) {
        const auto object = construct("parallel.FevalFuture", args);
        futures.push_back(pf::FutureBase::fromKorvexArray(object.get()).at(0));
    }
    // The same language objects, gathered into one array.
    const auto array = pf::FutureBase::toKorvexArray(futures, {});
    std::cout << "Started " << futures.size() << " evaluations on " << pool->getNumWorkers()
              << " workers:\n";
    disp(array.get());
    std::cout << "\nFetching them as they finish:\n";

    const pf::Seconds noTimeout(std::numeric_limits<double>::max());
    std::vector<bool> reported(futures.size(), false);
    std::shared_ptr<pf::FutureBase> failed;
    std::size_t failedIndex = 0;
    for (;;) {
        try {
            const auto [state, index, outputs] = pf::FutureBase::fetchNext(futures, 1, noTimeout);
            if (state != pf::FetchNextState::Fetched) {
                break; // NoUnreadFutures: all of them are in
            }
            reported[index] = true;
            printFetched(index, *futures[index], valueOf(outputs));
        } catch (const KExceptionEnvelope& error) {
            // The failed future is the one read now but not reported yet.
            for (std::size_t i = 0; i < futures.size(); ++i) {
                if (futures[i]->getRead() && !reported[i]) {
                    reported[i] = true;
                    failed = futures[i];
                    failedIndex = i;
                    printFetched(i, *futures[i], std::nullopt);
                }
            }
            printError("fetchNext raised", error);
        }
    }

    std::cout << "\nAll of them now:\n";
    disp(array.get());

    if (failed) {
        std::cout << "\nfetchOutputs on the failed future (ID " << failed->getID() << "):\n";
        try {
            pf::FutureBase::fetchOutputs({failed}, true, 1);
            std::cout << "  no error?\n";
        } catch (const KExceptionEnvelope& error) {
            printError("fetchOutputs raised", error);
        }
        const matrix::unique_dvArray object(
            omCreateKCOSScalar(omGetArrayElement(array.get(), failedIndex)));
        std::cout << "  its State property: " << charsOf(property(object.get(), "State").get())
                  << "\n";
        printError("its Error property", KExceptionEnvelope(property(object.get(), "Error").get()));
    }

    showOnAll();
    showContinuations(*pool);
    localpool::setLanguagePool(nullptr);
    return 0;
}
