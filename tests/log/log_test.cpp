#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <regex>
#include <thread>
#include <vector>

#include "log/log.h"
#include "support/log_capture.h"
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

TEST_F(Log, StartsWithStatedThresholds)
{
    EXPECT_EQ(log.level[TQ_LOG_CONSOLE], 5u);
    tq_log_t bare;
    ASSERT_NE(tq_log_init(&bare, nullptr, "0123456789012345678901234567890123456789"), nullptr);
    EXPECT_STREQ(bare.tag, "0123456789012345678901234567890");
    EXPECT_EQ(tq_log_cfg(&bare, TQ_LOG_FILE, 0, 1), 0); // without a file
    EXPECT_EQ(bare.level[TQ_LOG_FILE], 7u);
    EXPECT_EQ(tq_log_cfg(&bare, TQ_LOG_SINKS, 3, 0), 0);
    EXPECT_EQ(tq_log_cfg(&bare, -1, 3, 0), 0);
    tq_log_uninit(&bare);
    EXPECT_EQ(tq_log_init(&bare, "no/such/folder/a.log", "T"), nullptr);
}

TEST_F(Log, LinesGoWhereTheirLevelPasses)
{
    testing::internal::CaptureStdout();
    tq_log(&log, 0, "TRC", "trace\n");
    tq_log(&log, 4, "INF", "[%s]info %d\n", "me", 7);
    tq_log(&log, 5, nullptr, "[%s]warn\n", "me");
    tq_log_raw(&log, 6, "bare %s\n", "text");
    const std::string console = testing::internal::GetCapturedStdout();
    const std::string prefix = R"(\d{8} \d\d:\d\d:\d\d\.\d{3}\[\d+\])";
    EXPECT_TRUE(std::regex_match(console, std::regex(prefix + R"(\[TAG\]\[me\]warn\nbare text\n)")))
        << console;
    const std::string file = read_text("a.log");
    EXPECT_TRUE(std::regex_match(
        file, std::regex(prefix + R"(\[INF\]\[me\]info 7\n)" + prefix + R"(\[TAG\]\[me\]warn\nbare text\n)")))
        << file;

    tq_log_uninit(&log);
    tq_log(&log, 6, "ERR", "after the end\n");
    ASSERT_NE(tq_log_init(&log, "a.log", "TAG"), nullptr); // appends
    tq_log_raw(&log, 4, "more\n");
    tq_log_uninit(&log);
    EXPECT_EQ(read_text("a.log"), file + "more\n");
    // A long tag is cut, and long text isn't.
    ASSERT_NE(tq_log_init(&log, "b.log", "TAG"), nullptr);
    const std::string tag(300, 't'), text(5000, 'x');
    tq_log(&log, 4, tag.c_str(), "%s\n", text.c_str());
    tq_log_uninit(&log);
    EXPECT_EQ(read_text("b.log").substr(127), text + "\n");
}

TEST_F(Log, RotationKeepsOneOldFile)
{
    ASSERT_EQ(tq_log_rotate_enable(&log, "old.log", 10), 1);
    tq_log_raw(&log, 4, "0123456789");
    EXPECT_EQ(read_text("a.log"), "0123456789"); // at the limit, not past it
    tq_log_raw(&log, 4, "crossing");
    EXPECT_EQ(read_text("old.log"), "0123456789crossing");
    EXPECT_EQ(read_text("a.log"), "");
    tq_log_raw(&log, 4, "second crossing");
    EXPECT_EQ(read_text("old.log"), "second crossing");
    tq_log_raw(&log, 4, "live");
    tq_log_reload(&log, 0); // not due: goes on behind what is there
    tq_log_raw(&log, 4, "+");
    EXPECT_EQ(read_text("a.log"), "live+");
    tq_log_rotate_disable(&log);
    tq_log_raw(&log, 4, "far past the limit");
    EXPECT_EQ(read_text("a.log"), "live+far past the limit");
    tq_log_reload(&log, 1);
    EXPECT_EQ(read_text("a.log"), "");
}

TEST_F(Log, DumpsMemory)
{
    tq_log_hex(&log, 4, "0123456789abcde\x7fZ", 17, 0);
    EXPECT_EQ(read_text("a.log"),
              "0000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 7F    0123456789abcde.\n"
              "0010: 5A                                                 Z               \n");
    tq_log_reload(&log, 1);
    const char bytes[] = "plain\x01tail";
    char at[32];
    std::snprintf(at, sizeof at, "%p \"", static_cast<const void *>(bytes));
    const struct {
        uint32_t len, max_len;
        std::string expected;
    } cases[] = {
        {5, 100, std::string(at) + "plain\""},
        {10, 100, std::string(at) + "plain...\"(len=10)"},
        {5, uint32_t(std::strlen(at) + 4), std::string(at) + "pla"}, // room ran out
        {5, 4, std::string(at).substr(0, 3)},
    };
    for (const auto &c : cases) {
        tq_log_memstr(&log, 4, bytes, c.len, c.max_len, 0);
        EXPECT_EQ(read_text("a.log"), c.expected) << c.len << " " << c.max_len;
        tq_log_reload(&log, 1);
    }
}

TEST_F(Log, ThreadsShareOneFile)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&] {
            for (int i = 0; i < 500; i++) {
                tq_log(&log, 4, "T", "line\n");
                tq_log_cfg(&log, TQ_LOG_CONSOLE, TQ_LOG_SILENT, 0);
            }
        });
    tq_log_reload(&log, 0);
    for (auto &t : threads)
        t.join();
    const std::string file = read_text("a.log");
    EXPECT_EQ(std::count(file.begin(), file.end(), '\n'), 2000);
}

TEST(LogMacros, NameTheirFunctionAndTestTheThresholdFirst)
{
    LogCapture capture;
    LOG_WARN("[%s]odd %d\n", 3);
    LOG_AS(1, "DBG", "other", "[%s]plain\n");
    EXPECT_TRUE(capture.has("[WRN][TestBody]odd 3\n"));
    EXPECT_TRUE(capture.has("[DBG][other]plain\n"));
    tq_log_cfg(nullptr, TQ_LOG_FILE, TQ_LOG_WARN, 1);
    int evaluated = 0;
    LOG_TRACE("[%s]%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 0);
}
