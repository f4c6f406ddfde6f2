// Every call in every state of a handle.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fake_camera.h"
#include "support/log_capture.h"

namespace {
enum { NONE, LISTED, OPENED, IDLE, CAPTURING, ENDED, CLOSED, STATES };
const char *const state_names[STATES] = {"NULL", "listed", "opened", "idle", "capturing", "ended", "closed"};

// A camera in a state of its own. ENDED: a run that ended by itself and was not stopped.
struct InState {
    explicit InState(int state)
    {
        cam.set_words(TQCAM_PARAM_FPS, {1000});
        cam.decode = [](void *dst, uint32_t size, int) {
            memset(dst, 1, size);
            return static_cast<int>(size);
        };
        if (state == LISTED)
            cam.dev.inited = 1;
        if (state < OPENED)
            return;
        EXPECT_NE(cam.open(), nullptr);
        if (state >= IDLE) {
            EXPECT_TRUE(tqcam_cap_start(&cam.dev));
        }
        if (state == IDLE) {
            EXPECT_TRUE(tqcam_cap_stop(&cam.dev));
        }
        if (state == CAPTURING)
            cam.send_frame(1); // for a retrieval to return at once
        if (state == ENDED) {
            cam.event(TQCAM_ERR_CAP_EOF);
            cam.priv()->cap_err = 0; // as after one retrieval
        }
        if (state == CLOSED)
            tqcam_dev_close(&cam.dev);
        cam.frames_on_start = 2; // so that no call of a start and a retrieval waits for its time-out
    }
    LogCapture log;
    FakeCamera cam;
};

struct call_t {
    const char *name;
    int (*call)(tqcam_dev_t *dev);
    int results[STATES];
    bool says_null; // logs the usual line where the device isn't open
};

tqcam_cap_cfg_t cfg_of_10()
{
    tqcam_cap_cfg_t cfg = {};
    cfg.cache_frames_cnt = 10;
    return cfg;
}

uint8_t buf[64];
uint16_t image[32];
float image_f32[32];
tqcam_frame_t frame;
tqcam_param_item_t item;
uint32_t word;

tqcam_frame_info_t frame_info()
{
    tqcam_frame_info_t info = {};
    info.width = 8;
    info.height = 4;
    info.frame_size = 64;
    return info;
}

// clang-format off
const call_t calls[] = {
    //                                                                          NULL listed opened idle capturing ended closed
    {"start", [](tqcam_dev_t *d) -> int { return tqcam_cap_start(d); },         {0, 0, 1, 1, 1, 1, 0}, true},
    {"stop", [](tqcam_dev_t *d) -> int { return tqcam_cap_stop(d); },           {0, 0, 1, 1, 1, 1, 0}, true},
    {"ongoing", [](tqcam_dev_t *d) -> int { return tqcam_cap_is_ongoing(d); },  {0, 0, 0, 0, 1, 0, 0}, false},
    {"get_frames", [](tqcam_dev_t *d) { return tqcam_cap_get_frames(d, 1, buf, 64, &frame); },
                                                                                {-1, -1, -2, -2, 1, 0, -1}, true},
    {"get_frames no buffer", [](tqcam_dev_t *d) { return tqcam_cap_get_frames(d, 1, nullptr, 64, nullptr); },
                                                                                {-1, -1, -2, -2, 1, 0, -1}, true},
    {"get_frame", [](tqcam_dev_t *d) { return tqcam_cap_get_frame(d, buf, 0, &frame.frame_info); },
                                                                                {-1, -1, -2, -2, 1, 0, -1}, true},
    {"snapshot", [](tqcam_dev_t *d) -> int { return tqcam_cap_snapshot(d, buf, 64, &frame); },
                                                                                {0, 0, 1, 1, 1, 0, 0}, false},
    {"seek", [](tqcam_dev_t *d) { return tqcam_cap_seek_frame(d, 0, 0); },      {-1, -1, -1, -1, -1, -1, -1}, true},
    {"config_set", [](tqcam_dev_t *d) -> int { const auto c = cfg_of_10(); return tqcam_cap_config_set(d, &c); },
                                                                                {0, 1, 1, 1, 1, 1, 1}, false},
    {"config_get", [](tqcam_dev_t *d) -> int { tqcam_cap_cfg_t c = {}; tqcam_cap_config_get(d, &c);
        return static_cast<int>(c.cache_frames_cnt); },                         {0, 0, 10, 10, 10, 10, 0}, false},
    {"on_frame", [](tqcam_dev_t *d) -> int { return tqcam_cap_set_callback_on_frame_ready(d, nullptr); },
                                                                                {0, 0, 1, 1, 1, 1, 0}, true},
    {"on_error", [](tqcam_dev_t *d) -> int { return tqcam_cap_set_callback_on_error(d, nullptr); },
                                                                                {0, 0, 1, 1, 1, 1, 0}, true},
    {"param_set", [](tqcam_dev_t *d) -> int { return tqcam_param_batch_set(d, &item, 1); },
                                                                                {0, 0, 1, 1, 1, 1, 0}, true},
    {"param_get", [](tqcam_dev_t *d) -> int { return tqcam_param_batch_get(d, &item, 1); },
                                                                                {0, 0, 1, 1, 1, 1, 0}, true},
    {"reg_write", [](tqcam_dev_t *d) -> int { return tqcam_reg_batch_write(d, 0, 0, &word, 1); },
                                                                                {0, 0, 1, 1, 1, 1, 0}, true},
    {"reg_read", [](tqcam_dev_t *d) -> int { return tqcam_reg_batch_read(d, 0, 0, &word, 1); },
                                                                                {0, 0, 1, 1, 1, 1, 0}, true},
    {"dist_u16", [](tqcam_dev_t *d) { const auto i = frame_info(); return tqcam_frame_get_dist_u16(d, image, 32, buf, 64, &i); },
                                                                                {-1, -1, 32, 32, 32, 32, -1}, true},
    {"dist_f32", [](tqcam_dev_t *d) { const auto i = frame_info(); return tqcam_frame_get_dist_f32(d, image_f32, 32, buf, 64, &i); },
                                                                                {-1, -1, 32, 32, 32, 32, -1}, true},
    {"gray_f32 cut", [](tqcam_dev_t *d) { const auto i = frame_info(); return tqcam_frame_get_gray_f32(d, image_f32, 31, buf, 64, &i); },
                                                                                {-1, -1, 0, 0, 0, 0, -1}, true},
    {"raw_frames_ex", [](tqcam_dev_t *d) { return tqcam_get_raw_frames_ex(d, image, 64, buf, 64, nullptr); },
                                                                                {-1, -1, -1, -1, -1, -1, -1}, true},
    {"get_info", [](tqcam_dev_t *d) -> int { tqcam_dev_info_t i; return tqcam_dev_get_info(d, &i) != nullptr; },
                                                                                {0, 0, 1, 1, 1, 1, 0}, true},
    {"reset", [](tqcam_dev_t *d) -> int { return tqcam_dev_reset(d, 0); },      {0, 0, 1, 1, 1, 1, 0}, true},
    {"close", [](tqcam_dev_t *d) -> int { tqcam_dev_close(d); return d && d->priv; },  {0, 0, 0, 0, 0, 0, 0}, false},
};
// clang-format on
} // namespace

TEST(States, EveryCallInEveryState)
{
    for (const call_t &c : calls) {
        for (int state = 0; state < STATES; state++) {
            SCOPED_TRACE(std::string(c.name) + " on " + state_names[state]);
            InState s(state);
            EXPECT_EQ(c.call(state == NONE ? nullptr : &s.cam.dev), c.results[state]);
            const bool open = state > LISTED && state < CLOSED;
            EXPECT_EQ(s.log.has(" Device handler Is NULL!\r\n"), c.says_null && !open);
        }
    }
}

// Any two calls after one another leave a handle that closes.
TEST(States, EveryPairOfCalls)
{
    for (const call_t &a : calls) {
        for (const call_t &b : calls) {
            SCOPED_TRACE(std::string(a.name) + " then " + b.name);
            InState s(ENDED);
            a.call(&s.cam.dev);
            b.call(&s.cam.dev);
            tqcam_dev_close(&s.cam.dev);
            EXPECT_EQ(s.cam.dev.priv, nullptr);
        }
    }
}
