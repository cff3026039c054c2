#include <foundation/log/configuration.hpp>
#include <foundation/log/diagnostic_logger.hpp>

#include <gtest/gtest.h>

#include <algorithm>

#include <boost/log/core/core.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_feature.hpp>

#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

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

} // namespace

TEST(Logging, CaptureAndConsoleSeeChannelSeverityTextAndIndent) {
    diagnostic_logger x("x"), y("y");
    RecordCapture all;
    std::ostringstream console;
    std::vector<std::tuple<std::string, int, std::string, int>> seen;
    {
        RecordCapture onlyX("x");
        ConsoleSink sink(console);
        write(x, severity::info, "first");
        x.indent().increase();
        x.indent().increase();
        write(y, severity::trace_entry, "to y");
        write(x, severity::warning, "nested");
        x.indent().decrease();
        write(x, severity::trace_exit, "back");
        for (const auto& r : onlyX.records()) {
            seen.emplace_back(r.channel, r.severity, r.message, r.indent);
        }
    }
    write(x, severity::info, "after the sinks are gone");
    EXPECT_EQ(seen,
              (decltype(seen){{"x", 8, "first", 0}, {"x", 16, "nested", 2}, {"x", 64, "back", 1}}));
    EXPECT_EQ(all.records().size(), 5u);
    // The time and thread, two spaces per indent level; function trace
    // entries and exits marked.
    const std::string thread = " T" + std::to_string(detail::thread_number()) + " ";
    std::istringstream lines(console.str());
    std::vector<std::string> texts;
    for (std::string line; std::getline(lines, line);) {
        ASSERT_TRUE(std::regex_match(line.substr(0, 15), std::regex(R"(\d\d:\d\d:\d\d\.\d{6})")))
            << line;
        ASSERT_EQ(line.substr(15, thread.size()), thread) << line;
        texts.push_back(line.substr(15 + thread.size()));
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"[x] first", "[y] > to y", "[x]     nested",
                                               "[x]   < back"}));
}

// Subjects and indents are each thread's own.
TEST(Logging, RecordsNameTheInnermostSubjectOfTheirThread) {
    diagnostic_logger about("about");
    RecordCapture records("about");
    std::ostringstream console;
    {
        ConsoleSink sink(console);
        SubjectScope future("future", 12);
        write(about, severity::info, "outer");
        {
            SubjectScope task("task", 3);
            about.indent().increase();
            write(about, severity::info, "inner");
            std::thread([&] { write(about, severity::info, "elsewhere"); }).join();
            about.indent().decrease();
        }
        write(about, severity::info, "outer again");
    }
    write(about, severity::info, "none");
    std::vector<std::tuple<std::string, int>> seen;
    for (const auto& record : records.records()) {
        seen.emplace_back(record.subject, record.indent);
    }
    ASSERT_EQ(seen, (decltype(seen){
                        {"future 12", 0}, {"task 3", 1}, {"", 0}, {"future 12", 0}, {"", 0}}));
    EXPECT_NE(records.records()[1].thread, records.records()[2].thread);
    EXPECT_NE(console.str().find("]   inner (task 3)\n"), std::string::npos) << console.str();
}

TEST(Logging, SwitchesApplyByChannelToLiveAndLaterLoggers) {
    diagnostic_logger a("a"), b("b");
    set_channel_switches("a", switches::info);
    EXPECT_TRUE(a.is_enabled(switches::info));
    EXPECT_FALSE(a.is_enabled(switches::trace));
    EXPECT_EQ(b.switches(), 0u);
    EXPECT_EQ(diagnostic_logger("a").switches(), switches::info);
    set_channel_switches("*", switches::all);
    EXPECT_EQ(a.switches(), switches::all);
    EXPECT_EQ(diagnostic_logger("c").switches(), switches::all);
    reset_channel_switches();
    EXPECT_EQ(a.switches(), 0u);

    // What a user types: blanks, ';' or ',', a trailing separator, names,
    // hexadecimal, '|'; the unreadable entries are named in one warning.
    ::setenv("KORVEX_LOG",
             " env = 8 ; hex=0x30,named=Info|trace;bad,=16, other=x,*=,half=8|; env2=48+info ;", 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(configure_from_environment(), 4);
    const std::string warning = testing::internal::GetCapturedStderr();
    EXPECT_EQ(diagnostic_logger("env").switches(), 8u);
    EXPECT_EQ(diagnostic_logger("hex").switches(), 48u);
    EXPECT_EQ(diagnostic_logger("named").switches(), switches::info | switches::trace);
    EXPECT_EQ(diagnostic_logger("env2").switches(), 56u);
    EXPECT_EQ(diagnostic_logger("half").switches(), 0u);
    EXPECT_EQ(diagnostic_logger("unnamed").switches(), 0u);
    EXPECT_EQ(std::count(warning.begin(), warning.end(), '\n'), 1) << warning;
    for (const char* entry : {"'bad'", "'=16'", "'other=x'", "'*='", "'half=8|'"}) {
        EXPECT_NE(warning.find(entry), std::string::npos) << entry << " in " << warning;
    }
    ::setenv("KORVEX_LOG", "*=all", 1);
    EXPECT_EQ(configure_from_environment(), 1);
    EXPECT_EQ(diagnostic_logger("unnamed").switches(), switches::all);
    ::unsetenv("KORVEX_LOG");
    reset_channel_switches();
}
