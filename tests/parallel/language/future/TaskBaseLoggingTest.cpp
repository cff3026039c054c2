#include "TestTask.hpp"

#include <foundation/log/configuration.hpp>
#include <foundation/log/diagnostic_logger.hpp>

#include <gtest/gtest.h>

#include <boost/log/core/core.hpp>

#include <stdexcept>
#include <string>

namespace parallel::language::future {
namespace {

using foundation::log::CapturedRecord;
using testing::TestTask;

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

TEST_F(TaskBaseLogging, TracesBracketAnOperationAndIndentWhatItCalls) {
    enable(foundation::log::switches::trace);
    auto task = TestTask::make();
    task->doNotifyPending();
    std::vector<CapturedRecord> records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].severity, 32);
    EXPECT_EQ(records[0].message, kPendingSignature);
    EXPECT_EQ(records[1].severity, 64);
    EXPECT_EQ(records[1].message, kPendingSignature);
    EXPECT_EQ(records[0].indent, records[1].indent);

    capture.clear();
    task->wait(FutureState::Pending, testing::secondsFromNow(1.0));
    records = capture.records();
    // wait's entry, getState's entry and exit one level deeper, wait's exit.
    ASSERT_EQ(records.size(), 4u);
    EXPECT_NE(records[0].message.find("TaskBase::wait("), std::string::npos);
    EXPECT_NE(records[1].message.find("TaskBase::getState()"), std::string::npos);
    EXPECT_EQ(records[1].indent, records[0].indent + 1);
    EXPECT_EQ(records[2].indent, records[0].indent + 1);
    EXPECT_EQ(records[3].indent, records[0].indent);
}

TEST_F(TaskBaseLogging, AnOperationLeftByAnExceptionSaysSo) {
    enable(foundation::log::switches::trace);
    auto task = TestTask::make();
    task->doNotifyRunning();
    capture.clear();
    EXPECT_THROW(task->doNotifyRunning(), boost::promise_already_satisfied);
    const std::vector<CapturedRecord> records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].message,
              "void parallel::language::future::TaskBase::doNotifyRunning() [throw]");
}

TEST_F(TaskBaseLogging, TracingDecidedAtEntryHoldsForTheWholeOperation) {
    auto task = TestTask::make();
    task->afterRunningThen(boost::launch::sync, [] { enable(foundation::log::switches::trace); });
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

TEST_F(TaskBaseLogging, MessagesNameTheirEventAtTheirSeverity) {
    enable(foundation::log::switches::info | foundation::log::switches::warning);
    auto task = TestTask::make();
    task->wait(FutureState::Finished, testing::secondsFromNow(1.0));
    task->onCancel = [] { throw std::runtime_error("executor refused"); };
    task->doNotifyPending();
    task->cancel();
    task->cancel();
    const std::vector<CapturedRecord> records = capture.records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].severity, 8);
    EXPECT_EQ(records[0].message, "Early return from wait.");
    EXPECT_EQ(records[1].severity, 16);
    EXPECT_EQ(records[1].message.rfind("Exception caught: ", 0), 0u);
    EXPECT_NE(records[1].message.find("executor refused"), std::string::npos);
    EXPECT_EQ(records[2].severity, 8);
    EXPECT_EQ(records[2].message, "cancel returned early because state is finished.");
}

TEST_F(TaskBaseLogging, EachSeverityHasItsOwnSwitch) {
    enable(foundation::log::switches::warning);
    auto task = TestTask::make();
    task->wait(FutureState::Finished, testing::secondsFromNow(1.0));
    task->cancel();
    task->cancel();
    EXPECT_TRUE(capture.records().empty());
}

} // namespace
} // namespace parallel::language::future
