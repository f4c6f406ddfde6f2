#include <cstring>
#include <gtest/gtest.h>

#include "calib/drnu_calc.h"
#include "support/log_capture.h"
#include "tiny_camera.h"

// The line that every pixel got, against the camera's own.
static void _expect_planes(const calib_result_t &res, const tiny_camera_t &cam, double slope_err = 1e-4,
                           double mm_err = 0.4)
{
    const size_t n = cam.slope.size();
    for (size_t p = 0; p < n; p++) {
        EXPECT_NEAR(res.planes[p], cam.slope[p], slope_err) << "pixel " << p;
        EXPECT_NEAR(res.planes[n + p], cam.offset[p], mm_err) << "pixel " << p;
    }
}

TEST(DrnuCalc, FindsEachPixelsLine)
{
    TempDir dir;
    tiny_camera_t cam(31, 23); // no multiple of any vector
    cam.spread();
    auto refs = cam.walls(14);
    for (auto &ref : refs) { // a pixel that shows nothing and one that never changes
        ref.phase[1] = static_cast<uint16_t>(ref.phase[0] * 7919);
        ref.phase[2] = 1234;
    }
    result_t res;
    LogCapture log;
    ASSERT_EQ(load_images(cam.info(), refs, &res), 12000000);
    EXPECT_EQ(log.count("] bad blk[r=0,c="), 2);
    EXPECT_TRUE(log.has("bad blk total cnt: 2\n"));
    EXPECT_TRUE(log.has("MFIT(nref=14): r=1.000000, f=~12.0"));
    // They get the global line, which the pixels at the centre give.
    EXPECT_NEAR(res.planes[1], 1, 0.01);
    EXPECT_EQ(res.slope_k, static_cast<int32_t>(res.planes[1] * 1000));
    EXPECT_EQ(res.offset, static_cast<int32_t>(res.planes[31 * 23 + 1]));
    cam.slope[1] = cam.slope[2] = res.planes[1];
    cam.offset[1] = cam.offset[2] = res.planes[31 * 23 + 1];
    _expect_planes(res, cam);
    EXPECT_EQ(res.roi.erow, 22);
    EXPECT_EQ(res.roi.ecol, 30);
    EXPECT_EQ(res.blk.t_cal0, 312);
}

TEST(DrnuCalc, FollowsTurnsStepsAndScales)
{
    tiny_camera_t cam(8, 6), even(8, 6), far(8, 6), plain(8, 6);
    cam.spread();
    even.offset = cam.offset; // no slopes: the step's length is measured by the centre alone
    far.offset[3] = static_cast<float>(-far.range() - 50);
    const auto over_a_turn = far.walls(10);
    far.offset[3] = -50;
    struct {
        const char *what;
        const tiny_camera_t &cam;
        std::vector<sim_calib_ref_t> refs;
        uint32_t scale;
        double slope_err, mm_err;
    } cases[] = {
        {"walls over two turns", cam, cam.walls(19, 500, 1400), 32768, 1e-4, 0.4},
        {"steps over two turns", even, even.steps(90, {500}), 32768, 1e-4, 0.4},
        {"steps begun anew are no turn", even, even.steps(6, {3000, 1000}), 32768, 1e-4, 0.4},
        {"a scale of 30000 unless stated", cam, cam.walls(14, 500, 700, 30000), 0, 2e-4, 1},
        {"an offset of more than a turn", far, over_a_turn, 32768, 1e-3, 0.5},
    };
    TempDir dir;
    result_t res;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        calib_blk_info_t info = c.cam.info();
        info.scale = c.scale;
        ASSERT_EQ(load_images(info, c.refs, &res), 12000000);
        _expect_planes(res, c.cam, c.slope_err, c.mm_err);
        EXPECT_NEAR(res.slope_k, 1000, &c.cam == &cam ? 10 : 2);
        EXPECT_EQ(res.blk.scale, c.scale ? c.scale : 30000);
    }
    // The second distance shows a turn less than it should at the centre: it is brought back.
    LogCapture log;
    ASSERT_EQ(load_images(plain.info(), plain.steps(6, {1000, 4000}, 32768, 32768), &res), 12000000);
    EXPECT_TRUE(log.has("f=~12.0"));
    EXPECT_NEAR(res.slope_k, 1000, 3);
}

TEST(DrnuCalc, RefusesWhatMakesNoSense)
{
    struct {
        const char *line;
        uint32_t freq;
        int nref;
        uint32_t w, h;
        uint8_t ver;
        int missing; // bytes
    } cases[] = {
        {"wrong freq=0 in drnu blk \n", 0, 2, 8, 6, 150, 0},
        {"wrong num_dist in calib data: 1\n", 1, 1, 8, 6, 150, 0},
        {"wrong num_dist in calib data: -128\n", 1, -128, 8, 6, 150, 0},
        {"wrong payload in calib data", 1, 127, 8, 6, 150, 0},
        {"wrong payload in calib data", 1, 2, 8, 6, 150, 1},
        {"wrong payload in calib data", 1, 2, 4096, 4096, 150, 0},
        {"wrong image size in calib data: 65536x65536\n", 1, 2, 65536, 65536, 150, 0},
        {"wrong image size in calib data: 4x12\n", 1, 2, 4, 12, 150, 0},
        {"wrong image size in calib data: 6x7\n", 1, 2, 6, 7, 149, 0}, // rows are repaired in pairs
    };
    par_tq_hdr hdr{};
    std::vector<uint8_t> payload(2 * (20 + 2 * 48), 7);
    const auto before = payload;
    calib_drnu_input_t in{&hdr, tiny_camera_t(8, 6).info(), payload.data(), 0, 0, 0, 0, 0, 0};
    LogCapture log;
    result_t res;
    for (const auto &c : cases) {
        hdr.ver = c.ver;
        hdr.blk_ver = 142;
        in.payload_size = payload.size() - c.missing;
        in.info.freq = c.freq;
        in.info.nref = static_cast<int8_t>(c.nref);
        in.info.img_w = c.w;
        in.info.img_h = c.h;
        log.clear();
        EXPECT_FALSE(calib_drnu_result_calc(&in, &res)) << c.line;
        EXPECT_TRUE(log.has(c.line)) << log.text();
        EXPECT_EQ(payload, before);
        EXPECT_FALSE(res.planes);
    }
}

static void _number(result_t &res, uint32_t w, uint32_t h)
{
    calib_result_reset(&res);
    res.blk.img_w = w;
    res.blk.img_h = h;
    res.blk.freq = 5;
    res.planes = static_cast<float *>(std::calloc(2 * w * h, sizeof(float)));
    for (uint32_t i = 0; i < 2 * w * h; i++)
        res.planes[i] = static_cast<float>(i * i % 977);
}

TEST(DrnuRoi, StaysInsideTheImage)
{
    const calib_roi_t bad[] = {
        {0, 24, 0, 31, 0, {}},    {0, 23, 0, 32, 0, {}},    {5, 4, 0, 31, 0, {}},
        {0, 23, 65535, 0, 0, {}}, {0, 65535, 0, 31, 3, {}}, {1, 23, 0, 31, 1, {}}, // the last bin reaches out
        {0, 23, 3, 31, 3, {}},    {0, 23, 0, 31, 5, {}},
    };
    result_t res, empty;
    _number(res, 32, 24);
    for (const calib_roi_t &roi : bad) {
        EXPECT_FALSE(calib_drnu_result_apply_roi(&res, &roi));
        EXPECT_EQ(res.roi_applied, 0);
    }
    EXPECT_FALSE(calib_drnu_result_apply_roi(&empty, &bad[0]));
    EXPECT_EQ(calib_result_freq(&empty, nullptr), 0u);
    const calib_roi_t whole_bins{0, 3, 0, 7, 4, {}};
    _number(res, 9, 4); // a column is left over
    EXPECT_TRUE(calib_drnu_result_apply_roi(&res, &whole_bins));
}
