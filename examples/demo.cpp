// A tiny executor and one task, driven from Pending to Finished on a second
// thread while the main thread waits for it to run and then to finish. The
// task channel is traced to the terminal, so each notification and each wait
// shows up as it happens; KORVEX_LOG (for example
// "parallel::language::future::TaskBase=0") overrides the channel switches.

#include <parallel/language/future/FutureState.hpp>
#include <parallel/language/future/TaskBase.hpp>
#include <parallel/language/future/TimeTypes.hpp>

#include <foundation/core/str/Utf.hpp>
#include <foundation/log/configuration.hpp>
#include <foundation/log/diagnostic_logger.hpp>
#include <matrix/dvArray.hpp>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <latch>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

namespace {

namespace pf = parallel::language::future;
using namespace std::chrono_literals;

// The work of this executor is already done: one 1-by-1 double and a line of
// diary. Its notifications are opened up to the demo's driver thread.
class TinyTask final : public pf::TaskBase {
public:
    void notifyPending() { doNotifyPending(); }
    void notifyQueued() { doNotifyQueued(); }
    void notifyRunning() { doNotifyRunning(); }
    void notifyFinished() { doNotifyFinished(); }

private:
    void doCancel() override {}
    pf::OutputsOrError doGetOutputsOrError() override {
        pf::DvArrayVector outputs;
        outputs.emplace_back(matrix::to_korvex(dvCreateDoubleScalar(42.0)), false);
        return pf::OutputsOrError(std::optional<pf::DvArrayVector>(std::move(outputs)));
    }
    std::u16string doGetDiary() override { return u"hello from the demo task\n"; }
};

// Trace records and the demo's own lines share the terminal. The driver holds
// this lock across each notification (whose trace it writes), and the main
// thread takes it for each line, so lines never cut into each other.
std::mutex gConsoleMutex;

void printLine(const std::string& line) {
    std::cout << line << '\n' << std::flush;
}

void say(const std::string& line) {
    std::lock_guard lock(gConsoleMutex);
    printLine(line);
}

const char* stateWord(pf::FutureState state) {
    switch (state) {
    case pf::FutureState::Pending:
        return "pending";
    case pf::FutureState::Queued:
        return "queued";
    case pf::FutureState::Running:
        return "running";
    case pf::FutureState::Finished:
        return "finished";
    case pf::FutureState::Unavailable:
        return "unavailable";
    }
    return "unknown";
}

// "2024-05-01T12:34:56.789Z", or "(not set)" for 0.0.
std::string isoUtc(pf::WallClockTimePoint time) {
    const double seconds = time.time_since_epoch().count();
    if (seconds == 0.0) {
        return "(not set)";
    }
    const auto milliseconds = static_cast<long long>(std::floor(seconds * 1000.0));
    const std::time_t whole = static_cast<std::time_t>(milliseconds / 1000);
    std::tm utc{};
    gmtime_r(&whole, &utc);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc);
    char text[48];
    std::snprintf(text, sizeof text, "%s.%03lldZ", date, milliseconds % 1000);
    return text;
}

// Executor side: takes the task at once (Pending) and tells the main thread
// so; then the other notifications, each after a short pause so the steps
// can be followed.
void drive(TinyTask& task, std::latch& submitted) {
    const auto notify = [&task](const char* name, void (TinyTask::*notification)()) {
        std::lock_guard lock(gConsoleMutex);
        printLine(std::string("executor: notify ") + name);
        (task.*notification)();
    };
    notify("Pending", &TinyTask::notifyPending);
    submitted.count_down();
    std::this_thread::sleep_for(150ms);
    notify("Queued", &TinyTask::notifyQueued);
    std::this_thread::sleep_for(150ms);
    notify("Running", &TinyTask::notifyRunning);
    std::this_thread::sleep_for(200ms);
    notify("Finished", &TinyTask::notifyFinished);
}

void report(TinyTask& task) {
    std::ostringstream out;
    out << "  state            " << stateWord(task.getState()) << '\n'
        << "  start time       " << isoUtc(task.getStartTime()) << '\n'
        << "  finish time      " << isoUtc(task.getFinishTime()) << '\n'
        << "  running duration " << std::fixed << std::setprecision(3)
        << task.getRunningDuration().count() << " s";
    say(out.str());
}

} // namespace

int main() {
    foundation::log::set_channel_switches("parallel::language::future::TaskBase",
                                          foundation::log::switches::all);
    foundation::log::configure_from_environment();
    foundation::log::ConsoleSink console(std::cout);

    auto task = std::make_shared<TinyTask>();
    say(std::string("main: new task, state ") + stateWord(task->getState()) +
        " (a wait would return at once until the executor takes it)");

    std::latch submitted(1);
    std::thread executor(drive, std::ref(*task), std::ref(submitted));
    submitted.wait();
    const pf::SteadyTimePoint deadline = pf::clock::getCurrentSteadyTime() + pf::Seconds(10.0);

    say("main: waiting for the task to run");
    const bool running = task->wait(pf::FutureState::Running, deadline);
    say(std::string("main: ") + (running ? "the task runs" : "gave up waiting for running"));
    report(*task);

    say("main: waiting for the task to finish");
    const bool finished = task->wait(pf::FutureState::Finished, deadline);
    executor.join();
    say(std::string("main: ") + (finished ? "the task finished" : "gave up waiting for finished"));
    report(*task);

    const pf::OutputsOrError result = task->getOutputsOrError();
    std::ostringstream out;
    if (result.hasValue() && result.value() && result.value()->size() == 1) {
        out << "  output           " << dvGetDoubles(result.value()->front().get())[0] << '\n';
    }
    std::string diary = foundation::core::str::toUtf8(task->getDiary());
    if (!diary.empty() && diary.back() == '\n') {
        diary.pop_back();
    }
    out << "  diary            " << diary;
    say(out.str());
    return finished ? 0 : 1;
}
