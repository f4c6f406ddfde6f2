#include "epc_camera.h"
#include "support/open_camera.h"

using EpcFilters = OpenCamera<EpcCamera>;

TEST_F(EpcFilters, SwitchesAndValues)
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
        EXPECT_EQ(cam.ops()->filter_enable(cam.drv(), c.id, nullptr), c.id == TQCAM_FILTER_TEMP_CORR);
    }
    EXPECT_EQ(p->min_amp, 77);
    EXPECT_EQ(p->auto_intg_ratio, 20);
    EXPECT_EQ(p->sync_delay, 300);
    EXPECT_EQ(p->user_offset, -40);
    EXPECT_EQ(p->gray_div, 1); // 0 would divide
    EXPECT_EQ(p->f_param_flyfilter_th, 31u);
    EXPECT_EQ(cam.take_sent(), ""); // none of these concerns the device
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_LENS));
    EXPECT_EQ(tqcam_lens_calib_config_get(&cam.dev)->en_3d, 1);
    EXPECT_TRUE(cam.disable(TQCAM_FILTER_LENS));
    EXPECT_EQ(tqcam_lens_calib_config_get(&cam.dev)->en_2d, 0);
}

TEST_F(EpcFilters, HdrAndSportGoThroughTheDevice)
{
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_HDR, 100, 800));
    EXPECT_EQ(cam.take_sent(), "13=6400,16=2003 ");
    EXPECT_TRUE(p->hdr_en);
    EXPECT_EQ(p->hdr_intg, 100);
    EXPECT_TRUE(cam.disable(TQCAM_FILTER_HDR));
    EXPECT_EQ(cam.take_sent(), "16=0000 ");
    EXPECT_EQ(p->hdr_en + p->hdr_intg, 0);

    const char *const sent[] = {"10=01000000 ", "10=04000000 ", "10=02000000 "};
    for (uint8_t mode = 0; mode < 3; mode++) {
        EXPECT_TRUE(cam.enable(TQCAM_FILTER_SPORT, mode));
        EXPECT_EQ(cam.take_sent(), sent[mode]);
        EXPECT_TRUE(p->sport_en) << int{mode}; // mode 2 too: its own event had cleared it
        EXPECT_EQ(p->sport_mode, mode);
    }
    EXPECT_TRUE(cam.disable(TQCAM_FILTER_SPORT));
    EXPECT_EQ(cam.take_sent(), "10=02000000 ");
    EXPECT_FALSE(p->sport_en);
    EXPECT_FALSE(cam.enable(TQCAM_FILTER_SPORT, 3));

    cam.fail_set = {10, 13, 16};
    EXPECT_FALSE(cam.enable(TQCAM_FILTER_SPORT, 1));
    EXPECT_FALSE(cam.disable(TQCAM_FILTER_SPORT));
    EXPECT_FALSE(cam.enable(TQCAM_FILTER_HDR, 1, 2));
    EXPECT_FALSE(cam.disable(TQCAM_FILTER_HDR));
    EXPECT_FALSE(p->sport_en || p->hdr_en);
    EXPECT_TRUE(log.has("[epc_filter_enable]enable SPORT MODE 1 failed"));
    EXPECT_TRUE(log.has("[epc_filter_disable]disable HDR failed"));
}
