// The replay link through its table of operations.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

#include "filelink/recording.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

struct FileLink : ::testing::Test {
    TempDir dir;
    LogCapture log;
    Sink sink;
};

void sleep_ms(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

} // namespace

TEST_F(FileLink, OpensOnlyRecordingsWithItsStream)
{
    {
        Recording r("foreign.oni");
        r.stream("TQ_DEPTH");
        r.frame(1);
    }
    for (const char *path : {"missing.oni", "foreign.oni", "."}) {
        Link link(path);
        EXPECT_FALSE(link.open || link.dev.priv || link.dev.ops);
        EXPECT_TRUE(log.has(std::string("[_file_ll_dev_open]No replay stream found in ") + path));
    }
    record("a.oni", 1);
    Link link("a.oni");
    ASSERT_TRUE(link.open);
    EXPECT_EQ(file_ll_ops.dev_open(&link.dev), nullptr); // is open already
    file_ll_ops.dev_close(&link.dev);
    EXPECT_FALSE(link.start(&sink));
    file_ll_ops.dev_close(&link.dev); // again
}

TEST_F(FileLink, AnswersParametersFromProperties)
{
    {
        Recording r("a.oni");
        r.text("TQ_PRODUCT", "0123456789abcdefghij");
        r.general("TQ_DEV_VER", "\1\0\2\0\3\0\4\0\5", 9);
        r.real("TQ_REP_VER", 1.0);
        r.stream("TQ_DEPTH");
        r.integer("TQ_FRAME_IMGW", 9999); // of a stream that is not ours
        r.stream("TQ_REPLAY");
        r.integer("TQ_FRAME_IMGW", 640);
        r.integer("TQ_FRAME_IMGW", 320);
        r.integer("TQ_FRAME_IMGH", 240);
        r.integer("TQ_FRAME_IMGH", 1 << 16); // is no frame side
        r.integer("TQ_FRAME_FMT", 4);
        r.integer("TQ_FRAME_FPS", 7);
        r.integer("TQ_FRAME_MOD_FREQ", 12000000);
        r.integer("TQ_FRAME_MOD_FREQ1", 10000000);
        r.integer("TQ_CONF_INTG1_US", 0x12345);
        r.text("TQ_CONF_INTG2_US", "5"); // of another kind
        r.general("TQ_FRAME_ROI_INFO", "\1\0\2\0\3\0\4\0\5\6\7\7\7\7\7", 15);
    }
    Link link("a.oni");
    ASSERT_TRUE(link.open);
    const struct {
        uint8_t id;
        Bytes value;
    } cases[] = {
        {3, {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f', 'g'}},
        {4, {128, 2, 240, 0, 2, 0, 60, 0, 0xDC, 5, 0, 0}},
        {5, {0x44, 0x33, 0x22, 0x11, 0, 0, 0, 0, 0, 0, 0, 0}},
        {6, {1, 0, 2, 0, 3, 0, 4, 0}},
        {7, {0x55, 0, 0x88, 0x77, 0x66, 0}},
        {9, {1, 0, 2, 0, 3, 0, 4, 0, 5, 6, 7, 7, 7}},
        {10, {4, 0, 0, 0}},
        {12, {7, 0, 0, 0}},
        {13, {0x45, 0x23, 0, 0}},
        {21, {0x00, 0x1B, 0xB7, 0x00}},
        {2, {}},
    };
    for (const auto &c : cases)
        EXPECT_EQ(link.get(c.id), c.value) << "parameter " << int(c.id);
    EXPECT_TRUE(log.has("[_fill_ll_on_get_property]TQ_CONF_INTG2_US of another kind ignored: 90\n"));
    EXPECT_TRUE(log.has("TQ_FRAME_IMGH=65536 is no frame side"));
    EXPECT_TRUE(log.has("WxHxN = 320x240x1, modfreq=12000000, max WxH=640x240\n"));
    EXPECT_FALSE(log.has("9999"));
}

TEST_F(FileLink, LimitsComeFromTheFileAndTheRegion)
{
    const Bytes cases[][3] = {
        // region in the file, in the answer, largest width and height
        {{5, 0, 44, 0, 10, 0, 29, 0, 2, 0, 0, 0, 8, 0, 0, 0}, // old form, bins of 4
         {0, 0, 39, 0, 0, 0, 39, 0, 1, 8, 0, 0, 0},
         {40, 0, 40, 0}},
        {{9, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0}, // old form, divided by nothing
         {0, 0, 239, 255, 0, 0, 247, 255, 0, 4, 0, 0, 0},
         {248, 255, 240, 255}},
        {{9, 0, 0, 0, 9, 0, 0, 0}, {9, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 0}, {30, 0, 20, 0}}, // backwards
    };
    for (const auto &[roi, answer, largest] : cases) {
        {
            Recording r("a.oni");
            r.integer("TQ_DEV_MAX_FPS", 100000);
            r.integer("TQ_DEV_MAX_INTG_US", 900);
            r.stream("TQ_REPLAY");
            r.integer("TQ_FRAME_IMGW", 30);
            r.integer("TQ_FRAME_IMGH", 20);
            r.general("TQ_FRAME_ROI_INFO", roi.data(), static_cast<uint32_t>(roi.size()));
        }
        Link link("a.oni");
        ASSERT_TRUE(link.open);
        EXPECT_EQ(link.get(9), answer);
        Bytes limits = largest;
        limits.insert(limits.end(), {2, 0, 255, 255, 0x84, 3, 0, 0}); // frames a second and time are cut
        EXPECT_EQ(link.get(4), limits);
    }
}

TEST_F(FileLink, WritesTheCalibrationUnderItsOwnName)
{
    const Bytes first(1000, 1), second(500, 2);
    {
        Recording r("a.oni");
        r.general("TQ_FILEDATA_CALIB", first.data(), 10); // before its name
        r.text("TQ_FILENAME_CALIB", "../../evil.bin");
        r.general("TQ_FILEDATA_CALIB", first.data(), 1000);
        r.general("TQ_FILEDATA_CALIB", second.data(), 500);
        r.stream("TQ_REPLAY");
        r.integer("TQ_FRAME_FPS", 500);
        r.frame(1);
    }
    // The id of parameter 7, as the open of a device computes it.
    const std::string name = "tqcam_param_" + std::to_string((0x66u << 16 | 0x7788u) ^ 0x11223344u) + ".bin";
    Link link("a.oni");
    ASSERT_TRUE(link.open);
    EXPECT_TRUE(log.has("[_file_ll_dev_open]Extracted calib file `" + name + "` from replay.\n"));
    Bytes due = first;
    due.insert(due.end(), second.begin(), second.end());
    std::ifstream in(name, std::ios::binary);
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(in), {}), due);
    // Among the frames it is not written again.
    std::filesystem::remove(name);
    ASSERT_TRUE(link.start(&sink));
    EXPECT_EQ(sink.until_end(), "1E");
    EXPECT_FALSE(std::filesystem::exists(name));
}

TEST_F(FileLink, HeaderTellsWhatTheFrameIs)
{
    tqcam_frame_info_t info = {};
    {
        Recording r("a.oni");
        r.stream("TQ_REPLAY");
        r.integer("TQ_FRAME_FPS", 500);
        info.frame_size = 64;
        info.frame_format = 2;
        info.width = 320;
        info.height = 240;
        info.temp_cb = -15;
        info.temp_ib = 402;
        info.time_sec = 86400 * 365 + 3600 * 13 + 60 * 14 + 15;
        info.time_usec = 999999;
        r.info(info);
        r.frame(1);
        info.frame_format = 256;
        info.meta_size = 592;
        info.frame_size = 5000; // grows, and shrinks without being told
        r.info(info);
        r.frame(2, 5000);
        r.frame(3, 10);
        info.frame_size = 0xFFFFFFFF; // is no size to allocate
        r.info(info);
        r.frame(4, 6000);
    }
    Link link("a.oni");
    ASSERT_TRUE(link.open);
    ASSERT_TRUE(link.start(&sink));
    EXPECT_EQ(sink.until_end(), "1234E");
    const std::vector<Received> all = sink.wait(9);
    ASSERT_EQ(all.size(), 9u);
    const uint32_t sizes[] = {64, 5000, 10, 6000};
    for (int i = 0; i < 4; i++) {
        SCOPED_TRACE(i);
        tq_stream_hdr_t hdr = {};
        ASSERT_EQ(all[2 * i].data.size(), sizeof(hdr));
        memcpy(&hdr, all[2 * i].data.data(), sizeof(hdr));
        EXPECT_EQ(hdr.hdr_hash, tq_stream_hash16(&hdr, 34, 0));
        EXPECT_EQ(hdr.magic, 0x98FB);
        EXPECT_EQ(hdr.stream_idx, i + 1);
        EXPECT_EQ(hdr.frame.frame_idx, i + 1);
        EXPECT_EQ(hdr.len, sizes[i]);
        EXPECT_EQ(hdr.frame.frame_len, sizes[i]);
        EXPECT_EQ(hdr.flags0, 1);
        EXPECT_EQ(hdr.flags1, i == 0 ? 0 : 2);
        EXPECT_EQ(hdr.frame.aux, i == 0 ? 0u : 592u);
        EXPECT_EQ(hdr.frame.frame_fmt, i == 0 ? 2 : 256);
        EXPECT_EQ(hdr.frame.width, i == 0 ? 320 : 0);
        EXPECT_EQ(hdr.frame.height, i == 0 ? 240 : 0);
        EXPECT_EQ(hdr.frame.temp_cb, i == 0 ? -15 : 0);
        EXPECT_EQ(hdr.frame.temp_ib, i == 0 ? 402 : 0);
        EXPECT_EQ(hdr.frame.time, i == 0 ? 13u | 14u << 5 | 15u << 11 | (999999u / 64) << 17 : 0u);
        EXPECT_EQ(all[2 * i + 1].data, Bytes(sizes[i], static_cast<uint8_t>(i + 1)));
    }
    EXPECT_TRUE(log.has("realloc ll_file single frame buffer: 5000 -> 10485759 bytes\n"));
}

TEST_F(FileLink, PropertiesAmongTheFramesMayBeAnything)
{
    {
        Recording r("a.oni");
        r.stream("TQ_REPLAY");
        r.integer("TQ_FRAME_FPS", 500);
        r.frame(1);
        for (const uint64_t v : {uint64_t{0}, uint64_t{0x7FFFFFFF}, ~uint64_t{0}, uint64_t{1000}}) {
            for (const char *key : {"TQ_FRAME_IMGW", "TQ_FRAME_IMGH", "TQ_FRAME_MOD_FREQ", "TQ_CONF_INTG2_US",
                                    "TQ_DEV_ID", "TQ_FRAME_FPS"})
                r.integer(key, v);
        }
        for (const uint32_t size : {0, 1, 13, 16, 100, 5000}) {
            r.general("TQ_FRAME_ROI_INFO", Bytes(size, 0xFF).data(), size);
            r.general("TQ_FRAME_INFO", Bytes(size, 0x7F).data(), size);
        }
        r.frame(2);
    }
    Link link("a.oni");
    ASSERT_TRUE(link.open);
    ASSERT_TRUE(link.start(&sink));
    EXPECT_EQ(sink.until_end(), "12E");
    EXPECT_EQ(link.get(21), (Bytes{0xE8, 3, 0, 0}));
}

TEST_F(FileLink, EndsOrGoesRound)
{
    record("a.oni", 3);
    Link link("a.oni");
    ASSERT_TRUE(link.open);
    for (int round = 0; round < 2; round++) { // each start is from the beginning
        sink.clear();
        ASSERT_TRUE(link.start(&sink));
        EXPECT_EQ(sink.until_end(), "123E");
        sleep_ms(20);
        EXPECT_EQ(sink.calls(), 7u); // stopped by itself
    }
    sink.clear();
    ASSERT_TRUE(link.start(&sink, 1));
    EXPECT_EQ(Sink::order(sink.wait(14)).substr(0, 7), "1231231");
    EXPECT_TRUE(link.stop());

    // A recording without frames ends, also where it should go round.
    record("none.oni", 0);
    Link none("none.oni");
    ASSERT_TRUE(none.open);
    sink.clear();
    ASSERT_TRUE(none.start(&sink, 1));
    EXPECT_EQ(sink.until_end(), "E");
}

TEST_F(FileLink, StepsByPermit)
{
    record("a.oni", 9, 500);
    Link link("a.oni");
    ASSERT_TRUE(link.open);
    link.set_fps(0);
    ASSERT_TRUE(link.start(&sink, 1));
    EXPECT_EQ(sink.wait(1, 50).size(), 0u);
    for (int i = 1; i <= 3; i++) {
        link.dev.ops->cap_wait(&link.dev);
        EXPECT_EQ(sink.wait(2 * i).size(), 2u * i);
    }
    EXPECT_EQ(link.dev.ops->cap_seek(&link.dev, 6, 0), 6);
    for (int i = 4; i <= 7; i++) { // round the end with one permit for each frame
        link.dev.ops->cap_wait(&link.dev);
        EXPECT_EQ(sink.wait(2 * i).size(), 2u * i);
    }
    EXPECT_EQ(Sink::order(sink.wait(0)), "1237891");
    link.set_fps(9); // dropped while stepping
    EXPECT_EQ(link.get(12), (Bytes{0xF4, 1, 0, 0}));
    link.set_fps(1000); // back to the file's pace
    EXPECT_GE(sink.wait(40).size(), 40u);
}

TEST_F(FileLink, StopAndCloseDoNotWaitLong)
{
    record("slow.oni", 3, 1);
    record("step.oni", 3, 0);
    record("fast.oni", 200, 1000000);
    for (const char *path : {"slow.oni", "step.oni", "fast.oni"}) {
        for (const bool stop : {true, false}) {
            const Clock::time_point begin = Clock::now();
            {
                Link link(path);
                ASSERT_TRUE(link.open);
                ASSERT_TRUE(link.start(&sink, 1));
                sleep_ms(5);
                EXPECT_TRUE(!stop || link.stop());
            }
            EXPECT_LT(Clock::now() - begin, std::chrono::milliseconds(900)) << path;
        }
    }
}

TEST_F(FileLink, NothingComesOnceStopped)
{
    record("a.oni", 200, 1000000);
    Link link("a.oni");
    ASSERT_TRUE(link.open);
    for (int round = 0; round < 50; round++) {
        ASSERT_TRUE(link.start(&sink, 1));
        sink.wait(1);
        ASSERT_TRUE(link.stop());
        sink.clear();
        std::this_thread::yield();
        ASSERT_EQ(sink.calls(), 0u);
    }
    // The callback may stop it too.
    for (const bool abort : {true, false}) {
        struct {
            bool abort;
            std::atomic<int> calls{0};
        } arg = {abort, {}};
        const auto cb = [](tqcam_ll_dev_t *dev, int32_t, const void *, uint32_t, void *p) {
            auto *a = static_cast<decltype(arg) *>(p);
            a->abort ? dev->ops->cap_abort(dev) : static_cast<void>(dev->ops->cap_stop(dev));
            a->calls++;
        };
        ASSERT_TRUE(link.dev.ops->cap_start(&link.dev, 1, cb, &arg));
        for (int i = 0; i < 500 && arg.calls < 2; i++)
            sleep_ms(1);
        sleep_ms(10);
        EXPECT_EQ(arg.calls, 2); // header and frame
    }
}

TEST_F(FileLink, ThreadsMayCallAllOfItAtOnce)
{
    {
        Recording r("a.oni");
        r.stream("TQ_REPLAY");
        tqcam_frame_info_t info = {};
        for (uint32_t i = 0; i < 50; i++) {
            info.frame_size = 64 + i;
            r.integer("TQ_FRAME_IMGW", 100 + i);
            r.info(info);
            r.frame(static_cast<uint8_t>(i), 64 + i);
        }
    }
    Link link("a.oni");
    ASSERT_TRUE(link.open);
    std::atomic<bool> end{false};
    auto each = [&](void (*work)(Link &, Sink &)) {
        return std::thread([&, work] {
            while (!end)
                work(link, sink);
        });
    };
    std::thread threads[] = {each([](Link &l, Sink &s) {
                                 l.start(&s, 1);
                                 l.set_fps(0);
                                 l.stop();
                             }),
                             each([](Link &l, Sink &) {
                                 l.dev.ops->cap_seek(&l.dev, 20, 0);
                                 l.get(4);
                                 l.get(9);
                             }),
                             each([](Link &l, Sink &s) {
                                 l.dev.ops->cap_wait(&l.dev);
                                 l.set_fps(1000);
                                 s.clear();
                             })};
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    end = true;
    for (std::thread &t : threads)
        t.join();
    link.set_fps(1000000);
    sink.clear();
    ASSERT_TRUE(link.start(&sink));
    link.dev.ops->cap_wait(&link.dev);
    EXPECT_GE(sink.wait(2).size(), 2u); // and it still plays
}
