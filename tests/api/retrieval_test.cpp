#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "fake_camera.h"
#include "support/log_capture.h"

namespace {
using calls_t = std::vector<std::string>;

struct Retrieval : ::testing::Test {
    Retrieval()
    {
        cam.set_words(TQCAM_PARAM_FPS, {20});
        EXPECT_NE(cam.open(), nullptr);
        start();
    }
    void start()
    {
        EXPECT_TRUE(tqcam_cap_start(&cam.dev));
        cam.calls.take();
    }
    int get(uint32_t n, void *dst, uint32_t len)
    {
        return tqcam_cap_get_frames(&cam.dev, n, dst, len, &first);
    }
    calls_t driver_calls()
    {
        calls_t out;
        for (const std::string &call : cam.calls.take())
            if (call.compare(0, 4, "drv.") == 0)
                out.push_back(call);
        return out;
    }

    LogCapture log;
    FakeCamera cam;
    tqcam_frame_t first = {};
    uint8_t buf[256] = {};
};
} // namespace

TEST_F(Retrieval, TimeToWait)
{
    struct {
        uint32_t fps, frames, cap_mode;
        const char *line;
    } const cases[] = {
        {20, 1, 0, "frame_num = 1, timeout_msec=2150\n"},
        {0, 1, 0, "frame_num = 1, timeout_msec=2150\n"}, // 20 when nobody set it
        {30, 3, 0, "frame_num = 3, timeout_msec=2399\n"},
        {2000, 10, 0, "frame_num = 10, timeout_msec=3000\n"},
        {20, 1, 1, "frame_num = 1, timeout_msec=31536000\n"}, // an outside trigger
    };
    cam.priv()->cap_stop = 1; // nothing is waited for
    for (const auto &c : cases) {
        cam.priv()->fps = c.fps;
        cam.priv()->cap_mode = c.cap_mode;
        get(c.frames, buf, sizeof(buf));
        EXPECT_TRUE(log.has(std::string("[_tqcam_cap_get_frames]") + c.line)) << c.line;
        log.clear();
    }
    EXPECT_EQ(cam.priv()->fps, 20u);
    cam.priv()->cap_mode = 0;
    get(UINT32_MAX, buf, sizeof(buf)); // no overflow on the way to the deadline
    EXPECT_TRUE(log.has("frame_num = -1, "));
}

TEST_F(Retrieval, TimesOutWithWhatItGot)
{
    cam.priv()->fps = 1000;
    cam.send_frame(5);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(get(2, buf, sizeof(buf)), 1);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
    EXPECT_GE(ms.count(), 2190);
    EXPECT_LT(ms.count(), 5000);
    EXPECT_TRUE(log.has("[_tqcam_cap_get_frames] timeout ... (Connection timed out)\n"));
    EXPECT_EQ(first.frame_info.frame_idx, 5);
    EXPECT_TRUE(tqcam_cap_is_ongoing(&cam.dev));
}

TEST_F(Retrieval, WithoutWaiting)
{
    tqcam_frame_info_t info = {};
    EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, buf, sizeof(buf), &info), 0);
    cam.send_frame(1);
    cam.send_frame(2);
    EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, buf, sizeof(buf), &info), 1);
    EXPECT_EQ(info.frame_idx, 1); // one at a time
    EXPECT_EQ(buf[63], 1);
    EXPECT_EQ(cam.priv()->cur_w, 8);
    EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, buf, sizeof(buf), nullptr), 1);
    EXPECT_EQ(buf[0], 2);
    EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, buf, sizeof(buf), &info), 0);
    EXPECT_EQ(cam.priv()->cur_w, 8); // that of the frames retrieved last
    tqcam_cap_stop(&cam.dev);
    EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, buf, sizeof(buf), &info), TQCAM_ERR_CAP_WRONG_STATE);
    EXPECT_EQ(get(0, buf, sizeof(buf)), -1);
    EXPECT_TRUE(log.has("[_tqcam_cap_get_frames]Wrong params\n"));
}

TEST_F(Retrieval, FramesThatComeOneByOneLieBehindEachOther)
{
    std::thread camera([&] {
        for (uint16_t i = 1; i <= 3; i++) {
            cam.send_frame(i);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    EXPECT_EQ(get(3, buf, 3 * 64), 3);
    camera.join();
    EXPECT_EQ(buf[63], 1);
    EXPECT_EQ(buf[64], 2);
    EXPECT_EQ(buf[191], 3);
    EXPECT_EQ(first.frame_info.frame_idx, 1);
    EXPECT_EQ(driver_calls(),
              (calls_t{"drv.need 3", "drv.info 64 of 64", "drv.raw 1 x 64", "drv.info 64 of 64",
                       "drv.raw 1 x 64", "drv.info 64 of 64", "drv.raw 1 x 64", "drv.raw 3 x 64"}));
}

TEST_F(Retrieval, FramesOfOnePassLandOnOnePlace)
{
    cam.send_frame(1);
    cam.send_frame(2);
    EXPECT_EQ(get(2, buf, sizeof(buf)), 2);
    EXPECT_EQ(buf[0], 2);
    EXPECT_EQ(buf[64], 0);
    EXPECT_EQ(first.frame_info.frame_idx, 1);
}

TEST_F(Retrieval, SmallBuffers)
{
    for (uint32_t len : {0u, 1u, 63u}) {
        SCOPED_TRACE(len);
        memset(buf, 0xEE, sizeof(buf));
        cam.send_frame(9);
        EXPECT_EQ(get(1, buf, len), 1);
        EXPECT_EQ(first.frame_info.frame_size, 64u); // the information is right
        EXPECT_EQ(std::count(buf, buf + sizeof(buf), 9), len);
        EXPECT_TRUE(log.has("[_tqcam_cap_get_frames]Buffer size " + std::to_string(len) +
                            " too small to keep frame (size=64)\n"));
        EXPECT_EQ(driver_calls().back(), "drv.info " + std::to_string(len) + " of 64"); // not shown the frame
    }
    cam.send_frame(1);
    cam.send_frame(2);
    EXPECT_EQ(get(2, buf, 64), 2); // the second doesn't fit behind the first, which is the driver's business
    const calls_t calls = driver_calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "drv.raw 2 x 64"), 0);
}

TEST_F(Retrieval, WakesWhenCaptureStops)
{
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        tqcam_cap_stop(&cam.dev);
    });
    cam.priv()->cap_mode = 1;                 // hours
    const int got = get(1, buf, sizeof(buf)); // it may wake before the state has changed, with no frame got
    EXPECT_TRUE(got == 0 || got == TQCAM_ERR_CAP_WRONG_STATE) << got;
    stopper.join();
}

TEST_F(Retrieval, WakesWhenTheDeviceCloses)
{
    cam.priv()->cap_mode = 1;
    std::thread waiting([&] { EXPECT_LE(tqcam_cap_get_frames(&cam.dev, 1, nullptr, 0, nullptr), 0); });
    while (!cam.calls.has("link.wait"))
        std::this_thread::yield();
    tqcam_dev_close(&cam.dev);
    waiting.join();
    EXPECT_FALSE(log.has("api wait timeout"));
}

TEST_F(Retrieval, AnErrorIsReturnedOnce)
{
    static int heard;
    heard = 0;
    tqcam_cap_set_callback_on_error(&cam.dev, [](tqcam_dev_t *, int, uint64_t) {
        heard++;
        return true;
    });
    cam.send_frame(4);
    cam.event(TQCAM_ERR_CAP_UNKNOWN);
    EXPECT_EQ(get(1, buf, sizeof(buf)), TQCAM_ERR_CAP_UNKNOWN);
    EXPECT_EQ(first.frame_info.frame_idx, 4); // what was ready came with it
    EXPECT_EQ(get(1, buf, sizeof(buf)), 0);
    EXPECT_EQ(heard, 0); // the retrieval came first
    EXPECT_EQ(cam.priv()->cap_err, 0);
}

TEST_F(Retrieval, DriversTurn)
{
    cam.consume = 1; // a frame that the driver takes for itself: the retrieval begins again
    cam.send_frame(1);
    cam.send_frame(2);
    EXPECT_EQ(get(1, buf, sizeof(buf)), 1);
    EXPECT_EQ(first.frame_info.frame_idx, 2);
    EXPECT_EQ(driver_calls(), (calls_t{"drv.need 1", "drv.info 64 of 64", "drv.raw 1 x 64", "drv.need 1",
                                       "drv.info 64 of 64", "drv.raw 1 x 64"}));
    cam.need_data = 1; // a frame of the driver's own
    EXPECT_EQ(get(1, buf, sizeof(buf)), 1);
    EXPECT_EQ(first.frame_info.frame_idx, 777);
    EXPECT_EQ(driver_calls(), (calls_t{"drv.need 1"}));
    cam.send_frame(3);
    EXPECT_EQ(get(1, buf, 63), 1); // it would write a frame as large as the largest that it has seen
    EXPECT_EQ(driver_calls(), (calls_t{"drv.info 63 of 64"}));
    cam.need_data = -4;
    cam.send_frame(4);
    EXPECT_EQ(get(1, buf, sizeof(buf)), -4);
    EXPECT_EQ(first.frame_info.frame_idx, 4);
}

TEST_F(Retrieval, FollowsTheCamerasIntegrationTime)
{
    struct {
        uint32_t meta_len, reported, stored;
    } const cases[] = {{16, 300, 300}, {16, 1, 300},   {16, 0, 300},
                       {0, 500, 300},  {16, 300, 300}, {16, 500, 500}};
    for (const auto &c : cases) {
        cam.meta_intg_us = c.reported;
        const bool told = cam.priv()->intg_us != c.stored;
        cam.send_frame(1, 64, 2, c.meta_len);
        EXPECT_EQ(get(1, buf, sizeof(buf)), 1);
        EXPECT_EQ(cam.priv()->intg_us, c.stored);
        const calls_t calls = driver_calls();
        EXPECT_EQ(calls.back() == "drv.intg " + std::to_string(c.stored) + " 0", told);
    }
}

TEST_F(Retrieval, InsideACallback)
{
    static FakeCamera *camera;
    static std::vector<int> heard;
    camera = &cam;
    heard.clear();
    tqcam_cap_set_callback_on_frame_ready(&cam.dev, [](tqcam_dev_t *dev, tqcam_frame_t *frame) {
        heard.push_back(frame->frame_info.frame_idx);
        if (heard.size() == 1) {
            uint8_t inner[64];
            heard.push_back(100 * tqcam_cap_get_frame(dev, inner, sizeof(inner), nullptr));
            camera->send_frame(3);
        }
    });
    cam.send_frame(1);
    cam.send_frame(2);
    EXPECT_EQ(get(2, buf, sizeof(buf)), 2);
    EXPECT_EQ(heard, (std::vector<int>{1, 2, 100, 3}));
}

TEST_F(Retrieval, Snapshot)
{
    std::thread camera([&] {
        while (!cam.calls.has("link.start 0"))
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        cam.send_frame(7);
    });
    tqcam_cap_stop(&cam.dev);
    EXPECT_TRUE(tqcam_cap_snapshot(&cam.dev, buf, sizeof(buf), &first));
    camera.join();
    EXPECT_EQ(first.frame_info.frame_idx, 7);
    EXPECT_EQ(cam.priv()->cap_state, CAP_STATE_IDLE);
    start();
    cam.send_frame(8);
    EXPECT_TRUE(tqcam_cap_snapshot(&cam.dev, buf, sizeof(buf), &first));
    EXPECT_EQ(first.frame_info.frame_idx, 8);
    EXPECT_TRUE(tqcam_cap_is_ongoing(&cam.dev));
    EXPECT_FALSE(tqcam_cap_snapshot(nullptr, buf, sizeof(buf), &first));
    EXPECT_TRUE(log.has("[tqcam_cap_snapshot]wrong parameters\n"));
    EXPECT_EQ(tqcam_cap_seek_frame(&cam.dev, 1, 2), -1); // not a replay
    cam.priv()->ll.address.if_type = TQCAM_IF_FILE;
    EXPECT_EQ(tqcam_cap_seek_frame(&cam.dev, 1, 2), 21);
    cam.priv()->ll.address.if_type = TQCAM_IF_USB;
}
