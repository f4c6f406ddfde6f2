#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fake_camera.h"
#include "support/log_capture.h"

namespace {
struct Decode : ::testing::Test {
    Decode()
    {
        EXPECT_NE(cam.open(), nullptr);
        info.width = 5;
        info.height = 3;
        info.frame_size = 16;
        info.frame_format = 2;
        cam.decode = [this](void *dst, uint32_t dst_size, int kind) { // 1000, 1001, ... plus the kind
            room = dst_size;
            uint16_t image[15];
            for (int i = 0; i < 15; i++)
                image[i] = static_cast<uint16_t>(1000 + i + kind);
            memcpy(dst, image, sizeof(image));
            return static_cast<int>(sizeof(image));
        };
    }

    LogCapture log;
    FakeCamera cam;
    tqcam_frame_info_t info = {};
    uint8_t raw[16] = {};
    uint32_t room = 0;
};
} // namespace

TEST_F(Decode, KindsAndUnits)
{
    uint16_t u16[15];
    EXPECT_EQ(tqcam_frame_get_dist_raw(&cam.dev, u16, 15, raw, 16, &info), 15);
    EXPECT_EQ(u16[14], 1014);
    EXPECT_EQ(room, 30u);
    EXPECT_EQ(tqcam_frame_get_dist_u16(&cam.dev, u16, 15, raw, 16, &info), 15);
    EXPECT_EQ(u16[14], 1015);
    EXPECT_EQ(tqcam_frame_get_gray_u16(&cam.dev, u16, 15, raw, 16, &info), 15);
    EXPECT_EQ(u16[14], 1016);
    for (uint32_t len : {15u, 16u, 40u}) { // widened in place, from odd and even halves
        std::vector<float> f32(len);
        EXPECT_EQ(tqcam_frame_get_dist_f32(&cam.dev, f32.data(), len, raw, 16, &info), 15);
        for (int i = 0; i < 15; i++)
            EXPECT_EQ(f32[static_cast<size_t>(i)], static_cast<float>(1001 + i) * 0.001f);
        EXPECT_EQ(tqcam_frame_get_gray(&cam.dev, f32.data(), len, raw, 16, &info), 15);
        EXPECT_EQ(f32[14], 1016.0f);
    }
    cam.priv()->last_info = info; // NULL takes that of the last frame
    EXPECT_EQ(tqcam_frame_get_dist_u16(&cam.dev, u16, 15, raw, 16, nullptr), 15);
}

TEST_F(Decode, Refusals)
{
    float f32[15];
    uint16_t u16[15];
    EXPECT_EQ(tqcam_frame_get_distance(&cam.dev, f32, 14, raw, 16, &info), 0);
    EXPECT_TRUE(log.has("[tqcam_frame_get_dist_f32]wrong dst_len: 14 (wxh=5x3)\n"));
    EXPECT_EQ(tqcam_frame_get_gray_u16(&cam.dev, u16, 15, raw, 15, &info), 0);
    EXPECT_TRUE(log.has("[_tqcam_frame_get_u16]raw frame length too small: datalen=15, frlen=16\n"));
    EXPECT_EQ(tqcam_frame_get_gray_u16(&cam.dev, nullptr, 15, raw, 16, &info), 0);
    EXPECT_EQ(tqcam_frame_get_gray_f32(&cam.dev, nullptr, 15, raw, 16, &info), 0);
    EXPECT_EQ(tqcam_frame_get_gray_u16(&cam.dev, u16, 15, nullptr, 16, &info), 0);
    cam.decode = [](void *, uint32_t, int) { return -7; };
    EXPECT_EQ(tqcam_frame_get_dist_f32(&cam.dev, f32, 15, raw, 16, &info), 0);
    EXPECT_TRUE(log.has("[_tqcam_frame_get_u16]raw frame (5 x 3, fmt=0x2) decode to 1 failed: -7\n"));
    info.width = info.height = 0x10000; // the product passes 32 bits
    EXPECT_EQ(tqcam_frame_get_dist_u16(&cam.dev, u16, 15, raw, 16, &info), 0);
    EXPECT_EQ(tqcam_frame_get_dist_u16(nullptr, u16, 15, raw, 16, &info), -1);
}

// Sub-frame s of a frame of this size begins with its meta data; meta byte i holds i + s, pixel i holds i +
// s.
TEST_F(Decode, RawFramesEx)
{
    for (uint16_t fmt : {2, 37}) {
        SCOPED_TRACE(fmt);
        const uint32_t w = 193, h = 2, meta = 593, row = fmt == 37 ? 2 * w : w, n = row * h;
        std::vector<uint8_t> src;
        for (uint32_t s = 0; s < 4; s++) {
            for (uint32_t i = 0; i < meta; i++)
                src.push_back(static_cast<uint8_t>(i + s));
            for (uint32_t i = 0; i < n; i++) { // big-endian
                src.push_back(static_cast<uint8_t>(((i + s) * 257) >> 8));
                src.push_back(static_cast<uint8_t>((i + s) * 257));
            }
        }
        info.width = w;
        info.height = h;
        info.meta_size = meta;
        info.frame_format = fmt;
        const uint32_t bytes = 4 + 4 * (n + 3 * row) * 2;
        const auto src_len = static_cast<uint32_t>(src.size());
        std::vector<uint8_t> dst(bytes + 1, 0xEE);
        for (int short_of : {0, 1}) { // one byte of room, one of the source
            EXPECT_EQ(tqcam_get_raw_frames_ex(&cam.dev, dst.data(),
                                              bytes - 1 + static_cast<uint32_t>(short_of), src.data(),
                                              src_len - static_cast<uint32_t>(short_of), &info),
                      0);
        }
        EXPECT_EQ(std::count(dst.begin(), dst.end(), 0xEE), bytes + 1);
        EXPECT_TRUE(
            log.has(std::string(fmt == 2 ? "[_tqcam_get_raw_frames_ex]" : "[_tqcam_get_raw_ab_frames_ex]") +
                    "wrong dst_len: " + std::to_string(bytes) + " (wxh=193x2), meta_size:593\n"));
        ASSERT_EQ(tqcam_get_raw_frames_ex(&cam.dev, dst.data(), bytes, src.data(), src_len, &info),
                  static_cast<int>(bytes));
        EXPECT_EQ(dst[bytes], 0xEE);
        const auto at = [&](uint32_t i) {
            uint16_t v;
            memcpy(&v, &dst[2 * i], 2);
            return v;
        };
        EXPECT_EQ(at(0), row);
        EXPECT_EQ(at(1), h * 4 + 12);
        for (uint32_t s = 0; s < 4; s++) {
            const uint32_t sub = 2 + s * (n + 3 * row);
            for (uint32_t i = 0; i < n; i++) {
                const auto v = static_cast<int16_t>(static_cast<uint16_t>((i + s) * 257 << 1));
                ASSERT_EQ(at(sub + i), i < n - n % 4 ? static_cast<uint16_t>(v >> 5) : 0) << s << " " << i;
            }
            for (uint32_t j = 0; j < 3; j++) {
                for (uint32_t i = 0; i < row; i++)
                    ASSERT_EQ(at(sub + n + j * row + i),
                              i < 192 ? static_cast<uint8_t>(4 + 196 * j + i + s) : 0);
            }
        }
        const tqcam_frame_info_t good = info;
        for (const auto &[width, height, msize] :
             std::vector<std::array<uint32_t, 3>>{{191, 2, 593},
                                                  {193, 2, 591},
                                                  {UINT32_MAX, UINT32_MAX, 593},
                                                  {193, 2, UINT32_MAX},
                                                  {193, 1u << 31, 593}}) {
            info.width = width;
            info.height = height;
            info.meta_size = msize;
            EXPECT_EQ(tqcam_get_raw_frames_ex(&cam.dev, dst.data(), bytes, src.data(), src_len, &info), 0);
        }
        info = good;
    }
    info.frame_format = 3;
    EXPECT_EQ(tqcam_get_raw_frames_ex(&cam.dev, raw, 16, raw, 16, &info), -1);
    EXPECT_EQ(tqcam_get_raw_frames_ex(nullptr, raw, 16, raw, 16, &info), -1);
}
