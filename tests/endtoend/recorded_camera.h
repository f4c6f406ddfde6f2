// A recording of a simulated camera, in the working directory, and the device that plays it.
#pragma once

#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "replay_recorder.h"
#include "support/sim_shot.h"
#include "tqcam.h"

// An ideal camera of a kind before a flat wall.
inline sim_config_t wall_before(const char *camera, double distance_mm, uint32_t format)
{
    sim_config_t cfg = sim_ideal(camera, SIM_SCENE_WALL, distance_mm, format, 12000000);
    cfg.fps = 500;
    return cfg;
}

// Records frames; change may alter each of them, or the settings that the recording states. Returns the
// truth.
inline std::vector<float> record_camera(const std::string &path, sim_config_t cfg, int frames,
                                        const std::function<void(sim_frame_t &)> &change = {},
                                        const std::function<void(sim_config_t &)> &state = {})
{
    EXPECT_EQ(sim_config_check(cfg), "");
    const sim_source_ptr_t source = sim_source_live(cfg);
    if (state)
        state(cfg);
    sim_recorder_t rec = {};
    std::string error;
    EXPECT_TRUE(sim_recorder_open(&rec, path.c_str(), nullptr, cfg, "", {}, &error)) << error;
    std::vector<float> truth;
    for (int i = 0; i < frames; i++) {
        sim_frame_t frame;
        EXPECT_TRUE(source->next(source->self, &frame));
        truth.assign(frame.truth_mm.begin(), frame.truth_mm.end());
        if (change)
            change(frame);
        EXPECT_TRUE(sim_recorder_add(&rec, frame));
    }
    EXPECT_TRUE(sim_recorder_close(&rec));
    return truth;
}

// Opens a recording and captures from it, over and over if loop is set. nullptr when either fails.
inline tqcam_dev_t *start_replay(const std::string &uri, bool loop)
{
    tqcam_dev_t *dev = tqcam_dev_open_by_uri(uri.c_str());
    tqcam_cap_cfg_t cfg = {};
    cfg.cache_frames_cnt = 64;
    cfg.file_loop = loop;
    if (dev && tqcam_cap_config_set(dev, &cfg) && tqcam_cap_start(dev))
        return dev;
    tqcam_dev_close(dev);
    return nullptr;
}

// What came out of a replay that was played to its end.
struct played_t {
    bool opened = false, ended = false;
    std::vector<int> frames;  // index of each frame
    std::vector<int> decoded; // values of distance that each gave
    int error = 0;
};

// Plays a recording to its end, a frame a call, and decodes every frame. The end must come within ten
// seconds.
inline played_t play(const std::string &path, uint32_t fps = 999)
{
    played_t out;
    tqcam_dev_t *dev = start_replay("file://" + path, false);
    if (!dev)
        return out;
    out.opened = true;
    tqcam_param_item_t item = {
        TQCAM_PARAM_FPS, 4, {static_cast<uint8_t>(fps), static_cast<uint8_t>(fps >> 8)}};
    tqcam_param_batch_set(dev, &item, 1);
    std::vector<uint8_t> raw(1 << 20);
    std::vector<uint16_t> image(640 * 480);
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (bool last = false; !last && std::chrono::steady_clock::now() < limit;) {
        last = !tqcam_cap_is_ongoing(dev); // then once more for what is ready still
        for (;;) {
            tqcam_frame_info_t info = {};
            const int got = tqcam_cap_get_frame(dev, raw.data(), static_cast<uint32_t>(raw.size()), &info);
            if (got == 0)
                break;
            if (got < 0)
                out.error = got;
            if (got < 0 && info.frame_size == 0) // a frame may come with the code
                continue;
            out.frames.push_back(info.frame_idx);
            out.decoded.push_back(tqcam_frame_get_dist_u16(dev, image.data(),
                                                           static_cast<uint32_t>(image.size()), raw.data(),
                                                           static_cast<uint32_t>(raw.size()), &info));
        }
        out.ended = last;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    tqcam_dev_close(dev);
    return out;
}
