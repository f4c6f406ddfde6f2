#include "epc_camera.h"
#include "support/calib_blocks.h"
#include "support/open_camera.h"

using EpcEvents = OpenCamera<EpcCamera>;

TEST(EpcOpening, FrequencyGivesRangeAndCalibration)
{
    TempDir dir;
    LogCapture log;
    calib_write(EpcCamera::CALIB_FILE, {{.freq = 24000000}, {.freq = 12000000}});
    EpcCamera cam;
    ASSERT_TRUE(cam.open());
    epc_priv_t *p = cam.priv();
    EXPECT_TRUE(p->calib_mounted);
    const auto event = [&](uint32_t f0, uint32_t f1 = 0) {
        log.clear();
        epc_event_freq_change(cam.drv(), f0, f1);
    };
    event(12000000); // mounted already
    EXPECT_EQ(log.text(), "");
    event(24000000, 12000000); // only one is supported
    EXPECT_EQ(p->mod_freq0, 12000000u);
    event(24000000);
    EXPECT_TRUE(log.has("[epc_calc_mount_calib]Calib loaded [freq=24.0]: DRNU: cb=300, ib=400, "
                        "s_um/o_mm=1000/0; TEMP[n=6]: [14.96,0.00,13.78,1.18,0.20]"));
    EXPECT_EQ(p->dmax, 6245);
    event(69);
    EXPECT_FALSE(p->calib_mounted);
    EXPECT_EQ(p->dmax, 0); // beyond 31 bits
    event(0);
    EXPECT_EQ(p->mod_freq0, 24000000u); // the file's first
}

TEST(EpcOpening, OpenDecidesTheFrequency)
{
    const struct {
        uint32_t file_mhz;   // 0: no file
        uint32_t device_mhz; // 0: it doesn't tell
        uint8_t device_ts;   // of the device's own calibration; 0: it has none
        uint32_t mhz;
        const char *sent; // of parameter 1
        const char *line;
    } cases[] = {
        {12, 12, 0, 12, "", "No valid calib data on dev, use local cache!"},
        {12, 24, 0, 12, "1=001bb700 ", "set device freq to calibrated freq: [12000000, 0]"},
        {24, 0, 0, 24, "1=00366e01 ", "[epc_calib_load] get mod freq failed"},
        {0, 20, 0, 20, "", "calib not valid: set freq to 20000000"},
        {0, 0, 0, 12, "1=001bb700 ", "calib not valid: set freq to 12000000"},
        {12, 12, 2, 12, "", "local param (ts=1) is not up-to-date (dev ts=2)"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        TempDir dir;
        LogCapture log;
        if (c.file_mhz)
            calib_write(EpcCamera::CALIB_FILE, {{.freq = c.file_mhz * 1000000}});
        EpcCamera cam;
        cam.set_words(TQCAM_PARAM_MOD_FREQ, {c.device_mhz * 1000000});
        if (c.device_ts)
            cam.params[TQCAM_PARAM_CALIB_INFO] = {1, 0, 0, 0, 0, 0, c.device_ts, 0, 0, 0};
        if (!c.device_mhz)
            cam.fail_get = {TQCAM_PARAM_MOD_FREQ};
        ASSERT_TRUE(cam.open());
        EXPECT_EQ(cam.priv()->mod_freq0, c.mhz * 1000000);
        EXPECT_EQ(cam.priv()->calib_mounted, c.file_mhz != 0);
        EXPECT_TRUE(log.has(c.line)) << log.text();
        // A file older than the device's calibration is as good as none.
        EXPECT_EQ(log.has("Load calibration data from device failed"), !c.file_mhz || c.device_ts == 2);
        EXPECT_EQ(cam.sent, c.sent);
    }
}

TEST_F(EpcEvents, RegionGivesImageSize)
{
    const struct {
        bool e5;
        calib_roi_t roi; // rows, columns, binning
        uint32_t w, h;
        const char *line;
    } steps[] = {
        {false, {0, 239, 0, 319, 0, {}}, 320, 240, "320x240 @ (0, 0), binning=0\n"},
        {false, {0, 239, 0, 319, 1, {}}, 160, 120, "160x120 @ (0, 0), binning=1, len=[80.0"},
        {false, {0, 239, 0, 319, 4, {}}, 160, 60, "160x60"},
        {false, {60, 179, 80, 239, 1, {}}, 80, 60, "80x60 @ (80, 60), binning=1, len=["},
        {false, {0, 239, 0, 319, 5, {}}, 80, 60, "[epc_on_update_roi] roi wrong mode: 5"},
        {false, {9, 3, 0, 319, 0, {}}, 80, 60, "roi wrong bounds: rows 9 to 3, columns 0 to 319"},
        {false, {0, 65535, 0, 65535, 0, {}}, 80, 60, "roi wrong bounds"},
        {false, {0, 239, 0, 319, 0, {}}, 320, 240, "320x240 @ (0, 0), binning=0, len=[160"}, // back again
        {true, {0, 239, 0, 319, 1, {}}, 160, 60, "160x60 @ (0, 0), binning=1\n"},            // has one size
    };
    EpcCamera e5("E5");
    ASSERT_TRUE(e5.open());
    for (const auto &s : steps) {
        EpcCamera &c = s.e5 ? e5 : cam;
        log.clear();
        c.ops()->on_update_roi(c.drv(), reinterpret_cast<const uint8_t *>(&s.roi));
        EXPECT_EQ(c.priv()->img_w, s.w) << s.line;
        EXPECT_EQ(c.priv()->img_h, s.h) << s.line;
        EXPECT_EQ(c.priv()->bpf.bpf.w, s.w) << s.line; // the filter follows
        EXPECT_TRUE(log.has(s.line)) << s.line << "\n" << log.text();
    }
}

TEST_F(EpcEvents, HdrAndSportGoThroughTheDevice)
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
