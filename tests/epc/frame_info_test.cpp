#include <ctime>
#include <gtest/gtest.h>

#include "epc_camera.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {
tq_frame_hdr_t header(uint16_t fmt, uint32_t len, int16_t cb = 300, int16_t ib = 350)
{
    return {len, 41, fmt, 0, 0, cb, ib, 5u | 6u << 5 | 7u << 11 | 100u << 17, 0};
}
struct EpcFrameInfo : ::testing::Test {
    TempDir dir;
    LogCapture log;
    tqcam_frame_info_t info = {};
    static bool get(EpcCamera &cam, const tq_frame_hdr_t &hdr, tqcam_frame_info_t *out)
    {
        return cam.ops()->frame_get_info(cam.drv(), out, &hdr, nullptr, 0);
    }
};
} // namespace

TEST_F(EpcFrameInfo, HeaderFieldsAndSizes)
{
    const struct {
        const char *chip;
        uint16_t fmt;
        uint32_t len;
        uint16_t w, h;
        bool ok;
        uint32_t out_w, out_h, pixel_bytes;
    } cases[] = {
        {"E1", 2, 614400, 0, 0, true, 320, 240, 8},
        {"E5", 2, 76800, 0, 0, true, 160, 60, 8},
        {"E5", 2, 76800, 0, 30, true, 160, 30, 16},
        {"E1", 1, 64, 8, 4, true, 8, 4, 2},
        {"E1", 2, 614401, 0, 0, false, 0, 0, 0},
        {"E1", 171, 153600, 7, 9, true, 7, 9, 153600 / 63 % 256},
        {"E1", 2, 100, 65535, 65535, false, 0, 0, 0}, // the product is beyond 32 bits
        {"E1", 2, 131073, 65535, 65535, false, 0, 0, 0},
    };
    for (const auto &c : cases) {
        EpcCamera cam(c.chip);
        ASSERT_TRUE(cam.open());
        tq_frame_hdr_t hdr = header(c.fmt, c.len);
        hdr.width = c.w;
        hdr.height = c.h;
        memset(&info, 0xEE, sizeof(info));
        ASSERT_EQ(get(cam, hdr, &info), c.ok) << c.len;
        EXPECT_EQ(info.width, c.out_w) << c.len;
        EXPECT_EQ(info.height, c.out_h);
        EXPECT_EQ(info.pixel_bytes, c.pixel_bytes);
        EXPECT_EQ(info.reserved2[55], 0);
        if (!c.ok)
            continue;
        EXPECT_EQ(info.frame_size, c.len);
        EXPECT_EQ(info.frame_format, c.fmt);
        EXPECT_EQ(info.frame_idx, 41);
        EXPECT_EQ(info.temp_cb, 300);
        EXPECT_EQ(info.temp_ib, 350);
    }
    EXPECT_TRUE(log.has("[epc_frame_get_info]Wrong frame size 614401,76800 (320,240)"));
}

TEST_F(EpcFrameInfo, OtherFormatsPassThroughAndTimeIsTodays)
{
    EpcCamera cam;
    ASSERT_TRUE(cam.open());
    tq_frame_hdr_t hdr = header(300, 12345);
    hdr.width = 0x1111;
    hdr.height = 0x2222;
    hdr.aux = 77;
    ASSERT_TRUE(get(cam, hdr, &info));
    EXPECT_EQ(info.frame_size, 12345u);
    EXPECT_EQ(info.width, 0x22221111u); // the header's bytes as they stand
    EXPECT_EQ(info.temp_cb, 300);
    const time_t sec = info.time_sec;
    tm utc;
    gmtime_r(&sec, &utc);
    EXPECT_EQ(utc.tm_hour * 10000 + utc.tm_min * 100 + utc.tm_sec, 50607);
    EXPECT_LE(std::abs(static_cast<double>(time(nullptr) - sec)), 86400);
    EXPECT_EQ(info.time_usec, 6400u);
}

TEST_F(EpcFrameInfo, JumpsAreReplacedByTheMedian)
{
    EpcCamera cam, replay("E2");
    ASSERT_TRUE(cam.open() && replay.open(TQCAM_IF_FILE));
    for (int i = 0; i < 6; i++)
        ASSERT_TRUE(get(cam, header(2, 614400, static_cast<int16_t>(300 + i), 350), &info));
    log.clear();
    ASSERT_TRUE(get(cam, header(2, 614400, 404, 500), &info)); // 101 above the median of 7
    EXPECT_EQ(info.temp_cb, 303);
    EXPECT_EQ(info.temp_ib, 350);
    EXPECT_TRUE(log.has("[epc_frame_get_info]ib temp jump: Tib in hdr=500, Tib filterd=350"));
    ASSERT_TRUE(get(cam, header(2, 614400, 404, 450), &info)); // the ring holds what was read: median 304
    EXPECT_EQ(info.temp_cb, 404);
    EXPECT_EQ(info.temp_ib, 450);
    cam.ops()->on_cap_state(cam.drv(), 0); // a new run fills it anew
    ASSERT_TRUE(get(cam, header(2, 614400, 900, 950), &info));
    EXPECT_EQ(info.temp_cb, 900);
    for (int i = 0; i < 8; i++)
        ASSERT_TRUE(get(replay, header(2, 614400, i == 7 ? 900 : 300, 850), &info));
    EXPECT_EQ(info.temp_cb, 900); // a recording is taken as it is
}

TEST_F(EpcFrameInfo, ImplausiblePairs)
{
    const struct {
        int16_t cb, ib, out_cb, out_ib;
        int warnings; // of this frame
    } frames[] = {
        {300, 900, 300, 900, 0},   {300, 901, 300, 200, 1},     {300, 901, 300, 200, 0},
        {310, 901, 310, 210, 1},   {300, -300, 300, -300, 0},   {301, -300, 301, 201, 1},
        {0, -301, 0, -100, 1},     {100, 2000, 100, 0, 1},      {100, 2000, 100, 0, 1}, // 0 always warns
        {1001, 900, 1001, 900, 1}, {-401, -300, -401, -300, 1}, {-400, -300, -400, -300, 0},
    };
    EpcCamera cam;
    ASSERT_TRUE(cam.open(TQCAM_IF_FILE));
    for (const auto &f : frames) {
        log.clear();
        ASSERT_TRUE(get(cam, header(2, 614400, f.cb, f.ib), &info));
        EXPECT_EQ(info.temp_cb, f.out_cb) << f.cb << " " << f.ib;
        EXPECT_EQ(info.temp_ib, f.out_ib) << f.cb << " " << f.ib;
        EXPECT_EQ(log.count("]wrong "), f.warnings) << f.cb << " " << f.ib << log.text();
    }
    log.clear();
    get(cam, header(2, 614400, 300, 901), &info);
    EXPECT_TRUE(log.has("wrong IB temp 901 detected: corrected to temp_cb - 10 (reported only once)"));
    get(cam, header(2, 614400, 1001, 900), &info);
    EXPECT_TRUE(log.has("[epc_frame_get_info]wrong CB temp 1001 detected: distance value may be wrong "));
}

TEST_F(EpcFrameInfo, MonitorAndRate)
{
    EpcCamera cam;
    ASSERT_TRUE(cam.open());
    cam.ops()->on_update_fps(cam.drv(), 25);
    for (int i = 0; i < 3; i++)
        get(cam, header(2, 614400), &info);
    EXPECT_EQ(log.count("[epc_frame_get_info]Tib:35.00, Tcb:30.00, FPS:"), 1); // once in ten seconds
    epc_priv_t *p = cam.epc();
    EXPECT_EQ(p->rate.fps_meas, 25.0f);
    p->temp.monitor_ms = p->temp.monitor_ms - 10000;
    p->rate.mark_ms = p->rate.mark_ms - 3000;
    get(cam, header(2, 614400), &info);
    EXPECT_EQ(log.count("FPS:25.0/25"), 1);
    EXPECT_NEAR(p->rate.fps_meas, 1.0, 0.01); // three frames since the mark
    cam.ops()->on_cap_state(cam.drv(), 0);
    get(cam, header(171, 614400), &info);
    EXPECT_TRUE(log.has("Temp monitor not enable"));
    get(cam, header(2, 614400), &info);
    EXPECT_EQ(log.count("[epc_frame_get_info]Tib:"), 3);
}
