// Raw frames of the S family, read back by a decoder of this file's own.
#include "frame_source.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <string>

namespace {

// Value i of the data of sub-frame k. valid turns false for a value that is marked as unusable.
int value_at(const sim_frame_t &f, bool packed, uint32_t k, size_t i, bool *valid)
{
    const size_t n = static_cast<size_t>(f.width) * f.height;
    const size_t bytes = packed ? n * 3 / 2 : n * 2;
    const uint8_t *data = f.data.data() + k * (bytes + f.meta_size) + f.meta_size;
    if (packed) {
        const size_t bit = 12 * i;
        const int v = (data[bit / 8] | data[bit / 8 + 1] << 8) >> bit % 8 & 0xFFF;
        return v >= 2048 ? v - 4096 : v;
    }
    *valid = *valid && (data[2 * i] & 0x80) == 0;
    const int v = (data[2 * i] << 8 | data[2 * i + 1]) >> 4 & 0x7FF;
    return v >= 1024 ? v - 2048 : v;
}

typedef struct pair_t {
    double i, q;
    bool valid;
} pair_t;

// I and Q from sub-frame first and the one behind it, or from four samples.
pair_t pair_at(const sim_frame_t &f, uint32_t first, size_t pixel)
{
    const uint32_t code = f.format & 0x7F;
    bool valid = true;
    const auto v = [&](uint32_t k) { return value_at(f, code >= 16, k, pixel, &valid); };
    if (code == 2)
        return {double(v(2) - v(0)), double(v(3) - v(1)), valid};
    const double i = v(first), q = v(first + 1); // in this order, valid comes last
    return {i, q, valid};
}

double mm_of(const pair_t &p, double range)
{
    const double turns = std::atan2(p.q, p.i) / (2 * M_PI) + 0.5;
    return (turns - std::floor(turns)) * range;
}

sim_config_t ideal(const char *camera, uint32_t format, uint32_t mhz0, uint32_t mhz1, sim_scene_kind_t scene,
                   double mm)
{
    sim_config_t cfg = sim_config_default(sim_camera_find(camera));
    cfg.scene = sim_scene_make(scene);
    cfg.scene.distance_mm = mm;
    cfg.defects = sim_defects_none();
    cfg.format = format;
    cfg.freq0 = mhz0 * 1000000;
    cfg.freq1 = mhz1 * 1000000;
    return cfg;
}

} // namespace

TEST(RawS, IdealScenesDecodeToTheirDistance)
{
    const struct {
        const char *camera;
        uint32_t format, mhz0, mhz1, subframes, high, low; // first sub-frame of each pair
        double amp, worst;
    } cases[] = {
        {"S570C4", 16, 120, 0, 2, 0, 0, 1000, 0.5},   {"S1", 2, 120, 0, 4, 0, 0, 1000, 0.5},
        {"S1", 13, 100, 0, 2, 0, 0, 500, 0.7},        {"S2", 15, 100, 0, 2, 0, 0, 500, 0.7},
        {"S570C4", 17, 120, 40, 4, 2, 0, 1000, 0.5},  {"S570C4", 17, 120, 20, 4, 2, 0, 1000, 0.5},
        {"S570C4", 145, 120, 40, 4, 0, 2, 1000, 0.5}, {"S570C4", 145, 40, 120, 4, 2, 0, 1000, 2},
        {"S3", 14, 120, 40, 2, 0, 0, 500, 0.7},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.format) + " at " + std::to_string(c.mhz0) + "/" +
                     std::to_string(c.mhz1));
        const double high = sim_range_mm(c.mhz0 * 1000000), low = sim_range_mm(c.mhz1 * 1000000);
        sim_config_t cfg = ideal(c.camera, c.format, c.mhz0, c.mhz1, SIM_SCENE_RAMP, std::max(high, low));
        ASSERT_EQ(sim_config_check(cfg), "");
        const auto source = sim_source_live(cfg);
        sim_frame_t f;
        ASSERT_TRUE(source->next(source->self, &f));
        const size_t n = static_cast<size_t>(f.width) * f.height;
        ASSERT_EQ(f.data.size(),
                  c.subframes * (f.meta_size + (c.format >= 16 && c.format != 14 ? n * 3 / 2 : n * 2)));
        for (size_t i = 0; i < n; i += 7) {
            const pair_t p = pair_at(f, c.high, i);
            ASSERT_TRUE(p.valid);
            ASSERT_NEAR(std::hypot(p.i, p.q), c.amp, 2);
            ASSERT_LT(std::fabs(std::remainder(mm_of(p, high) - f.truth_mm[i], high)), c.worst) << i;
            if (c.low != c.high) {
                ASSERT_LT(std::fabs(std::remainder(mm_of(pair_at(f, c.low, i), low) - f.truth_mm[i], low)),
                          3 * c.worst)
                    << i;
            }
        }
    }
}

TEST(RawS, MetadataTellsTheIntegrationTime)
{
    const struct {
        const char *camera;
        uint32_t map, first;
    } cases[] = {{"S1", 1110, 367}, {"S570C4", 1302, 287}};
    for (const auto &c : cases) {
        sim_config_t cfg = ideal(c.camera, 16, 120, 0, SIM_SCENE_DOME, 700);
        cfg.intg_us = 731;
        const auto source = sim_source_live(cfg);
        sim_frame_t f;
        source->next(source->self, &f);
        for (const size_t sub : {size_t{0}, f.data.size() / 2}) { // a copy stands in front of each sub-frame
            const uint8_t *m = f.data.data() + sub, *v = m + c.first;
            EXPECT_EQ(m[16] << 4 | m[19] >> 4, static_cast<int>(c.map));
            EXPECT_EQ(((uint32_t{v[0]} << 24 | v[3] << 16 | v[6] << 8 | v[9]) / 120) + 1, 731u);
        }
        EXPECT_EQ(f.meta_size, 592u);
        EXPECT_EQ(f.meta_intg_us, 731u);
        cfg.meta_size = 0;
        ASSERT_TRUE(source->configure(source->self, cfg));
        source->next(source->self, &f);
        EXPECT_EQ(f.data.size(), size_t{640} * 480 * 3);
        EXPECT_EQ(f.meta_intg_us, 0u);
    }
}

TEST(RawS, FullPixelsAreMarked)
{
    for (const uint32_t format : {2u, 13u, 15u, 16u}) {
        SCOPED_TRACE(format);
        sim_config_t cfg = ideal("S1", format, 120, 0, SIM_SCENE_DOME, 700);
        cfg.defects.saturation = 1;
        cfg.defects.fixed_amp = 3000;
        if (format == 15) // the second, shorter time saves the pixel
            cfg.intg2_us = cfg.intg_us / 10;
        ASSERT_EQ(sim_config_check(cfg), "");
        const auto source = sim_source_live(cfg);
        sim_frame_t f;
        source->next(source->self, &f);
        const pair_t p = pair_at(f, 0, 1234);
        if (format == 16) {
            EXPECT_EQ(std::hypot(p.i, p.q), 0);
        } else {
            EXPECT_EQ(p.valid, format == 15);
        }
        if (format == 15) {
            EXPECT_NEAR(mm_of(p, 1249), 700, 2);
        }
    }
}

TEST(RawS, FittedScenesLieInTheRange)
{
    for (const char *camera : {"S1", "S570C4", "E1"}) {
        sim_config_t cfg = sim_config_default(sim_camera_find(camera));
        sim_config_fit(&cfg);
        const auto source = sim_source_live(cfg);
        sim_frame_t f;
        source->next(source->self, &f);
        const int32_t range = sim_range_mm(cfg.freq1 != 0 ? cfg.freq1 : cfg.freq0);
        EXPECT_LT(*std::max_element(f.truth_mm.begin(), f.truth_mm.end()), range) << camera;
        size_t full = 0;
        for (size_t i = 0; i < f.truth_mm.size() && f.meta_size != 0; i++) {
            const pair_t p = pair_at(f, 0, i);
            full += p.i == 0 && p.q == 0;
        }
        EXPECT_LT(full, f.truth_mm.size() / 100) << camera;
    }
}
