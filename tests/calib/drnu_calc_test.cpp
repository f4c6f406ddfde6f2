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

static int32_t _load_walls(const tiny_camera_t &cam, const std::vector<sim_calib_ref_t> &refs, result_t *res,
                           uint8_t ver = 150, uint8_t blk_ver = 142)
{
    sim_calib_file_t file = sim_calib_file(ver, blk_ver);
    sim_calib_add_images(file, cam.info(), refs);
    return load(file, 0, res);
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
    ASSERT_EQ(_load_walls(cam, refs, &res), 12000000);
    EXPECT_EQ(log.count("] bad blk[r=0,c="), 2);
    EXPECT_TRUE(log.has("bad blk total cnt: 2\n"));
    EXPECT_TRUE(log.has("MFIT(nref=14): r=1.000000, f=~12.0"));
    // They get the global line, which the pixels at the centre give.
    EXPECT_EQ(res.planes[1], res.planes[2]);
    EXPECT_NEAR(res.planes[1], 1, 0.01);
    EXPECT_EQ(res.slope_k, static_cast<int32_t>(res.planes[1] * 1000));
    EXPECT_EQ(res.offset, static_cast<int32_t>(res.planes[31 * 23 + 1]));
    for (int p : {1, 2}) {
        cam.slope[p] = res.planes[p];
        cam.offset[p] = res.planes[31 * 23 + p];
    }
    _expect_planes(res, cam);
    EXPECT_EQ(res.roi.erow, 22);
    EXPECT_EQ(res.roi.ecol, 30);
    EXPECT_EQ(res.blk.t_cal0, 312);
}

TEST(DrnuCalc, FollowsPhasesOverTheTurn)
{
    // 16 walls of 1.4 m pass two turns of 12.49 m at the end; the last images fall back to small phases.
    TempDir dir;
    tiny_camera_t cam(8, 6);
    cam.spread();
    result_t res;
    ASSERT_EQ(_load_walls(cam, cam.walls(19, 500, 1400), &res), 12000000);
    _expect_planes(res, cam);

    // The same by delay steps alone, which nothing but the measurement itself tells the length of.
    tiny_camera_t even(8, 6);
    even.offset = cam.offset; // no slopes: the step's length is measured by the centre alone
    std::vector<sim_calib_ref_t> steps;
    for (int i = 0; i < 90; i++)
        steps.push_back(even.ref(500, static_cast<uint8_t>(i)));
    ASSERT_EQ(_load_walls(even, steps, &res), 12000000);
    _expect_planes(res, even);
    EXPECT_NEAR(res.slope_k, 1000, 2);

    // Where a second distance begins its delay steps anew, falling back is no turn.
    std::vector<sim_calib_ref_t> two;
    for (int i = 0; i < 12; i++)
        two.push_back(even.ref(i < 6 ? 3000 : 1000, static_cast<uint8_t>(i % 6)));
    ASSERT_EQ(_load_walls(even, two, &res), 12000000);
    _expect_planes(res, even);
    EXPECT_NEAR(res.slope_k, 1000, 2);
}

TEST(DrnuCalc, BringsBackAnImageThatIsATurnOff)
{
    // The second distance shows a turn less than it should at the centre.
    TempDir dir;
    tiny_camera_t cam(8, 6);
    std::vector<sim_calib_ref_t> refs;
    for (int i = 0; i < 12; i++) {
        refs.push_back(cam.ref(i < 6 ? 1000 : 4000, static_cast<uint8_t>(i % 6)));
        for (auto &v : refs.back().phase)
            v = static_cast<uint16_t>(v + (i < 6 ? 32768 : 0));
    }
    result_t res;
    LogCapture log;
    ASSERT_EQ(_load_walls(cam, refs, &res), 12000000);
    EXPECT_TRUE(log.has("f=~12.0"));
    EXPECT_NEAR(res.slope_k, 1000, 3);
}

TEST(DrnuCalc, NormalisesTheScale)
{
    TempDir dir;
    tiny_camera_t cam(8, 6);
    cam.spread();
    std::vector<sim_calib_ref_t> refs;
    for (int i = 0; i < 14; i++)
        refs.push_back(cam.ref(500 + 700 * i, 0, 30000));
    sim_calib_file_t file = sim_calib_file(150, 142);
    calib_blk_info_t info = cam.info();
    info.scale = 0; // 30000 unless stated
    sim_calib_add_images(file, info, refs);
    result_t res;
    ASSERT_EQ(load(file, 0, &res), 12000000);
    EXPECT_EQ(res.blk.scale, 30000u);
    _expect_planes(res, cam, 2e-4, 1);
}

TEST(DrnuCalc, RepairsOlderFiles)
{
    TempDir dir;
    tiny_camera_t cam(320, 240);
    for (uint32_t p = 0; p < 320 * 240; p++)
        cam.offset[p] = 20 * static_cast<float>(p / 320 % 5 + p % 7);
    for (int ver : {139, 149, 150}) {
        for (int blk_ver : {141, 142}) {
            SCOPED_TRACE(testing::Message() << ver << "/" << blk_ver);
            std::vector<sim_calib_ref_t> refs;
            for (int i = 0; i < 3; i++) {
                // One distance and steps that weren't recorded, or a distance an image.
                refs.push_back(cam.ref(500, static_cast<uint8_t>(i)));
                refs[i].ref_um = 500000 + 300000 * i;
                refs[i].nc = 0;
                std::vector<uint16_t> img = refs[i].phase, sorted = img;
                if (blk_ver < 142) // from top to bottom; cam counts rows as they leave the sensor
                    for (int row = 0; row < 240; row++)
                        std::copy_n(&sorted[320 * (row < 120 ? 238 - 2 * row : 2 * (row - 120) + 1)], 320,
                                    &img[320 * row]);
                if (ver < 150) // a pixel early in each pair of rows
                    for (int pair = 0; pair < 120; pair++)
                        std::copy_n(std::vector<uint16_t>(img).data() + 640 * pair + 1, 639,
                                    &img[640 * pair]);
                refs[i].phase = img;
            }
            sim_calib_file_t file = sim_calib_file(static_cast<uint8_t>(ver), static_cast<uint8_t>(blk_ver));
            calib_blk_info_t info = cam.info();
            info.ref_cm = 50;
            sim_calib_add_images(file, info, refs);
            result_t res;
            ASSERT_EQ(load(file, 0, &res), 12000000);
            int off = 0;
            for (int p = 0; p < 320 * 240; p++)
                off += std::abs(res.planes[320 * 240 + p] - cam.offset[p]) > 6;
            // The pixel that the repair doubles at each pair's begin stays wrong.
            EXPECT_LE(off, ver < 150 ? 120 : 0);
            EXPECT_NEAR(res.slope_k, 1000, 2);
        }
    }
}

TEST(DrnuCalc, TurnsDepthsIntoRays)
{
    TempDir dir;
    tiny_camera_t cam(8, 6);
    const sim_calib_pinhole_t lens{3.5, 2.5, 5, 5};
    std::vector<sim_calib_ref_t> refs;
    for (int i = 0; i < 8; i++) {
        tiny_camera_t ray = cam;
        const double z = 500 + 500 * i;
        for (uint32_t p = 0; p < 48; p++) {
            const double x = (p % 8 - lens.cx) / lens.fx, y = (p / 8 - lens.cy) / lens.fy;
            ray.offset[p] = static_cast<float>(z - z * std::sqrt(1 + x * x + y * y));
        }
        refs.push_back(ray.ref(z));
    }
    for (uint8_t is_z : {0, 1}) {
        sim_calib_file_t file = sim_calib_file(150, 142);
        calib_blk_info_t info = cam.info();
        info.ref_is_z = is_z;
        sim_calib_add_images(file, info, refs, lens);
        result_t res;
        ASSERT_EQ(load(file, 0, &res), 12000000);
        EXPECT_NEAR(res.planes[0], is_z ? 1 : 0.75, 0.05); // the corner's ray is a third longer
    }
}

TEST(DrnuCalc, FindsThePeriodicError)
{
    TempDir dir;
    tiny_camera_t cam(8, 6);
    std::vector<sim_calib_ref_t> refs;
    for (int i = 0; i < 40; i++) {
        const double d = 300 + 300.0 * i, range = cam.range();
        // What the sensor shows is late by 20 mm * sin(4 waves + 0.7): the correction adds it.
        refs.push_back(cam.ref(d - 20 * std::sin(8 * M_PI * d / range + 0.7)));
        refs.back().ref_um = static_cast<int32_t>(d * 1000);
    }
    result_t res;
    ASSERT_EQ(_load_walls(cam, refs, &res), 12000000);
    EXPECT_NEAR(res.amp, 20, 1); // the line takes a little of it
    EXPECT_NEAR(res.pha, 0.7, 0.05);
    EXPECT_NEAR(res.omega, 8 * M_PI / cam.range(), 1e-7);
    EXPECT_NEAR(res.ofs, 0, 0.5);
}

TEST(DrnuCalc, WrapsOffsetsIntoOneRange)
{
    TempDir dir;
    tiny_camera_t cam(8, 6);
    const auto range = static_cast<float>(cam.range());
    cam.offset[3] = -range - 50; // measures a turn more
    auto refs = cam.walls(10);
    result_t res;
    ASSERT_EQ(_load_walls(cam, refs, &res), 12000000);
    EXPECT_NEAR(res.planes[48 + 3], -50, 0.5);
    EXPECT_NEAR(res.planes[48 + 4], 0, 0.5);
}

TEST(DrnuCalc, RefusesWhatMakesNoSense)
{
    struct {
        const char *line;
        void (*edit)(calib_drnu_input_t &in, par_tq_hdr &hdr);
    } cases[] = {
        {"wrong freq=0 in drnu blk \n", [](auto &in, auto &) { in.info.freq = 0; }},
        {"wrong num_dist in calib data: 1\n", [](auto &in, auto &) { in.info.nref = 1; }},
        {"wrong num_dist in calib data: -128\n", [](auto &in, auto &) { in.info.nref = -128; }},
        {"wrong payload in calib data", [](auto &in, auto &) { in.info.nref = 127; }},
        {"wrong payload in calib data", [](auto &in, auto &) { in.payload_size--; }},
        {"wrong payload in calib data", [](auto &in, auto &) { in.info.img_w = in.info.img_h = 4096; }},
        {"wrong image size in calib data: 65536x65536\n",
         [](auto &in, auto &) { in.info.img_w = in.info.img_h = 65536; }},
        {"wrong image size in calib data: 4x12\n",
         [](auto &in, auto &) { in.info.img_w = 4, in.info.img_h = 12; }},
        {"wrong image size in calib data: 6x7\n",
         [](auto &in, auto &hdr) { in.info.img_w = 6, in.info.img_h = 7, hdr.ver = 149; }},
    };
    const tiny_camera_t cam(8, 6);
    par_tq_hdr hdr{};
    LogCapture log;
    for (const auto &c : cases) {
        std::vector<uint8_t> payload(2 * (20 + 2 * 48), 7);
        const auto before = payload;
        hdr.ver = 150;
        hdr.blk_ver = 142;
        calib_drnu_input_t in{&hdr, cam.info(), payload.data(), payload.size(), 0, 0, 0, 0, 0};
        in.info.nref = 2;
        c.edit(in, hdr);
        result_t res;
        EXPECT_FALSE(calib_drnu_result_calc(&in, &res)) << c.line;
        EXPECT_TRUE(log.has(c.line)) << log.text();
        EXPECT_EQ(payload, before);
        EXPECT_FALSE(res.planes);
    }
    // A size of 0 can't come from a file.
    std::vector<uint8_t> payload(2 * (20 + 2 * 48));
    calib_drnu_input_t in{&hdr, cam.info(), payload.data(), payload.size(), 0, 0, 0, 0, 0};
    in.info.nref = 2;
    in.info.scale = 0;
    result_t res;
    EXPECT_DEATH(calib_drnu_result_calc(&in, &res), "");
}

TEST(DrnuCalc, LivesWithPoorData)
{
    // Two equal images, noise, one value all over: no line anywhere, and still a result.
    TempDir dir;
    tiny_camera_t cam(8, 6);
    for (int kind = 0; kind < 3; kind++) {
        std::vector<sim_calib_ref_t> refs = cam.walls(kind == 0 ? 2 : 6);
        uint32_t seed = 1;
        for (auto &ref : refs)
            for (auto &v : ref.phase)
                v = static_cast<uint16_t>(kind == 0   ? 900
                                          : kind == 1 ? (seed = seed * 1664525 + 1013904223) >> 16
                                                      : 0);
        if (kind == 2)
            for (auto &ref : refs)
                ref.ref_um = INT32_MIN;
        result_t res;
        EXPECT_EQ(_load_walls(cam, refs, &res), 12000000);
        EXPECT_TRUE(std::isfinite(res.amp) && std::isfinite(res.pha) && std::isfinite(res.ofs));
    }
}

static result_t &_numbered(result_t &res, uint32_t w, uint32_t h)
{
    calib_result_reset(&res);
    res.blk.img_w = w;
    res.blk.img_h = h;
    res.blk.freq = 5;
    res.planes = static_cast<float *>(std::calloc(2 * w * h, sizeof(float)));
    for (uint32_t i = 0; i < 2 * w * h; i++)
        res.planes[i] = static_cast<float>(i * i % 977);
    return res;
}

TEST(DrnuRoi, AveragesBins)
{
    const uint32_t cols[] = {1, 2, 4, 8, 2}, rows[] = {1, 2, 4, 8, 4};
    const calib_roi_t rois[] = {
        {0, 23, 0, 31, 0, {}}, {3, 18, 2, 17, 0, {1, 2, 3, 4}}, {8, 15, 8, 23, 0, {}}};
    for (uint8_t binning = 0; binning < 5; binning++) {
        for (calib_roi_t roi : rois) {
            result_t res, full;
            _numbered(res, 32, 24);
            _numbered(full, 32, 24);
            roi.binning = binning;
            ASSERT_TRUE(calib_drnu_result_apply_roi(&res, &roi));
            const uint32_t bin = cols[binning] * rows[binning];
            for (uint32_t plane = 0; plane < 2; plane++) {
                const float *out = res.planes + plane * (32 * 24 / bin);
                for (uint32_t r = roi.srow; r <= roi.erow; r += rows[binning])
                    for (uint32_t c = roi.scol; c <= roi.ecol; c += cols[binning]) {
                        float sum = 0;
                        for (uint32_t i = 0; i < bin; i++)
                            sum += full.planes[plane * 32 * 24 + (r + i / cols[binning]) * 32 + c +
                                               i % cols[binning]];
                        EXPECT_EQ(*out++, sum / static_cast<float>(bin));
                    }
            }
            EXPECT_EQ(std::memcmp(&res.roi, &roi, sizeof(roi)), 0);
            EXPECT_EQ(calib_result_freq(&res, &roi), 5u);
            // A second time only the same part will do, and then nothing moves.
            const float first = res.planes[1];
            EXPECT_TRUE(calib_drnu_result_apply_roi(&res, &roi));
            EXPECT_EQ(res.planes[1], first);
            roi.ecol--;
            EXPECT_FALSE(calib_drnu_result_apply_roi(&res, &roi));
            EXPECT_EQ(calib_result_freq(&res, &roi), 0u);
        }
    }
}

TEST(DrnuRoi, StaysInsideTheImage)
{
    const calib_roi_t bad[] = {
        {0, 24, 0, 31, 0, {}},    {0, 23, 0, 32, 0, {}},    {5, 4, 0, 31, 0, {}},
        {0, 23, 65535, 0, 0, {}}, {0, 65535, 0, 31, 3, {}}, {1, 23, 0, 31, 1, {}}, // the last bin reaches out
        {0, 23, 3, 31, 3, {}},    {0, 23, 0, 31, 5, {}},
    };
    for (const calib_roi_t &roi : bad) {
        result_t res;
        _numbered(res, 32, 24);
        EXPECT_FALSE(calib_drnu_result_apply_roi(&res, &roi));
        EXPECT_EQ(res.roi_applied, 0);
    }
    result_t odd, empty; // 5 x 5 by bins of 2 x 4 would need room for more than 25 / 8 values
    _numbered(odd, 9, 4);
    const calib_roi_t wide{0, 0, 0, 7, 0, {}}, rows{0, 3, 0, 7, 4, {}};
    EXPECT_TRUE(calib_drnu_result_apply_roi(&odd, &rows));
    EXPECT_FALSE(calib_drnu_result_apply_roi(&empty, &wide));
    EXPECT_FALSE(calib_drnu_result_apply_roi(nullptr, &wide));
    EXPECT_EQ(calib_result_freq(nullptr, nullptr), 0u);
    EXPECT_EQ(calib_result_freq(&empty, nullptr), 0u);
}
