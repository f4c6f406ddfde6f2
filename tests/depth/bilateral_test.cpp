// The recursive bilateral filter against the rule as it is written: range weights, four recursions over whole
// planes, one quotient.
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "simd/dispatch.h"
#include "support/log_capture.h"
#include "tq_depth.h"

using image_t = std::vector<uint16_t>;
using plane_t = std::vector<float>;

struct params_t {
    uint16_t vmin, vmax;
    float sigma_spatial, sigma_range;
};

// A scene as the camera sees it: a slanted plane with noise and a ball before it, holes and invalid markers,
// and the lower three quarters empty when asked for.
static image_t scene(int w, int h, bool mostly_empty)
{
    std::mt19937 rng(7);
    image_t v((size_t)w * h);
    for (int y = 0; y < h; y++) {
        for (int x = 0; x < w; x++) {
            const bool ball = std::hypot(x - w / 2.0, y - h / 2.0) < h / 4.0;
            const uint32_t r = rng() % 100;
            v[(size_t)y * w + x] = r < 3     ? 0
                                   : r == 99 ? 65500
                                   : (mostly_empty && y > h / 4 && !ball)
                                       ? 0
                                       : (ball ? 800 : 2000 + 2 * x) + rng() % 25;
        }
    }
    return v;
}

static image_t reference(const image_t &src, int w, int h, const params_t &p)
{
    const float lo = std::min(p.vmin, p.vmax);
    float hi = std::max(p.vmin, p.vmax);
    if (hi >= lo + 4096)
        hi = lo + 4095;
    const int range_n = p.vmax - p.vmin + 1;
    const float q = 1 / (range_n * p.sigma_range);
    const float ax = (float)std::exp(-std::sqrt(2.0) / (w * p.sigma_spatial));
    const float ay = (float)std::exp(-std::sqrt(2.0) / (h * p.sigma_spatial));
    const auto weight = [&](size_t a, size_t b) {
        const float d = std::fmin(std::fmax(std::fabs((float)src[a] - (float)src[b]), lo), hi) - lo;
        return (int)d == range_n - 1 ? 0.0f : (float)std::exp(-(double)(int)d * q);
    };
    const size_t n = src.size();
    plane_t sum(n), norm(n), s(n), m(n), s2(n), m2(n);
    const float bx = 1 - ax;
    for (size_t row = 0; row < n; row += w) {
        s[row] = src[row], m[row] = 1;
        for (size_t i = row + 1; i < row + w; i++) {
            const float wt = ax * weight(i - 1, i);
            s[i] = wt * s[i - 1] + bx * src[i], m[i] = wt * m[i - 1] + bx;
        }
        s2[row + w - 1] = src[row + w - 1], m2[row + w - 1] = 1;
        for (size_t i = row + w - 1; i-- > row;) {
            const float wt = ax * weight(i, i + 1);
            s2[i] = wt * s2[i + 1] + bx * src[i], m2[i] = wt * m2[i + 1] + bx;
        }
    }
    for (size_t i = 0; i < n; i++)
        sum[i] = s[i] + s2[i], norm[i] = m[i] + m2[i];
    const float c = 1 / (1 - ay);
    for (size_t i = 0; i < n; i++) {
        const float wt = i < (size_t)w ? 0 : ay * weight(i - w, i);
        s[i] = i < (size_t)w ? sum[i] * c : wt * s[i - w] + sum[i];
        m[i] = i < (size_t)w ? norm[i] * c : wt * m[i - w] + norm[i];
    }
    image_t out(n);
    for (size_t i = n; i-- > 0;) {
        const bool last = i + w >= n;
        const float wt = last ? 0 : ay * weight(i, i + w);
        s2[i] = last ? sum[i] * c : wt * s2[i + w] + sum[i];
        m2[i] = last ? norm[i] * c : wt * m2[i + w] + norm[i];
        const float quotient = (s[i] + s2[i]) / (m[i] + m2[i]);
        out[i] = quotient > 0 ? (uint16_t)std::fmin(quotient, 65535.0f) : 0;
    }
    return out;
}

struct Filter : tq_bpf2d_iir_t {
    Filter(int width, int height, const params_t &p)
    {
        ok = tq_bpf2d_iir_init(this, width, height, p.vmin, p.vmax, p.sigma_spatial, p.sigma_range);
    }
    ~Filter() { tq_bpf2d_iir_uninit(this); }
    bool ok;
};

TEST(Bilateral, FollowsTheRule)
{
    const struct {
        int w, h;
    } sizes[] = {{1, 1}, {1, 9}, {9, 1}, {33, 17}, {160, 60}};
    const params_t params[] = {{0, 4096, 0.02f, 0.1f},
                               {0, 4095, 0.1f, 0.01f},
                               {20, 300, 0.05f, 0.05f},
                               {100, 65535, 1.0f, 1.0f},
                               {0, 200, 0.02f, 0.0005f},
                               {500, 500, 0.02f, 0.1f},
                               {0, 0, 0, 0}};
    for (const auto [w, h] : sizes) {
        for (const bool empty : {false, true}) {
            const image_t src = scene(w, h, empty);
            for (const params_t &p : params) {
                Filter f(w, h, p);
                ASSERT_TRUE(f.ok);
                image_t got(src);
                tq_bpf2d_iir(&f, got.data(), empty ? src.data() : got.data(), w, h); // also over itself
                // The reference keeps subnormals, the filter doesn't: no pixel may show it.
                ASSERT_EQ(got, reference(src, w, h, p))
                    << w << "x" << h << " range " << p.vmin << "-" << p.vmax;
            }
        }
    }
}

TEST(Bilateral, RefusesWhatItCannotServe)
{
    const struct {
        uint32_t w, h;
        uint16_t vmin, vmax;
        const char *line; // nullptr: accepted
    } cases[] = {
        {40960, 1, 0, 100, nullptr},
        {40961, 1, 0, 100, "[tq_bpf2d_iir_init]wrong image width or height: w=40961, h=1\n"},
        {1, 40961, 0, 100, "[tq_bpf2d_iir_init]wrong image width or height: w=1, h=40961\n"},
        {0, 4, 0, 100, "[tq_bpf2d_iir_init]wrong image width or height: w=0, h=4\n"},
        {8, 8, 100, 99, "[tq_bpf2d_iir_init]cannot malloc buffers for BPF\n"},
    };
    for (const auto &c : cases) {
        LogCapture log;
        tq_bpf2d_iir_t f;
        EXPECT_EQ(tq_bpf2d_iir_init(&f, c.w, c.h, c.vmin, c.vmax, 0.02f, 0.1f), c.line == nullptr);
        EXPECT_TRUE(!c.line || log.has(c.line)) << log.text();
        if (c.line) {
            image_t src(64, 5), dst(64, 77);
            tq_bpf2d_iir(&f, dst.data(), src.data(), c.w, c.h);
            EXPECT_EQ(dst, image_t(64, 77));
        }
        tq_bpf2d_iir_uninit(&f);
        tq_bpf2d_iir_uninit(&f); // a cleared record
    }

    LogCapture log;
    Filter f(8, 8, {0, 100, 0.02f, 0.1f});
    image_t src(64, 5), dst(64, 77);
    tq_bpf2d_iir(&f, dst.data(), src.data(), 8, 7);
    EXPECT_EQ(log.count("[tq_bpf2d_iir]wrong parameters: init=8x8, cur=8x7\n"), 1);
    EXPECT_EQ(dst, image_t(64, 77));
}
