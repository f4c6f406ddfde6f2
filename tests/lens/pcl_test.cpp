#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "tq_pcl.h"

namespace {

const float lens[4] = {15.5f, 8.25f, 20.0f, 21.0f};

} // namespace

TEST(Pcl, PointsByTheModel)
{
    const int w = 40, h = 17, n = w * h;
    std::vector<float> dist(n), tbl(n), z(n), xyz(3 * n), xyzd(4 * n);
    std::vector<uint16_t> mm(n);
    std::vector<uint32_t> extra(n);
    for (int i = 0; i < n; i++) {
        mm[i] = (uint16_t)(i * 97);
        dist[i] = mm[i] * 0.001f;
        tbl[i] = (i % 7 - 3) * 0.01f;
        extra[i] = 0xFF800000u + i; // most are signalling NaNs as f32
    }
    for (int d_is_z : {0, 1}) {
        for (const float *t : {(const float *)nullptr, (const float *)tbl.data()}) {
            ASSERT_EQ(tq_pcl_get_xyzd_f32(xyz.data(), dist.data(), t, w, h, lens, nullptr, 0, d_is_z), 0);
            ASSERT_EQ(tq_pcl_get_xyzd_u16(xyzd.data(), mm.data(), t, w, h, lens, extra.data(), 0, d_is_z), 0);
            ASSERT_EQ(tq_pcl_get_xyzd_f32(z.data(), dist.data(), t, w, h, lens, extra.data(), 1, d_is_z), 0);
            for (int i = 0; i < n; i++) {
                const double d = mm[i] < 60000 ? mm[i] / 1000.0 : 0;
                const double x = (i % w - lens[0]) * d / lens[2], y = (i / w - lens[1]) * d / lens[3];
                const double radicand = d * d - x * x - y * y;
                ASSERT_NEAR(xyz[3 * i], x, 1e-4);
                ASSERT_NEAR(xyz[3 * i + 1], y, 1e-4);
                if (d_is_z || radicand > 1e-2) {
                    const double want = (d_is_z ? d : std::sqrt(radicand)) + (t ? d * tbl[i] : 0);
                    ASSERT_NEAR(xyz[3 * i + 2], want, 1e-3) << i << " " << d_is_z;
                } else if (radicand < -1e-2) {
                    ASSERT_TRUE(std::isnan(xyz[3 * i + 2])) << "outside the sphere";
                }
                ASSERT_NEAR(xyzd[4 * i], xyz[3 * i], 1e-5);
                ASSERT_NEAR(xyzd[4 * i + 1], xyz[3 * i + 1], 1e-5);
                ASSERT_EQ(memcmp(&xyzd[4 * i + 3], &extra[i], 4), 0);
                ASSERT_EQ(memcmp(&z[i], &xyz[3 * i + 2], 4), 0) << "the depth image alone";
            }
        }
    }
    ASSERT_EQ(tq_pcl_get_xyzd_f32(xyz.data(), dist.data(), nullptr, w, h, lens, nullptr, 0, 0), 0);
    const std::vector<float> zeros(n, 0);
    std::vector<float> again(3 * n);
    ASSERT_EQ(tq_pcl_get_xyzd_f32(again.data(), dist.data(), zeros.data(), w, h, lens, nullptr, 0, 0), 0);
    EXPECT_EQ(memcmp(xyz.data(), again.data(), again.size() * 4), 0);
    // In place, as the depth image of an application's own buffer.
    ASSERT_EQ(tq_pcl_get_xyzd_f32(dist.data(), dist.data(), tbl.data(), w, h, lens, nullptr, 1, 1), 0);
    EXPECT_EQ(memcmp(dist.data(), z.data(), n * 4), 0);
}

TEST(Pcl, FarDistancesAreNone)
{
    const float at[4] = {100.0f, -50.0f, 500.0f, 500.0f};
    const float far[8] = {59.999f, 60.0f, NAN, INFINITY, -1.0f, 0.0f, 1e30f, std::nextafter(60.0f, 0.0f)};
    const uint16_t far_mm[8] = {59999, 60000, 60001, 65535, 65500, 0, 1, 30000};
    float out[24], out_mm[32];
    const uint32_t extra[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    tq_pcl_get_xyzd_f32(out, far, nullptr, 8, 1, at, nullptr, 0, 0);
    tq_pcl_get_xyzd_u16(out_mm, far_mm, nullptr, 8, 1, at, extra, 0, 1);
    for (int i = 0; i < 8; i++) {
        const bool none = !(far[i] < 60.0f) || far[i] == 0, none_mm = far_mm[i] >= 60000 || far_mm[i] == 0;
        EXPECT_EQ(out[3 * i] == 0 && out[3 * i + 1] == 0 && out[3 * i + 2] == 0, none) << far[i];
        EXPECT_EQ(out_mm[4 * i + 2] == 0, none_mm) << far_mm[i];
        EXPECT_EQ(memcmp(&out_mm[4 * i + 3], &extra[i], 4), 0);
    }
    // The principal point itself, with a table.
    const float centre[4] = {2, 0, 10, 10}, tbl[4] = {0.1f, 0.2f, 0.25f, 0.3f}, dist[4] = {1, 2, 3, 4};
    tq_pcl_get_xyzd_f32(out, dist, tbl, 4, 1, centre, nullptr, 0, 0);
    EXPECT_EQ(out[6], 0.0f);
    EXPECT_EQ(out[7], 0.0f);
    EXPECT_EQ(out[8], 3.75f);
}

TEST(Pcl, WidthsSizesAndPointers)
{
    for (int w = 1; w <= 70; w++) {
        const std::vector<float> dist(w * 2, 1.0f);
        std::vector<float> out(w * 2 * 4, -7.0f);
        ASSERT_EQ(tq_pcl_get_xyzd_f32(out.data(), dist.data(), nullptr, w, 2, lens, dist.data(), 0, 1), 0);
        for (int i = 0; i < 2 * w; i++)
            for (int k = 0; k < 4; k++)
                ASSERT_EQ(out[4 * i + k] == -7.0f, i % w >= w / 4 * 4) << "the last columns stay, w = " << w;
    }
    float out[16] = {5}, in[16] = {};
    const uint16_t mm[16] = {};
    for (const auto &[w, h] : {std::pair{4, 0}, {0, 4}, {-4, 4}, {4, -4}, {INT32_MIN, 1}, {3, 5}})
        EXPECT_EQ(tq_pcl_get_xyzd_f32(out, in, nullptr, w, h, lens, nullptr, 0, 0), 0);
    EXPECT_EQ(out[0], 5);
    EXPECT_EQ(tq_pcl_get_xyzd_f32(nullptr, in, nullptr, 4, 1, lens, nullptr, 0, 0), -22);
    EXPECT_EQ(tq_pcl_get_xyzd_f32(out, nullptr, nullptr, 4, 1, lens, nullptr, 0, 0), -22);
    EXPECT_EQ(tq_pcl_get_xyzd_u16(out, mm, nullptr, 4, 1, nullptr, nullptr, 0, 0), -22);
    // The table of a lens block lies at any address.
    const std::vector<char> bytes(65, 0);
    EXPECT_EQ(tq_pcl_get_xyzd_u16(out, mm, (const float *)(bytes.data() + 1), 4, 4, lens, nullptr, 1, 0), 0);
}
