// What is made of a frame: images, raw sub-frames, depth, point clouds.
#include <numeric>

#include "api/pointcloud_api.h"
#include "fake_camera.h"
#include "support/log_capture.h"

namespace {
// What the driver answers; its table is made of plain functions.
bool has_lens;
std::vector<uint8_t> lens_block; // empty for none

struct Frames : ::testing::Test {
    static constexpr int W = 8, H = 4, N = W * H;
    static constexpr uint32_t W_2 = 2 * W;

    Frames()
    {
        has_lens = true;
        lens_block.clear();
        cam.ops.lens_param_get = [](tqcam_drv_t *, tqcam_lens_param_t *out, int w, int h, int) {
            *out = {};
            out->cx = 1.5;
            out->cy = 1;
            out->fx = out->fy = 10;
            out->dcoef[15] = 0.1;
            out->n_dcoef = 300;
            out->img_w = static_cast<uint32_t>(w);
            out->img_h = static_cast<uint32_t>(h);
            return has_lens;
        };
        cam.ops.lens_rec_get = [](tqcam_drv_t *) -> const tq_lens_bin_t * {
            return lens_block.empty() ? nullptr : reinterpret_cast<const tq_lens_bin_t *>(lens_block.data());
        };
        cam.decode = [this](void *dst, uint32_t dst_size, int kind) { // 1000, 1001, ... plus the kind
            room = dst_size;
            for (uint16_t i = 0; i < N; i++)
                static_cast<uint16_t *>(dst)[i] = static_cast<uint16_t>(1000 + i + kind);
            return 2 * N;
        };
        EXPECT_NE(cam.open(), nullptr);
        cam.take();
        info.width = W;
        info.height = H;
        info.frame_size = 16;
        info.frame_format = 2;
    }

    LogCapture log;
    FakeCamera cam;
    tqcam_dev_t *dev = &cam.dev;
    tqcam_frame_info_t info = {};
    uint8_t raw[16] = {};
    uint32_t room = 0;
};
} // namespace

TEST_F(Frames, KindsUnitsAndRefusals)
{
    uint16_t u16[N];
    EXPECT_EQ(tqcam_frame_get_dist_raw(dev, u16, N, raw, 16, &info), N);
    EXPECT_EQ(u16[14], 1014);
    EXPECT_EQ(room, 2u * N);
    for (uint32_t len : {32u, 33u, 80u}) { // widened in place, from odd and even halves
        std::vector<float> f32(len);
        EXPECT_EQ(tqcam_frame_get_dist_f32(dev, f32.data(), len, raw, 16, &info), N);
        for (int i = 0; i < N; i++)
            EXPECT_EQ(f32[static_cast<size_t>(i)], static_cast<float>(1001 + i) * 0.001f);
        EXPECT_EQ(tqcam_frame_get_gray(dev, f32.data(), len, raw, 16, &info), N);
        EXPECT_EQ(f32[14], 1016.0f);
    }
    EXPECT_EQ(tqcam_frame_get_gray_u16(dev, nullptr, N, raw, 16, &info), 0);
    EXPECT_EQ(tqcam_frame_get_gray_u16(dev, u16, N, nullptr, 16, &info), 0);
    info.width = info.height = 0x10000; // the product passes 32 bits
    EXPECT_EQ(tqcam_frame_get_dist_u16(dev, u16, N, raw, 16, &info), 0);
    EXPECT_FALSE(tqcam_lens_calib_apply_gray_u16(dev, u16, N, u16, N, &info, nullptr));
}

// Sub-frame s of a frame of this size begins with its meta data; meta byte i holds i + s, pixel i holds i +
// s.
TEST_F(Frames, RawFramesEx)
{
    for (uint16_t fmt : {2, 37}) {
        SCOPED_TRACE(fmt);
        const uint32_t w = 193, h = 2, meta = 593, row = fmt == 37 ? 2 * w : w, n = row * h;
        std::vector<uint8_t> src;
        for (uint32_t s = 0; s < 4; s++) {
            for (uint32_t i = 0; i < meta; i++)
                src.push_back(static_cast<uint8_t>(i + s));
            for (uint32_t i = 0; i < n; i++) { // big-endian
                src.push_back(static_cast<uint8_t>(((i + s) * 257) >> 8));
                src.push_back(static_cast<uint8_t>((i + s) * 257));
            }
        }
        const uint32_t bytes = 4 + 4 * (n + 3 * row) * 2, src_len = static_cast<uint32_t>(src.size());
        std::vector<uint8_t> dst(bytes + 1, 0xEE);
        info.frame_format = fmt;
        info.width = w;
        info.height = h;
        info.meta_size = meta;
        EXPECT_EQ(tqcam_get_raw_frames_ex(dev, dst.data(), bytes - 1, src.data(), src_len, &info), 0);
        EXPECT_EQ(tqcam_get_raw_frames_ex(dev, dst.data(), bytes, src.data(), src_len - 1, &info), 0);
        ASSERT_EQ(tqcam_get_raw_frames_ex(dev, dst.data(), bytes, src.data(), src_len, &info), int(bytes));
        EXPECT_EQ(dst[bytes], 0xEE);
        const auto at = [&](uint32_t i) { return dst[2 * i] | dst[2 * i + 1] << 8; };
        EXPECT_EQ(at(0), static_cast<int>(row));
        EXPECT_EQ(at(1), static_cast<int>(h * 4 + 12));
        for (uint32_t s = 0; s < 4; s++) {
            const uint32_t sub = 2 + s * (n + 3 * row);
            for (uint32_t i = 0; i < n; i++) {
                const auto v = static_cast<int16_t>(static_cast<uint16_t>((i + s) * 257 << 1));
                ASSERT_EQ(at(sub + i), i < n - n % 4 ? static_cast<uint16_t>(v >> 5) : 0) << s << " " << i;
            }
            for (uint32_t i = 0; i < 3 * row; i++)
                ASSERT_EQ(at(sub + n + i),
                          i % row < 192 ? static_cast<uint8_t>(4 + 196 * (i / row) + i % row + s) : 0);
        }
    }
}

TEST_F(Frames, DistanceBecomesDepthAndPoints)
{
    std::vector<uint16_t> src(N, 2000), dst(N, 7);
    std::vector<float> fsrc(N, 2.0f), fdst(N, 7), xyz(3 * N), xyzd(4 * N);
    ASSERT_EQ(tqcam_frame_get_pcl(dev, xyz.data(), 3 * N, fsrc.data(), N, W, H, nullptr), N);
    ASSERT_EQ(tqcam_frame_get_pcl_xyzd(dev, xyzd.data(), 4 * N, fsrc.data(), N, W, H, false, nullptr, 0, 1),
              N);
    EXPECT_TRUE(tqcam_lens_calib_apply_dist_f32(dev, fdst.data(), N, fsrc.data(), N, &info, nullptr));
    EXPECT_TRUE(tqcam_lens_calib_apply_dist_u16(dev, dst.data(), N, src.data(), N, &info, nullptr));
    for (int i = 0; i < N; i++) {
        EXPECT_EQ(fdst[i], xyz[3 * i + 2]);
        EXPECT_EQ(dst[i], static_cast<uint16_t>(xyz[3 * i + 2] * 1000.0f));
        EXPECT_EQ(memcmp(&xyzd[4 * i], &xyz[3 * i], 12), 0);
        EXPECT_EQ(xyzd[4 * i + 3], 2.0f);
    }
    EXPECT_LT(fdst[0], 2.0f) << "off the axis";
    tqcam_lens_info_t lens;
    ASSERT_TRUE(tqcam_lens_param_get(dev, &lens));
    EXPECT_EQ(lens.dcoef[15], 0.1f);
    EXPECT_EQ(lens.n_dcoef, 16) << "no more than there is room for";
    cam.dev.priv->lens_cfg = {0, 0, 1};
    EXPECT_TRUE(tqcam_lens_calib_apply_dist_u16(dev, dst.data(), N, src.data(), N, &info, nullptr));
    EXPECT_EQ(dst, src) << "already depth";
    has_lens = false;
    EXPECT_EQ(tqcam_frame_get_pcl(dev, xyz.data(), 3 * N, fsrc.data(), N, W, H, nullptr), 0);
    const float own[4] = {0, 0, 5, 5};
    EXPECT_EQ(tqcam_frame_get_pcl(dev, xyz.data(), 3 * N, fsrc.data(), N, W, H, own), N);
    for (const auto &[out_len, w] : {std::pair{3u * N - 1, 8u}, {3 * N, 9}, {~0u, 1u << 30}}) // w * 4 wraps
        EXPECT_EQ(tqcam_frame_get_pcl(dev, xyz.data(), out_len, fsrc.data(), N, w, H, own), 0) << w;
}

TEST_F(Frames, GrayIsUndistortedOrCopied)
{
    tqcam_lens_param_t lens;
    cam.ops.lens_param_get(nullptr, &lens, W, H, 0);
    lens.dcoef[0] = 0.5;
    lens.n_dcoef = 5;
    tq_calib_len_init_map(&cam.dev.priv->lens_map, &lens);
    std::vector<uint16_t> src(N), dst(N), want(N);
    std::vector<float> points(4 * N), dist(N, 1.0f), gray(N);
    std::iota(src.begin(), src.end(), uint16_t{100});
    std::iota(gray.begin(), gray.end(), 100.0f);
    tq_calib_len_undistort_u16(&cam.dev.priv->lens_map, want.data(), N, src.data(), W, H, 0);
    ASSERT_NE(want, src);
    for (const bool on : {true, false}) {
        const tqcam_lens_calib_cfg_t cfg = {on, 0, 0};
        tqcam_lens_calib_config_set(dev, &cfg);
        EXPECT_TRUE(tqcam_lens_calib_apply_gray_u16(dev, dst.data(), N, src.data(), N, &info, nullptr));
        EXPECT_EQ(dst, on ? want : src);
    }
    EXPECT_FALSE(tqcam_lens_calib_apply_gray_u16(dev, dst.data(), N - 1, src.data(), N, &info, nullptr));
    EXPECT_EQ(
        tqcam_frame_get_pcl_xyzi(dev, points.data(), 4 * N, dist.data(), N, gray.data(), N, W, H, 0, nullptr),
        N);
    EXPECT_GT(points[4 * (N - 1) + 3], points[3]) << "brighter";
}

// A gradient table whose value n is n, in a block like a calibration file's: how deep it says that a flat
// image at 1 m is, in the second row's fourth column.
TEST_F(Frames, GradientTableReachesThePoints)
{
    const uint32_t cases[][4] = {
        {W, H, N, 11},
        {W_2, 3 * H, 6 * N, 3 * W_2 + 6}, // sampled: every second column, every third row
        {W + 1, H, 2 * N, 0},             // don't fit
        {W / 2, H, N, 0},
        {W, H, N - 1, 0},
        {0, 0, N, 0},
    };
    for (const auto &[w, h, n, due] : cases) {
        tq_lens_bin_t head = {};
        head.img_w = w;
        head.img_h = h;
        head.n_grad = n;
        std::vector<float> grad(n), z(N, -9.0f);
        const std::vector<float> dist(N, 1.0f);
        std::iota(grad.begin(), grad.end(), 0.0f);
        lens_block.resize(sizeof(head) + 4 * n);
        memcpy(lens_block.data(), &head, sizeof(head));
        memcpy(lens_block.data() + sizeof(head), grad.data(), 4 * n);
        _tqcam_frame_get_pcl_ex(dev, z.data(), N, dist.data(), true, nullptr, true, true, W, H, nullptr);
        EXPECT_EQ(z[11] - 1, due) << w << "x" << h;
    }
}
