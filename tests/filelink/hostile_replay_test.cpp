// A damaged recording opened as a camera: what is whole comes through to distances, what isn't is refused or
// passed over, and the end is always told.
#include <gtest/gtest.h>
#include <thread>

#include "filelink/recording.h"
#include "frame_source.h"
#include "replay/oni_bytes.h"
#include "replay_recorder.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "tqcam.h"

namespace {

constexpr int PIXELS = 160 * 60;

// Five frames of the small camera.
Bytes good_file()
{
    sim_config_t cfg = sim_config_default(sim_camera_find("E5"));
    cfg.fps = 100;
    cfg.intg2_us = 0;
    sim_recorder_t rec;
    std::string error;
    EXPECT_TRUE(sim_recorder_open(&rec, "good.oni", nullptr, cfg, "", {}, &error)) << error;
    const sim_source_ptr_t source = sim_source_live(cfg);
    for (int i = 0; i < 5; i++) {
        sim_frame_t frame;
        EXPECT_TRUE(source->next(source->self, &frame) && sim_recorder_add(&rec, frame));
    }
    EXPECT_TRUE(sim_recorder_close(&rec));
    return read_file("good.oni");
}

// Where the parts of frame n stand in the file.
struct FramePos {
    size_t info, record, end; // the frame information's bytes, which end before the data record
};

FramePos frame_pos(const Bytes &file, uint32_t n)
{
    const OniRecord r = oni_records(file, 10).at(n - 1);
    return {r.pos - sizeof(tqcam_frame_info_t), r.pos, r.end};
}

// What came, in order: the index of a frame that decodes, 'x' for one that doesn't.
std::string came;

void on_frame(tqcam_dev_t *dev, tqcam_frame_t *frame)
{
    static float dist[PIXELS];
    const tqcam_frame_info_t &info = frame->frame_info;
    const int n = tqcam_frame_get_dist_f32(dev, dist, PIXELS, frame->frame_data, info.frame_size, &info);
    came += n == PIXELS ? std::to_string(info.frame_idx) : "x";
}

struct HostileReplay : ::testing::Test {
    TempDir dir;
    LogCapture log;
    tqcam_dev_t *dev = nullptr;

    bool open(const Bytes &file)
    {
        write_file("bad.oni", file);
        dev = tqcam_dev_open_by_uri("bad.oni");
        return dev && tqcam_cap_set_callback_on_frame_ready(dev, on_frame);
    }
    // Captures to the end, from a frame on.
    std::string capture(int seek = 0)
    {
        came.clear();
        if (!tqcam_cap_start(dev))
            return "not started";
        if (seek > 0)
            tqcam_cap_seek_frame(dev, seek, 0);
        int result = 0;
        const Clock::time_point begin = Clock::now();
        while (result >= 0 && Clock::now() - begin < std::chrono::seconds(10)) {
            result = tqcam_cap_get_frame(dev, nullptr, 0, nullptr);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        while (tqcam_cap_get_frame(dev, nullptr, 0, nullptr) > 0) { // what was ready when the end was told
        }
        EXPECT_FALSE(tqcam_cap_is_ongoing(dev));
        EXPECT_TRUE(tqcam_cap_stop(dev));
        return came + (result == TQCAM_ERR_CAP_EOF ? "E" : "?");
    }
    ~HostileReplay() override { tqcam_dev_close(dev); }
};

} // namespace

TEST_F(HostileReplay, WholeFramesComeRoundADamagedOne)
{
    const Bytes file = good_file();
    const FramePos second = frame_pos(file, 2);
    const struct {
        const char *what;
        size_t at;
        uint32_t value;
        const char *frames;
        const char *line;
    } cases[] = {
        {"nothing", 0, word_at(file, 0), "12345E", ""},
        {"frame size 0", second.info, 0, "12345E", ""},
        {"frame size all ones", second.info, ~0u, "12345E", ""},
        {"format of other planes", second.info + 4, 12, "1x345E", "decode to 1 failed"},
        {"width all ones", second.info + 8, ~0u, "1x345E", "Wrong frame size"},
        {"twice the height", second.info + 12, 120, "1x345E", ""},
        {"payload of half a frame", second.record + 16, 38400, "1x345E", "unknown 38400 data before"},
        {"payload of a row less", second.record + 16, 76800 - 320, "1x345E", ""},
        {"fields 0", second.record + 12, 0, "1E", "parse record failed: type=0xa"},
        {"node of the device", second.record + 8, 1, "1345E", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Bytes bad = file;
        set_word(bad, c.at, c.value);
        log.clear();
        ASSERT_TRUE(open(bad));
        EXPECT_EQ(capture(), c.frames);
        EXPECT_TRUE(log.has(c.line)) << log.text();
        // Behind the damage, whatever it is.
        const std::string behind = capture(3);
        EXPECT_EQ(behind.substr(std::min<size_t>(behind.size(), behind.size() - 3)), "45E");
        tqcam_dev_close(dev);
        dev = nullptr;
    }
}

TEST_F(HostileReplay, CutFilesGiveWhatTheyHold)
{
    const Bytes file = good_file();
    const FramePos third = frame_pos(file, 3);
    const struct {
        size_t size;
        const char *frames;
    } cases[] = {{third.end, "123E"},
                 {third.end - 1, "12E"},
                 {third.record + 28, "12E"},
                 {third.info + 50, "12E"},
                 {frame_pos(file, 1).record, "E"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.size);
        ASSERT_TRUE(open(Bytes(file.begin(), file.begin() + static_cast<long>(c.size))));
        EXPECT_EQ(capture(), c.frames);
        tqcam_dev_close(dev);
        dev = nullptr;
    }
    EXPECT_FALSE(open(Bytes(file.begin(), file.begin() + 200)));
}

TEST_F(HostileReplay, PropertiesAmongTheFramesMayBeAnything)
{
    const Bytes file = good_file();
    const size_t at = frame_pos(file, 2).end;
    OniBytes props;
    for (const uint64_t v : {uint64_t{0}, uint64_t{0x7FFFFFFF}, ~uint64_t{0}}) {
        for (const char *key : {"TQ_FRAME_IMGW", "TQ_FRAME_IMGH", "TQ_FRAME_MOD_FREQ", "TQ_FRAME_MOD_FREQ1",
                                "TQ_CONF_INTG1_US", "TQ_CONF_INTG2_US", "TQ_DEV_ID", "TQ_FRAME_FPS"})
            props.int_prop(2, key, v);
    }
    for (const size_t size : {0, 1, 13, 16, 100, 5000}) {
        props.general(2, "TQ_FRAME_ROI_INFO", Bytes(size, 0xFF));
        props.general(2, "TQ_FRAME_INFO", Bytes(size, 0x7F));
    }
    props.int_prop(2, "TQ_FRAME_MOD_FREQ", 24000000).int_prop(2, "TQ_CONF_INTG2_US", 0);
    props.int_prop(2, "TQ_FRAME_FPS", 1000).int_prop(2, "TQ_FRAME_FPS", 90);
    Bytes bad = file;
    bad.insert(bad.begin() + static_cast<long>(at), props.out.begin(), props.out.end());
    ASSERT_TRUE(open(bad));
    EXPECT_EQ(capture(), "12345E");
    // The last of each reached the driver by way of the device.
    EXPECT_TRUE(log.has("[_fill_ll_on_get_property]REP: roi set ok\n"));
    EXPECT_TRUE(log.has("Set MOD_FREQ: 24000000\n"));
    tqcam_param_item_t item = {};
    item.param_id = TQCAM_PARAM_MOD_FREQ;
    EXPECT_TRUE(tqcam_param_batch_get(dev, &item, 1));
    EXPECT_EQ(oni_get_u32(item.value), 24000000u);
}
