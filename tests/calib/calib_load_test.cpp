#include <cstring>
#include <gtest/gtest.h>
#include <random>

#include "support/log_capture.h"
#include "tiny_camera.h"

// Images of three frequencies, each with an offset of its own.
static sim_calib_file_t _three_freqs(uint8_t ver = 150, uint8_t blk_ver = 142)
{
    sim_calib_file_t file = sim_calib_file(ver, blk_ver);
    for (uint32_t mhz : {24, 12, 6}) {
        tiny_camera_t cam(8, 6);
        cam.freq = mhz * 1000000;
        cam.offset.assign(48, static_cast<float>(mhz));
        sim_calib_add_images(file, cam.info(), cam.walls(6));
    }
    return file;
}

TEST(CalibLoad, TakesTheBlockOfTheFrequency)
{
    const std::vector<uint32_t> all{24000000, 12000000, 6000000};
    struct {
        uint32_t freq;
        int32_t result;
        int room;
        std::vector<uint32_t> listed;
    } cases[] = {
        {0, 24000000, 100, all}, // the first, and those behind it are listed
        {12000000, 12000000, 100, all}, {6000000, 6000000, 2, {24000000, 12000000}},
        {7000000, -2, 100, all},        {12000000, 12000000, -5, {}},
    };
    TempDir dir;
    ASSERT_TRUE(sim_calib_save("calib.bin", sim_calib_file_bytes(_three_freqs())));
    uint32_t list[100];
    for (const auto &c : cases) {
        result_t res;
        int32_t cnt = c.room;
        EXPECT_EQ(calib_load("calib.bin", c.freq, &res, list, &cnt), c.result) << c.freq;
        EXPECT_EQ(std::vector<uint32_t>(list, list + cnt), c.listed);
        EXPECT_EQ(calib_result_freq(&res, nullptr), c.result > 0 ? static_cast<uint32_t>(c.result) : 0);
        EXPECT_NEAR(res.planes ? res.planes[48 + 7] : 0, std::max(c.result, 0) / 1e6, 0.3);
    }
    result_t res;
    int32_t cnt = 100;
    EXPECT_EQ(calib_load("none.bin", 0, &res, nullptr, &cnt), -1);
    EXPECT_EQ(cnt, 0);
    EXPECT_EQ(res.slope_k, 1000);                           // untouched
    EXPECT_EQ(load(sim_calib_file(150, 142), 0, &res), -2); // no block at all
    EXPECT_EQ(res.slope_k, 0);

    // A whole result is kept, another frequency or a cut one needs the file.
    ASSERT_EQ(load(_three_freqs(), 12000000, &res), 12000000);
    const float *planes = res.planes;
    std::remove("calib.bin");
    for (uint32_t freq : {12000000, 0})
        EXPECT_EQ(calib_load("calib.bin", freq, &res, nullptr, &cnt), 12000000);
    EXPECT_EQ(res.planes, planes);
    EXPECT_EQ(calib_load("calib.bin", 24000000, &res, nullptr, &cnt), -1);
    const calib_roi_t roi{0, 5, 0, 7, 1, {}};
    ASSERT_TRUE(calib_drnu_result_apply_roi(&res, &roi));
    EXPECT_EQ(calib_load("calib.bin", 12000000, &res, nullptr, &cnt), -1);
}

static calib_temp_hdr_t _temp_hdr(uint32_t freq)
{
    calib_temp_hdr_t hdr{};
    hdr.freq = freq;
    hdr.tenv = 250;
    return hdr;
}

TEST(CalibTemp, FitsSamplesWithoutTheirOutliers)
{
    TempDir dir;
    std::mt19937 rng(5);
    std::vector<sim_calib_temp_sample_t> samples(60);
    for (auto &s : samples) { // the phase follows three causes
        s.tcb = static_cast<int16_t>(200 + rng() % 300);
        s.tib = static_cast<int16_t>(s.tcb + 40 + rng() % 60);
        s.fps = static_cast<uint16_t>(5 + rng() % 25);
        s.phase = static_cast<uint32_t>(std::lround(9000 + 3.6 * s.tcb + 1.2 * s.tib + 0.4 * s.fps));
    }
    for (int i : {7, 30}) // two readings that went wrong
        samples[i].phase += 9000;
    tiny_camera_t cam(8, 6);
    sim_calib_file_t file = sim_calib_file(150, 142);
    sim_calib_add_images(file, cam.info(), cam.walls(4));
    sim_calib_add_temp_samples(file, _temp_hdr(12000000), samples);
    result_t res;
    LogCapture log;
    ASSERT_EQ(load(file, 0, &res), 12000000);
    ASSERT_EQ(res.tcoef_cnt, 5u);
    EXPECT_NEAR(res.tcoef[0], 48, 2); // alone it answers for both boards
    EXPECT_NEAR(res.tcoef[1], 46, 4);
    EXPECT_NEAR(res.tcoef[2], 36, 0.5);
    EXPECT_NEAR(res.tcoef[3], 12, 0.5);
    EXPECT_NEAR(res.tcoef[4], 4, 0.5); // ten times the slope, as for the temperatures
    EXPECT_NEAR(res.tcoef_mm[2], 36 * 12491.35 / 32768, 0.2);
    EXPECT_EQ(res.tcoef_hdr.tenv, 250);
    EXPECT_TRUE(log.has("Tib+cb+fps coef calc [n=60]: r=1.000, coef=3")) << log.text();
}

TEST(CalibTemp, FallsBackStepByStep)
{
    struct {
        std::vector<float> in;
        std::vector<float> out; // what must come out, from index 0; 0 behind that. Empty: dropped
    } cases[] = {
        {{40, 10, 30, 12, 2, 7}, {40, 10, 30, 12, 2, 7}},
        {{1000.1f, 10, 30, 12, 2, 7}, {50, 50, 50}},
        {{40, 10, 0, 12, 2, 7}, {40, 10, 40}}, // a zero among the three: CB alone
        {{40, 10, 30, 12}, {40, 10, 40}},      // a coefficient that is missing is 0
        {{40, 10, NAN, 12, 2}, {40, 10, 40}},
        {{-INFINITY, 10, 30, 12, 2}, {50, 50, 50}},
        {{40, 10, 30}, {}},
        {std::vector<float>(30, 3.0f), std::vector<float>(16, 3.0f)}, // more than there is room for
    };
    TempDir dir;
    for (auto &c : cases) {
        tiny_camera_t cam(8, 6);
        sim_calib_file_t file = sim_calib_file(150, 142);
        sim_calib_add_images(file, cam.info(), cam.walls(4));
        sim_calib_add_temp_coefs(file, _temp_hdr(12000000), c.in);
        result_t res;
        ASSERT_EQ(load(file, 12000000, &res), 12000000);
        EXPECT_EQ(res.tcoef_cnt, c.out.empty() ? 0 : std::min<size_t>(c.in.size(), 16));
        c.out.resize(16);
        EXPECT_EQ(std::vector<float>(res.tcoef, res.tcoef + 16), c.out);
    }
}

TEST(CalibTemp, TakesTheModelAtTheTargetOrJustAbove)
{
    struct {
        uint32_t target_mhz;
        std::vector<uint32_t> before, behind; // models in front of the images of 12 MHz and behind them
        uint32_t taken;
    } cases[] = {
        {12, {}, {24, 12, 6}, 12}, {12, {}, {24, 20}, 20}, {12, {}, {6, 24}, 24},
        {12, {}, {4, 6}, 4},       {0, {}, {24, 12}, 12}, // the target is the loaded one by then
        {0, {24, 6, 8}, {}, 6},                           // and none before: the lowest wins
        {0, {6}, {12}, 12},        {12, {}, {0}, 0},      // a model of no frequency is none
    };
    TempDir dir;
    for (const auto &c : cases) {
        tiny_camera_t cam(8, 6);
        sim_calib_file_t file = sim_calib_file(150, 142);
        for (const auto *models : {&c.before, &c.behind}) {
            for (uint32_t mhz : *models)
                sim_calib_add_temp_coefs(file, _temp_hdr(mhz * 1000000),
                                         std::vector<float>(5, static_cast<float>(mhz)));
            if (models == &c.before)
                sim_calib_add_images(file, cam.info(), cam.walls(4));
        }
        result_t res;
        ASSERT_EQ(load(file, c.target_mhz * 1000000, &res), 12000000);
        EXPECT_EQ(res.tcoef[0], static_cast<float>(c.taken));
        EXPECT_EQ(uint32_t{res.tcoef_hdr.freq}, c.taken * 1000000);
    }
}
