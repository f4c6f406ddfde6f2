// Recordings of the simulator, read back through the library's reader.
#include "replay_recorder.h"

#include "replay/oni_reader.h"
#include "support/temp_dir.h"
#include "tqcam.h"

#include <csignal>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sys/resource.h>

namespace {

typedef struct seen_t {
    std::vector<std::pair<std::string, std::string>> keys; // node and key, in the order of the file
    std::map<std::string, std::string> last;
    int infos = 0;
} seen_t;

void on_property(oni_reader_t *reader, int, const char *name, const void *value, uint32_t size, void *arg)
{
    seen_t *seen = static_cast<seen_t *>(arg);
    const oni_istream_t *stream = oni_reader_cur_stream(reader);
    seen->infos += strcmp(name, "TQ_FRAME_INFO") == 0;
    if (strncmp(name, "TQ_", 3) != 0)
        return;
    seen->keys.emplace_back(stream == nullptr ? "?" : stream->name, name);
    std::string &last = seen->last[name];
    if (strcmp(name, "TQ_FILEDATA_CALIB") != 0)
        last.clear();
    last.append(static_cast<const char *>(value), size);
}

uint64_t int_of(const seen_t &seen, const char *key)
{
    uint64_t v = 0;
    EXPECT_EQ(seen.last.at(key).size(), 8u) << key;
    memcpy(&v, seen.last.at(key).data(), sizeof v);
    return v;
}

std::string bytes_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

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

    seen_t seen;
    oni_reader_t *reader = oni_reader_open("a.oni", on_property, &seen);
    ASSERT_NE(reader, nullptr);
    const std::vector<std::pair<std::string, std::string>> due = {
        {"Device", "TQ_REP_VER"},
        {"Device", "TQ_VENDOR"},
        {"Device", "TQ_PRODUCT"},
        {"Device", "TQ_SERIAL"},
        {"Device", "TQ_DEV_ID"},
        {"Device", "TQ_DEV_VER"},
        {"Device", "TQ_DEV_MAX_FPS"},
        {"Device", "TQ_DEV_MAX_INTG_US"},
        {"Device", "TQ_FILENAME_CALIB"},
        {"Device", "TQ_FILEDATA_CALIB"},
        {"Device", "TQ_FILEDATA_CALIB"},
        {"TQ_REPLAY", "TQ_FRAME_IMGW"},
        {"TQ_REPLAY", "TQ_FRAME_IMGH"},
        {"TQ_REPLAY", "TQ_FRAME_FPS"},
        {"TQ_REPLAY", "TQ_FRAME_FMT"},
        {"TQ_REPLAY", "TQ_FRAME_MOD_FREQ"},
        {"TQ_REPLAY", "TQ_FRAME_MOD_FREQ"},
        {"TQ_REPLAY", "TQ_FRAME_MOD_FREQ1"},
        {"TQ_REPLAY", "TQ_CONF_INTG1_US"},
        {"TQ_REPLAY", "TQ_CONF_INTG2_US"},
        {"TQ_REPLAY", "TQ_FRAME_ROI_INFO"},
    };
    ASSERT_GE(seen.keys.size(), due.size());
    EXPECT_TRUE(std::equal(due.begin(), due.end(), seen.keys.begin()));
    const sim_identity_t id = sim_identity(cfg);
    EXPECT_EQ(int_of(seen, "TQ_DEV_ID"), id.dev_id);
    EXPECT_EQ(id.dev_id32, id.serial[0] ^ (uint32_t{id.wid} << 16 | id.cid));
    EXPECT_EQ(int_of(seen, "TQ_FRAME_FMT"), 17u);
    EXPECT_EQ(int_of(seen, "TQ_FRAME_MOD_FREQ"), 120000000u);
    EXPECT_EQ(int_of(seen, "TQ_FRAME_MOD_FREQ1"), 40000000u);
    EXPECT_EQ(int_of(seen, "TQ_CONF_INTG1_US"), 421u);
    EXPECT_STREQ(seen.last["TQ_PRODUCT"].c_str(), "TQSIM-S570C4-VGA");
    EXPECT_EQ(seen.last["TQ_FILEDATA_CALIB"], std::string(calib.begin(), calib.end()));
    EXPECT_EQ(seen.last["TQ_FRAME_ROI_INFO"], std::string("\0\0\xDF\x01\0\0\x7F\x02\0\0\0\0\0", 13));

    const auto source = sim_source_live(cfg);
    const std::string truth = bytes_of("a.oni.truth");
    ASSERT_EQ(truth.size(), size_t{3} * 640 * 480 * 4);
    oni_istream_t *raw = &reader->streams[1];
    EXPECT_EQ(raw->frame_count, 3u);
    for (uint32_t i = 0; i < 3; i++) {
        sim_frame_t f;
        source->next(source->self, &f);
        ASSERT_EQ(oni_istream_next(raw), 1);
        ASSERT_EQ(reader->value_len, f.data.size());
        EXPECT_EQ(memcmp(reader->value, f.data.data(), f.data.size()), 0);
        EXPECT_EQ(seen.infos, static_cast<int>(i) + 1);
        tqcam_frame_info_t info;
        ASSERT_EQ(seen.last["TQ_FRAME_INFO"].size(), sizeof info);
        memcpy(&info, seen.last["TQ_FRAME_INFO"].data(), sizeof info);
        EXPECT_EQ(info.frame_size, f.data.size());
        EXPECT_EQ(info.frame_idx, i);
        EXPECT_EQ(info.meta_size, 592u);
        EXPECT_EQ(info.meta_intg_us, 421u);
        EXPECT_EQ(info.temp_cb, -15);
        EXPECT_EQ(info.time_usec % 64, 0u);
        EXPECT_EQ(reader->timestamp, info.time_sec * uint64_t{1000000} + info.time_usec);
        float metres;
        memcpy(&metres, truth.data() + (size_t{i} * 640 * 480 + 4711) * 4, sizeof metres);
        EXPECT_FLOAT_EQ(metres, f.truth_mm[4711] / 1000);
    }
    EXPECT_EQ(oni_istream_next(raw), 0);
    oni_reader_close(reader);
}

TEST(ReplayRecorder, OneSeedGivesOneFile)
{
    TempDir dir;
    sim_config_t cfg = sim_config_default(sim_camera_find("E5"));
    record("a.oni", cfg, 4, {});
    record("b.oni", cfg, 4, {});
    cfg.seed++;
    record("c.oni", cfg, 4, {});
    EXPECT_EQ(bytes_of("a.oni"), bytes_of("b.oni"));
    EXPECT_NE(bytes_of("a.oni"), bytes_of("c.oni"));
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

    signal(SIGXFSZ, SIG_IGN);
    struct rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    const struct rlimit tight = {20000, old.rlim_max}; // too little for a frame
    setrlimit(RLIMIT_FSIZE, &tight);
    ASSERT_TRUE(sim_recorder_open(&rec, "a.oni", nullptr, cfg, "", {}, &error));
    const auto source = sim_source_live(cfg);
    sim_frame_t f;
    source->next(source->self, &f);
    EXPECT_FALSE(sim_recorder_add(&rec, f));
    EXPECT_FALSE(sim_recorder_close(&rec));
    setrlimit(RLIMIT_FSIZE, &old);
}
