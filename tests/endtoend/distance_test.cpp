// From a simulated scene to millimetres: recording, replay link, reassembly, retrieval, driver.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "recorded_camera.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {
struct errors_t {
    double median, p95, bias; // of the absolute error, and of the error; millimetres
    size_t measured;
};

errors_t errors_of(const std::vector<float> &metres, const std::vector<float> &truth_mm)
{
    std::vector<double> abs;
    double sum = 0;
    for (size_t i = 0; i < truth_mm.size(); i++) {
        if (metres[i] == 0 || metres[i] >= 65.0f)
            continue;
        const double e = metres[i] * 1000.0 - truth_mm[i];
        sum += e;
        abs.push_back(std::abs(e));
    }
    std::sort(abs.begin(), abs.end());
    const size_t n = abs.size();
    return n == 0 ? errors_t{1e9, 1e9, 1e9, 0}
                  : errors_t{abs[n / 2], abs[n * 95 / 100], sum / static_cast<double>(n), n};
}

struct wall_case_t {
    const char *camera;
    uint32_t format;
    double mm;
};
struct Wall : ::testing::TestWithParam<wall_case_t> {};
} // namespace

TEST_P(Wall, ComesOutInMillimetres)
{
    const wall_case_t c = GetParam();
    TempDir dir;
    LogCapture log;
    const std::vector<float> truth = record_camera("wall.oni", wall_before(c.camera, c.mm, c.format), 2);
    tqcam_dev_t *dev = start_replay("FILE://wall.oni", true);
    ASSERT_NE(dev, nullptr) << log.text();
    std::vector<uint8_t> raw(1 << 20);
    tqcam_frame_t frame;
    ASSERT_EQ(tqcam_cap_get_frames(dev, 1, raw.data(), static_cast<uint32_t>(raw.size()), &frame), 1);
    const tqcam_frame_info_t &info = frame.frame_info;
    const uint32_t n = info.width * info.height;
    ASSERT_EQ(n, truth.size());
    EXPECT_EQ(info.frame_format, c.format);

    std::vector<float> metres(n), gray(n);
    ASSERT_EQ(tqcam_frame_get_dist_f32(dev, metres.data(), n, raw.data(), info.frame_size, &info),
              static_cast<int>(n))
        << log.text();
    const errors_t e = errors_of(metres, truth);
    std::printf("%s format %u, %5.0f mm: median %.2f, 95 %% %.2f, bias %+.2f mm of %zu pixels\n", c.camera,
                c.format, c.mm, e.median, e.p95, e.bias, e.measured);
    EXPECT_LE(e.median, 3.0);
    EXPECT_LE(std::abs(e.bias), 2.0);
    EXPECT_LE(e.p95, 10.0);
    EXPECT_GE(e.measured, n * 99 / 100);
    EXPECT_EQ(tqcam_frame_get_gray_f32(dev, gray.data(), n, raw.data(), info.frame_size, &info),
              static_cast<int>(n));
    std::nth_element(gray.begin(), gray.begin() + n / 2, gray.end());
    // The ideal camera's amplitude, or half of it from half of the samples; the root is a quick one.
    const float amplitude = c.format == 4 || c.format == 10 ? 500.0f : 1000.0f;
    EXPECT_NEAR(gray[n / 2], amplitude, amplitude * 0.04f);

    std::vector<uint16_t> image(n);
    std::vector<float> points(3 * n);
    EXPECT_EQ(tqcam_frame_get_dist_u16(dev, image.data(), n, raw.data(), info.frame_size, &info),
              static_cast<int>(n));
    EXPECT_EQ(metres[n / 2], static_cast<float>(image[n / 2]) * 0.001f);
    EXPECT_EQ(
        tqcam_frame_get_pcl(dev, points.data(), 3 * n, metres.data(), n, info.width, info.height, nullptr),
        static_cast<int>(n));
    // Buffers one value or byte too small, in front of the real driver.
    EXPECT_EQ(tqcam_frame_get_dist_u16(dev, image.data(), n - 1, raw.data(), info.frame_size, &info), 0);
    EXPECT_EQ(tqcam_frame_get_dist_u16(dev, image.data(), n, raw.data(), info.frame_size - 1, &info), 0);
    tqcam_dev_close(dev);
}

INSTANTIATE_TEST_SUITE_P(Distances, Wall,
                         ::testing::Values(wall_case_t{"E2", 2, 500}, wall_case_t{"E2", 2, 1000},
                                           wall_case_t{"E2", 2, 2000}, wall_case_t{"E2", 2, 4000},
                                           wall_case_t{"E2", 2, 8000}));
INSTANTIATE_TEST_SUITE_P(Cameras, Wall,
                         ::testing::Values(wall_case_t{"E1", 2, 2000}, wall_case_t{"E3", 2, 2000},
                                           wall_case_t{"E5", 2, 2000}, wall_case_t{"E2", 1, 2000},
                                           wall_case_t{"E2", 4, 2000}, wall_case_t{"E2", 10, 3000}));

TEST(Replay, DeliversEveryFrameOnceAndEnds)
{
    TempDir dir;
    LogCapture log;
    record_camera("a.oni", wall_before("E5", 1000, 2), 12);
    const played_t p = play("a.oni");
    std::vector<int> all(12);
    std::iota(all.begin(), all.end(), 1); // recordings count from 1
    EXPECT_EQ(p.frames, all);
    EXPECT_EQ(p.decoded, std::vector<int>(12, 160 * 60));
    EXPECT_EQ(p.error, TQCAM_ERR_CAP_EOF);
    EXPECT_TRUE(p.ended);
}
