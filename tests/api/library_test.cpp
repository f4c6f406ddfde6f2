#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <time.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "tqcam.h"

namespace {
std::string slurp(const std::string &name)
{
    std::ifstream in(name, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}
} // namespace

TEST(Library, StartsOnceAndLogsToTheNamedFile)
{
    TempDir dir;
    tqcam_init("a.log");
    tqcam_path_set("x/");
    tqcam_init("b.log"); // has no effect
    EXPECT_STREQ(tqcam_path_get(), "x/");
    EXPECT_EQ(tqcam_dev_list(nullptr, 1), 0);
    tqcam_uninit();
    tqcam_uninit();
    const std::string text = slurp("a.log");
    EXPECT_EQ(text.find("\n---- TQCAM "), 0u);
    EXPECT_NE(text.find("log start -----\n"), std::string::npos);
    EXPECT_NE(text.find("[tqcam_dev_list]  wrong params: dev_list="), std::string::npos);
    EXPECT_NE(text.find("---- TQCAM log END ----\n\n"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists("b.log"));

    tqcam_init("");
    EXPECT_STREQ(tqcam_path_get(), "");
    tqcam_uninit();
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("."), {}), 2); // a.log and x
    tqcam_init(nullptr);
    tqcam_uninit();
    char name[64];
    const time_t now = time(nullptr);
    struct tm local = {};
    strftime(name, sizeof(name), "tqcam_%Y%m%d.log", localtime_r(&now, &local));
    EXPECT_TRUE(std::filesystem::exists(name));
}

TEST(Library, PathFolders)
{
    struct {
        const char *path;
        int result;
        const char *made, *not_made;
    } const cases[] = {
        {"a/b/", 0, "a/b", "a/b/b"},
        {"c/d", 0, "c", "c/d"}, // a last name without separator is the
                                // beginning of file names
        {"e\\f\\", 0, "e/f", "e\\f"},
        {"a/b/", 0, "a/b", "a/b/b"}, // again
        {"file/x/", -1, "file", "file/x"},
        {"", -1, ".", "none"},
        {"g", -1, ".", "g"},
    };
    TempDir dir;
    std::ofstream("file") << "in the way";
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_EQ(tqcam_path_set(c.path), c.result);
        EXPECT_STREQ(tqcam_path_get(), c.path);
        EXPECT_TRUE(std::filesystem::exists(c.made));
        EXPECT_FALSE(std::filesystem::exists(c.not_made));
    }
    struct stat st;
    ASSERT_EQ(stat("a", &st), 0);
    EXPECT_EQ(st.st_mode & S_IRWXU, static_cast<mode_t>(S_IRWXU)); // what is made stays usable by its owner
    EXPECT_EQ(tqcam_path_set(nullptr), -1);
    const std::string longer(300, 'p');
    tqcam_path_set(longer.c_str());
    EXPECT_EQ(tqcam_path_get(), std::string(255, 'p'));
    tqcam_path_set(tqcam_path_get());
    EXPECT_EQ(tqcam_path_get(), std::string(255, 'p'));
}

TEST(Library, ErrorWords)
{
    EXPECT_STREQ(tqcam_error_name(0), "OK");
    EXPECT_STREQ(tqcam_error_name(3), "TQCAM_ERR_CAP_FRAME_DISCARD");
    EXPECT_STREQ(tqcam_error_name(-9), "TQCAM_ERR_CAP_EOF");
    for (int unknown : {1, -1, -4, -6, -11, 99})
        EXPECT_STREQ(tqcam_error_name(unknown), "**UNKNOWN**");
}

TEST(Library, ListClearsTheHandles)
{
    LogCapture log;
    tqcam_dev_t list[2];
    memset(list, 0xFF, sizeof(list));
    EXPECT_EQ(tqcam_dev_list(list, 0), 0);
    EXPECT_TRUE(log.has("[tqcam_dev_list]  wrong params: dev_list="));
    EXPECT_EQ(list[0].inited, 0xFF);
    EXPECT_EQ(tqcam_dev_list(list, 2), 0);
    EXPECT_EQ(list[1].inited, 0);
    EXPECT_EQ(list[1].priv, nullptr);
}
