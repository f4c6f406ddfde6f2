// Handles of replays: opened twice, side by side, closed while others call.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "recorded_camera.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {
struct Handles : ::testing::Test {
    Handles() { record_camera("a.oni", wall_before("E5", 1000, 2), 3); }

    // Values of distance that a frame of the replay gives; negative when none comes.
    int decode_one(tqcam_dev_t *dev)
    {
        std::vector<uint8_t> raw(1 << 18);
        std::vector<uint16_t> image(9600);
        tqcam_frame_t frame;
        if (tqcam_cap_get_frames(dev, 1, raw.data(), 1 << 18, &frame) != 1)
            return -1;
        return tqcam_frame_get_dist_u16(dev, image.data(), 9600, raw.data(), 1 << 18, &frame.frame_info);
    }

    TempDir dir;
    LogCapture log;
};
} // namespace

// A row of the driver table serves one device: a second of the same chip takes it over, and whoever goes
// first must not take it from under the other.
TEST_F(Handles, TwoOfOneChip)
{
    for (bool first_goes_first : {true, false}) {
        tqcam_dev_t *first = start_replay("a.oni", true);
        tqcam_dev_t *second = start_replay("a.oni", true);
        ASSERT_TRUE(first && second);
        EXPECT_EQ(decode_one(first), 9600);
        EXPECT_EQ(decode_one(second), 9600);
        tqcam_dev_close(first_goes_first ? first : second);
        EXPECT_EQ(decode_one(first_goes_first ? second : first), first_goes_first ? 9600 : 0);
        tqcam_dev_close(first_goes_first ? second : first);
    }
}

TEST_F(Handles, CallsFromManyThreadsAndACloseInBetween)
{
    tqcam_dev_t dev = {};
    dev.inited = 1;
    dev.address.if_type = TQCAM_IF_FILE;
    dev.address.file.path = strdup("a.oni");
    ASSERT_EQ(tqcam_dev_open(&dev), &dev);
    tqcam_cap_cfg_t cfg = {};
    cfg.cache_frames_cnt = 4;
    cfg.file_loop = 1;
    cfg.en_save_replay = cfg.en_save_dist = 1;
    cfg.save_file = const_cast<char *>("b.oni");
    ASSERT_TRUE(tqcam_cap_config_set(&dev, &cfg));
    ASSERT_TRUE(tqcam_cap_start(&dev));
    std::atomic<bool> end{false};
    std::atomic<int> decoded{0};
    std::vector<std::thread> threads;
    const auto repeat = [&](auto work) {
        threads.emplace_back([&end, work] {
            while (!end)
                work();
        });
    };
    for (int i = 0; i < 2; i++) // two that retrieve, though one is what is promised
        repeat([&] { decoded += decode_one(&dev) == 9600; });
    repeat([&] {
        tqcam_param_item_t items[2] = {{TQCAM_PARAM_FPS, 4, {100}}, {TQCAM_PARAM_MOD_FREQ, 4, {0, 27, 183}}};
        tqcam_param_batch_set(&dev, items, 2);
        tqcam_filter_arg_t arg = {};
        arg.value = 3;
        tqcam_filter_enable(&dev, TQCAM_FILTER_MIN_AMP, &arg);
        tqcam_filter_enable(&dev, TQCAM_FILTER_DENOISE, nullptr);
        tqcam_filter_disable(&dev, TQCAM_FILTER_DENOISE);
        tqcam_cap_cfg_t now = {};
        tqcam_cap_config_get(&dev, &now);
        now.save_file = const_cast<char *>(now.en_save_gray ? "b.oni" : "c.oni"); // the recording begins anew
        now.en_save_gray = !now.en_save_gray;
        now.on_cap_frdy = nullptr;
        if (now.en_save_gray)
            now.on_cap_frdy = [](tqcam_dev_t *d, tqcam_frame_t *) { tqcam_cap_is_ongoing(d); };
        tqcam_cap_config_set(&dev, &now);
    });
    repeat([&] {
        tqcam_cap_seek_frame(&dev, 0, 0);
        tqcam_dev_info_t info;
        tqcam_dev_get_info(&dev, &info);
        tqcam_lens_info_t lens;
        tqcam_lens_param_get(&dev, &lens);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    });
    repeat([&] {
        tqcam_cap_stop(&dev);
        tqcam_cap_start(&dev);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    tqcam_dev_close(&dev);
    EXPECT_EQ(dev.priv, nullptr);
    end = true;
    for (std::thread &t : threads)
        t.join();
    EXPECT_GT(decoded, 0);
    EXPECT_FALSE(log.has("api wait timeout"));
}
