#include <fstream>

#include "epc_camera.h"
#include "support/open_camera.h"

TEST(DrvFind, ComparesTheChipWordWhole)
{
    const struct {
        const char *product;
        const char *desc; // nullptr: not found
    } cases[] = {{"TQ-E1-A", "EPC chip driver"},
                 {"TQ-T0-A-more", "TI OP8241 chip driver"},
                 {"TQ-E3-", nullptr}, // two fields
                 {"TQ-E11-A", nullptr},
                 {"", nullptr}};
    tqcam_dev_t dev = {};
    tqcam_ll_dev_t ll = {};
    ll.dev = &dev;
    for (const auto &c : cases) {
        snprintf(dev.product, sizeof(dev.product), "%s", c.product);
        const tqcam_drv_t *drv = tqcam_drv_find(&ll);
        EXPECT_STREQ(drv ? drv->desc : nullptr, c.desc) << c.product;
    }
    memset(dev.product, 'E', sizeof(dev.product)); // no NUL, no dash
    EXPECT_EQ(tqcam_drv_find(&ll), nullptr);
}

TEST(Op8241, ShowsItsTwoWordsAndCountsPixels)
{
    const tqcam_drv_ops_t &ops = op8241_ops;
    tqcam_drv_t drv = {};
    tqcam_dev_t dev;
    EXPECT_TRUE(ops.init(&drv, &dev));
    const tq_frame_hdr_t hdr = {307200, 7, 2, 1, 1, 0, 0, 0, 0};
    tqcam_frame_info_t info;
    ASSERT_TRUE(ops.frame_get_info(&drv, &info, &hdr, nullptr, 0));

    const uint16_t raw[] = {0xF400, 0xF800, 100, 4095, 9, 9};
    float dst[3] = {-1, -1, -1};
    EXPECT_EQ(ops.frame_decode(&drv, dst, 8, DRV_KIND_DIST, raw, 12, &info), 320 * 240);
    EXPECT_EQ(dst[0], 0.5f * 3.122838020324707f);
    EXPECT_EQ(dst[1], static_cast<float>(4095 / 4096.0 * 3.122838020324707));
    EXPECT_EQ(dst[2], -1); // room for two
    EXPECT_EQ(ops.frame_decode(&drv, dst, 12, DRV_KIND_GRAY, raw, 7, &info), 320 * 240);
    EXPECT_EQ(dst[0], 0.25f); // one whole pixel
    info.width = info.height = 65536;
    EXPECT_EQ(ops.frame_decode(&drv, dst, 12, DRV_KIND_DIST, raw, 12, &info), -1);
}

TEST(EpcInit, RegistersModelAndSizes)
{
    const struct {
        const char *chip;
        uint32_t variant_reg;
        uint32_t variant, w, h;
        size_t gray_bytes;
        bool booster;
    } cases[] = {{"E1", 0, 0, 320, 240, 153600, false},
                 {"E2", 4, 4, 160, 60, 19200, false},
                 {"E3", 2, 2, 320, 240, 153600, true},
                 {"E5", 1, 4, 160, 60, 19200, false}};
    TempDir dir;
    for (const auto &c : cases) {
        EpcCamera cam(c.chip);
        cam.regs = {{18, c.variant_reg}, {34, 1}, {37, 32}, {40, 0xFF00}, {43, 0}};
        ASSERT_TRUE(cam.open());
        EXPECT_EQ(cam.reg_writes, "139=2 113=0 114=0 115=0 174=4 34=49 37=48 40=65328 43=48 17=250 ");
        epc_priv_t *p = cam.priv();
        EXPECT_EQ(p->chip_variant, c.variant) << c.chip;
        EXPECT_EQ(p->img_w * 1000 + p->img_h, c.w * 1000 + c.h);
        EXPECT_EQ(p->gray_buf.size, c.gray_bytes);
        EXPECT_EQ(p->bfps.bfps_en, c.booster);
        EXPECT_EQ(p->bpf.bpf.w, c.w);
        EXPECT_EQ(cam.dev.priv->lens_map.w, static_cast<int>(c.w));
    }
    for (const uint32_t addr : {43u, 17u}) { // the preamble must succeed, the variant may stay unknown
        EpcCamera cam;
        cam.fail_reg = {addr};
        EXPECT_EQ(cam.open(), addr == 17);
    }
}

TEST(EpcLens, FilesFirstAndWholeRatios)
{
    TempDir dir;
    const tqcam_lens_param_t own = lens_default_get(&epc_lens_default);
    std::ofstream("lens_param.txt") << "150 110 200 210 0.1 0.2 320 240";
    EpcCamera cam;
    ASSERT_TRUE(cam.open());
    tqcam_lens_param_t p = {};
    for (const int w : {640, 300, 0, -320})
        EXPECT_FALSE(cam.ops()->lens_param_get(cam.drv(), &p, w, 240, 0)) << w;
    EXPECT_TRUE(cam.ops()->lens_param_get(cam.drv(), &p, 160, 60, 0));
    EXPECT_EQ(p.cx, 75);
    cam.close();
    std::ofstream("lens_param_458759.txt") << "151 110 200 210 160 120"; // with the number goes first
    ASSERT_TRUE(cam.open());
    EXPECT_EQ(lens_default_get(&epc_lens_default).cx, 151);
    EXPECT_EQ(cam.dev.priv->lens_map.w, 160);
    epc_lens_default.rec = own;
}
