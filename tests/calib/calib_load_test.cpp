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

TEST(CalibLoad, ReadsEveryFormOfHead)
{
    TempDir dir;
    tiny_camera_t cam(320, 240);
    calib_blk_info_t info = cam.info();
    info.ref_cm = 50;
    info.img_w = info.img_h = 0; // 320 and 240 unless stated
    info.ref_is_z = 1;
    for (auto [ver, blk_ver] : {std::pair{139, 100}, {139, 142}, {140, 141}, {150, 142}}) {
        SCOPED_TRACE(testing::Message() << ver << "/" << blk_ver);
        result_t res;
        ASSERT_EQ(load_images(info, cam.walls(3), &res, ver, blk_ver, {160, 120, 250, 250}), 12000000);
        EXPECT_EQ(res.blk.img_w, 320u);
        EXPECT_EQ(res.blk.img_h, 240u);
        EXPECT_EQ(res.blk.nref, 3);
        EXPECT_EQ(res.blk.t_cal1, 405);
        if (blk_ver < 142) { // these heads don't bring a frame rate or flags worth reading
            EXPECT_EQ(res.blk.fps, 10);
            EXPECT_EQ(res.blk.aux0, 2);
            EXPECT_EQ(res.blk.aux1, 0);
            EXPECT_EQ(res.blk.ref_is_z, 0);
        } else if (ver >= 140) {
            EXPECT_EQ(res.blk.fps, 25);
            EXPECT_EQ(res.blk.ref_is_z, 1);
        }
    }
}

TEST(CalibLoad, TakesAReadyResultAndALens)
{
    TempDir dir;
    tiny_camera_t cam(8, 6);
    std::vector<float> planes(2 * 48 + 5);
    for (size_t i = 0; i < planes.size(); i++)
        planes[i] = static_cast<float>(i);
    sim_calib_global_t global{1003, -17, 1.5f, 0.25f, -0.5f, 3.0f, {}};
    global.carried[23] = 9;
    tq_lens_bin_t lens{};
    lens.img_w = 8;
    lens.img_h = 6;
    sim_calib_file_t file = sim_calib_file(150, 142);
    sim_calib_add_lens(file, lens, std::vector<float>(96, 1), {});
    sim_calib_add_images(file, cam.info(), cam.walls(4));
    sim_calib_add_result(file, cam.info(), global, planes); // the same frequency again: replaces the former
    sim_calib_add_raw(file, 99, {1, 2, 3});
    lens.fx = 6;
    sim_calib_add_lens(file, lens, {}, {});
    result_t res;
    ASSERT_EQ(load(file, 0, &res), 12000000);
    EXPECT_EQ(std::memcmp(&res.slope_k, &global, sizeof(global)), 0);
    EXPECT_EQ(std::memcmp(res.planes, planes.data(), planes.size() * 4), 0);
    EXPECT_EQ(res.roi.erow, 5);
    EXPECT_EQ(res.roi.ecol, 7);
    ASSERT_TRUE(res.lens);
    EXPECT_EQ(float{res.lens->fx}, 6);

    planes.resize(95); // a value short of two planes
    file = sim_calib_file(150, 142);
    sim_calib_add_result(file, cam.info(), global, planes);
    EXPECT_EQ(load(file, 0, &res), -1);
    EXPECT_FALSE(res.lens);
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

struct model_block_t {
    uint32_t mhz;
    std::vector<float> coefs;
};

// Loads models that stand before and behind images of 12 MHz.
static void _load_models(uint32_t target_mhz, const std::vector<model_block_t> &before,
                         const std::vector<model_block_t> &behind, result_t *res)
{
    tiny_camera_t cam(8, 6);
    sim_calib_file_t file = sim_calib_file(150, 142);
    for (const auto &m : before)
        sim_calib_add_temp_coefs(file, _temp_hdr(m.mhz * 1000000), m.coefs);
    sim_calib_add_images(file, cam.info(), cam.walls(4));
    for (const auto &m : behind)
        sim_calib_add_temp_coefs(file, _temp_hdr(m.mhz * 1000000), m.coefs);
    ASSERT_EQ(load(file, target_mhz * 1000000, res), 12000000);
}

TEST(CalibTemp, FallsBackStepByStep)
{
    struct {
        std::vector<float> in;
        std::vector<float> out; // what must come out, from index 0; 0 behind that. Empty: dropped
    } cases[] = {
        {{40, 10, 30, 12, 2, 7}, {40, 10, 30, 12, 2, 7}},
        {{1000, 10, 30, 12, 2}, {1000, 10, 30, 12, 2}}, // the limit itself is fine
        {{1000.1f, 10, 30, 12, 2, 7}, {50, 50, 50}},
        {{40, 1001, 30, 12, 2}, {50, 50, 50}},
        {{40, 10, 0, 12, 2, 7}, {40, 10, 40}}, // a zero among the three: CB alone
        {{40, 10, 30, 0, 2}, {40, 10, 40}},
        {{40, 10, 30, 12}, {40, 10, 40}}, // a coefficient that is missing is 0
        {{40, 10, NAN, 12, 2}, {40, 10, 40}},
        {{40, NAN, 30, 12, 2}, {40, 0, 40}},
        {{NAN, 10, 30, 12, 2}, {50, 50, 50}},
        {{-INFINITY, 10, 30, 12, 2}, {50, 50, 50}},
        {{40, 10, 30}, {}},
        {{}, {}},
        {std::vector<float>(30, 3.0f), std::vector<float>(16, 3.0f)}, // more than there is room for
    };
    TempDir dir;
    for (auto &c : cases) {
        result_t res;
        _load_models(0, {}, {{12, c.in}}, &res);
        EXPECT_EQ(res.tcoef_cnt, c.out.empty() ? 0 : std::min<size_t>(c.in.size(), 16));
        c.out.resize(16);
        EXPECT_EQ(std::vector<float>(res.tcoef, res.tcoef + 16), c.out);
    }
}

TEST(CalibTemp, TakesTheModelAtTheTargetOrJustAbove)
{
    const auto at = [](const std::vector<uint32_t> &mhz) {
        std::vector<model_block_t> out;
        for (uint32_t m : mhz)
            out.push_back({m, std::vector<float>(5, static_cast<float>(m))});
        return out;
    };
    struct {
        uint32_t target_mhz;
        std::vector<uint32_t> before, behind;
        float taken;
    } cases[] = {
        {12, {}, {24, 12, 6}, 12}, {12, {}, {24, 20}, 20}, {12, {}, {20, 24}, 20}, {12, {}, {6, 24}, 24},
        {12, {}, {24, 6}, 24},     {12, {}, {4, 6}, 4},    {12, {}, {6, 4}, 4},    {12, {6, 12}, {}, 12},
        {0, {}, {24, 12}, 12},                       // the target is the loaded frequency by then
        {0, {24, 6, 8}, {}, 6},                      // and none before: the lowest wins
        {0, {6}, {12}, 12},        {12, {}, {0}, 0}, // a model of no frequency is none
    };
    TempDir dir;
    for (const auto &c : cases) {
        result_t res;
        _load_models(c.target_mhz, at(c.before), at(c.behind), &res);
        EXPECT_EQ(res.tcoef[0], c.taken);
        EXPECT_EQ(uint32_t{res.tcoef_hdr.freq}, c.taken * 1000000);
        EXPECT_EQ(res.tcoef_cnt, c.taken > 0 ? 5u : 0u);
    }
}

TEST(CalibLoad, FailsOnBlocksThatLie)
{
    struct {
        const char *line;
        uint8_t type;
        size_t size;
    } cases[] = {
        {"read blk#0 t1/3 hdr failed", 1, 84},      {"read blk#0 t1/3 hdr failed", 3, 0},
        {"wrong freq=0 in drnu blk", 1, 85},        {"read blk#0 data failed", 3, 85},
        {"read temp calib blk failed", 5, 24},      {"read temp calib blk failed", 5, 0},
        {"read temp calib blk data failed", 6, 26},
    };
    TempDir dir;
    LogCapture log;
    result_t res;
    for (const auto &c : cases) { // smaller than their head or than what the head asks for
        sim_calib_file_t file = sim_calib_file(150, 142);
        sim_calib_add_raw(file, c.type, std::vector<uint8_t>(c.size));
        log.clear();
        EXPECT_EQ(load(file, 0, &res), -1) << c.line;
        EXPECT_TRUE(log.has(c.line)) << log.text();
    }
    sim_calib_file_t file = _three_freqs();
    file.blocks[1][25] = 0xFF; // a count of images that fails behind a good block
    EXPECT_EQ(load(file, 0, &res), 24000000);
    EXPECT_EQ(load(file, 12000000, &res), -1);
    EXPECT_TRUE(log.has("wrong num_dist in calib data: -1\n"));
    EXPECT_FALSE(res.planes);
    // The old format's payloads are unread until now.
    std::vector<uint8_t> bytes = sim_calib_file_bytes(_three_freqs(139, 100));
    bytes.pop_back();
    sim_calib_save("cut.bin", bytes);
    int32_t cnt = 0;
    EXPECT_EQ(calib_load("cut.bin", 6000000, &res, nullptr, &cnt), -1);
    EXPECT_TRUE(log.has("read blk#2 payload failed"));
}
