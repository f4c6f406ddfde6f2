#include "epc_camera.h"
#include "support/open_camera.h"

namespace {
tq_frame_hdr_t header(uint16_t fmt, uint32_t len, int16_t cb = 300, int16_t ib = 350)
{
    return {len, 41, fmt, 0, 0, cb, ib, 5u | 6u << 5 | 7u << 11 | 100u << 17, 0};
}
struct EpcFrameInfo : OpenCamera<EpcCamera> {
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
        uint16_t fmt;
        uint32_t len;
        uint16_t w, h;
        uint32_t out_w, pixel_bytes; // 0: refused
    } cases[] = {
        {2, 614400, 0, 0, 320, 8},
        {1, 64, 8, 4, 8, 2},
        {2, 614401, 0, 0, 0, 0},
        {171, 153600, 7, 9, 7, 153600 / 63 % 256},
        {2, 131073, 65535, 65535, 0, 0},                // the product is beyond 32 bits
        {300, 12345, 0x1111, 0x2222, 0x22221111, 0xC5}, // passes as it stands
    };
    for (const auto &c : cases) {
        tq_frame_hdr_t hdr = header(c.fmt, c.len);
        hdr.width = c.w;
        hdr.height = c.h;
        memset(&info, 0xEE, sizeof(info));
        ASSERT_EQ(get(cam, hdr, &info), c.out_w != 0) << c.len;
        EXPECT_EQ(info.width, c.out_w) << c.len;
        EXPECT_EQ(info.pixel_bytes, c.pixel_bytes);
        EXPECT_EQ(info.reserved2[55], 0);
        EXPECT_EQ(info.frame_format, c.out_w ? c.fmt : 0);
        EXPECT_EQ(info.frame_idx, c.out_w ? 41 : 0);
    }
    EXPECT_TRUE(log.has("[epc_frame_get_info]Wrong frame size 614401,76800 (320,240)"));
    EXPECT_EQ(info.time_sec % 86400, 5u * 3600 + 6 * 60 + 7); // of today
    EXPECT_EQ(info.time_usec, 6400u);
}

TEST_F(EpcFrameInfo, JumpsAreReplacedByTheMedian)
{
    for (int i = 0; i < 6; i++)
        ASSERT_TRUE(get(cam, header(2, 614400, static_cast<int16_t>(300 + i), 350), &info));
    ASSERT_TRUE(get(cam, header(2, 614400, 404, 500), &info)); // 101 above the median of 7
    EXPECT_EQ(info.temp_cb, 303);
    EXPECT_EQ(info.temp_ib, 350);
    ASSERT_TRUE(get(cam, header(2, 614400, 404, 450), &info)); // the ring holds what was read: median 304
    EXPECT_EQ(info.temp_cb, 404);
    EXPECT_EQ(info.temp_ib, 450);
    cam.ops()->on_cap_state(cam.drv(), 0); // a new run fills it anew
    ASSERT_TRUE(get(cam, header(2, 614400, 900, 950), &info));
    EXPECT_EQ(info.temp_cb, 900);
}

TEST_F(EpcFrameInfo, ImplausiblePairs)
{
    const struct {
        int16_t cb, ib, out_ib;
        int warnings; // of this frame
    } frames[] = {
        {300, 900, 900, 0},  {300, 901, 200, 1},    {300, 901, 200, 0},
        {310, 901, 210, 1},  {300, -300, -300, 0},  {301, -300, 201, 1},
        {0, -301, -100, 1},  {100, 2000, 0, 1},     {100, 2000, 0, 1}, // 0 always warns
        {1001, 900, 900, 1}, {-401, -300, -300, 1}, {-400, -300, -300, 0},
    };
    EpcCamera replay("E2");
    ASSERT_TRUE(replay.open(TQCAM_IF_FILE));
    for (const auto &f : frames) {
        log.clear();
        ASSERT_TRUE(get(replay, header(2, 614400, f.cb, f.ib), &info));
        EXPECT_EQ(info.temp_cb, f.cb);
        EXPECT_EQ(info.temp_ib, f.out_ib) << f.cb << " " << f.ib;
        EXPECT_EQ(log.count("]wrong "), f.warnings) << f.cb << " " << f.ib << log.text();
    }
}
