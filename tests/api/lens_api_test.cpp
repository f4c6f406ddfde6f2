// Lens calls, point clouds, filters and use cases on a camera whose driver the test controls.
#include <gtest/gtest.h>
#include <vector>

#include "api/pointcloud_api.h"
#include "fake_camera.h"
#include "support/log_capture.h"
#include "tqcam_param.h"

namespace {
// What the driver answers; its table is made of plain functions.
struct lens_answers_t {
    bool has_lens = true;
    tqcam_lens_param_t lens = {};
    std::vector<uint8_t> record; // a lens block, empty for none
    int cases = 0;
    uint32_t set_case = 99;
    bool filter_ok = true;
    uint32_t filter_id = 0;
};
lens_answers_t answers;

bool lens_param_get(tqcam_drv_t *, tqcam_lens_param_t *out, int w, int h, int)
{
    if (!answers.has_lens)
        return false;
    *out = answers.lens;
    out->img_w = static_cast<uint32_t>(w);
    out->img_h = static_cast<uint32_t>(h);
    return true;
}

const tq_lens_bin_t *lens_rec_get(tqcam_drv_t *)
{
    return answers.record.empty() ? nullptr : reinterpret_cast<const tq_lens_bin_t *>(answers.record.data());
}

int use_case_list(tqcam_drv_t *, tqcam_use_case_t *cases, uint8_t cap)
{
    static const tqcam_use_case_t all[] = {{1, 10, 1, 7, 60000000, 0, "near"},
                                           {1, 20, 2, 8, 120000000, 40000000, "far"}};
    for (int i = 0; i < answers.cases && i < cap; i++)
        cases[i] = all[i];
    return answers.cases;
}

struct Lens : ::testing::Test {
    Lens()
    {
        answers = {};
        answers.lens.cx = 1.5;
        answers.lens.cy = 1;
        answers.lens.fx = answers.lens.fy = 10;
        ops.lens_param_get = lens_param_get;
        ops.lens_rec_get = lens_rec_get;
        ops.use_case_list = use_case_list;
        ops.use_case_set = [](tqcam_drv_t *, uint32_t index) {
            fake_note("drv.case %u", index);
            return 0;
        };
        ops.filter_enable = [](tqcam_drv_t *, uint32_t id, const tqcam_filter_arg_t *arg) {
            fake_note("drv.enable %u %u", id, arg ? arg->value : 0u);
            return answers.filter_ok;
        };
        ops.filter_disable = [](tqcam_drv_t *, uint32_t id) {
            fake_note("drv.disable %u", id);
            return answers.filter_ok;
        };
        cam.prepare()->priv->opened = 1;
        row.ops = &ops;
        row.dev = &cam.dev;
        cam.priv()->drv = &row;
        cam.priv()->dev_id32 = 321;
        cam.priv()->cur_w = W;
        cam.priv()->cur_h = H;
        tq_calib_len_init_map(&cam.priv()->lens_map, &map_lens());
        info.width = W;
        info.height = H;
    }
    ~Lens() override
    {
        tq_calib_len_uninit_map(&cam.priv()->lens_map);
        delete cam.dev.priv;
        cam.dev.priv = nullptr;
    }
    const tqcam_lens_param_t &map_lens()
    {
        static tqcam_lens_param_t lens;
        lens = answers.lens;
        lens.img_w = W;
        lens.img_h = H;
        return lens;
    }
    // A gradient table whose value n is n, in a block like a calibration file's.
    void give_table(uint32_t w, uint32_t h, uint32_t n)
    {
        tq_lens_bin_t head = {};
        head.img_w = w;
        head.img_h = h;
        head.n_grad = n;
        answers.record.resize(sizeof(head) + 4 * n);
        memcpy(answers.record.data(), &head, sizeof(head));
        for (uint32_t i = 0; i < n; i++) {
            const float v = static_cast<float>(i);
            memcpy(answers.record.data() + sizeof(head) + 4 * i, &v, 4);
        }
    }
    // How deep the table says that a flat image at 1 m is, as z - 1.
    std::vector<float> table_effect()
    {
        const std::vector<float> dist(N, 1.0f);
        std::vector<float> z(N, -9.0f);
        _tqcam_frame_get_pcl_ex(&cam.dev, z.data(), N, dist.data(), true, nullptr, true, true, W, H, nullptr);
        for (float &v : z)
            v -= 1.0f;
        return z;
    }

    static constexpr int W = 8, H = 4, N = W * H;
    LogCapture log;
    FakeCamera cam;
    tqcam_drv_ops_t ops = FakeCamera::drv_ops;
    tqcam_drv_t row = {"fake", "E1", nullptr, nullptr, nullptr};
    tqcam_frame_info_t info = {};
};
} // namespace

TEST_F(Lens, Filenames)
{
    char name[300];
    const std::string prefix = tqcam_path_get();
    ASSERT_TRUE(tqcam_lens_param_filename(&cam.dev, name, sizeof(name), true, true));
    EXPECT_EQ(name, prefix + "lens_param_321.bin");
    ASSERT_TRUE(tqcam_lens_param_filename(&cam.dev, name, sizeof(name), false, false));
    EXPECT_EQ(name, prefix + "lens_param.txt");
    ASSERT_TRUE(tqcam_lens_param_filename(&cam.dev, name, 5, false, true));
    EXPECT_EQ(strlen(name), 4u);
    EXPECT_FALSE(tqcam_lens_param_filename(&cam.dev, name, 0, false, true));
    EXPECT_FALSE(tqcam_lens_param_filename(nullptr, name, 300, false, true));
    EXPECT_FALSE(tqcam_lens_param_filename(&cam.dev, nullptr, 300, false, true));
}

TEST_F(Lens, ParametersNarrowAndClear)
{
    answers.lens.dcoef[15] = 0.1;
    answers.lens.n_dcoef = 300;
    tqcam_lens_info_t out;
    ASSERT_TRUE(tqcam_lens_param_get(&cam.dev, &out));
    EXPECT_EQ(out.cx, 1.5f);
    EXPECT_EQ(out.dcoef[15], 0.1f);
    EXPECT_EQ(out.n_dcoef, 16) << "no more than there is room for";
    answers.has_lens = false;
    EXPECT_FALSE(tqcam_lens_param_get(&cam.dev, &out));
    EXPECT_EQ(out.cx, 0);
    ops.lens_param_get = nullptr;
    EXPECT_FALSE(tqcam_lens_param_get(&cam.dev, &out));
    EXPECT_FALSE(tqcam_lens_param_get(&cam.dev, nullptr));
    EXPECT_FALSE(tqcam_lens_param_get(nullptr, &out));
    EXPECT_EQ(log.count("[tqcam_lens_param_get] Device handler Is NULL!\r\n"), 2);

    uint8_t desc[36] = {};
    cam.calls.take();
    EXPECT_TRUE(tqcam_lens_param_set(&cam.dev, desc));
    EXPECT_EQ(cam.calls.take(), (std::vector<std::string>{"link.set 3", "link.set id 22 len 16",
                                                          "link.set id 86 len 16", "link.set id 87 len 16"}));
    cam.set_ok = false;
    EXPECT_FALSE(tqcam_lens_param_set(&cam.dev, desc));
    EXPECT_FALSE(tqcam_lens_param_set(&cam.dev, nullptr));
}

TEST_F(Lens, Configuration)
{
    const tqcam_lens_calib_cfg_t cfg = {1, 0, 1};
    tqcam_lens_calib_config_set(&cam.dev, &cfg);
    tqcam_lens_calib_config_set(&cam.dev, nullptr);
    tqcam_lens_calib_config_set(nullptr, &cfg);
    EXPECT_TRUE(log.has("[tqcam_lens_calib_config_set]lens calib cfg: 2d_en=1, 3d_en=0, d_is_z=1\n"));
    tqcam_lens_calib_cfg_t *got = tqcam_lens_calib_config_get(&cam.dev);
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(memcmp(got, &cfg, sizeof(cfg)), 0);
    EXPECT_EQ(tqcam_lens_calib_config_get(nullptr), nullptr);
    cam.priv()->opened = 0;
    EXPECT_EQ(tqcam_lens_calib_config_get(&cam.dev), nullptr);
    cam.priv()->opened = 1;
}

TEST_F(Lens, GrayIsUndistortedOrCopied)
{
    std::vector<uint16_t> src(N), dst(N, 7), want(N);
    std::vector<float> fsrc(N), fdst(N, 7);
    for (int i = 0; i < N; i++)
        fsrc[i] = src[i] = static_cast<uint16_t>(100 + i);
    tqcam_dev_t *dev = &cam.dev;
    EXPECT_TRUE(tqcam_lens_calib_apply_gray_u16(dev, dst.data(), N, src.data(), N, &info, nullptr));
    EXPECT_EQ(dst, src);
    EXPECT_TRUE(tqcam_lens_calib_apply_gray_f32(dev, fdst.data(), N, fsrc.data(), N, &info, nullptr));
    EXPECT_EQ(fdst, fsrc);
    EXPECT_TRUE(tqcam_lens_calib_apply_gray_u16(dev, dst.data(), N, dst.data(), N, &info, nullptr));
    EXPECT_EQ(dst, src);

    cam.priv()->lens_cfg.en_2d = 1;
    tq_calib_len_undistort_u16(&cam.priv()->lens_map, want.data(), N, src.data(), W, H, 0);
    ASSERT_NE(want, src);
    EXPECT_TRUE(tqcam_lens_calib_apply_gray_u16(dev, dst.data(), N, src.data(), N, &info, nullptr));
    EXPECT_EQ(dst, want);
    EXPECT_TRUE(tqcam_lens_calib_apply_gray_f32(dev, fdst.data(), N, fsrc.data(), N, &info, nullptr));
    EXPECT_EQ(fdst, std::vector<float>(want.begin(), want.end()));
    info.height = 3; // the map is of another size
    EXPECT_FALSE(tqcam_lens_calib_apply_gray_u16(dev, dst.data(), N, src.data(), N, &info, nullptr));
}

TEST_F(Lens, DistanceBecomesDepth)
{
    std::vector<uint16_t> src(N, 2000), dst(N, 7);
    std::vector<float> fsrc(N, 2.0f), fdst(N, 7), xyz(3 * N);
    tqcam_dev_t *dev = &cam.dev;
    ASSERT_EQ(tqcam_frame_get_pcl(dev, xyz.data(), 3 * N, fsrc.data(), N, W, H, nullptr), N);
    EXPECT_TRUE(tqcam_lens_calib_apply_dist_f32(dev, fdst.data(), N, fsrc.data(), N, &info, nullptr));
    EXPECT_TRUE(tqcam_lens_calib_apply_dist_u16(dev, dst.data(), N, src.data(), N, &info, nullptr));
    for (int i = 0; i < N; i++) {
        EXPECT_EQ(fdst[i], xyz[3 * i + 2]);
        EXPECT_EQ(dst[i], static_cast<uint16_t>(xyz[3 * i + 2] * 1000.0f));
    }
    EXPECT_LT(fdst[0], 2.0f) << "off the axis";

    cam.priv()->lens_cfg.en_2d = 1;
    std::vector<float> want(N);
    tq_calib_len_undistort_f32(&cam.priv()->lens_map, want.data(), N, fdst.data(), W, H, 0);
    EXPECT_TRUE(tqcam_lens_calib_apply_dist_f32(dev, fdst.data(), N, fsrc.data(), N, &info, nullptr));
    EXPECT_EQ(fdst, want);
    cam.priv()->lens_cfg = {0, 0, 1};
    EXPECT_TRUE(tqcam_lens_calib_apply_dist_u16(dev, dst.data(), N, src.data(), N, &info, nullptr));
    EXPECT_EQ(dst, src) << "already depth";

    answers.has_lens = false;
    EXPECT_FALSE(tqcam_lens_calib_apply_dist_u16(dev, dst.data(), N, src.data(), N, &info, nullptr));
    const float own[4] = {0, 0, 5, 5};
    EXPECT_TRUE(tqcam_lens_calib_apply_dist_u16(dev, dst.data(), N, src.data(), N, &info, own));
    EXPECT_EQ(dev->api_active, 0);
}

TEST_F(Lens, ApplyRefuses)
{
    uint16_t px[N] = {};
    tqcam_dev_t *dev = &cam.dev;
    const struct {
        tqcam_dev_t *dev;
        void *dst;
        int dst_len;
        const void *src;
        int src_len;
        int mode;
        const tqcam_frame_info_t *info;
        const char *line;
    } cases[] = {
        {nullptr, px, N, px, N, 0, &info, "[tqcam_lens_calib_apply]lens_calib_apply argument error\n"},
        {dev, nullptr, N, px, N, 0, &info, "argument error"},
        {dev, px, N, nullptr, N, 1, &info, "argument error"},
        {dev, px, N, px, N, 2, nullptr, "argument error"},
        {dev, px, N, px, N, 3, &info, "argument error"},
        {dev, px, N - 1, px, N, 0, &info,
         "lens_calib_apply dst_len or src_len too small: dst_len=31, src_len=32\n"},
        {dev, px, N, px, N - 1, 1, &info, "too small: dst_len=32, src_len=31\n"},
        {dev, px, -1, px, N, 2, &info, "too small: dst_len=-1"},
    };
    for (const auto &c : cases) {
        log.clear();
        EXPECT_FALSE(tqcam_lens_calib_apply(c.dev, c.dst, c.dst_len, c.src, c.src_len, false, c.mode, c.info,
                                            nullptr));
        EXPECT_TRUE(log.has(c.line)) << c.line;
    }
    info.width = info.height = 0x10000; // the product wraps to 0 in 32 bits
    EXPECT_FALSE(tqcam_lens_calib_apply(dev, px, N, px, N, false, 0, &info, nullptr));
    EXPECT_FALSE(tqcam_lens_calib_apply_gray_u16(nullptr, px, N, px, N, &info, nullptr));
}

TEST_F(Lens, TableReachesThePoints)
{
    give_table(W, H, N);
    EXPECT_EQ(table_effect()[5], 0) << "not switched on";
    cam.priv()->lens_cfg.en_3d = 1;
    EXPECT_EQ(table_effect()[5], 5);
    give_table(2 * W, 3 * H, 6 * N); // sampled: every second column, every third row
    EXPECT_EQ(table_effect()[0], 0);
    EXPECT_EQ(table_effect()[W + 3], 3 * 2 * W + 6);
    // Tables that don't fit: not a multiple, smaller, fewer values than their own size, no size.
    const uint32_t wrong[][3] = {{W + 1, H, 2 * N}, {W / 2, H, N}, {W, H, N - 1}, {0, 0, N}, {2 * W, H, N}};
    for (const auto &t : wrong) {
        give_table(t[0], t[1], t[2]);
        EXPECT_EQ(table_effect(), std::vector<float>(N, 0)) << t[0] << "x" << t[1];
    }
    answers.record.clear();
    EXPECT_EQ(table_effect()[5], 0);
}

TEST_F(Lens, PointClouds)
{
    std::vector<float> dist(N), gray(N), out(4 * N), plain(3 * N);
    for (int i = 0; i < N; i++) {
        dist[i] = 0.5f + 0.05f * i;
        gray[i] = 60.0f * i;
    }
    tqcam_dev_t *dev = &cam.dev;
    ASSERT_EQ(tqcam_frame_get_pcl(dev, plain.data(), 3 * N, dist.data(), N, W, H, nullptr), N);
    ASSERT_EQ(tqcam_frame_get_pcl_xyzd(dev, out.data(), 4 * N, dist.data(), N, W, H, false, nullptr, 0, 1),
              N);
    for (int i = 0; i < N; i++) {
        EXPECT_EQ(memcmp(&out[4 * i], &plain[3 * i], 12), 0);
        EXPECT_EQ(out[4 * i + 3], dist[i]);
    }
    ASSERT_EQ(
        tqcam_frame_get_pcl_xyzd(dev, out.data(), 4 * N, dist.data(), N, W, H, true, nullptr, 0.4f, 2.2f), N);
    std::vector<uint32_t> colour(N);
    tqcam_cmap_dist_f32_to_RGB(reinterpret_cast<uint8_t *>(colour.data()), 4 * N, dist.data(), N,
                               TQCAM_PIX_RGB0, nullptr, 0.4f, 2.2f);
    for (int i = 0; i < N; i++)
        EXPECT_EQ(out[4 * i + 3], static_cast<float>(colour[i]));
    EXPECT_NE(colour[3], colour[N - 3]);

    const uint32_t palette = tqcam_cmap_palette_get();
    ASSERT_EQ(
        tqcam_frame_get_pcl_xyzi(dev, out.data(), 4 * N, dist.data(), N, gray.data(), N, W, H, 0, nullptr),
        N);
    EXPECT_EQ(tqcam_cmap_palette_get(), palette);
    EXPECT_GT(out[4 * (N - 1) + 3], out[4 * 4 + 3]) << "brighter";

    // A width that isn't divisible by four: the last columns are points at 0, never what the caller had
    // there.
    std::fill(out.begin(), out.end(), -5.0f);
    ASSERT_EQ(tqcam_frame_get_pcl(dev, out.data(), 4 * N, dist.data(), N, 7, 4, nullptr), 28);
    EXPECT_EQ(out[3 * 6], 0);
    EXPECT_NE(out[3 * 3 + 2], 0);
}

TEST_F(Lens, PointCloudsRefuse)
{
    std::vector<float> dist(N, 1), out(4 * N, -5.0f);
    tqcam_dev_t *dev = &cam.dev;
    EXPECT_EQ(tqcam_frame_get_pcl(dev, out.data(), 3 * N - 1, dist.data(), N, W, H, nullptr), 0);
    EXPECT_TRUE(log.has(
        "[_tqcam_frame_get_pcl_ex]Pcl output buffer too small: only 95 floats, needs 32 x 3 floats\n"));
    EXPECT_EQ(tqcam_frame_get_pcl(dev, out.data(), 3 * N, dist.data(), N - 1, W, H, nullptr), 0);
    EXPECT_EQ(
        tqcam_frame_get_pcl(dev, out.data(), 0xFFFFFFFF, dist.data(), 0xFFFFFFFF, 0x80000000u, 2, nullptr),
        0);
    EXPECT_EQ(
        tqcam_frame_get_pcl(dev, out.data(), 0xFFFFFFFF, dist.data(), 0xFFFFFFFF, 0xFFFFFFFF, 1, nullptr), 0);
    EXPECT_EQ(tqcam_frame_get_pcl(dev, out.data(), 3 * N, dist.data(), N, 0, H, nullptr), 0);
    EXPECT_EQ(tqcam_frame_get_pcl(dev, nullptr, 3 * N, dist.data(), N, W, H, nullptr), 0);
    EXPECT_EQ(tqcam_frame_get_pcl(dev, out.data(), 3 * N, nullptr, N, W, H, nullptr), 0);
    EXPECT_EQ(tqcam_frame_get_pcl(nullptr, out.data(), 3 * N, dist.data(), N, W, H, nullptr), 0);
    EXPECT_EQ(tqcam_frame_get_pcl_xyzd(dev, out.data(), 4 * N, dist.data(), N, W, H + 1, true, nullptr, 0, 1),
              0);
    for (int balance : {-1025, 1025})
        EXPECT_EQ(tqcam_frame_get_pcl_xyzi(dev, out.data(), 4 * N, dist.data(), N, dist.data(), N, W, H,
                                           balance, nullptr),
                  0);
    EXPECT_TRUE(log.has("[tqcam_frame_get_pcl_xyzi] wrong ir_balance value: 1025\n"));
    EXPECT_EQ(tqcam_frame_get_pcl_xyzi(dev, out.data(), 4 * N, dist.data(), N, dist.data(), N - 1, W, H, 0,
                                       nullptr),
              0);
    answers.has_lens = false;
    EXPECT_EQ(tqcam_frame_get_pcl(dev, out.data(), 3 * N, dist.data(), N, W, H, nullptr), 0);
    EXPECT_TRUE(log.has("[_tqcam_frame_get_pcl_ex]Cannot generate PCL: no lens parameter in driver.\n"));
    EXPECT_EQ(out, std::vector<float>(4 * N, -5.0f));
}

TEST_F(Lens, FiltersForward)
{
    tqcam_filter_arg_t arg = {};
    arg.value = 30;
    cam.calls.take();
    EXPECT_EQ(tqcam_filter_enable(&cam.dev, 4, &arg), 0);
    EXPECT_EQ(tqcam_filter_disable(&cam.dev, 13), 0);
    EXPECT_EQ(cam.calls.take(), (std::vector<std::string>{"drv.enable 4 30", "drv.disable 13"}));
    answers.filter_ok = false;
    EXPECT_EQ(tqcam_filter_enable(&cam.dev, 99, nullptr), -1);
    EXPECT_EQ(tqcam_filter_disable(&cam.dev, 99), -1);
    EXPECT_EQ(tqcam_filter_enable(nullptr, 1, nullptr), -1);
    EXPECT_EQ(cam.dev.api_active, 0);
    cam.priv()->drv = nullptr;
    strcpy(cam.dev.product, "XX-Q9-YY");
    cam.priv()->ll.dev = &cam.dev;
    EXPECT_EQ(tqcam_filter_enable(&cam.dev, 1, nullptr), -1);
    EXPECT_TRUE(log.has("[tqcam_filter_enable]cannot find driver for device: product=XX-Q9-YY\n"));
}

TEST_F(Lens, UseCases)
{
    tqcam_use_case_t cases[3] = {};
    EXPECT_EQ(tqcam_use_case_list(&cam.dev, cases, 3), 0);
    EXPECT_EQ(tqcam_use_case_set_uid(&cam.dev, 0), -1) << "a chip without use cases";
    answers.cases = 2;
    EXPECT_EQ(tqcam_use_case_list(&cam.dev, cases, 3), 2);
    EXPECT_STREQ(cases[1].name, "far");
    EXPECT_EQ(tqcam_use_case_list(&cam.dev, nullptr, 3), -1);
    EXPECT_EQ(tqcam_use_case_list(&cam.dev, cases, 0), -1);
    EXPECT_EQ(tqcam_use_case_list(nullptr, cases, 3), -1);
    EXPECT_EQ(tqcam_get_cur_use_case(&cam.dev, cases), -1) << "an empty slot";

    // The device's frequencies first, then the driver.
    cam.calls.take();
    EXPECT_EQ(tqcam_use_case_set_uid(&cam.dev, 0), 0);
    EXPECT_EQ(cam.calls.take(), (std::vector<std::string>{"link.set 1", "link.set id 1 len 4",
                                                          "drv.freq 60000000 0 0", "drv.case 0"}));
    EXPECT_EQ(tqcam_use_case_set_uid(&cam.dev, 1), 0);
    EXPECT_EQ(cam.calls.take(), (std::vector<std::string>{"link.set 1", "link.set id 21 len 8",
                                                          "drv.freq 120000000 40000000 0", "drv.case 1"}));
    EXPECT_TRUE(log.has("[tqcam_use_case_set_uid]Set to case#1 'far': uid, f=120000000/40000000, fps=20\n"));
    EXPECT_EQ(tqcam_use_case_set_uid(&cam.dev, 2), -1);
    EXPECT_TRUE(log.has("[tqcam_use_case_set_uid]Wrong case idx '2': only have 2 cases\n"));
    EXPECT_EQ(tqcam_use_case_set_uid(&cam.dev, 0xFFFFFFFF), -1);
    cam.set_ok = false;
    EXPECT_EQ(tqcam_use_case_set_uid(&cam.dev, 1), -1);
    EXPECT_FALSE(cam.calls.has("drv.case 1")) << "the device refused";
}

TEST_F(Lens, FeatureMarks)
{
    for (uint32_t func : {0u, 31u}) {
        EXPECT_FALSE(tqcam_func_activate_status_get(&cam.dev, func));
        EXPECT_TRUE(tqcam_func_activate(&cam.dev, func));
        EXPECT_TRUE(tqcam_func_activate_status_get(&cam.dev, func));
    }
    EXPECT_TRUE(tqcam_func_deactivate(&cam.dev, 31));
    EXPECT_FALSE(tqcam_func_activate_status_get(&cam.dev, 31));
    EXPECT_TRUE(tqcam_func_activate_status_get(&cam.dev, 0));
    EXPECT_FALSE(tqcam_func_activate(&cam.dev, 32));
    EXPECT_FALSE(tqcam_func_deactivate(&cam.dev, 32));
    EXPECT_FALSE(tqcam_func_activate_status_get(&cam.dev, 32));
    EXPECT_FALSE(tqcam_func_activate(nullptr, 1));
}
