// Recordings of the simulator: what cannot be written, and which camera they say they are of.
#include "replay_recorder.h"

#include <gtest/gtest.h>

#include "support/temp_dir.h"

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
