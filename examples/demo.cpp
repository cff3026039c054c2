// A handful of evaluations on a local pool of four workers, collected on the
// interpreter thread in the order they finish. One of them fails; its error
// shows up once through fetchNext and once more through fetchOutputs.
// Finally one evaluation runs on every worker: its outputs come back one per
// worker, and so do the diaries.
//
// Nothing is traced unless KORVEX_LOG names channels, for example
//   KORVEX_LOG="parallel::language::future::FutureBase=96" ./demo
// which writes the traces to standard error.

#include <parallel/language/future/FetchNextState.hpp>
#include <parallel/language/future/FutureBase.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <foundation/core/str/Utf.hpp>
#include <foundation/log/configuration.hpp>
#include <kvm/KVM.hpp>
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

void printError(const char* what, const KExceptionEnvelope& error) {
    std::cout << "  " << what << ": " << error.GetID() << "\n    " << text(error.GetMessage())
              << '\n';
    for (const KExceptionEnvelope& cause : error.GetCauses()) {
        std::cout << "    caused by " << cause.GetID() << ": " << text(cause.GetMessage()) << '\n';
    }
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

// One evaluation on every worker (task i runs on worker i): the outputs as a
// cell, one row per worker, each with what that worker wrote into its diary.
void showOnAll(localpool::LocalPool& pool) {
    const auto future =
        pool.submitOnAll(rollCall(std::make_shared<std::atomic<int>>(0)), 1, {scalar(1.0)});
    std::cout << "\nOne evaluation on every worker (ID " << future->getID() << "):\n";
    const auto cell = pf::FutureBase::fetchOutputs({future}, false, 1).at(0);
    const auto diaries = future->getDiary();
    for (std::size_t i = 0; i < dvGetNumberOfElements(cell.get()); ++i) {
        std::cout << "  worker " << i << "  value " << dvGetDoubles(dvGetCell(cell.get(), i))[0]
                  << '\n';
        printDiary(text(diaries[i]));
    }
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

    localpool::LocalPool pool(4);
    std::vector<std::shared_ptr<pf::FutureBase>> futures{
        pool.submit(slowSquare(600ms), 1, {scalar(3.0)}),
        pool.submit(invertMatrix(), 1, {scalar(0.0)}),
        pool.submit(slowSquare(100ms), 1, {scalar(4.0)}),
        pool.submit(chattyHalf(), 1, {scalar(10.0)}),
        pool.submit(slowSquare(400ms), 1, {scalar(5.0)}),
    };
    std::cout << "Submitted " << futures.size() << " evaluations to " << pool.getNumWorkers()
              << " workers; fetching them as they finish:\n";

    const pf::Seconds noTimeout(std::numeric_limits<double>::max());
    std::vector<bool> reported(futures.size(), false);
    std::shared_ptr<pf::FutureBase> failed;
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
                    printFetched(i, *futures[i], std::nullopt);
                }
            }
            printError("fetchNext raised", error);
        }
    }

    if (failed) {
        std::cout << "\nfetchOutputs on the failed future (ID " << failed->getID() << "):\n";
        try {
            pf::FutureBase::fetchOutputs({failed}, true, 1);
            std::cout << "  no error?\n";
        } catch (const KExceptionEnvelope& error) {
            printError("fetchOutputs raised", error);
        }
    }

    showOnAll(pool);
    return 0;
}
