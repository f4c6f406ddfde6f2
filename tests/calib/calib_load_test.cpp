#include <cstring>
#include <gtest/gtest.h>
#include <random>

#include "support/log_capture.h"
#include "tiny_camera.h"

static calib_temp_hdr_t _temp_hdr(uint32_t freq)
{
    calib_temp_hdr_t hdr{};
    hdr.freq = freq;
    hdr.tenv = 250;
    return hdr;
}

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
    struct {
        uint32_t freq;
        int32_t result;
        int room;
        std::vector<uint32_t> listed;
    } cases[] = {
        {0, 24000000, 100, {24000000, 12000000, 6000000}}, // the first, and those behind it are listed
        {12000000, 12000000, 100, {24000000, 12000000, 6000000}},
        {6000000, 6000000, 2, {24000000, 12000000}},
        {7000000, -2, 100, {24000000, 12000000, 6000000}},
        {12000000, 12000000, 0, {}},
        {12000000, 12000000, -5, {}},
    };
    TempDir dir;
    ASSERT_TRUE(sim_calib_save("calib.bin", sim_calib_file_bytes(_three_freqs())));
    for (const auto &c : cases) {
        result_t res;
        uint32_t list[100];
        int32_t cnt = c.room;
        EXPECT_EQ(calib_load("calib.bin", c.freq, &res, list, &cnt), c.result) << c.freq;
        EXPECT_EQ(std::vector<uint32_t>(list, list + cnt), c.listed);
        EXPECT_EQ(calib_result_freq(&res, nullptr), c.result > 0 ? static_cast<uint32_t>(c.result) : 0);
        if (c.result > 0) {
            EXPECT_NEAR(res.planes[48 + 7], c.result / 1e6, 0.3);
        }
    }
    result_t res;
    int32_t cnt = 100;
    EXPECT_EQ(calib_load("none.bin", 0, &res, nullptr, &cnt), -1);
    EXPECT_EQ(cnt, 0);
    EXPECT_EQ(res.slope_k, 1000); // untouched
    EXPECT_EQ(calib_load(nullptr, 0, &res, nullptr, &cnt), -1);
    EXPECT_EQ(calib_load("calib.bin", 0, nullptr, nullptr, &cnt), -1);
    EXPECT_EQ(load(sim_calib_file(150, 142), 0, &res), -2); // no block at all
    EXPECT_EQ(res.slope_k, 0);
}

TEST(CalibLoad, KeepsAWholeResultAndReloadsACutOne)
{
    TempDir dir;
    result_t res;
    ASSERT_EQ(load(_three_freqs(), 12000000, &res), 12000000);
    const float *planes = res.planes;
    int32_t cnt = 7;
    std::remove("calib.bin");
    EXPECT_EQ(calib_load("calib.bin", 12000000, &res, nullptr, &cnt), 12000000);
    EXPECT_EQ(calib_load("calib.bin", 0, &res, nullptr, &cnt), 12000000);
    EXPECT_EQ(res.planes, planes);
    EXPECT_EQ(cnt, 0);
    EXPECT_EQ(calib_load("calib.bin", 24000000, &res, nullptr, &cnt), -1); // another one needs the file
    const calib_roi_t roi{0, 5, 0, 7, 1, {}};
    ASSERT_TRUE(calib_drnu_result_apply_roi(&res, &roi));
    EXPECT_EQ(calib_load("calib.bin", 12000000, &res, nullptr, &cnt), -1);
}

TEST(CalibLoad, ReadsEveryFormOfHead)
{
    TempDir dir;
    tiny_camera_t cam(320, 240);
    for (auto [ver, blk_ver] : {std::pair{139, 100}, {139, 142}, {140, 141}, {150, 142}}) {
        SCOPED_TRACE(testing::Message() << ver << "/" << blk_ver);
        sim_calib_file_t file = sim_calib_file(static_cast<uint8_t>(ver), static_cast<uint8_t>(blk_ver));
        calib_blk_info_t info = cam.info();
        info.ref_cm = 50;
        info.img_w = info.img_h = 0; // 320 and 240 unless stated
        info.ref_is_z = 1;
        sim_calib_add_images(file, info, cam.walls(3), {160, 120, 250, 250});
        result_t res;
        ASSERT_EQ(load(file, 0, &res), 12000000);
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
    lens.fx = 5;
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
    sim_calib_file_t cut = sim_calib_file(150, 142);
    sim_calib_add_result(cut, cam.info(), global, planes);
    EXPECT_EQ(load(cut, 0, &res), -1);
    EXPECT_FALSE(res.lens);
}

// Samples of a camera whose phase follows three causes, in phase per degree and per frame a second.
static std::vector<sim_calib_temp_sample_t> _samples(int n, double cb, double ib, double fps)
{
    std::mt19937 rng(5);
    std::vector<sim_calib_temp_sample_t> out;
    for (int i = 0; i < n; i++) {
        sim_calib_temp_sample_t s{};
        s.tcb = static_cast<int16_t>(200 + rng() % 300);
        s.tib = static_cast<int16_t>(s.tcb + 40 + rng() % 60);
        s.fps = static_cast<uint16_t>(5 + rng() % 25);
        s.phase = static_cast<uint32_t>(std::lround(9000 + cb * s.tcb / 10 + ib * s.tib / 10 + fps * s.fps));
        out.push_back(s);
    }
    return out;
}

static int32_t _load_temp(uint32_t target, const std::vector<std::pair<uint32_t, std::vector<float>>> &before,
                          const std::vector<std::pair<uint32_t, std::vector<float>>> &after, result_t *res)
{
    tiny_camera_t cam(8, 6);
    sim_calib_file_t file = sim_calib_file(150, 142);
    for (const auto &[freq, coefs] : before)
        sim_calib_add_temp_coefs(file, _temp_hdr(freq), coefs);
    sim_calib_add_images(file, cam.info(), cam.walls(4));
    for (const auto &[freq, coefs] : after)
        sim_calib_add_temp_coefs(file, _temp_hdr(freq), coefs);
    return load(file, target, res);
}

TEST(CalibTemp, FitsSamplesWithoutTheirOutliers)
{
    TempDir dir;
    auto samples = _samples(60, 36, 12, 0.4);
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
        {{40, 10, 30, 12, 2}, {40, 10, 30, 12, 2}},
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
    for (const auto &c : cases) {
        result_t res;
        ASSERT_EQ(_load_temp(0, {}, {{12000000, c.in}}, &res), 12000000);
        EXPECT_EQ(res.tcoef_cnt, c.out.empty() ? 0 : std::min<size_t>(c.in.size(), 16));
        std::vector<float> want = c.out;
        want.resize(16);
        EXPECT_EQ(std::vector<float>(res.tcoef, res.tcoef + 16), want);
    }
}

TEST(CalibTemp, TakesTheModelAtTheTargetOrJustAbove)
{
    const auto at = [](std::vector<uint32_t> mhz) {
        std::vector<std::pair<uint32_t, std::vector<float>>> out;
        for (uint32_t m : mhz)
            out.emplace_back(m * 1000000, std::vector<float>(5, static_cast<float>(m)));
        return out;
    };
    struct {
        uint32_t target_mhz;
        std::vector<uint32_t> before, after; // blocks before and behind the images of 12 MHz
        float taken;
    } cases[] = {
        {12, {}, {24, 12, 6}, 12}, {12, {}, {12, 12}, 12}, {12, {}, {24, 20}, 20}, {12, {}, {20, 24}, 20},
        {12, {}, {6, 24}, 24},     {12, {}, {24, 6}, 24},  {12, {}, {4, 6}, 4},    {12, {}, {6, 4}, 4},
        {0, {}, {24, 12}, 12},  // the target is the loaded frequency by then
        {0, {24, 6, 8}, {}, 6}, // and none before: the lowest wins
        {0, {6}, {12}, 12},        {12, {6, 12}, {}, 12},
    };
    TempDir dir;
    for (const auto &c : cases) {
        result_t res;
        ASSERT_EQ(_load_temp(c.target_mhz * 1000000, at(c.before), at(c.after), &res), 12000000);
        EXPECT_EQ(res.tcoef[0], c.taken);
        EXPECT_EQ(uint32_t{res.tcoef_hdr.freq}, c.taken * 1000000);
    }
    result_t res; // a model of no frequency is none
    ASSERT_EQ(_load_temp(0, {}, at({0}), &res), 12000000);
    EXPECT_EQ(res.tcoef_cnt, 0u);
}

TEST(CalibLoad, FailsOnBlocksThatLie)
{
    struct {
        const char *line;
        size_t at; // in the block's bytes
        std::vector<uint8_t> with;
    } image_cases[] = {
        {"wrong num_dist in calib data: -1\n", 25, {0xFF}},
        {"wrong payload in calib data", 25, {127}},
        {"wrong payload in calib data", 30, {9}},
        {"wrong image size in calib data: 65544x", 30, {8, 0, 1, 0}},
        {"wrong image size in calib data: 4294967295x", 30, {255, 255, 255, 255}},
        {"wrong freq=0 in drnu blk", 5, {0, 0, 0, 0}},
    };
    TempDir dir;
    LogCapture log;
    result_t res;
    const sim_calib_file_t good = _three_freqs();
    for (const auto &c : image_cases) {
        sim_calib_file_t file = good;
        std::copy(c.with.begin(), c.with.end(), file.blocks[0].begin() + static_cast<long>(c.at));
        log.clear();
        EXPECT_EQ(load(file, 0, &res), -1) << c.line;
        EXPECT_TRUE(log.has(c.line)) << log.text();
        EXPECT_FALSE(res.planes);
    }
    // Blocks that are smaller than their head or than what the head asks for.
    for (auto [type, size, line] : {std::tuple{1, 84, "read blk#0 t1/3 hdr failed"},
                                    {3, 0, "read blk#0 t1/3 hdr failed"},
                                    {1, 85, "wrong freq=0 in drnu blk"},
                                    {3, 85, "read blk#0 data failed"},
                                    {5, 24, "read temp calib blk failed"},
                                    {6, 26, "read temp calib blk data failed"},
                                    {5, 0, "read temp calib blk failed"}}) {
        sim_calib_file_t file = sim_calib_file(150, 142);
        sim_calib_add_raw(file, static_cast<uint8_t>(type), std::vector<uint8_t>(static_cast<size_t>(size)));
        log.clear();
        EXPECT_EQ(load(file, 0, &res), -1) << line;
        EXPECT_TRUE(log.has(line)) << log.text();
    }
    // The old format's payloads are unread until now.
    std::vector<uint8_t> bytes = sim_calib_file_bytes(_three_freqs(139, 100));
    bytes.resize(bytes.size() - 1);
    sim_calib_save("cut.bin", bytes);
    calib_result_reset(&res);
    int32_t cnt = 0;
    EXPECT_EQ(calib_load("cut.bin", 6000000, &res, nullptr, &cnt), -1);
    EXPECT_TRUE(log.has("read blk#2 payload failed"));
}
