#include <algorithm>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "tqcam.h"

namespace {
struct FrameFile : ::testing::Test {
    FrameFile() : fd(tqcam_file_open("f", "w+b")) { EXPECT_GE(fd, 0); }
    ~FrameFile() override { tqcam_file_close(fd); }

    std::string text() const { return read_text("f"); }
    void put(const std::string &bytes)
    {
        std::ofstream("f", std::ios::binary) << bytes;
        rewind();
    }
    void rewind() { lseek(fd, 0, SEEK_SET); }

    TempDir dir;
    LogCapture log;
    int fd;
};

template <typename T> std::string le(std::initializer_list<T> values)
{
    return std::string(reinterpret_cast<const char *>(values.begin()), values.size() * sizeof(T));
}
} // namespace

TEST_F(FrameFile, RawFramesFollowOneHeader)
{
    const uint16_t frames[] = {1, 2, 3, 4, 5, 6, 7, 0xFFFF, 11, 12, 13, 14, 15, 16, 17, 18};
    for (const int fmt : {TQCAM_RAW_U16, TQCAM_RAW_U32}) {
        put("");
        EXPECT_TRUE(tqcam_frame_save_raw(fd, fmt, frames, 8, 2, 2, 2, "A60 no space\nsecond line"));
        EXPECT_TRUE(tqcam_frame_save_raw(fd, fmt, frames + 8, 8, 2, 2, 2, "other"));
        const std::string due =
            fmt == TQCAM_RAW_U32
                ? "TQ_RAW,U32,2,2,2,A60 no space\n" + le<uint32_t>({1, 2, 3, 4, 5, 6, 7, 0xFFFF, 11})
                : "TQ_RAW,U16,2,2,2,A60 no space\n" + le<uint16_t>({1, 2, 3, 4, 5, 6, 7, 0xFFFF, 11});
        EXPECT_EQ(text().substr(0, due.size()), due);
        rewind();
        uint16_t got[8] = {};
        int w = 0, h = 0, n = 0;
        char tag[8] = "x";
        EXPECT_EQ(tqcam_frame_load_raw(fd, got, 8, &w, &h, &n, tag, sizeof tag), 8);
        EXPECT_EQ(std::memcmp(got, frames, sizeof got), 0);
        EXPECT_EQ(w * 100 + h * 10 + n, 222);
        EXPECT_STREQ(tag, "A60");
        // Cut to the room; the position lies past the whole frame.
        EXPECT_EQ(tqcam_frame_load_raw(fd, got, 3, nullptr, nullptr, nullptr, nullptr, 0), 3);
        EXPECT_EQ(std::memcmp(got, frames + 8, 6), 0);
        EXPECT_EQ(got[3], 4);
        EXPECT_EQ(tqcam_frame_load_raw(fd, got, 8, &w, &h, &n, tag, sizeof tag), 0);
        EXPECT_EQ(log.text(), ""); // the end of the file is no fault
    }
}

TEST_F(FrameFile, DistanceAndGrayAreStoredInTheirWidths)
{
    const float dist[] = {0.0f, 1.0f, 1.2345f, 65.537f, -0.0015f, 3e9f, NAN, 2.0f, 9.0f};
    const struct {
        int fmt;
        std::string bytes;
        float back[8];
    } cases[] = {
        {TQCAM_DIST_U32,
         "TQ_DIST,U32,4,2\n" + le<uint32_t>({0, 1000, 1234, 65537, 0xFFFFFFFF, 0x7FFFFFFF, 0, 2000}),
         {0, 1, 1.234f, 65.537f, 4294967295.0f / 1000, 2147483647.0f / 1000, 0, 2}},
        {TQCAM_DIST_U16,
         "TQ_DIST,U16,4,2\n" + le<uint16_t>({0, 1000, 1234, 1, 0xFFFF, 0xFFFF, 0, 2000}),
         {0, 1, 1.234f, 0.001f, 65.535f, 65.535f, 0, 2}},
    };
    float got[8];
    for (const auto &c : cases) {
        put("");
        EXPECT_TRUE(tqcam_frame_save_distance(fd, c.fmt, dist, 9, 4, 2)); // the ninth is no whole image
        EXPECT_EQ(text(), c.bytes);
        rewind();
        EXPECT_EQ(tqcam_frame_load_distance(fd, got, 8, nullptr, nullptr), 8);
        for (int i = 0; i < 8; i++)
            EXPECT_EQ(got[i], c.back[i]) << i;
    }
    const float gray[] = {0.9f, 255.9f, 256.0f, -1.0f, 70000.0f, 7.0f};
    put("");
    EXPECT_TRUE(tqcam_frame_save_gray(fd, TQCAM_GRAY_U16, gray, 6, 5, 1));
    EXPECT_EQ(text(), "TQ_GRAY,U16,5,1\n" + le<uint16_t>({0, 255, 256, 0xFFFF, 4464}));
    rewind();
    EXPECT_EQ(tqcam_frame_load_gray(fd, got, 100, nullptr, nullptr), 5);
    EXPECT_EQ(got[3], 65535.0f);
}

TEST_F(FrameFile, SaveRefuses)
{
    const uint16_t raw[8] = {};
    const float f[8] = {};
    const int big = 0x10000, full = open("/dev/full", O_WRONLY);
    const bool calls[] = {
        tqcam_frame_save_raw(fd, 2, raw, 7, 2, 2, 2, ""),
        tqcam_frame_save_raw(fd, 2, raw, 8, -2, -2, 2, ""),
        tqcam_frame_save_raw(fd, 2, raw, 8, big, big, big, ""),
        tqcam_frame_save_gray(fd, 1, f, 8, 4, 2),
        tqcam_frame_save_ply(fd, f, 6, 2, true),
        tqcam_frame_save_raw(full, 2, raw, 8, 2, 2, 2, ""),
        tqcam_frame_save_ply(full, f, 4, 1, false),
    };
    close(full);
    EXPECT_EQ(std::count(calls, calls + 7, false), 7);
    EXPECT_EQ(text(), "");
}

TEST_F(FrameFile, BadHeaders)
{
    const std::string body(64, '\2');
    const std::pair<std::string, int> cases[] = {
        {"TQ_RAW,U16,2,2,1,tag", 0}, // no newline: all of it is header, and no image follows
        {"TQ_RAW,U16,2,2,1,\n", 4},  // no tag
        {"TQ_RAW,U16,2,2,\n", 0},
        {"TQ_DIST,U16,2,2\n", 0}, // another kind of file
        {"TQ_RAW,U32,65536,65536,1,t\n", 0},
        {"TQ_RAW,U16,4294967298,2,1,t\n", 0},
        {"TQ_RAW,U32,46340,46340,1,t\n", 0}, // promises 8 GB
        {"TQ_RAW,U16,8,4,1,t\n", 32},
        {"TQ_RAW,U16,8,5,1,t\n", 0},
    };
    for (const auto &[head, loaded] : cases) {
        put(head + body);
        uint16_t got[64];
        char tag[33] = "old";
        EXPECT_EQ(tqcam_frame_load_raw(fd, got, 64, nullptr, nullptr, nullptr, tag, sizeof tag), loaded)
            << head;
    }
}

TEST_F(FrameFile, Ply)
{
    const float pcl[] = {1.0f, -2.5f, 0.000001f, 0x010203, 1e10f, 0, 7, -1};
    const std::string vertex = "property float32 x\nproperty float32 y\nproperty float32 z\n";
    const std::string colours = "property   uint8   red\nproperty   uint8   green\nproperty   uint8   blue\n";
    EXPECT_TRUE(tqcam_frame_save_ply(fd, pcl, 4, TQCAM_PCL_FORMAT_XYZD, false));
    EXPECT_EQ(text(), "ply\nformat ascii 1.0\nelement vertex 1\n" + vertex + colours +
                          "end_header\n1.000000 -2.500000 0.000001 3 2 1\n");
    put("");
    EXPECT_TRUE(tqcam_frame_save_ply(fd, pcl, 8, TQCAM_PCL_FORMAT_XYZI, true));
    EXPECT_EQ(text(), "ply\nformat binary_little_endian 1.0\nelement vertex 2\n" + vertex + colours +
                          "end_header\n" + le<float>({1.0f, -2.5f, 0.000001f}) + "\3\3\3" +
                          le<float>({1e10f, 0, 7}) + "\xFF\xFF\xFF");
    // Rows come through whole where the buffer between them and the file fills.
    const std::vector<float> many(4 * 5000, -1.5f);
    put("");
    EXPECT_TRUE(tqcam_frame_save_ply(fd, many.data(), 4 * 5000, TQCAM_PCL_FORMAT_XYZI, false));
    const std::string all = text();
    for (size_t at = all.find("end_header\n") + 10; at + 1 < all.size(); at += 42)
        ASSERT_EQ(all.substr(at, 43), "\n-1.500000 -1.500000 -1.500000 255 255 255\n") << at;
}
