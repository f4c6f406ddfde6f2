// Frames of the SONY family: kernels by the pixel, and whole decodes.
#include "bench_support.h"

#include "../tests/imx/imx_camera.h"
#include "camera_model.h"
#include "frame_source.h"
#include "tq_cmap.h"
#include "tq_filter.h"
#include "tq_lens.h"
#include "tq_log.h"
#include "tq_pcl.h"

namespace {
constexpr size_t N = 640 * 480;

// A frame of the default scene, the camera that decodes it, and its image.
struct scene_t {
    ImxCamera cam;
    tqcam_frame_info_t info = {};
    std::vector<uint8_t> raw, random; // the latter has any I and Q, so that no branch is foreseen
    std::vector<uint16_t> image = std::vector<uint16_t>(N);

    // Each of a chip of its own: devices of the same chip would share the driver's row.
    scene_t(const std::string &chip, bool dual)
        : cam("XX-" + chip + "-YY", dual ? 17 : 16, 120000000, dual ? 40000000 : 0)
    {
        cam.open();
        sim_config_t cfg = sim_config_default(sim_camera_find("S1"));
        cfg.format = dual ? 17 : 16;
        cfg.freq1 = dual ? 40000000 : 0;
        const sim_source_ptr_t source = sim_source_live(cfg);
        sim_frame_t frame;
        source->next(source->self, &frame);
        raw.assign(frame.data.begin(), frame.data.end());
        random = raw;
        std::mt19937 rng(1);
        std::generate(random.begin(), random.end(), [&] { return (uint8_t)rng(); });
        info.frame_format = static_cast<uint16_t>(frame.format);
        info.frame_size = static_cast<uint32_t>(raw.size());
        info.width = frame.width;
        info.height = frame.height;
        info.meta_size = frame.meta_size;
    }
    void decode(int kind) { decode(kind, image); }
    void decode(int kind, std::vector<uint16_t> &out)
    {
        cam.ops()->frame_decode(cam.drv(), out.data(), 2 * N, kind, raw.data(),
                                static_cast<uint32_t>(raw.size()), &info);
    }
    void decode_random()
    {
        cam.ops()->frame_decode(cam.drv(), image.data(), 2 * N, DRV_KIND_RAW, random.data(),
                                static_cast<uint32_t>(random.size()), &info);
    }
    void decode_denoised()
    {
        imx_priv_t *p = cam.priv();
        p->f_en_median = p->f_en_bpf2d_iir = p->f_en_fill_hole = p->f_en_flyfilter = 1;
        decode(DRV_KIND_DIST);
        p->f_en_median = p->f_en_bpf2d_iir = p->f_en_fill_hole = p->f_en_flyfilter = 0;
    }
    // Neutral planes, as after a mount.
    void calibrate()
    {
        imx_priv_t *p = cam.priv();
        for (imx_row_t &row : p->rows) {
            row.calib.blk.freq = &row == p->rows ? p->mod_freq0 : p->mod_freq1;
            row.calib.blk.img_w = 640;
            row.calib.blk.img_h = 480;
            row.calib.planes = static_cast<float *>(malloc(2 * N * sizeof(float)));
            for (size_t i = 0; i < 2 * N; i++)
                row.calib.planes[i] = i < N ? 1.0f : 0.5f;
        }
        p->rows[0].calib.amp = p->rows[1].calib.amp = 1.25f;
        p->rows[0].calib.omega = p->rows[1].calib.omega = 0.02f;
        p->f_en_pix_calib = 1;
    }
};

scene_t &scene(bool dual)
{
    static scene_t one("S1", false), two("S2", true);
    return dual ? two : one;
}
scene_t &calibrated(bool dual)
{
    static scene_t *one = [] {
        auto *s = new scene_t("S3", false);
        s->calibrate();
        return s;
    }();
    static scene_t *two = [] {
        auto *s = new scene_t("S570C4", true);
        s->calibrate();
        return s;
    }();
    return dual ? *two : *one;
}

// What an application may ask for of one frame.
void everything()
{
    static tq_calib_len_map_t lens = {};
    static tq_cmap_t colours = {};
    static std::vector<uint16_t> gray(N), straight(N);
    static std::vector<float> metres(N), points(3 * N);
    static std::vector<uint8_t> rgb(3 * N);
    static const float camera[4] = {314, 250, 448, 448};
    if (!lens.map) {
        tqcam_lens_param_t param = {};
        param.cx = camera[0];
        param.cy = camera[1];
        param.fx = param.fy = camera[2];
        param.img_w = 640;
        param.img_h = 480;
        param.n_dcoef = 2;
        param.dcoef[0] = -0.31;
        param.dcoef[1] = 0.12;
        tq_calib_len_init_map(&lens, &param);
        tq_cmap_init(&colours, 30000);
    }
    scene_t &s = scene(true);
    s.decode_denoised();
    s.decode(DRV_KIND_GRAY, gray);
    tq_calib_len_undistort_u16(&lens, straight.data(), N, s.image.data(), 640, 480, 0);
    tq_conv_u16_f32(metres.data(), straight.data(), N, 0.001f);
    tq_pcl_get_xyzd_f32(points.data(), metres.data(), nullptr, 640, 480, camera, nullptr, 0, 0);
    tq_cmap_u16_to_rgb(&colours, straight.data(), N, &rgb[0], &rgb[1], &rgb[2], 3, 0, 4000, false);
}

const int registered = [] {
    tq_log_cfg(nullptr, TQ_LOG_CONSOLE, TQ_LOG_SILENT, 0);
    bench_forms("imx/unpack", N, [] {
        static std::vector<int16_t> out(N);
        imx_unpack(out.data(), scene(false).raw.data(), N);
    });
    bench_forms("imx/unwrap", N, [] {
        static std::vector<uint16_t> d(N, 300), lo(N, 1500);
        static std::vector<uint32_t> a(N, 5000), a_lo(N, 5000);
        imx_unwrap(lo.data(), a_lo.data(), d.data(), a.data(), lo.data(), a.data(), N, 1249);
    });
    for (const bool dual : {false, true}) {
        const std::string kind = dual ? "dual" : "single";
        bench_forms("imx/raw_distance_" + kind, N, [dual] { scene(dual).decode(DRV_KIND_RAW); });
        bench_forms("imx/random_distance_" + kind, N, [dual] { scene(dual).decode_random(); });
        bench_forms("imx/calibrated_" + kind, N, [dual] { calibrated(dual).decode(DRV_KIND_DIST); });
        bench_forms("imx/gray_" + kind, N, [dual] {
            scene(dual).cam.priv()->info_hash = FRAME_HASH_NONE;
            scene(dual).decode(DRV_KIND_GRAY);
        });
        bench_forms("imx/decode_" + kind, N, [dual] { scene(dual).decode(DRV_KIND_DIST); });
        bench_forms("imx/decode_denoised_" + kind, N, [dual] { scene(dual).decode_denoised(); });
    }
    bench_forms("imx/decode_everything", N, everything);
    return 0;
}();
} // namespace
