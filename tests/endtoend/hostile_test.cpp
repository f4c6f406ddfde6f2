// Recordings that lie or are cut, through the whole of the library: a stated error or a skipped frame, an
// end, and the good frames before and after. What is read or written outside a buffer the sanitizers tell.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "recorded_camera.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {
constexpr int PIXELS = 160 * 60;

std::string slurp(const std::string &name)
{
    std::ifstream in(name, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}

void write_file(const std::string &name, const std::string &bytes)
{
    std::ofstream(name, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

struct Hostile : ::testing::Test {
    Hostile() { record_camera("good.oni", wall_before("E5", 1000, 2), 3); }
    TempDir dir;
    LogCapture log;
};
} // namespace

// The second of three frames says something else of itself than it is.
TEST_F(Hostile, FramesThatLie)
{
    static uint8_t huge[3 * 1024 * 1024];
    struct {
        const char *name;
        void (*change)(sim_frame_t &);
        int decoded; // -1: may be anything, within the buffer
    } const cases[] = {
        {"width 1", [](sim_frame_t &f) { f.width = 1; }, -1},
        {"width 65535", [](sim_frame_t &f) { f.width = 65535; }, -1},
        {"height 61", [](sim_frame_t &f) { f.height = 61; }, 0},
        {"height 2", [](sim_frame_t &f) { f.height = 2; }, -1},
        {"both 65535", [](sim_frame_t &f) { f.width = f.height = 65535; }, 0},
        {"format 99", [](sim_frame_t &f) { f.format = 99; }, -1},
        {"format of one plane", [](sim_frame_t &f) { f.format = 4; }, -1},
        {"gray reference", [](sim_frame_t &f) { f.format = 11; }, -1},
        {"one byte", [](sim_frame_t &f) { f.data = f.data.first(1); }, 0},
        {"half a frame", [](sim_frame_t &f) { f.data = f.data.first(f.data.size() / 2); }, 0},
        {"a byte short", [](sim_frame_t &f) { f.data = f.data.first(f.data.size() - 1); }, 0},
        {"larger than the buffer", [](sim_frame_t &f) { f.data = huge; }, 0},
        {"metadata without end", [](sim_frame_t &f) { f.meta_size = UINT32_MAX; }, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        record_camera("bad.oni", wall_before("E5", 1000, 2), 3, [&](sim_frame_t &f) {
            if (f.index == 1)
                c.change(f);
        });
        const played_t p = play("bad.oni");
        EXPECT_TRUE(p.opened && p.ended);
        ASSERT_GE(p.frames.size(), 2u);
        EXPECT_EQ(p.frames.front(), 1);
        EXPECT_EQ(p.frames.back(), 3);
        EXPECT_EQ(p.decoded.front(), PIXELS);
        EXPECT_EQ(p.decoded.back(), PIXELS);
        if (p.frames.size() == 3 && c.decoded >= 0) {
            EXPECT_EQ(p.decoded[1], c.decoded);
        }
    }
}

TEST_F(Hostile, CutAnywhere)
{
    const std::string good = slurp("good.oni");
    std::vector<size_t> cuts = {0, 1, 7, good.size() - 1, good.size() / 2};
    for (size_t at = 8; at < good.size(); at += at < 4000 ? 97 : good.size() / 23)
        cuts.push_back(at);
    for (size_t at : cuts) {
        SCOPED_TRACE(at);
        write_file("cut.oni", good.substr(0, at));
        const played_t p = play("cut.oni");
        if (!p.opened)
            continue;
        EXPECT_TRUE(p.ended);
        EXPECT_LE(p.frames.size(), 3u);
        for (size_t i = 0; i < p.frames.size(); i++) {
            EXPECT_EQ(p.frames[i], static_cast<int>(i) + 1);
            EXPECT_EQ(p.decoded[i], PIXELS);
        }
        if (at > good.size() * 3 / 4) { // two whole frames at least
            EXPECT_GE(p.frames.size(), 2u);
        }
    }
}

// Words of the file replaced, first those that lie among the records' heads.
TEST_F(Hostile, WordsReplaced)
{
    const std::string good = slurp("good.oni");
    for (size_t at = 0; at < 3000 && at + 4 <= good.size(); at += 52) {
        for (uint32_t word : {0u, 1u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
            SCOPED_TRACE(std::to_string(at) + " <- " + std::to_string(word));
            std::string bad = good;
            memcpy(&bad[at], &word, 4);
            write_file("bad.oni", bad);
            const played_t p = play("bad.oni");
            EXPECT_EQ(p.ended, p.opened);
        }
    }
}

// What the recording says of the device rather than of a frame.
TEST_F(Hostile, SettingsThatLie)
{
    void (*const cases[])(sim_config_t &) = {
        [](sim_config_t &c) { c.freq0 = 0; },
        [](sim_config_t &c) { c.freq0 = UINT32_MAX; },
        [](sim_config_t &c) { c.freq0 = 1; },
        [](sim_config_t &c) { c.fps = 0; },
        [](sim_config_t &c) { c.fps = UINT32_MAX; },
        [](sim_config_t &c) { c.format = 171; },
        [](sim_config_t &c) { c.intg_us = c.intg2_us = UINT32_MAX; },
    };
    for (size_t i = 0; i < std::size(cases); i++) {
        SCOPED_TRACE(i);
        record_camera("bad.oni", wall_before("E5", 1000, 2), 3, {}, cases[i]);
        tqcam_dev_t *dev = start_replay("bad.oni", true);
        ASSERT_NE(dev, nullptr) << log.text();
        std::vector<uint8_t> raw(1 << 20);
        tqcam_frame_t frame;
        ASSERT_EQ(tqcam_cap_get_frames(dev, 1, raw.data(), 1 << 20, &frame), 1);
        std::vector<uint16_t> image(PIXELS);
        EXPECT_GE(tqcam_frame_get_dist_u16(dev, image.data(), PIXELS, raw.data(), 1 << 20, nullptr), 0);
        tqcam_dev_close(dev);
    }
}
