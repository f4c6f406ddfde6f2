// Recordings of the simulator, read back through the library's reader.
#include "replay_recorder.h"

#include <algorithm>

#include "recording/recorded.h"
#include "support/temp_dir.h"
#include "tqcam.h"

namespace {

void record(const std::string &path, const sim_config_t &cfg, uint32_t frames,
            const std::vector<uint8_t> &calib)
{
    sim_recorder_t rec;
    std::string error;
    ASSERT_TRUE(sim_recorder_open(&rec, path.c_str(), (path + ".truth").c_str(), cfg, "x.bin", calib, &error))
        << error;
    const auto source = sim_source_live(cfg);
    sim_frame_t f;
    while (rec.frames < frames) {
        ASSERT_TRUE(source->next(source->self, &f));
        ASSERT_TRUE(sim_recorder_add(&rec, f));
    }
    EXPECT_TRUE(sim_recorder_close(&rec));
}

} // namespace

TEST(ReplayRecorder, FileHoldsDeviceSettingsFramesAndTruth)
{
    TempDir dir;
    sim_config_t cfg = sim_config_default(sim_camera_find("S570C4"));
    cfg.temp_cb = -15;
    cfg.intg_us = 421;
    const std::vector<uint8_t> calib(524288 + 77, 0x5A);
    record("a.oni", cfg, 3, calib);

    const Recorded got("a.oni", "TQ_REPLAY");
    ASSERT_NE(got.reader, nullptr);
    const sim_identity_t id = sim_identity(cfg);
    EXPECT_EQ(id.dev_id32, id.serial[0] ^ (uint32_t{id.wid} << 16 | id.cid));
    // Of the device, then of the stream, in the order in which a player meets them.
    const std::string due[] = {"Device text TQ_PRODUCT=TQSIM-S570C4-VGA",
                               "Device int TQ_DEV_ID=" + std::to_string(id.dev_id),
                               "Device text TQ_FILENAME_CALIB=x.bin",
                               "Device bytes TQ_FILEDATA_CALIB=524288",
                               "Device bytes TQ_FILEDATA_CALIB=77",
                               "TQ_REPLAY int TQ_FRAME_IMGW=640",
                               "TQ_REPLAY int TQ_FRAME_FMT=17",
                               "TQ_REPLAY int TQ_FRAME_MOD_FREQ=120000000",
                               "TQ_REPLAY int TQ_FRAME_MOD_FREQ1=40000000",
                               "TQ_REPLAY int TQ_CONF_INTG1_US=421",
                               "TQ_REPLAY bytes TQ_FRAME_INFO=100"};
    auto line = got.lines.begin();
    for (const std::string &d : due) {
        line = std::find_if(line, got.lines.end(), [&d](const std::string &l) { return l.starts_with(d); });
        ASSERT_NE(line, got.lines.end()) << d;
    }
    EXPECT_EQ(got.calib, calib);

    const auto source = sim_source_live(cfg);
    const std::string truth = read_text("a.oni.truth");
    ASSERT_EQ(truth.size(), size_t{3} * 640 * 480 * 4);
    ASSERT_EQ(got.frames.size(), 3u);
    ASSERT_EQ(got.infos.size(), 3u);
    for (uint32_t i = 0; i < 3; i++) {
        sim_frame_t f;
        source->next(source->self, &f);
        EXPECT_TRUE(got.frames[i] == std::vector<uint8_t>(f.data.begin(), f.data.end()));
        const tqcam_frame_info_t &info = got.infos[i];
        EXPECT_EQ(info.frame_size, f.data.size());
        EXPECT_EQ(info.frame_idx, i);
        EXPECT_EQ(info.meta_size, 592u);
        EXPECT_EQ(info.meta_intg_us, 421u);
        EXPECT_EQ(info.temp_cb, -15);
        EXPECT_EQ(info.time_usec % 64, 0u);
        float metres;
        memcpy(&metres, truth.data() + (size_t{i} * 640 * 480 + 4711) * 4, sizeof metres);
        EXPECT_FLOAT_EQ(metres, f.truth_mm[4711] / 1000);
    }
}

TEST(ReplayRecorder, FailuresLeaveNothingBehind)
{
    TempDir dir;
    const sim_config_t cfg = sim_config_default(sim_camera_find("E5"));
    sim_recorder_t rec;
    std::string error;
    EXPECT_FALSE(sim_recorder_open(&rec, "no/folder.oni", "t.f32", cfg, "", {}, &error));
    EXPECT_NE(error.find("no/folder.oni: No such file"), std::string::npos) << error;
    EXPECT_FALSE(sim_recorder_open(&rec, "a.oni", "no/t.f32", cfg, "", {}, &error));
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    EXPECT_FALSE(sim_recorder_open(&rec, "/dev/full", nullptr, cfg, "", {}, &error));
    EXPECT_NE(error.find("/dev/full: No space left"), std::string::npos) << error;
}

// A calibration on disk is found by this number, and must not be taken for a camera with other errors.
TEST(ReplayRecorder, OtherErrorsAreAnotherCamera)
{
    sim_config_t cfg = sim_config_default(sim_camera_find("E1"));
    const uint32_t id = sim_identity(cfg).dev_id32;
    cfg.defects.shot *= 2;
    EXPECT_EQ(sim_identity(cfg).dev_id32, id);
    cfg.defects.periodic = 0.001;
    EXPECT_NE(sim_identity(cfg).dev_id32, id);
}
