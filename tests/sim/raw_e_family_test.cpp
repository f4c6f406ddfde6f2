// Raw frames of the E family, read back by a decoder of this file's own: sample pairs to an angle, the angle
// to a distance. It follows the sensor's rules and shares nothing with the simulator or the library.
#include "frame_source.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr double RANGE = 12491; // of 12 MHz, in millimetres

typedef struct decoded_t {
    std::vector<double> mm, amp; // by image row; mm -1: not measured
} decoded_t;

// Of four planes, rows as they leave the sensor or as they lie in the image: from the middle out.
decoded_t decode(const sim_frame_t &f, bool from_middle)
{
    const uint32_t w = f.width, h = f.height;
    decoded_t out = {std::vector<double>(w * h, -1), std::vector<double>(w * h, 0)};
    for (uint32_t r = 0; r < h; r++) {
        const uint32_t image_row = !from_middle ? r : r % 2 == 0 ? h / 2 - 1 - r / 2 : h / 2 + r / 2;
        for (uint32_t x = 0; x < w; x++) {
            int v[4];
            bool valid = true;
            for (uint32_t p = 0; p < 4; p++) {
                const size_t at = 2 * ((static_cast<size_t>(p) * h + r) * w + x);
                v[p] = f.data[at] | f.data[at + 1] << 8;
                valid = valid && v[p] >= 2 && v[p] <= 4093;
            }
            if (!valid)
                continue;
            const double i = v[2] - v[0], q = v[3] - v[1], turns = std::atan2(q, i) / (2 * M_PI) + 0.5;
            out.mm[image_row * w + x] = (turns - std::floor(turns)) * RANGE;
            out.amp[image_row * w + x] = std::hypot(i, q) / 2;
        }
    }
    return out;
}

typedef struct errors_t {
    double median, bias, worst;
    size_t n;
} errors_t;

// Errors of the measured pixels against the truth, around the range.
errors_t errors(const decoded_t &d, const sim_frame_t &f)
{
    std::vector<double> abs;
    double sum = 0;
    for (size_t i = 0; i < d.mm.size(); i++) {
        if (d.mm[i] < 0)
            continue;
        const double e = std::remainder(d.mm[i] - f.truth_mm[i], RANGE);
        sum += e;
        abs.push_back(std::fabs(e));
    }
    std::sort(abs.begin(), abs.end());
    const size_t n = abs.size();
    return n == 0 ? errors_t{} : errors_t{abs[n / 2], sum / static_cast<double>(n), abs[n - 1], n};
}

sim_config_t ideal(sim_scene_kind_t scene, double mm)
{
    sim_config_t cfg = sim_config_default(sim_camera_find("E1"));
    cfg.scene = sim_scene_make(scene);
    cfg.scene.distance_mm = mm;
    cfg.defects = sim_defects_none();
    return cfg;
}

} // namespace

TEST(RawE, EachDefectShowsByItself)
{
    const auto run = [](void (*change)(sim_config_t *)) {
        sim_config_t cfg = ideal(SIM_SCENE_WALL, 2000);
        change(&cfg);
        EXPECT_EQ(sim_config_check(cfg), "");
        const auto source = sim_source_live(cfg);
        sim_frame_t f;
        source->next(source->self, &f);
        return errors(decode(f, true), f);
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

TEST(RawE, EdgesMixWhatTheySee)
{
    sim_config_t cfg = ideal(SIM_SCENE_ROOM, 2800);
    size_t between[2];
    for (int flying = 0; flying < 2; flying++) {
        cfg.defects.flying = flying;
        const auto source = sim_source_live(cfg);
        sim_frame_t f;
        source->next(source->self, &f);
        const decoded_t d = decode(f, true);
        between[flying] = 0;
        for (size_t i = 0; i < d.mm.size(); i++)
            between[flying] += std::fabs(std::remainder(d.mm[i] - f.truth_mm[i], RANGE)) > 100;
    }
    EXPECT_EQ(between[0], 0u);
    EXPECT_GT(between[1], 200u);
    EXPECT_LT(between[1], 2000u);
}

// The same bits everywhere: frames of a seed are compared between machines and releases.
TEST(RawE, FramesFollowFromTheSeed)
{
    const auto hash = [](uint64_t seed, int frame) {
        sim_config_t cfg = sim_config_default(sim_camera_find("E1"));
        cfg.defects = sim_defects_all(cfg.camera);
        cfg.warmup_deg = 20;
        cfg.seed = seed;
        const auto source = sim_source_live(cfg);
        sim_frame_t f;
        for (int i = 0; i <= frame; i++)
            source->next(source->self, &f);
        uint64_t h = 14695981039346656037u;
        for (const uint8_t byte : f.data)
            h = (h ^ byte) * 1099511628211u;
        return h;
    };
    EXPECT_EQ(hash(7, 3), 3821600351045181199u);
    EXPECT_NE(hash(7, 3), hash(7, 2));
    EXPECT_NE(hash(7, 3), hash(8, 3));
}

TEST(RawFrames, RefuseWhatCannotBe)
{
    const struct {
        const char *camera;
        void (*change)(sim_config_t *);
        const char *word;
    } cases[] = {
        {"E1", [](sim_config_t *) {}, ""},
        {"E1", [](sim_config_t *c) { c->format = 17; }, "format 17"},
        {"E1", [](sim_config_t *c) { c->freq0 = 0; }, "frequency"},
        {"E1", [](sim_config_t *c) { c->freq1 = 40000000; }, "one modulation frequency"},
        {"E1", [](sim_config_t *c) { c->fps = 0; }, "frame rate"},
        {"E1", [](sim_config_t *c) { c->intg_us = 0; }, "integration"},
        {"E1", [](sim_config_t *c) { c->format = 4, c->intg2_us = 100; }, "second integration"},
        {"E1", [](sim_config_t *c) { c->scene.distance_mm = NAN; }, "distance"},
        {"S570C4", [](sim_config_t *c) { c->format = 144; }, "format 144"},
        {"S570C4", [](sim_config_t *c) { c->format = 17, c->freq1 = 0; }, "needs two"},
        {"S570C4", [](sim_config_t *c) { c->meta_size = 1u << 30; }, "metadata"},
    };
    for (const auto &c : cases) {
        sim_config_t cfg = sim_config_default(sim_camera_find(c.camera));
        c.change(&cfg);
        const std::string error = sim_config_check(cfg);
        EXPECT_TRUE(*c.word ? error.find(c.word) != std::string::npos : error.empty()) << c.word << error;
    }
}
