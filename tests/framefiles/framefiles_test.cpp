#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits>
#include <unistd.h>
#include <vector>

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
        ASSERT_EQ(ftruncate(fd, 0), 0);
        lseek(fd, 0, SEEK_SET);
        ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        rewind();
    }
    void rewind() { lseek(fd, 0, SEEK_SET); }
    void empty()
    {
        EXPECT_EQ(ftruncate(fd, 0), 0);
        rewind();
    }

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
        empty();
        EXPECT_TRUE(tqcam_frame_save_raw(fd, fmt, frames, 8, 2, 2, 2, "A60 no space\nsecond line"));
        EXPECT_TRUE(tqcam_frame_save_raw(fd, fmt, frames + 8, 8, 2, 2, 2, "other"));
        const std::string head =
            fmt == TQCAM_RAW_U16 ? "TQ_RAW,U16,2,2,2,A60 no space\n" : "TQ_RAW,U32,2,2,2,A60 no space\n";
        EXPECT_EQ(text().size(), head.size() + 16u * (fmt == TQCAM_RAW_U16 ? 2 : 4));
        EXPECT_EQ(text().substr(0, head.size() + 4),
                  head + (fmt == TQCAM_RAW_U16 ? le<uint16_t>({1, 2}) : le<uint32_t>({1})));
        rewind();
        uint16_t got[8] = {};
        int w = 0, h = 0, n = 0;
        char tag[8] = "x";
        EXPECT_EQ(tqcam_frame_load_raw(fd, got, 8, &w, &h, &n, tag, sizeof tag), 8);
        EXPECT_EQ(std::memcmp(got, frames, sizeof got), 0);
        EXPECT_EQ(w * 100 + h * 10 + n, 222);
        EXPECT_STREQ(tag, "A60");
        std::memset(got, 0, sizeof got);
        EXPECT_EQ(tqcam_frame_load_raw(fd, got, 3, nullptr, nullptr, nullptr, nullptr, 0),
                  3); // cut, position past it
        EXPECT_EQ(std::memcmp(got, frames + 8, 6), 0);
        EXPECT_EQ(got[3], 0);
        log.clear();
        EXPECT_EQ(tqcam_frame_load_raw(fd, got, 8, &w, &h, &n, tag, sizeof tag),
                  0); // end of file, in silence
        EXPECT_EQ(log.text(), "");
    }
}

TEST_F(FrameFile, DistanceIsStoredInMillimetres)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float dist[] = {0.0f, 1.0f, 1.2345f, 65.537f, -0.0015f, 3e9f, nan, 2.0f, 9.0f};
    const struct {
        int fmt;
        std::string head, samples;
        float back[8];
    } cases[] = {
        {TQCAM_DIST_U32,
         "TQ_DIST,U32,4,2\n",
         le<uint32_t>({0, 1000, 1234, 65537, 0xFFFFFFFF, 0x7FFFFFFF, 0, 2000}),
         {0, 1, 1.234f, 65.537f, 4294967295.0f / 1000, 2147483647.0f / 1000, 0, 2}},
        {TQCAM_DIST_U16,
         "TQ_DIST,U16,4,2\n",
         le<uint16_t>({0, 1000, 1234, 1, 0xFFFF, 0xFFFF, 0, 2000}),
         {0, 1, 1.234f, 0.001f, 65.535f, 65.535f, 0, 2}},
    };
    for (const auto &c : cases) {
        empty();
        EXPECT_TRUE(tqcam_frame_save_distance(fd, c.fmt, dist, 9, 4, 2)); // the ninth is no whole image
        EXPECT_EQ(text(), c.head + c.samples);
        rewind();
        float got[8];
        EXPECT_EQ(tqcam_frame_load_distance(fd, got, 8, nullptr, nullptr), 8);
        for (int i = 0; i < 8; i++)
            EXPECT_EQ(got[i], c.back[i]) << i;
    }
    empty();
    EXPECT_TRUE(tqcam_frame_save_distance(fd, TQCAM_DIST_F32, dist, 8, 4, 2));
    rewind();
    float got[8];
    int w = 0, h = 0;
    EXPECT_EQ(tqcam_frame_load_distance(fd, got, 100, &w, &h), 8);
    EXPECT_EQ(std::memcmp(got, dist, sizeof got), 0);
    EXPECT_EQ(w * 10 + h, 42);
}

TEST_F(FrameFile, GrayIsCutToItsWidth)
{
    const float gray[] = {0.9f, 255.9f, 256.0f, -1.0f, 70000.0f, 7.0f};
    EXPECT_TRUE(tqcam_frame_save_gray(fd, TQCAM_GRAY_U8, gray, 6, 5, 1)); // one image only
    EXPECT_EQ(text(), "TQ_GRAY,U8,5,1\n" + le<uint8_t>({0, 255, 0, 255, 112}));
    empty();
    EXPECT_TRUE(tqcam_frame_save_gray(fd, TQCAM_GRAY_U16, gray, 5, 5, 1));
    EXPECT_EQ(text(), "TQ_GRAY,U16,5,1\n" + le<uint16_t>({0, 255, 256, 0xFFFF, 4464}));
    rewind();
    float got[5];
    int w = 0, h = 0;
    EXPECT_EQ(tqcam_frame_load_gray(fd, got, 5, &w, &h), 5);
    EXPECT_EQ(got[3], 65535.0f);
    rewind();
    EXPECT_EQ(tqcam_frame_load_distance(fd, got, 5, &w, &h), 0); // another kind of file
    EXPECT_TRUE(log.has("[tqcam_frame_load_distance]faile to load TQ file header\n"));
}

TEST_F(FrameFile, HeaderOnlyAtTheBeginning)
{
    const float gray[] = {1, 2};
    put("junk");
    lseek(fd, 4, SEEK_SET);
    EXPECT_TRUE(tqcam_frame_save_gray(fd, TQCAM_GRAY_U8, gray, 2, 2, 1));
    EXPECT_EQ(text(), "junk\1\2");
    float got[2];
    empty();
    EXPECT_TRUE(tqcam_frame_save_gray(fd, TQCAM_GRAY_U8, gray, 2, 2, 1));
    rewind();
    EXPECT_EQ(tqcam_frame_load_gray(fd, got, 0, nullptr, nullptr), 0);
    put("junk\3\4");
    lseek(fd, 4, SEEK_SET);
    EXPECT_EQ(tqcam_frame_load_gray(fd, got, 2, nullptr, nullptr), 2); // as the last header told
    EXPECT_EQ(got[1], 4.0f);
}

TEST_F(FrameFile, SaveRefuses)
{
    const uint16_t raw[8] = {};
    const float f[8] = {};
    const int big = 0x10000;
    const struct {
        bool result;
        const char *line;
    } calls[] = {
        {tqcam_frame_save_raw(fd, 2, raw, 7, 2, 2, 2, ""),
         "[tqcam_frame_save_raw]wrong param: raw_len=7, w=2, h=2\n"},
        {tqcam_frame_save_raw(fd, 2, raw, 8, -2, -2, 2, ""), "wrong param: raw_len=8, w=-2, h=-2\n"},
        {tqcam_frame_save_raw(fd, 2, raw, 8, big, big, big, ""),
         "wrong param: raw_len=8, w=65536, h=65536\n"},
        {tqcam_frame_save_raw(fd, 0, raw, 8, 2, 2, 2, ""),
         "[tqcam_frame_save_raw]wrong raw save format: 0\n"},
        {tqcam_frame_save_distance(fd, 3, f, 8, 4, 2),
         "[tqcam_frame_save_distance]wrong distance save format: 3\n"},
        {tqcam_frame_save_gray(fd, 1, f, 8, 4, 2), "[tqcam_frame_save_gray]wrong gray save format: 1\n"},
        {tqcam_frame_save_gray(-1, 2, f, 8, 4, 2),
         "[tqcam_frame_save_gray]faile to save TQ_GRAY U16 data: 16 bytes\n"},
        {tqcam_frame_save_ply(-1, f, 8, 1, true), "[tqcam_frame_save_ply]wrong parameters\n"},
        {tqcam_frame_save_ply(fd, f, 8, 3, true), "wrong parameters\n"},
        {tqcam_frame_save_ply(fd, f, 4, 0, true), "wrong pcl_len: 4 for TQCAM_PCL_FORMAT_XYZ\n"},
        {tqcam_frame_save_ply(fd, f, 6, 2, true),
         "wrong pcl_len: 6 for TQCAM_PCL_FORMAT_XYZD/TQCAM_PCL_FORMAT_XYZI\n"},
    };
    for (const auto &c : calls) {
        EXPECT_FALSE(c.result) << c.line;
        EXPECT_TRUE(log.has(c.line)) << c.line;
    }
    EXPECT_EQ(text(), "");
    EXPECT_EQ(tqcam_file_open("no/such/folder/f", "rb"), -1);
    const int full = open("/dev/full", O_WRONLY);
    EXPECT_FALSE(tqcam_frame_save_raw(full, 2, raw, 8, 2, 2, 2, ""));
    EXPECT_FALSE(tqcam_frame_save_ply(full, f, 4, 1, false));
    close(full);
    EXPECT_TRUE(log.has("[tqcam_frame_save_raw]faile to save TQ_RAW header\n"));
    EXPECT_TRUE(log.has("[tqcam_frame_save_ply]write PLY header failed: fd = "));
}

TEST_F(FrameFile, BadHeaders)
{
    const std::string body(64, '\2');
    const struct {
        std::string head;
        int loaded;
        bool told = true;
    } cases[] = {
        {"", 0},
        {"TQ_RAW,U16,2,2,1,tag", 0, false}, // no newline: all of it is header, and no image follows
        {"TQ_RAW,U16,2,2,1,\n", 4},         // no tag
        {"TQ_RAW,U16,2,2,\n", 0},
        {"TQ_RAW,U8,2,2,1,t\n", 0},
        {"TQ_RAW,U32,65536,65536,1,t\n", 0},
        {"TQ_RAW,U16,4294967298,2,1,t\n", 0},
        {"TQ_RAW,U32,46340,46340,1,t\n", 0}, // promises 8 GB
        {"TQ_RAW,U16,8,4,1,t\n", 32},
        {"TQ_RAW,U16,8,5,1,t\n", 0},
    };
    for (const auto &c : cases) {
        put(c.head + (c.head.empty() ? "" : body));
        uint16_t got[64];
        char tag[33] = "old";
        log.clear();
        EXPECT_EQ(tqcam_frame_load_raw(fd, got, 64, nullptr, nullptr, nullptr, tag, sizeof tag), c.loaded)
            << c.head;
        EXPECT_EQ(c.loaded == 0 && c.told, !log.text().empty()) << c.head;
    }
    EXPECT_TRUE(log.has("[tqcam_frame_load_raw]read 80 date failed: ret= 64\n"));
}

TEST_F(FrameFile, CutAtEveryByte)
{
    const std::string whole = "TQ_DIST,U16,2,1\n" + le<uint16_t>({1000, 2000, 3000, 4000});
    for (size_t cut = 0; cut <= whole.size(); cut++) {
        put(whole.substr(0, cut));
        float got[2];
        int images = 0;
        while (tqcam_frame_load_distance(fd, got, 2, nullptr, nullptr) == 2)
            images++;
        // A header cut behind its last digit is whole but for its newline.
        EXPECT_EQ(images, cut < 16 ? 0 : static_cast<int>(cut - 16) / 4) << cut;
    }
}

TEST_F(FrameFile, Ply)
{
    const float pcl[] = {1.0f, -2.5f, 0.000001f, 0x010203, 1e10f, 0, 7, -1};
    const std::string vertex = "property float32 x\nproperty float32 y\nproperty float32 z\n";
    const std::string colours = "property   uint8   red\nproperty   uint8   green\nproperty   uint8   blue\n";
    const std::string rows(reinterpret_cast<const char *>(pcl), sizeof pcl);
    const struct {
        int len, format;
        std::string expected; // behind "ply\nformat "
    } cases[] = {
        {4, TQCAM_PCL_FORMAT_XYZD,
         "ascii 1.0\nelement vertex 1\n" + vertex + colours +
             "end_header\n1.000000 -2.500000 0.000001 3 2 1\n"},
        {6, TQCAM_PCL_FORMAT_XYZ,
         "binary_little_endian 1.0\nelement vertex 2\n" + vertex + "end_header\n" + rows.substr(0, 24)},
        {8, TQCAM_PCL_FORMAT_XYZI,
         "binary_little_endian 1.0\nelement vertex 2\n" + vertex + colours + "end_header\n" +
             rows.substr(0, 12) + "\3\3\3" + rows.substr(16, 12) + "\xFF\xFF\xFF"},
    };
    for (const auto &c : cases) {
        empty();
        EXPECT_TRUE(tqcam_frame_save_ply(fd, pcl, c.len, c.format, c.len != 4));
        EXPECT_EQ(text(), "ply\nformat " + c.expected);
    }
    // Rows come through whole where the buffer between them and the file fills.
    const std::vector<float> many(4 * 5000, -1.5f);
    empty();
    EXPECT_TRUE(tqcam_frame_save_ply(fd, many.data(), 4 * 5000, TQCAM_PCL_FORMAT_XYZI, false));
    const std::string all = text(), row = "-1.500000 -1.500000 -1.500000 255 255 255\n";
    const size_t head = all.find("end_header\n") + 11;
    ASSERT_EQ(all.size(), head + 5000 * row.size());
    for (size_t at = head; at < all.size(); at += row.size())
        ASSERT_EQ(all.substr(at, row.size()), row) << at;
}
