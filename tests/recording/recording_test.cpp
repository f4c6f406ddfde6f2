// What a capture records: from a camera that the test controls, and from a running replay.
#include <csignal>
#include <sys/resource.h>

#include "api/fake_camera.h"
#include "endtoend/recorded_camera.h"
#include "support/log_capture.h"
#include "support/recorded.h"
#include "support/temp_dir.h"

namespace {
using lines_t = std::vector<std::string>;

void configure(tqcam_dev_t *dev, std::string file, bool images = false, bool manual = false)
{
    tqcam_cap_cfg_t cfg = {};
    cfg.cache_frames_cnt = 10;
    cfg.save_file = file.data();
    cfg.en_save_replay = 1;
    cfg.en_save_dist = cfg.en_save_gray = images;
    cfg.en_save_manual = manual;
    EXPECT_TRUE(tqcam_cap_config_set(dev, &cfg));
}

void set(tqcam_dev_t *dev, uint32_t id, uint32_t value)
{
    tqcam_param_item_t item = {id, 4, {}};
    memcpy(item.value, &value, 4);
    EXPECT_TRUE(tqcam_param_batch_set(dev, &item, 1));
}

struct Recording : ::testing::Test {
    Recording()
    {
        tqcam_path_set("./");
        cam.set_words(TQCAM_PARAM_FPS, {30});
        cam.set_words(TQCAM_PARAM_MOD_FREQ, {12000000});
        cam.set_words(TQCAM_PARAM_FORMAT, {2});
        cam.set_words(TQCAM_PARAM_INTG1, {400});
        cam.set_words(TQCAM_PARAM_INTG2, {0});
        cam.params[TQCAM_PARAM_ROI].assign(13, 1);
        EXPECT_NE(cam.open(), nullptr);
    }
    // One frame from the camera to the application, and decoded.
    void frame(uint16_t idx, uint32_t len = 64)
    {
        cam.send_frame(idx, len);
        buf.resize(len);
        tqcam_frame_info_t info;
        ASSERT_EQ(tqcam_cap_get_frame(&cam.dev, buf.data(), len, &info), 1);
        uint16_t image[32];
        EXPECT_EQ(tqcam_frame_get_dist_u16(&cam.dev, image, 32, buf.data(), len, &info), 32);
        EXPECT_EQ(tqcam_frame_get_gray_u16(&cam.dev, image, 32, buf.data(), len, &info), 32);
    }

    TempDir dir;
    LogCapture log;
    FakeCamera cam;
    std::vector<uint8_t> buf;
};
} // namespace

TEST_F(Recording, HoldsDevicePropertiesAndFrames)
{
    configure(&cam.dev, "a.oni", true);
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    frame(1);
    set(&cam.dev, TQCAM_PARAM_FPS, 15);
    set(&cam.dev, TQCAM_PARAM_INTG2, 99);
    frame(2);
    ASSERT_TRUE(tqcam_cap_stop(&cam.dev));
    EXPECT_EQ(Recorded("a.oni", "Device").lines,
              (lines_t{"TQ_REP_VER=4607182418800017408", "TQ_VENDOR=maker", "TQ_PRODUCT=XX-E1-YY",
                       "TQ_SERIAL=000000010000000200000004", "TQ_DEV_ID=" + std::to_string(cam.dev.dev_id),
                       "TQ_DEV_VER=8 bytes", "TQ_DEV_MAX_FPS=60", "TQ_DEV_MAX_INTG_US=1500"}));
    const Recorded raw("a.oni", "TQ_REPLAY");
    EXPECT_EQ(raw.lines,
              (lines_t{"TQ_FRAME_IMGW=320", "TQ_FRAME_IMGH=240", "TQ_FRAME_FPS=30", "TQ_FRAME_FMT=2",
                       "TQ_FRAME_MOD_FREQ=12000000", "TQ_FRAME_MOD_FREQ=0", "TQ_FRAME_MOD_FREQ1=0",
                       "TQ_CONF_INTG1_US=400", "TQ_CONF_INTG2_US=0", "TQ_FRAME_ROI_INFO=13 bytes",
                       "TQ_FRAME_INFO=100 bytes", "frame of 64", "TQ_FRAME_FPS=15", "TQ_CONF_INTG2_US=99",
                       "TQ_FRAME_INFO=100 bytes", "frame of 64"}));
    EXPECT_EQ(raw.frames, std::string(64, 1) + std::string(64, 2));
    EXPECT_EQ(Recorded("a.oni", "TQ_DEPTH").frames, std::string(128, 101));
    EXPECT_EQ(Recorded("a.oni", "TQ_IR").frames, std::string(128, 102));
}

TEST_F(Recording, CarriesTheCalibrationInBlocks)
{
    char name[256];
    ASSERT_TRUE(tq_priv_get_param_absolute_name(&cam.dev, name, sizeof(name)));
    std::string bytes(1048577, 0); // two blocks and one byte
    for (size_t i = 0; i < bytes.size(); i++)
        bytes[i] = static_cast<char>(i * 7 + i / 524288);
    std::ofstream(name, std::ios::binary) << bytes;
    configure(&cam.dev, "a.oni");
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    frame(1);
    tqcam_cap_stop(&cam.dev);
    Recorded got("a.oni", "Device");
    EXPECT_EQ(got.lines.size(), 12u);
    EXPECT_TRUE(got.values["TQ_FILEDATA_CALIB"] == bytes);
}

TEST_F(Recording, ByHand)
{
    tqcam_frame_info_t info = {};
    info.frame_size = 5;
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "abcde", 5, &info), -9); // no capture
    configure(&cam.dev, "a.oni", false, true);
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "abcde", 5, &info), -9); // no stream before the first retrieval
    frame(1);
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "abcde", 5, &info), 0);
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "fgh", 3, nullptr), 0);
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "abcdef", 6, &info), -22);
    configure(&cam.dev, "a.oni"); // the frames that are retrieved, from now on
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "abcde", 5, &info), -9);
    frame(3);
    tqcam_dev_close(&cam.dev);
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "abcde", 5, &info), -22);
    EXPECT_EQ(Recorded("a.oni", "TQ_REPLAY").frames, "abcdefgh" + std::string(64, 3));
}

TEST_F(Recording, AnotherFileInMidCapture)
{
    configure(&cam.dev, "a.oni");
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    frame(1);
    configure(&cam.dev, "b.oni");
    configure(&cam.dev, "b.oni");           // nothing new
    for (const uint32_t room : {40u, 0u}) { // frames that aren't whole in the buffer stay out
        cam.send_frame(9);
        EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, room ? buf.data() : nullptr, room, nullptr), 1);
    }
    frame(2);
    configure(&cam.dev, "no/such/folder/c.oni");
    frame(3); // the capture goes on
    tqcam_cap_stop(&cam.dev);
    EXPECT_EQ(Recorded("a.oni", "TQ_REPLAY").frames, std::string(64, 1));
    EXPECT_EQ(Recorded("b.oni", "TQ_REPLAY").frames, std::string(64, 2));
}

// The limit falls once into a frame, once where the closing records don't fit either, once into the
// properties before the first frame.
TEST_F(Recording, FullDiskKeepsWhatWasRecorded)
{
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    configure(&cam.dev, "a.oni");
    rlim_t three = 0; // the size of the file with three frames and nothing behind them
    const auto capture = [&](rlim_t limit) {
        const struct rlimit tight = {limit, old.rlim_max};
        setrlimit(RLIMIT_FSIZE, &tight);
        ASSERT_TRUE(tqcam_cap_start(&cam.dev));
        for (uint16_t i = 1; i <= 6; i++) {
            frame(i, 100000);
            three = three || i != 3 ? three : std::filesystem::file_size("a.oni");
        }
        EXPECT_TRUE(tqcam_cap_stop(&cam.dev));
        setrlimit(RLIMIT_FSIZE, &old);
    };
    capture(old.rlim_cur);
    const std::string frames = Recorded("a.oni", "TQ_REPLAY").frames;
    for (const auto &[limit, kept] : {std::pair{three + 50000, 3}, {three - 1, 2}, {2000, 0}}) {
        capture(limit);
        EXPECT_TRUE(Recorded("a.oni", "TQ_REPLAY").frames == frames.substr(0, kept * 100000)) << limit;
    }
    EXPECT_EQ(log.count("write replay file failed: File too large\n"), 2); // the log is a file too
}

// Plays a recording in steps, each retrieval the next frame, and records it to another file: all that it says
// of the device and of each frame.
static lines_t play_and_record(const char *from, const char *to, uint32_t new_freq)
{
    tqcam_dev_t *dev = tqcam_dev_open_by_uri(from);
    if (!dev)
        return {};
    tqcam_dev_info_t device;
    tqcam_dev_get_info(dev, &device);
    lines_t all = {device.serial, device.product, std::to_string(device.dev_id)};
    const auto param = [&](uint32_t id) {
        tqcam_param_item_t item = {id, sizeof(item.value), {}};
        EXPECT_TRUE(tqcam_param_batch_get(dev, &item, 1));
        return std::string(reinterpret_cast<char *>(item.value), item.param_len);
    };
    for (const uint32_t id : {3, 4, 5, 6, 7, 9, 10, 13, 16, 21})
        all.push_back(param(id));
    set(dev, TQCAM_PARAM_FPS, 0);
    configure(dev, to);
    EXPECT_TRUE(tqcam_cap_start(dev));
    for (int i = 0; i < 5; i++) {
        if (i == 3 && new_freq)
            set(dev, TQCAM_PARAM_MOD_FREQ, new_freq);
        std::string raw(1 << 20, 0), image(2 * 320 * 240, 0);
        tqcam_frame_t f;
        EXPECT_EQ(tqcam_cap_get_frames(dev, 1, raw.data(), 1 << 20, &f), 1);
        EXPECT_EQ(tqcam_frame_get_dist_u16(dev, reinterpret_cast<uint16_t *>(image.data()), 320 * 240,
                                           raw.data(), f.frame_info.frame_size, &f.frame_info),
                  320 * 240);
        all.insert(all.end(), {raw, image, std::to_string(f.frame_info.temp_cb),
                               std::to_string(f.frame_info.time_usec), param(TQCAM_PARAM_MOD_FREQ)});
    }
    tqcam_dev_close(dev);
    return all;
}

TEST(RecordingOfAReplay, IsTheSameAndNotOverItself)
{
    TempDir dir;
    LogCapture log;
    sim_config_t cfg = wall_before("E1", 1000, 2);
    cfg.warmup_deg = 5;
    record_camera("in.oni", cfg, 5);
    lines_t first = play_and_record("file://in.oni", "out.oni", 24000000);
    EXPECT_EQ(first.size(), 38u);
    // What is set leaves the recording as it is, but not the one made of it.
    EXPECT_EQ(first[32], first[17]);
    first[32] = first[37] = std::string("\x00\x36\x6E\x01", 4);
    EXPECT_TRUE(play_and_record("out.oni", "again.oni", 0) == first);

    const std::string before = read_text("in.oni");
    std::filesystem::create_hard_link("in.oni", "same.oni");
    play_and_record("in.oni", "same.oni", 0);
    EXPECT_TRUE(log.has("[_tqcam_cap_replay_start]open replay file same.oni failed\n"));
    EXPECT_TRUE(read_text("in.oni") == before);
}
