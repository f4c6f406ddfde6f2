#include <cmath>
#include <gtest/gtest.h>

#include "imx_camera.h"
#include "support/calib_blocks.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {
constexpr uint32_t W = 8, H = 6; // of the calibrations here
constexpr uint32_t F120 = 120000000, F40 = 40000000, F20 = 20000000;

// The camera's calibration file: a block for each frequency.
void save_calib(std::vector<calib_block_t> blocks)
{
    for (calib_block_t &b : blocks) {
        b.w = W;
        b.h = H;
        b.t_cal1 = 350;
        b.fps = 20;
    }
    calib_write(ImxCamera::CALIB_FILE, blocks);
}

struct Imx : ::testing::Test {
    TempDir dir;
    LogCapture log;
};
struct ImxOpen : Imx {
    ImxCamera cam;
    imx_priv_t *p = nullptr;
    void SetUp() override
    {
        ASSERT_TRUE(cam.open());
        p = cam.priv();
    }
};
} // namespace

TEST_F(Imx, OpensEveryModelOfTheFamily)
{
    const struct {
        const char *product;
        bool imx570;
    } cases[] = {{"XX-S1-YY", false},
                 {"XX-S2-YY", false},
                 {"XX-S3-YY", false},
                 {"XX-S570C4-YY", true},
                 {"IMX570-S1-YY", true}};
    for (const auto &c : cases) {
        ImxCamera cam(c.product);
        const float lens[] = {320.5f, 240, 461, 462, 1, 2, 3, 4, 5};
        for (int k = 0; k < 3; k++) {
            cam.params[k ? 85 + k : 22].resize(16);
            memcpy(cam.params[k ? 85 + k : 22].data(), lens + 4 * k, k < 2 ? 16 : 4);
        }
        ASSERT_TRUE(cam.open()) << c.product;
        const imx_priv_t *p = cam.priv();
        EXPECT_EQ(p->is_imx570, c.imx570) << c.product;
        EXPECT_EQ(log.has("[imx_init] * Temp-ceof dependent on freq mode: Enabled"), c.imx570);
        EXPECT_TRUE(log.has("[imx_init]len param in dev: cx:320.500000, cy:240.000000, fx:461.000000, "
                            "fy:462.000000, d0:1.000000, d1:2.000000, d2:3.000000, d3:4.000000 ,d4:5.0"));
        log.clear();
        EXPECT_EQ(cam.params[19].size(), 8u); // the time
        EXPECT_EQ(p->gray_buf.size, 614400u);
        EXPECT_EQ(p->bpf.bpf.w * 1000 + p->bpf.bpf.h, 640480u);
        EXPECT_EQ(p->bpf.bpf.sigma_spatial, 0.01f);
        EXPECT_EQ(cam.dev.priv->lens_map.w, 640);
        EXPECT_TRUE(p->f_en_temp_monitor && p->f_en_temp_corr);
        EXPECT_FALSE(p->f_en_minamp || p->f_en_offset || p->f_en_fill_hole || p->f_en_bpf2d_iir);
        EXPECT_STREQ(p->tele_table[3].name, "f_param_flyfilter_th");
        EXPECT_EQ(p->tele_table[3].type, TQTELE_U32);
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
        {16, F120, 0, {}, 0, F120, 0, false, ""},
        {16, F120, 0, {}, 1, F120, 0, false, "1=000e2707 "},
        {16, F40, 0, {F120, F40}, 0, F40, 0, true, ""},
        {16, F20, 0, {F120, F40}, 0, F120, 0, true, "1=000e2707 "},
        {16, F20, 0, {F40, F120}, 1, F40, 0, true, "1=005a6202 "},
        {17, F120, F40, {F120, F40}, 0, F120, F40, true, ""},
        {17, F120, F20, {F120, F40}, 0, F120, F20, false, ""}, // frames of two need two
        {14, F120, F40, {F40, F120}, 0, F120, F40, true, ""},
        {17, F120, F40, {}, 0, F120, F40, false, ""},
        {17, F120, F40, {F40}, 21, F40, 0, true, "1=005a6202 "},
    };
    for (const auto &c : cases) {
        std::vector<calib_block_t> rows;
        for (uint32_t f : c.calibrated)
            rows.push_back({.freq = f});
        remove(ImxCamera::CALIB_FILE);
        if (!rows.empty())
            save_calib(rows);
        ImxCamera cam("XX-S1-YY", c.format, c.f0, c.f1);
        if (c.fail_get)
            cam.fail_get = {c.fail_get};
        ASSERT_TRUE(cam.open());
        const imx_priv_t *p = cam.priv();
        const size_t i = static_cast<size_t>(&c - cases);
        EXPECT_EQ(cam.take_sent(), c.sent) << i;
        EXPECT_EQ(p->mod_freq0, c.at0) << i;
        EXPECT_EQ(p->mod_freq1, c.at1) << i;
        EXPECT_EQ(p->calib_mounted, c.mounted) << i;
        EXPECT_EQ(p->f_en_pix_calib, c.mounted) << i;
        EXPECT_EQ(p->calib_freq_cnt, c.calibrated.size()) << i;
        EXPECT_EQ(p->dmax0, static_cast<int32_t>(1.4989622e11f / static_cast<float>(c.at0))) << i;
    }
    EXPECT_TRUE(log.has("[imx_calib_load]set device freq to calibrated freq: [120000000, 0]"));
    EXPECT_TRUE(log.has("[imx_calib_load]calib not valid: set freq to 120000000"));
}

TEST_F(ImxOpen, FiltersFollowTheFrequency)
{
    const struct {
        uint32_t mhz, threshold;
        float spatial;
    } cases[] = {{200, 2, 0.01f}, {120, 2, 0.01f}, {100, 2, 0.01f}, {99, 3, 0.02f}, {50, 3, 0.04f},
                 {30, 4, 0.06f},  {24, 4, 0.08f},  {20, 10, 0.1f},  {12, 10, 0.2f}, {10, 0, 0.2f}};
    for (const auto &c : cases) {
        cam.ops()->on_update_mod_freq(cam.drv(), c.mhz * 1000000 + 999999, 0, 0);
        EXPECT_EQ(p->f_param_flyfilter_th, c.threshold) << c.mhz;
        EXPECT_EQ(p->bpf.f_param_bpf_sigma_spatial, c.spatial) << c.mhz;
        EXPECT_EQ(p->bpf.f_param_bpf_sigma_range, 0.05f);
    }
    EXPECT_TRUE(log.has("[imx_on_update_mod_freq]FLYF  : threshold=10"));
    EXPECT_EQ(p->dmax, 13626); // of 10.999999 MHz
    cam.ops()->on_update_mod_freq(cam.drv(), F120, F40, 0);
    EXPECT_TRUE(p->dual_freq);
    EXPECT_EQ(p->dmax0 * 10000 + p->dmax1, 12493747);
    cam.ops()->on_update_mod_freq(cam.drv(), 0, F40, 0); // no frequency: no event
    EXPECT_EQ(p->dmax0 * 10000 + p->dmax1, 12493747);
    EXPECT_EQ(p->f_param_flyfilter_th, 0u);
    cam.enable(TQCAM_FILTER_DENOISE, 240 | 60 << 8); // fixed from here on
    cam.ops()->on_update_mod_freq(cam.drv(), F20, 0, 0);
    EXPECT_EQ(p->bpf.f_param_bpf_sigma_spatial, 0.06f);
    EXPECT_EQ(p->f_param_flyfilter_th, 0u);
    EXPECT_FALSE(p->dual_freq);
    cam.disable(TQCAM_FILTER_DENOISE);
    cam.ops()->on_update_mod_freq(cam.drv(), F20, 0, 0);
    EXPECT_EQ(p->f_param_flyfilter_th, 10u);
}

TEST_F(ImxOpen, Filters)
{
    const struct {
        uint32_t id;
        uint16_t value;
        relaxed_t<uint8_t> imx_priv_t::*flag;
    } cases[] = {
        {TQCAM_FILTER_MIN_AMP, 77, &imx_priv_t::f_en_minamp},
        {TQCAM_FILTER_SYNC_CHECK, 300, &imx_priv_t::f_en_sync_check},
        {TQCAM_FILTER_TEMP_MONITOR, 12, &imx_priv_t::f_en_temp_monitor},
        {TQCAM_FILTER_OFFSET, static_cast<uint16_t>(-40), &imx_priv_t::f_en_offset},
        {TQCAM_FILTER_FLY_PIXEL, 200, &imx_priv_t::f_en_flyfilter},
        {TQCAM_FILTER_TEMP_CORR, 0, &imx_priv_t::f_en_temp_corr},
        {TQCAM_FILTER_DENOISE, 3, &imx_priv_t::f_en_fill_hole},
    };
    for (const auto &c : cases) {
        EXPECT_TRUE(cam.disable(c.id)) << c.id;
        EXPECT_FALSE(p->*c.flag) << c.id;
        EXPECT_TRUE(cam.enable(c.id, c.value, c.id == TQCAM_FILTER_OFFSET ? 2500 : 0)) << c.id;
        EXPECT_TRUE(p->*c.flag) << c.id;
        EXPECT_EQ(cam.ops()->filter_enable(cam.drv(), c.id, nullptr), c.id == TQCAM_FILTER_TEMP_CORR);
    }
    EXPECT_EQ(p->min_amp, 77);
    EXPECT_EQ(p->sync_delay, 300);
    EXPECT_EQ(p->f_param_flyfilter_th, 31u);
    EXPECT_TRUE(log.has("[imx_filter_enable]scale/offset_mm: 1.000/0 -> 2.500/-40"));
    cam.enable(TQCAM_FILTER_OFFSET, 7, 0);
    EXPECT_EQ(p->user_scale, 1.0f);
    for (const uint32_t id : {3u, 10u, 11u, 12u, 15u, 99u, UINT32_MAX}) {
        EXPECT_FALSE(cam.enable(id)) << id;
        EXPECT_EQ(cam.disable(id), id == 11 || id == 12) << id;
    }
    EXPECT_FALSE(cam.enable(TQCAM_FILTER_PIXEL_CALIB)); // nothing mounted: stays off
    EXPECT_FALSE(p->f_en_pix_calib);
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_LENS));
    EXPECT_EQ(cam.take_sent(), ""); // none of these concerns the device

    const struct {
        uint8_t b, median;
        float spatial, range;
    } strengths[] = {{0, 0, 0, 0.05f},
                     {49, 0, 0.049f, 0.05f},
                     {50, 0, 0.05f, 0.05f},
                     {51, 1, 0.051f, 1 / 250.0f + 0.05f},
                     {255, 1, 0.255f, 205 / 250.0f + 0.05f}};
    for (const auto &s : strengths) {
        cam.enable(TQCAM_FILTER_DENOISE, static_cast<uint16_t>(240 | s.b << 8));
        EXPECT_EQ(p->f_en_median, s.median) << int{s.b};
        EXPECT_EQ(p->bpf.bpf.sigma_spatial, s.spatial);
        EXPECT_EQ(p->bpf.bpf.sigma_range, s.range);
        EXPECT_EQ(p->bpf.range_max, 1024);
        EXPECT_TRUE(p->f_en_bpf2d_iir && p->f_en_fill_hole && !p->f_en_hysteresis);
    }
}

TEST_F(ImxOpen, DeviceSideFilters)
{
    testing::internal::CaptureStdout();
    EXPECT_TRUE(cam.disable(TQCAM_FILTER_AUTO_INTG)); // off already
    EXPECT_EQ(cam.take_sent(), "");
    p->hdr_en = 1;
    cam.fail_set = {TQCAM_PARAM_INTG1};
    EXPECT_FALSE(cam.enable(TQCAM_FILTER_AUTO_INTG, 20));
    EXPECT_TRUE(log.has("[imx_filter_enable]enable AUTO_INTG failed"));
    EXPECT_TRUE(p->f_en_auto_intg);
    cam.fail_set.clear();
    cam.disable(TQCAM_FILTER_AUTO_INTG);
    EXPECT_EQ(cam.take_sent(), "13=feff ");
    p->intg_us = 321;
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_AUTO_INTG, 20));
    EXPECT_EQ(cam.take_sent(), "13=ffff1400 ");
    EXPECT_EQ(p->intg_us, 321u); // 65535 is not a time
    EXPECT_FALSE(p->hdr_en);
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_AUTO_INTG, 30)); // runs already
    EXPECT_EQ(cam.take_sent(), "");
    EXPECT_EQ(p->auto_intg_value, 20);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n\nenable auto intg\n\nenable auto intg");

    // Two integration times bring a format of their own, and one the one before.
    const tqcam_param_item_t fmt = {TQCAM_PARAM_FORMAT, 4, {16}};
    ASSERT_TRUE(tqcam_param_batch_set(&cam.dev, &fmt, 1));
    cam.take_sent();
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_HDR, 100, 800));
    EXPECT_EQ(cam.take_sent(), "13=6400,16=2003 10=0f000000 ");
    EXPECT_TRUE(log.has("[imx_on_update_intg_time]fmt auto change: 16->15"));
    EXPECT_EQ(p->saved_fmt, 16);
    EXPECT_TRUE(p->hdr_en);
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_HDR, 100, 700)); // no format change
    EXPECT_EQ(cam.take_sent(), "13=6400,16=bc02 ");
    EXPECT_EQ(p->saved_fmt, 16);
    EXPECT_TRUE(cam.disable(TQCAM_FILTER_HDR));
    EXPECT_EQ(cam.take_sent(), "16=0000 10=10000000 ");
    EXPECT_EQ(p->saved_fmt, -1);
    EXPECT_FALSE(p->hdr_en);
    cam.fail_set = {TQCAM_PARAM_FORMAT};
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_HDR, 100, 800));
    EXPECT_TRUE(log.has("[imx_on_update_intg_time]set to fmt 15 failed"));
    EXPECT_TRUE(p->hdr_en);
    cam.fail_set = {TQCAM_PARAM_INTG2};
    EXPECT_FALSE(cam.disable(TQCAM_FILTER_HDR));
    EXPECT_FALSE(cam.enable(TQCAM_FILTER_HDR, 1, 2));
    EXPECT_TRUE(p->hdr_en);
    EXPECT_TRUE(log.has("[imx_filter_disable]disable HDR failed"));
}

TEST_F(Imx, UseCases)
{
    const struct {
        std::vector<uint32_t> calibrated;
        int avail[3];
    } cases[] = {{{}, {0, 0, 0}},          {{F120}, {1, 0, 0}},      {{F40}, {0, 0, 0}},
                 {{F120, F40}, {1, 1, 0}}, {{F20, F120}, {1, 0, 1}}, {{F120, F40, F20}, {1, 1, 1}}};
    for (const auto &c : cases) {
        std::vector<calib_block_t> rows;
        for (uint32_t f : c.calibrated)
            rows.push_back({.freq = f});
        remove(ImxCamera::CALIB_FILE);
        if (!rows.empty())
            save_calib(rows);
        ImxCamera cam;
        ASSERT_TRUE(cam.open());
        tqcam_use_case_t list[4] = {};
        EXPECT_EQ(tqcam_use_case_list(&cam.dev, list, 2), 2);
        EXPECT_EQ(list[2].name, nullptr);
        EXPECT_EQ(tqcam_use_case_list(&cam.dev, list, 255), 3);
        for (int i = 0; i < 3; i++) {
            EXPECT_EQ(list[i].avail, c.avail[i]) << c.calibrated.size() << " " << i;
            EXPECT_EQ(list[i].uid, static_cast<uint32_t>(i));
        }
        EXPECT_STREQ(list[2].name, "Super far : 120/20MHz");
    }
    ImxCamera cam;
    ASSERT_TRUE(cam.open());
    EXPECT_EQ(tqcam_use_case_list(&cam.dev, nullptr, 3), -1);
    EXPECT_EQ(cam.ops()->use_case_set(nullptr, 0), -1);
    EXPECT_EQ(cam.ops()->use_case_set(cam.drv(), 3), -1); // the general case can't be set
    EXPECT_EQ(cam.ops()->use_case_get(cam.drv(), nullptr), -1);
    tqcam_use_case_t now;
    const struct {
        uint32_t index;
        bool hdr;
        const char *sent;
        int32_t dmax0, dmax1;
    } sets[] = {{0, false, "1=000e2707 12=1e000000,10=10000000 ", 1249, 0},
                {1, true, "21=000e2707005a6202 12=1e000000,10=11000000 ", 1249, 3747},
                {2, false, "21=000e2707002d3101 12=1e000000,10=11000000 ", 1249, 7494},
                {0, true, "1=000e2707 12=1e000000,10=0f000000 ", 1249, 0}};
    for (const auto &s : sets) {
        cam.priv()->hdr_en = s.hdr;
        EXPECT_EQ(tqcam_use_case_set_uid(&cam.dev, s.index), 0);
        EXPECT_EQ(cam.take_sent(), s.sent);
        EXPECT_EQ(cam.priv()->dmax0, s.dmax0);
        EXPECT_EQ(cam.priv()->dmax1, s.dmax1);
        EXPECT_EQ(tqcam_get_cur_use_case(&cam.dev, &now), 0);
        EXPECT_EQ(now.uid, s.index);
    }
    cam.fail_set = {TQCAM_PARAM_DUAL_FREQ}; // the device doesn't have that frequency
    EXPECT_EQ(tqcam_use_case_set_uid(&cam.dev, 1), -1);
    EXPECT_EQ(tqcam_get_cur_use_case(&cam.dev, &now), 0);
    EXPECT_EQ(now.uid, 0u);
    EXPECT_EQ(cam.priv()->mod_freq1, 0u);
    cam.fail_set = {TQCAM_PARAM_FPS};
    EXPECT_EQ(tqcam_use_case_set_uid(&cam.dev, 1), -1);
}

TEST_F(ImxOpen, RegionsOfInterest)
{
    const struct {
        uint16_t srow, erow, scol, ecol;
        uint8_t binning;
        uint32_t w, h;
    } cases[] = {
        {0, 479, 0, 639, 0, 640, 480}, {0, 479, 0, 639, 1, 320, 240},  {0, 479, 0, 639, 4, 320, 120},
        {0, 479, 0, 639, 3, 80, 60},   {100, 219, 32, 191, 2, 40, 30}, {0, 479, 0, 639, 5, 40, 30},
        {9, 8, 0, 639, 0, 40, 30},     {0, 480, 0, 639, 0, 40, 30},    {0, 65535, 0, 65535, 255, 40, 30},
        {7, 7, 639, 639, 0, 1, 1},     {0, 479, 0, 639, 0, 640, 480},
    };
    for (const auto &c : cases) {
        const calib_roi_t roi = {c.srow, c.erow, c.scol, c.ecol, c.binning, {}};
        cam.ops()->on_update_roi(cam.drv(), reinterpret_cast<const uint8_t *>(&roi));
        EXPECT_EQ(p->img_w, c.w) << int{c.binning};
        EXPECT_EQ(p->img_h, c.h) << int{c.binning};
    }
    EXPECT_TRUE(log.has("[imx_on_update_roi] roi wrong mode: 5"));
}

TEST_F(ImxOpen, FrameInformation)
{
    tq_frame_hdr_t hdr = {};
    hdr.frame_len = 4 * 640 * 480 * 2;
    hdr.frame_idx = 9;
    hdr.frame_fmt = 2;
    hdr.temp_cb = 300;
    hdr.temp_ib = 1200;
    hdr.aux = 588;
    std::vector<uint8_t> raw(700);
    raw[16] = 1200 >> 4;
    tqcam_frame_info_t info;
    ASSERT_TRUE(cam.ops()->frame_get_info(cam.drv(), &info, &hdr, raw.data(), 700));
    EXPECT_EQ(info.width * 1000 + info.height, 640480u);
    EXPECT_EQ(info.pixel_bytes, 8);
    EXPECT_EQ(info.temp_ib, 1200);
    EXPECT_EQ(info.meta_size, 588u);
    EXPECT_EQ(info.meta_intg_us, 1u);
    EXPECT_TRUE(cam.ops()->frame_get_info(cam.drv(), &info, &hdr, raw.data(), 588));
    EXPECT_EQ(info.meta_intg_us, 0u);
    hdr.frame_len = 12345; // lengths are checked when a frame is decoded
    hdr.width = hdr.height = 65535;
    EXPECT_TRUE(cam.ops()->frame_get_info(cam.drv(), &info, &hdr, nullptr, 0));
    const struct {
        int16_t cb, ib, out;
    } temps[] = {{300, 1251, 200},  {300, 1250, 1250}, {200, 1250, 100},
                 {700, -300, -300}, {701, -300, 601},  {0, -301, -100}};
    hdr.width = hdr.height = 0;
    for (const auto &t : temps) {
        p->temp.ring_index = 0; // too few frames to tell a jump
        hdr.temp_cb = t.cb;
        hdr.temp_ib = t.ib;
        cam.ops()->frame_get_info(cam.drv(), &info, &hdr, nullptr, 0);
        EXPECT_EQ(info.temp_ib, t.out) << t.cb << " " << t.ib;
    }
    hdr.frame_fmt = 0x1102; // passed through
    ASSERT_TRUE(cam.ops()->frame_get_info(cam.drv(), &info, &hdr, raw.data(), 700));
    EXPECT_EQ(info.frame_format, 0x1102);
    EXPECT_EQ(info.frame_idx, 9);
    EXPECT_EQ(info.frame_size, 12345u);
}

// The gray reference is taken and stays dark; no model boosts the frame rate.
TEST_F(ImxOpen, FramesForTheDriver)
{
    std::vector<uint8_t> raw(13, 0xFF);
    tqcam_frame_info_t info = {};
    info.frame_format = 0x20B;
    for (const uint32_t size : {12u, 13u, 0u, 8u}) {
        info.frame_size = size;
        EXPECT_EQ(cam.ops()->frame_raw_proc(cam.drv(), raw.data() + (size < 13), 1, &info),
                  DRV_FRAME_CONSUMED);
        EXPECT_EQ(p->gray_buf.size, size);
        for (uint32_t i = 0; i < size; i++)
            EXPECT_EQ(p->gray_buf.as<uint8_t>()[i], 0);
    }
    p->f_en_gray = 1;
    p->gray_div = 10;
    cam.ops()->frame_raw_proc(cam.drv(), raw.data(), 1, &info);
    EXPECT_EQ(p->gray_buf.as<int16_t>()[3], (65535 - 2048) / 10);
    info.frame_format = 2;
    EXPECT_EQ(cam.ops()->frame_raw_proc(cam.drv(), raw.data(), 1, &info), 0);
    EXPECT_EQ(cam.ops()->frame_raw_proc(cam.drv(), raw.data(), 2, &info), 0);
    EXPECT_EQ(cam.ops()->frame_need_data(cam.drv(), raw.data(), 1, &info), 0);
    p->bfps.bfps_en = 1;
    p->bfps.bfps_dcs = 2;
    EXPECT_EQ(cam.ops()->frame_raw_proc(cam.drv(), raw.data(), 1, &info), 1);
    EXPECT_EQ(cam.ops()->frame_need_data(cam.drv(), raw.data(), 1, &info), 1);
}

// The pieces meet at 0 only roughly, and at 20 degrees exactly.
TEST_F(ImxOpen, TemperatureModelInPieces)
{
    calib_result_t &c = p->rows[0].calib;
    c.blk.t_cal0 = 300;
    c.blk.t_cal1 = 350;
    p->intg_us = 0;
    const double to = 32768.0 / 1249, k1 = 2.5 * to, k2 = 0.6 * to, k3 = 0.02 * to;
    const auto at_20 = [&] { return k1 * -10 + k2 * -15; };
    const struct {
        int16_t cb, ib;
        int32_t fps;
        uint8_t blk_fps;
        uint32_t intg;
        double expected;
    } cases[] = {
        {300, 350, 0, 0, 0, 0},
        {400, 450, 0, 0, 0, k1 * 10 + k2 * 10},
        {200, 200, 0, 0, 0, at_20()},
        {199, 200, 0, 0, 0, at_20() - 2 * k1 / 10},
        {0, 50, 0, 0, 0, at_20() - 40 * k1 - 30 * k2},
        {-10, -20, 0, 0, 0, at_20() - 2 * k1 - 4 * k2 - 50 * (k1 + k2)},
        {300, 350, 30, 20, 0, 10 * k3},
        {300, 350, 30, 31, 0, 20 * k3}, // 31 counts as 10
        {300, 350, -5, 20, 0, 0},
        {300, 350, 0, 0, 600, 0},
        {300, 350, 0, 0, 599, (((0.334 * 100 / 599 - 6.596) * 100 / 599 + 47.397) * 100 / 599 - 4.064) * to},
        {300, 350, 0, 0, 100, (0.334 - 6.596 + 47.397 - 4.064) * to},
        {300, 350, 0, 0, 1, (((0.334 * 100 - 6.596) * 100 + 47.397) * 100 - 4.064) * to},
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
    c.blk.fps = 20;
    p->temp.temp_cb = 300; // two frequencies: twice the exposures, 30 at most
    p->temp.temp_ib = 350;
    p->mod_freq1 = F40;
    for (const auto &[fps, twice] : std::vector<std::pair<int32_t, int>>{
             {12, 24}, {20, 30}, {INT32_MAX, 30}, {0, 20}, {INT32_MIN, 20}}) {
        p->rate.fps_set = fps;
        EXPECT_NEAR(imx_temp_corr_phase(p, 0), (twice - 20) * k3, 1e-3) << fps;
    }
    p->rows[1].tcoef_mm[2] = NAN;
    EXPECT_EQ(imx_temp_corr_phase(p, 1), 0);
    p->mod_freq1 = 0;
    p->temp_model_ready = false;
    p->temp.temp_cb = 100;
    EXPECT_NEAR(imx_temp_corr_phase(p, 0), -20 * k1, 1e-2);
}

TEST_F(Imx, MountsARowForEachFrequency)
{
    const std::vector<float> one = {0, 0, 524, 52, 5}, other = {0, 0, 1048, 104, 10}; // phase
    for (const char *product : {"XX-S1-YY", "XX-S570C4-YY"}) {
        save_calib({{.freq = F120, .slope = std::vector<float>(W * H, 1.1f), .tcoef = one},
                    {.freq = F40, .offset = std::vector<float>(W * H, -3), .tcoef = other},
                    {.freq = F20}});
        ImxCamera cam(product, 17, F120, F40);
        ASSERT_TRUE(cam.open());
        imx_priv_t *p = cam.priv();
        ASSERT_TRUE(imx_calib_is_ready(p));
        EXPECT_EQ(p->rows[0].calib.planes[0], 1.1f);
        EXPECT_EQ(p->rows[1].calib.planes[0], 1);
        EXPECT_EQ(p->rows[1].calib.planes[W * H], -3);
        const bool own = p->is_imx570;
        EXPECT_EQ(p->rows[1].tcoef_mm[2] == p->rows[0].tcoef_mm[2], !own) << product;
        EXPECT_EQ(p->rows[0].tcoef_mm[6], -4.064f); // beyond what the file brings
        uint32_t freqs[5] = {}, count = 5;
        EXPECT_EQ(cam.ops()->calib_freq_get(cam.drv(), freqs, &count), 3);
        EXPECT_EQ(freqs[2], F20);
        // One row alone is no calibration.
        cam.ops()->on_update_mod_freq(cam.drv(), F120, 99000000, 0);
        EXPECT_FALSE(p->calib_mounted || p->f_en_pix_calib || p->rows[0].calib.planes);
        cam.ops()->on_update_mod_freq(cam.drv(), F20, 0, 0);
        EXPECT_TRUE(p->calib_mounted && p->f_en_pix_calib && !p->rows[1].calib.planes);
        remove(ImxCamera::CALIB_FILE);
        cam.ops()->on_update_mod_freq(cam.drv(), F20, 0, 0); // nothing is read again
        EXPECT_TRUE(p->calib_mounted);
        // A region that isn't the calibrated one, and back.
        save_calib({{.freq = F20}});
        calib_roi_t roi = {0, 3, 0, 7, 0, {}};
        cam.ops()->on_update_roi(cam.drv(), reinterpret_cast<const uint8_t *>(&roi));
        EXPECT_TRUE(imx_calib_is_ready(p) && p->rows[0].calib.roi_applied);
        EXPECT_EQ(p->rows[0].tcoef_mm[2], 2.5f); // the default again
        roi.ecol = 600;
        cam.ops()->on_update_roi(cam.drv(), reinterpret_cast<const uint8_t *>(&roi));
        EXPECT_FALSE(imx_calib_is_ready(p));
        float planes[2 * W * H];
        for (size_t i = 0; i < 2 * W * H; i++)
            planes[i] = static_cast<float>(i);
        calib_result_t mirrored = {};
        mirrored.blk.img_w = W;
        mirrored.blk.img_h = H;
        mirrored.planes = planes;
        imx_calib_mirror(&mirrored);
        EXPECT_EQ(planes[0] * 1000 + planes[2 * W * H - 1], 7088);
    }
}
