#include <gtest/gtest.h>

#include "epc_camera.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {
struct EpcFilter : ::testing::Test {
    TempDir dir;
    LogCapture log;
    EpcCamera cam;
    epc_priv_t *p = nullptr;
    void SetUp() override
    {
        ASSERT_TRUE(cam.open());
        p = cam.epc();
        cam.take_sent();
    }
};
} // namespace

TEST_F(EpcFilter, SwitchesAndValues)
{
    const struct {
        uint32_t id;
        uint16_t arg;
        relaxed_t<uint8_t> epc_priv_t::*flag;
    } cases[] = {
        {TQCAM_FILTER_MIN_AMP, 77, &epc_priv_t::f_en_minamp},
        {TQCAM_FILTER_AUTO_INTG, 20, &epc_priv_t::f_en_auto_intg},
        {TQCAM_FILTER_SYNC_CHECK, 300, &epc_priv_t::f_en_sync_check},
        {TQCAM_FILTER_TEMP_MONITOR, 12, &epc_priv_t::f_en_temp_monitor},
        {TQCAM_FILTER_OFFSET, static_cast<uint16_t>(-40), &epc_priv_t::f_en_offset},
        {TQCAM_FILTER_GRAY_REF, 0, &epc_priv_t::f_en_gray},
        {TQCAM_FILTER_FLY_PIXEL, 200, &epc_priv_t::f_en_flyfilter},
        {TQCAM_FILTER_TEMP_CORR, 0, &epc_priv_t::f_en_temp_corr},
        {TQCAM_FILTER_DENOISE, 3 | 4 << 8, &epc_priv_t::f_en_bpf2d_iir},
        {TQCAM_FILTER_PIXEL_CALIB, 0, &epc_priv_t::f_en_pix_calib},
    };
    for (const auto &c : cases) {
        EXPECT_TRUE(cam.disable(c.id)) << c.id;
        EXPECT_FALSE(p->*c.flag) << c.id;
        EXPECT_EQ(cam.enable(c.id, c.arg), c.id != TQCAM_FILTER_PIXEL_CALIB) << c.id; // nothing mounted
        EXPECT_TRUE(p->*c.flag) << c.id;
        const bool plain = c.id == TQCAM_FILTER_PIXEL_CALIB || c.id == TQCAM_FILTER_TEMP_CORR;
        EXPECT_EQ(cam.ops()->filter_enable(cam.drv(), c.id, nullptr),
                  c.id == TQCAM_FILTER_TEMP_CORR && plain);
    }
    EXPECT_EQ(p->min_amp, 77);
    EXPECT_EQ(p->auto_intg_ratio, 20);
    EXPECT_EQ(p->sync_delay, 300);
    EXPECT_EQ(p->temp_period, 12u);
    EXPECT_EQ(p->user_offset, -40);
    EXPECT_EQ(p->gray_div, 1); // 0 would divide
    EXPECT_EQ(p->f_param_flyfilter_th, 31);
    EXPECT_EQ(log.count("offset_mm: 0 -> -40"), 1);
    cam.disable(TQCAM_FILTER_AUTO_INTG);
    EXPECT_EQ(p->auto_intg_ratio, 0);
    EXPECT_EQ(cam.take_sent(), ""); // none of these concerns the device

    for (const uint32_t id : {3u, 15u, 99u, UINT32_MAX}) {
        EXPECT_FALSE(cam.enable(id));
        EXPECT_FALSE(cam.disable(id));
    }
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_LENS));
    EXPECT_EQ(tqcam_lens_calib_config_get(&cam.dev)->en_3d, 1);
    EXPECT_TRUE(cam.disable(TQCAM_FILTER_LENS));
    EXPECT_EQ(tqcam_lens_calib_config_get(&cam.dev)->en_2d, 0);
}

TEST_F(EpcFilter, DenoiseStrength)
{
    const struct {
        uint8_t b, level, median;
        float sigma;
    } cases[] = {{67, 5, 1, 0.067f}, {66, 3, 1, 0.066f}, {11, 3, 1, 0.011f}, {10, 0, 0, 0.010f}};
    cam.enable(TQCAM_FILTER_DENOISE, 1 | 2 << 8);
    EXPECT_EQ(p->denoise_level, 5);
    EXPECT_EQ(p->bpf.bpf.sigma_spatial, 0.02f); // as made at open
    for (const auto &c : cases) {
        EXPECT_TRUE(cam.enable(TQCAM_FILTER_DENOISE, static_cast<uint16_t>(240 | c.b << 8)));
        EXPECT_EQ(p->denoise_level, c.level);
        EXPECT_EQ(p->denoise_median, c.median);
        EXPECT_EQ(p->bpf.bpf.sigma_spatial, c.sigma);
        EXPECT_EQ(p->bpf.bpf.sigma_range, 0.05f);
    }
    const int reloads = log.count("[_filter_bpf_reload_parameter]bpf2d_iir reload");
    cam.enable(TQCAM_FILTER_DENOISE, 240 | 10 << 8); // nothing changed
    EXPECT_EQ(log.count("[_filter_bpf_reload_parameter]bpf2d_iir reload"), reloads);
    cam.disable(TQCAM_FILTER_DENOISE);
    EXPECT_EQ(p->denoise_args[0] + p->f_en_bpf2d_iir + p->f_en_denoise + p->denoise_median, 0);
}

TEST_F(EpcFilter, HdrAndSportGoThroughTheDevice)
{
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_HDR, 100, 800));
    EXPECT_EQ(cam.take_sent(), "13=6400,16=2003 ");
    EXPECT_TRUE(p->hdr_en);
    EXPECT_EQ(p->hdr_intg, 100);
    EXPECT_TRUE(cam.disable(TQCAM_FILTER_HDR));
    EXPECT_EQ(cam.take_sent(), "16=0000 ");
    EXPECT_EQ(p->hdr_en + p->hdr_intg, 0);

    const struct {
        uint8_t mode;
        const char *sent;
        uint8_t en, stored;
    } modes[] = {{0, "10=01000000 ", 1, 0}, {1, "10=04000000 ", 1, 1}, {2, "10=02000000 ", 1, 2}};
    for (const auto &m : modes) {
        EXPECT_TRUE(cam.enable(TQCAM_FILTER_SPORT, m.mode));
        EXPECT_EQ(cam.take_sent(), m.sent);
        EXPECT_EQ(p->sport_en, m.en) << int{m.mode}; // mode 2 too: its own event had cleared it
        EXPECT_EQ(p->sport_mode, m.stored);
    }
    EXPECT_FALSE(cam.enable(TQCAM_FILTER_PIXEL_CALIB)); // also refused for sport modes
    EXPECT_TRUE(cam.disable(TQCAM_FILTER_SPORT));
    EXPECT_EQ(cam.take_sent(), "10=02000000 ");
    EXPECT_FALSE(p->sport_en);
    EXPECT_FALSE(cam.enable(TQCAM_FILTER_SPORT, 3));
    EXPECT_TRUE(log.has("[epc_filter_enable]wrong SPORT MODE: 3"));

    cam.fail_set = {10, 13, 16};
    for (const uint8_t mode : {0, 1, 2})
        EXPECT_FALSE(cam.enable(TQCAM_FILTER_SPORT, mode));
    EXPECT_FALSE(cam.disable(TQCAM_FILTER_SPORT));
    EXPECT_FALSE(cam.enable(TQCAM_FILTER_HDR, 1, 2));
    EXPECT_FALSE(cam.disable(TQCAM_FILTER_HDR));
    EXPECT_FALSE(p->sport_en || p->hdr_en);
    EXPECT_EQ(log.count("[epc_filter_enable]enable SPORT MODE 0 failed"), 1);
    EXPECT_EQ(log.count("[epc_filter_enable]enable SPORT MODE 1 failed"), 2);
    for (const char *line :
         {"[epc_filter_disable]disable sport mode failed", "[epc_filter_enable]enable HDR failed",
          "[epc_filter_disable]disable HDR failed"})
        EXPECT_EQ(log.count(line), 1) << line;
}

TEST_F(EpcFilter, SystemCalibrationComesFromTheDevice)
{
    cam.disable(TQCAM_FILTER_SYS_CALIB);
    cam.set_sys_calib(1.25f, -30, 0);
    EXPECT_FALSE(cam.enable(TQCAM_FILTER_SYS_CALIB));
    cam.fail_get = {18};
    EXPECT_FALSE(cam.enable(TQCAM_FILTER_SYS_CALIB));
    EXPECT_EQ(log.count("[epc_filter_enable]Sys calib param not valid"), 2);
    EXPECT_FALSE(p->f_en_sys_calib);
    EXPECT_EQ(p->sys_scale, 1.0f);
    cam.fail_get = {};
    cam.set_sys_calib(1.25f, -30);
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_SYS_CALIB));
    EXPECT_TRUE(p->f_en_sys_calib);
    EXPECT_EQ(p->sys_scale, 1.25f);
    EXPECT_EQ(p->sys_offset, -30.0f);
    cam.set_sys_calib(1.5f, 2); // events refresh it
    cam.ops()->on_update_fmt(cam.drv(), 2);
    EXPECT_EQ(p->sys_scale, 1.5f);
    cam.set_sys_calib(1.75f, 2);
    cam.ops()->on_update_mod_freq(cam.drv(), 0, 0, 0);
    EXPECT_EQ(p->sys_scale, 1.75f);
}
