#include <foundation/log/configuration.hpp>
#include <foundation/log/diagnostic_logger.hpp>

#include <gtest/gtest.h>

#include <boost/log/core/core.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_feature.hpp>

#include <cstdlib>
#include <sstream>

using namespace foundation::log;

namespace {

// Writes a record the way the library does: opened under the logger's lock
// with the thread's severity set, filled and pushed outside it.
void write(diagnostic_logger& logger, int severity, const std::string& text) {
    auto core = boost::log::core::get();
    boost::log::record record;
    {
        std::lock_guard guard(logger.lock());
        boost::log::sources::aux::get_severity_level() = static_cast<std::uintmax_t>(severity);
        record = core->open_record(logger.attributes());
    }
    ASSERT_TRUE(record);
    boost::log::record_ostream stream(record);
    stream << text;
    stream.flush();
    core->push_record(std::move(record));
}

class Logging : public ::testing::Test {
protected:
    ~Logging() override { reset_channel_switches(); }
};

} // namespace

TEST_F(Logging, CaptureSeesChannelSeverityTextAndIndent) {
    diagnostic_logger logger("x");
    RecordCapture capture("x");
    write(logger, severity::info, "first");
    logger.indent().increase();
    logger.indent().increase();
    write(logger, severity::warning, "nested");
    logger.indent().decrease();
    write(logger, severity::trace_exit, "back");

    const auto records = capture.records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].channel, "x");
    EXPECT_EQ(records[0].severity, 8);
    EXPECT_EQ(records[0].message, "first");
    EXPECT_EQ(records[0].indent, 0);
    EXPECT_EQ(records[1].severity, 16);
    EXPECT_EQ(records[1].indent, 2);
    EXPECT_EQ(records[2].severity, 64);
    EXPECT_EQ(records[2].indent, 1);
    EXPECT_EQ(logger.indent().depth(), 1);
}

TEST_F(Logging, CaptureOfOneChannelIgnoresOthersAndStopsWhenDestroyed) {
    diagnostic_logger x("x");
    diagnostic_logger y("y");
    RecordCapture all;
    {
        RecordCapture onlyY("y");
        write(x, severity::info, "to x");
        write(y, severity::info, "to y");
        ASSERT_EQ(onlyY.records().size(), 1u);
        EXPECT_EQ(onlyY.records()[0].message, "to y");
    }
    write(y, severity::info, "later");
    EXPECT_EQ(all.records().size(), 3u);
    all.clear();
    EXPECT_TRUE(all.records().empty());
}

TEST_F(Logging, ConsoleSinkIndentsTwoSpacesPerLevel) {
    std::ostringstream out;
    diagnostic_logger logger("console");
    {
        ConsoleSink sink(out);
        write(logger, severity::info, "top");
        logger.indent().increase();
        write(logger, severity::info, "inner");
    }
    write(logger, severity::info, "after the sink is gone");
    EXPECT_EQ(out.str(), "[console] top\n[console]   inner\n");
}

TEST_F(Logging, SwitchesApplyByChannelToLiveAndLaterLoggers) {
    diagnostic_logger a("a");
    diagnostic_logger b("b");
    EXPECT_EQ(a.switches(), 0u);
    set_channel_switches("a", switches::info);
    EXPECT_TRUE(a.is_enabled(switches::info));
    EXPECT_FALSE(a.is_enabled(switches::trace));
    EXPECT_EQ(b.switches(), 0u);
    diagnostic_logger laterA("a");
    EXPECT_EQ(laterA.switches(), switches::info);

    set_channel_switches("*", switches::all);
    diagnostic_logger c("c");
    EXPECT_EQ(a.switches(), switches::all);
    EXPECT_EQ(b.switches(), switches::all);
    EXPECT_EQ(c.switches(), switches::all);

    reset_channel_switches();
    EXPECT_EQ(a.switches(), 0u);
    EXPECT_EQ(diagnostic_logger("a").switches(), 0u);
}

TEST_F(Logging, EnvironmentConfigurationSkipsMalformedEntries) {
    ::setenv("KORVEX_LOG", "env=8,bad,=16,other=x,*=,env2=48", 1);
    EXPECT_EQ(configure_from_environment(), 2);
    EXPECT_EQ(diagnostic_logger("env").switches(), 8u);
    EXPECT_EQ(diagnostic_logger("env2").switches(), 48u);
    EXPECT_EQ(diagnostic_logger("unnamed").switches(), 0u);
    ::unsetenv("KORVEX_LOG");
    EXPECT_EQ(configure_from_environment(), 0);
}
