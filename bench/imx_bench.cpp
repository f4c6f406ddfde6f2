// Frames of the SONY family: kernels by the pixel, and whole decodes.
#include "bench_support.h"

#include "../tests/imx/imx_camera.h"
#include "camera_model.h"
#include "frame_source.h"
#include "tq_log.h"

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
    void decode(int kind) { decode(kind, raw); }
    void decode(int kind, const std::vector<uint8_t> &frame)
    {
        cam.ops()->frame_decode(cam.drv(), image.data(), 2 * N, kind, frame.data(),
                                static_cast<uint32_t>(frame.size()), &info);
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
        bench_forms("imx/random_distance_" + kind, N,
                    [dual] { scene(dual).decode(DRV_KIND_RAW, scene(dual).random); });
        bench_forms("imx/calibrated_" + kind, N, [dual] { calibrated(dual).decode(DRV_KIND_DIST); });
        bench_forms("imx/gray_" + kind, N, [dual] {
            scene(dual).cam.priv()->info_hash = FRAME_HASH_NONE;
            scene(dual).decode(DRV_KIND_GRAY);
        });
        bench_forms("imx/decode_" + kind, N, [dual] { scene(dual).decode(DRV_KIND_DIST); });
        bench_forms("imx/decode_denoised_" + kind, N, [dual] {
            imx_priv_t *p = scene(dual).cam.priv();
            p->f_en_median = p->f_en_bpf2d_iir = p->f_en_fill_hole = p->f_en_flyfilter = 1;
            scene(dual).decode(DRV_KIND_DIST);
            p->f_en_median = p->f_en_bpf2d_iir = p->f_en_fill_hole = p->f_en_flyfilter = 0;
        });
    }
    return 0;
}();
} // namespace
