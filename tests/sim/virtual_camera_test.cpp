// The virtual camera, commanded as a host commands a camera.
#include "frame_source_more.h"
#include "support/temp_dir.h"
#include "tq_stream.h"
#include "virtual_camera.h"
#include "virtual_camera_flash.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>

namespace {

typedef std::vector<uint8_t> bytes_t;

struct host_t {
    vcam_t *cam;
    uint64_t now_us = 1000000;
    uint32_t busy = 0;   // status reads that showed busy
    std::string message; // of a failed command

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
    bool confirmed(uint8_t type, uint8_t value)
    {
        bytes_t status(60, 0xEE);
        do {
            if (control(0xA2, 0xB0, 0, &status).actual != 60 || status[1] != type || status[2] != value)
                return false;
            busy += status[0] == 0xFE;
        } while (status[0] == 0xFE);
        message = status[0] == 0xFF ? reinterpret_cast<char *>(&status[3]) : "";
        return status[0] != 0xFF;
    }
    bool write(uint8_t type, uint8_t value, bytes_t data)
    {
        const vcam_reply_t r = control(0x22, type, value, &data);
        return r.result == VCAM_OK && r.actual == data.size() && confirmed(type, value);
    }
    bool read(uint8_t type, uint8_t value, bytes_t *data)
    {
        if (!write(type, value, *data))
            return false;
        const vcam_reply_t r = control(0xA2, type, value, data);
        return r.result == VCAM_OK && r.actual == data->size() && confirmed(type, value);
    }
    bool set(uint8_t id, bytes_t value)
    {
        bytes_t item(20, 0);
        item[0] = id;
        item[1] = static_cast<uint8_t>(value.size());
        std::copy(value.begin(), value.end(), item.begin() + 2);
        return write(0xC0, 3, item);
    }
    bytes_t get(uint8_t id)
    {
        bytes_t item(20, 0);
        item[0] = id;
        if (!read(0xC0, 4, &item) || item[0] != id)
            return {0xEE};
        return bytes_t(item.begin() + 2, item.begin() + 2 + item[1]);
    }
    uint32_t number(uint8_t id)
    {
        uint32_t v = 0;
        const bytes_t value = get(id);
        memcpy(&v, value.data(), std::min<size_t>(4, value.size()));
        return v;
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

TEST(VirtualCamera, TellsItsIdentityAndLimits)
{
    host_t host(config("S570C4"));
    const sim_identity_t id = sim_identity(config("S570C4").sim);
    const bytes_t product = host.get(3);
    EXPECT_EQ(std::string(product.begin(), product.end()), "TQSIM-S570C4-VGA");
    EXPECT_EQ(host.get(4), (bytes_t{0x80, 2, 0xE0, 1, 2, 0, 30, 0, 0xE8, 3, 0, 0}));
    EXPECT_EQ(host.number(5), id.serial[0]);
    EXPECT_EQ(host.get(7)[2] | host.get(7)[3] << 8, id.cid);
    EXPECT_EQ(host.number(21), 120000000u);
    EXPECT_EQ(host.get(8).size(), 18u);
    EXPECT_TRUE(host.get(200).empty()); // not known: no length
}

TEST(VirtualCamera, TakesWhatItCanDoAndRefusesTheRest)
{
    host_t host(config("E1"));
    const struct {
        uint8_t id;
        bytes_t value;
        const char *refusal; // NULL: taken
    } cases[] = {
        {12, {15, 0, 0, 0}, nullptr},
        {12, {61, 0, 0, 0}, "frame rate"},
        {10, {1, 0, 0, 0}, nullptr},
        {10, {17, 0, 0, 0}, "frame format"},
        {1, {0, 0x36, 0x6E, 1}, nullptr}, // 24 MHz
        {1, {1, 0, 0, 0}, "frequency"},
        {13, {0xF4, 1}, nullptr},
        {13, {0xFF, 0xFF}, "automatic"},
        {3, {'X'}, "read only"},
        {9, {0, 0, 0xEF, 0, 0, 0, 0x3F, 1, 0, 0, 0, 0, 0}, nullptr},
        {9, {0, 0, 0x77, 0, 0, 0, 0x9F, 0, 1, 0, 0, 0, 0}, "whole image"},
        {12, bytes_t(18, 1), "frame rate"},
        {77, {1, 2, 3}, nullptr},
        {77, {}, "length"},
    };
    for (const auto &c : cases) {
        const bytes_t before = host.get(c.id);
        EXPECT_EQ(host.set(c.id, c.value), c.refusal == nullptr) << int(c.id) << host.message;
        if (c.refusal != nullptr) {
            EXPECT_NE(host.message.find(c.refusal), std::string::npos) << host.message;
            EXPECT_EQ(host.get(c.id), before) << int(c.id);
        }
    }
    EXPECT_EQ(host.number(12), 15u);
    EXPECT_EQ(host.number(13), 500u);
    EXPECT_TRUE(host.write(0xC0, 0, {0, 0, 0, 0})); // reset of the board: as at the start
    EXPECT_EQ(host.number(12), 30u);

    bytes_t item(40, 0); // two at once
    item[0] = 12, item[20] = 1;
    ASSERT_TRUE(host.read(0xC0, 4, &item));
    EXPECT_EQ(item[2], 30);
    EXPECT_EQ(item[21], 4);
    for (const size_t len : {size_t{0}, size_t{19}, size_t{60}})
        EXPECT_FALSE(host.write(0xC0, 3, bytes_t(len, 12)));
    EXPECT_FALSE(host.write(0xC5, 9, {1}));
    EXPECT_EQ(host.message, "unknown command");
}

TEST(VirtualCamera, KeepsRegisters)
{
    host_t host(config("E5"));
    EXPECT_TRUE(host.write(0xC2, 0, {1, 0x8B, 0, 0, 0, 8, 0, 1, 2, 3, 4, 5, 6, 7, 8}));
    const auto read_two = [&host](uint8_t type, uint8_t addr) { // the answer is longer than the request
        bytes_t data(8, 0xEE);
        return host.write(0xC2, 1, {type, addr, 0, 0, 0, 8, 0}) &&
                       host.control(0xA2, 0xC2, 1, &data).actual == 8
                   ? data
                   : bytes_t();
    };
    EXPECT_EQ(read_two(1, 0x8B), (bytes_t{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(read_two(1, 0x8C), (bytes_t{5, 6, 7, 8, 0, 0, 0, 0}));
    EXPECT_EQ(read_two(2, 0x8B), bytes_t(8, 0)); // registers of another kind
    EXPECT_TRUE(host.write(0xC2, 0, {1, 17, 0, 0, 0, 4, 0, 250, 0, 0, 0}));
    EXPECT_EQ(read_two(1, 18)[0], 4); // this chip's variant
    EXPECT_FALSE(host.write(0xC2, 0, {1, 0xFF, 0xFF, 0, 0, 8, 0, 1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_FALSE(host.write(0xC2, 0, {1, 0, 0, 0, 0, 8, 0, 1, 2, 3, 4}));
    EXPECT_FALSE(host.write(0xC2, 1, {1, 0, 0}));
}

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

        ASSERT_TRUE(host.set(12, {10, 0, 0, 0}));
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
    vcam_cfg_t cfg = config("E1");
    add_fault(&cfg, "pause,first=6,value=500"); // in the second frame: due ones are skipped meanwhile
    host_t host(cfg);
    ASSERT_TRUE(host.write(0xC2, 4, {0, 0, 0, 0}));
    const playback_t p = play(&host, 1000000);
    EXPECT_EQ(p.state.discarded, 0u);
    EXPECT_NEAR(static_cast<double>(p.frames.size()), 16, 2);
    EXPECT_NEAR(static_cast<double>(vcam_stats(host.cam).frames_skipped), 15, 2);
}

TEST(VirtualCamera, CommandFaultsReachTheHost)
{
    const struct {
        const char *fault;
        vcam_result_t result;
        uint32_t actual;
        bool confirmed;
    } cases[] = {
        {"stall-cmd", VCAM_STALL, 0, false},       {"hang-cmd", VCAM_HANG, 0, false},
        {"short-cmd", VCAM_OK, 19, true},          {"unplug-cmd", VCAM_GONE, 0, false},
        {"fail-cmd", VCAM_OK, 20, false},          {"busy,value=7", VCAM_OK, 20, true},
        {"other-status", VCAM_OK, 20, false},      {"slow-cmd,value=3", VCAM_OK, 20, true},
        {"fail-cmd,on=0xC204", VCAM_OK, 20, true}, // another command's
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fault);
        vcam_cfg_t cfg = config("E1");
        add_fault(&cfg, c.fault);
        host_t host(cfg);
        bytes_t item(20, 0);
        item[0] = 12, item[1] = 1, item[2] = 5;
        const vcam_reply_t r = host.control(0x22, 0xC0, 3, &item);
        EXPECT_EQ(r.result, c.result);
        EXPECT_EQ(r.actual, c.actual);
        EXPECT_EQ(r.delay_us, std::string(c.fault) == "slow-cmd,value=3" ? 3000u : 0u);
        EXPECT_EQ(host.confirmed(0xC0, 3), c.confirmed);
        EXPECT_EQ(host.busy, std::string(c.fault) == "busy,value=7" ? 7u : 0u);
        if (c.result != VCAM_GONE) { // once is enough
            EXPECT_TRUE(host.set(12, {6}));
        }
    }
}

TEST(VirtualCamera, FaultsAreReadFromWords)
{
    for (const char *text : {"no-such", "pause,", "pause,value", "pause,value=", "pause,value=1x",
                             "pause,often=2", "pause,value=-1", "pause,value=99999999999"}) {
        vcam_faults_t faults = {};
        std::string error;
        const bool trailing = std::string(text) == "pause,"; // nothing behind the comma is nothing wrong
        EXPECT_EQ(vcam_fault_parse(&faults, text, &error), trailing) << text;
        EXPECT_EQ(error.empty(), trailing);
    }
    vcam_faults_t faults = {};
    std::string error, fired;
    ASSERT_TRUE(vcam_fault_parse(&faults, "busy,first=2,every=3,times=2", &error));
    for (int i = 0; i < 12; i++)
        fired += vcam_fault_fires(&faults, VCAM_BUSY) ? 'x' : '.';
    EXPECT_EQ(fired, ".x..x.......");
}

TEST(VirtualCamera, SendsItsCalibrationInSlices)
{
    vcam_cfg_t cfg = config("E1");
    bytes_t file(200000);
    for (size_t i = 0; i < file.size(); i++)
        file[i] = static_cast<uint8_t>(i * 7 >> 3);
    cfg.pack = vcam_pack_of_file(sim_identity(cfg.sim), file);
    ASSERT_EQ(cfg.pack.size(), 2u * 153600);
    host_t host(cfg);
    EXPECT_EQ(host.get(8), bytes_t(cfg.pack.begin(), cfg.pack.begin() + 18));
    EXPECT_GE(host.get(6)[2], 133); // firmware that has the upload
    ASSERT_TRUE(host.set(0, {9}));
    ASSERT_TRUE(host.write(0xC2, 4, {0, 0, 0, 0}));
    const playback_t p = play(&host, 1000000);
    ASSERT_EQ(p.frames.size(), 2u);
    EXPECT_EQ(p.frames[0].frame_fmt, 171);
    EXPECT_EQ(p.frames[1].frame_idx, 1);
    EXPECT_EQ(p.last, bytes_t(cfg.pack.begin() + 153600, cfg.pack.end()));
    EXPECT_EQ(bytes_t(cfg.pack.begin() + 18, cfg.pack.begin() + 18 + 200000), file);
    ASSERT_TRUE(host.set(0, {0}));
    ASSERT_TRUE(host.write(0xC2, 4, {0, 0, 0, 0}));
    EXPECT_EQ(play(&host, 100000).frames.at(0).frame_fmt, 2);
}

namespace {

// Writes an image as a host does. Returns how often packets had to be sent again, or -1.
int write_image(host_t *host, uint8_t type, const bytes_t &image, uint32_t *polls)
{
    const uint8_t n[4] = {static_cast<uint8_t>(image.size()), static_cast<uint8_t>(image.size() >> 8),
                          static_cast<uint8_t>(image.size() >> 16), 0};
    bytes_t info(16, 0), ack(13, 0);
    info[0] = type;
    if (!host->read(0xCC, 0, &info) ||
        !host->write(0xCC, 1, {type, 0, 44, 1, n[0], n[1], n[2], n[3], 0, 0, 0, 0}) ||
        !host->read(0xCC, 4, &ack) || ack[4] != 3 ||
        !host->write(0xCC, 7, {type, n[0], n[1], n[2], n[3], 0xFA, 0xFF, 0, 0, 0, 0, 0, 0}))
        return -1;
    for (*polls = 0; *polls < 1000; ++*polls)
        if (!host->read(0xCC, 4, &ack) || ack[4] != 4)
            break;
    int again = 0;
    for (uint32_t index = 0; index * size_t{65530} < image.size();) {
        const size_t at = index * size_t{65530}, len = std::min<size_t>(65530, image.size() - at);
        const uint16_t crc = vcam_crc16(&image[at], len);
        bytes_t packet = {static_cast<uint8_t>(crc),
                          static_cast<uint8_t>(crc >> 8),
                          static_cast<uint8_t>(len),
                          static_cast<uint8_t>(len >> 8),
                          0,
                          0};
        packet.insert(packet.end(), image.begin() + static_cast<long>(at),
                      image.begin() + static_cast<long>(at + len));
        // in two parts, as a kernel may cut it
        vcam_bulk_out(host->cam, packet.data(), 3, 0);
        vcam_bulk_out(host->cam, packet.data() + 3, static_cast<uint32_t>(packet.size() - 3), 0);
        if (!host->read(0xCC, 4, &ack) || ack[4] != 1)
            return -1;
        if (ack[0] == index && (!host->read(0xCC, 4, &ack) || ack[0] == index)) {
            if (++again > 5)
                return -1;
            continue;
        }
        index++;
    }
    return again;
}

} // namespace

TEST(VirtualCamera, TakesImagesIntoItsMemory)
{
    EXPECT_EQ(vcam_crc16(reinterpret_cast<const uint8_t *>("123456789"), 9), 0x31C3); // the CRC's check value
    bytes_t image(150000);
    for (size_t i = 0; i < image.size(); i++)
        image[i] = static_cast<uint8_t>(sim_mix64(i));
    uint32_t polls;
    vcam_cfg_t cfg = config("E1");
    add_fault(&cfg, "repeat-ack,first=5");
    {
        host_t host(cfg);
        EXPECT_EQ(write_image(&host, VCAM_FLASH_FIRMWARE, image, &polls), 0);
        EXPECT_EQ(polls, 2u);
        EXPECT_EQ(vcam_image(host.cam, VCAM_FLASH_FIRMWARE), image);
        EXPECT_TRUE(host.write(0xC0, 0, {0, 0, 0, 0}));
        EXPECT_EQ(host.get(6)[2] | host.get(6)[3] << 8, 300); // it runs from now on

        image[0] = 1;
        EXPECT_EQ(write_image(&host, VCAM_FLASH_CALIB, image, &polls), 0);
        EXPECT_EQ(host.get(8), bytes_t(image.begin(), image.begin() + 18));
    }
    add_fault(&cfg, "erase-polls,value=9");
    add_fault(&cfg, "lose-out,first=4"); // half of the second packet
    host_t host(cfg);
    EXPECT_EQ(write_image(&host, 2, image, &polls), 1);
    EXPECT_EQ(polls, 9u);
    EXPECT_EQ(vcam_image(host.cam, 2), image);
    const struct {
        uint8_t action;
        bytes_t data;
    } refused[] = {{1, {2, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
                   {1, {2, 0, 1}},
                   {3, {1}},
                   {7, {}},
                   {1, {2, 0, 1, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}}};
    for (const auto &r : refused)
        EXPECT_FALSE(host.write(0xCC, r.action, r.data));
}

TEST(VirtualCamera, ResetOfTheInterfaceLeavesTheBus)
{
    host_t host(config("E1"));
    ASSERT_TRUE(host.set(12, {7}));
    bytes_t target = {3, 0, 0, 0};
    EXPECT_EQ(host.control(0x22, 0xC0, 0, &target).result, VCAM_OK);
    EXPECT_EQ(vcam_plug_state(host.cam), VCAM_RESETTING);
    EXPECT_EQ(host.control(0x22, 0xC0, 0, &target).result, VCAM_GONE);
    vcam_plug_in(host.cam);
    EXPECT_EQ(host.number(12), 30u);
}

TEST(VirtualCamera, PlaysRecordingsOverAndOver)
{
    TempDir dir;
    const sim_config_t sim = sim_config_default(sim_camera_find("E5"));
    sim_recorder_t rec;
    std::string error;
    ASSERT_TRUE(sim_recorder_open(&rec, "a.oni", nullptr, sim, "c.bin", {1, 2, 3}, &error));
    const auto live = sim_source_live(sim);
    std::vector<bytes_t> frames;
    sim_frame_t f;
    for (int i = 0; i < 3; i++) {
        live->next(live->self, &f);
        frames.emplace_back(f.data.begin(), f.data.end());
        sim_recorder_add(&rec, f);
    }
    sim_recorder_close(&rec);

    sim_recording_t recording;
    const auto source = sim_source_ahead(sim_source_recording("a.oni", &recording, &error), 2);
    EXPECT_STREQ(recording.cfg.camera->name, "E5");
    EXPECT_EQ(recording.calib, (bytes_t{1, 2, 3}));
    EXPECT_EQ(recording.cfg.intg_us, sim.intg_us);
    for (size_t i = 0; i < 8; i++) {
        ASSERT_TRUE(source->next(source->self, &f));
        EXPECT_EQ(f.index, i);
        EXPECT_TRUE(std::equal(f.data.begin(), f.data.end(), frames[i % 3].begin(), frames[i % 3].end()))
            << i;
        EXPECT_EQ(f.width, 160u);
    }
    EXPECT_EQ(sim_source_recording("missing.oni", &recording, &error), nullptr);
    EXPECT_NE(error.find("missing.oni"), std::string::npos);
}
