// Frames of the simulator, with the truth beside them, through the driver.
#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

#include "calib_render.h"
#include "frame_source.h"
#include "imx_camera.h"
#include "support/temp_dir.h"

namespace {
constexpr uint32_t F120 = 120000000, F40 = 40000000, F20 = 20000000;

struct Outcome {
    double median;      // of the absolute error, mm
    double wrong_share; // pixels half a fine range and more beside the truth, of those with light
};

// Decodes the first frame. wrap: the truth is taken within that range.
Outcome outcome(ImxCamera &cam, const sim_config_t &cfg, double wrap)
{
    const sim_source_ptr_t source = sim_source_live(cfg);
    sim_frame_t frame;
    source->next(source->self, &frame);
    tq_frame_hdr_t hdr = {};
    hdr.frame_len = static_cast<uint32_t>(frame.data.size());
    hdr.frame_fmt = static_cast<uint16_t>(frame.format);
    hdr.temp_cb = frame.temp_cb;
    hdr.temp_ib = frame.temp_ib;
    hdr.aux = frame.meta_size;
    tqcam_frame_info_t info;
    EXPECT_TRUE(cam.ops()->frame_get_info(cam.drv(), &info, &hdr, frame.data.data(), hdr.frame_len));
    EXPECT_EQ(info.meta_intg_us, cfg.intg_us);
    const std::vector<uint8_t> raw(frame.data.begin(), frame.data.end());
    const std::vector<uint16_t> image = cam.decode(DRV_KIND_DIST, raw, info);
    std::vector<double> error;
    const uint32_t *amp = cam.priv()->amp_buf.as<uint32_t>();
    size_t wrong = 0;
    for (size_t i = 0; i < image.size(); i++) {
        if (amp[i] <= 100 || frame.truth_mm[i] == 0)
            continue;
        double e = std::fabs(image[i] - std::fmod(frame.truth_mm[i], wrap));
        e = std::min(e, wrap - e);
        error.push_back(e);
        wrong += e > 1249 / 2.0;
    }
    if (error.empty())
        return {1e9, 1};
    std::nth_element(error.begin(), error.begin() + static_cast<std::ptrdiff_t>(error.size() / 2),
                     error.end());
    return {error[error.size() / 2], static_cast<double>(wrong) / static_cast<double>(error.size())};
}

sim_config_t config(const char *camera, uint32_t format, uint32_t f1, double wall_mm)
{
    sim_config_t cfg = sim_config_default(sim_camera_find(camera));
    cfg.scene = sim_scene_make(SIM_SCENE_WALL);
    cfg.scene.distance_mm = wall_mm;
    cfg.defects = sim_defects_none();
    cfg.format = format;
    cfg.freq0 = F120;
    cfg.freq1 = f1;
    return cfg;
}
} // namespace

TEST(ImxSimulator, WallsWithOneFrequency)
{
    TempDir dir;
    for (const uint32_t format : {16u, 2u}) {
        ImxCamera cam("XX-S2-YY", format, F120);
        ASSERT_TRUE(cam.open());
        for (const double mm : {300.0, 700.0, 1100.0, 1400.0, 2600.0}) {
            const Outcome o = outcome(cam, config("S2", format, 0, mm), 1249);
            EXPECT_LT(o.median, 2) << format << " " << mm;
        }
    }
}

TEST(ImxSimulator, WallsWithTwoFrequencies)
{
    TempDir dir;
    const struct {
        uint32_t format, f1;
        double far; // twice, and no more, the fine range is added; behind it the coarse one stands
        double mm[4];
    } cases[] = {{17, F40, 3747, {300, 1300, 2100, 2700}},
                 {0x91, F40, 3747, {310, 1240, 1900, 2500}},
                 {17, F20, 7494, {400, 1250, 2000, 5000}}};
    for (const auto &c : cases) {
        ImxCamera cam("XX-S1-YY", c.format & 0x7F, F120, c.f1);
        ASSERT_TRUE(cam.open());
        for (const double mm : c.mm) {
            sim_config_t cfg = config("S1", c.format, c.f1, mm);
            const Outcome ideal = outcome(cam, cfg, c.far);
            EXPECT_LT(ideal.median, mm < 3000 ? 2 : 4) << c.format << " " << mm;
            EXPECT_LE(ideal.wrong_share, 0.001) << c.format << " " << mm;
            cfg.defects = sim_defects_noise(cfg.camera);
            cfg.intg_us = mm < 1000 ? 20 : mm < 3000 ? 100 : 500; // near walls saturate
            const Outcome noisy = outcome(cam, cfg, c.far);
            printf("120/%u MHz, %4.0f mm, with noise: median error %.1f mm, %.4f %% in a wrong period\n",
                   c.f1 / 1000000, mm, noisy.median, 100 * noisy.wrong_share);
            EXPECT_LT(noisy.wrong_share, 0.05);
        }
    }
}

// What the simulator's own calibration takes away of the camera's errors.
TEST(ImxSimulator, CalibrationOfTwoFrequencies)
{
    const struct {
        const char *camera;
        sim_calib_kind_t kind;
        sim_calib_temp_t temp;
        uint32_t f1;
        int16_t cb, ib;
        double median; // left over, mm
    } cases[] = {{"S570C4", SIM_CALIB_READY, SIM_CALIB_TEMP_COEFS, F40, SIM_REF_TEMP_CB, SIM_REF_TEMP_IB, 2},
                 {"S570C4", SIM_CALIB_READY, SIM_CALIB_TEMP_COEFS, F40, 120, 150, 2}, // cold: in pieces
                 {"S3", SIM_CALIB_READY, SIM_CALIB_TEMP_COEFS, F20, 520, 610, 2},
                 {"S1", SIM_CALIB_IMAGES, SIM_CALIB_TEMP_SAMPLES, 0, 450, 480, 3}};
    for (const auto &c : cases) {
        TempDir dir;
        sim_config_t cfg = config(c.camera, c.f1 ? 17 : 16, c.f1, c.f1 ? 1900 : 800);
        cfg.defects = sim_defects_all(cfg.camera);
        cfg.defects.shot = cfg.defects.read = cfg.defects.dead_share = cfg.defects.flying = 0;
        cfg.temp_cb = c.cb;
        cfg.temp_ib = c.ib;
        cfg.seed = 5;
        sim_camera_t camera;
        sim_camera_init(&camera, cfg.camera, cfg.defects, cfg.seed);
        sim_calib_plan_t plan = sim_calib_plan(F120, c.f1);
        plan.kind = c.kind;
        plan.temp = c.temp;
        plan.images = 8;
        plan.flat_walls = true;
        ASSERT_TRUE(
            sim_calib_save(ImxCamera::CALIB_FILE, sim_calib_file_bytes(sim_calib_render(camera, plan))));
        ImxCamera cam(std::string("XX-") + c.camera + "-YY", cfg.format, F120, c.f1);
        ASSERT_TRUE(cam.open());
        imx_priv_t *p = cam.priv();
        ASSERT_TRUE(p->f_en_pix_calib);
        cam.ops()->on_update_fps(cam.drv(), cfg.fps);
        cam.ops()->on_update_intg_time(cam.drv(), cfg.intg_us, 0);
        const double range = c.f1 ? (c.f1 == F40 ? 3747 : 7494) : 1249;
        const double calibrated = outcome(cam, cfg, range).median;
        p->f_en_temp_corr = 0;
        const double warm = outcome(cam, cfg, range).median;
        cam.ops()->on_update_mod_freq(cam.drv(), 99000000, 0, 0); // not calibrated
        p->mod_freq0 = F120;
        p->mod_freq1 = c.f1;
        p->dmax = p->dmax0 = 1249;
        p->dmax1 = static_cast<int32_t>(range);
        const double plain = outcome(cam, cfg, range).median;
        printf("%s: %.2f mm, without temperatures %.2f mm, without calibration %.2f mm\n", c.camera,
               calibrated, warm, plain);
        EXPECT_LT(calibrated, c.median) << c.camera << " " << c.cb;
        EXPECT_GT(plain, 5);
    }
}
