// Every call in every state of a handle.
#include "fake_camera.h"
#include "support/log_capture.h"

namespace {
enum { NONE, LISTED, OPENED, IDLE, CAPTURING, ENDED, CLOSED, STATES };

// A camera in a state of its own. ENDED: a run that ended by itself and was not stopped.
struct InState {
    explicit InState(int state)
    {
        cam.set_words(TQCAM_PARAM_FPS, {1000});
        cam.dev.inited = state == LISTED;
        bool ok = state < OPENED || cam.open();
        if (state >= IDLE)
            ok &= tqcam_cap_start(&cam.dev);
        if (state == IDLE)
            ok &= tqcam_cap_stop(&cam.dev);
        if (state == CAPTURING)
            cam.send_frame(1); // for a retrieval to return at once
        if (state == ENDED) {
            cam.event(TQCAM_ERR_CAP_EOF);
            cam.dev.priv->cap_err = 0; // as after one retrieval
        }
        if (state == CLOSED)
            tqcam_dev_close(&cam.dev);
        cam.frames_on_start = 2; // so that no call of a start and a retrieval waits for its time-out
        EXPECT_TRUE(ok);
    }
    LogCapture log;
    FakeCamera cam;
};

uint8_t buf[64];
uint16_t image[32];
float image_f32[32];
uint32_t word;
tqcam_frame_t frame;
tqcam_param_item_t item;
tqcam_dev_info_t device;
tqcam_cap_cfg_t cfg;
tqcam_frame_info_t info;

// clang-format off
#define CALL(what) #what, [](tqcam_dev_t *d) -> int { return what; }
const struct {
    const char *name;
    int (*call)(tqcam_dev_t *d);
    int results[STATES];
} calls[] = {
    //                                                                 NULL listed opened idle capturing ended closed
    {CALL(tqcam_cap_start(d)),                                           {0,  0,  1,  1,  1,  1,  0}},
    {CALL(tqcam_cap_stop(d)),                                            {0,  0,  1,  1,  1,  1,  0}},
    {CALL(tqcam_cap_is_ongoing(d)),                                      {0,  0,  0,  0,  1,  0,  0}},
    {CALL(tqcam_cap_get_frames(d, 1, buf, 64, &frame)),                 {-1, -1, -2, -2,  1,  0, -1}},
    {CALL(tqcam_cap_get_frames(d, 1, nullptr, 64, nullptr)),            {-1, -1, -2, -2,  1,  0, -1}},
    {CALL(tqcam_cap_get_frame(d, buf, 0, &frame.frame_info)),           {-1, -1, -2, -2,  1,  0, -1}},
    {CALL(tqcam_cap_snapshot(d, buf, 64, &frame)),                       {0,  0,  1,  1,  1,  0,  0}},
    {CALL(tqcam_cap_seek_frame(d, 0, 0)),                               {-1, -1, -1, -1, -1, -1, -1}},
    {CALL((cfg = {}, cfg.cache_frames_cnt = 10, tqcam_cap_config_set(d, &cfg))), {0, 1, 1, 1, 1, 1, 1}},
    {CALL((cfg = {}, tqcam_cap_config_get(d, &cfg), int(cfg.cache_frames_cnt))), {0, 0, 10, 10, 10, 10, 0}},
    {CALL(tqcam_cap_set_callback_on_frame_ready(d, nullptr)),            {0,  0,  1,  1,  1,  1,  0}},
    {CALL(tqcam_cap_set_callback_on_error(d, nullptr)),                  {0,  0,  1,  1,  1,  1,  0}},
    {CALL(tqcam_param_batch_set(d, &item, 1)),                           {0,  0,  1,  1,  1,  1,  0}},
    {CALL(tqcam_param_batch_get(d, &item, 1)),                           {0,  0,  1,  1,  1,  1,  0}},
    {CALL(tqcam_reg_batch_write(d, 0, 0, &word, 1)),                     {0,  0,  1,  1,  1,  1,  0}},
    {CALL(tqcam_reg_batch_read(d, 0, 0, &word, 1)),                      {0,  0,  1,  1,  1,  1,  0}},
    {CALL(tqcam_frame_get_dist_u16(d, image, 32, buf, 64, &info)),      {-1, -1, 32, 32, 32, 32, -1}},
    {CALL(tqcam_frame_get_dist_f32(d, image_f32, 32, buf, 64, &info)),  {-1, -1, 32, 32, 32, 32, -1}},
    {CALL(tqcam_frame_get_gray_f32(d, image_f32, 31, buf, 64, &info)),  {-1, -1,  0,  0,  0,  0, -1}},
    {CALL(tqcam_frame_get_gray_u16(d, image, 32, buf, 63, &info)),      {-1, -1,  0,  0,  0,  0, -1}},
    {CALL(tqcam_get_raw_frames_ex(d, image, 64, buf, 64, nullptr)),     {-1, -1, -1, -1, -1, -1, -1}},
    {CALL(tqcam_dev_get_info(d, &device) != nullptr),                    {0,  0,  1,  1,  1,  1,  0}},
    {CALL(tqcam_dev_reset(d, 0)),                                        {0,  0,  1,  1,  1,  1,  0}},
    {CALL(tqcam_filter_enable(d, 1, nullptr)),                          {-1, -1,  0,  0,  0,  0, -1}},
    {CALL(tqcam_use_case_set_uid(d, 0)),                                {-1, -1, -1, -1, -1, -1, -1}},
    {CALL(tqcam_func_activate(d, 32)),                                   {0,  0,  0,  0,  0,  0,  0}},
    {CALL(tqcam_lens_calib_config_get(d) != nullptr),                    {0,  0,  1,  1,  1,  1,  0}},
    {CALL((tqcam_dev_close(d), d && d->priv)),                           {0,  0,  0,  0,  0,  0,  0}},
};
// clang-format on
} // namespace

TEST(States, EveryCallInEveryStateAndEveryPair)
{
    info.width = 8;
    info.height = 4;
    info.frame_size = 64;
    for (const auto &a : calls) {
        SCOPED_TRACE(a.name);
        for (int state = 0; state < STATES; state++) {
            InState s(state);
            EXPECT_EQ(a.call(state == NONE ? nullptr : &s.cam.dev), a.results[state]) << "in state " << state;
        }
        for (const auto &b : calls) { // any two calls leave a handle that closes
            InState s(ENDED);
            a.call(&s.cam.dev);
            b.call(&s.cam.dev);
            tqcam_dev_close(&s.cam.dev);
            EXPECT_EQ(s.cam.dev.priv, nullptr) << b.name;
        }
    }
}
