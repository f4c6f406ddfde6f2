// A recording of a running replay plays back as what it was made from.
#include <filesystem>

#include "recording/recorded.h"
#include "replay_recorder.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "tqcam.h"

namespace {
constexpr uint32_t FRAMES = 5;

struct played_frame_t {
    tqcam_frame_info_t info;
    std::vector<uint8_t> raw;
    std::vector<uint16_t> dist, gray;
    uint32_t mod_freq;
};

tqcam_param_item_t param(tqcam_dev_t *dev, uint32_t id)
{
    tqcam_param_item_t item = {};
    item.param_id = id;
    item.param_len = sizeof(item.value);
    EXPECT_TRUE(tqcam_param_batch_get(dev, &item, 1));
    return item;
}

struct Replay : ::testing::Test {
    Replay()
    {
        tqcam_path_set("./");
        sim_config_t cfg = sim_config_default(sim_camera_find("E1"));
        cfg.warmup_deg = 5;
        const sim_identity_t id = sim_identity(cfg);
        calib_name = "tqcam_param_" + std::to_string(id.dev_id32) + ".bin";
        sim_recorder_t rec;
        std::string error;
        const std::vector<uint8_t> calib(600000, 0x5A); // none that a driver takes; it travels all the same
        EXPECT_TRUE(sim_recorder_open(&rec, "in.oni", nullptr, cfg, calib_name, calib, &error)) << error;
        const auto source = sim_source_live(cfg);
        sim_frame_t frame;
        for (uint32_t i = 0; i < FRAMES && source->next(source->self, &frame); i++)
            EXPECT_TRUE(sim_recorder_add(&rec, frame));
        EXPECT_TRUE(sim_recorder_close(&rec));
    }

    // Opens a recording and puts it into steps: each retrieval is given the next frame.
    tqcam_dev_t *open(const char *uri)
    {
        tqcam_dev_t *dev = tqcam_dev_open_by_uri(uri);
        EXPECT_NE(dev, nullptr) << log.text();
        set(dev, TQCAM_PARAM_FPS, 0);
        return dev;
    }
    void set(tqcam_dev_t *dev, uint32_t id, uint32_t value)
    {
        tqcam_param_item_t item = {};
        item.param_id = id;
        item.param_len = 4;
        memcpy(item.value, &value, 4);
        EXPECT_TRUE(dev && tqcam_param_batch_set(dev, &item, 1));
    }
    void start(tqcam_dev_t *dev, const char *file, bool images)
    {
        tqcam_cap_cfg_t cfg = {};
        cfg.cache_frames_cnt = 10;
        std::string name = file;
        cfg.save_file = name.data();
        cfg.en_save_replay = 1;
        cfg.en_save_dist = cfg.en_save_gray = images;
        ASSERT_TRUE(tqcam_cap_config_set(dev, &cfg));
        ASSERT_TRUE(tqcam_cap_start(dev));
    }
    played_frame_t next(tqcam_dev_t *dev)
    {
        played_frame_t f = {};
        f.raw.resize(1 << 20);
        tqcam_frame_t frame;
        EXPECT_EQ(tqcam_cap_get_frames(dev, 1, f.raw.data(), 1 << 20, &frame), 1) << log.text();
        f.info = frame.frame_info;
        f.raw.resize(f.info.frame_size);
        const int n = static_cast<int>(f.info.width * f.info.height);
        f.dist.resize(n);
        f.gray.resize(n);
        EXPECT_EQ(tqcam_frame_get_dist_u16(dev, f.dist.data(), n, f.raw.data(), f.info.frame_size, &f.info),
                  n);
        EXPECT_EQ(tqcam_frame_get_gray_u16(dev, f.gray.data(), n, f.raw.data(), f.info.frame_size, &f.info),
                  n);
        memcpy(&f.mod_freq, param(dev, TQCAM_PARAM_MOD_FREQ).value, 4);
        return f;
    }

    LogCapture log;
    TempDir dir;
    std::string calib_name;
};
} // namespace

TEST_F(Replay, RecordedAgainIsTheSame)
{
    tqcam_dev_t *dev = open("file://in.oni");
    ASSERT_NE(dev, nullptr);
    const std::string calib = read_text(calib_name);
    EXPECT_EQ(calib, std::string(600000, 0x5A));
    tqcam_dev_info_t info;
    ASSERT_NE(tqcam_dev_get_info(dev, &info), nullptr);
    const std::string serial = info.serial, product = info.product;
    const uint32_t ids[] = {3, 4, 5, 6, 7, 9, 10, 13, 16, 21};
    std::vector<tqcam_param_item_t> params;
    for (const uint32_t id : ids)
        params.push_back(param(dev, id));

    start(dev, "out.oni", true);
    std::vector<played_frame_t> first;
    for (uint32_t i = 0; i < FRAMES; i++) {
        if (i == 3)
            set(dev, TQCAM_PARAM_MOD_FREQ, 24000000);
        first.push_back(next(dev));
    }
    ASSERT_TRUE(tqcam_cap_stop(dev));
    const uint64_t dev_id = info.dev_id;
    tqcam_dev_close(dev);

    for (const char *image : {"TQ_DEPTH", "TQ_IR"}) {
        const Recorded got("out.oni", image);
        ASSERT_EQ(got.frames.size(), FRAMES);
        for (uint32_t i = 0; i < FRAMES; i++) {
            const std::vector<uint16_t> &due = image[3] == 'D' ? first[i].dist : first[i].gray;
            ASSERT_EQ(got.frames[i].size(), due.size() * 2);
            EXPECT_EQ(memcmp(got.frames[i].data(), due.data(), due.size() * 2), 0) << image << i;
        }
    }

    std::filesystem::remove(calib_name);
    dev = open("out.oni");
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(read_text(calib_name), calib);
    ASSERT_NE(tqcam_dev_get_info(dev, &info), nullptr);
    EXPECT_EQ(info.serial, serial);
    EXPECT_EQ(info.product, product);
    EXPECT_EQ(info.dev_id, dev_id);
    for (size_t i = 0; i < params.size(); i++) {
        const tqcam_param_item_t now = param(dev, ids[i]);
        EXPECT_EQ(now.param_len, params[i].param_len) << ids[i];
        EXPECT_EQ(memcmp(now.value, params[i].value, sizeof(now.value)), 0) << ids[i];
    }
    ASSERT_TRUE(tqcam_cap_start(dev));
    for (uint32_t i = 0; i < FRAMES; i++) {
        const played_frame_t again = next(dev);
        EXPECT_TRUE(again.raw == first[i].raw) << i;
        EXPECT_TRUE(again.gray == first[i].gray) << i;
        EXPECT_EQ(again.info.temp_cb, first[i].info.temp_cb) << i;
        EXPECT_EQ(again.info.time_usec, first[i].info.time_usec) << i;
        EXPECT_EQ(again.mod_freq, i < 3 ? first[0].mod_freq : 24000000u) << i;
        EXPECT_TRUE(again.dist == first[i].dist) << i;
    }
    tqcam_dev_close(dev);
}

TEST_F(Replay, IsNotRecordedOverItself)
{
    const std::string before = read_text("in.oni");
    std::filesystem::create_hard_link("in.oni", "same.oni");
    tqcam_dev_t *dev = open("file://in.oni");
    ASSERT_NE(dev, nullptr);
    start(dev, "same.oni", false);
    EXPECT_TRUE(log.has("[_tqcam_cap_replay_start]open replay file same.oni failed\n"));
    EXPECT_GT(next(dev).info.frame_size, 0u);
    tqcam_dev_close(dev);
    EXPECT_TRUE(read_text("in.oni") == before);
}
