// Captures: started and stopped, fed and retrieved, ended by faults, from callbacks and from several threads.
#include <thread>

#include "fake_camera.h"
#include "support/log_capture.h"

namespace {
struct Capture : ::testing::Test {
    Capture()
    {
        cam.set_words(TQCAM_PARAM_FPS, {30});
        cam.set_words(TQCAM_PARAM_FORMAT, {0x82}); // only the low seven bits are the format
        cam.set_words(TQCAM_PARAM_MOD_FREQ, {12});
        cam.set_words(TQCAM_PARAM_DUAL_FREQ, {60, 50});
        cam.params[TQCAM_PARAM_INTG1] = {100, 0, 9, 9};
        cam.params[TQCAM_PARAM_INTG2] = {50, 0, 9, 9};
        EXPECT_NE(cam.open(), nullptr);
        cam.take();
    }
    void start()
    {
        EXPECT_TRUE(tqcam_cap_start(&cam.dev));
        calls = cam.take();
    }
    int get(uint32_t n = 1, uint32_t len = 256)
    {
        return tqcam_cap_get_frames(&cam.dev, n, buf, len, &first);
    }
    // What is ready at once.
    int poll() { return tqcam_cap_get_frame(&cam.dev, buf, 256, &first.frame_info); }

    LogCapture log;
    FakeCamera cam;
    calls_t calls; // of the start
    tqcam_frame_t first = {};
    uint16_t &idx = first.frame_info.frame_idx;
    uint8_t buf[256] = {};
};

std::vector<int> heard; // by a callback
} // namespace

TEST_F(Capture, StartReadsBackAndTellsTheDriver)
{
    start(); // the first start sends a stop
    EXPECT_EQ(calls, (calls_t{"link.stop", "drv.cap 0", "link.get 6", "drv.intg 100 1", "drv.freq 12 0",
                              "link.start 0", "drv.cap 1"}));
    EXPECT_EQ(cam.dev.priv->frame_fmt, 2u);
    cam.set_words(TQCAM_PARAM_FORMAT, {14});
    cam.params[TQCAM_PARAM_INTG1] = {1, 0, 1, 0, 0, 0, 0, 0};
    start(); // a running one is stopped first
    EXPECT_EQ(calls, (calls_t{"link.stop", "drv.cap 0", "link.get 6", "drv.intg 65537 0", "drv.freq 60 50",
                              "link.start 0", "drv.cap 1"}));
    cam.stop_ok = false;
    EXPECT_FALSE(tqcam_cap_stop(&cam.dev));
    EXPECT_EQ(cam.dev.priv->cap_state, CAP_STATE_RUNNING);
    cam.stop_ok = true;
    EXPECT_TRUE(tqcam_cap_stop(&cam.dev));
    cam.start_ok = false;
    EXPECT_FALSE(tqcam_cap_start(&cam.dev));
    EXPECT_EQ(cam.dev.priv->cap_state, CAP_STATE_IDLE);
    cam.start_ok = true;
    cam.send_frame(3); // late, of the run that was stopped
    start();
    EXPECT_EQ(poll(), 0);
}

// How faults of the link end a run: n times a code, with data in between or not.
TEST_F(Capture, FaultsOfTheLink)
{
    const struct {
        int code, times;
        bool data_between, alive;
        int pending;
    } cases[] = {
        {-5, 32, true, true, 0},   {-5, 33, true, false, -5},   {-7, 16, false, true, 0},
        {-7, 40, true, true, 0},   {-7, 17, false, false, -7},  {-3, 1, false, false, 0},
        {-9, 1, false, false, -9}, {-10, 9, false, false, -10},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.code) + " x " + std::to_string(c.times));
        start();
        for (int i = 0; i < c.times; i++) {
            cam.event(c.code);
            if (c.data_between)
                cam.event(0, "junk", 4);
        }
        EXPECT_EQ(tqcam_cap_is_ongoing(&cam.dev), c.alive);
        EXPECT_EQ(cam.dev.priv->cap_err, c.pending);
        EXPECT_EQ(cam.take(), c.alive ? calls_t{} : calls_t{"link.abort"});
        EXPECT_TRUE(tqcam_cap_stop(&cam.dev));
    }
    start();
    cam.send_frame(4);
    cam.event(TQCAM_ERR_CAP_UNKNOWN);
    EXPECT_EQ(get(), TQCAM_ERR_CAP_UNKNOWN); // once
    EXPECT_EQ(idx, 4);                       // what was ready came with it
    EXPECT_EQ(get(), 0);
}

TEST_F(Capture, ErrorCallback)
{
    heard.clear();
    tqcam_cap_set_callback_on_error(&cam.dev, [](tqcam_dev_t *, int code, uint64_t value) {
        heard.insert(heard.end(), {code, static_cast<int>(value)});
        return heard.size() < 4; // the second ends the capture
    });
    start();
    for (int run = 0; run < 2; run++) {
        cam.send_frame(4, 64, 0, 32); // half a frame
        cam.send_frame(5);            // gives up the half one, and itself waits for a bound
        cam.send_frame(6);
        EXPECT_EQ(poll(), 1 - run);
    }
    EXPECT_EQ(heard, (std::vector<int>{TQCAM_ERR_CAP_FRAME_DISCARD, 1, TQCAM_ERR_CAP_FRAME_DISCARD, 2}));
    EXPECT_FALSE(tqcam_cap_is_ongoing(&cam.dev));
    EXPECT_EQ(poll(), 0); // until the next start
    start();
    cam.send_frame(2);
    EXPECT_EQ(poll(), 1);
}

TEST_F(Capture, FrameCallback)
{
    heard.clear(); // index, size, first byte, last byte that is there
    tqcam_cap_set_callback_on_frame_ready(&cam.dev, [](tqcam_dev_t *dev, tqcam_frame_t *frame) {
        const uint32_t size = frame->frame_info.frame_size;
        const auto *bytes = static_cast<const uint8_t *>(frame->frame_data);
        heard.insert(heard.end(), {frame->frame_info.frame_idx, static_cast<int>(size), bytes[0],
                                   bytes[std::min<uint32_t>(size, 0x400000) - 1]});
        if (heard.size() == 4) { // one within another
            EXPECT_EQ(tqcam_cap_get_frame(dev, nullptr, 0, nullptr), 1);
        }
    });
    start();
    cam.send_frame(7);
    cam.send_frame(8, 0x400010); // longer than the buffer of a callback: cut
    EXPECT_EQ(tqcam_cap_get_frames(&cam.dev, 1, nullptr, 0, &first), 1);
    EXPECT_EQ(heard, (std::vector<int>{7, 64, 7, 7, 8, 0x400010, 8, 8}));
    EXPECT_EQ(idx, 7);
    tqcam_cap_set_callback_on_frame_ready(&cam.dev, nullptr);
    cam.ops.frame_get_info = [](auto...) { return false; };
    cam.send_frame(9);
    EXPECT_EQ(poll(), 1); // not dropped for that
    EXPECT_EQ(first.frame_info.frame_size, 0u);
}

TEST_F(Capture, ConfigurationIsACopyOfItsOwn)
{
    char name[] = "a.oni";
    tqcam_cap_cfg_t c = {};
    c.save_file = name;
    c.cache_frames_cnt = 3;
    EXPECT_TRUE(tqcam_cap_config_set(&cam.dev, &c));
    name[0] = 'x';
    start();
    tqcam_cap_config_get(&cam.dev, &c);
    c.cache_frames_cnt = 20;                         // not during capturing
    EXPECT_TRUE(tqcam_cap_config_set(&cam.dev, &c)); // from its own pointer
    tqcam_cap_config_get(&cam.dev, &c);
    EXPECT_STREQ(c.save_file, "a.oni");
    EXPECT_EQ(c.cache_frames_cnt, 3u);
}

TEST_F(Capture, RetrievesWhatComesInTime)
{
    start();
    cam.dev.priv->fps = 1000;
    cam.send_frame(5);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(get(2), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(2190));
    std::thread camera([&] { // frames that come one by one lie behind each other
        for (uint16_t i = 1; i <= 3; i++) {
            cam.send_frame(i);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    EXPECT_EQ(get(3), 3);
    camera.join();
    EXPECT_EQ(buf[63] * 100 + buf[64] * 10 + buf[191], 123);
    EXPECT_EQ(idx, 1);
    for (uint32_t len : {0u, 1u, 63u}) {
        memset(buf, 0xEE, sizeof(buf));
        cam.send_frame(9);
        cam.take();
        EXPECT_EQ(get(1, len), 1);
        EXPECT_EQ(std::count(buf, buf + sizeof(buf), 9), len);
        EXPECT_FALSE(cam.has("drv.raw 1")); // not shown the frame
    }
}

TEST_F(Capture, WakesWhenCaptureStopsOrTheDeviceCloses)
{
    for (const bool close : {false, true}) {
        start();
        cam.dev.priv->cap_mode = 1; // waits for hours
        std::thread waiting([&] { EXPECT_LE(tqcam_cap_get_frames(&cam.dev, 1, nullptr, 0, nullptr), 0); });
        while (!cam.has("link.wait"))
            std::this_thread::yield();
        close ? tqcam_dev_close(&cam.dev) : static_cast<void>(tqcam_cap_stop(&cam.dev));
        waiting.join();
    }
    EXPECT_FALSE(log.has("api wait timeout"));
}

TEST_F(Capture, DriversTurn)
{
    start();
    cam.consume = 1; // a frame that the driver takes for itself: the retrieval begins again
    cam.send_frame(1);
    cam.send_frame(2);
    EXPECT_EQ(get(), 1);
    EXPECT_EQ(idx, 2);
    EXPECT_EQ(cam.take(),
              (calls_t{"drv.need 1", "drv.info 64", "drv.raw 1", "drv.need 1", "drv.info 64", "drv.raw 1"}));
    cam.need_data = 1; // a frame of the driver's own
    EXPECT_EQ(get(), 1);
    EXPECT_EQ(idx, 777);
    cam.take();
    cam.send_frame(3);
    EXPECT_EQ(get(1, 63), 1); // it would write a frame as large as the largest that it has seen
    EXPECT_FALSE(cam.has("drv.need 1"));
    cam.need_data = 0;
    const uint32_t cases[][3] = {{16, 300, 300}, {16, 0, 300}, {0, 500, 300}, {16, 500, 500}};
    for (const auto &[meta_len, reported, stored] : cases) { // the integration time that the camera tells
        cam.meta_intg_us = reported;
        cam.send_frame(1, 64, meta_len);
        EXPECT_EQ(get(), 1);
        EXPECT_EQ(cam.dev.priv->intg_us, stored);
    }
}
