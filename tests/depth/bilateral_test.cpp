// The recursive bilateral filter against answers of a program of its own that works the rule in f64: range
// weights, four recursions over whole planes, one quotient.
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "tq_depth.h"

using image_t = std::vector<uint16_t>;

struct params_t {
    uint16_t vmin, vmax;
    float sigma_spatial, sigma_range;
};

struct Filter : tq_bpf2d_iir_t {
    Filter(int width, int height, const params_t &p)
    {
        ok = tq_bpf2d_iir_init(this, width, height, p.vmin, p.vmax, p.sigma_spatial, p.sigma_range);
    }
    ~Filter() { tq_bpf2d_iir_uninit(this); }
    bool ok;
};

// A slanted plane with noise, a ball before it, a hole and an invalid marker.
TEST(Bilateral, FollowsTheRule)
{
    const image_t src = {2000, 2020, 2011, 800,  812, 0,     2004, 0,    2016, 805,  798,  809,
                         2009, 2013, 1995, 2030, 801, 65500, 2002, 2018, 2022, 2040, 2051, 2044};
    const struct {
        params_t params;
        float want[24];
    } cases[] = {
        {{0, 200, 0.5f, 0.02f}, {2000.3f, 2019.6f, 2011.5f, 800.4f,  811.7f,  0.0f,    2003.7f, 0.0f,
                                 2015.4f, 804.1f,  799.2f,  808.9f,  2008.3f, 2012.7f, 1995.1f, 2030.4f,
                                 800.8f,  65500,   2002.3f, 2017.9f, 2021.6f, 2040.0f, 2049.9f, 2044.2f}},
        {{20, 300, 0.5f, 0.05f}, {2004.4f, 2010.9f, 2010.3f, 803.2f,  807.6f,  0.0f,    2005.5f, 0.0f,
                                  2012.9f, 804.4f,  804.3f,  807.2f,  2008.1f, 2012.8f, 2010.0f, 2029.1f,
                                  803.0f,  65500,   2009.6f, 2017.5f, 2022.6f, 2033.0f, 2040.2f, 2040.8f}},
        {{100, 65535, 1.0f, 1.0f}, {2356.2f, 2389.9f,  2579.5f, 2613.1f, 2901.0f, 3683.9f, 2679.1f, 2779.9f,
                                    3111.7f, 3312.3f,  3805.0f, 5155.7f, 4554.3f, 5280.7f, 6111.9f, 7206.8f,
                                    8711.2f, 13678.9f, 2850.4f, 3081.0f, 3369.2f, 3715.2f, 4185.7f, 5669.3f}},
    };
    for (const auto &c : cases) {
        Filter f(6, 4, c.params);
        ASSERT_TRUE(f.ok);
        image_t got(24), same = src;
        tq_bpf2d_iir(&f, got.data(), src.data(), 6, 4);
        tq_bpf2d_iir(&f, same.data(), same.data(), 6, 4);
        EXPECT_EQ(same, got);
        for (int i = 0; i < 24; i++) // cut, not rounded
            EXPECT_NEAR(got[i], c.want[i] - 0.5f, 0.6f) << c.params.vmin << " at " << i;
    }
}

TEST(Bilateral, RefusesWhatItCannotServe)
{
    const struct {
        uint32_t w, h;
        uint16_t vmin, vmax;
    } cases[] = {{40961, 1, 0, 100}, {1, 40961, 0, 100}, {0, 4, 0, 100}, {8, 8, 100, 99}};
    LogCapture log;
    const image_t src(64, 5);
    image_t dst(64, 77);
    for (const auto &c : cases) {
        tq_bpf2d_iir_t f;
        EXPECT_FALSE(tq_bpf2d_iir_init(&f, c.w, c.h, c.vmin, c.vmax, 0.02f, 0.1f));
        tq_bpf2d_iir(&f, dst.data(), src.data(), c.w, c.h);
        tq_bpf2d_iir_uninit(&f);
        tq_bpf2d_iir_uninit(&f); // a cleared record
    }
    EXPECT_EQ(log.count("[tq_bpf2d_iir_init]wrong image width or height: w="), 3);
    EXPECT_EQ(log.count("[tq_bpf2d_iir_init]cannot malloc buffers for BPF\n"), 1);
    Filter f(8, 8, {0, 100, 0.02f, 0.1f});
    tq_bpf2d_iir(&f, dst.data(), src.data(), 8, 7);
    EXPECT_EQ(log.count("[tq_bpf2d_iir]wrong parameters: init=8x8, cur=8x7\n"), 1);
    EXPECT_EQ(dst, image_t(64, 77));
}
