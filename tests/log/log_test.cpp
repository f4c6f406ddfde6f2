#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <regex>
#include <thread>
#include <vector>

#include "log/log.h"
#include "support/temp_dir.h"

namespace {
// An instance that logs to "a.log" in a folder of its own, flushing each line.
struct Log : ::testing::Test {
    Log()
    {
        EXPECT_EQ(tq_log_init(&log, "a.log", "TAG"), &log);
        tq_log_cfg(&log, TQ_LOG_FILE, TQ_LOG_DEBUG, 1);
    }
    ~Log() override { tq_log_uninit(&log); }

    TempDir dir;
    tq_log_t log;
};
} // namespace

TEST_F(Log, LinesGoWhereTheirLevelPasses)
{
    testing::internal::CaptureStdout();
    tq_log(&log, 0, "TRC", "trace\n");
    tq_log(&log, 4, "INF", "[%s]info %d\n", "me", 7);
    tq_log(&log, 5, nullptr, "[%s]warn\n", "me");
    tq_log_raw(&log, 6, "bare %s\n", "text");
    const std::string console = testing::internal::GetCapturedStdout();
    const std::string prefix = R"(\d{8} \d\d:\d\d:\d\d\.\d{3}\[\d+\])";
    const std::string warn = prefix + R"(\[TAG\]\[me\]warn\nbare text\n)";
    EXPECT_TRUE(std::regex_match(console, std::regex(warn))) << console;
    const std::string file = read_text("a.log");
    EXPECT_TRUE(std::regex_match(file, std::regex(prefix + R"(\[INF\]\[me\]info 7\n)" + warn))) << file;

    tq_log_uninit(&log);
    tq_log(&log, 6, "ERR", "after the end\n");
    // Appends. A long tag is cut, and long text isn't.
    ASSERT_NE(tq_log_init(&log, "a.log", "0123456789012345678901234567890123456789"), nullptr);
    EXPECT_STREQ(log.tag, "0123456789012345678901234567890");
    const std::string tag(300, 't'), text(5000, 'x');
    tq_log(&log, 4, tag.c_str(), "%s\n", text.c_str());
    tq_log_uninit(&log);
    EXPECT_EQ(read_text("a.log").substr(0, file.size()), file);
    EXPECT_EQ(read_text("a.log").substr(file.size() + 127), text + "\n");
}

TEST_F(Log, RotationKeepsOneOldFile)
{
    ASSERT_EQ(tq_log_rotate_enable(&log, "old.log", 10), 1);
    tq_log_raw(&log, 4, "0123456789");
    EXPECT_EQ(read_text("a.log"), "0123456789"); // at the limit, not past it
    tq_log_raw(&log, 4, "crossing");
    EXPECT_EQ(read_text("old.log"), "0123456789crossing");
    tq_log_raw(&log, 4, "second crossing");
    EXPECT_EQ(read_text("old.log"), "second crossing");
    tq_log_raw(&log, 4, "live");
    tq_log_reload(&log, 0); // not due: goes on behind what is there
    tq_log_rotate_disable(&log);
    tq_log_raw(&log, 4, "+far past the limit");
    EXPECT_EQ(read_text("a.log"), "live+far past the limit");
}

TEST_F(Log, ThreadsShareOneFile)
{
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&] {
            for (int i = 0; i < 500; i++) {
                tq_log(&log, 4, "T", "line\n");
                tq_log_cfg(&log, TQ_LOG_CONSOLE, TQ_LOG_SILENT, 0);
            }
        });
    tq_log_reload(&log, 0);
    threads.clear(); // joins
    EXPECT_EQ(std::ranges::count(read_text("a.log"), '\n'), 2000);
}
