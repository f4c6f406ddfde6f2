// What a capture records, from a camera that the test controls.
#include <csignal>
#include <fstream>
#include <sys/resource.h>

#include "api/fake_camera.h"
#include "recording/recorded.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {
using lines_t = std::vector<std::string>;

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
        cam.decode = [](void *dst, uint32_t, int kind) {
            memset(dst, 100 + kind, 64);
            return 64;
        };
        EXPECT_NE(cam.open(), nullptr);
    }

    void configure(const char *file, bool raw, bool dist = false, bool gray = false, bool manual = false)
    {
        tqcam_cap_cfg_t cfg = {};
        cfg.cache_frames_cnt = 10;
        char name[64];
        snprintf(name, sizeof(name), "%s", file);
        cfg.save_file = name;
        cfg.en_save_replay = raw;
        cfg.en_save_dist = dist;
        cfg.en_save_gray = gray;
        cfg.en_save_manual = manual;
        EXPECT_TRUE(tqcam_cap_config_set(&cam.dev, &cfg));
    }
    // One frame from the camera to the application, and decoded.
    void frame(uint16_t idx, bool decode = false, uint32_t len = 64)
    {
        cam.send_frame(idx, len);
        buf.resize(len);
        tqcam_frame_info_t info;
        ASSERT_EQ(tqcam_cap_get_frame(&cam.dev, buf.data(), len, &info), 1);
        uint16_t image[32];
        if (decode) {
            EXPECT_EQ(tqcam_frame_get_dist_u16(&cam.dev, image, 32, buf.data(), len, &info), 32);
            EXPECT_EQ(tqcam_frame_get_gray_u16(&cam.dev, image, 32, buf.data(), len, &info), 32);
        }
    }
    void set(uint32_t id, uint32_t value)
    {
        tqcam_param_item_t item = {};
        item.param_id = id;
        item.param_len = 4;
        memcpy(item.value, &value, 4);
        EXPECT_TRUE(tqcam_param_batch_set(&cam.dev, &item, 1));
    }

    TempDir dir;
    LogCapture log;
    FakeCamera cam;
    std::vector<uint8_t> buf;
};
} // namespace

TEST_F(Recording, HoldsDevicePropertiesAndFrames)
{
    configure("a.oni", true, true, true);
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    frame(1, true);
    set(TQCAM_PARAM_FPS, 15);
    set(TQCAM_PARAM_INTG2, 99);
    frame(2, true);
    ASSERT_TRUE(tqcam_cap_stop(&cam.dev));
    const Recorded raw("a.oni", "TQ_REPLAY");
    ASSERT_NE(raw.reader, nullptr);
    EXPECT_EQ(raw.nodes, (lines_t{"Device", "TQ_DEPTH", "TQ_IR", "TQ_REPLAY"}));
    EXPECT_EQ(
        raw.of("Device"),
        (lines_t{"real TQ_REP_VER=1.000000", "text TQ_VENDOR=maker", "text TQ_PRODUCT=XX-E1-YY",
                 "text TQ_SERIAL=000000010000000200000004", "int TQ_DEV_ID=" + std::to_string(cam.dev.dev_id),
                 "bytes TQ_DEV_VER=8", "int TQ_DEV_MAX_FPS=60", "int TQ_DEV_MAX_INTG_US=1500"}));
    EXPECT_EQ(raw.of("TQ_REPLAY"),
              (lines_t{"int TQ_FRAME_IMGW=320", "int TQ_FRAME_IMGH=240", "int TQ_FRAME_FPS=30",
                       "int TQ_FRAME_FMT=2", "int TQ_FRAME_MOD_FREQ=12000000", "int TQ_FRAME_MOD_FREQ=0",
                       "int TQ_FRAME_MOD_FREQ1=0", "int TQ_CONF_INTG1_US=400", "int TQ_CONF_INTG2_US=0",
                       "bytes TQ_FRAME_ROI_INFO=13", "bytes TQ_FRAME_INFO=100", "frame 64 x 1",
                       "int TQ_FRAME_FPS=15", "int TQ_CONF_INTG2_US=99", "bytes TQ_FRAME_INFO=100",
                       "frame 64 x 2"}));
    EXPECT_EQ(raw.frames[1], std::vector<uint8_t>(64, 2));
    for (const char *name : {"TQ_DEPTH", "TQ_IR"}) {
        const Recorded image("a.oni", name);
        EXPECT_EQ(image.of(name).size(), 5u);
        ASSERT_EQ(image.frames.size(), 2u) << name;
        EXPECT_EQ(image.frames[0], std::vector<uint8_t>(64, name[3] == 'D' ? 101 : 102));
    }
}

TEST_F(Recording, CarriesTheCalibrationInBlocks)
{
    char name[256];
    ASSERT_TRUE(tq_priv_get_param_absolute_name(&cam.dev, name, sizeof(name)));
    for (const size_t size : {size_t{1048576}, size_t{1048577}}) {
        std::vector<char> bytes(size);
        for (size_t i = 0; i < size; i++)
            bytes[i] = static_cast<char>(i * 7 + i / 524288);
        std::ofstream(name, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(size));
        configure("a.oni", true);
        ASSERT_TRUE(tqcam_cap_start(&cam.dev));
        frame(1);
        tqcam_cap_stop(&cam.dev);
        const Recorded got("a.oni", "TQ_REPLAY");
        const lines_t device = got.of("Device");
        ASSERT_EQ(device.size(), 9 + (size + 524287) / 524288) << size;
        EXPECT_EQ(device[8], std::string("text TQ_FILENAME_CALIB=") + name);
        EXPECT_EQ(std::string(got.calib.begin(), got.calib.end()), std::string(bytes.begin(), bytes.end()));
    }
}

TEST_F(Recording, ByHand)
{
    tqcam_frame_info_t info = {};
    info.frame_size = 5;
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "abcde", 5, &info), -9); // no capture
    configure("a.oni", true, false, false, true);
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "abcde", 5, &info), -9); // no stream before the first retrieval
    frame(1);
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "abcde", 5, &info), 0);
    frame(2);
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "fgh", 3, nullptr), 0);
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "a", 0, &info), -22);
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "abcdef", 6, &info), -22);
    EXPECT_TRUE(log.has("[tqcam_cap_save_frame]wrong frame len: 6 (expect 5)\n"));
    configure("a.oni", true); // the frames that are retrieved, from now on
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "abcde", 5, &info), -9);
    frame(3);
    tqcam_dev_close(&cam.dev);
    EXPECT_EQ(tqcam_cap_save_frame(&cam.dev, "abcde", 5, &info), -22);

    const Recorded got("a.oni", "TQ_REPLAY");
    lines_t raw = got.of("TQ_REPLAY");
    raw.erase(raw.begin(), raw.begin() + 10);
    EXPECT_EQ(raw, (lines_t{"bytes TQ_FRAME_INFO=100", "frame 5 x 97", "frame 3 x 102",
                            "bytes TQ_FRAME_INFO=100", "frame 64 x 3"}));
}

TEST_F(Recording, AnotherFileInMidCapture)
{
    configure("a.oni", true);
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    frame(1);
    configure("b.oni", true);
    configure("b.oni", true);               // nothing new
    for (const uint32_t room : {40u, 0u}) { // frames that aren't whole in the buffer stay out
        tqcam_frame_info_t info;
        cam.send_frame(9);
        buf.resize(64);
        EXPECT_EQ(tqcam_cap_get_frame(&cam.dev, room ? buf.data() : nullptr, room, &info), 1);
    }
    frame(2);
    configure("no/such/folder/c.oni", true);
    EXPECT_TRUE(log.has("[_tqcam_cap_replay_start]open replay file no/such/folder/c.oni failed\n"));
    frame(3, true); // the capture goes on
    tqcam_cap_stop(&cam.dev);
    EXPECT_EQ(Recorded("a.oni", "TQ_REPLAY").frames.size(), 1u);
    const Recorded second("b.oni", "TQ_REPLAY");
    ASSERT_EQ(second.frames.size(), 1u);
    EXPECT_EQ(second.frames[0][0], 2);
    EXPECT_EQ(second.of("Device").size(), 8u);
}

// The limit falls once into a frame, once where the closing records don't fit either, once into the
// properties before the first frame.
TEST_F(Recording, FullDiskKeepsWhatWasRecorded)
{
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit old, tight;
    getrlimit(RLIMIT_FSIZE, &old);
    // The size of the file with three frames and nothing behind them.
    configure("a.oni", true, true);
    ASSERT_TRUE(tqcam_cap_start(&cam.dev));
    for (uint16_t i = 1; i <= 3; i++)
        frame(i, false, 100000);
    const rlim_t three = std::filesystem::file_size("a.oni");
    tqcam_cap_stop(&cam.dev);

    const struct {
        rlim_t limit;
        size_t frames;
    } cases[] = {{three + 50000, 3}, {three - 1, 2}, {2000, 0}};
    for (const auto &c : cases) {
        log.clear();
        tight = old;
        tight.rlim_cur = c.limit;
        setrlimit(RLIMIT_FSIZE, &tight);
        ASSERT_TRUE(tqcam_cap_start(&cam.dev));
        for (uint16_t i = 1; i <= 6; i++)
            frame(i, false, 100000);
        EXPECT_TRUE(tqcam_cap_stop(&cam.dev));
        const int told = log.count("write replay file failed: File too large\n"); // the log is a file too
        setrlimit(RLIMIT_FSIZE, &old);
        const Recorded got("a.oni", "TQ_REPLAY");
        EXPECT_NE(got.reader, nullptr) << c.limit;
        EXPECT_EQ(got.frames.size(), c.frames) << c.limit;
        for (size_t i = 0; i < got.frames.size(); i++)
            EXPECT_EQ(got.frames[i], std::vector<uint8_t>(100000, static_cast<uint8_t>(i + 1)));
        EXPECT_EQ(told, c.limit > 100000 ? 1 : 0) << c.limit;
    }
}
