// Raw frames of the E family, read back by a decoder of this file's own: sample pairs to an angle, the angle
// to a distance. It follows the sensor's rules and shares nothing with the simulator or the library.
#include "support/sim_shot.h"

#include <gtest/gtest.h>

namespace {

constexpr double RANGE = 12491; // of 12 MHz, in millimetres

struct errors_t {
    double median, bias, worst;
    size_t n; // pixels that were measured
};

// Errors of four planes, whose rows are delivered from the middle out, against the truth, around the range.
errors_t errors(const sim_frame_t &f)
{
    const uint32_t w = f.width, h = f.height;
    std::vector<double> abs;
    double sum = 0;
    for (uint32_t i = 0; i < w * h; i++) {
        int v[4];
        for (uint32_t p = 0; p < 4; p++)
            v[p] = f.data[2 * (p * w * h + i)] | f.data[2 * (p * w * h + i) + 1] << 8;
        if (std::any_of(v, v + 4, [](int s) { return s < 2 || s > 4093; }))
            continue;
        const uint32_t r = i / w, image_row = r % 2 == 0 ? h / 2 - 1 - r / 2 : h / 2 + r / 2;
        const double mm = (std::atan2(v[3] - v[1], v[2] - v[0]) / (2 * M_PI) + 0.5) * RANGE;
        const double e = std::remainder(mm - f.truth_mm[image_row * w + i % w], RANGE);
        sum += e;
        abs.push_back(std::fabs(e));
    }
    std::sort(abs.begin(), abs.end());
    const size_t n = abs.size();
    return n == 0 ? errors_t{} : errors_t{abs[n / 2], sum / static_cast<double>(n), abs[n - 1], n};
}

} // namespace

TEST(RawE, EachDefectShowsByItself)
{
    const auto run = [](void (*change)(sim_config_t *)) {
        sim_config_t cfg = sim_ideal("E1", SIM_SCENE_WALL, 2000, 2, 12000000);
        change(&cfg);
        EXPECT_EQ(sim_config_check(cfg), "");
        const auto source = sim_source_live(cfg);
        sim_frame_t f;
        source->next(source->self, &f);
        return errors(f);
    };
    errors_t e = run([](sim_config_t *c) { c->defects.offset_mm = 100; });
    EXPECT_NEAR(e.bias, 100, 0.5);
    e = run([](sim_config_t *c) { c->defects.offset_spread_mm = 30; });
    EXPECT_NEAR(e.median, 0.6745 * 30, 1); // median of |x| of a normal distribution
    e = run([](sim_config_t *c) { c->defects.slope_spread = 0.01; });
    EXPECT_NEAR(e.median, 0.6745 * 0.01 * 2250, 2);
    e = run([](sim_config_t *c) {
        c->defects.periodic = 0.01;
        c->scene = sim_scene_make(SIM_SCENE_RAMP);
    });
    EXPECT_NEAR(e.worst, 125, 3);
    e = run([](sim_config_t *c) {
        c->defects.drift = 1;
        c->temp_cb += 100;
        c->fps = 10;
    });
    EXPECT_NEAR(e.bias, 137.8, 0.5);
    e = run([](sim_config_t *c) { c->defects.dead_share = 0.03; });
    EXPECT_NEAR(static_cast<double>(e.n), 76800 * 0.98, 300); // two of three kinds are out of bounds
    e = run([](sim_config_t *c) {
        c->defects.read = 2;
        c->defects.shot = 0.01;
        c->defects.ambient = 200;
    });
    // sigma of the sample, over sqrt(2) times the amplitude, in turns of the range
    EXPECT_NEAR(e.median, 0.6745 * std::sqrt(4 + 0.01 * 1800) / std::sqrt(2) / 1000 / (2 * M_PI) * 12491,
                0.3);
    e = run([](sim_config_t *c) {
        c->defects.saturation = 1;
        c->defects.fixed_amp = 3000;
    });
    EXPECT_EQ(e.n, 0u);
    e = run([](sim_config_t *c) {
        c->defects.falloff = 1;
        c->defects.read = 2;
    });
    EXPECT_GT(e.median, 3);
}
