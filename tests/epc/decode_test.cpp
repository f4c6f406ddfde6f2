#include <random>
#include <thread>

#include "drivers/common/amp_kernels.h"
#include "drivers/common/fast_sqrt.h"
#include "drivers/common/phase.h"
#include "epc_camera.h"
#include "support/calib_blocks.h"
#include "support/open_camera.h"
#include "support/sim_shot.h"

namespace {
// Four planes of one I and Q in every pixel.
std::vector<uint16_t> flat(size_t n, int i, int q)
{
    std::vector<uint16_t> raw(4 * n, 2048);
    std::fill_n(raw.begin() + static_cast<long>(2 * n), n, static_cast<uint16_t>(2048 + i));
    std::fill_n(raw.begin() + static_cast<long>(3 * n), n, static_cast<uint16_t>(2048 + q));
    return raw;
}
std::vector<uint16_t> noise(size_t n, uint32_t lo = 0, uint32_t hi = 4095)
{
    std::mt19937 rng(7);
    std::vector<uint16_t> v(n);
    for (uint16_t &s : v)
        s = static_cast<uint16_t>(lo + rng() % (hi - lo + 1));
    return v;
}
using EpcDecode = OpenCamera<EpcCamera>;
} // namespace

TEST_F(EpcDecode, SportModePicksPlanesByFrequency)
{
    const std::vector<uint16_t> raw = noise(4 * 64, 1, 4094);
    p->sport_en = 1;
    p->sport_mode = 2;
    for (const auto &[freq, plane, base] : {std::tuple{24000001u, 0u, 16384}, {24000000u, 2u, 0}}) {
        epc_event_freq_change(cam.drv(), freq, 0);
        const uint16_t *i = &raw[plane * 64], *q = i + 64;
        EXPECT_EQ(cam.decode(DRV_KIND_RAW, raw, EpcCamera::info(2, 8, 8, 4))[epc_image_row(0, 8) * 8],
                  phase_of(2048 - *i, 2048 - *q, base) * range_of(freq) / 32768);
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
        for (size_t i = 0; i < a.size(); i++) // a fresh state: the band counts as dark
            a[i] = amp[i] >= 900 ? a[i] : 0;
        tq_fhole_u16_k3(b.data(), a.data(), 320, 240, 0);
        for (size_t i = 0; i < b.size(); i++)
            b[i] = amp[i] ? b[i] : 0;
        p->hyst_state.release();
        EXPECT_EQ(cam.decode(DRV_KIND_DIST, raw, info), b) << on;
    }
}

TEST_F(EpcDecode, HysteresisBetweenFrames)
{
    const tqcam_frame_info_t info = EpcCamera::info(2, 8, 4, 4);
    const struct {
        int i;
        bool lit;
    } frames[] = {{58, false}, {60, true},   {58, true},    {57, true},  {56, false},
                  {58, false}, {4030, true}, {4040, false}, {4030, true}};
    // Amplitudes i * i / 4: lit from 900 on, dark again below 800; and an upper limit, 2048 - 30.
    for (const auto &f : frames) {
        std::vector<uint16_t> raw = flat(32, 0, 0);
        std::fill_n(raw.begin(), 32, static_cast<uint16_t>(f.i > 2000 ? 2 : 2048)); // plane 0
        std::fill_n(raw.begin() + 64, 32, static_cast<uint16_t>((f.i > 2000 ? 2 : 2048) + f.i));
        EXPECT_EQ(cam.decode(DRV_KIND_DIST, raw, info), std::vector<uint16_t>(32, f.lit ? 6245 : 0)) << f.i;
    }
    cam.disable(TQCAM_FILTER_MIN_AMP);
    EXPECT_EQ(cam.decode(DRV_KIND_DIST, flat(32, 4, 0), info), std::vector<uint16_t>(32, 6245));
}

TEST_F(EpcDecode, GrayFromAmplitudesOrRaw)
{
    tqcam_frame_info_t info = EpcCamera::info(2, 8, 8, 4);
    const std::vector<uint16_t> raw = noise(4 * 64), other(4 * 64, 2048);
    const std::vector<uint16_t> from_raw = cam.decode(DRV_KIND_GRAY, raw, info);
    cam.decode(DRV_KIND_DIST, raw, info);
    EXPECT_EQ(cam.decode(DRV_KIND_GRAY, other, info), from_raw); // the raw frame isn't even looked at
    info.frame_idx = 1;                                          // another frame
    EXPECT_EQ(cam.decode(DRV_KIND_GRAY, other, info), std::vector<uint16_t>(64, 0));
    EXPECT_EQ(fastsqrt(3000000), 1756); // no root: gray is defined by it
    const int x = raw[128] - raw[0], y = raw[192] - raw[64];
    EXPECT_EQ(from_raw[3 * 8], fastsqrt(static_cast<uint32_t>(x * x + y * y) >> 2)); // raw row 0

    // The interleaved modes have no partner for the last two rows.
    const std::vector<uint16_t> pairs = cam.decode(DRV_KIND_GRAY, raw, EpcCamera::info(1, 8, 8, 2));
    for (uint32_t c = 0; c < 8; c++)
        EXPECT_EQ(pairs[epc_image_row(7, 8) * 8 + c], pairs[epc_image_row(5, 8) * 8 + c]);
}

TEST_F(EpcDecode, AutoIntegrationTime)
{
    const struct {
        size_t low, high, bad, good;
        int step;
    } cases[] = {{512, 10, 0, 1000, 50}, {513, 0, 0, 1000, 0},  {0, 11, 0, 1000, 0},
                 {0, 0, 29, 971, -20},   {0, 600, 9, 391, -10}, {0, 512, 9, 479, 0}};
    for (const auto &c : cases) {
        std::vector<uint16_t> words(c.low, 2);
        words.insert(words.end(), c.high, 3585);
        words.insert(words.end(), c.bad, 4095);
        words.insert(words.end(), c.good, 3584);
        EXPECT_EQ(_feature_auto_intg_calc_step(words.data(), 2 * words.size(), 5), c.step);
    }
    const struct {
        uint16_t current, sample;
        const char *sent;
    } runs[] = {{1490, 2048, "13=dc05 "}, {1500, 2048, ""}, {60, 4095, "13=3200 "}, {300, 2048, "13=5e01 "}};
    for (const auto &r : runs) {
        cam.params[TQCAM_PARAM_INTG1] = {static_cast<uint8_t>(r.current),
                                         static_cast<uint8_t>(r.current >> 8)};
        cam.enable(TQCAM_FILTER_AUTO_INTG, 5);
        std::this_thread::sleep_for(std::chrono::milliseconds(4)); // at most every 2 ms
        cam.decode(DRV_KIND_DIST, std::vector<uint16_t>(128, r.sample), EpcCamera::info(2, 8, 4, 4));
        EXPECT_EQ(cam.take_sent(), r.sent) << r.current;
    }
}

TEST_F(EpcDecode, RefusesWhatDoesNotFit)
{
    const struct {
        const char *what;
        uint16_t fmt;
        uint32_t w, h, raw_bytes, dst_bytes;
        int kind, result;
    } cases[] = {
        {"good", 2, 8, 4, 256, 64, 1, 64},
        {"a byte short", 2, 8, 4, 255, 64, 1, -1},
        {"dst a byte short", 2, 8, 4, 256, 63, 0, -1},
        {"two planes short", 1, 8, 4, 127, 64, 2, -1},
        {"product beyond 32 bits", 2, 65536, 65536, 256, 64, 1, -1},
        {"product beyond 64 bits of bytes", 2, UINT32_MAX, UINT32_MAX, 256, 64, 1, -1},
        {"odd height", 2, 8, 3, 256, 64, 1, -1},
        {"interleaved, two rows", 1, 8, 2, 256, 64, 1, -1},
        {"no pixels", 2, 0, 4, 256, 64, 1, 0},
        {"pixels not by four, gray", 2, 3, 2, 256, 64, 2, 12},
        {"kind 3", 2, 8, 4, 256, 64, 3, -1},
        {"calibration data", 171, 8, 4, 256, 64, 1, -1},
    };
    p->hdr_en = 1;
    for (const auto &c : cases) {
        tqcam_frame_info_t info = EpcCamera::info(c.fmt, c.w, c.h, 4);
        info.frame_size = UINT32_MAX; // lies: the raw length counts
        const std::vector<uint8_t> raw(c.raw_bytes, 7);
        std::vector<uint8_t> dst(c.dst_bytes); // of the exact size, for the sanitizer
        EXPECT_EQ(cam.ops()->frame_decode(cam.drv(), dst.data(), c.dst_bytes, c.kind, raw.data(), c.raw_bytes,
                                          &info),
                  c.result)
            << c.what;
    }
    tqcam_frame_info_t info = EpcCamera::info(2, 8, 4, 4);
    info.frame_size = 255; // and it counts when it is the smaller one
    EXPECT_TRUE(cam.decode(DRV_KIND_DIST, flat(32, 300, 0), info).empty());
    epc_event_freq_change(cam.drv(), 0, 0); // without a frequency every distance is 0
    EXPECT_EQ(cam.decode(DRV_KIND_RAW, flat(32, 300, 0), EpcCamera::info(1, 8, 4, 2)),
              std::vector<uint16_t>(32, 0));
}

TEST(EpcBooster, FourFramesOfOne)
{
    TempDir dir;
    EpcCamera cam("E3");
    ASSERT_TRUE(cam.open());
    tqcam_frame_info_t info = EpcCamera::info(2, 4, 4, 4), out = {}; // quarters of 16 samples
    info.time_usec = 990000;
    std::vector<uint16_t> raw;
    const auto quarters = [&] {
        std::string s;
        for (size_t q = 0; q < 4; q++)
            s += std::to_string(raw[16 * q]);
        return s;
    };
    const auto feed = [&](uint16_t n) {
        const tq_frame_hdr_t hdr = {info.frame_size, n, info.frame_format, 4, 4, 300, 300, 0, 0};
        tqcam_frame_info_t seen;
        cam.ops()->frame_get_info(cam.drv(), &seen, &hdr, nullptr, 0);
        raw.assign(64, n);
        return cam.ops()->frame_raw_proc(cam.drv(), raw.data(), 1, &info);
    };
    const auto need = [&] {
        raw.assign(64, 7);
        return cam.ops()->frame_need_data(cam.drv(), raw.data(), 1, &out);
    };
    EXPECT_EQ(feed(1), 1); // below 20 frames a second
    cam.ops()->on_update_fps(cam.drv(), 25);
    const struct {
        uint16_t fed; // 0: a frame is asked for instead
        int result;
        const char *quarters;
        uint32_t usec; // of a frame that was made
    } steps[] = {
        {1, 0, "1111", 0},      {0, 0, "7777", 0},     {2, 0, "2111", 0},
        {0, 1, "2211", 999000}, // 1000 / 100, less 1
        {0, 1, "2221", 8000},   {0, 1, "2222", 17000}, {0, 0, "7777", 17000},
        {3, 0, "3222", 17000},  {4, 0, "4444", 17000}, // no frame was made in between: begins anew
    };
    for (const auto &s : steps) {
        EXPECT_EQ(s.fed ? feed(s.fed) : need(), s.result);
        EXPECT_EQ(quarters(), s.quarters);
        EXPECT_EQ(out.time_usec, s.usec);
    }
    feed(5);
    info.frame_size = 64; // another size came by: the caller's buffer may have room for that one only
    info.frame_format = 1;
    feed(6);
    EXPECT_EQ(need(), 0);
}

// Decodes, switches and events of one device on several threads at once.
TEST_F(EpcDecode, ThreadsShareADevice)
{
    calib_write(EpcCamera::CALIB_FILE, {{.w = 16, .h = 16}});
    std::vector<std::thread> threads;
    for (const uint32_t w : {16u, 32u})
        threads.emplace_back([&, w] {
            const std::vector<uint16_t> raw = noise(size_t{4} * w * 16, 1000, 3000);
            std::vector<uint16_t> image(size_t{w} * 16);
            const tqcam_frame_info_t info = EpcCamera::info(2, w, 16, 4);
            for (int i = 0; i < 600; i++)
                EXPECT_EQ(cam.ops()->frame_decode(cam.drv(), image.data(), 2 * w * 16, i % 3, raw.data(),
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
