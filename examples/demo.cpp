// Futures as language code uses them: every step is a constructor or a
// method of the class "parallel.Future", called through the host's
// class-object interface as the interpreter calls it; the comment above each
// section gives the language statements it stands for. Only what an executor
// does is native: the interpreter, the module and the pool's classes, a local
// pool of four workers handed to the language, and the function-handle
// values.
//
// In order:
//   - parallel.FevalFuture starts five evaluations; disp shows them;
//   - fetchNext in a loop prints each result as it arrives; one evaluation
//     fails, and fetchNext raises its error;
//   - fetchOutputs gathers the outputs; over the failed evaluation it raises
//     one error whose cause is the failure;
//   - wait with a timeout that expires answers false; cancel stops the work;
//   - afterEach and afterAll continue on the results, on this thread;
//   - parallel.FevalOnAllFuture runs one evaluation on every worker;
//   - a timeline of every future is written as trace-event JSON and as SVG,
//     into the folder given as the first argument (the current one without).
//
// Nothing is traced unless KORVEX_LOG names channels, for example
//   KORVEX_LOG="parallel::language::future::FutureBase=56" ./demo
// which writes messages (8), caught exceptions (16) and function traces (32)
// to standard error.

#include <parallel/language/future/Module.hpp>
#include <parallel/language/future/TimelineRecorder.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <executor/LanguageClasses.hpp>
#include <foundation/core/except/Exception.hpp>
#include <foundation/core/str/Utf.hpp>
#include <foundation/log/configuration.hpp>
#include <kcos/Language.hpp>
#include <kcos/array.hpp>
#include <kvm/KVM.hpp>
#include <localpool/LocalPool.hpp>
#include <matrix/dvArray.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Value = boost::intrusive_ptr<dvArray>;
using Values = std::vector<Value>;
using Veldspire::KException::KExceptionEnvelope;
using namespace std::chrono_literals;

// ---- Values -----------------------------------------------------------------

Value adopt(matrix::unique_dvArray array) {
    return {matrix::to_korvex(std::move(array)), false};
}

Value number(double value) {
    return adopt(dvCreateDoubleScalar(value));
}

Value word(const std::string& text) {
    return adopt(matrix::create(text.data(), text.size()));
}

double numberOf(const Value& array) {
    return dvGetDoubles(array.get())[0];
}

std::string textOf(const dvArray* array) {
    return foundation::core::str::toUtf8(std::u16string(dvGetChars(array)));
}

std::size_t numel(const Value& array) {
    return dvGetNumberOfElements(array.get());
}

// A language function: what `body` does with its inputs.
Value function(std::string name, matrix::FunctionBody body) {
    return adopt(matrix::createFunctionHandle(std::move(name), std::move(body)));
}

// ---- The language's ways in -------------------------------------------------

// obj = className(args...)
Value construct(const char* className, const Values& args) {
    std::vector<dvArray*> raw;
    for (const Value& arg : args) {
        raw.push_back(arg.get());
    }
    return Value(omConstructObjectWithClient(kcos::internal::makeInterned(className),
                                             static_cast<int>(raw.size()), raw.data(),
                                             COSGetPublicClient()),
                 false);
}

// [out1, ..., outN] = name(inputs...), N being `numOutputs`.
template <class... Inputs>
Values callMethod(const char* name, int numOutputs, const Inputs&... inputs) {
    Values outputs;
    for (auto& output : omInvokeMethod(name, numOutputs, {inputs.get()...}, COSGetPublicClient())) {
        outputs.push_back(adopt(std::move(output)));
    }
    return outputs;
}

// obj.name
Value property(const Value& object, const char* name) {
    return adopt(omGetProperty(object.get(), name, COSGetPublicClient()));
}

// objects(index), index counted from 0.
Value element(const Value& objects, std::size_t index) {
    return Value(omCreateKCOSScalar(omGetArrayElement(objects.get(), index)), false);
}

// [parts{1}, parts{2}, ...] for object arrays of one class.
Value horzcat(const Values& parts) {
    std::size_t count = 0;
    for (const Value& part : parts) {
        count += numel(part);
    }
    const Value whole(
        omCreateKCOSArray(kcos::internal::makeInterned(dvGetClassName(parts.at(0).get())),
                          {1, count}),
        false);
    std::size_t next = 0;
    for (const Value& part : parts) {
        for (std::size_t i = 0; i < numel(part); ++i) {
            omSetArrayElement(whole.get(), next++, omGetArrayElement(part.get(), i));
        }
    }
    return whole;
}

// try, statement; catch err, ... end: the error the catch would see, if any.
template <class Statement>
std::optional<KExceptionEnvelope> tryCatch(Statement&& statement) {
    try {
        statement();
    } catch (const KExceptionEnvelope& error) {
        return error;
    } catch (const foundation::core::except::IUserException& error) {
        return KExceptionEnvelope(error, matrix::unique_dvArray());
    }
    return std::nullopt;
}

// ---- Printing ---------------------------------------------------------------

void section(const char* title) {
    std::cout << "\n== " << title << " ==\n";
}

// err.identifier: err.message, then err.cause{:}, each a step further in.
void printError(const KExceptionEnvelope& error, const std::string& indent = "  ",
                const char* lead = "") {
    std::cout << indent << lead << error.GetID() << ": "
              << foundation::core::str::toUtf8(error.GetMessage()) << '\n';
    for (const KExceptionEnvelope& cause : error.GetCauses()) {
        printError(cause, indent + "  ", "caused by ");
    }
}

const char* truth(const Value& logical) {
    return dvGetLogicals(logical.get())[0] ? "true" : "false";
}

void printLines(const std::string& prefix, const std::string& text) {
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        std::cout << prefix << text.substr(start, end - start) << '\n';
        start = end + 1;
    }
}

// ---- The evaluated functions ------------------------------------------------

// x -> x * x after `delay`.
Value slowSquare(std::chrono::milliseconds delay) {
    return function("slowSquare", [delay](std::size_t, const Values& in) -> Values {
        std::this_thread::sleep_for(delay);
        return {number(numberOf(in.at(0)) * numberOf(in.at(0)))};
    });
}

// Gives up on its matrix after a while, as a solver does on a singular one.
Value invertMatrix() {
    return function("invertMatrix", [](std::size_t, const Values&) -> Values {
        std::this_thread::sleep_for(300ms);
        throw KExceptionEnvelope("demo:invertMatrix:singular",
                                 u"Matrix is singular to working precision.");
    });
}

// x -> x / 2, telling what it does into its diary.
Value chattyHalf() {
    return function("chattyHalf", [](std::size_t, const Values& in) -> Values {
        const double x = numberOf(in.at(0));
        char line[64];
        std::snprintf(line, sizeof line, "halving %g\n", x);
        kvm::print(foundation::core::str::toUtf16(line));
        std::this_thread::sleep_for(200ms);
        return {number(x / 2)};
    });
}

// Works until asked to stop, at most five seconds.
Value longSolve() {
    return function("longSolve", [](std::size_t, const Values& in) -> Values {
        const auto giveUp = std::chrono::steady_clock::now() + 5s;
        while (!localpool::stopRequested() && std::chrono::steady_clock::now() < giveUp) {
            std::this_thread::sleep_for(10ms);
        }
        return {in.at(0)};
    });
}

// ---- The sections -----------------------------------------------------------

// f = [parallel.FevalFuture(@slowSquare, 1, 3), ...]
// class(f), isa(f, "parallel.Future"), disp(f)
Value startEvaluations() {
    section("Five evaluations on four workers");
    const Value f = horzcat({
        construct("parallel.FevalFuture", {slowSquare(600ms), number(1), number(3)}),
        construct("parallel.FevalFuture", {invertMatrix(), number(1), number(0)}),
        construct("parallel.FevalFuture", {slowSquare(100ms), number(1), number(4)}),
        construct("parallel.FevalFuture", {chattyHalf(), number(1), number(10)}),
        construct("parallel.FevalFuture", {slowSquare(400ms), number(1), number(5)}),
    });
    std::cout << "class(f) is " << textOf(callMethod("class", 1, f).at(0).get())
              << ", isa(f, \"parallel.Future\") is "
              << truth(callMethod("isa", 1, f, word("parallel.Future")).at(0)) << '\n';
    callMethod("disp", 0, f);
    return f;
}

// for k = 1:numel(f)
//     try, [i, x] = fetchNext(f); ... catch err, ... end
// end
void fetchAsTheyArrive(const Value& f) {
    section("fetchNext: each result as it arrives");
    const auto start = std::chrono::steady_clock::now();
    std::vector<bool> reported(numel(f), false);
    for (std::size_t k = 0; k < numel(f); ++k) {
        Values out;
        const auto error = tryCatch([&] { out = callMethod("fetchNext", 2, f); });
        const double at =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        // The future fetched now is the one read but not reported yet:
        // f(i).Read, since on an error fetchNext gives no index.
        std::size_t i = 0;
        if (error) {
            while (!dvGetLogicals(property(element(f, i), "Read").get())[0] || reported[i]) {
                ++i;
            }
        } else {
            i = static_cast<std::size_t>(numberOf(out.at(0))) - 1;
        }
        reported[i] = true;
        const Value one = element(f, i);
        char line[128];
        std::snprintf(line, sizeof line, "  after %.2f s: f(%zu), ID %g, ", at, i + 1,
                      numberOf(property(one, "ID")));
        std::cout << line;
        if (error) {
            std::cout << "raised\n";
            printError(*error, "    ");
        } else {
            std::cout << "gave " << numberOf(out.at(1)) << '\n';
        }
        printLines("    diary: ", textOf(property(one, "Diary").get()));
    }
}

// ok = arrayfun(@(g) isempty(g.Error), f); x = fetchOutputs(f(ok))
// try, fetchOutputs(f); catch err, ... end
void fetchAll(const Value& f) {
    section("fetchOutputs: all outputs, or one error");
    Values succeeded;
    for (std::size_t i = 0; i < numel(f); ++i) {
        if (dvIsEmpty(property(element(f, i), "Error").get())) {
            succeeded.push_back(element(f, i));
        }
    }
    const Value column = callMethod("fetchOutputs", 1, horzcat(succeeded)).at(0);
    std::cout << "  the " << succeeded.size() << " without an error gave";
    for (const double x : dvGetDoubles(column.get())) {
        std::cout << ' ' << x;
    }
    std::cout << '\n';
    if (const auto error = tryCatch([&] { callMethod("fetchOutputs", 1, f); })) {
        std::cout << "  all " << numel(f) << " raised\n";
        printError(*error, "    ");
    }
    std::cout << "\nAll of them now:\n";
    callMethod("disp", 0, f);
}

// ok = wait(g, "running", 5); ok = wait(g, "finished", 0.25)
// cancel(g); wait(g); g.State, g.Error
Value waitAndCancel() {
    section("wait with a timeout, then cancel");
    const Value g = construct("parallel.FevalFuture", {longSolve(), number(1), number(7)});
    const Value running = callMethod("wait", 1, g, word("running"), number(5)).at(0);
    const Value finished = callMethod("wait", 1, g, word("finished"), number(0.25)).at(0);
    std::cout << "  wait(g, \"running\", 5) gave " << truth(running)
              << ", wait(g, \"finished\", 0.25) gave " << truth(finished) << '\n';
    callMethod("cancel", 0, g);
    callMethod("wait", 0, g);
    std::cout << "  after cancel(g) and wait(g), g.State is " << textOf(property(g, "State").get())
              << " and g.Error is\n";
    printError(KExceptionEnvelope(property(g, "Error").get()), "    ");
    return g;
}

// e = afterEach(s, @report, 1); a = afterAll(s, @total, 1)
// [~, sum] = fetchNext(a, 10); wait(e); fetchOutputs(e)
// b = afterAll(f, @total, 1); wait(b); b.Error
Values continuations(const Value& f) {
    section("afterEach and afterAll");
    const std::thread::id interpreter = std::this_thread::get_id();
    const Value report = function("report", [interpreter](std::size_t, const Values& in) -> Values {
        std::cout << "  afterEach: got " << numberOf(in.at(0)) << " on the "
                  << (std::this_thread::get_id() == interpreter ? "interpreter" : "wrong")
                  << " thread\n";
        return {number(numberOf(in.at(0)) + 0.5)};
    });
    const Value total = function("total", [](std::size_t, const Values& in) -> Values {
        double sum = 0;
        for (const double x : dvGetDoubles(in.at(0).get())) {
            sum += x;
        }
        std::cout << "  afterAll: " << numel(in.at(0)) << " results, sum " << sum << '\n';
        return {number(sum)};
    });

    const Value s = horzcat({
        construct("parallel.FevalFuture", {slowSquare(300ms), number(1), number(3)}),
        construct("parallel.FevalFuture", {slowSquare(100ms), number(1), number(1)}),
        construct("parallel.FevalFuture", {slowSquare(200ms), number(1), number(2)}),
    });
    const Value e = callMethod("afterEach", 1, s, report, number(1)).at(0);
    const Value a = callMethod("afterAll", 1, s, total, number(1)).at(0);
    // Waiting in fetchNext runs the continuations on this thread as soon as
    // they are due.
    const Values fetched = callMethod("fetchNext", 2, a, number(10));
    std::cout << "  [~, sum] = fetchNext(a, 10) gave " << numberOf(fetched.at(1)) << '\n';
    callMethod("wait", 0, e);
    const Value column = callMethod("fetchOutputs", 1, e).at(0);
    std::cout << "  fetchOutputs(e) gave";
    for (const double x : dvGetDoubles(column.get())) {
        std::cout << ' ' << x;
    }
    std::cout << '\n';

    // Over the five of the start, one of which failed: the continuation does
    // not run, and the failure becomes its error.
    const Value b = callMethod("afterAll", 1, f, total, number(1)).at(0);
    callMethod("wait", 0, b);
    std::cout << "  afterAll(f, @total, 1) failed:\n";
    printError(KExceptionEnvelope(property(b, "Error").get()), "    ");
    return {s, e, a, b};
}

// w = parallel.FevalOnAllFuture(@rollCall, 1); class(w); fetchOutputs(w); w.Diary
Value onEveryWorker() {
    section("One evaluation on every worker");
    // Each worker takes the next number, in the order the workers get to it.
    const auto next = std::make_shared<std::atomic<int>>(1);
    const Value rollCall = function("rollCall", [next](std::size_t, const Values&) -> Values {
        const int mine = next->fetch_add(1);
        kvm::print(foundation::core::str::toUtf16("number " + std::to_string(mine) + " here\n"));
        return {number(mine)};
    });
    const Value w = construct("parallel.FevalOnAllFuture", {rollCall, number(1)});
    const Value x = callMethod("fetchOutputs", 1, w).at(0);
    std::cout << "  class(w) is " << textOf(callMethod("class", 1, w).at(0).get())
              << "; fetchOutputs(w), one per worker, gave";
    for (const double value : dvGetDoubles(x.get())) {
        std::cout << ' ' << value;
    }
    std::cout << '\n';
    const Value diaries = property(w, "Diary");
    for (std::size_t i = 0; i < numel(diaries); ++i) {
        printLines("  w.Diary{" + std::to_string(i + 1) + "}: ",
                   textOf(dvGetCell(diaries.get(), i)));
    }
    return w;
}

// The end of the run, with every future the demo made: the timeline of
// their runs, written into `folder`.
void finishRun(const Values& made, const parallel::language::future::TimelineRecorder& timeline,
               const std::filesystem::path& folder) {
    std::size_t count = 0;
    for (const Value& futures : made) {
        count += numel(futures);
    }
    section("The timeline");
    const std::filesystem::path trace = std::filesystem::absolute(folder / "demo-timeline.json");
    const std::filesystem::path picture = std::filesystem::absolute(folder / "demo-timeline.svg");
    try {
        timeline.writeTraceEvents(trace);
        timeline.writeSvg(picture);
    } catch (const std::runtime_error& error) {
        std::cout << "  " << error.what() << '\n';
        return;
    }
    std::cout << "  " << count << " futures made in all, " << timeline.entries().size()
              << " tasks run.\n"
              << "  Trace events (open in https://ui.perfetto.dev or chrome://tracing):\n    "
              << trace.string() << "\n  Picture (open in a browser):\n    " << picture.string()
              << '\n';
}

} // namespace

int main(int argc, char** argv) {
    const std::filesystem::path timelineFolder = argc > 1 ? argv[1] : ".";
    // Every future from here on goes on the timeline; this thread's lane is
    // the interpreter's, where the continuations run.
    parallel::language::future::TimelineRecorder timeline;
    parallel::language::future::TimelineRecorder::nameThisThread("interpreter");

    // What an executor does: the interpreter of this thread, the module and
    // its classes, and the pool that runs the language's evaluations.
    const auto interpreter = kvm::KVM::create();
    interpreter->handleInterruptSignal();
    foundation::log::configure_from_environment();
    std::optional<foundation::log::ConsoleSink> traces;
    if (std::getenv("KORVEX_LOG") != nullptr) {
        traces.emplace(std::cerr);
    }
    KVInitialize_libqzparallellanguagefuture();
    executor::registerLanguageClasses();
    executor::setLanguagePool(std::make_shared<localpool::LocalPool>(4));

    // What the language does.
    const auto error = tryCatch([&] {
        const Value f = startEvaluations();
        fetchAsTheyArrive(f);
        fetchAll(f);
        const Value g = waitAndCancel();
        Values made{f, g};
        for (const Value& futures : continuations(f)) {
            made.push_back(futures);
        }
        made.push_back(onEveryWorker());
        finishRun(made, timeline, timelineFolder);
    });
    executor::setLanguagePool(nullptr);
    if (error) {
        std::cout << "The demo stopped on an error:\n";
        printError(*error);
        return 1;
    }
    return 0;
}
