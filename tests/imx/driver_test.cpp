#include <cmath>

#include "imx_camera.h"
#include "support/calib_blocks.h"
#include "support/open_camera.h"

namespace {
constexpr uint32_t F120 = 120000000, F40 = 40000000, F20 = 20000000;

// The camera's calibration file: a block for each frequency, or none.
void save_calib(const std::vector<uint32_t> &freqs, const std::vector<float> &tcoef = {})
{
    std::vector<calib_block_t> blocks;
    for (const uint32_t f : freqs)
        blocks.push_back({.freq = f, .w = 8, .h = 6, .tcoef = tcoef});
    remove(ImxCamera::CALIB_FILE);
    if (!freqs.empty())
        calib_write(ImxCamera::CALIB_FILE, blocks);
}

using ImxOpen = OpenCamera<ImxCamera>;
struct Imx : ::testing::Test {
    TempDir dir;
};
} // namespace

TEST_F(Imx, OpensEveryModelOfTheFamily)
{
    for (const char *product : {"XX-S1-YY", "XX-S2-YY", "XX-S3-YY", "XX-S570C4-YY", "IMX570-S1-YY"}) {
        ImxCamera cam(product);
        ASSERT_TRUE(cam.open()) << product;
        const imx_priv_t *p = cam.priv();
        EXPECT_EQ(p->is_imx570, strstr(product, "570") != nullptr) << product;
        EXPECT_EQ(p->bpf.bpf.w * 1000 + p->bpf.bpf.h, 640480u);
        EXPECT_EQ(p->tele, nullptr); // no session: the registry does nothing
    }
}

// At open: what the device runs at, what the file holds, and what both end up with.
TEST_F(Imx, DecidesFrequenciesAtOpen)
{
    const struct {
        uint32_t format, f0, f1;
        std::vector<uint32_t> calibrated;
        uint32_t fail_get;
        uint32_t at0, at1;
        bool mounted;
        const char *sent;
    } cases[] = {
        {16, F120, 0, {}, 1, F120, 0, false, "1=000e2707 "},
        {16, F20, 0, {F120, F40}, 0, F120, 0, true, "1=000e2707 "},
        {17, F120, F40, {F120, F40}, 0, F120, F40, true, ""},
        {17, F120, F20, {F120, F40}, 0, F120, F20, false, ""}, // frames of two need two
        {17, F120, F40, {F40}, 21, F40, 0, true, "1=005a6202 "},
    };
    for (const auto &c : cases) {
        save_calib(c.calibrated);
        ImxCamera cam("XX-S1-YY", c.format, c.f0, c.f1);
        if (c.fail_get)
            cam.fail_get = {c.fail_get};
        ASSERT_TRUE(cam.open());
        const imx_priv_t *p = cam.priv();
        SCOPED_TRACE(&c - cases);
        EXPECT_EQ(cam.take_sent(), c.sent);
        EXPECT_EQ(p->mod_freq0, c.at0);
        EXPECT_EQ(p->mod_freq1, c.at1);
        EXPECT_EQ(p->f_en_pix_calib, c.mounted);
    }
}

TEST_F(ImxOpen, FiltersFollowTheFrequency)
{
    const auto set = [&](uint32_t f0, uint32_t f1 = 0) {
        cam.ops()->on_update_mod_freq(cam.drv(), f0, f1, 0);
    };
    const struct {
        uint32_t mhz, threshold;
        float spatial;
    } cases[] = {{120, 2, 0.01f}, {99, 3, 0.02f}, {12, 10, 0.2f}, {10, 0, 0.2f}};
    for (const auto &c : cases) {
        set(c.mhz * 1000000 + 999999);
        EXPECT_EQ(p->f_param_flyfilter_th, c.threshold) << c.mhz;
        EXPECT_EQ(p->bpf.f_param_bpf_sigma_spatial, c.spatial) << c.mhz;
    }
    set(F120, F40);
    EXPECT_EQ(p->dmax0 * 10000 + p->dmax1, 12493747);
    cam.enable(TQCAM_FILTER_DENOISE, 240 | 60 << 8); // fixed from here on
    set(F20);
    EXPECT_EQ(p->bpf.bpf.sigma_range, 10 / 250.0f + 0.05f);
    EXPECT_EQ(p->f_param_flyfilter_th, 2u);
}

TEST_F(Imx, UseCases)
{
    const struct {
        std::vector<uint32_t> calibrated;
        int avail[3];
    } cases[] = {{{F40}, {0, 0, 0}}, {{F120, F40}, {1, 1, 0}}, {{F20, F120}, {1, 0, 1}}};
    tqcam_use_case_t list[4] = {};
    for (const auto &c : cases) {
        save_calib(c.calibrated);
        ImxCamera cam;
        ASSERT_TRUE(cam.open());
        EXPECT_EQ(tqcam_use_case_list(&cam.dev, list, 255), 3);
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(list[i].avail, c.avail[i]) << c.calibrated.size() << " " << i;
    }
    ImxCamera cam;
    ASSERT_TRUE(cam.open());
    EXPECT_EQ(cam.ops()->use_case_set(cam.drv(), 3), -1); // the general case can't be set
    const struct {
        uint32_t index;
        uint8_t hdr;
        const char *sent;
    } sets[] = {{1, 1, "21=000e2707005a6202 12=1e000000,10=11000000 "},
                {2, 0, "21=000e2707002d3101 12=1e000000,10=11000000 "},
                {0, 0, "1=000e2707 12=1e000000,10=10000000 "},
                {0, 1, "1=000e2707 12=1e000000,10=0f000000 "}};
    for (const auto &s : sets) {
        cam.priv()->hdr_en = s.hdr;
        EXPECT_EQ(tqcam_use_case_set_uid(&cam.dev, s.index), 0);
        EXPECT_EQ(cam.take_sent(), s.sent);
    }
    EXPECT_EQ(tqcam_get_cur_use_case(&cam.dev, list), 0);
    EXPECT_EQ(list[0].uid, 0u);
    cam.fail_set = {TQCAM_PARAM_DUAL_FREQ}; // the device doesn't have that frequency
    EXPECT_EQ(tqcam_use_case_set_uid(&cam.dev, 1), -1);
}

// The pieces meet at 0 only roughly, and at 20 degrees exactly.
TEST_F(ImxOpen, TemperatureModelInPieces)
{
    calib_result_t &c = p->rows[0].calib;
    c.blk.t_cal0 = 300;
    c.blk.t_cal1 = 350;
    const double to = 32768.0 / 1249, k1 = 2.5 * to, k2 = 0.6 * to, k3 = 0.02 * to;
    const double at_20 = k1 * -10 + k2 * -15;
    const struct {
        int16_t cb, ib;
        int32_t fps;
        uint8_t blk_fps;
        uint32_t intg;
        double expected;
    } cases[] = {
        {400, 450, 0, 0, 0, k1 * 10 + k2 * 10},
        {0, 50, 0, 0, 0, at_20 - 40 * k1 - 30 * k2},
        {-10, -20, 0, 0, 0, at_20 - 2 * k1 - 4 * k2 - 50 * (k1 + k2)},
        {300, 350, 30, 20, 0, 10 * k3},
        {300, 350, 30, 31, 0, 20 * k3}, // 31 counts as 10
        {300, 350, 0, 0, 599, (((0.334 * 100 / 599 - 6.596) * 100 / 599 + 47.397) * 100 / 599 - 4.064) * to},
    };
    for (const auto &t : cases) {
        p->temp.temp_cb = t.cb;
        p->temp.temp_ib = t.ib;
        p->rate.fps_set = t.fps;
        p->intg_us = t.intg;
        c.blk.fps = t.blk_fps;
        EXPECT_NEAR(imx_temp_corr_phase(p, 0), t.expected, 1e-5 * std::fabs(t.expected) + 1e-3)
            << t.cb << " " << t.fps << " " << t.intg;
    }
    p->intg_us = 0;
    p->mod_freq1 = F40; // two frequencies: twice the exposures, 30 at most
    p->rate.fps_set = INT32_MAX;
    EXPECT_NEAR(imx_temp_corr_phase(p, 0), (30 - 10) * k3, 1e-3);
}

TEST_F(Imx, MountsARowForEachFrequency)
{
    for (const char *product : {"XX-S1-YY", "XX-S570C4-YY"}) {
        save_calib({F120, F40, F20}, {0, 0, 524, 52, 5});
        ImxCamera cam(product, 17, F120, F40);
        ASSERT_TRUE(cam.open());
        imx_priv_t *p = cam.priv();
        ASSERT_TRUE(imx_calib_is_ready(p) && p->rows[1].calib.planes);
        // The same phase is three times the distance, where rows have coefficients of their own.
        EXPECT_NEAR(p->rows[1].tcoef_mm[2] / p->rows[0].tcoef_mm[2], p->is_imx570 ? 3 : 1, 0.01) << product;
        uint32_t freqs[5] = {}, count = 2;
        EXPECT_EQ(cam.ops()->calib_freq_get(cam.drv(), freqs, &count), 3);
        EXPECT_EQ(freqs[1] + freqs[2], F40);
        // One row alone is no calibration.
        cam.ops()->on_update_mod_freq(cam.drv(), F120, 99000000, 0);
        EXPECT_FALSE(p->calib_mounted || p->f_en_pix_calib || p->rows[0].calib.planes);
        cam.ops()->on_update_mod_freq(cam.drv(), F20, 0, 0);
        EXPECT_TRUE(p->calib_mounted && p->f_en_pix_calib && !p->rows[1].calib.planes);
        // A region that isn't the calibrated one, and one beyond.
        calib_roi_t roi = {0, 3, 0, 7, 0, {}};
        cam.ops()->on_update_roi(cam.drv(), reinterpret_cast<const uint8_t *>(&roi));
        EXPECT_TRUE(imx_calib_is_ready(p) && p->rows[0].calib.roi_applied);
        EXPECT_EQ(p->img_w * 1000 + p->img_h, 8004u);
        roi.ecol = 600;
        cam.ops()->on_update_roi(cam.drv(), reinterpret_cast<const uint8_t *>(&roi));
        EXPECT_FALSE(imx_calib_is_ready(p));
    }
}
