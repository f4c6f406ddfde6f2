// Recordings of the simulator, read back through the library's reader.
#include "replay_recorder.h"

#include <algorithm>
#include <gtest/gtest.h>

#include "support/recorded.h"
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

    Recorded device("a.oni", "Device"), got("a.oni", "TQ_REPLAY");
    const sim_identity_t id = sim_identity(cfg);
    EXPECT_EQ(id.dev_id32, id.serial[0] ^ (uint32_t{id.wid} << 16 | id.cid));
    // Of the device, then of the stream, in the order in which a player meets them.
    const std::string due[] = {"TQ_PRODUCT=TQSIM-S570C4-VGA",
                               "TQ_DEV_ID=" + std::to_string(id.dev_id),
                               "TQ_FILENAME_CALIB=x.bin",
                               "TQ_FILEDATA_CALIB=524288 bytes",
                               "TQ_FILEDATA_CALIB=77 bytes",
                               "TQ_FRAME_IMGW=640",
                               "TQ_FRAME_FMT=17",
                               "TQ_FRAME_MOD_FREQ=120000000",
                               "TQ_FRAME_MOD_FREQ1=40000000",
                               "TQ_CONF_INTG1_US=421",
                               "TQ_FRAME_INFO=100 bytes"};
    std::vector<std::string> lines = device.lines;
    lines.insert(lines.end(), got.lines.begin(), got.lines.end());
    auto line = lines.begin();
    for (const std::string &d : due) {
        line = std::find(line, lines.end(), d);
        ASSERT_NE(line, lines.end()) << d;
    }
    EXPECT_EQ(device.values["TQ_FILEDATA_CALIB"], std::string(calib.begin(), calib.end()));

    const auto source = sim_source_live(cfg);
    const std::string truth = read_text("a.oni.truth");
    ASSERT_EQ(truth.size(), size_t{3} * 640 * 480 * 4);
    const std::string infos = got.values["TQ_FRAME_INFO"];
    ASSERT_EQ(infos.size(), 3 * sizeof(tqcam_frame_info_t));
    for (uint32_t i = 0; i < 3; i++) {
        sim_frame_t f;
        source->next(source->self, &f);
        EXPECT_TRUE(got.frames.substr(i * f.data.size(), f.data.size()) ==
                    std::string(f.data.begin(), f.data.end()));
        tqcam_frame_info_t info;
        memcpy(&info, infos.data() + i * sizeof(info), sizeof(info));
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
