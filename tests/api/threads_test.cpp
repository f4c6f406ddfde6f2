// Calls from several threads on one handle, up to and past its close. Run under the thread sanitizer, too.
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "fake_camera.h"
#include "support/log_capture.h"
#include "tq_log.h"

namespace {
using namespace std::chrono_literals;

// Feeds frames like a link's event thread until it is told to end.
class EventThread {
  public:
    explicit EventThread(FakeCamera &cam)
        : thread_([this, &cam] {
              for (uint16_t i = 0; !end_; i++) {
                  cam.send_frame(i);
                  if (i % 16 == 15)
                      cam.event(TQCAM_ERR_CAP_STALL);
                  std::this_thread::sleep_for(200us);
              }
          })
    {
    }
    ~EventThread()
    {
        end_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> end_{false};
    std::thread thread_;
};

template <typename F> std::thread until(std::atomic<bool> &end, F work)
{
    return std::thread([&end, work] {
        while (!end)
            work();
    });
}
} // namespace

TEST(Threads, CallsBesideEachOther)
{
    LogCapture log;
    tq_log_cfg(nullptr, TQ_LOG_FILE, TQ_LOG_WARN, 0);
    FakeCamera cam;
    cam.set_u32(TQCAM_PARAM_FPS, 1000);
    cam.decode = [](void *, uint32_t size, int) { return static_cast<int>(size); };
    ASSERT_NE(cam.open(), nullptr);
    tqcam_cap_set_callback_on_error(&cam.dev, [](tqcam_dev_t *, int, uint64_t) { return true; });
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    std::atomic<bool> end{false};
    std::atomic<int> got{0};
    std::vector<std::thread> threads;
    auto events = std::make_unique<EventThread>(cam);
    for (int i = 0; i < 2; i++) { // two, though one is what is promised
        threads.push_back(until(end, [&] {
            uint8_t buf[3 * 64];
            tqcam_frame_t first;
            if (tqcam_cap_get_frames(&cam.dev, 3, buf, sizeof(buf), &first) > 0)
                got++;
        }));
    }
    threads.push_back(until(end, [&] {
        tqcam_param_item_t items[2] = {{TQCAM_PARAM_FPS, 4, {0xE8, 3}}, {TQCAM_PARAM_INTG1, 2, {9}}};
        tqcam_param_batch_set(&cam.dev, items, 2);
        tqcam_param_batch_get(&cam.dev, items, 2);
    }));
    threads.push_back(until(end, [&] {
        uint16_t image[32];
        uint8_t raw[64] = {};
        tqcam_frame_get_dist_u16(&cam.dev, image, 32, raw, 64, nullptr);
        tq_priv_get_fps(&cam.dev);
    }));
    threads.push_back(until(end, [&] {
        tqcam_cap_cfg_t cfg = {};
        tqcam_cap_config_get(&cam.dev, &cfg);
        cfg.save_file = const_cast<char *>("name");
        if (cfg.on_cap_frdy)
            cfg.on_cap_frdy = nullptr;
        else
            cfg.on_cap_frdy = [](tqcam_dev_t *, tqcam_frame_t *) {};
        tqcam_cap_config_set(&cam.dev, &cfg);
        std::this_thread::sleep_for(1ms);
    }));
    threads.push_back(until(end, [&] { // starts and stops cross each other and the events
        std::this_thread::sleep_for(5ms);
        if (tqcam_cap_is_ongoing(&cam.dev))
            tqcam_cap_stop(&cam.dev);
        tqcam_cap_start(&cam.dev);
    }));
    std::this_thread::sleep_for(500ms);
    // The event thread ends inside the link's close; the fake has it end before.
    events.reset();
    tqcam_dev_close(&cam.dev);
    EXPECT_EQ(cam.dev.priv, nullptr);
    EXPECT_FALSE(tqcam_cap_start(&cam.dev)); // while the others still call
    end = true;
    for (std::thread &t : threads)
        t.join();
    EXPECT_GT(got, 0);
    EXPECT_FALSE(log.has("api wait timeout"));
}

TEST(Threads, CloseWakesARetrieval)
{
    LogCapture log;
    FakeCamera cam;
    ASSERT_NE(cam.open(), nullptr);
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    cam.priv()->cap_mode = 1; // waits for hours
    std::thread waiting([&] { EXPECT_LE(tqcam_cap_get_frames(&cam.dev, 1, nullptr, 0, nullptr), 0); });
    while (!cam.calls.has("link.wait"))
        std::this_thread::yield();
    tqcam_dev_close(&cam.dev);
    waiting.join();
    EXPECT_FALSE(log.has("api wait timeout"));
}
