// Handles: opened, asked, set, closed, also from inside a call.
#include "fake_camera.h"
#include "support/log_capture.h"

namespace {
struct Device : ::testing::Test {
    // The driver's events for one parameter; empty also when the call failed.
    calls_t set(uint32_t id, std::vector<uint8_t> bytes)
    {
        tqcam_param_item_t item = {id, static_cast<uint8_t>(bytes.size()), {}};
        std::copy(bytes.begin(), bytes.end(), item.value);
        cam.take();
        if (!tqcam_param_batch_set(&cam.dev, &item, 1))
            return {};
        calls_t calls = cam.take();
        calls.erase(calls.begin()); // the link's, which comes first
        return calls;
    }

    LogCapture log;
    FakeCamera cam;
};
} // namespace

TEST_F(Device, Identity)
{
    cam.set_text(TQCAM_PARAM_VENDOR, "18 bytes of vendor."); // without a NUL, one byte too long
    cam.params[TQCAM_PARAM_CHIP_ID] = {0x80, 0, 6, 0, 7, 0}; // its sign fills the identity
    cam.calib_result = -1;                                   // may be missing
    ASSERT_EQ(cam.open(), &cam.dev);
    tqcam_dev_info_t info;
    ASSERT_EQ(tqcam_dev_get_info(&cam.dev, &info), &info);
    EXPECT_STREQ(info.vendor, "18 bytes of vendor");
    EXPECT_STREQ(info.product, "XX-E1-YY");
    EXPECT_STREQ(info.serial, "000000010000000200000004");
    EXPECT_EQ(info.dev_id, 0xFFFFFFFF80070006u);
    EXPECT_EQ(info.dev_id32, 1u ^ (7u << 16 | 6u));
    EXPECT_EQ(info.max_w * 1000 + info.max_h, 320240);
    EXPECT_EQ(info.calib_freqs[0], 12000000u);
}

// Where an open ends, what is undone. The handle survives, closed.
TEST_F(Device, OpenUnwinds)
{
    const struct {
        void (*spoil)(FakeCamera &);
        calls_t calls;
    } cases[] = {
        {[](FakeCamera &c) { c.open_ok = false; }, {"link.open"}},
        {[](FakeCamera &c) { c.get_ok = false; }, {"link.open", "link.get 7", "link.close"}},
        {[](FakeCamera &c) { c.set_text(TQCAM_PARAM_PRODUCT, "none"); },
         {"link.open", "link.get 7", "link.close"}},
        {[](FakeCamera &c) { c.init_ok = false; }, {"link.open", "link.get 7", "drv.init", "link.close"}},
        {[](FakeCamera &c) { c.slow_rounds = 9; }, {"link.open", "link.reset 3", "link.close"}},
    };
    for (const auto &c : cases) {
        FakeCamera fresh;
        c.spoil(fresh);
        EXPECT_EQ(fresh.open(), nullptr);
        EXPECT_EQ(fresh.take(), c.calls);
        EXPECT_FALSE(fresh.dev.priv || fresh.dev.api_lock || fresh.row->dev);
    }
    FakeCamera slow;
    slow.slow_rounds = 1; // is opened again
    ASSERT_NE(slow.open(), nullptr);
    EXPECT_EQ(slow.take(), (calls_t{"link.open", "link.reset 3", "link.close", "link.open", "link.get 7",
                                    "drv.init", "drv.calib 0 0 2"}));
    // An open one is closed, then opened anew from its address, where there is no camera.
    EXPECT_EQ(tqcam_dev_open(&slow.dev), nullptr);
    EXPECT_EQ(slow.take(), (calls_t{"link.stop", "drv.cap 0", "link.close", "drv.uninit"}));
}

// A callback that closes its own device would pull it out from under the call that it runs in.
TEST_F(Device, ClosedFromInsideACallTheCallCloses)
{
    ASSERT_NE(cam.open(), nullptr);
    dev_close_polls = 1;
    {
        ApiGuard outer(&cam.dev), inner(&cam.dev);
        tqcam_dev_close(&cam.dev);
        EXPECT_TRUE(log.has("[tqcam_dev_close] api wait timeout\n"));
        EXPECT_NE(cam.dev.priv, nullptr);
        EXPECT_FALSE(tqcam_cap_start(&cam.dev));
        EXPECT_EQ(tqcam_dev_open(&cam.dev), nullptr);
        tqcam_dev_close(&cam.dev);
    }
    EXPECT_EQ(cam.dev.priv, nullptr);
    EXPECT_TRUE(cam.has("drv.uninit"));
}

TEST_F(Device, ParametersReachTheDriverOnceTheDeviceTookThem)
{
    ASSERT_NE(cam.open(), nullptr);
    tqcam_dev_priv_t *p = cam.dev.priv;
    const std::vector<uint8_t> two_words = {1, 0, 1, 0, 2, 0, 0, 0};
    const struct {
        uint32_t id;
        std::vector<uint8_t> value;
        calls_t events;
        relaxed_t<uint32_t> *copy;
        uint32_t stored;
    } cases[] = {
        {27, {1, 0, 0, 0, 2, 0, 0, 0}, {}, &p->cap_mode, 1},
        {12, {30, 0, 0, 0}, {"drv.fps 30"}, &p->fps, 30},
        {13, {0xE8, 3, 9, 9}, {"drv.intg 1000 0"}, &p->intg_us, 1000},
        {13, two_words, {"drv.intg 65537 0"}, &p->intg_us, 65537},
        {16, {200, 0}, {"drv.intg 200 1"}, &p->intg2_us, 200},
        {10, {14, 0, 0, 0}, {"drv.fmt 14"}, &p->frame_fmt, 14},
        {1, {64, 0, 0, 0}, {"drv.freq 64 0"}, &p->dual_freq0, 64},
        {20, {5, 1}, {"drv.div 261"}, &p->mod_freq, 64},
        {21, two_words, {"drv.freq 65537 2"}, &p->dual_freq1, 2},
        {21, two_words, {"drv.freq 65537 2"}, &p->mod_freq, 64}, // stays the single one
        {9, {1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 0, 0, 6}, {"drv.roi 1 6"}, &p->mod_freq, 64},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(set(c.id, c.value), c.events) << c.id;
        EXPECT_EQ(*c.copy, c.stored) << c.id;
    }
    cam.set_ok = false;
    EXPECT_TRUE(set(12, {50, 0, 0, 0}).empty());
    EXPECT_EQ(p->fps, 30u); // the device goes first

    tqcam_param_item_t item = {};
    uint32_t word = 0;
    EXPECT_FALSE(tqcam_param_batch_set(&cam.dev, &item, -1));
    EXPECT_FALSE(tqcam_param_batch_get(&cam.dev, &item, INT32_MIN));
    EXPECT_FALSE(tqcam_reg_batch_read(&cam.dev, 1, 0, &word, -1)); // would be 65535 words
}
