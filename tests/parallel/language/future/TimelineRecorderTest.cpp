// qz-test-label: concurrency
#include "support/ContinuationSupport.hpp"

#include <parallel/language/future/AfterAllFuture.hpp>
#include <parallel/language/future/TimelineRecorder.hpp>

#include <executor/WorkerTask.hpp>
#include <localpool/LocalPool.hpp>

#include <gmock/gmock.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/xml_parser.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <unistd.h>

namespace parallel::language::future {
namespace {

using namespace testing;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using Outcome = TimelineEntry::Outcome;
using Tree = boost::property_tree::ptree;

const TimelineEntry& entryOfFuture(const std::vector<TimelineEntry>& entries, long long id) {
    const auto found = std::ranges::find(entries, id, &TimelineEntry::futureId);
    if (found == entries.end()) {
        throw std::out_of_range("no entry of future " + std::to_string(id));
    }
    return *found;
}

Tree parseJson(const std::string& text) {
    std::istringstream in(text);
    Tree tree;
    boost::property_tree::read_json(in, tree);
    return tree;
}

// ---- Recording --------------------------------------------------------------

TEST(TimelineRecorder, RecordsOneAtATimeOnlyWhileItExistsAndEachTaskApart) {
    TestFuture before;
    {
        TimelineRecorder recorder;
        EXPECT_THROW(TimelineRecorder(), std::logic_error);
        before.submitted();
        EXPECT_EQ(recorder.entries().size(), 1u);
    }
    before.running();
    TimelineRecorder again;
    for (int i = 0; i < 3; ++i) { // each made where the last one died
        TestFuture().finishedWith({});
    }
    std::set<long long> ids;
    for (const TimelineEntry& entry : again.entries()) {
        ids.insert(entry.futureId);
    }
    EXPECT_EQ(ids.size(), again.entries().size());
    EXPECT_EQ(ids.size(), 3u);
}

TEST(TimelineRecorder, FollowsATaskThroughItsStatesOnTheThreadThatRanIt) {
    TimelineRecorder recorder;
    TestFuture completed;
    TestFuture failedAsReported;
    TestFuture failedAsRead;
    TestFuture cancelledWaiting;
    completed.submitted();
    std::thread worker([&] {
        TimelineRecorder::nameThisThread("worker 7");
        completed.finishedWith({scalar(1)});
        TimelineRecorder::recordFailure(*failedAsReported.task);
        failedAsReported.failedWith(std::make_exception_ptr(std::runtime_error("no")));
        failedAsRead.failedWith(std::make_exception_ptr(std::runtime_error("no")));
    });
    worker.join();
    EXPECT_EQ(entryOfFuture(recorder.entries(), failedAsRead.future->getID()).outcome,
              Outcome::Completed)
        << "not known before it is read";
    EXPECT_TRUE(failedAsRead.future->hasError());
    cancelledWaiting.submitted();
    cancelledWaiting.future->cancel();

    const auto entries = recorder.entries();
    ASSERT_EQ(entries.size(), 4u);
    const TimelineEntry& done = entryOfFuture(entries, completed.future->getID());
    EXPECT_EQ(done.futureKind, "FevalFuture");
    EXPECT_EQ(done.worker, "worker 7");
    EXPECT_EQ(done.outcome, Outcome::Completed);
    EXPECT_LE(0.0, done.createdUs);
    EXPECT_LE(done.createdUs, done.queuedUs);
    EXPECT_LE(done.queuedUs, done.startedUs);
    EXPECT_LE(done.startedUs, done.finishedUs);
    EXPECT_LT(done.cancelledUs, 0.0);

    EXPECT_EQ(entryOfFuture(entries, failedAsReported.future->getID()).outcome, Outcome::Failed);
    EXPECT_EQ(entryOfFuture(entries, failedAsRead.future->getID()).outcome, Outcome::Failed);

    const TimelineEntry& cancelled = entryOfFuture(entries, cancelledWaiting.future->getID());
    EXPECT_EQ(cancelled.outcome, Outcome::Cancelled);
    EXPECT_TRUE(cancelled.worker.empty());
    EXPECT_LT(cancelled.startedUs, 0.0);
    EXPECT_LE(cancelled.queuedUs, cancelled.cancelledUs);
}

using TimelineOfRealWork = LanguageTest;

TEST_F(TimelineOfRealWork, NamesPoolWorkersAndTheInterpreterThatRanContinuations) {
    TimelineRecorder::nameThisThread("interpreter");
    TimelineRecorder recorder;
    Futures futures;
    {
        localpool::LocalPool pool(1);
        futures.push_back(pool.submit(
            functionHandle("same", [](std::size_t, const DvArrayVector& in) { return in; }), 1,
            {scalar(4)}));
        futures.push_back(
            pool.submit(functionHandle("failing",
                                       [](std::size_t, const DvArrayVector&) -> DvArrayVector {
                                           throw std::runtime_error("failing");
                                       }),
                        1, {}));
        FutureBase::wait(futures, FutureState::Finished, kForever);
    }
    const RecordingFunction sum;
    const auto all = AfterAllFuture::build(nullptr, sum.handle, 1, {futures[0]}, {}, false);
    while (all->getState() != FutureState::Finished) {
        runParallelQueue();
    }
    EXPECT_EQ(firstOutput(*all), 4.0) << "recording takes no outputs away";

    const auto entries = recorder.entries();
    ASSERT_EQ(entries.size(), 3u);
    const TimelineEntry& ran = entryOfFuture(entries, futures[0]->getID());
    EXPECT_EQ(ran.outcome, Outcome::Completed);
    EXPECT_EQ(ran.function, "same");
    EXPECT_EQ(ran.worker, "worker 1") << "named by the pool";
    EXPECT_EQ(entryOfFuture(entries, futures[1]->getID()).outcome, Outcome::Failed);
    const TimelineEntry& continuation = entryOfFuture(entries, all->getID());
    EXPECT_EQ(continuation.futureKind, "AfterAllFuture");
    EXPECT_EQ(continuation.function, "recorded");
    EXPECT_EQ(continuation.worker, "interpreter");
    EXPECT_EQ(continuation.outcome, Outcome::Completed);
}

// An executor's task that does nothing.
struct IdleTask : executor::WorkerTask {
    IdleTask() : WorkerTask({}) {}
    void run() { setResult(OutputsOrError(DvArrayVector{}), {}); }
};

TEST(TimelineRecorder, NamesAnExecutorsUnnamedThreadsByDefault) {
    TimelineRecorder recorder;
    IdleTask idle;
    std::thread([&] { executor::runAsWorker("myexecutor", idle); }).join();
    ASSERT_EQ(recorder.entries().size(), 1u);
    EXPECT_EQ(recorder.entries()[0].worker, "myexecutor worker 1");
}

// ---- Pictures ---------------------------------------------------------------

// An entry; a negative time was not seen.
TimelineEntry entryOf(long long id, const char* function, const char* worker, Outcome outcome,
                      double created, double queued, double started, double finished,
                      double cancelled = -1) {
    TimelineEntry entry;
    std::tie(entry.futureId, entry.function, entry.worker, entry.outcome) =
        std::tuple(id, function, worker, outcome);
    std::tie(entry.createdUs, entry.queuedUs, entry.startedUs, entry.finishedUs,
             entry.cancelledUs) = std::tie(created, queued, started, finished, cancelled);
    return entry;
}

// A completed and a failed run on two workers, and a task cancelled while queued.
std::vector<TimelineEntry> sampleEntries() {
    return {entryOf(3, "say \"hi\"\\\n<now>", "worker 10", Outcome::Completed, 0, 5, 100, 2100),
            entryOf(4, "solve", "worker 2", Outcome::Failed, 0, 5, 100, 2100),
            entryOf(5, "", "", Outcome::Cancelled, -1, 10, -1, -1, 50)};
}

Tree parseXml(const std::string& text) {
    std::istringstream in(text);
    Tree tree;
    boost::property_tree::read_xml(in, tree);
    return tree;
}

TEST(TimelinePictures, TraceEventsNameTheLanesAndCarryEveryRun) {
    const Tree trace = parseJson(toTraceEventJson(sampleEntries()));
    std::map<std::string, std::string> laneOfTid;
    std::vector<Tree> runs;
    int cancels = 0;
    for (const auto& [_, event] : trace.get_child("traceEvents")) {
        const std::string phase = event.get<std::string>("ph");
        if (phase == "M" && event.get<std::string>("name") == "thread_name") {
            laneOfTid[event.get<std::string>("tid")] = event.get<std::string>("args.name");
        } else if (phase == "X") {
            runs.push_back(event);
        } else if (phase == "i") {
            ++cancels;
        }
    }
    EXPECT_EQ(laneOfTid, (std::map<std::string, std::string>{
                             {"1", "worker 2"}, {"2", "worker 10"}, {"3", "not started"}}));
    ASSERT_EQ(runs.size(), 2u);
    const Tree& first = runs[0];
    EXPECT_EQ(first.get<std::string>("name"), "#3 say \"hi\"\\\n<now>");
    EXPECT_EQ(laneOfTid.at(first.get<std::string>("tid")), "worker 10");
    EXPECT_DOUBLE_EQ(first.get<double>("ts"), 100.0);
    EXPECT_DOUBLE_EQ(first.get<double>("dur"), 2000.0);
    EXPECT_EQ(first.get<std::string>("args.outcome"), "completed");
    EXPECT_EQ(runs[1].get<std::string>("args.outcome"), "failed");
    EXPECT_EQ(cancels, 1);
}

TEST(TimelinePictures, SvgHasALaneAndAColouredBarPerRun) {
    const Tree svg = parseXml(toSvg(sampleEntries()));
    std::multiset<std::string> barFills;
    std::size_t groups = 0;
    for (const auto& [tag, node] : svg.get_child("svg")) {
        if (tag == "g") {
            ++groups;
            EXPECT_FALSE(node.get<std::string>("title").empty());
            for (const auto& [inner, shape] : node) {
                const std::string fill = shape.get<std::string>("<xmlattr>.fill", "");
                if (inner == "rect" && fill != "white") { // white: a label's patch
                    barFills.insert(fill);
                }
            }
        }
    }
    EXPECT_EQ(groups, 3u);
    EXPECT_EQ(barFills.size(), 2u);
    EXPECT_EQ(barFills.count(*barFills.begin()), 1u) << "completed and failed differ";
}

// One worker that ran two evaluations back to back, the second waiting for
// the first; continuations on the interpreter: an afterAll and an afterEach
// run too short for their labels, and one that failed without running.
std::vector<TimelineEntry> oneWorkerWithContinuations() {
    const Outcome done = Outcome::Completed;
    return {entryOf(1, "solve", "worker 1", done, 0, 0, 10, 5000),
            entryOf(2, "solve", "worker 1", done, 0, 0, 5000, 10000),
            entryOf(3, "recorded", "interpreter", done, 100, 5010, 5020, 5030),
            entryOf(4, "recorded", "interpreter", done, 100, 10010, 10020, 10030),
            entryOf(5, "", "", Outcome::Failed, 100, -1, -1, 5010)};
}

TEST(TimelinePictures, OneWorkerWithContinuationsReads) {
    const std::string svg = toSvg(oneWorkerWithContinuations());
    EXPECT_LT(svg.rfind("class=\"wait\""), svg.find("<g>"))
        << "wait lines are drawn beneath every bar";
    for (const char* label : {">#1 solve<", ">#3 recorded<", ">#4 recorded<", ">#5<"}) {
        EXPECT_NE(svg.find(label), std::string::npos) << label << " is labelled";
    }
    const auto lane = svg.find(">failed early</text>");
    ASSERT_NE(lane, std::string::npos);
    EXPECT_EQ(svg.find(">not started</text>"), std::string::npos);
    EXPECT_NE(svg.find("<circle", lane), std::string::npos) << "a dot on the lane";
    EXPECT_NE(svg.find(">failed before running</text>"), std::string::npos) << "in the legend";
}

TEST(TimelinePictures, FilesAreWrittenOrTheFailureNamesThem) {
    TimelineRecorder recorder;
    TestFuture().finishedWith({});
    const auto folder =
        std::filesystem::temp_directory_path() / ("timeline-test-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    recorder.writeTraceEvents(folder / "t.json");
    recorder.writeSvg(folder / "t.svg");
    std::ifstream written(folder / "t.json");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(written), {}),
              toTraceEventJson(recorder.entries()));
    EXPECT_GT(std::filesystem::file_size(folder / "t.svg"), 0u);
    EXPECT_THAT([&] { recorder.writeSvg(folder / "missing" / "t.svg"); },
                ThrowsMessage<std::runtime_error>(HasSubstr("missing")));
    std::filesystem::remove_all(folder);
}

TEST(TimelinePictures, AnEmptyTimelineIsStillAPicture) {
    EXPECT_EQ(parseJson(toTraceEventJson({})).get_child("traceEvents").size(), 1u);
    EXPECT_NO_THROW(parseXml(toSvg({})));
}

} // namespace
} // namespace parallel::language::future
