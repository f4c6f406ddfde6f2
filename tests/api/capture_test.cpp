#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fake_camera.h"
#include "support/log_capture.h"

namespace {
using calls_t = std::vector<std::string>;

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
        cam.calls.take();
    }
    tqcam_cap_cfg_t cfg()
    {
        tqcam_cap_cfg_t out = {};
        tqcam_cap_config_get(&cam.dev, &out);
        return out;
    }
    uint32_t ready()
    {
        tq_stream_state_t state;
        return tq_stream_get_state(cam.priv()->stream, &state)->rdy_cnt;
    }

    LogCapture log;
    FakeCamera cam;
};
} // namespace

TEST_F(Capture, StartReadsBackAndTellsTheDriver)
{
    EXPECT_TRUE(tqcam_cap_start(&cam.dev)); // the first start sends a stop
    EXPECT_EQ(cam.calls.take(), (calls_t{"link.stop", "drv.cap 0", "link.get 6", "drv.intg 100 1",
                                         "drv.freq 12 0 0", "link.start 0", "drv.cap 1"}));
    EXPECT_EQ(cam.priv()->fps, 30u);
    EXPECT_EQ(cam.priv()->frame_fmt, 2u);
    EXPECT_EQ(cam.priv()->intg2_us, 50u);
    EXPECT_TRUE(tqcam_cap_is_ongoing(&cam.dev));

    cam.set_words(TQCAM_PARAM_FORMAT, {14});
    cam.params[TQCAM_PARAM_INTG1] = {1, 0, 1, 0, 0, 0, 0, 0};
    EXPECT_TRUE(tqcam_cap_start(&cam.dev)); // a running one is stopped first
    EXPECT_EQ(cam.calls.take(), (calls_t{"link.stop", "drv.cap 0", "link.get 6", "drv.intg 65537 0",
                                         "drv.freq 60 50 0", "link.start 0", "drv.cap 1"}));
    EXPECT_TRUE(tqcam_cap_stop(&cam.dev));
    EXPECT_TRUE(tqcam_cap_stop(&cam.dev)); // nothing to stop
    EXPECT_EQ(cam.calls.take(), (calls_t{"link.stop", "drv.cap 0"}));
    cam.priv()->dev_mode = 9;
    EXPECT_TRUE(tqcam_cap_start(&cam.dev));
    EXPECT_EQ(cam.calls.take(), (calls_t{"link.start 0", "drv.cap 1"}));
}

TEST_F(Capture, StartAndStopThatFail)
{
    cam.start_ok = false;
    EXPECT_FALSE(tqcam_cap_start(&cam.dev));
    EXPECT_EQ(cam.priv()->cap_state, CAP_STATE_IDLE);
    cam.start_ok = true;
    EXPECT_TRUE(tqcam_cap_start(&cam.dev));
    cam.stop_ok = false;
    EXPECT_FALSE(tqcam_cap_stop(&cam.dev));
    EXPECT_EQ(cam.priv()->cap_state, CAP_STATE_RUNNING);
    EXPECT_FALSE(tqcam_cap_is_ongoing(&cam.dev));
    cam.stop_ok = true;
    EXPECT_TRUE(tqcam_cap_stop(&cam.dev));

    tqcam_cap_cfg_t c = cfg();
    c.cache_frames_cnt = 1;
    EXPECT_TRUE(tqcam_cap_config_set(&cam.dev, &c));
    EXPECT_FALSE(tqcam_cap_start(&cam.dev));
    EXPECT_TRUE(log.has("[tqcam_cap_start] capture buffer not set or size is not correct \n"));
    cam.priv()->ll.priv = nullptr; // the link went away
    EXPECT_FALSE(tqcam_cap_start(&cam.dev));
    EXPECT_TRUE(log.has("[tqcam_cap_start] Device handler Is NULL!\r\n"));
}

TEST_F(Capture, StopEmptiesTheReadyListAndStartToo)
{
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    cam.send_frame(1);
    cam.send_frame(2);
    EXPECT_EQ(ready(), 2u);
    EXPECT_TRUE(tqcam_cap_stop(&cam.dev));
    EXPECT_EQ(ready(), 0u);
    cam.send_frame(3); // a late event of the run that was stopped
    EXPECT_EQ(ready(), 1u);
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    tqcam_frame_info_t info;
    uint8_t buf[64];
    EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, buf, sizeof(buf), &info), 0);
    cam.send_frame(9);
    EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, buf, sizeof(buf), &info), 1);
    EXPECT_EQ(info.frame_idx, 9);
}

// How faults of the link end a run: n times a code, with data in between or not.
TEST_F(Capture, FaultsOfTheLink)
{
    struct {
        int code, times;
        bool data_between;
        bool alive;
        int pending;
        const char *line;
    } const cases[] = {
        {-5, 32, true, true, 0, ""},
        {-5, 33, true, false, -5, "[on_capture_event]trans timeout -> stop\n"},
        {-7, 16, false, true, 0, ""},
        {-7, 40, true, true, 0, ""},
        {-7, 17, false, false, -7, "[on_capture_event]trans stall -> stop\n"},
        {-3, 1, false, false, 0, ""},
        {-9, 1, false, false, -9, ""},
        {-10, 1, false, false, -10, ""},
        {-10, 9, false, false, -10, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.code) + " x " + std::to_string(c.times));
        log.clear();
        ASSERT_TRUE(tqcam_cap_start(&cam.dev));
        cam.calls.take();
        for (int i = 0; i < c.times; i++) {
            cam.event(c.code);
            if (c.data_between)
                cam.event(0, "junk", 4);
        }
        EXPECT_EQ(tqcam_cap_is_ongoing(&cam.dev), c.alive);
        EXPECT_EQ(cam.priv()->cap_state, CAP_STATE_RUNNING); // until it is stopped
        EXPECT_EQ(cam.priv()->cap_err, c.pending);
        EXPECT_EQ(cam.calls.take(), c.alive ? calls_t{} : calls_t{"link.abort"});
        EXPECT_TRUE(!*c.line || log.count(c.line) == 1);
        EXPECT_TRUE(tqcam_cap_stop(&cam.dev));
    }
}

TEST_F(Capture, LostFramesAreAWarning)
{
    static std::vector<std::pair<int, uint64_t>> heard;
    heard.clear();
    tqcam_cap_set_callback_on_error(&cam.dev, [](tqcam_dev_t *, int code, uint64_t value) {
        heard.push_back({code, value});
        return true;
    });
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    for (int lost = 0; lost < 2; lost++) { // half a frame, then the next one begins
        tq_stream_hdr_t hdr = {};
        hdr.magic = TQ_STREAM_MAGIC;
        hdr.len = 8;
        hdr.frame.frame_len = 16;
        hdr.flags0 = TQ_STREAM_BOUND;
        hdr.hdr_hash = tq_stream_hash16(&hdr, 34, 0);
        uint8_t packet[44] = {};
        memcpy(packet, &hdr, sizeof(hdr));
        cam.event(0, packet, sizeof(packet));
        cam.send_frame(5); // gives up the half one, and itself waits for a bound
        cam.send_frame(6);
    }
    EXPECT_EQ(log.count("[on_capture_event]trans discard 1 frames\n"), 2);
    uint8_t buf[64];
    tqcam_frame_info_t info;
    EXPECT_GE(tqcam_cap_get_frame(&cam.dev, buf, sizeof(buf), &info), 1);
    EXPECT_EQ(heard, (std::vector<std::pair<int, uint64_t>>{{TQCAM_ERR_CAP_FRAME_DISCARD, 2}}));
}

TEST_F(Capture, ErrorCallbackMayEndCapture)
{
    tqcam_cap_set_callback_on_error(&cam.dev, [](tqcam_dev_t *, int, uint64_t) { return false; });
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    cam.send_frame(1);
    cam.priv()->cap_err = TQCAM_ERR_CAP_FRAME_DISCARD;
    uint8_t buf[64];
    EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, buf, sizeof(buf), nullptr), 0);
    EXPECT_FALSE(tqcam_cap_is_ongoing(&cam.dev));
    EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, buf, sizeof(buf), nullptr), 0); // until the next start
    EXPECT_TRUE(log.has("[_cap_handle_rdy_data]error cb return false to stop capture\n"));
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    cam.send_frame(2);
    EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, buf, sizeof(buf), nullptr), 1);
}

TEST_F(Capture, FramesReachTheCallback)
{
    static std::vector<uint32_t> heard; // index, size, first byte, last byte that is there
    heard.clear();
    tqcam_cap_set_callback_on_frame_ready(&cam.dev, [](tqcam_dev_t *, tqcam_frame_t *frame) {
        const uint32_t size = frame->frame_info.frame_size;
        const auto *bytes = static_cast<const uint8_t *>(frame->frame_data);
        heard.insert(heard.end(), {frame->frame_info.frame_idx, size, bytes[0],
                                   bytes[std::min<uint32_t>(size, 0x400000) - 1]});
    });
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    cam.send_frame(7);
    cam.send_frame(8, 0x400010); // longer than the buffer of a callback: cut
    tqcam_frame_t first = {};
    EXPECT_EQ(tqcam_cap_get_frames(&cam.dev, 2, nullptr, 0, &first), 2);
    EXPECT_EQ(heard, (std::vector<uint32_t>{7, 64, 7, 7, 8, 0x400010, 8, 8}));
    EXPECT_EQ(first.frame_info.frame_idx, 7);
    EXPECT_EQ(first.frame_data, nullptr);
    EXPECT_TRUE(log.has("[_cap_handle_rdy_data]frdy cb invoke: 8,8\n"));
    tqcam_cap_set_callback_on_frame_ready(&cam.dev, nullptr);
    cam.send_frame(9);
    EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, nullptr, 0, nullptr), 1); // consumed without delivery
    EXPECT_EQ(heard.size(), 8u);

    cam.info_ok = false; // not dropped for that
    cam.send_frame(10);
    tqcam_frame_info_t info;
    EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, nullptr, 0, &info), 1);
    EXPECT_EQ(info.frame_size, 0u);
    EXPECT_TRUE(log.has("[_cap_handle_rdy_data] driver frame_get_info failed!\n"));
}

TEST_F(Capture, Configuration)
{
    char name[] = "a.oni";
    tqcam_cap_cfg_t c = cfg();
    EXPECT_EQ(c.cache_frames_cnt, 10u);
    c.save_file = name;
    c.cache_frames_cnt = 3;
    EXPECT_TRUE(tqcam_cap_config_set(&cam.dev, &c));
    name[0] = 'x';
    c = cfg();
    EXPECT_STREQ(c.save_file, "a.oni"); // a copy of its own
    c.file_loop = 1;
    EXPECT_TRUE(tqcam_cap_config_set(&cam.dev, &c)); // also from its own pointer
    EXPECT_STREQ(cfg().save_file, "a.oni");

    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    for (int i = 0; i < 5; i++)
        cam.send_frame(static_cast<uint16_t>(i));
    EXPECT_EQ(ready(), 3u);
    c = cfg();
    c.cache_frames_cnt = 20;
    c.file_loop = 0;
    EXPECT_TRUE(tqcam_cap_config_set(&cam.dev, &c));
    EXPECT_TRUE(
        log.has("[tqcam_cap_config_set]Change cache_frames_cnt 3 to 20 is not allowed during capturing\n"));
    EXPECT_EQ(cfg().cache_frames_cnt, 3u);
    EXPECT_EQ(cfg().file_loop, 0);
    EXPECT_FALSE(tqcam_cap_config_set(&cam.dev, nullptr));
    EXPECT_FALSE(tqcam_cap_config_set(nullptr, &c));
    tqcam_cap_config_get(&cam.dev, nullptr);
    c.save_file = nullptr;
    tqcam_dev_close(&cam.dev);
    EXPECT_TRUE(tqcam_cap_config_set(&cam.dev, &c));
    EXPECT_TRUE(log.has("[tqcam_cap_config_set]Cannot set capture config when device is closed \n"));
    tqcam_cap_config_get(&cam.dev, &c);
    EXPECT_EQ(c.cache_frames_cnt, 20u); // untouched
}
