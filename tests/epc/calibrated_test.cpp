#include <cmath>
#include <functional>
#include <random>

#include "drivers/common/phase.h"
#include "epc_camera.h"
#include "support/calib_blocks.h"
#include "support/open_camera.h"

namespace {
constexpr uint32_t W = 8, H = 8, N = W * H;
constexpr int DMAX = 12491, TC = 200 + 100 + 30; // phase of the temperature correction

// A camera with a line for each pixel, global terms, a periodic error and temperature coefficients.
struct EpcCalibrated : OpenCamera<EpcCamera> {
    std::vector<uint16_t> raw = std::vector<uint16_t>(4 * N);
    calib_block_t c;

    void SetUp() override
    {
        c.global.slope_k = 1010;
        c.global.offset = -33;
        c.global.amp = 12;
        c.global.omega = static_cast<float>(8 * M_PI / DMAX);
        c.global.pha = 0.7f;
        c.global.ofs = 4;
        c.tcoef = {1, 2, 40, 5, 20};
        std::mt19937 rng(3);
        for (uint32_t i = 0; i < N; i++) {
            c.slope.push_back(0.97f + static_cast<float>(rng() % 600) * 1e-4f);
            c.offset.push_back(static_cast<float>(rng() % 400) - 200.5f);
        }
        for (uint16_t &s : raw)
            s = static_cast<uint16_t>(1000 + rng() % 2000);
        raw[0] = 4095; // an invalid pixel
        ASSERT_TRUE(calib_write(EpcCamera::CALIB_FILE, {c}));
        OpenCamera::SetUp();
        cam.disable(TQCAM_FILTER_MIN_AMP);
        p->temp.temp_cb = 350; // 5 and 20 degrees above the calibration's, and 15 frames more
        p->temp.temp_ib = 600;
        p->rate.fps_set = 25;
    }
    float periodic(float d) const
    {
        return periodic_correct(d, {c.global.amp, c.global.omega, c.global.pha, c.global.ofs});
    }
    static float wrap(float d) { return d < 0 ? d + DMAX : d > DMAX ? d - DMAX : d; }
    // Integers nearly all the way, cut before they wrap.
    uint16_t by_line(int ph, uint32_t at, bool pixel, float scale = 1, int offset = 0) const
    {
        const int d0 = static_cast<int>(static_cast<float>(ph) - TC) * DMAX / 32768;
        const int d = pixel ? static_cast<int>(static_cast<float>(d0) * c.slope[at] + c.offset[at])
                            : ph * DMAX / 32768 * 1010 / 1000 - 33 - TC * DMAX / 32768;
        const auto r = static_cast<int64_t>(periodic(static_cast<float>(d)));
        return static_cast<uint16_t>(
            wrap(static_cast<float>(r * static_cast<int>(32768 * scale) / 32768 + offset)));
    }
    // Four DCS with one line for all pixels: floats, which wrap before they are cut.
    uint16_t global(int ph) const
    {
        const float k = static_cast<float>(1010 / 1000.0 * DMAX / 32768.0);
        return static_cast<uint16_t>(
            wrap(periodic(static_cast<float>(ph) * k + static_cast<float>(-33 - TC * DMAX / 32768))));
    }
};
} // namespace

// Each mode by its rule, to the bit, with a line for each pixel and with one for all.
TEST_F(EpcCalibrated, ModesFollowTheirRules)
{
    using sample_t = std::function<int(uint32_t)>;
    const auto plane = [&](uint32_t k) -> sample_t {
        return [this, k](uint32_t i) { return 2048 - raw[k * N + i]; };
    };
    const auto between = [&](uint32_t a, uint32_t b) -> sample_t {
        return [this, a, b](uint32_t i) { return raw[b * N + i] - raw[a * N + i]; };
    };
    const struct {
        const char *what;
        uint16_t fmt;
        uint32_t planes;
        bool pairs, sport;
        sample_t i, q;
        int base;
    } modes[] = {
        {"4 DCS", 2, 4, false, false, between(0, 2), between(1, 3), PHASE_HALF},
        {"2 DCS", 1, 2, true, false, between(0, 1), between(0, 1), PHASE_HALF},
        {"1 DCS", 4, 1, true, false, plane(0), plane(0), PHASE_HALF},
        {"2 DCS of four planes", 2, 4, false, true, plane(1), plane(2), 24576}, // 12 MHz: planes 1 and 2
    };
    for (const bool pixel : {false, true})
        for (const auto &m : modes) {
            SCOPED_TRACE(m.what);
            pixel ? cam.enable(TQCAM_FILTER_PIXEL_CALIB) : cam.disable(TQCAM_FILTER_PIXEL_CALIB);
            p->sport_en = m.sport;
            p->sport_mode = m.sport ? 2 : 0;
            const std::vector<uint16_t> got =
                cam.decode(DRV_KIND_DIST, raw, EpcCamera::info(m.fmt, W, H, m.planes));
            ASSERT_EQ(got.size(), size_t{N});
            // The terms of the frame before are in a table.
            EXPECT_EQ(cam.decode(DRV_KIND_DIST, raw, EpcCamera::info(m.fmt, W, H, m.planes)), got);
            for (uint32_t i = 0; i < N; i++) {
                uint32_t at = i, i_at = i, q_at = i;
                if (m.pairs) { // the last rows are copies
                    at = i / W < H - 2 ? i : i - 2 * W;
                    const bool swap = at / W / 2 % 2 != 0;
                    i_at = swap ? at + 2 * W : at;
                    q_at = swap ? at : at + 2 * W;
                }
                const bool valid = raw[i_at] != 4095 && raw[q_at] != 4095;
                const int ph = phase_of(m.i(i_at), m.q(q_at), m.base);
                const bool floats = m.planes == 4 && !m.sport && !pixel;
                const uint16_t want = !valid ? 0 : floats ? global(ph) : by_line(ph, at, pixel);
                EXPECT_EQ(got[epc_image_row(i / W, H) * W + i % W], want) << i << (pixel ? ", pixel" : "");
            }
        }
    // The system's own line comes last.
    p->sport_en = p->sport_mode = 0;
    const float line[2] = {1.03f, -60};
    cam.params[18].assign(17, 0);
    memcpy(&cam.params[18][4], line, sizeof(line));
    EXPECT_FALSE(cam.enable(TQCAM_FILTER_SYS_CALIB)); // not valid
    cam.params[18][16] = 1;
    cam.ops()->on_update_mod_freq(cam.drv(), 0, 0, 0); // events refresh it
    const std::vector<uint16_t> got = cam.decode(DRV_KIND_DIST, raw, EpcCamera::info(2, W, H, 4));
    const int ph = phase_of(raw[2 * N + 9] - raw[9], raw[3 * N + 9] - raw[N + 9], PHASE_HALF);
    EXPECT_EQ(got[epc_image_row(1, H) * W + 1], by_line(ph, 9, true, 1.03f, -60));
}
