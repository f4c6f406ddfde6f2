#include <gtest/gtest.h>

#include "epc_camera.h"
#include "support/calib_blocks.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {
std::vector<uint8_t> roi_value(uint16_t srow, uint16_t erow, uint16_t scol, uint16_t ecol, uint8_t binning)
{
    const calib_roi_t roi = {srow, erow, scol, ecol, binning, {}};
    std::vector<uint8_t> value(sizeof(roi));
    memcpy(value.data(), &roi, sizeof(roi));
    return value;
}
} // namespace

TEST(EpcEvents, FrequencyGivesRangeAndCalibration)
{
    TempDir dir;
    LogCapture log;
    calib_write(EpcCamera::CALIB_FILE, {{.freq = 24000000}, {.freq = 12000000}});
    EpcCamera cam;
    ASSERT_TRUE(cam.open());
    epc_priv_t *p = cam.epc();
    EXPECT_EQ(p->mod_freq0, 12000000u);
    EXPECT_TRUE(p->calib_mounted);
    const auto event = [&](uint32_t f0, uint32_t f1 = 0) {
        log.clear();
        epc_event_freq_change(cam.drv(), f0, f1);
    };
    event(12000000); // mounted already
    EXPECT_EQ(log.text(), "");
    event(24000000, 12000000);
    EXPECT_TRUE(log.has("[epc_event_freq_change]MOD_FREQ [24000000, 12000000] HZ not support"));
    EXPECT_EQ(p->mod_freq0, 12000000u);
    event(24000000);
    EXPECT_TRUE(log.has("MOD_FREQ change: [12000000, 0] -> [24000000, 0] HZ"));
    EXPECT_TRUE(log.has("Calib data unload [freq=12000000, 0]"));
    EXPECT_TRUE(log.has("[epc_calc_mount_calib] -> Apply roi to calib OK: [0,7,0,7] binn=0"));
    EXPECT_TRUE(log.has("Calib loaded [freq=24.0]: DRNU: cb=300, ib=400, s_um/o_mm=1000/0; TEMP[n=6]: "
                        "[14.96,0.00,13.78,1.18,0.20]"));
    EXPECT_EQ(p->dmax, 6245);
    EXPECT_EQ(p->tc_k0_ph, (295u << 15) / 6245);
    event(20000000);
    EXPECT_TRUE(log.has("[epc_calc_mount_calib]  * freq 20000000 not calibrated"));
    EXPECT_TRUE(log.has("No calib data : freq=20000000. Use default scale_um/offset_mm = 1000/0"));
    EXPECT_FALSE(p->calib_mounted);
    EXPECT_EQ(p->dmax, 7494);
    event(0);
    EXPECT_TRUE(log.has("MOD_FREQ [0, 0] HZ: try loading calib data"));
    EXPECT_EQ(p->mod_freq0, 24000000u); // the file's first
    remove(EpcCamera::CALIB_FILE);
    event(0);
    EXPECT_EQ(p->dmax, 0); // no frequency, no range
    uint32_t freqs[2] = {}, room = 1;
    EXPECT_EQ(cam.ops()->calib_freq_get(cam.drv(), freqs, &room), 2);
    EXPECT_EQ(room, 1u);
    EXPECT_EQ(freqs[0], 24000000u);
    EXPECT_EQ(freqs[1], 0u);
}

TEST(EpcEvents, OpenDecidesTheFrequency)
{
    const struct {
        uint32_t file_mhz; // 0: no file
        bool readable;     // the device's frequency
        uint32_t device_mhz;
        uint8_t device_ts; // of the device's own calibration; 0: it has none
        uint32_t mhz;
        bool mounted;
        const char *sent; // of parameter 1
        const char *line;
    } cases[] = {
        {12, true, 12, 0, 12, true, "", "No valid calib data on dev, use local cache!"},
        {12, true, 24, 0, 12, true, "1=001bb700 ", "set device freq to calibrated freq: [12000000, 0]"},
        {24, false, 0, 0, 24, true, "1=00366e01 ", " get mod freq failed"},
        {0, true, 20, 0, 20, false, "", "calib not valid: set freq to 20000000"},
        {0, false, 0, 0, 12, false, "1=001bb700 ", "calib not valid: set freq to 12000000"},
        {12, true, 12, 2, 12, true, "", "local param (ts=1) is not up-to-date (dev ts=2)"},
        {12, true, 12, 1, 12, true, "", "[epc_calib_load] adapting to device MOD_FREQ : [12000000, 0] HZ"},
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
        if (!c.readable)
            cam.fail_get = {TQCAM_PARAM_MOD_FREQ};
        ASSERT_TRUE(cam.open());
        EXPECT_EQ(cam.epc()->mod_freq0, c.mhz * 1000000);
        EXPECT_EQ(cam.epc()->calib_mounted, c.mounted);
        EXPECT_TRUE(log.has(c.line)) << log.text();
        // A file older than the device's calibration is as good as none.
        EXPECT_EQ(log.has("Load calibration data from device failed"), !c.file_mhz || c.device_ts == 2);
        const size_t at = cam.sent.find("1=");
        EXPECT_EQ(at == std::string::npos ? "" : cam.sent.substr(at), c.sent);
    }
}

TEST(EpcEvents, FormatAndIntegrationTime)
{
    TempDir dir;
    LogCapture log;
    EpcCamera cam;
    ASSERT_TRUE(cam.open());
    epc_priv_t *p = cam.epc();
    const struct {
        uint32_t fmt;
        int en, mode;
    } formats[] = {{4, 1, 1}, {1, 1, 0}, {2, 0, 0}, {4, 1, 1}, {10, 0, 0}};
    for (const auto &f : formats) {
        cam.ops()->on_update_fmt(cam.drv(), f.fmt);
        EXPECT_EQ(p->sport_en, f.en) << f.fmt;
        EXPECT_EQ(p->sport_mode, f.mode);
    }
    cam.ops()->on_update_intg_time(cam.drv(), 700, 0);
    cam.ops()->on_update_intg_time(cam.drv(), 65535, 0); // the device's own control
    EXPECT_EQ(p->intg_us, 700u);
    cam.ops()->on_update_intg_time(cam.drv(), 90, 1);
    EXPECT_TRUE(log.has("[epc_on_update_intg_time]intg1: 90, hdr_en=1"));
    EXPECT_EQ(p->intg_us, 700u);
    cam.ops()->on_update_intg_time(cam.drv(), 0, 1);
    EXPECT_FALSE(p->hdr_en);
    cam.ops()->on_update_gray_div(cam.drv(), 0);
    EXPECT_EQ(p->gray_div, 1);
    cam.ops()->on_update_fps(cam.drv(), 25);
    EXPECT_EQ(p->rate.fps_set, 25);
    EXPECT_TRUE(p->rate.fps_restart);
}

TEST(EpcEvents, RegionGivesImageSize)
{
    const struct {
        const char *chip;
        uint16_t srow, erow, scol, ecol;
        uint8_t binning;
        uint32_t w, h;
        const char *line;
    } steps[] = {
        {"E1", 0, 239, 0, 319, 0, 320, 240, "[epc_on_update_roi] roi updated: 320x240 @ (0, 0), binning=0\n"},
        {"E1", 0, 239, 0, 319, 1, 160, 120, "roi updated: 160x120 @ (0, 0), binning=1, len=[80.0"},
        {"E1", 0, 239, 0, 319, 2, 80, 60, "roi updated: 80x60"},
        {"E1", 0, 239, 0, 319, 3, 40, 30, "roi updated: 40x30"},
        {"E1", 0, 239, 0, 319, 4, 160, 60, "roi updated: 160x60"},
        {"E1", 60, 179, 80, 239, 0, 160, 120, "roi updated: 160x120 @ (80, 60), binning=0, len=["},
        {"E1", 60, 179, 80, 239, 1, 80, 60, "roi updated: 80x60 @ (80, 60), binning=1, len=["},
        {"E1", 0, 239, 0, 319, 5, 80, 60, "[epc_on_update_roi] roi wrong mode: 5"},
        {"E1", 9, 3, 0, 319, 0, 80, 60, "roi wrong bounds: rows 9 to 3, columns 0 to 319"},
        {"E1", 0, 65535, 0, 65535, 0, 80, 60, "roi wrong bounds"},
        {"E1", 0, 239, 0, 319, 0, 320, 240,
         "roi updated: 320x240 @ (0, 0), binning=0, len=[160"},                          // back again
        {"E5", 0, 239, 0, 319, 1, 160, 60, "roi updated: 160x60 @ (0, 0), binning=1\n"}, // has one size
    };
    TempDir dir;
    LogCapture log;
    EpcCamera e1("E1"), e5("E5");
    ASSERT_TRUE(e1.open() && e5.open());
    for (const auto &s : steps) {
        EpcCamera &cam = s.chip[1] == '1' ? e1 : e5;
        log.clear();
        cam.ops()->on_update_roi(cam.drv(), roi_value(s.srow, s.erow, s.scol, s.ecol, s.binning).data());
        EXPECT_EQ(cam.epc()->img_w, s.w) << s.line;
        EXPECT_EQ(cam.epc()->img_h, s.h) << s.line;
        EXPECT_EQ(cam.epc()->bpf.bpf.w, s.w) << s.line; // the filter follows
        EXPECT_TRUE(log.has(s.line)) << s.line << "\n" << log.text();
    }
    EXPECT_EQ(e1.epc()->chip_variant, 2u);
    EXPECT_EQ(e5.epc()->chip_variant, 4u);
}
