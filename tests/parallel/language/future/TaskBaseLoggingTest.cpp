#include "support/FutureTestSupport.hpp"

#include <foundation/log/configuration.hpp>
#include <foundation/log/diagnostic_logger.hpp>

#include <gtest/gtest.h>

#include <boost/log/core/core.hpp>

#include <stdexcept>
#include <string>

namespace parallel::language::future {
namespace {

using namespace testing;
using foundation::log::CapturedRecord;
namespace severity = foundation::log::severity;
namespace switches = foundation::log::switches;

const std::string kChannel = "parallel::language::future::TaskBase";
const std::string kPendingSignature =
    "void parallel::language::future::TaskBase::doNotifyPending()";

class TaskBaseLogging : public ::testing::Test {
protected:
    void TearDown() override {
        foundation::log::reset_channel_switches();
        boost::log::core::get()->set_logging_enabled(true);
    }
    static void enable(unsigned bits) { foundation::log::set_channel_switches(kChannel, bits); }

    foundation::log::RecordCapture capture{kChannel};
};

TEST_F(TaskBaseLogging, TracesBracketAnOperationIndentWhatItCallsAndMarkAThrow) {
    enable(switches::trace);
    auto task = TestTask::make();
    task->doNotifyPending();
    std::vector<CapturedRecord> records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].severity, severity::trace_entry);
    EXPECT_EQ(records[0].message, kPendingSignature);
    EXPECT_EQ(records[1].severity, severity::trace_exit);
    EXPECT_EQ(records[1].message, kPendingSignature);
    EXPECT_EQ(records[0].indent, records[1].indent);
    const std::string subject = "task " + std::to_string(task->getSerial());
    EXPECT_EQ(records[0].subject, subject);
    EXPECT_EQ(records[1].subject, subject);

    // Whatever wait calls is traced deeper than wait itself.
    capture.clear();
    task->wait(FutureState::Pending, secondsFromNow(1.0));
    records = capture.records();
    ASSERT_GE(records.size(), 2u);
    EXPECT_NE(records.front().message.find("TaskBase::wait("), std::string::npos);
    EXPECT_EQ(records.back().indent, records.front().indent);
    for (std::size_t i = 1; i + 1 < records.size(); ++i) {
        EXPECT_GT(records[i].indent, records.front().indent) << records[i].message;
    }

    task->doNotifyRunning();
    capture.clear();
    EXPECT_THROW(task->doNotifyRunning(), boost::promise_already_satisfied);
    records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].message,
              "void parallel::language::future::TaskBase::doNotifyRunning() [throw]");
}

TEST_F(TaskBaseLogging, TracingDecidedAtEntryHoldsForTheWholeOperation) {
    auto task = TestTask::make();
    task->afterRunningThen(boost::launch::sync, [] { enable(switches::trace); });
    task->doNotifyRunning();
    EXPECT_TRUE(capture.records().empty());

    // Logging switched off in the core: no records, but the indent still
    // returns to where it was.
    boost::log::core::get()->set_logging_enabled(false);
    task->doNotifyPending();
    boost::log::core::get()->set_logging_enabled(true);
    EXPECT_TRUE(capture.records().empty());
    task->doNotifyPending();
    const std::vector<CapturedRecord> records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].indent, 0);
    EXPECT_EQ(records[1].indent, 0);
}

TEST_F(TaskBaseLogging, MessagesNameTheirEventAtTheirSeverityUnderItsOwnSwitch) {
    const auto earlyWaitAndCancels = [] {
        auto task = TestTask::make();
        task->wait(FutureState::Finished, secondsFromNow(1.0));
        task->onCancel = [] { throw std::runtime_error("executor refused"); };
        task->doNotifyPending();
        task->cancel();
        task->cancel();
    };
    enable(switches::warning);
    earlyWaitAndCancels();
    std::vector<CapturedRecord> records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].severity, severity::warning);
    EXPECT_EQ(records[0].message.rfind("Exception caught: ", 0), 0u);
    EXPECT_NE(records[0].message.find("executor refused"), std::string::npos);

    capture.clear();
    enable(switches::info);
    earlyWaitAndCancels();
    records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].severity, severity::info);
    EXPECT_EQ(records[0].message, "Early return from wait.");
    EXPECT_EQ(records[1].severity, severity::info);
    EXPECT_EQ(records[1].message, "cancel returned early because state is finished.");
}

} // namespace
} // namespace parallel::language::future
