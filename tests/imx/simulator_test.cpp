// Frames of the simulator, with the truth beside them, through the driver.
#include <gtest/gtest.h>

#include "calib_render.h"
#include "imx_camera.h"
#include "support/sim_shot.h"
#include "support/temp_dir.h"

namespace {
constexpr uint32_t F120 = 120000000, F40 = 40000000, F20 = 20000000;

// Of the first frame, in millimetres, where there is light. wrap: the truth is taken within that range.
std::vector<double> errors(ImxCamera &cam, const sim_config_t &cfg, double wrap)
{
    const sim_shot_t shot(cfg);
    tq_frame_hdr_t hdr = {};
    hdr.frame_len = static_cast<uint32_t>(shot.raw.size());
    hdr.frame_fmt = static_cast<uint16_t>(shot.frame.format);
    hdr.temp_cb = shot.frame.temp_cb;
    hdr.temp_ib = shot.frame.temp_ib;
    hdr.aux = shot.frame.meta_size;
    tqcam_frame_info_t info;
    EXPECT_TRUE(cam.ops()->frame_get_info(cam.drv(), &info, &hdr, shot.raw.data(), hdr.frame_len));
    EXPECT_EQ(info.meta_intg_us, cfg.intg_us);
    const std::vector<uint16_t> image = cam.decode(DRV_KIND_DIST, shot.raw, info);
    const uint32_t *amp = cam.priv()->amp_buf.as<uint32_t>();
    std::vector<double> error;
    for (size_t i = 0; i < image.size(); i++) {
        if (amp[i] <= 100 || shot.truth_mm[i] == 0)
            continue;
        const double e = std::fabs(image[i] - std::fmod(shot.truth_mm[i], wrap));
        error.push_back(std::min(e, wrap - e));
    }
    return error;
}
} // namespace

TEST(ImxSimulator, WallsComeOutTrue)
{
    const struct {
        const char *camera;
        uint32_t format, f1;
        double far; // twice, and no more, the fine range is added; behind it the coarse one stands
        double mm[4];
    } cases[] = {{"S2", 16, 0, 1249, {300, 700, 1400, 2600}},
                 {"S2", 2, 0, 1249, {300, 700, 1100, 2600}},
                 {"S1", 17, F40, 3747, {300, 1300, 2100, 2700}},
                 {"S1", 0x91, F40, 3747, {310, 1240, 1900, 2500}},
                 {"S1", 17, F20, 7494, {400, 1250, 2000, 5000}}};
    TempDir dir;
    for (const auto &c : cases) {
        ImxCamera cam(std::string("XX-") + c.camera + "-YY", c.format & 0x7F, F120, c.f1);
        ASSERT_TRUE(cam.open());
        for (const double mm : c.mm) {
            auto cfg = sim_ideal(c.camera, SIM_SCENE_WALL, mm, c.format, F120, c.f1);
            const std::vector<double> ideal = errors(cam, cfg, c.far);
            EXPECT_LT(share_of(ideal, 0.5), mm < 3000 ? 2 : 4) << c.format << " " << mm;
            EXPECT_LT(share_of(ideal, 0.999), 1249 / 2) << c.format << " " << mm; // in the right turn
            if (c.f1 == 0)
                continue;
            cfg.defects = sim_defects_noise(cfg.camera);
            cfg.intg_us = mm < 1000 ? 20 : mm < 3000 ? 100 : 500; // near walls saturate
            const std::vector<double> noisy = errors(cam, cfg, c.far);
            const auto wrong =
                std::count_if(noisy.begin(), noisy.end(), [](double e) { return e > 1249 / 2; });
            const double share = static_cast<double>(wrong) / static_cast<double>(noisy.size());
            std::printf("120/%u MHz, %4.0f mm, with noise: median error %.1f mm, %.4f %% in a wrong period\n",
                        c.f1 / 1000000, mm, share_of(noisy, 0.5), 100 * share);
            EXPECT_LT(share, 0.05);
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
        double range;
        int16_t cb, ib;
        double median;                                                                      // left over, mm
    } cases[] = {{"S570C4", SIM_CALIB_READY, SIM_CALIB_TEMP_COEFS, F40, 3747, 120, 150, 2}, // cold: in pieces
                 {"S3", SIM_CALIB_READY, SIM_CALIB_TEMP_COEFS, F20, 7494, 520, 610, 2},
                 {"S1", SIM_CALIB_IMAGES, SIM_CALIB_TEMP_SAMPLES, 0, 1249, 450, 480, 3}};
    for (const auto &c : cases) {
        TempDir dir;
        sim_config_t cfg = sim_ideal(c.camera, SIM_SCENE_WALL, c.f1 ? 1900 : 800, c.f1 ? 17 : 16, F120, c.f1);
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
        cam.ops()->on_update_fps(cam.drv(), cfg.fps);
        cam.ops()->on_update_intg_time(cam.drv(), cfg.intg_us, 0);
        EXPECT_LT(share_of(errors(cam, cfg, c.range), 0.5), c.median) << c.camera << " " << c.cb;
        remove(ImxCamera::CALIB_FILE);
        ImxCamera plain(std::string("XX-") + c.camera + "-YY", cfg.format, F120, c.f1);
        ASSERT_TRUE(plain.open());
        EXPECT_GT(share_of(errors(plain, cfg, c.range), 0.5), 5);
    }
}
