// The replay link through its table of operations.
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

#include "link/link_ops.h"
#include "support/log_capture.h"
#include "support/recording.h"
#include "support/temp_dir.h"
#include "tq_stream.h"

namespace {
void sleep_ms(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// count frames of 64 bytes, the i-th of which holds i; fps 0 waits for permits.
void record(const char *path, int count, uint32_t fps = 500)
{
    Recording r(path);
    r.stream("TQ_REPLAY");
    r.integer("TQ_FRAME_FPS", fps);
    for (int i = 1; i <= count; i++) {
        r.integer("TQ_FRAME_IMGW", 100u + i);
        r.frame(static_cast<uint8_t>(i));
    }
}

// What the link handed on.
struct Sink {
    static void on_rx(tqcam_ll_dev_t *, int32_t code, const void *data, uint32_t len, void *arg)
    {
        Sink *s = static_cast<Sink *>(arg);
        const uint8_t *p = static_cast<const uint8_t *>(data);
        std::lock_guard<std::mutex> lock(s->mutex);
        s->calls++;
        if (code == 0 && len == sizeof(tq_stream_hdr_t)) {
            memcpy(&s->hdrs.emplace_back(), p, len);
        } else {
            s->order += code == TQCAM_ERR_CAP_EOF ? 'E' : static_cast<char>('0' + p[0]);
            s->frames.push_back(Bytes(p, p + len));
        }
        s->changed.notify_all();
    }
    // Waits for so many frames, or for the end: the first byte of each as a digit, 'E' for the end.
    std::string wait(size_t n, int ms = 5000)
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, std::chrono::milliseconds(ms),
                         [&] { return order.size() >= n || order.find('E') != order.npos; });
        return order;
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::string order;
    std::vector<tq_stream_hdr_t> hdrs;
    std::vector<Bytes> frames;
    std::atomic<int> calls{0};
};

// A link record on a file, opened through the link's own table.
struct Link {
    explicit Link(std::string file) : path(file)
    {
        dev.address.if_type = TQCAM_IF_FILE;
        dev.address.file.path = path.data();
        open = file_ll_ops.dev_open(&dev) == &dev;
    }
    ~Link() { file_ll_ops.dev_close(&dev); }

    bool start(Sink *sink, uint32_t mode = 0) { return dev.ops->cap_start(&dev, mode, Sink::on_rx, sink); }
    void set_fps(uint32_t fps)
    {
        tqcam_ll_param_t item = {TQCAM_PARAM_FPS, 4, {}};
        memcpy(item.value, &fps, 4);
        dev.ops->param_set(&dev, &item, 1);
    }
    Bytes get(uint8_t id)
    {
        tqcam_ll_param_t item = {id, 4, {0xAA, 0xAA}};
        dev.ops->param_get(&dev, &item, 1);
        return Bytes(item.value, item.value + item.len);
    }

    std::string path;
    tqcam_ll_dev_t dev = {};
    bool open;
};

struct FileLink : ::testing::Test {
    TempDir dir;
    LogCapture log;
    Sink sink;
};
} // namespace

TEST_F(FileLink, OpensOnlyRecordingsWithItsStream)
{
    Recording("foreign.oni").stream("TQ_DEPTH");
    for (const char *path : {"missing.oni", "foreign.oni", "."}) {
        Link link(path);
        EXPECT_FALSE(link.open || link.dev.priv || link.dev.ops) << path;
    }
    record("a.oni", 1);
    Link link("a.oni");
    EXPECT_EQ(file_ll_ops.dev_open(&link.dev), nullptr); // is open already
}

TEST_F(FileLink, AnswersParametersFromProperties)
{
    {
        Recording r("a.oni");
        r.text("TQ_PRODUCT", "0123456789abcdefghij");
        r.general("TQ_DEV_VER", {1, 0, 2, 0, 3, 0, 4, 0, 5});
        r.integer("TQ_DEV_MAX_FPS", 100000); // is cut
        r.stream("TQ_REPLAY");
        r.integer("TQ_FRAME_IMGW", 640);
        r.integer("TQ_FRAME_IMGW", 320);
        r.integer("TQ_FRAME_IMGH", 240);
        r.integer("TQ_FRAME_IMGH", 1 << 16); // is no frame side
        r.integer("TQ_FRAME_MOD_FREQ", 12000000);
        r.integer("TQ_CONF_INTG1_US", 0x12345);
        r.text("TQ_CONF_INTG2_US", "5"); // of another kind
        // The older form of a region, whose bins and sides may be anything.
        r.general("TQ_FRAME_ROI_INFO", {9, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0});
    }
    const std::pair<uint8_t, Bytes> cases[] = {
        {3, {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f', 'g'}},
        {4, {248, 255, 240, 255, 2, 0, 255, 255, 0xDC, 5, 0, 0}},
        {5, {0x44, 0x33, 0x22, 0x11, 0, 0, 0, 0, 0, 0, 0, 0}},
        {6, {1, 0, 2, 0, 3, 0, 4, 0}},
        {7, {0x55, 0, 0x88, 0x77, 0x66, 0}},
        {9, {0, 0, 239, 255, 0, 0, 247, 255, 0, 4, 0, 0, 0}},
        {13, {0x45, 0x23, 0, 0}},
        {21, {0x00, 0x1B, 0xB7, 0x00}},
        {2, {}},
    };
    Link link("a.oni");
    for (const auto &[id, value] : cases)
        EXPECT_EQ(link.get(id), value) << "parameter " << int(id);
}

TEST_F(FileLink, WritesTheCalibrationUnderItsOwnName)
{
    {
        Recording r("a.oni");
        r.general("TQ_FILEDATA_CALIB", Bytes(10, 1)); // before its name
        r.text("TQ_FILENAME_CALIB", "../../evil.bin");
        r.general("TQ_FILEDATA_CALIB", Bytes(1000, 'a'));
        r.general("TQ_FILEDATA_CALIB", Bytes(500, 'b'));
        r.stream("TQ_REPLAY");
        r.integer("TQ_FRAME_FPS", 500);
        r.frame(1);
    }
    // The id of parameter 7, as the open of a device computes it.
    const std::string name = "tqcam_param_" + std::to_string((0x66u << 16 | 0x7788u) ^ 0x11223344u) + ".bin";
    Link link("a.oni");
    EXPECT_EQ(read_text(name), std::string(1000, 'a') + std::string(500, 'b'));
    // Among the frames it is not written again.
    std::filesystem::remove(name);
    ASSERT_TRUE(link.start(&sink));
    EXPECT_EQ(sink.wait(2), "1E");
    EXPECT_FALSE(std::filesystem::exists(name));
}

TEST_F(FileLink, HeaderTellsWhatTheFrameIs)
{
    {
        Recording r("a.oni");
        tqcam_frame_info_t info = {};
        info.frame_format = 2;
        const auto put = [&](uint32_t size) {
            info.frame_size = size;
            const uint8_t *p = reinterpret_cast<const uint8_t *>(&info);
            r.general("TQ_FRAME_INFO", Bytes(p, p + sizeof(info)));
        };
        r.stream("TQ_REPLAY");
        r.integer("TQ_FRAME_FPS", 500);
        info.width = 320;
        info.height = 240;
        info.temp_cb = -15;
        info.temp_ib = 402;
        info.time_sec = 86400 * 365 + 3600 * 13 + 60 * 14 + 15;
        info.time_usec = 999999;
        put(64);
        r.frame(1);
        info.meta_size = 592;
        put(5000); // grows, and shrinks without being told
        r.frame(2, 5000);
        r.frame(3, 10);
        put(0xFFFFFFFF); // is no size to allocate
        r.frame(4, 6000);
    }
    Link link("a.oni");
    ASSERT_TRUE(link.start(&sink));
    ASSERT_EQ(sink.wait(5), "1234E");
    const uint32_t sizes[] = {64, 5000, 10, 6000}, time = 13u | 14u << 5 | 15u << 11 | (999999u / 64) << 17;
    for (uint16_t i = 0; i < 4; i++) {
        const uint16_t idx = static_cast<uint16_t>(i + 1);
        const tq_frame_hdr_t frame = {sizes[i], idx, 2, 320, 240, -15, 402, time, i ? 592u : 0};
        tq_stream_hdr_t due = {0x98FB, idx, sizes[i], frame, 1, uint8_t(i ? 2 : 0), 0};
        due.hdr_hash = tq_stream_hash16(&due, 34, 0);
        EXPECT_EQ(memcmp(&sink.hdrs[i], &due, sizeof(due)), 0) << i;
        EXPECT_EQ(sink.frames[i], Bytes(sizes[i], static_cast<uint8_t>(idx)));
    }
}

TEST_F(FileLink, EndsOrGoesRound)
{
    record("a.oni", 3);
    record("none.oni", 0);
    Sink twice[2], round, empty;
    Link link("a.oni"), none("none.oni");
    for (Sink &s : twice) { // each start is from the beginning
        ASSERT_TRUE(link.start(&s));
        EXPECT_EQ(s.wait(4), "123E");
        sleep_ms(20);
        EXPECT_EQ(s.calls, 7); // stopped by itself
    }
    ASSERT_TRUE(link.start(&round, 1));
    EXPECT_EQ(round.wait(7).substr(0, 7), "1231231");
    ASSERT_TRUE(none.start(&empty, 1)); // one without frames ends, also where it should go round
    EXPECT_EQ(empty.wait(1), "E");
}

TEST_F(FileLink, StepsByPermit)
{
    record("a.oni", 9, 500);
    Link link("a.oni");
    link.set_fps(0);
    ASSERT_TRUE(link.start(&sink, 1));
    EXPECT_EQ(sink.wait(1, 50), "");
    for (int i = 1; i <= 3; i++) {
        link.dev.ops->cap_wait(&link.dev);
        EXPECT_EQ(sink.wait(i).size(), i);
    }
    EXPECT_EQ(link.dev.ops->cap_seek(&link.dev, 6, 0), 6);
    for (int i = 4; i <= 7; i++) { // round the end with one permit for each frame
        link.dev.ops->cap_wait(&link.dev);
        sink.wait(i);
    }
    EXPECT_EQ(sink.wait(7), "1237891");
    link.set_fps(1000); // back to the file's pace
    EXPECT_GE(sink.wait(20).size(), 20u);
    link.set_fps(0); // a close doesn't wait for a permit
}

TEST_F(FileLink, NothingComesOnceStopped)
{
    record("a.oni", 200, 1000000);
    Link link("a.oni");
    for (int round = 0; round < 50; round++) {
        ASSERT_TRUE(link.start(&sink, 1));
        sink.wait(round + 1);
        ASSERT_TRUE(link.dev.ops->cap_stop(&link.dev));
        const int before = sink.calls;
        std::this_thread::yield();
        ASSERT_EQ(sink.calls, before);
    }
    // The callback may stop it too.
    for (const bool abort : {true, false}) {
        static std::atomic<int> calls;
        calls = 0;
        const auto cb = [](tqcam_ll_dev_t *dev, int32_t, const void *, uint32_t, void *arg) {
            arg ? dev->ops->cap_abort(dev) : static_cast<void>(dev->ops->cap_stop(dev));
            calls++;
        };
        ASSERT_TRUE(link.dev.ops->cap_start(&link.dev, 1, cb, abort ? &calls : nullptr));
        while (calls < 2) // header and frame
            sleep_ms(1);
        sleep_ms(10);
        EXPECT_EQ(calls, 2);
    }
}

TEST_F(FileLink, ThreadsMayCallAllOfItAtOnce)
{
    record("a.oni", 50);
    Sink last;
    Link link("a.oni");
    std::atomic<bool> end{false};
    std::thread asks([&] {
        while (!end) {
            link.dev.ops->cap_seek(&link.dev, 20, 0);
            link.get(4);
        }
    });
    std::thread steps([&] {
        while (!end) {
            link.dev.ops->cap_wait(&link.dev);
            link.set_fps(1000);
        }
    });
    for (int i = 0; i < 3000; i++) {
        link.start(&sink, 1);
        link.set_fps(0);
        link.dev.ops->cap_stop(&link.dev);
    }
    end = true;
    asks.join();
    steps.join();
    ASSERT_TRUE(link.start(&last));
    link.dev.ops->cap_wait(&link.dev);
    EXPECT_GE(last.wait(1).size(), 1u); // and it still plays
}
