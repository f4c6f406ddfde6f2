#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "fake_camera.h"
#include "support/log_capture.h"

namespace {
using calls_t = std::vector<std::string>;

struct OpenClose : ::testing::Test {
    LogCapture log;
    FakeCamera cam;
};
} // namespace

TEST_F(OpenClose, IdentityAndOrder)
{
    tqcam_path_set("prefix-");
    cam.set_text(TQCAM_PARAM_VENDOR, "18 bytes of vendor."); // without a NUL, one byte too long
    ASSERT_EQ(cam.open(), &cam.dev);
    EXPECT_EQ(cam.calls.take(),
              (calls_t{"link.open", "link.get 7", "drv.init", "drv.calib 0 0 2", "drv.freqs 37"}));
    tqcam_dev_info_t info;
    ASSERT_EQ(tqcam_dev_get_info(&cam.dev, &info), &info);
    EXPECT_STREQ(info.vendor, "18 bytes of vendor");
    EXPECT_STREQ(info.product, "XX-E1-YY");
    EXPECT_STREQ(info.serial, "000000010000000200000004");
    EXPECT_EQ(info.dev_id, (uint64_t{1 ^ 2 ^ 4} << 32 | 5u << 24 | 7u << 16 | 6u));
    EXPECT_EQ(info.dev_id32, 1u ^ (7u << 16 | 6u));
    EXPECT_EQ(info.version.boot, 3);
    EXPECT_EQ(info.max_w, 320);
    EXPECT_EQ(info.max_h, 240);
    EXPECT_EQ(info.max_fps, 60);
    EXPECT_EQ(info.max_intg_us, 1500);
    EXPECT_STREQ(info.drv_name, "EPC chip driver");
    EXPECT_STREQ(info.uri, "usb://000:000:000");
    EXPECT_STREQ(info.path_prefix, "prefix-");
    EXPECT_EQ(info.calib_freqs[0], 12000000u);
    EXPECT_EQ(info.calib_freq_cnt, 1u);
    EXPECT_TRUE(log.has("[_tqcam_get_info]SENSOR: p/w/cid=5/7/6. HWID=0x0000000705070006\n"));
    EXPECT_EQ(cam.priv()->cap_state, CAP_STATE_AFTER_OPEN);
    EXPECT_EQ(cam.priv()->cur_w, 320);
    EXPECT_TRUE(cam.priv()->lens_cfg.en_2d && cam.priv()->lens_cfg.en_3d);

    tqcam_dev_close(&cam.dev); // a device that never captured is stopped all the same
    EXPECT_EQ(cam.calls.take(), (calls_t{"link.stop", "drv.cap 0", "link.close", "drv.uninit"}));
    EXPECT_EQ(cam.dev.priv, nullptr);
    tqcam_dev_close(&cam.dev);
    tqcam_dev_close(nullptr);
    EXPECT_TRUE(cam.calls.take().empty());
}

TEST_F(OpenClose, SignedLowHalfFillsTheIdentity)
{
    cam.params[TQCAM_PARAM_CHIP_ID] = {0x80, 0, 6, 0, 7, 0};
    ASSERT_NE(cam.open(), nullptr);
    EXPECT_EQ(cam.dev.dev_id, 0xFFFFFFFF80070006u);
}

TEST_F(OpenClose, CalibrationMayBeMissing)
{
    cam.calib_result = -1;
    cam.params[TQCAM_PARAM_LIMITS].clear(); // an answer of length 0
    EXPECT_NE(cam.open(), nullptr);
    EXPECT_TRUE(log.has("[tqcam_dev_open]Load calibration data failed\n"));
    EXPECT_TRUE(log.has("[tqcam_dev_open]-- open tqcam device OK\n"));
}

// Where an open ends, what is undone. The handle survives, closed.
TEST_F(OpenClose, Unwinds)
{
    struct {
        const char *line;
        void (*spoil)(FakeCamera &);
        calls_t calls;
    } const cases[] = {
        {"]open device failed!\n", [](FakeCamera &c) { c.open_ok = false; }, {"link.open"}},
        {"] cannot get info of device\n",
         [](FakeCamera &c) { c.get_ok = false; },
         {"link.open", "link.get 7", "link.close"}},
        {"]cannot find driver for device: product=no-chip\n",
         [](FakeCamera &c) { c.set_text(TQCAM_PARAM_PRODUCT, "no-chip"); },
         {"link.open", "link.get 7", "link.close"}},
        {"]Driver init failed\n",
         [](FakeCamera &c) { c.init_ok = false; },
         {"link.open", "link.get 7", "drv.init", "link.close"}},
        {"]USB in low speed mode, reset usb\n",
         [](FakeCamera &c) {
             c.slow_rounds = 9;
             c.reset_reopens = false;
         },
         {"link.open", "link.reset 3", "link.close"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        FakeCamera fresh;
        c.spoil(fresh);
        EXPECT_EQ(fresh.open(), nullptr);
        EXPECT_TRUE(log.has(std::string("[tqcam_dev_open") + c.line));
        EXPECT_EQ(fresh.calls.take(), c.calls);
        EXPECT_EQ(fresh.dev.priv, nullptr);
        EXPECT_EQ(fresh.dev.api_lock, nullptr);
        EXPECT_EQ(fresh.row()->dev, nullptr);
    }
    auto *owned = static_cast<tqcam_dev_t *>(calloc(1, sizeof(tqcam_dev_t)));
    owned->owned = 1; // the library's own handle goes, with its path
    owned->address.if_type = TQCAM_IF_FILE;
    owned->address.file.path = strdup("nowhere.oni");
    EXPECT_EQ(tqcam_dev_open(owned), nullptr);
}

TEST_F(OpenClose, LowSpeedIsRetried)
{
    cam.slow_rounds = 2;
    ASSERT_NE(cam.open(), nullptr);
    EXPECT_EQ(cam.calls.take(),
              (calls_t{"link.open", "link.reset 3", "link.close", "link.open", "link.reset 3", "link.close",
                       "link.open", "link.get 7", "drv.init", "drv.calib 0 0 2", "drv.freqs 37"}));
    EXPECT_EQ(cam.dev.address.usb.speed, 3);
}

TEST_F(OpenClose, AnOpenHandleIsClosedFirst)
{
    ASSERT_NE(cam.open(), nullptr);
    cam.calls.take();
    EXPECT_EQ(tqcam_dev_open(&cam.dev), nullptr); // anew from its address, where there is no camera
    EXPECT_TRUE(log.has("[tqcam_dev_open]device not close correctly. close it..\n"));
    EXPECT_EQ(cam.calls.take(), (calls_t{"link.stop", "drv.cap 0", "link.close", "drv.uninit"}));
    EXPECT_EQ(cam.dev.priv, nullptr);
}

TEST_F(OpenClose, Reset)
{
    ASSERT_NE(cam.open(), nullptr);
    cam.calls.take();
    EXPECT_TRUE(tqcam_dev_reset(&cam.dev, 8));
    EXPECT_FALSE(tqcam_dev_reset(&cam.dev, 9));
    EXPECT_FALSE(tqcam_dev_reset(&cam.dev, -1));
    EXPECT_TRUE(log.has("[tqcam_dev_reset]wrong reset target: 9\n"));
    EXPECT_EQ(cam.calls.take(), (calls_t{"link.reset 8"}));
}

TEST_F(OpenClose, WaitsForCallsInFlight)
{
    ASSERT_NE(cam.open(), nullptr);
    std::thread call([&] {
        ApiGuard guard(&cam.dev);
        while (cam.priv()->opened)
            std::this_thread::yield();
        EXPECT_FALSE(ApiGuard(&cam.dev)); // no call begins any more
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(cam.calls.has("link.close"));
    });
    while (dev_count_active(&cam.dev) == 0)
        std::this_thread::yield();
    tqcam_dev_close(&cam.dev);
    call.join();
    EXPECT_TRUE(cam.calls.has("drv.uninit"));
    EXPECT_FALSE(log.has("api wait timeout"));
}

// A callback that closes its own device would pull it out from under the call that it runs in.
TEST_F(OpenClose, FromInsideACallTheCallCloses)
{
    ASSERT_NE(cam.open(), nullptr);
    dev_close_polls = 1;
    {
        ApiGuard outer(&cam.dev), inner(&cam.dev);
        EXPECT_EQ(cam.dev.api_active, 2);
        tqcam_dev_close(&cam.dev);
        EXPECT_TRUE(log.has("[tqcam_dev_close] api wait timeout\n"));
        EXPECT_NE(cam.dev.priv, nullptr);
        EXPECT_FALSE(tqcam_cap_start(&cam.dev));
        EXPECT_EQ(tqcam_dev_open(&cam.dev), nullptr);
        tqcam_dev_close(&cam.dev);
    }
    EXPECT_EQ(cam.dev.priv, nullptr);
    EXPECT_TRUE(cam.calls.has("drv.uninit"));
}
