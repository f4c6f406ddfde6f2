#include <atomic>
#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "tq_lens.h"

namespace {

tqcam_lens_param_t lens_of(uint32_t w, uint32_t h, std::vector<double> coef)
{
    tqcam_lens_param_t l = {};
    l.cx = w * 0.49;
    l.cy = h * 0.52;
    l.fx = w * 0.66;
    l.fy = w * 0.67;
    l.img_w = w;
    l.img_h = h;
    l.n_dcoef = (int)coef.size();
    for (size_t i = 0; i < coef.size(); i++)
        l.dcoef[i] = coef[i];
    return l;
}

struct Map : tq_calib_len_map_t {
    explicit Map(const tqcam_lens_param_t &l) : tq_calib_len_map_t{} { tq_calib_len_init_map(this, &l); }
    ~Map() { tq_calib_len_uninit_map(this); }
};

// Ideal to distorted, by powers and not by Horner's rule.
void distort(const double *k, double x, double y, double *xd, double *yd)
{
    const double r2 = x * x + y * y, r4 = r2 * r2, r6 = r4 * r2;
    const double kr = (1 + k[0] * r2 + k[1] * r4 + k[4] * r6) / (1 + k[5] * r2 + k[6] * r4 + k[7] * r6);
    *xd = x * kr + 2 * k[2] * x * y + k[3] * (r2 + 2 * x * x);
    *yd = y * kr + k[2] * (r2 + 2 * y * y) + 2 * k[3] * x * y;
}

} // namespace

// The new camera matrix isn't handed out: taken from two pixels of the map's own rows and columns it would
// prove nothing. So the distorted grid of the border is found here by bisection, and the map compared through
// it.
TEST(LensMap, FollowsTheModel)
{
    const auto l = lens_of(320, 240, {-0.31, 0.12, 0.0007, -0.0004, -0.021, 0.011, 0.004, 0.0002});
    const Map m(l);
    double k[8];
    memcpy(k, &l.dcoef, sizeof(k));
    // Ideal coordinates of a source point, by the same five rounds as the rectangles.
    const auto ideal = [&](double u, double v, double *x, double *y) {
        const double x0 = (u - l.cx) / l.fx, y0 = (v - l.cy) / l.fy;
        *x = x0, *y = y0;
        for (int i = 0; i < 5; i++) {
            double xd, yd, r2 = *x * *x + *y * *y;
            distort(k, *x, *y, &xd, &yd);
            const double kr = (1 + k[0] * r2 + k[1] * r2 * r2 + k[4] * r2 * r2 * r2) /
                              (1 + k[5] * r2 + k[6] * r2 * r2 + k[7] * r2 * r2 * r2);
            const double tx = xd - *x * kr, ty = yd - *y * kr;
            *x = (x0 - tx) / kr;
            *y = (y0 - ty) / kr;
        }
    };
    double ox0 = 1e9, ox1 = -1e9, oy0 = 1e9, oy1 = -1e9;
    for (int i = 0; i <= 8; i++)
        for (int j = 0; j <= 8; j++) {
            double x, y;
            ideal(j * 40.0, i * 30.0, &x, &y);
            ox0 = std::min(ox0, x), ox1 = std::max(ox1, x);
            oy0 = std::min(oy0, y), oy1 = std::max(oy1, y);
        }
    int sources = 0, off = 0;
    for (int j = 0; j < 240; j++) {
        for (int i = 0; i < 320; i++) {
            double xd, yd;
            distort(k, ox0 + i * (ox1 - ox0) / 319, oy0 + j * (oy1 - oy0) / 239, &xd, &yd);
            const double u = l.fx * xd + l.cx, v = l.fy * yd + l.cy;
            const int a = (int)(u + 0.5), b = (int)(v + 0.5);
            const bool in = u > -1.5 && v > -1.5 && a < 320 && b < 240;
            sources += in;
            off += m.map[j * 320 + i] != (in ? (uint32_t)(b * 320 + a) : TQ_CALIB_LEN_NO_SOURCE);
        }
    }
    EXPECT_LE(off, 8) << "only points on the bound between two pixels may differ";
    EXPECT_GT(sources, 320 * 240 * 7 / 10);
    EXPECT_LT(sources, 320 * 240);
    // Every pixel of the rectangle has a source, but for its rounded last row and column.
    EXPECT_GT(m.roi_w, 200);
    EXPECT_GT(m.roi_h, 150);
    for (int j = m.roi_y; j < m.roi_y + m.roi_h - 1; j++)
        for (int i = m.roi_x; i < m.roi_x + m.roi_w - 1; i++)
            ASSERT_NE(m.map[j * 320 + i], TQ_CALIB_LEN_NO_SOURCE) << i << "," << j;
}

TEST(LensMap, HostileLenses)
{
    LogCapture log;
    const double nan = NAN, inf = INFINITY, huge = 1e300;
    std::vector<tqcam_lens_param_t> lenses;
    for (double v : {nan, inf, -inf}) {
        for (int field = 0; field < 12; field++) {
            auto l = lens_of(64, 48, {-0.3, 0.1, 0.001, -0.001, -0.02, 0.01, 0.004, 0.002});
            memcpy((char *)&l + field * 8, &v, 8);
            lenses.push_back(l);
        }
    }
    for (int field : {2, 3}) {
        auto l = lens_of(64, 48, {});
        const double zero = 0;
        memcpy((char *)&l + field * 8, &zero, 8);
        lenses.push_back(l);
    }
    for (const auto &l : lenses) {
        const Map m(l);
        ASSERT_TRUE(m.inited);
        for (int i = 0; i < m.n; i++)
            ASSERT_EQ(m.map[i], TQ_CALIB_LEN_NO_SOURCE);
        EXPECT_EQ(m.roi_w, 0);
    }
    // Huge values, a line: any table will do if its indices lie within.
    for (double v : {huge, -huge, 1e-300, 1e19}) {
        for (int field = 0; field < 12; field++) {
            auto l = lens_of(9, field % 2 ? 1 : 48, {-0.3, 0.1, 0.001, -0.001, -0.02, 0.01, 0.004, 0.002});
            memcpy((char *)&l + field * 8, &v, 8);
            const Map m(l);
            ASSERT_TRUE(m.inited);
            for (int i = 0; i < m.n; i++)
                ASSERT_TRUE(m.map[i] < (uint32_t)m.n || m.map[i] == TQ_CALIB_LEN_NO_SOURCE);
        }
    }
    // Sizes whose product passes 32 bits to 0, or takes all memory.
    for (const auto &[w, h] : {std::pair{0u, 8u}, {0x10000u, 0x10000u}, {0xFFFFFFFFu, 0xFFFFFFFFu}}) {
        auto l = lens_of(8, 8, {});
        l.img_w = w;
        l.img_h = h;
        log.clear();
        EXPECT_FALSE(Map(l).inited);
        EXPECT_TRUE(log.has("wrong parameter: img="));
    }
    Map m(lens_of(8, 8, {}));
    tq_calib_len_init_map(nullptr, &lenses[0]);
    tq_calib_len_update_map(&m, nullptr);
    EXPECT_EQ(m.n, 64) << "no lens, no change";
    tq_calib_len_uninit_map(nullptr);
}

TEST(LensMap, Undistorts)
{
    LogCapture log;
    const int w = 67, h = 41, n = w * h;
    Map m(lens_of(w, h, {-0.35, 0.1}));
    std::vector<uint16_t> src(n), dst(n, 1);
    std::vector<float> fsrc(n), fdst(n, 1);
    for (int i = 0; i < n; i++)
        fsrc[i] = src[i] = (uint16_t)(i * 7 + 2);
    for (int len : {n, n - 1, 5, 0, -9, n + 100}) {
        std::fill(dst.begin(), dst.end(), 1);
        std::fill(fdst.begin(), fdst.end(), 1);
        ASSERT_TRUE(tq_calib_len_undistort_u16(&m, dst.data(), len, src.data(), w, h, 65500));
        ASSERT_TRUE(tq_calib_len_undistort_f32(&m, fdst.data(), len, fsrc.data(), w, h, -1.0f));
        int filled = 0;
        for (int i = 0; i < n; i++) {
            const bool has = m.map[i] != TQ_CALIB_LEN_NO_SOURCE;
            filled += !has;
            ASSERT_EQ(dst[i], i >= len ? 1 : has ? src[m.map[i]] : 65500);
            ASSERT_EQ(fdst[i], i >= len ? 1 : has ? fsrc[m.map[i]] : -1);
        }
        EXPECT_GT(filled, 0);
    }
    auto in_place = src;
    ASSERT_TRUE(tq_calib_len_undistort_u16(&m, dst.data(), n, src.data(), w, h, 65500));
    ASSERT_TRUE(tq_calib_len_undistort_u16(&m, in_place.data(), n, in_place.data(), w, h, 65500));
    EXPECT_EQ(in_place, dst);

    EXPECT_FALSE(tq_calib_len_undistort_u16(&m, dst.data(), n, src.data(), h, w, 0));
    EXPECT_TRUE(log.has("[tq_calib_len_undistort_u16]Wrong parameter: calib_map: 67x41, src_img: 41x67\n"));
    EXPECT_FALSE(tq_calib_len_undistort_u16(&m, nullptr, n, src.data(), w, h, 0));
    tq_calib_len_uninit_map(&m);
    EXPECT_FALSE(tq_calib_len_undistort_f32(&m, fdst.data(), n, fsrc.data(), w, h, 0));
}

// A region of interest changes while images are undistorted: never a table that is gone, never one of another
// size than the one that was tested.
TEST(LensMap, ExchangedWhileInUse)
{
    tq_calib_len_map_t m = {};
    const auto small = lens_of(16, 8, {}), large = lens_of(32, 24, {-0.2});
    tq_calib_len_init_map(&m, &small);
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        std::vector<uint16_t> src(32 * 24, 5), dst(32 * 24);
        while (!stop) {
            tq_calib_len_undistort_u16(&m, dst.data(), (int)dst.size(), src.data(), 32, 24, 0);
            tq_calib_len_undistort_u16(&m, dst.data(), 16 * 8, src.data(), 16, 8, 0);
        }
    });
    for (int i = 0; i < 200; i++)
        tq_calib_len_update_map(&m, i & 1 ? &small : &large);
    stop = true;
    reader.join();
    tq_calib_len_uninit_map(&m);
}
