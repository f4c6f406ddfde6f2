#include <fstream>
#include <gtest/gtest.h>

#include "epc_camera.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

TEST(DrvFind, ComparesTheChipWordWhole)
{
    const struct {
        const char *product;
        const char *desc; // nullptr: not found
    } cases[] = {
        {"TQ-E1-A", "EPC chip driver"},
        {"TQ-E5-A-more", "EPC chip driver"},
        {"TQ-T0-A", "TI OP8241 chip driver"},
        {"TQ-E3-", nullptr}, // two fields
        {"TQ-E-A", nullptr},
        {"TQ-E11-A", nullptr},
        {"TQ-e1-A", nullptr},
        {"-E1-A", nullptr},
        {"TQ-S5-A", nullptr},
        {"", nullptr},
    };
    LogCapture log;
    tqcam_dev_t dev = {};
    dev.version = {3, 1, 2, 0};
    tqcam_ll_dev_t ll = {};
    ll.dev = &dev;
    for (const auto &c : cases) {
        snprintf(dev.product, sizeof(dev.product), "%s", c.product);
        const tqcam_drv_t *drv = tqcam_drv_find(&ll);
        EXPECT_STREQ(drv ? drv->desc : nullptr, c.desc) << c.product;
    }
    EXPECT_TRUE(log.has("[tqcam_drv_find] find driver: EPC chip driver (device=TQ-E1-A [SW=1,BT=2,HW=3])"));
    memset(dev.product, 'E', sizeof(dev.product)); // no NUL, no dash
    EXPECT_EQ(tqcam_drv_find(&ll), nullptr);
    EXPECT_EQ(tqcam_drv_find(nullptr), nullptr);
}

TEST(Op8241, ShowsItsTwoWordsAndCountsPixels)
{
    const tqcam_drv_ops_t &ops = op8241_ops;
    tqcam_drv_t drv = {};
    tqcam_dev_t dev;
    EXPECT_TRUE(ops.init(&drv, &dev));
    EXPECT_EQ(drv.dev, &dev);
    const tq_frame_hdr_t hdr = {307200, 7, 2, 1, 1, 0, 0, 0, 0};
    tqcam_frame_info_t info;
    ASSERT_TRUE(ops.frame_get_info(&drv, &info, &hdr, nullptr, 0));
    EXPECT_EQ(info.frame_size, 307200u);
    EXPECT_EQ(info.frame_format, 2);
    EXPECT_EQ(info.frame_idx, 7);
    EXPECT_EQ(info.width * 1000 + info.height, 320240u);
    EXPECT_EQ(info.pixel_bytes, 4);

    const uint16_t raw[] = {0xF400, 0xF800, 100, 4095, 9, 9};
    float dst[3] = {-1, -1, -1};
    EXPECT_EQ(ops.frame_decode(&drv, dst, 8, DRV_KIND_DIST, raw, 12, &info), 320 * 240);
    EXPECT_EQ(dst[0], 0.5f * 3.122838020324707f);
    EXPECT_EQ(dst[1], static_cast<float>(4095 / 4096.0 * 3.122838020324707));
    EXPECT_EQ(dst[2], -1); // room for two
    EXPECT_EQ(ops.frame_decode(&drv, dst, 12, DRV_KIND_GRAY, raw, 7, &info), 320 * 240);
    EXPECT_EQ(dst[0], 0.25f);
    EXPECT_EQ(dst[2], -1); // one whole pixel
    EXPECT_EQ(ops.frame_decode(&drv, dst, 12, 7, raw, 12, &info), 320 * 240);
    EXPECT_EQ(dst[0], 0.25f);
    info.width = info.height = 65536;
    EXPECT_EQ(ops.frame_decode(&drv, dst, 12, DRV_KIND_DIST, raw, 12, &info), -1);
    EXPECT_EQ(ops.use_case_list(&drv, nullptr, 0), 0);
    EXPECT_EQ(ops.drv_calib_load(&drv, 0, 0, 2), 0);
    EXPECT_EQ(ops.reserved_b(&drv, 0, 0), 1);
}

TEST(EpcInit, RegistersModelAndSizes)
{
    const struct {
        const char *chip;
        uint32_t variant_reg;
        uint32_t variant, w, h;
        size_t gray_bytes;
        bool booster;
    } cases[] = {
        {"E1", 0, 0, 320, 240, 153600, false},
        {"E2", 4, 4, 160, 60, 19200, false},
        {"E3", 2, 2, 320, 240, 153600, true},
        {"E5", 1, 4, 160, 60, 19200, false},
    };
    TempDir dir;
    LogCapture log;
    for (const auto &c : cases) {
        EpcCamera cam(c.chip);
        cam.regs = {{18, c.variant_reg}, {34, 1}, {37, 32}, {40, 0xFF00}, {43, 0}};
        ASSERT_TRUE(cam.open());
        EXPECT_EQ(cam.reg_writes, "139=2 113=0 114=0 115=0 174=4 34=49 37=48 40=65328 43=48 17=250 ");
        epc_priv_t *p = cam.epc();
        EXPECT_EQ(p->chip_variant, c.variant) << c.chip;
        EXPECT_EQ(p->img_w * 1000 + p->img_h, c.w * 1000 + c.h);
        EXPECT_EQ(p->gray_buf.size, c.gray_bytes);
        EXPECT_EQ(p->bfps.bfps_en, c.booster);
        EXPECT_EQ(p->bpf.bpf.w, c.w);
        EXPECT_EQ(cam.params[19].size(), 8u); // the time
        EXPECT_TRUE(p->f_en_minamp && p->f_en_offset && p->f_en_sys_calib && p->f_en_gray &&
                    p->f_en_temp_corr);
        EXPECT_EQ(p->min_amp, 30);
        EXPECT_EQ(p->roi.erow, 0);
        EXPECT_EQ(cam.dev.priv->lens_map.w, static_cast<int>(c.w)); // the driver's own lens
    }
    EXPECT_TRUE(log.has("bfps enabled for model: XX-E3"));
    for (const uint32_t addr : {139u, 113u, 174u, 34u, 43u}) { // the preamble must succeed
        EpcCamera cam;
        cam.fail_reg = {addr};
        EXPECT_FALSE(cam.open()) << addr;
    }
    EXPECT_TRUE(log.has("[_epc_reg_rw]reg write fail!"));
    EpcCamera cam; // the variant may stay unknown
    cam.regs[18] = 4;
    cam.fail_reg = {17};
    ASSERT_TRUE(cam.open());
    EXPECT_EQ(cam.epc()->chip_variant, 0u);
}

// The row binds one device, the one that was opened last. Closing both in any order is safe.
TEST(EpcInit, TwoDevicesOfOneChip)
{
    TempDir dir;
    for (const bool last_closes_first : {true, false}) {
        EpcCamera a("E2"), b("E2");
        ASSERT_TRUE(a.open());
        const tqcam_drv_t *row = a.drv();
        ASSERT_TRUE(b.open());
        EXPECT_EQ(b.drv(), row);
        EXPECT_EQ(row->dev, &b.dev);
        EXPECT_EQ(b.epc()->dev, &b.dev);
        if (last_closes_first) {
            b.close();
            EXPECT_EQ(row->priv, nullptr);
            EXPECT_EQ(tqcam_filter_enable(&a.dev, TQCAM_FILTER_TEMP_CORR, nullptr), -1);
            EXPECT_FALSE(epc_ops.filter_disable(a.drv(), TQCAM_FILTER_TEMP_CORR));
            a.close();
        } else {
            a.close();
            EXPECT_EQ(tqcam_filter_enable(&b.dev, TQCAM_FILTER_TEMP_CORR, nullptr), 0);
        }
    }
}

TEST(EpcLens, FilesThenCalibrationAndWholeRatios)
{
    TempDir dir;
    LogCapture log;
    const tqcam_lens_param_t own = lens_default_get(&epc_lens_default);
    std::ofstream("lens_param.txt") << "150 110 200 210 0.1 0.2 320 240";
    EpcCamera cam;
    ASSERT_TRUE(cam.open());
    EXPECT_TRUE(cam.epc()->lens_from_file);
    const struct {
        int w, h;
        bool ok;
    } sizes[] = {{320, 240, true},  {160, 60, true}, {80, 240, true},   {640, 480, false},
                 {300, 240, false}, {0, 240, false}, {-320, 240, false}};
    for (const auto &s : sizes) {
        tqcam_lens_param_t p = {};
        EXPECT_EQ(cam.ops()->lens_param_get(cam.drv(), &p, s.w, s.h, 0), s.ok) << s.w;
        if (s.ok) {
            EXPECT_EQ(p.cx * (320 / s.w), 150);
            EXPECT_EQ(p.fy * (240 / s.h), 210);
            EXPECT_EQ(p.img_w, static_cast<uint32_t>(s.w));
            EXPECT_EQ(p.n_dcoef, 2);
        }
    }
    EXPECT_TRUE(
        log.has("[epc_lens_param_get]lens param not match the frame size: lens: 320x240, frame: 640x480"));
    EXPECT_EQ(cam.ops()->lens_rec_get(cam.drv()), nullptr);
    cam.close();
    std::ofstream("lens_param_458759.txt") << "151 110 200 210 160 120"; // with the number goes first
    ASSERT_TRUE(cam.open());
    EXPECT_EQ(lens_default_get(&epc_lens_default).cx, 151);
    EXPECT_EQ(cam.dev.priv->lens_map.w, 160);
    epc_lens_default.rec = own;
}
