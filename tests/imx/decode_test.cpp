#include <cmath>

#include "drivers/imx/imx_format.h"
#include "imx_camera.h"
#include "support/calib_blocks.h"
#include "support/open_camera.h"

namespace {
constexpr uint32_t F120 = 120000000, F40 = 40000000;
constexpr int DM = 1249, DM_LO = 3747;

// Packed values of a distance at a range, amplitude 1000.
int i_of(double mm, int range)
{
    return static_cast<int>(std::lround(-1000 * std::cos(2 * M_PI * mm / range)));
}
int q_of(double mm, int range)
{
    return static_cast<int>(std::lround(-1000 * std::sin(2 * M_PI * mm / range)));
}
ImxFrame packed(double mm, uint32_t w = 8, uint32_t h = 4)
{
    return ImxFrame(16, {i_of(mm, DM), q_of(mm, DM)}, w, h);
}
ImxFrame dual(double hi_mm, double lo_mm)
{
    return ImxFrame(17, {i_of(lo_mm, DM_LO), q_of(lo_mm, DM_LO), i_of(hi_mm, DM), q_of(hi_mm, DM)});
}

struct ImxDecode : OpenCamera<ImxCamera> {
    uint16_t first(const ImxFrame &f, int kind = DRV_KIND_DIST)
    {
        const auto image = cam.decode(kind, f.raw, f.info);
        return image.empty() ? 0xFFFF : image[0];
    }
    void mount(uint32_t f1) { cam.ops()->on_update_mod_freq(cam.drv(), F120, f1, 0); }
};
} // namespace

TEST_F(ImxDecode, EveryFormat)
{
    const struct {
        uint16_t format;
        std::vector<int> values;
        uint16_t dist; // of 1249
        uint16_t gray;
    } cases[] = {
        {2, {-100, 0, 100, 0}, 624, 100},
        {10, {-100}, 0, 0},
        {13, {200, 0}, 0, 100},
        {0x8E, {200, 0}, 0, 0},
        {15, {0, 200}, 936, 100},
        {16, {0, -2000}, 312, 1000},
        {17, {0, -200, -2000, 0}, 0, 100}, // one frequency runs: two can't be read
    };
    for (const auto &c : cases)
        for (const uint32_t meta : {0u, 587u, 4001u}) {
            const ImxFrame f(c.format, c.values, 8, 4, meta);
            for (const int kind : {DRV_KIND_DIST, DRV_KIND_RAW})
                EXPECT_EQ(cam.decode(kind, f.raw, f.info), std::vector<uint16_t>(32, c.dist))
                    << c.format << " " << meta;
            p->info_hash = FRAME_HASH_NONE;
            EXPECT_NEAR(first(f, DRV_KIND_GRAY), c.gray, c.gray * 0.06) << c.format;
        }
    // Words can be marked as not to be used, and then count as no light.
    ImxFrame words(2, {-100, 0, 100, 0});
    words.put(1, 3, 0, true);
    for (const int kind : {DRV_KIND_DIST, DRV_KIND_GRAY}) {
        const auto image = cam.decode(kind, words.raw, words.info);
        for (size_t i = 0; i < 32; i++)
            EXPECT_EQ(image[i] != 0, i != 3) << i;
    }
}

TEST_F(ImxDecode, RefusesWhatDoesNotFit)
{
    uint16_t dst[32];
    for (const uint16_t format : {2, 10, 13, 14, 15, 16, 17, 0x91}) {
        const ImxFrame f(format, {1, 2, 3, 4});
        const auto len = static_cast<uint32_t>(f.raw.size());
        const auto with = [&](uint32_t tqcam_frame_info_t::*field, uint32_t value) {
            tqcam_frame_info_t info = f.info;
            info.*field = value;
            return cam.ops()->frame_decode(cam.drv(), dst, 64, DRV_KIND_DIST, f.raw.data(), len, &info);
        };
        EXPECT_EQ(with(&tqcam_frame_info_t::frame_size, len), 64) << format;
        EXPECT_EQ(with(&tqcam_frame_info_t::frame_size, len - 1), -1) << format;
        for (const uint32_t meta : {6u, len, 0x55555556u, UINT32_MAX})
            EXPECT_EQ(with(&tqcam_frame_info_t::meta_size, meta), -1) << meta;
        for (const uint32_t width : {9u, 0x40000008u, UINT32_MAX})
            EXPECT_EQ(with(&tqcam_frame_info_t::width, width), -1) << width;
        EXPECT_EQ(with(&tqcam_frame_info_t::width, 0), 0);
    }
    ImxFrame f = packed(1);
    for (const uint16_t format : {0, 8, 9, 171, 0x102}) { // no images
        f.info.frame_format = format;
        EXPECT_TRUE(cam.decode(DRV_KIND_DIST, f.raw, f.info).empty());
    }
}

TEST_F(ImxDecode, RangesAndTheUsersOffset)
{
    const struct {
        int16_t mm;
        uint16_t thousandths;
        int expected; // of 300
    } cases[] = {{-400, 0, 1249 - 100},
                 {0, 500, 774}, // half of 300 + 1249: scaled before turns are taken off
                 {0, 2000, 600}};
    for (const auto &c : cases) {
        cam.enable(TQCAM_FILTER_OFFSET, static_cast<uint16_t>(c.mm), c.thousandths);
        EXPECT_NEAR(first(packed(300)), c.expected, 2) << c.mm << " " << c.thousandths;
    }
}

TEST_F(ImxDecode, TwoFrequencies)
{
    mount(F40);
    EXPECT_NEAR(first(dual(100, 2600)), 2598, 4);
    // The coarse one stands where the fine one is weak.
    ImxFrame weak = dual(100, 1500);
    for (size_t i = 0; i < 32; i++) {
        weak.put(2, i, i % 2 ? 20 : 21); // squared amplitude 100, 110
        weak.put(3, i, 0);
    }
    const auto image = cam.decode(DRV_KIND_DIST, weak.raw, weak.info);
    EXPECT_NEAR(image[0], 624 + 1249, 2);
    EXPECT_NEAR(image[1], 1500, 3);
    // A slower first frequency: with bit 7 the pairs stay.
    cam.ops()->on_update_mod_freq(cam.drv(), F40, F120, 0);
    EXPECT_NEAR(first(ImxFrame(0x91, {i_of(900, DM), q_of(900, DM), i_of(900, DM_LO), q_of(900, DM_LO)})),
                900, 4);
}

TEST_F(ImxDecode, CalibrationByPixelAndByLine)
{
    std::vector<calib_block_t> blocks;
    for (const uint32_t freq : {F120, F40}) {
        calib_block_t b = {.freq = freq, .w = 8, .h = 6};
        b.global.slope_k = 990;
        b.global.offset = -15;
        blocks.push_back(b.line(1.01f, 20));
    }
    calib_write(ImxCamera::CALIB_FILE, blocks);
    mount(F40);
    p->temp.temp_cb = 300; // as calibrated
    p->temp.temp_ib = 400;
    const ImxFrame one = packed(300), two = dual(1700, 1700);
    EXPECT_NEAR(first(one), 323, 2);
    EXPECT_NEAR(first(two), 1249 + 1.01 * (1700 - 1249) + 20, 2); // by the fine one's turn
    EXPECT_NEAR(first(one, DRV_KIND_RAW), 300, 2);
    cam.disable(TQCAM_FILTER_PIXEL_CALIB);
    EXPECT_NEAR(first(one), 282, 2);
    for (const uint16_t format : {13, 15}) // decoded with calibration
        EXPECT_NEAR(first(ImxFrame(format, {i_of(300, DM) / 2, q_of(300, DM) / 2})), 282, 2);
    EXPECT_EQ(first(ImxFrame(14, {200, 0})), 0);
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_PIXEL_CALIB));
    // A coarse distance moves by as many millimetres as a fine one would.
    p->temp.temp_cb = 500;
    EXPECT_NEAR(first(one), 323 - 2.5 * 20, 2);
    EXPECT_NEAR(first(ImxFrame(17, {i_of(1700, DM_LO), q_of(1700, DM_LO), 0, 0})), 1.01 * (1700 - 50) + 20,
                3);
    p->temp.temp_cb = 300;
    // Frames that the planes don't fit decode without them; a part of the rows does.
    EXPECT_NEAR(first(packed(300, 8, 7)), 300, 2);
    EXPECT_NEAR(first(packed(300, 8, 6)), 323, 2);
}

TEST_F(ImxDecode, FiltersInOrder)
{
    ImxFrame f = packed(300, 32, 24); // amplitude 500
    const auto set = [&](size_t pixel, double share, double mm = 300) {
        f.put(0, pixel, static_cast<int>(share * i_of(mm, DM)));
        f.put(1, pixel, static_cast<int>(share * q_of(mm, DM)));
    };
    const auto run = [&] { return cam.decode(DRV_KIND_DIST, f.raw, f.info); };
    set(400, 0);
    cam.enable(TQCAM_FILTER_MIN_AMP, 50);
    set(200, 0.1); // 49.8
    EXPECT_EQ(run()[200], 0);
    p->f_en_fill_hole = 1;
    EXPECT_NEAR(run()[200], 300, 2); // filled from around
    EXPECT_EQ(run()[400], 0);        // but not what had no light
    set(300, 1, 700);                // one pixel beside the others
    EXPECT_NEAR(run()[300], 700, 2);
    p->f_en_median = 1;
    EXPECT_NEAR(run()[300], 300, 2);
    // Every set of filters leaves the image in the caller's buffer.
    mount(0);
    for (int on = 0; on < 16; on++) {
        p->f_en_median = on & 1;
        p->f_en_bpf2d_iir = on >> 1 & 1;
        p->f_en_flyfilter = on >> 2 & 1;
        p->f_en_fill_hole = on >> 3;
        const auto image = run();
        EXPECT_NEAR(image[100], 300, 2) << on;
        EXPECT_EQ(image[400], 0) << on;
    }
}

TEST_F(ImxDecode, SyncCheckSendsTheDelay)
{
    cam.enable(TQCAM_FILTER_SYNC_CHECK, 0x1234);
    ImxFrame f(2, {0, 0, 0, 0}, 8, 4, 0);
    for (size_t i = 0; i < f.raw.size(); i++)
        f.raw[i] = i % 2 ? 2048 >> 8 : 0;
    for (size_t i = 0; i < 12; i++) // of the 32 of a plane more than 60 % add up
        f.raw[64 + 2 * i] = 200;
    EXPECT_NE(first(f), 0xFFFF);
    EXPECT_EQ(cam.take_sent(), "");
    f.raw[64 + 2 * 12] = 200;
    EXPECT_EQ(first(f), 0xFFFF);
    EXPECT_EQ(cam.take_sent(), "17=003412 ");
    EXPECT_FALSE(p->frame_ok);
    EXPECT_NE(first(f), 0xFFFF); // within a second it goes on
}

TEST(ImxFormat, IntegrationTimeInMetadata)
{
    const struct {
        int map;
        size_t first; // byte of four, three apart
        uint32_t us;  // of 0x00012345 ticks
    } cases[] = {{1110, 367, 622}, {1366, 367, 622}, {1302, 287, 622},
                 {1304, 287, 622}, {1320, 287, 622}, {1200, 287, 1}};
    for (const auto &c : cases) {
        std::vector<uint8_t> raw(600);
        raw[16] = static_cast<uint8_t>(c.map >> 4);
        raw[19] = static_cast<uint8_t>(c.map << 4 | 9);
        for (size_t k = 0; k < 4; k++)
            raw[c.first + 3 * k] = static_cast<uint8_t>(0x00012345 >> (24 - 8 * k));
        EXPECT_EQ(imx_meta_intg_us(raw.data(), 589, 588), c.us) << c.map;
        for (const uint32_t meta : {587u, 589u, UINT32_MAX - 3})
            EXPECT_EQ(imx_meta_intg_us(raw.data(), 589, meta), 0u);
    }
}
