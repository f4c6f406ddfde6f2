#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fake_camera.h"
#include "support/log_capture.h"

namespace {
// A camera whose device is open as far as parameters need it.
struct Params : ::testing::Test {
    Params()
    {
        cam.prepare()->priv->opened = 1;
        row.ops = &FakeCamera::drv_ops;
        row.dev = &cam.dev;
        cam.priv()->drv = &row;
    }
    ~Params() override
    {
        delete cam.dev.priv;
        cam.dev.priv = nullptr;
    }

    tqcam_param_item_t item(uint32_t id, std::vector<uint8_t> bytes)
    {
        tqcam_param_item_t out = {id, static_cast<uint8_t>(bytes.size()), {}};
        std::copy(bytes.begin(), bytes.end(), out.value);
        return out;
    }
    // The driver's events for one parameter; empty also when the call failed.
    std::vector<std::string> set(const tqcam_param_item_t &one)
    {
        cam.calls.take();
        std::vector<std::string> events;
        if (tqcam_param_batch_set(&cam.dev, &one, 1)) {
            for (const std::string &call : cam.calls.take())
                if (call.compare(0, 4, "drv.") == 0)
                    events.push_back(call);
        }
        return events;
    }

    LogCapture log;
    FakeCamera cam;
    tqcam_drv_t row = {"fake", "E1", nullptr, nullptr, nullptr};
};
using events_t = std::vector<std::string>;
} // namespace

TEST_F(Params, ReactionsAfterTheDeviceTookThem)
{
    tqcam_dev_priv_t *p = cam.priv();
    const std::vector<uint8_t> two_words = {1, 0, 1, 0, 2, 0, 0, 0};
    struct {
        uint32_t id;
        std::vector<uint8_t> value;
        events_t events;
        relaxed_t<uint32_t> *copy;
        uint32_t stored;
        const char *line;
    } const cases[] = {
        {0, {9, 0, 0, 0}, {}, &p->dev_mode, 9, "Set DEV_MOD: 9\n"},
        {27, {1, 0, 0, 0, 2, 0, 0, 0}, {}, &p->cap_mode, 1, "Set DEV_CAP_MOD: 1 2\n"},
        {12, {30, 0, 0, 0}, {"drv.fps 30"}, &p->fps, 30, "Set FPS:30\n"},
        {12, {0, 0, 0, 0}, {}, &p->fps, 30, "Set FPS:0\n"},
        {13, {0xE8, 3, 9, 9}, {"drv.intg 1000 0"}, &p->intg_us, 1000, "Set INTG1: 1000\n"},
        {13, two_words, {"drv.intg 65537 0"}, &p->intg_us, 65537, "Set INTG1: 65537\n"},
        {16, {200, 0}, {"drv.intg 200 1"}, &p->intg2_us, 200, "Set INTG2: 200\n"},
        {10, {14, 0, 0, 0}, {"drv.fmt 14"}, &p->frame_fmt, 14, "Set FRM_FMT: 14\n"},
        {1, {64, 0, 0, 0}, {"drv.freq 64 0 0"}, &p->mod_freq, 64, "Set MOD_FREQ: 64\n"},
        {1, {64, 0, 0, 0}, {"drv.freq 64 0 0"}, &p->dual_freq0, 64, ""},
        {20, {5, 1}, {"drv.div 261"}, &p->mod_freq, 64, ""},
        {21, two_words, {"drv.freq 65537 2 0"}, &p->dual_freq0, 65537, "Set DUAL-FREQ: 65537, 2\n"},
        {21, two_words, {"drv.freq 65537 2 0"}, &p->dual_freq1, 2, ""},
        {21, two_words, {"drv.freq 65537 2 0"}, &p->mod_freq, 64, ""}, // stays the single one
        {9,
         {1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 0, 0, 6},
         {"drv.roi 1..6"},
         &p->mod_freq,
         64,
         "Set ROI: TL @ [3, 1], BR @ [4, 2], bin=5\n"},
        {171, {1}, {}, &p->mod_freq, 64, ""},
        {200, {1}, {}, &p->mod_freq, 64, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.id);
        log.clear();
        EXPECT_EQ(set(item(c.id, c.value)), c.events);
        EXPECT_EQ(*c.copy, c.stored);
        EXPECT_TRUE(!*c.line || log.has(std::string("[_tqcam_param_batch_set]") + c.line)) << log.text();
    }
}

TEST_F(Params, BatchOrderAndIds)
{
    const tqcam_param_item_t items[] = {item(12, {30, 0, 0, 0}), item(13, {100, 0}), item(171, {7})};
    EXPECT_TRUE(tqcam_param_batch_set(&cam.dev, items, 3));
    EXPECT_EQ(cam.calls.take(), (events_t{"link.set 3", "link.set id 12 len 4", "link.set id 13 len 2",
                                          "link.set id 18 len 1", "drv.fps 30", "drv.intg 100 0"}));
    EXPECT_EQ(items[2].param_id, 171u);
    EXPECT_TRUE(tqcam_param_batch_set(&cam.dev, nullptr, 0)); // the link decides about an empty batch
    EXPECT_EQ(cam.calls.take(), (events_t{"link.set 0"}));

    cam.set_ok = false;
    EXPECT_TRUE(set(item(12, {50, 0, 0, 0})).empty());
    EXPECT_EQ(cam.priv()->fps, 30u); // the device goes first
    cam.set_ok = true;
    row.dev = nullptr; // no driver: the copies are kept all the same, apart from the pair
    EXPECT_TRUE(set(item(12, {50, 0, 0, 0})).empty());
    EXPECT_EQ(cam.priv()->fps, 50u);
    EXPECT_TRUE(set(item(21, {1, 0, 0, 0, 2, 0, 0, 0})).empty());
    EXPECT_EQ(cam.priv()->dual_freq1, 0u);
}

TEST_F(Params, ReadsBack)
{
    cam.params[10] = {4, 0, 0, 0};
    tqcam_param_item_t items[] = {item(10, {9}), item(99, {9})};
    EXPECT_TRUE(tqcam_param_batch_get(&cam.dev, items, 2));
    EXPECT_EQ(items[0].value[0], 4);
    EXPECT_EQ(items[0].param_len, 4);
    EXPECT_EQ(items[1].param_len, 0);
    cam.get_ok = false;
    items[0].value[0] = 77;
    EXPECT_FALSE(tqcam_param_batch_get(&cam.dev, items, 2));
    EXPECT_EQ(items[0].value[0], 77);
}

TEST_F(Params, HostileCountsAndClosedHandles)
{
    tqcam_param_item_t one = item(12, {1, 0, 0, 0});
    uint32_t word = 0;
    EXPECT_FALSE(tqcam_param_batch_set(&cam.dev, nullptr, 1));
    EXPECT_FALSE(tqcam_param_batch_set(&cam.dev, &one, -1));
    EXPECT_FALSE(tqcam_param_batch_get(&cam.dev, &one, INT32_MIN));
    EXPECT_FALSE(tqcam_reg_batch_read(&cam.dev, 1, 0, &word, -1)); // would be 65535 words
    EXPECT_FALSE(tqcam_reg_batch_write(&cam.dev, 1, 0, nullptr, 1));
    EXPECT_TRUE(cam.calls.take().empty());
    EXPECT_TRUE(tqcam_reg_batch_write(&cam.dev, 0x105, 8, &word, 1));
    EXPECT_TRUE(tqcam_reg_batch_read(&cam.dev, 5, 8, &word, 1));
    EXPECT_EQ(cam.calls.take(), (events_t{"link.reg_write 5 8 1", "link.reg_read 5 8 1"}));

    char name[32];
    tqcam_path_set("");
    cam.priv()->dev_id32 = 42;
    EXPECT_TRUE(tq_priv_get_param_absolute_name(&cam.dev, name, 16));
    EXPECT_STREQ(name, "tqcam_param_42."); // cut
    EXPECT_FALSE(tq_priv_get_param_absolute_name(&cam.dev, name, 0));
    EXPECT_EQ(tq_priv_get_len_calib_handle(&cam.dev), &cam.priv()->lens_map);
    EXPECT_EQ(tq_priv_get_param_id(&cam.dev), 42u);

    cam.priv()->opened = 0;
    EXPECT_FALSE(tqcam_param_batch_set(&cam.dev, &one, 1));
    EXPECT_TRUE(log.has("[_tqcam_param_batch_set] Device handler Is NULL!\r\n"));
    EXPECT_FALSE(tqcam_param_batch_get(nullptr, &one, 1));
    EXPECT_TRUE(log.has("[tqcam_param_batch_get] Device handler Is NULL!\r\n"));
    EXPECT_FALSE(tq_priv_get_param_absolute_name(&cam.dev, name, 32));
    EXPECT_EQ(tq_priv_get_fps(nullptr), 0u);
    EXPECT_EQ(tq_priv_get_fmt(nullptr), 0u);
    EXPECT_EQ(tq_priv_get_len_calib_handle(nullptr), nullptr);
}
