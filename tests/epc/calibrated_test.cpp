#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <random>

#include "drivers/common/phase.h"
#include "epc_camera.h"
#include "support/calib_blocks.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {
constexpr uint32_t W = 8, H = 8, N = W * H;
constexpr int DMAX = 12491;

// A camera with a line for each pixel, global terms, a periodic error and temperature coefficients.
calib_block_t block()
{
    calib_block_t c;
    c.global.slope_k = 1010;
    c.global.offset = -33;
    c.global.amp = 12;
    c.global.omega = static_cast<float>(8 * M_PI / DMAX);
    c.global.pha = 0.7f;
    c.global.ofs = 4;
    std::mt19937 rng(3);
    for (uint32_t i = 0; i < N; i++) {
        c.slope.push_back(0.97f + static_cast<float>(rng() % 600) * 1e-4f);
        c.offset.push_back(static_cast<float>(rng() % 400) - 200.5f);
    }
    c.tcoef = {1, 2, 40, 5, 20};
    return c;
}

std::vector<uint16_t> raw_frame()
{
    std::mt19937 rng(11);
    std::vector<uint16_t> raw(4 * N);
    for (uint16_t &s : raw)
        s = static_cast<uint16_t>(1000 + rng() % 2000);
    raw[0] = 4095; // an invalid pixel
    return raw;
}

struct EpcCalibrated : ::testing::Test {
    TempDir dir;
    LogCapture log;
    EpcCamera cam;
    epc_priv_t *p = nullptr;
    const std::vector<uint16_t> raw = raw_frame();
    calib_block_t c = block();

    void SetUp() override
    {
        ASSERT_TRUE(calib_write(EpcCamera::CALIB_FILE, {c}));
        ASSERT_TRUE(cam.open());
        p = cam.epc();
        cam.disable(TQCAM_FILTER_MIN_AMP);
        p->temp.temp_cb = 350; // 5 and 20 degrees above the calibration's
        p->temp.temp_ib = 600;
    }

    // The image of a frame in raw row order, from a calculation whose pixels rule gives.
    template <class Rule> std::vector<uint16_t> expected(Rule rule) const
    {
        std::vector<uint16_t> image(N);
        for (uint32_t i = 0; i < N; i++)
            image[epc_image_row(i / W, H) * W + i % W] = rule(i);
        return image;
    }
    bool valid(uint32_t i) const { return raw[i] != 4095; }
    int phase(uint32_t i) const
    {
        return phase_of(raw[2 * N + i] - raw[i], raw[3 * N + i] - raw[N + i], PHASE_HALF);
    }
    float periodic(float d) const
    {
        return periodic_correct(d, {c.global.amp, c.global.omega, c.global.pha, c.global.ofs});
    }
    static uint16_t last(int64_t d, int sys_k = 32768, int sys_o = 0)
    {
        int64_t r = d * sys_k / 32768 + sys_o;
        r += r < 0 ? DMAX : 0;
        return static_cast<uint16_t>(r > DMAX ? r - DMAX : r);
    }
    std::vector<uint16_t> decode(uint16_t fmt = 2, uint32_t planes = 4)
    {
        return cam.decode(DRV_KIND_DIST, raw, EpcCamera::info(fmt, W, H, planes));
    }
};
} // namespace

TEST_F(EpcCalibrated, TemperatureCorrection)
{
    const struct {
        int16_t cb, ib;
        int fps;
        float phase;
    } cases[] = {
        {300, 400, 0, 0},   {350, 400, 0, 200},  {300, 600, 0, 100},
        {350, 600, 0, 300}, {300, 400, 10, 0}, // the block's rate of 31 counts as 10
        {300, 400, 25, 30}, {250, 400, 5, -210},
    };
    for (const auto &t : cases) {
        p->temp.temp_cb = t.cb;
        p->temp.temp_ib = t.ib;
        p->rate.fps_set = t.fps;
        DrvLock lock(p->calib_lock);
        EXPECT_FLOAT_EQ(_calc_get_temp_corr_phase(p), t.phase) << t.cb << " " << t.ib << " " << t.fps;
    }
    EXPECT_TRUE(
        log.has("[_calc_get_temp_corr_phase]Tcb=250[300],Tib=400[400],fps=5[10/31],intg=0[0],[cb:-200/"
                "-76.2,ib:0/0.0;fps:-10/-3.8] => tcorr: -210/-80.1mm(dmax=12491, intg_err=0.0)"));
    p->calib.tcoef_hdr.freq = 6000000; // the model is scaled to the frequency in use
    EXPECT_FLOAT_EQ(_calc_get_temp_corr_phase(p), -420);
    p->calib.tcoef_hdr.freq = 0;
    EXPECT_EQ(_calc_get_temp_corr_phase(p), 0);
}

TEST_F(EpcCalibrated, EachPixelByItsLine)
{
    cam.enable(TQCAM_FILTER_OFFSET, 25);
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_PIXEL_CALIB));
    for (const float scale : {1.0f, 1.03f}) {
        cam.set_sys_calib(scale, -60);
        EXPECT_TRUE(cam.enable(TQCAM_FILTER_SYS_CALIB));
        const auto rule = [&](uint32_t i) -> uint16_t {
            if (!valid(i))
                return 0;
            const int d0 = static_cast<int>(static_cast<float>(phase(i)) - 300.0f) * DMAX / 32768;
            const int d = static_cast<int>(static_cast<float>(d0) * c.slope[i] + c.offset[i] + 25.0f);
            return last(static_cast<int>(periodic(static_cast<float>(d))), static_cast<int>(32768 * scale),
                        -60);
        };
        std::vector<uint16_t> want = expected(rule), got = decode();
        for (uint32_t i = 0; i < N; i++) // holes are filled from their neighbours, but for dark pixels
            if (want[i]) {
                EXPECT_EQ(got[i], want[i]) << i;
            }
        EXPECT_EQ(got[epc_image_row(0, H) * W], 0);
    }
    // Frames that the planes don't show go the uncalibrated way.
    const std::vector<uint16_t> other = cam.decode(DRV_KIND_DIST, raw, EpcCamera::info(2, 4, 8, 4));
    EXPECT_EQ(other, [&] {
        cam.disable(TQCAM_FILTER_PIXEL_CALIB);
        p->calib_mounted = 0;
        const uint32_t freq = p->calib.blk.freq;
        p->calib.blk.freq = 1;
        auto image = cam.decode(DRV_KIND_DIST, raw, EpcCamera::info(2, 4, 8, 4));
        p->calib.blk.freq = freq;
        return image;
    }());
}

TEST_F(EpcCalibrated, GlobalLine)
{
    cam.disable(TQCAM_FILTER_TEMP_CORR);
    const auto whole = [&](bool temp) {
        return expected([&, temp](uint32_t i) -> uint16_t {
            if (!valid(i))
                return 0;
            const float k = static_cast<float>(1010 / 1000.0 * DMAX / 32768.0);
            const float d =
                static_cast<float>(phase(i)) * k + static_cast<float>(-33 - (temp ? 300 * DMAX / 32768 : 0));
            float r = periodic(d);
            r += r < 0 ? DMAX : 0;
            return static_cast<uint16_t>(r > DMAX ? r - DMAX : r);
        });
    };
    EXPECT_EQ(decode(), whole(false));
    cam.enable(TQCAM_FILTER_TEMP_CORR);
    EXPECT_EQ(decode(), whole(true));
    cam.enable(TQCAM_FILTER_PIXEL_CALIB);
    EXPECT_NE(decode(), whole(true));
    p->sport_en = p->sport_mode = 1; // planes come at too low a rate for it
    std::vector<uint16_t> fmt4 = decode(4, 1);
    cam.disable(TQCAM_FILTER_PIXEL_CALIB);
    EXPECT_EQ(fmt4, decode(4, 1));
}

// Interleaved and two-sample modes: integers all the way, 65500 for the invalid until the amplitude drops it.
TEST_F(EpcCalibrated, OtherModes)
{
    const auto pair_rows = [&](uint32_t i, uint32_t *first, uint32_t *second) {
        const uint32_t y = i / W < H - 2 ? i / W : i / W - 2; // the last rows are copies
        const bool swap = y / 2 * 2 % 4 != 0;
        *first = (swap ? y + 2 : y) * W + i % W;
        *second = (swap ? y : y + 2) * W + i % W;
        return y * W + i % W;
    };
    const auto by_line = [&](int ph, uint32_t at, bool pixel) -> uint16_t {
        if (pixel) {
            const int d0 = static_cast<int>(static_cast<float>(ph) - 300.0f) * DMAX / 32768;
            return last(static_cast<int>(periodic(
                static_cast<float>(static_cast<int>(static_cast<float>(d0) * c.slope[at] + c.offset[at])))));
        }
        const int d = ph * DMAX / 32768 * 1010 / 1000 - 33 - 300 * DMAX / 32768;
        return last(static_cast<int>(periodic(static_cast<float>(d))));
    };
    using sample_t = std::function<int(uint32_t)>;
    const sample_t two = [&](uint32_t i) { return raw[N + i] - raw[i]; };
    const sample_t one = [&](uint32_t i) { return 2048 - raw[i]; };
    const sample_t plane1 = [&](uint32_t i) { return 2048 - raw[N + i]; };
    const sample_t plane2 = [&](uint32_t i) { return 2048 - raw[2 * N + i]; };
    const struct {
        const char *what;
        uint16_t fmt;
        uint32_t planes;
        bool pairs;
        sample_t i, q;
        int base;
    } modes[] = {
        {"2 DCS", 1, 2, true, two, two, PHASE_HALF},
        {"1 DCS", 4, 1, true, one, one, PHASE_HALF},
        {"2 DCS of four planes", 2, 4, false, plane1, plane2, 24576}, // 12 MHz: planes 1 and 2
    };
    for (const bool pixel : {false, true}) {
        pixel ? cam.enable(TQCAM_FILTER_PIXEL_CALIB) : cam.disable(TQCAM_FILTER_PIXEL_CALIB);
        for (const auto &m : modes) {
            p->sport_en = !m.pairs;
            p->sport_mode = m.pairs ? 0 : 2;
            const std::vector<uint16_t> want = expected([&](uint32_t i) -> uint16_t {
                uint32_t a = i, b = i;
                const uint32_t at = m.pairs ? pair_rows(i, &a, &b) : i;
                return valid(a) && valid(b) ? by_line(phase_of(m.i(a), m.q(b), m.base), at, pixel) : 0;
            });
            EXPECT_EQ(decode(m.fmt, m.planes), want) << m.what << (pixel ? ", pixel" : ", global");
        }
        p->sport_en = p->sport_mode = 0;
    }
    // A frequency that would pick other planes doesn't, with a line for each pixel.
    c.freq = 24000000;
    calib_write(EpcCamera::CALIB_FILE, {c});
    epc_event_freq_change(cam.drv(), 24000000, 0);
    p->sport_en = 1;
    p->sport_mode = 2;
    const std::vector<uint16_t> image = decode(2, 4);
    const uint32_t *amp = p->amp_buf.as<uint32_t>();
    EXPECT_EQ(amp[epc_image_row(3, H) * W],
              squared_amp(raw[2 * N + 24] - raw[24], raw[3 * N + 24] - raw[N + 24]));
    EXPECT_EQ(image.size(), size_t{N});
}

TEST_F(EpcCalibrated, ShapesThatAreNotHandled)
{
    c.w = 6;
    c.h = 4;
    c.slope.resize(24);
    c.offset.resize(24);
    calib_write(EpcCamera::CALIB_FILE, {c});
    p->roi = {};
    epc_event_freq_change(cam.drv(), 24000000, 0);
    epc_event_freq_change(cam.drv(), 12000000, 0);
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_PIXEL_CALIB));
    const std::vector<uint16_t> empty(24, 0);
    EXPECT_EQ(cam.decode(DRV_KIND_DIST, raw, EpcCamera::info(1, 6, 4, 2)), empty);
    EXPECT_TRUE(log.has("[_calc_dist_calib_drnu_lut_4dcs_mbr]width 6 not support"));
    EXPECT_EQ(cam.decode(DRV_KIND_DIST, raw, EpcCamera::info(4, 6, 4, 1)), empty);
    EXPECT_TRUE(log.has("[_calc_dist_calib_drnu_lut_2dcs_mbr]image size 6x4 not support"));
    EXPECT_NE(cam.decode(DRV_KIND_DIST, raw, EpcCamera::info(2, 6, 4, 4)), empty);
}

// After a region was cut, each pixel still meets its own line; an unknown region is uncalibrated.
TEST_F(EpcCalibrated, RegionAndBinning)
{
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_PIXEL_CALIB));
    for (uint32_t i = 0; i < N; i++)
        c.slope[i] = 1, c.offset[i] = static_cast<float>(100 * (i / W) + 10 * (i % W));
    c.global = {};
    calib_write(EpcCamera::CALIB_FILE, {c});
    cam.disable(TQCAM_FILTER_TEMP_CORR);
    const auto roi = [&](uint16_t srow, uint16_t erow, uint16_t scol, uint16_t ecol, uint8_t binning) {
        const calib_roi_t value = {srow, erow, scol, ecol, binning, {}};
        cam.ops()->on_update_roi(cam.drv(), reinterpret_cast<const uint8_t *>(&value));
    };
    // Phase 0 in all pixels: the distance is the offset.
    const auto zero_phase = [&](uint32_t w, uint32_t h) {
        std::vector<uint16_t> flat(size_t{4} * w * h, 2048);
        std::fill_n(flat.begin(), size_t{w} * h, 2448);
        return cam.decode(DRV_KIND_DIST, flat, EpcCamera::info(2, w, h, 4));
    };
    roi(0, 7, 0, 7, 1);
    std::vector<uint16_t> image = zero_phase(4, 4);
    ASSERT_EQ(image.size(), 16u);
    for (uint32_t i = 0; i < 16; i++) // means of 2 x 2
        EXPECT_EQ(image[epc_image_row(i / 4, 4) * 4 + i % 4], 55 + 200 * (i / 4) + 20 * (i % 4)) << i;
    roi(2, 5, 4, 7, 0);
    EXPECT_TRUE(p->calib_mounted);
    image = zero_phase(4, 4);
    for (uint32_t i = 0; i < 16; i++)
        EXPECT_EQ(image[epc_image_row(i / 4, 4) * 4 + i % 4], 240 + 100 * (i / 4) + 10 * (i % 4)) << i;
    roi(0, 15, 0, 7, 0); // leaves the calibrated image
    EXPECT_TRUE(log.has("[epc_calc_mount_calib] -> Apply roi to calib data failed"));
    EXPECT_FALSE(p->calib_mounted);
    EXPECT_FALSE(cam.enable(TQCAM_FILTER_PIXEL_CALIB));
    EXPECT_EQ(zero_phase(8, 16), std::vector<uint16_t>(128, 0));
    roi(0, 7, 0, 7, 0);
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_PIXEL_CALIB));
}

// Terms that no calibration should hold: images come, nothing is read outside, no undefined conversion.
TEST_F(EpcCalibrated, HostileTerms)
{
    for (const float bad : {NAN, INFINITY, -INFINITY, 1e30f, -1e30f}) {
        calib_block_t b = block();
        b.global.amp = b.global.omega = b.global.pha = b.global.ofs = bad;
        b.global.slope_k = INT32_MIN;
        b.global.offset = INT32_MAX;
        b.slope.assign(N, bad);
        b.offset.assign(N, -bad);
        b.tcoef.assign(5, bad);
        calib_write(EpcCamera::CALIB_FILE, {b});
        epc_event_freq_change(cam.drv(), 24000000, 0);
        epc_event_freq_change(cam.drv(), 12000000, 0);
        EXPECT_TRUE(p->calib_mounted);
        cam.set_sys_calib(bad, bad);
        cam.enable(TQCAM_FILTER_SYS_CALIB);
        for (const bool pixel : {false, true}) {
            pixel ? cam.enable(TQCAM_FILTER_PIXEL_CALIB) : cam.disable(TQCAM_FILTER_PIXEL_CALIB);
            for (const uint16_t fmt : {1, 2, 4})
                EXPECT_EQ(decode(fmt).size(), size_t{N});
        }
    }
}
