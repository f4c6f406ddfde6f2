#include <cmath>
#include <gtest/gtest.h>

#include "imx_camera.h"
#include "support/calib_blocks.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {
constexpr uint32_t F120 = 120000000, F40 = 40000000;
constexpr int DM = 1249, DM_LO = 3747;

// Packed values of a distance at a range, amplitude 1000.
int i_of(double mm, int range)
{
    return static_cast<int>(std::lround(-1000 * std::cos(2 * M_PI * mm / range)));
}
int q_of(double mm, int range)
{
    return static_cast<int>(std::lround(-1000 * std::sin(2 * M_PI * mm / range)));
}
ImxFrame dual(uint16_t format, double hi_mm, double lo_mm)
{
    return ImxFrame(format, {i_of(lo_mm, DM_LO), q_of(lo_mm, DM_LO), i_of(hi_mm, DM), q_of(hi_mm, DM)});
}
// A calibration of 8 x 4 with the same line for all pixels.
void save_calib(const std::vector<uint32_t> &freqs, float slope, float offset, int32_t slope_k = 1000,
                int32_t offset_mm = 0, uint32_t h = 6)
{
    std::vector<calib_block_t> blocks;
    for (uint32_t freq : freqs) {
        calib_block_t b = {.freq = freq, .w = 8, .h = h};
        b.global.slope_k = slope_k;
        b.global.offset = offset_mm;
        b.t_cal0 = b.t_cal1 = 0;
        blocks.push_back(b.line(slope, offset));
    }
    calib_write(ImxCamera::CALIB_FILE, blocks);
}

struct ImxDecode : ::testing::Test {
    TempDir dir;
    LogCapture log;
    ImxCamera cam;
    imx_priv_t *p = nullptr;
    void SetUp() override
    {
        ASSERT_TRUE(cam.open());
        p = cam.priv();
        cam.disable(TQCAM_FILTER_TEMP_CORR);
    }
    uint16_t first(const ImxFrame &f, int kind = DRV_KIND_DIST)
    {
        const auto image = cam.decode(kind, f.raw, f.info);
        return image.empty() ? 0xFFFF : image[0];
    }
};
} // namespace

TEST_F(ImxDecode, EveryFormat)
{
    const struct {
        uint16_t format;
        std::vector<int> values;
        uint16_t dist; // of 1249, or of 3747 below it
        uint16_t gray;
        const char *line;
    } cases[] = {
        {2, {-100, 0, 100, 0}, 624, 100, nullptr},
        {2, {0, 100, 0, -100}, 312, 100, nullptr},
        {10, {-100}, 0, 0, nullptr},
        {13, {200, 0}, 0, 100, "[imx_calc_dist_calib_none]QI format not support"},
        {14, {200, 0}, 0, 0, "[imx_calc_dist_calib_none]QI-dfreq format not support"},
        {0x8E, {200, 0}, 0, 0, "[imx_calc_dist_calib_none]QI-dfreq format not support"},
        {15, {0, 200}, 936, 100, "[imx_frame_decode]HDR frame received"},
        {16, {0, -2000}, 312, 1000, nullptr},
        {0x90, {0, -2000}, 312, 1000, nullptr},
        {17, {0, -200, -2000, 0}, 0, 100, nullptr}, // one frequency runs: two can't be read
    };
    for (const auto &c : cases) {
        log.clear();
        for (const uint32_t meta : {0u, 587u, 588u, 4001u}) {
            const ImxFrame f(c.format, c.values, 8, 4, meta);
            for (const int kind : {DRV_KIND_DIST, DRV_KIND_RAW})
                EXPECT_EQ(cam.decode(kind, f.raw, f.info), std::vector<uint16_t>(32, c.dist))
                    << c.format << " " << meta;
            p->info_hash = FRAME_HASH_NONE;
            EXPECT_NEAR(first(f, DRV_KIND_GRAY), c.gray, c.gray * 0.06) << c.format;
        }
        EXPECT_TRUE(!c.line || log.has(c.line));
    }
}

TEST_F(ImxDecode, PixelsDifferAndCanBeUnusable)
{
    ImxFrame packed(16, {0, 0}, 4, 5);
    for (size_t i = 0; i < 20; i++) {
        packed.put(0, i, i_of(60.0 * static_cast<double>(i), DM));
        packed.put(1, i, q_of(60.0 * static_cast<double>(i), DM));
    }
    const auto image = cam.decode(DRV_KIND_DIST, packed.raw, packed.info);
    for (size_t i = 1; i < 20; i++)
        EXPECT_NEAR(image[i], 60 * i, 1);
    ImxFrame words(2, {-100, 0, 100, 0});
    for (uint32_t k = 0; k < 4; k++)
        words.put(k, 3 + k, k == 0 ? -100 : k == 2 ? 100 : 0, true);
    const auto marked = cam.decode(DRV_KIND_DIST, words.raw, words.info);
    const auto gray = cam.decode(DRV_KIND_GRAY, words.raw, words.info);
    p->info_hash = FRAME_HASH_NONE;
    EXPECT_EQ(cam.decode(DRV_KIND_GRAY, words.raw, words.info), gray);
    for (size_t i = 0; i < 32; i++) {
        EXPECT_EQ(marked[i], i >= 3 && i < 7 ? 0 : 624) << i;
        EXPECT_EQ(gray[i] != 0, i < 3 || i >= 7);
    }
    EXPECT_EQ(cam.decode(DRV_KIND_RAW, words.raw, words.info)[4], 624); // no light: half a turn
    EXPECT_EQ(p->info_hash, FRAME_HASH_NONE);
}

TEST_F(ImxDecode, LengthsSizesAndKinds)
{
    for (const uint16_t format : {2, 10, 13, 14, 15, 16, 17, 0x91}) {
        const ImxFrame f(format, {1, 2, 3, 4});
        uint16_t dst[32];
        const auto decode = [&](uint32_t dst_size, uint32_t raw_len, const tqcam_frame_info_t &info,
                                int kind = DRV_KIND_DIST) {
            p->frame_ok = 1;
            // Exactly as long as said, so that a tool that watches memory sees every step beyond.
            const std::vector<uint8_t> raw(f.raw.begin(), f.raw.begin() + raw_len);
            return cam.ops()->frame_decode(cam.drv(), dst, dst_size, kind, raw.data(), raw_len, &info);
        };
        const auto len = static_cast<uint32_t>(f.raw.size());
        EXPECT_EQ(decode(64, len, f.info), 64) << format;
        log.clear();
        EXPECT_EQ(decode(64, len - 1, f.info), -1) << format;
        EXPECT_FALSE(p->frame_ok);
        EXPECT_EQ(log.has("]wrong data len: src=" + std::to_string(len - 1) + ", dst=64"), true) << format;
        EXPECT_EQ(log.has("frame_size="), format == 16);
        EXPECT_EQ(decode(63, len, f.info), -1);
        tqcam_frame_info_t info = f.info;
        info.frame_size--;
        EXPECT_EQ(decode(64, len, info), -1);
        for (const uint32_t meta : {6u, 588u, len, 0x55555556u, 0x7FFFFFFFu, UINT32_MAX - 3, UINT32_MAX}) {
            info = f.info;
            info.meta_size = meta;
            EXPECT_EQ(decode(64, len, info), -1) << meta;
        }
        const uint32_t sizes[][2] = {
            {65536, 65536}, {0x10000, 0x10001}, {UINT32_MAX, UINT32_MAX}, {0x80000000, 2},
            {9, 4},         {0x40000001, 8}};
        for (const auto &s : sizes) {
            info = f.info;
            info.width = s[0];
            info.height = s[1];
            EXPECT_EQ(decode(64, len, info), -1);
        }
        info = f.info;
        info.width = 0; // no pixel at all is a frame, too
        EXPECT_EQ(decode(64, len, info), 0);
        info.width = 7;
        info.height = 3; // not by four: nothing comes of it
        EXPECT_EQ(decode(42, len, info), 42);
        EXPECT_EQ(dst[20], 0);
        EXPECT_EQ(decode(42, len, info, DRV_KIND_GRAY), 42);
        EXPECT_EQ(dst[0], 0);
        for (const int kind : {3, -1, 256})
            EXPECT_EQ(decode(64, len, f.info, kind), -1);
        EXPECT_FALSE(p->frame_ok);
    }
    const struct {
        uint16_t format;
        int kind;
        bool ok;
    } others[] = {{0, 1, true}, {0x80, 1, true}, {8, 1, false},   {8, 0, true},
                  {8, 2, true}, {9, 0, false},   {171, 0, false}, {0x102, 2, false}};
    for (const auto &o : others) {
        ImxFrame f(16, {1, 2});
        f.info.frame_format = o.format;
        p->frame_ok = 1;
        cam.decode(o.kind, f.raw, f.info);
        EXPECT_EQ(cam.result, -1);
        EXPECT_EQ(p->frame_ok, o.ok) << o.format;
    }
    const ImxFrame f(16, {1, 2});
    uint16_t dst[32];
    EXPECT_EQ(imx_ops.frame_decode(cam.drv(), nullptr, 64, 1, f.raw.data(), 999, &f.info), -1);
    EXPECT_EQ(imx_ops.frame_decode(cam.drv(), dst, 64, 1, nullptr, 999, &f.info), -1);
    EXPECT_EQ(imx_ops.frame_decode(cam.drv(), dst, 64, 1, f.raw.data(), 999, nullptr), -1);
}

TEST_F(ImxDecode, RangesAndTheUsersOffset)
{
    const ImxFrame f(16, {i_of(300, DM), q_of(300, DM)});
    EXPECT_NEAR(first(f), 300, 1);
    const struct {
        int16_t mm;
        uint16_t thousandths;
        int expected;
    } cases[] = {{50, 0, 350},
                 {-400, 0, 1249 - 100},
                 {1000, 0, 51},
                 {0, 500, 774}, // half of 300 + 1249: scaled before turns are taken off
                 {0, 2000, 600}};
    for (const auto &c : cases) {
        cam.enable(TQCAM_FILTER_OFFSET, static_cast<uint16_t>(c.mm), c.thousandths);
        EXPECT_NEAR(first(f), c.expected, 2) << c.mm << " " << c.thousandths;
    }
    cam.disable(TQCAM_FILTER_OFFSET);
    p->dmax = 0;
    EXPECT_EQ(first(f), 0);
}

TEST_F(ImxDecode, TwoFrequencies)
{
    cam.ops()->on_update_mod_freq(cam.drv(), F120, F40, 0);
    cam.disable(TQCAM_FILTER_PIXEL_CALIB);
    for (const uint16_t format : {17, 0x91})
        for (double mm = 30; mm < DM_LO - 30; mm += 11) {
            ImxFrame f = dual(format, mm, mm);
            if (format == 0x91) // the fine pair comes first
                for (uint32_t k = 0; k < 2; k++) {
                    const int hi = k ? q_of(mm, DM) : i_of(mm, DM),
                              lo = k ? q_of(mm, DM_LO) : i_of(mm, DM_LO);
                    for (size_t i = 0; i < 32; i++) {
                        f.put(k, i, hi);
                        f.put(k + 2, i, lo);
                    }
                }
            EXPECT_NEAR(first(f), mm, 2) << format;
        }
    EXPECT_NEAR(first(dual(17, 100, 2600)), 2598, 4);
    // The coarse one stands where the fine one is weak.
    ImxFrame weak = dual(17, 100, 1500);
    for (size_t i = 0; i < 32; i++) {
        weak.put(2, i, i % 2 ? 20 : 21); // squared amplitude 100, 110
        weak.put(3, i, 0);
    }
    const auto image = cam.decode(DRV_KIND_DIST, weak.raw, weak.info);
    EXPECT_NEAR(image[0], 624 + 1249, 2);
    EXPECT_NEAR(image[1], 1500, 3);
    EXPECT_EQ(p->amp_buf.as<uint32_t>()[0], 110u);
    EXPECT_NEAR(p->amp_buf.as<uint32_t>()[1], 250000, 1000);
    // A slower first frequency: with bit 7 the pairs stay.
    cam.ops()->on_update_mod_freq(cam.drv(), F40, F120, 0);
    EXPECT_NEAR(first(ImxFrame(0x91, {i_of(900, DM), q_of(900, DM), i_of(900, DM_LO), q_of(900, DM_LO)})),
                900, 4);
    p->dmax1 = 0;
    EXPECT_EQ(first(dual(17, 100, 100)), 0);
}

TEST_F(ImxDecode, CalibrationByPixelAndByLine)
{
    const ImxFrame one(16, {i_of(300, DM), q_of(300, DM)}), two = dual(17, 1700, 1700),
                                                            words(13, {i_of(300, DM) / 2, q_of(300, DM) / 2}),
                                                            hdr(15, {i_of(300, DM) / 2, q_of(300, DM) / 2});
    const auto mount = [&](uint32_t f1) { cam.ops()->on_update_mod_freq(cam.drv(), F120, f1, 0); };
    // A neutral one changes nothing, to the bit.
    const uint16_t none1 = first(one);
    mount(F40);
    const uint16_t none2 = first(two);
    EXPECT_NEAR(none2, 1700, 2);
    save_calib({F120, F40}, 1, 0);
    for (const uint32_t f1 : {0u, F40}) {
        mount(f1);
        ASSERT_TRUE(p->f_en_pix_calib);
        for (const bool pixel : {true, false}) {
            if (!pixel)
                cam.disable(TQCAM_FILTER_PIXEL_CALIB);
            EXPECT_EQ(first(one), none1);
            EXPECT_EQ(first(two), f1 ? none2 : 0);
            EXPECT_NEAR(first(words), 300, 2); // decoded with calibration
            EXPECT_NEAR(first(hdr), 300, 2);
            EXPECT_EQ(first(ImxFrame(14, {200, 0})), 0);
        }
        mount(0);
        cam.ops()->on_update_mod_freq(cam.drv(), 1000000, 0, 0); // unmounts
    }
    // Pixels' lines and the common one; the raw kind takes neither.
    save_calib({F120, F40}, 1.01f, 20, 990, -15);
    mount(F40);
    EXPECT_NEAR(first(one), 323, 2);
    EXPECT_NEAR(first(two), 1249 + 1.01 * (1700 - 1249) + 20, 2); // by the fine one's turn
    EXPECT_NEAR(first(one, DRV_KIND_RAW), 300, 2);
    cam.disable(TQCAM_FILTER_PIXEL_CALIB);
    EXPECT_NEAR(first(one), 282, 2);
    EXPECT_TRUE(cam.enable(TQCAM_FILTER_PIXEL_CALIB));
    // Temperatures: the second row's correction covers as many millimetres as the first's.
    cam.enable(TQCAM_FILTER_TEMP_CORR);
    p->temp.temp_cb = 200;
    p->temp.temp_ib = 200;
    EXPECT_NEAR(first(one), 323 - (2.5 + 0.6) * 20, 2);
    EXPECT_NEAR(first(two), 1249 + 1.01 * (1700 - 62 - 1249) + 20, 3);
    ImxFrame coarse = dual(17, 0, 1700);
    for (size_t i = 0; i < 32; i++)
        coarse.put(2, i, 0), coarse.put(3, i, 0);
    EXPECT_NEAR(first(coarse), 1.01 * (1700 - 62) + 20, 3);
    cam.disable(TQCAM_FILTER_TEMP_CORR);
    // Frames that the planes don't fit decode without them; a part of the rows does.
    EXPECT_NEAR(first(ImxFrame(16, {i_of(300, DM), q_of(300, DM)}, 4, 4)), 300, 2);
    EXPECT_NEAR(first(ImxFrame(16, {i_of(300, DM), q_of(300, DM)}, 8, 7)), 300, 2);
    EXPECT_NEAR(first(ImxFrame(16, {i_of(300, DM), q_of(300, DM)}, 8, 6)), 323, 2);
    for (const float bad : {NAN, INFINITY, 3e38f}) {
        cam.ops()->on_update_mod_freq(cam.drv(), 1000000, 0, 0);
        save_calib({F120, F40}, bad, bad, INT32_MAX, INT32_MIN);
        mount(F40);
        first(one);
        first(two);
        cam.disable(TQCAM_FILTER_PIXEL_CALIB);
        first(two);
    }
}

TEST_F(ImxDecode, FiltersInOrder)
{
    ImxFrame f(16, {i_of(300, DM), q_of(300, DM)}, 32, 24); // amplitude 500
    const auto dim = [&](size_t pixel, double share) {
        f.put(0, pixel, static_cast<int>(share * i_of(300, DM)));
        f.put(1, pixel, static_cast<int>(share * q_of(300, DM)));
    };
    dim(200, 0.1);
    f.put(0, 400, 0);
    f.put(1, 400, 0);
    dim(500, 2); // bright: no upper limit here
    const auto run = [&] { return cam.decode(DRV_KIND_DIST, f.raw, f.info); };
    EXPECT_EQ(run()[400], 0); // no light
    EXPECT_NEAR(run()[200], 300, 6);
    cam.enable(TQCAM_FILTER_MIN_AMP, 100);
    EXPECT_EQ(run()[200], 0);
    EXPECT_NEAR(run()[500], 300, 1);
    cam.enable(TQCAM_FILTER_MIN_AMP, 50); // the dim one has 49.8
    EXPECT_EQ(run()[200], 0);
    p->f_en_hysteresis = 1;
    EXPECT_EQ(run()[200], 0); // in the band it stays what it was: dark at first
    dim(200, 0.11);
    EXPECT_NEAR(run()[200], 300, 6);
    dim(200, 0.1);
    EXPECT_NEAR(run()[200], 300, 6);
    EXPECT_EQ(run()[400], 0);
    dim(200, 0.08);
    EXPECT_EQ(run()[200], 0);
    p->f_en_hysteresis = 0;
    p->f_en_fill_hole = 1;
    EXPECT_NEAR(run()[200], 300, 2); // filled from around
    EXPECT_EQ(run()[400], 0);        // but not what had no light
    f.put(0, 300, i_of(700, DM));    // one pixel beside the others
    f.put(1, 300, q_of(700, DM));
    EXPECT_NEAR(run()[300], 700, 2);
    p->f_en_median = 1;
    p->median_ksize = 1;
    EXPECT_NEAR(run()[300], 700, 2);
    p->median_ksize = 5;
    EXPECT_NEAR(run()[300], 300, 2);
    // Every set of filters leaves the image in the caller's buffer.
    cam.ops()->on_update_mod_freq(cam.drv(), F120, 0, 0);
    for (int set = 0; set < 16; set++) {
        p->f_en_median = set & 1;
        p->f_en_bpf2d_iir = set >> 1 & 1;
        p->f_en_flyfilter = set >> 2 & 1;
        p->f_en_fill_hole = set >> 3;
        const auto image = run();
        EXPECT_NEAR(image[100], 300, 2) << set;
        EXPECT_EQ(image[400], 0) << set;
    }
    const ImxFrame line(16, {i_of(300, DM), q_of(300, DM)}, 32, 1), column(16, {1, 2}, 1, 32);
    EXPECT_EQ(cam.decode(DRV_KIND_DIST, line.raw, line.info).size(), 32u);
    EXPECT_EQ(cam.decode(DRV_KIND_DIST, column.raw, column.info).size(), 32u);
}

TEST_F(ImxDecode, GrayOfTheFrameDecodedLast)
{
    ImxFrame f(17, {300, 400, 600, 800});
    cam.ops()->on_update_mod_freq(cam.drv(), F120, F40, 0);
    EXPECT_NEAR(first(f, DRV_KIND_GRAY), 250, 15); // from the first pair
    first(f);
    EXPECT_NEAR(first(f, DRV_KIND_GRAY), 500, 30); // from the distance image's amplitudes, the fine pair's
    EXPECT_TRUE(log.has("[imx_frame_decode]use confid hash to calc gray ..."));
    f.info.frame_idx++;
    EXPECT_NEAR(first(f, DRV_KIND_GRAY), 250, 15); // another frame
    f.info.frame_idx--;
    const ImxFrame larger(16, {1, 2}, 8, 8);
    first(larger);
    p->info_hash = frame_hash(&f.info);
    EXPECT_NEAR(first(f, DRV_KIND_GRAY), 250, 15); // amplitudes of another size
}

TEST_F(ImxDecode, SyncCheckSendsTheDelay)
{
    cam.enable(TQCAM_FILTER_SYNC_CHECK, 0x1234);
    ImxFrame bad(2, {1, 2, 3, 4}, 8, 4, 3); // odd metadata: words aren't aligned
    cam.take_sent();
    EXPECT_EQ(first(bad), 0xFFFF);
    EXPECT_EQ(cam.take_sent(), "17=003412 ");
    EXPECT_FALSE(p->frame_ok);
    EXPECT_NE(first(bad), 0xFFFF); // within a second it goes on
    EXPECT_EQ(cam.take_sent(), "");
    ImxFrame good(2, {0, 0, 0, 0}, 8, 4, 0);
    for (size_t i = 0; i < good.raw.size(); i += 2) {
        const uint16_t v = 2048;
        memcpy(&good.raw[i], &v, 2);
    }
    p->frame_ok = 1;
    EXPECT_NE(first(good), 0xFFFF);
    EXPECT_TRUE(p->frame_ok);
}

// Format 2 with metadata, unpacked for tools.
TEST_F(ImxDecode, RawFramesWithMetadata)
{
    ImxFrame f(2, {-5, 6, -1024, 1023}, 192, 2, 592);
    for (size_t i = 0; i < 592; i++)
        f.raw[i] = static_cast<uint8_t>(i);
    std::vector<int16_t> out(2 + 4 * (192 * 2 + 3 * 192));
    const auto unpack = [&](uint32_t dst_len, uint32_t src_len) {
        return tqcam_get_raw_frames_ex(&cam.dev, out.data(), dst_len, f.raw.data(), src_len, &f.info);
    };
    const auto dst_len = static_cast<uint32_t>(2 * out.size()), src_len = static_cast<uint32_t>(f.raw.size());
    ASSERT_EQ(unpack(dst_len, src_len), static_cast<int>(dst_len));
    EXPECT_EQ(out[0] * 1000 + out[1], 192000 + 4 * 2 + 12);
    EXPECT_EQ(out[2], -5);
    EXPECT_EQ(out[2 + 384], 4);
    EXPECT_EQ(out[2 + 384 + 192], 200);
    EXPECT_EQ(out[2 + 960], 6);
    EXPECT_EQ(out[2 + 3 * 960 + 383], 1023);
    EXPECT_EQ(unpack(dst_len - 1, src_len), 0);
    EXPECT_EQ(unpack(dst_len, src_len - 1), 0);
    EXPECT_TRUE(log.has("wrong dst_len"));
    for (const uint32_t meta : {591u, 593u, UINT32_MAX}) {
        f.info.meta_size = meta;
        EXPECT_EQ(unpack(dst_len, src_len), 0);
    }
    // Two samples a pixel.
    ImxFrame ab(2, {-5, 6, -1024, 1023}, 384, 2, 592);
    ab.info.frame_format = 37;
    ab.info.width = 192;
    std::vector<int16_t> out2(2 + 4 * (384 * 2 + 3 * 384));
    const auto bytes = static_cast<uint32_t>(2 * out2.size());
    EXPECT_EQ(tqcam_get_raw_frames_ex(&cam.dev, out2.data(), bytes, ab.raw.data(),
                                      static_cast<uint32_t>(ab.raw.size()), &ab.info),
              static_cast<int>(bytes));
    EXPECT_EQ(out2[2 + 767], -5);
    EXPECT_EQ(out2[2 + 3 * 1920], 1023);
}
