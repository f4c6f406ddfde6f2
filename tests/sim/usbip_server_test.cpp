// The USB/IP server, asked as a kernel asks it, over a socket pair and over TCP.
#include "usbip_server.h"

#include "frame_source_more.h"
#include "tq_stream.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

typedef std::vector<uint8_t> bytes_t;

// A word of USB/IP, most significant byte first.
uint32_t word(const bytes_t &b, size_t at)
{
    return static_cast<uint32_t>(b[at]) << 24 | b[at + 1] << 16 | b[at + 2] << 8 | b[at + 3];
}

struct answer_t {
    uint32_t command = 0, seqnum = 0;
    int status = 0;
    uint32_t actual = 0;
    bytes_t data;
};

struct kernel_t {
    int fd;
    uint32_t seqnum = 0;
    std::map<uint32_t, bool> in; // of the URBs under way: the answer carries data

    uint32_t send_head(uint32_t command, bool is_in, uint32_t ep, std::vector<uint32_t> words,
                       const bytes_t &tail)
    {
        words.insert(words.begin(), {command, ++seqnum, 0x10002, is_in ? 1u : 0u, ep});
        bytes_t b;
        for (const uint32_t w : words)
            for (int shift = 24; shift >= 0; shift -= 8)
                b.push_back(static_cast<uint8_t>(w >> shift));
        b.insert(b.end(), tail.begin(), tail.end());
        in[seqnum] = is_in;
        send(fd, b.data(), b.size(), MSG_NOSIGNAL); // fails once the camera is pulled out
        return seqnum;
    }
    uint32_t submit(bool is_in, uint32_t ep, uint32_t len, const bytes_t &setup = bytes_t(8, 0),
                    const bytes_t &out = {}, uint32_t flags = 0)
    {
        bytes_t tail = setup;
        tail.insert(tail.end(), out.begin(), out.end());
        return send_head(1, is_in, ep, {flags, len, 0, 0, 0}, tail);
    }
    uint32_t unlink(uint32_t target) { return send_head(2, false, 0, {target, 0, 0, 0, 0, 0, 0}, {}); }

    bool take(answer_t *a)
    {
        bytes_t head(48);
        if (recv(fd, head.data(), 48, MSG_WAITALL) != 48)
            return false;
        *a = {word(head, 0), word(head, 4), static_cast<int>(word(head, 20)), word(head, 24), {}};
        if (a->command == 3 && in[a->seqnum]) {
            a->data.resize(a->actual);
            return a->actual == 0 || recv(fd, a->data.data(), a->actual, MSG_WAITALL) == a->actual;
        }
        return true;
    }
    answer_t control(uint8_t request, uint8_t type, uint16_t value, uint16_t len, const bytes_t &out = {},
                     uint16_t index = 0)
    {
        submit((request & 0x80) != 0, 0, len,
               {request, type, static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                static_cast<uint8_t>(index), static_cast<uint8_t>(index >> 8), static_cast<uint8_t>(len),
                static_cast<uint8_t>(len >> 8)},
               out);
        answer_t a;
        EXPECT_TRUE(take(&a));
        EXPECT_EQ(a.seqnum, seqnum);
        return a;
    }
};

// A camera behind one end of a socket pair.
struct rig_t {
    usbip_server_t server = {};
    kernel_t kernel;
    std::thread thread;
    usbip_end_t end = USBIP_STOPPED;
    int pair[2];

    explicit rig_t(const std::vector<std::string> &faults = {}, usb_speed_t speed = USB_SPEED_HIGH)
    {
        sim_config_t sim = sim_config_default(sim_camera_find("E1"));
        vcam_cfg_t cfg = vcam_config_default(sim);
        std::string error;
        for (const std::string &fault : faults)
            EXPECT_TRUE(vcam_fault_parse(&cfg.faults, fault, &error)) << error;
        server.cam = vcam_create(cfg, sim_source_loop(sim_source_live(sim), sim, 2));
        server.usb = {speed, false, {"TQSIM", "TQSIM-E1-320X240", "12"}, 0};
        server.speed_after_reset = USB_SPEED_HIGH;
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        kernel.fd = pair[0];
        const timeval wait = {10, 0}; // no test waits longer for an answer
        setsockopt(pair[0], SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        thread = std::thread([this] {
            end = usbip_session(&server, pair[1]);
            shutdown(pair[1], SHUT_RDWR);
        });
    }
    usbip_end_t finish()
    {
        if (thread.joinable())
            thread.join();
        return end;
    }
    ~rig_t()
    {
        server.stop = true;
        finish();
        close(pair[0]);
        close(pair[1]);
        vcam_destroy(server.cam);
    }
};

} // namespace

TEST(UsbipServer, CarriesCommandsAndTheStream)
{
    rig_t rig;
    bytes_t item(20, 0);
    item[0] = 3;
    EXPECT_EQ(rig.kernel.control(0x22, 0xC0, 4, 20, item).actual, 20u);
    EXPECT_EQ(rig.kernel.control(0xA2, 0xB0, 0, 60).data[1], 0xC0);
    const bytes_t product = rig.kernel.control(0xA2, 0xC0, 4, 20).data;
    EXPECT_EQ(std::string(product.begin() + 2, product.begin() + 18), "TQSIM-E1-320X240");

    const tq_stream_cfg_t limit = {10};
    const std::unique_ptr<tq_stream_t, void (*)(tq_stream_t *)> stream(tq_stream_create(&limit),
                                                                       tq_stream_destroy);
    for (int i = 0; i < 16; i++)
        rig.kernel.submit(true, 1, 153600);
    rig.kernel.control(0x22, 0xC2, 4, 4, {0, 0, 0, 0});
    for (tq_stream_state_t state = {}; state.total < 6; tq_stream_get_state(stream.get(), &state)) {
        answer_t a;
        ASSERT_TRUE(rig.kernel.take(&a));
        EXPECT_EQ(a.status, 0);
        tq_stream_feed_input(stream.get(), a.data.data(), static_cast<int32_t>(a.data.size()));
        EXPECT_EQ(state.discarded, 0u);
        EXPECT_EQ(state.discard_bytes, 0u);
        rig.kernel.submit(true, 1, 153600);
    }
    // Stop, then take the ring back: each URB ends once, answered or unlinked.
    std::set<uint32_t> ring; // the 16 youngest transfers; older ones were answered
    const uint32_t last = rig.kernel.seqnum;
    const uint32_t stop = rig.kernel.submit(false, 0, 1, {0x22, 0xC2, 5, 0, 0, 0, 1, 0}, {0xC2});
    for (uint32_t seqnum = last - 15; seqnum <= last; seqnum++) {
        ring.insert(seqnum);
        rig.kernel.unlink(seqnum);
    }
    bool stopped = false;
    size_t unlinked = 0;
    for (uint32_t asked = 0; asked < 16;) {
        answer_t a;
        ASSERT_TRUE(rig.kernel.take(&a));
        stopped = stopped || a.seqnum == stop;
        if (a.command == 4) {
            asked++;
            unlinked += a.status == -ECONNRESET;
        } else if (a.seqnum != stop) {
            EXPECT_EQ(ring.erase(a.seqnum), 1u) << a.seqnum;
        }
    }
    EXPECT_TRUE(stopped);
    EXPECT_EQ(unlinked, ring.size());
    rig.kernel.unlink(rig.kernel.submit(true, 1, 4096)); // nothing comes any more
    answer_t a;
    ASSERT_TRUE(rig.kernel.take(&a));
    EXPECT_EQ(a.command, 4u);
    EXPECT_EQ(a.status, -ECONNRESET);
}

TEST(UsbipServer, AnUnpluggedCameraEndsTheSession)
{
    for (const char *fault : {"unplug-cmd", "unplug-in", "unplug-out"}) {
        rig_t rig({fault});
        rig.kernel.submit(true, 1, 4096);
        rig.kernel.submit(false, 1, 8, bytes_t(8, 0), bytes_t(8, 1));
        rig.kernel.submit(false, 0, 4, {0x22, 0xC2, 4, 0, 0, 0, 4, 0}, {0, 0, 0, 0});
        EXPECT_EQ(rig.finish(), USBIP_GONE) << fault;
    }
    rig_t rig;
    rig.kernel.submit(false, 0, 4, {0x22, 0xC0, 0, 0, 0, 0, 4, 0}, {3, 0, 0, 0});
    EXPECT_EQ(rig.finish(), USBIP_GONE);
    EXPECT_EQ(vcam_plug_state(rig.server.cam), VCAM_RESETTING);
}

TEST(UsbipServer, EndsOnWhatMakesNoSense)
{
    const std::vector<uint32_t> heads[] = {
        {9, 1, 0x10002, 0, 0, 0, 0, 0, 0, 0, 0, 0},          // no such command
        {1, 1, 0x10002, 0, 1, 0, 0xFFFFFFFF, 0, 0, 0, 0, 0}, // length
        {1, 1, 0x10002, 2, 1, 0, 4, 0, 0, 0, 0, 0},          // direction
        {1, 1, 0x10002, 1, 99, 0, 4, 0, 0, 0, 0, 0},         // endpoint
        {1, 1, 0x10002, 1, 1, 0, 4, 0, 7, 0, 0, 0},          // isochronous
    };
    for (const auto &head : heads) {
        rig_t rig;
        uint32_t wire[12];
        for (int i = 0; i < 12; i++)
            wire[i] = htonl(head[static_cast<size_t>(i)]);
        send(rig.kernel.fd, wire, sizeof wire, MSG_NOSIGNAL);
        EXPECT_EQ(rig.finish(), USBIP_BROKEN);
    }
}
