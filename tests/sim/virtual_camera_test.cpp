// The virtual camera, commanded as a host commands a camera.
#include "frame_source_more.h"
#include "tq_stream.h"
#include "virtual_camera.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>

namespace {

typedef std::vector<uint8_t> bytes_t;

struct host_t {
    vcam_t *cam;
    uint64_t now_us = 1000000;

    explicit host_t(const vcam_cfg_t &cfg)
        : cam(vcam_create(cfg, sim_source_loop(sim_source_live(cfg.sim), cfg.sim, 2)))
    {
    }
    ~host_t() { vcam_destroy(cam); }

    vcam_reply_t control(uint8_t request, uint8_t type, uint16_t value, bytes_t *data)
    {
        const uint8_t setup[8] = {
            request, type, static_cast<uint8_t>(value),        static_cast<uint8_t>(value >> 8),
            0,       0,    static_cast<uint8_t>(data->size()), static_cast<uint8_t>(data->size() >> 8)};
        return vcam_control(cam, setup, data->data(), now_us);
    }
    // A command and the look at its outcome.
    bool write(uint8_t type, uint8_t value, bytes_t data)
    {
        bytes_t status(60, 0xEE);
        return control(0x22, type, value, &data).actual == data.size() &&
               control(0xA2, 0xB0, 0, &status).actual == 60 && status[1] == type && status[2] == value &&
               status[0] != 0xFF;
    }
};

vcam_cfg_t config(const char *camera)
{
    sim_config_t sim = sim_config_default(sim_camera_find(camera));
    sim.scene = sim_scene_make(SIM_SCENE_DOME);
    return vcam_config_default(sim);
}

void add_fault(vcam_cfg_t *cfg, const std::string &text)
{
    std::string error;
    EXPECT_TRUE(vcam_fault_parse(&cfg->faults, text, &error)) << error;
}

// Plays the stream for some time into a reassembler.
struct playback_t {
    tq_stream_state_t state;
    std::vector<tq_frame_hdr_t> frames;
    bytes_t last;
    std::vector<vcam_result_t> odd; // results that are no data
};

playback_t play(host_t *host, uint64_t us, uint32_t transfer = 153600)
{
    playback_t out = {};
    const tq_stream_cfg_t limit = {100};
    const std::unique_ptr<tq_stream_t, void (*)(tq_stream_t *)> stream(tq_stream_create(&limit),
                                                                       tq_stream_destroy);
    bytes_t buf(transfer);
    const uint64_t end = host->now_us + us;
    while (host->now_us < end && out.odd.size() < 20) {
        const vcam_reply_t r = vcam_bulk_in(host->cam, buf.data(), transfer, host->now_us);
        tq_stream_feed_input(stream.get(), buf.data(), static_cast<int32_t>(r.actual));
        if (r.result == VCAM_NOT_YET || r.result == VCAM_MORE)
            host->now_us = vcam_wake_us(host->cam, host->now_us);
        else if (r.result != VCAM_OK)
            out.odd.push_back(r.result);
        if (r.result == VCAM_STALL)
            vcam_clear_halt(host->cam, true);
    }
    tq_frame_hdr_t hdr;
    out.last.resize(4 << 20);
    tq_stream_get_state(stream.get(), &out.state);
    while (tq_stream_fetch_frames(stream.get(), out.last.data(), 4 << 20, 1, &hdr, false) == 1) {
        out.frames.push_back(hdr);
    }
    out.last.resize(out.frames.empty() ? 0 : out.frames.back().frame_len);
    return out;
}

} // namespace

TEST(VirtualCamera, StreamsFramesAtItsRate)
{
    for (const char *camera : {"E1", "S570C4"}) {
        vcam_cfg_t cfg = config(camera);
        cfg.checksum = true;
        cfg.sim.defects = sim_defects_none();
        host_t host(cfg);
        EXPECT_TRUE(play(&host, 100000).frames.empty());
        ASSERT_TRUE(host.write(0xC2, 4, {0, 0, 0, 0}));
        const playback_t p = play(&host, 1000000);
        EXPECT_EQ(p.frames.size(), 31u); // 30 a second, the first at once
        EXPECT_EQ(p.state.discarded, 0u);
        EXPECT_EQ(p.state.discard_bytes, 0u);
        for (size_t i = 0; i < p.frames.size(); i++)
            EXPECT_EQ(p.frames[i].frame_idx, i);
        const auto source = sim_source_live(cfg.sim);
        sim_frame_t f;
        source->next(source->self, &f);
        EXPECT_EQ(p.frames.back().aux, f.meta_size);
        EXPECT_TRUE(std::equal(f.data.begin(), f.data.end(), p.last.begin(), p.last.end()));

        bytes_t ten_a_second(20, 0);
        ten_a_second[0] = 12, ten_a_second[1] = 4, ten_a_second[2] = 10;
        ASSERT_TRUE(host.write(0xC0, 3, ten_a_second));
        EXPECT_NEAR(static_cast<double>(play(&host, 1000000).frames.size()), 10, 1);
        ASSERT_TRUE(host.write(0xC2, 5, {0xC2}));
        EXPECT_TRUE(play(&host, 500000).frames.empty());
    }
}

TEST(VirtualCamera, StreamFaultsCostWhatTheyMust)
{
    const struct {
        const char *fault;
        uint32_t frames, discarded; // of 31 sent
        size_t odd;
    } cases[] = {
        {"lose-packet,first=3", 30, 1, 0}, // packets 1 to 5 make a frame
        {"bit-error,first=3", 30, 1, 0},    {"bad-hash,first=2", 30, 1, 0},
        {"bad-checksum,first=7", 30, 1, 0}, {"junk,every=4", 31, 0, 0},
        {"cut-frame,first=2", 30, 1, 0},    {"short-in,first=2", 31, 0, 0},
        {"empty-in,every=3", 31, 0, 0},     {"stall-in,first=9,times=2", 31, 0, 2},
        {"late-in,every=5", 31, 0, 0},      {"unplug-in,first=6", 1, 0, 20},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fault);
        vcam_cfg_t cfg = config("E1");
        cfg.checksum = true;
        add_fault(&cfg, c.fault);
        host_t host(cfg);
        ASSERT_TRUE(host.write(0xC2, 4, {0, 0, 0, 0}));
        const playback_t p = play(&host, 1000000);
        EXPECT_EQ(p.frames.size(), c.frames);
        EXPECT_EQ(p.state.discarded, c.discarded);
        EXPECT_EQ(p.odd.size(), c.odd);
    }
}
