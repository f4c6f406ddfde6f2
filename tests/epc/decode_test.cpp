#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <thread>

#include "drivers/common/amp_kernels.h"
#include "drivers/common/fast_sqrt.h"
#include "drivers/common/phase.h"
#include "epc_camera.h"
#include "frame_source.h"
#include "support/calib_blocks.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {
// Four planes of one I and Q in every pixel.
std::vector<uint16_t> flat(uint32_t w, uint32_t h, int i, int q)
{
    std::vector<uint16_t> raw(size_t{4} * w * h, 2048);
    const size_t n = size_t{w} * h;
    std::fill_n(raw.begin() + static_cast<long>(2 * n), n, static_cast<uint16_t>(2048 + i));
    std::fill_n(raw.begin() + static_cast<long>(3 * n), n, static_cast<uint16_t>(2048 + q));
    return raw;
}
std::vector<uint16_t> noise(size_t n, uint32_t lo = 0, uint32_t hi = 4095, uint32_t seed = 7)
{
    std::mt19937 rng(seed);
    std::vector<uint16_t> v(n);
    for (uint16_t &s : v)
        s = static_cast<uint16_t>(lo + rng() % (hi - lo + 1));
    return v;
}
struct EpcDecode : ::testing::Test {
    TempDir dir;
    LogCapture log;
    EpcCamera cam;
    epc_priv_t *p = nullptr;
    void SetUp() override
    {
        ASSERT_TRUE(cam.open());
        p = cam.epc();
    }
};
} // namespace

// Simulated cameras without defects: rows in order, roles of the row pairs, bits of the word, both exposures.
TEST(EpcScene, DecodesToTheTruth)
{
    const struct {
        const char *chip;
        uint32_t format, freq, intg2_us;
        sim_scene_kind_t kind;
        double distance_mm, median_mm, most_mm; // most: 95 % of the pixels
    } cases[] = {
        {"E1", 2, 12000000, 0, SIM_SCENE_ROOM, 3000, 2, 4},
        {"E1", 2, 24000000, 0, SIM_SCENE_ROOM, 2500, 1, 2},
        {"E5", 2, 12000000, 0, SIM_SCENE_ROOM, 3000, 2, 4},
        {"E1", 2, 12000000, 300, SIM_SCENE_ROOM, 3000, 3, 30},
        {"E1", 1, 12000000, 0, SIM_SCENE_ROOM, 3000, 3, 30},
        {"E1", 4, 12000000, 0, SIM_SCENE_ROOM, 3000, 3, 30},
        {"E1", 10, 12000000, 0, SIM_SCENE_WALL, 3000, 3, 8},
        {"E1", 2, 12000000, 0, SIM_SCENE_DOME, 500, 2, 3},
        {"E1", 2, 12000000, 0, SIM_SCENE_DOME, 8000, 2, 3},
        {"E1", 2, 12000000, 0, SIM_SCENE_RAMP, 12000, 2, 3},
    };
    TempDir dir;
    for (const auto &c : cases) {
        sim_config_t cfg = sim_config_default(sim_camera_find(c.chip));
        cfg.defects = sim_defects_none();
        cfg.scene = sim_scene_make(c.kind);
        cfg.scene.distance_mm = c.distance_mm;
        cfg.format = c.format;
        cfg.freq0 = c.freq;
        cfg.intg2_us = c.intg2_us;
        ASSERT_EQ(sim_config_check(cfg), "");
        sim_source_ptr_t source = sim_source_live(cfg);
        sim_frame_t frame;
        ASSERT_TRUE(source->next(source->self, &frame));

        EpcCamera cam(c.chip);
        cam.set_words(TQCAM_PARAM_MOD_FREQ, {c.freq});
        ASSERT_TRUE(cam.open());
        cam.epc()->hdr_en = c.intg2_us != 0;
        std::vector<uint16_t> raw(frame.data.size() / 2);
        memcpy(raw.data(), frame.data.data(), frame.data.size());
        const std::vector<uint16_t> image =
            cam.decode(DRV_KIND_DIST, raw,
                       EpcCamera::info(static_cast<uint16_t>(c.format), frame.width, frame.height,
                                       sim_raw_e_planes(c.format)));
        ASSERT_EQ(image.size(), frame.truth_mm.size());
        std::vector<double> error;
        for (size_t i = 0; i < image.size(); i++)
            error.push_back(std::fabs(image[i] - frame.truth_mm[i]));
        std::sort(error.begin(), error.end());
        EXPECT_LE(error[error.size() / 2], c.median_mm) << c.chip << " format " << c.format;
        EXPECT_LE(error[error.size() * 95 / 100], c.most_mm) << c.chip << " format " << c.format;
    }
}

TEST_F(EpcDecode, InvalidSamplesAndOffset)
{
    cam.disable(TQCAM_FILTER_MIN_AMP);
    std::vector<uint16_t> raw = flat(4, 4, 500, 0);
    raw[5] = 1; // plane 0 of raw row 1, column 1: image row 2
    cam.enable(TQCAM_FILTER_OFFSET, static_cast<uint16_t>(-9));
    const tqcam_frame_info_t info = EpcCamera::info(2, 4, 4, 4);
    for (const int kind : {DRV_KIND_RAW, DRV_KIND_DIST}) {
        const std::vector<uint16_t> image = cam.decode(kind, raw, info);
        ASSERT_EQ(image.size(), 16u);
        for (size_t i = 0; i < 16; i++)
            EXPECT_EQ(image[i], i == 9 ? 0 : 6245 - 9) << i; // the hole was filled, its amplitude is 0
    }
    EXPECT_EQ(p->raw_mode, 0);

    // 1 and 2 DCS mark the invalid, and only the raw kind shows the mark.
    const tqcam_frame_info_t info1 = EpcCamera::info(4, 4, 4, 1);
    std::vector<uint16_t> raw1(16, 1548);
    raw1[1] = 4095; // raw row 0: rows 0 (I), and its partner 2 rows on
    std::vector<uint16_t> image = cam.decode(DRV_KIND_RAW, raw1, info1);
    EXPECT_EQ(std::count(image.begin(), image.end(), 65500), 2); // its own row and the copy two rows on
    EXPECT_EQ(image[4 * 1 + 1], 65500);                          // image row half - 1
    EXPECT_EQ(image[4 * 0 + 1], 65500);                          // raw row 2, a copy of raw row 0
    image = cam.decode(DRV_KIND_DIST, raw1, info1);
    EXPECT_EQ(image[5], 0);
}

TEST_F(EpcDecode, SportModePicksPlanesByFrequency)
{
    const struct {
        uint32_t freq;
        int i_plane, q_plane;
        int32_t base;
    } cases[] = {{24000001, 0, 1, 16384}, {24000000, 2, 3, 0}, {12000001, 2, 3, 0}, {12000000, 1, 2, 24576}};
    p->sport_en = 1;
    p->sport_mode = 2;
    const std::vector<uint16_t> raw = noise(4 * 64, 1, 4094);
    for (const auto &c : cases) {
        epc_event_freq_change(cam.drv(), c.freq, 0);
        const std::vector<uint16_t> image = cam.decode(DRV_KIND_RAW, raw, EpcCamera::info(2, 8, 8, 4));
        for (uint32_t y = 0; y < 8; y++)
            for (uint32_t x = 0; x < 8; x++) {
                const int i = 2048 - raw[static_cast<size_t>(c.i_plane) * 64 + y * 8 + x];
                const int q = 2048 - raw[static_cast<size_t>(c.q_plane) * 64 + y * 8 + x];
                EXPECT_EQ(image[epc_image_row(y, 8) * 8 + x],
                          phase_of(i, q, c.base) * range_of(c.freq) / 32768);
            }
    }
}

// The chain is these functions in this order, whatever is switched on.
TEST_F(EpcDecode, FilterChain)
{
    const tqcam_frame_info_t info = EpcCamera::info(2, 320, 240, 4);
    const std::vector<uint16_t> raw = noise(4 * 76800, 1700, 2400);
    const std::vector<uint16_t> bare = cam.decode(DRV_KIND_RAW, raw, info);
    const uint32_t *amp = p->amp_buf.as<uint32_t>();
    for (const int on : {0, 1, 2, 3}) {
        (on & 1) ? cam.enable(TQCAM_FILTER_DENOISE, 240 | 40 << 8) : cam.disable(TQCAM_FILTER_DENOISE);
        (on & 2) ? cam.enable(TQCAM_FILTER_FLY_PIXEL, 12) : cam.disable(TQCAM_FILTER_FLY_PIXEL);
        std::vector<uint16_t> a = bare, b(a.size());
        if (on & 1) {
            tq_bpf2d_iir(&p->bpf.bpf, b.data(), a.data(), 320, 240);
            a.swap(b);
        }
        if (on & 2) {
            tq_flypix_u16_k3(b.data(), a.data(), 320, 240, 32 - 12);
            a.swap(b);
        }
        min_amp_plain(a.data(), amp, a.size(), {900, 2018 * 2018, 0, 0});
        for (size_t i = 0; i < a.size(); i++) // a fresh state: the band counts as dark
            ASSERT_TRUE(amp[i] >= 900 || a[i] == 0);
        tq_fhole_u16_k3(b.data(), a.data(), 320, 240, 0);
        zero_amp_plain(b.data(), amp, b.size());
        p->hyst_state.release();
        EXPECT_EQ(cam.decode(DRV_KIND_DIST, raw, info), b) << on;
    }
    // A frame that the bilateral filter wasn't made for stays as it is.
    cam.disable(TQCAM_FILTER_FLY_PIXEL);
    const std::vector<uint16_t> small = flat(8, 4, 400, 0);
    EXPECT_EQ(cam.decode(DRV_KIND_DIST, small, EpcCamera::info(2, 8, 4, 4)), std::vector<uint16_t>(32, 6245));
    EXPECT_TRUE(log.has("wrong parameters: init=320x240, cur=8x4"));
}

TEST_F(EpcDecode, HysteresisBetweenFrames)
{
    const tqcam_frame_info_t info = EpcCamera::info(2, 8, 4, 4);
    const struct {
        int i;
        bool lit;
    } frames[] = {{58, false}, {60, true},   {58, true},    {57, true},  {56, false},
                  {58, false}, {4030, true}, {4040, false}, {4030, true}};
    // Amplitudes i * i / 4: lit from 900 on, dark again below 800.
    for (const auto &f : frames) {
        std::vector<uint16_t> raw = flat(8, 4, 0, 0);
        std::fill_n(raw.begin(), 32, static_cast<uint16_t>(f.i > 2000 ? 2 : 2048)); // plane 0
        std::fill_n(raw.begin() + 64, 32, static_cast<uint16_t>((f.i > 2000 ? 2 : 2048) + f.i));
        const std::vector<uint16_t> image = cam.decode(DRV_KIND_DIST, raw, info);
        EXPECT_EQ(image, std::vector<uint16_t>(32, f.lit ? 6245 : 0)) << f.i;
    }
    cam.disable(TQCAM_FILTER_MIN_AMP);
    EXPECT_EQ(p->hyst_state.data, nullptr);
    EXPECT_EQ(cam.decode(DRV_KIND_DIST, flat(8, 4, 4, 0), info), std::vector<uint16_t>(32, 6245));
    // An upper limit too: 2048 - min_amp.
    cam.enable(TQCAM_FILTER_MIN_AMP, 800);
    EXPECT_EQ(cam.decode(DRV_KIND_DIST, flat(8, 4, 1800, 0), info), std::vector<uint16_t>(32, 6245));
    std::vector<uint16_t> bright = flat(8, 4, 1800, 1800);
    EXPECT_EQ(cam.decode(DRV_KIND_DIST, bright, info), std::vector<uint16_t>(32, 0));
}

TEST_F(EpcDecode, GrayFromAmplitudesOrRaw)
{
    tqcam_frame_info_t info = EpcCamera::info(2, 8, 8, 4);
    const std::vector<uint16_t> raw = noise(4 * 64, 0, 4095);
    const std::vector<uint16_t> from_raw = cam.decode(DRV_KIND_GRAY, raw, info);
    EXPECT_FALSE(log.has("use confid hash"));
    cam.decode(DRV_KIND_DIST, raw, info);
    const std::vector<uint16_t> other(raw.size(), 2048);
    EXPECT_EQ(cam.decode(DRV_KIND_GRAY, other, info), from_raw); // the raw frame isn't even looked at
    EXPECT_TRUE(log.has("[epc_frame_decode]use confid hash to calc gray ..."));
    info.frame_idx = 1; // another frame
    EXPECT_EQ(cam.decode(DRV_KIND_GRAY, other, info), std::vector<uint16_t>(64, 0));
    const int x = raw[128] - raw[0], y = raw[192] - raw[64];
    EXPECT_EQ(from_raw[3 * 8], fastsqrt(static_cast<uint32_t>(x * x + y * y) >> 2)); // raw row 0

    // Two exposures: each pixel and the one two rows on get the brighter value.
    p->hdr_en = 1;
    std::vector<uint16_t> sorted = from_raw;
    for (uint32_t r : {0u, 1u, 4u, 5u})
        for (uint32_t c = 0; c < 8; c++) {
            uint16_t &a = sorted[epc_image_row(r, 8) * 8 + c], &b = sorted[epc_image_row(r + 2, 8) * 8 + c];
            a = b = std::max(a, b);
        }
    EXPECT_EQ(cam.decode(DRV_KIND_GRAY, raw, info), sorted);
    p->hdr_intg = 0x5AA5;
    EXPECT_EQ(cam.decode(DRV_KIND_GRAY, raw, info), from_raw);
    // The interleaved modes have no partner for the last two rows.
    info = EpcCamera::info(1, 8, 8, 2);
    const std::vector<uint16_t> pairs = cam.decode(DRV_KIND_GRAY, raw, info);
    for (uint32_t c = 0; c < 8; c++)
        EXPECT_EQ(pairs[epc_image_row(7, 8) * 8 + c], pairs[epc_image_row(5, 8) * 8 + c]);
}

TEST_F(EpcDecode, SyncCheckCorrectsOnceASecond)
{
    const tqcam_frame_info_t info = EpcCamera::info(2, 8, 4, 4);
    std::vector<uint16_t> good(128, 2048), bad = good;
    for (size_t i = 0; i < 13; i++) // 19 of 32 are not above 60 %
        bad[64 + i] = 2048 + 200;
    cam.take_sent();
    cam.enable(TQCAM_FILTER_SYNC_CHECK, 0x1234);
    EXPECT_FALSE(cam.decode(DRV_KIND_DIST, good, info).empty());
    EXPECT_TRUE(cam.decode(DRV_KIND_DIST, bad, info).empty());
    EXPECT_EQ(cam.result, -1);
    EXPECT_FALSE(p->frame_ok);
    EXPECT_EQ(cam.take_sent(), "17=003412 ");
    EXPECT_FALSE(cam.decode(DRV_KIND_DIST, bad, info).empty()); // within the second it is decoded
    bad[64] = 2048 + 79;                                        // 20 of 32
    EXPECT_FALSE(cam.decode(DRV_KIND_DIST, bad, info).empty());
    EXPECT_EQ(cam.take_sent(), "");
}

TEST_F(EpcDecode, AutoIntegrationTime)
{
    const struct {
        size_t low, high, bad, good;
        uint32_t ratio;
        int step;
    } cases[] = {
        {0, 0, 0, 1000, 5, 50}, {512, 10, 0, 1000, 5, 50}, {513, 0, 0, 1000, 5, 0},
        {0, 11, 0, 1000, 5, 0}, {0, 0, 10, 990, 5, -10},   {0, 0, 29, 971, 5, -20},
        {0, 0, 9, 991, 9, 50},  {0, 600, 9, 391, 9, -10},  {0, 512, 9, 479, 9, 0},
        {0, 600, 0, 400, 0, 0}, {0, 0, 29, 971, 30, 50},   {0, 0, 1000, 0, 5, -1000},
    };
    for (const auto &c : cases) {
        std::vector<uint16_t> words(c.low, 2);
        words.insert(words.end(), c.high, 3585);
        words.insert(words.end(), c.bad, 4095);
        words.insert(words.end(), c.good, 3584);
        EXPECT_EQ(_feature_auto_intg_calc_step(words.data(), 2 * words.size(), c.ratio), c.step)
            << c.low << " " << c.high << " " << c.bad << " " << c.ratio;
    }
    const std::vector<uint16_t> edges = {0, 1, 4095, 65535, 2, 511, 512, 3584, 3585, 4094};
    EXPECT_EQ(_feature_auto_intg_calc_step(edges.data(), 20, 5), -400);
    EXPECT_EQ(_feature_auto_intg_calc_step(edges.data(), 1, 5), 50);

    const tqcam_frame_info_t info = EpcCamera::info(2, 8, 4, 4);
    const struct {
        uint16_t current, sample, wanted;
    } runs[] = {{1490, 2048, 1500}, {1500, 2048, 1500}, {60, 4095, 50}, {300, 2048, 350}};
    for (const auto &r : runs) {
        cam.params[TQCAM_PARAM_INTG1] = {static_cast<uint8_t>(r.current),
                                         static_cast<uint8_t>(r.current >> 8)};
        cam.enable(TQCAM_FILTER_AUTO_INTG, 5);
        cam.take_sent();
        std::this_thread::sleep_for(std::chrono::milliseconds(4)); // at most every 2 ms
        cam.decode(DRV_KIND_DIST, std::vector<uint16_t>(128, r.sample), info);
        char sent[16];
        snprintf(sent, sizeof(sent), "13=%02x%02x ", r.wanted & 255, r.wanted >> 8);
        EXPECT_EQ(cam.take_sent(), r.wanted != r.current ? sent : "") << r.current;
    }
    EXPECT_TRUE(log.has("[_feature_auto_intg]AUTO_INTG: 1490->1500"));
    cam.fail_get = {TQCAM_PARAM_INTG1};
    std::this_thread::sleep_for(std::chrono::milliseconds(4));
    EXPECT_FALSE(cam.decode(DRV_KIND_DIST, std::vector<uint16_t>(128, 2048), info).empty());
    EXPECT_TRUE(log.has("[_feature_auto_intg]get intg failed"));
}

TEST_F(EpcDecode, RefusesWhatDoesNotFit)
{
    struct Case {
        const char *what;
        uint16_t fmt;
        uint32_t w, h;
        size_t raw_bytes, dst_bytes;
        int kind, result;
    };
    const Case cases[] = {
        {"good", 2, 8, 4, 256, 64, 1, 64},
        {"a byte short", 2, 8, 4, 255, 64, 1, -1},
        {"a byte short, gray", 2, 8, 4, 255, 64, 2, -1},
        {"dst a byte short", 2, 8, 4, 256, 63, 0, -1},
        {"two planes", 1, 8, 4, 128, 64, 1, 64},
        {"two planes short", 1, 8, 4, 127, 64, 2, -1},
        {"one plane", 10, 8, 4, 64, 64, 1, 64},
        {"product beyond 32 bits", 2, 65536, 65536, 256, 64, 1, -1},
        {"product beyond 64 bits of bytes", 2, UINT32_MAX, UINT32_MAX, 256, 64, 1, -1},
        {"odd height", 2, 8, 3, 256, 64, 1, -1},
        {"odd height, gray", 2, 8, 3, 256, 64, 2, -1},
        {"interleaved, two rows", 1, 8, 2, 256, 64, 1, -1},
        {"interleaved, odd", 4, 8, 5, 256, 128, 2, -1},
        {"interleaved, no rows", 4, 8, 0, 256, 64, 1, -1},
        {"no pixels", 2, 0, 4, 256, 64, 1, 0},
        {"one row pair", 2, 8, 2, 256, 64, 1, 32},
        {"one column", 2, 1, 4, 256, 64, 1, 8},
        {"pixels not by four", 2, 3, 2, 256, 64, 1, 12},
        {"pixels not by four, gray", 2, 3, 2, 256, 64, 2, 12},
        {"kind 3", 2, 8, 4, 256, 64, 3, -1},
        {"kind -1", 2, 8, 4, 256, 64, -1, -1},
        {"format 0", 0, 8, 4, 256, 64, 1, -1},
        {"format 8", 8, 8, 4, 256, 64, 1, -1},
        {"format 11", 11, 8, 4, 256, 64, 1, -1},
        {"calibration data", 171, 8, 4, 256, 64, 1, -1},
        {"format 258", 258, 8, 4, 256, 64, 1, -1},
    };
    for (const int hdr : {0, 1}) {
        p->hdr_en = static_cast<uint8_t>(hdr);
        for (const Case &c : cases) {
            tqcam_frame_info_t info = EpcCamera::info(c.fmt, c.w, c.h, 4);
            info.frame_size = UINT32_MAX; // lies: the raw length counts
            const std::vector<uint8_t> raw(c.raw_bytes, 7);
            std::vector<uint16_t> dst((c.dst_bytes + 1) / 2, 0xBEEF); // of the exact size, for the sanitizer
            EXPECT_EQ(cam.ops()->frame_decode(cam.drv(), dst.data(), static_cast<uint32_t>(c.dst_bytes),
                                              c.kind, raw.data(), static_cast<uint32_t>(raw.size()), &info),
                      c.result)
                << c.what;
        }
    }
    EXPECT_TRUE(log.has("[epc_frame_decode]Calibration data frame,size:"));
    EXPECT_TRUE(log.has("[epc_frame_decode]wrong data len: src=255, dst=64, frame_size="));
    tqcam_frame_info_t info = EpcCamera::info(2, 8, 4, 4);
    info.frame_size = 255; // and it counts when it is the smaller one
    EXPECT_TRUE(cam.decode(DRV_KIND_DIST, std::vector<uint16_t>(128, 2048), info).empty());
    for (int null = 0; null < 3; null++) {
        uint16_t buf[128] = {};
        EXPECT_EQ(cam.ops()->frame_decode(cam.drv(), null == 0 ? nullptr : buf, 64, 1,
                                          null == 1 ? nullptr : buf, 256, null == 2 ? nullptr : &info),
                  -1);
    }
    // A frame at an odd address.
    info.frame_size = 256;
    std::vector<uint16_t> dst(32);
    const std::vector<uint16_t> raw = flat(8, 4, 300, 0);
    std::vector<uint8_t> odd(257);
    memcpy(odd.data() + 1, raw.data(), 256);
    EXPECT_EQ(cam.ops()->frame_decode(cam.drv(), dst.data(), 64, 1, odd.data() + 1, 256, &info), 64);
    EXPECT_EQ(dst, std::vector<uint16_t>(32, 6245));
    // Without a frequency every distance is 0.
    epc_event_freq_change(cam.drv(), 0, 0);
    EXPECT_EQ(cam.decode(DRV_KIND_RAW, raw, EpcCamera::info(1, 8, 4, 2)), std::vector<uint16_t>(32, 0));
}

TEST_F(EpcDecode, GrayReferenceIsConsumed)
{
    tqcam_frame_info_t info = EpcCamera::info(11 | 0x300, 320, 240, 1);
    std::vector<uint16_t> raw(4 * 76800, 3000);
    const auto proc = [&] { return cam.ops()->frame_raw_proc(cam.drv(), raw.data(), 1, &info); };
    EXPECT_EQ(proc(), DRV_FRAME_CONSUMED);
    EXPECT_FALSE(log.has("change gray size"));
    info.frame_size = 614400;
    EXPECT_EQ(proc(), DRV_FRAME_CONSUMED);
    EXPECT_TRUE(log.has("[epc_frame_raw_proc]change gray size to 614400"));
    EXPECT_EQ(p->gray_buf.as<int16_t>()[100], 0); // nothing declares it ready
    p->gray_ready = 1;
    cam.enable(TQCAM_FILTER_GRAY_REF, 100);
    proc();
    EXPECT_EQ(p->gray_buf.as<int16_t>()[307199], 9);
    cam.disable(TQCAM_FILTER_GRAY_REF);
    proc();
    EXPECT_EQ(p->gray_buf.as<int16_t>()[307199], 0);
    EXPECT_EQ(cam.ops()->frame_raw_proc(cam.drv(), raw.data(), 2, &info), 0);
    EXPECT_EQ(cam.ops()->frame_raw_proc(cam.drv(), nullptr, 1, &info), 0);
}

TEST(EpcBooster, FourFramesOfOne)
{
    TempDir dir;
    LogCapture log;
    EpcCamera cam("E3");
    ASSERT_TRUE(cam.open());
    tqcam_frame_info_t info = EpcCamera::info(2, 4, 4, 4); // quarters of 16 samples
    info.time_usec = 990000;
    info.time_sec = 1000;
    const auto quarters = [](const std::vector<uint16_t> &raw) {
        std::string s;
        for (size_t q = 0; q < 4; q++) {
            EXPECT_EQ(raw[16 * q], raw[16 * q + 15]);
            s += std::to_string(raw[16 * q]);
        }
        return s;
    };
    std::vector<uint16_t> raw;
    const auto feed = [&](uint16_t n) {
        const tq_frame_hdr_t hdr = {info.frame_size, n, info.frame_format, 4, 4, 300, 300, 0, 0};
        tqcam_frame_info_t seen;
        cam.ops()->frame_get_info(cam.drv(), &seen, &hdr, nullptr, 0);
        raw.assign(64, n);
        return cam.ops()->frame_raw_proc(cam.drv(), raw.data(), 1, &info);
    };
    tqcam_frame_info_t out = {};
    const auto need = [&] {
        raw.assign(64, 77);
        return cam.ops()->frame_need_data(cam.drv(), raw.data(), 1, &out);
    };
    EXPECT_EQ(feed(1), 1); // below 20 frames a second
    EXPECT_EQ(quarters(raw), "1111");
    EXPECT_EQ(need(), 0);
    cam.ops()->on_update_fps(cam.drv(), 25);
    const struct {
        uint16_t fed; // 0: a frame is asked for instead
        int result;
        const char *quarters;
        uint32_t sec, usec; // of a frame that was made
    } steps[] = {
        {1, 0, "1111", 0, 0},         {0, 0, "77777777", 0, 0},    {2, 0, "2111", 0, 0},
        {0, 1, "2211", 1000, 999000}, // 1000 / 100, less 1
        {0, 1, "2221", 1001, 8000},   {0, 1, "2222", 1001, 17000}, {0, 0, "77777777", 0, 0},
        {3, 0, "3222", 0, 0},         {4, 0, "4444", 0, 0}, // no frame was made in between: begins anew
    };
    for (const auto &s : steps) {
        EXPECT_EQ(s.fed ? feed(s.fed) : need(), s.result);
        EXPECT_EQ(quarters(raw), s.quarters);
        if (s.sec) {
            EXPECT_EQ(out.time_sec, s.sec);
            EXPECT_EQ(out.time_usec, s.usec);
        }
    }
    EXPECT_TRUE(log.has("realloc bfps buffer since frame size changed : 128 -> 128 (blen=256, fsz=128)"));
    EXPECT_EQ(quarters(raw), "4444");
    feed(5);
    EXPECT_EQ(cam.ops()->frame_need_data(cam.drv(), raw.data(), 2, &out), 0);
    info.frame_size = 64; // another size came by: the caller's buffer may have room for that one only
    info.frame_format = 1;
    feed(6);
    EXPECT_EQ(need(), 0);
    info.frame_format = 2;
    for (const uint32_t size : {4u, 12u}) { // no quarters of samples
        info.frame_size = size;
        EXPECT_EQ(feed(7), 0);
        EXPECT_EQ(raw[0], 7);
        EXPECT_EQ(need(), 0);
    }
    cam.epc()->sport_en = 1;
    info.frame_size = 128;
    EXPECT_EQ(feed(8), 0);
    EXPECT_EQ(quarters(raw), "8888");
}

// Decodes, switches and events of one device on several threads at once.
TEST_F(EpcDecode, ThreadsShareADevice)
{
    calib_block_t half;
    half.w = half.h = 16;
    calib_write(EpcCamera::CALIB_FILE, {half});
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 2; t++)
        threads.emplace_back([&, t] {
            const uint32_t w = t ? 32 : 16;
            const std::vector<uint16_t> raw = noise(size_t{4} * w * 16, 1000, 3000);
            const tqcam_frame_info_t info = EpcCamera::info(2, w, 16, 4);
            std::vector<uint16_t> image(size_t{w} * 16);
            for (int i = 0; i < 200; i++)
                for (int kind = 0; kind < 3; kind++)
                    EXPECT_EQ(cam.ops()->frame_decode(cam.drv(), image.data(), 2 * w * 16, kind, raw.data(),
                                                      8 * w * 16, &info),
                              static_cast<int>(2 * w * 16));
        });
    for (int i = 0; i < 100; i++) {
        cam.enable(TQCAM_FILTER_MIN_AMP, 20);
        cam.disable(TQCAM_FILTER_MIN_AMP);
        cam.enable(TQCAM_FILTER_DENOISE, static_cast<uint16_t>(240 | i << 8));
        cam.ops()->on_update_mod_freq(cam.drv(), i % 2 ? 12000000 : 24000000, 0, 0);
        EXPECT_EQ(cam.enable(TQCAM_FILTER_PIXEL_CALIB), i % 2 == 1);
    }
    for (std::thread &t : threads)
        t.join();
}
