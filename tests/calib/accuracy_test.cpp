// The whole way: simulated cameras with known defects record what they see together with their calibration,
// the recording is opened like a camera, and its distances are held against the truth.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <ostream>

#include "calib_render.h"
#include "replay/oni_writer.h"
#include "replay_recorder.h"
#include "support/temp_dir.h"
#include "tq_log.h"
#include "tqcam.h"

namespace {

// A cut of the raw rows and columns, and the bins that become a pixel. The sensor delivers rows from the
// middle, so that rows from 0 on are those around the image's middle.
struct cut_t {
    uint16_t rows, scol, cols;
    uint8_t binning, bin_cols, bin_rows;
};

struct shot_t {
    std::vector<uint16_t> raw; // planes
    std::vector<float> truth;  // by raw row
    uint32_t w, h;
};

// Cuts and averages images in raw order.
template <typename T> std::vector<T> reduce(const std::vector<T> &in, size_t w, size_t h, const cut_t &c)
{
    std::vector<T> out;
    for (size_t image = 0; image < in.size(); image += w * h)
        for (size_t r = 0; r < c.rows; r += c.bin_rows)
            for (size_t col = c.scol; col < size_t{c.scol} + c.cols; col += c.bin_cols) {
                double sum = 0;
                for (size_t i = 0; i < size_t{c.bin_rows} * c.bin_cols; i++)
                    sum += in[image + (r + i / c.bin_cols) * w + col + i % c.bin_cols];
                out.push_back(static_cast<T>(sum / (c.bin_rows * c.bin_cols)));
            }
    return out;
}

struct figures_t {
    double median, p95;
    size_t lost; // pixels without a distance
};

figures_t figures(const std::vector<uint16_t> &dist, const shot_t &shot, const sim_camera_row_t *row,
                  double range)
{
    std::vector<double> error;
    size_t lost = 0;
    for (uint32_t r = 0; r < shot.h; r++) {
        const uint32_t image_row = sim_raw_e_image_row(row, r, shot.h);
        for (uint32_t col = 0; col < shot.w; col++) {
            const double truth = shot.truth[r * shot.w + col];
            const uint16_t mm = dist[image_row * shot.w + col];
            if (truth < 300 || truth > 0.8 * range)
                continue;
            if (mm == 0 || mm == 65500)
                lost++;
            else
                error.push_back(std::fabs(mm - truth));
        }
    }
    std::sort(error.begin(), error.end());
    return {error[error.size() / 2], error[error.size() * 95 / 100], lost};
}

struct case_t {
    const char *camera;
    uint32_t freq;
    cut_t cut;
    uint64_t seed;

    friend void PrintTo(const case_t &c, std::ostream *os)
    {
        *os << c.camera << " at " << c.freq << " Hz, binning " << int{c.cut.binning} << ", seed " << c.seed;
    }
};

class Accuracy : public ::testing::TestWithParam<case_t> {};

// Records one frame with its calibration. Returns what is in it.
shot_t record(const case_t &c, const sim_camera_row_t *row)
{
    sim_config_t cfg = sim_config_default(row);
    const double range = sim_range_mm(c.freq);
    cfg.scene = sim_scene_make(SIM_SCENE_RAMP);
    cfg.scene.distance_mm = 0.8 * range;
    cfg.freq0 = c.freq;
    cfg.seed = c.seed;
    cfg.temp_cb = SIM_REF_TEMP_CB + 150; // 15 degrees
    cfg.temp_ib = SIM_REF_TEMP_IB + 150;
    cfg.defects = sim_defects_none();
    cfg.defects.fixed_amp = 1800;
    cfg.defects.offset_mm = row->offset_mm;
    cfg.defects.offset_spread_mm = 30;
    cfg.defects.slope_spread = 0.01;
    cfg.defects.periodic = 20 / range;
    cfg.defects.drift = 1;
    sim_camera_t cam;
    sim_camera_init(&cam, row, cfg.defects, cfg.seed);
    const std::vector<uint8_t> calib = sim_calib_file_bytes(sim_calib_render(cam, sim_calib_plan(c.freq, 0)));

    const sim_source_ptr_t source = sim_source_live(cfg);
    sim_frame_t frame;
    EXPECT_TRUE(source->next(source->self, &frame));
    shot_t shot{{}, std::vector<float>(frame.truth_mm.size()), row->width, row->height};
    shot.raw.resize(frame.data.size() / 2);
    std::memcpy(shot.raw.data(), frame.data.data(), frame.data.size());
    for (uint32_t r = 0; r < row->height; r++)
        std::copy_n(&frame.truth_mm[sim_raw_e_image_row(row, r, row->height) * row->width], row->width,
                    &shot.truth[r * row->width]);

    sim_recorder_t rec;
    std::string error;
    EXPECT_TRUE(sim_recorder_open(&rec, "scene.oni", nullptr, cfg, "calib.bin", calib, &error)) << error;
    if (c.cut.rows) {
        shot = {reduce(shot.raw, shot.w, shot.h, c.cut), reduce(shot.truth, shot.w, shot.h, c.cut),
                static_cast<uint32_t>(c.cut.cols / c.cut.bin_cols),
                static_cast<uint32_t>(c.cut.rows / c.cut.bin_rows)};
        const auto erow = static_cast<uint16_t>(c.cut.rows - 1);
        const auto ecol = static_cast<uint16_t>(c.cut.scol + c.cut.cols - 1);
        const calib_roi_t roi{0, erow, c.cut.scol, ecol, c.cut.binning, {}};
        oni_ostream_set_property(rec.raw, ONI_PROP_GENERAL, "TQ_FRAME_ROI_INFO", &roi, sizeof roi);
    }
    frame.width = shot.w;
    frame.height = shot.h;
    frame.data = {reinterpret_cast<const uint8_t *>(shot.raw.data()), 2 * shot.raw.size()};
    frame.truth_mm = {};
    for (int i = 0; i < 3; i++)
        EXPECT_TRUE(sim_recorder_add(&rec, frame));
    EXPECT_TRUE(sim_recorder_close(&rec));
    return shot;
}

} // namespace

TEST_P(Accuracy, CalibratedDistancesAreTrue)
{
    TempDir dir;
    tqcam_init(nullptr);
    tqcam_log_cfg(TQ_LOG_SILENT, TQ_LOG_SILENT, TQ_LOG_SILENT);
    tqcam_path_set("./");
    const case_t &c = GetParam();
    const sim_camera_row_t *row = sim_camera_find(c.camera);
    const double range = sim_range_mm(c.freq);
    const shot_t shot = record(c, row);

    tqcam_dev_t *dev = tqcam_dev_open_by_uri("scene.oni");
    ASSERT_TRUE(dev);
    ASSERT_TRUE(tqcam_cap_start(dev));
    std::vector<uint8_t> raw(2 * shot.raw.size() + 4096);
    tqcam_frame_t frame;
    ASSERT_EQ(tqcam_cap_get_frames(dev, 1, raw.data(), static_cast<uint32_t>(raw.size()), &frame), 1);
    const tqcam_frame_info_t &info = frame.frame_info;
    const auto n = static_cast<int>(shot.w * shot.h);
    const auto len = static_cast<int>(info.frame_size);
    std::vector<uint16_t> plain(shot.w * shot.h), calibrated(plain);
    ASSERT_EQ(tqcam_frame_get_dist_raw(dev, plain.data(), n, raw.data(), len, &info), n);
    ASSERT_EQ(tqcam_filter_enable(dev, TQCAM_FILTER_PIXEL_CALIB, nullptr), 0);
    ASSERT_EQ(tqcam_frame_get_dist_u16(dev, calibrated.data(), n, raw.data(), len, &info), n);

    const figures_t before = figures(plain, shot, row, range), after = figures(calibrated, shot, row, range);
    std::printf(
        "%s %2u MHz %3u x %3u: uncalibrated median %6.1f mm, 95 %% %6.1f mm; calibrated %5.2f mm, %5.2f mm\n",
        c.camera, c.freq / 1000000, shot.w, shot.h, before.median, before.p95, after.median, after.p95);
    EXPECT_GT(before.median, 50);
    EXPECT_LE(after.median, 4);
    EXPECT_LE(after.p95, 10);
    EXPECT_EQ(after.lost, 0u);
    tqcam_cap_stop(dev);
    tqcam_dev_close(dev);
    tqcam_uninit();
}

static constexpr cut_t WHOLE{}, MIDDLE{120, 40, 240, 0, 1, 1}, BINNED{240, 0, 320, 1, 2, 2},
    MIDDLE_BINNED{120, 40, 240, 4, 2, 4};
INSTANTIATE_TEST_SUITE_P(Cameras, Accuracy,
                         ::testing::Values(case_t{"E1", 12000000, WHOLE, 1}, case_t{"E1", 24000000, WHOLE, 2},
                                           case_t{"E3", 12000000, WHOLE, 3}, case_t{"E5", 12000000, WHOLE, 4},
                                           case_t{"E1", 12000000, MIDDLE, 4},
                                           case_t{"E1", 24000000, BINNED, 7},
                                           case_t{"E1", 12000000, MIDDLE_BINNED, 8}));
