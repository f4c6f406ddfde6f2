// The EPC family: its kernels on a simulated frame, and whole decodes through the API on a recording of it.
#include "bench_support.h"

#include <filesystem>
#include <memory>

#ifdef TQCAM_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

#include "calib_file_writer.h"
#include "drivers/common/amp_kernels.h"
#include "drivers/common/phase.h"
#include "drivers/epc/epc_kernels.h"
#include "frame_source.h"
#include "replay_recorder.h"
#include "tqcam.h"

namespace {
constexpr int W = 320, H = 240, N = W * H;
constexpr uint32_t FREQ = 12000000;

// A frame of a room with noise, and a camera opened on its recording, made at first use. The small one, of
// 160 x 60, has no calibration.
struct camera_t {
    std::vector<uint16_t> raw;
    tqcam_frame_info_t info;
    tqcam_dev_t *dev = nullptr;

    static camera_t &get()
    {
        static camera_t camera("E1");
        return camera;
    }
    static camera_t &small()
    {
        get(); // first, for it starts and ends the library
        static camera_t camera("E5");
        return camera;
    }
    ~camera_t()
    {
        tqcam_dev_close(dev);
        std::filesystem::remove_all(dir);
        if (this == &get())
            tqcam_uninit();
    }
    void decode(std::vector<uint16_t> &image)
    {
        if (tqcam_frame_get_dist_u16(dev, image.data(), (uint32_t)image.size(), raw.data(),
                                     (uint32_t)raw.size() * 2, &info) != (int)image.size())
            std::abort();
    }

  private:
    const std::filesystem::path dir;

    explicit camera_t(const std::string &name)
        : dir(std::filesystem::temp_directory_path() / ("tqcam_bench_" + name))
    {
        namespace fs = std::filesystem;
        const fs::path old = fs::current_path();
        fs::create_directories(dir);
        fs::current_path(dir); // the calibration that the recording carries is unpacked here
        sim_config_t cfg = sim_config_default(sim_camera_find(name.c_str()));
        sim_source_ptr_t source = sim_source_live(cfg);
        sim_recorder_t rec;
        std::string error;
        sim_frame_t frame;
        if (!sim_recorder_open(&rec, "room.oni", nullptr, cfg, "calib.bin",
                               name == "E1" ? calibration() : std::vector<uint8_t>(), &error) ||
            !source->next(source->self, &frame) || !sim_recorder_add(&rec, frame) ||
            !sim_recorder_close(&rec))
            std::abort();
        raw.resize(frame.data.size() / 2);
        memcpy(raw.data(), frame.data.data(), frame.data.size());
        info = sim_frame_info(frame);
        tqcam_init("");
        tqcam_log_cfg(7, 7, 7);
        tqcam_path_set((dir / "").c_str());
        dev = tqcam_dev_open_by_uri("room.oni");
        if (!dev)
            std::abort();
        fs::current_path(old);
    }

    static std::vector<uint8_t> calibration()
    {
        std::mt19937 rng(1);
        std::vector<float> planes(2 * N);
        for (int i = 0; i < N; i++) {
            planes[(size_t)i] = 0.99f + (float)(rng() % 200) * 1e-4f;
            planes[(size_t)(N + i)] = (float)(rng() % 60) - 150;
        }
        calib_blk_info_t blk = {};
        blk.freq = FREQ;
        blk.img_w = W;
        blk.img_h = H;
        blk.scale = 32768;
        sim_calib_file_t file = sim_calib_file(150, 142);
        sim_calib_add_result(file, blk, {1000, -120, 12, 0.002f, 0.5f, 1, {}}, planes);
        return sim_calib_file_bytes(file);
    }
};

// Runs a row kernel over the frame, or over one of random samples, in which no branch is foreseen; each row
// to its place.
struct frame_rows_t {
    std::vector<uint16_t> random;
    std::vector<uint16_t> dist = std::vector<uint16_t>(N), table = std::vector<uint16_t>(3 * 12491 + 1),
                          phases = std::vector<uint16_t>(PHASE_TURN + 1);
    std::vector<uint32_t> amp = std::vector<uint32_t>(N);
    std::vector<float> planes = std::vector<float>(2 * N, 1);
    epc_dist_t d = {};

    explicit frame_rows_t(bool any)
    {
        std::mt19937 rng(1);
        random.resize(any ? 4 * N : 0);
        for (uint16_t &sample : random)
            sample = (uint16_t)(2 + rng() % 4092);
        d.base = PHASE_HALF;
        d.dmax = range_of(FREQ);
        d.after = {{12, 0.002f, 0.5f, 1}, 32768, 0, d.dmax};
        d.global_k = (float)(d.dmax / 32768.0);
        d.slope_k = 1000;
        for (int i = 0; i < 3 * d.dmax; i++)
            table[(size_t)i + 1] = epc_after(i - d.dmax, d.after);
        d.after_table = {table.data() + 1, -d.dmax, 3 * (uint32_t)d.dmax};
        for (int i = 0; i < PHASE_TURN; i++)
            phases[(size_t)i] = epc_global_mm(i, d);
        d.phase_table = phases.data();
    }
    void run(void (*kernel)(const epc_row_t &, const epc_dist_t &))
    {
        const uint16_t *raw = random.empty() ? camera_t::get().raw.data() : random.data();
        for (uint32_t y = 0; y < H; y++) {
            const uint32_t at = y * W, out = epc_image_row(y, H) * W;
            kernel({{raw + at, raw + N + at, raw + 2 * N + at, raw + 3 * N + at},
                    nullptr,
                    &dist[out],
                    &amp[out],
                    &planes[at],
                    &planes[N + at],
                    W},
                   d);
        }
    }
};

void add_kernels()
{
    const auto rows = std::make_shared<frame_rows_t>(false), any = std::make_shared<frame_rows_t>(true);
    bench_forms("epc/phase_4dcs", N, [rows] { rows->run(epc_dist_row); });
    bench_forms("epc/phase_4dcs_random", N, [any] { any->run(epc_dist_row); });
    bench_forms("epc/phase_4dcs_global", N, [rows] { rows->run(epc_global_row); });
    bench_forms("epc/phase_4dcs_drnu", N, [rows] { rows->run(epc_drnu_row); });
    const auto rule = std::make_shared<frame_rows_t>(false); // without tables
    rule->d.after_table = {};
    rule->d.phase_table = nullptr;
    bench_row("epc/phase_4dcs_global/rule", N, [rule] { rule->run(epc_global_row_plain); });
    bench_row("epc/phase_4dcs_drnu/rule", N, [rule] { rule->run(epc_drnu_row_plain); });
#ifdef TQCAM_HAVE_OPENCV
    // Distance and amplitude in f32, but for the row order, the exact phase and invalid pixels.
    bench_row("epc/phase_4dcs/cv subtract, cartToPolar, convertTo", N, [mm = cv::Mat()]() mutable {
        static cv::Mat i, q, amp, angle;
        const auto plane = [](int k) { return cv::Mat(H, W, CV_16U, camera_t::get().raw.data() + k * N); };
        cv::subtract(plane(0), plane(2), i, cv::noArray(), CV_32F);
        cv::subtract(plane(1), plane(3), q, cv::noArray(), CV_32F);
        cv::cartToPolar(i, q, amp, angle);
        angle.convertTo(mm, CV_16U, 12491 / (2 * CV_PI));
    });
#endif
    bench_copy("epc/phase_4dcs", N, (size_t)N * 14 / 2); // 8 bytes in, 6 out
    bench_row("epc/row_sort/plain", N, [rows, to = std::vector<uint16_t>(N)]() mutable {
        epc_row_sort_u16_plain(to.data(), rows->dist.data(), W, H);
    });
    bench_forms("epc/hdr_merge", N, [rows] { epc_hdr_merge(rows->dist.data(), rows->amp.data(), W, H); });
    bench_forms("epc/min_amp_hyst", N, [rows, state = std::vector<uint8_t>(N)]() mutable {
        min_amp_hyst(rows->dist.data(), state.data(), rows->amp.data(), N, {900, 4072324, 800, 4072424});
    });
    bench_forms("epc/zero_amp", N, [rows] { zero_amp(rows->dist.data(), rows->amp.data(), N); });
    bench_forms("epc/amp_to_gray", N, [rows, to = std::vector<uint16_t>(N)]() mutable {
        amp_to_gray(to.data(), rows->amp.data(), N);
    });
    bench_forms("epc/gray_4dcs", N, [to = std::vector<uint16_t>(N)]() mutable {
        const uint16_t *raw = camera_t::get().raw.data();
        for (int y = 0; y < H; y++) {
            const uint16_t *p[4] = {raw + y * W, raw + N + y * W, raw + 2 * N + y * W, raw + 3 * N + y * W};
            epc_gray_diff_row(&to[(size_t)(y * W)], p, W);
        }
    });
}

// What a decode runs with.
struct setup_t {
    const char *name;
    bool calibrated, each_pixel, all_filters;
};

void add_decodes()
{
    static const setup_t setups[] = {{"epc/decode_default", false, false, false},
                                     {"epc/decode_all_filters", false, false, true},
                                     {"epc/decode_global", true, false, false},
                                     {"epc/decode_drnu", true, true, false},
                                     {"epc/decode_drnu_all_filters", true, true, true}};
    for (const setup_t &s : setups)
        bench_forms(s.name, N, [&s, image = std::vector<uint16_t>(N)]() mutable {
            camera_t &cam = camera_t::get();
            static const setup_t *now;
            if (now != &s) {
                now = &s;
                tqcam_filter_arg_t denoise = {}, fly = {};
                denoise.denoise = {240, 20};
                fly.mode = 12;
                const auto set = [&](uint32_t id, bool on, const tqcam_filter_arg_t *arg) {
                    on ? tqcam_filter_enable(cam.dev, id, arg) : tqcam_filter_disable(cam.dev, id);
                };
                const uint32_t freq = s.calibrated ? FREQ : FREQ + 1; // one that isn't calibrated
                tqcam_param_item_t item = {};
                item.param_id = TQCAM_PARAM_MOD_FREQ;
                item.param_len = 4;
                memcpy(item.value, &freq, 4);
                tqcam_param_batch_set(cam.dev, &item, 1);
                set(TQCAM_FILTER_PIXEL_CALIB, s.each_pixel, nullptr);
                set(TQCAM_FILTER_DENOISE, s.all_filters, &denoise);
                set(TQCAM_FILTER_FLY_PIXEL, s.all_filters, &fly);
            }
            cam.decode(image);
        });
    bench_forms("epc/decode_default_160x60", 160 * 60,
                [image = std::vector<uint16_t>(160 * 60)]() mutable { camera_t::small().decode(image); });
}

const bool added = [] {
    add_kernels();
    add_decodes();
    return true;
}();
} // namespace
