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

TEST(UsbipServer, EnumeratesAsTheCamera)
{
    for (const usb_speed_t speed : {USB_SPEED_LOW, USB_SPEED_FULL, USB_SPEED_HIGH, USB_SPEED_SUPER}) {
        rig_t rig({}, speed);
        const answer_t dev = rig.kernel.control(0x80, 6, 0x0100, 64);
        ASSERT_EQ(dev.data.size(), 18u);
        EXPECT_EQ(dev.data[8] | dev.data[9] << 8, 0x111B);
        EXPECT_EQ(dev.data[10] | dev.data[11] << 8, 0x1238);
        const bytes_t cfg = rig.kernel.control(0x80, 6, 0x0200, 255).data;
        ASSERT_EQ(cfg.size(), static_cast<size_t>(cfg[2] | cfg[3] << 8));
        EXPECT_EQ(cfg[4], 1); // interfaces
        std::vector<int> endpoints;
        for (size_t at = 0; at < cfg.size(); at += cfg[at]) {
            ASSERT_GT(cfg[at], 0);
            if (cfg[at + 1] == 5)
                endpoints.push_back(cfg[at + 2]);
        }
        EXPECT_EQ(endpoints, (std::vector<int>{0x81, 0x01}));
        const bytes_t product = rig.kernel.control(0x80, 6, 0x0302, 255).data;
        EXPECT_EQ(product.size(), 2 + 2 * strlen("TQSIM-E1-320X240"));
        EXPECT_EQ(product[2], 'T');
        EXPECT_EQ(rig.kernel.control(0x80, 6, 0x0200, 9).data.size(), 9u); // as much as asked
        EXPECT_EQ(rig.kernel.control(0x80, 6, 0x0F00, 5).status, speed == USB_SPEED_SUPER ? 0 : -EPIPE);
        EXPECT_EQ(rig.kernel.control(0x00, 9, 1, 0).status, 0);
        EXPECT_EQ(rig.kernel.control(0x80, 8, 0, 1).data, bytes_t{1});
        EXPECT_EQ(rig.kernel.control(0x80, 6, 0x2200, 9).status, -EPIPE);
    }
}

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

TEST(UsbipServer, CancelsGiveTheBytesThatCame)
{
    rig_t rig({"pause,value=60000"});
    rig.kernel.control(0x22, 0xC2, 4, 4, {0, 0, 0, 0});
    const uint32_t urb = rig.kernel.submit(true, 1, 153600);
    usleep(50000);
    rig.kernel.unlink(urb);
    answer_t a;
    ASSERT_TRUE(rig.kernel.take(&a));
    EXPECT_EQ(a.seqnum, urb);
    EXPECT_EQ(a.status, -ECONNRESET);
    EXPECT_EQ(a.actual, 153600u / 2);
    ASSERT_TRUE(rig.kernel.take(&a));
    EXPECT_EQ(a.command, 4u);
    EXPECT_EQ(a.status, 0);
}

TEST(UsbipServer, FaultsReachTheKernel)
{
    {
        rig_t rig({"stall-in", "hang-cmd,first=2", "short-in", "slow-cmd,first=2,value=50"});
        const bytes_t start = {0, 0, 0, 0};
        rig.kernel.control(0x22, 0xC2, 4, 4, start);
        answer_t a;
        const uint32_t first = rig.kernel.submit(true, 1, 4096),
                       second = rig.kernel.submit(true, 1, 4096, bytes_t(8, 0), {}, 1);
        ASSERT_TRUE(rig.kernel.take(&a));
        EXPECT_EQ(a.seqnum, first);
        EXPECT_EQ(a.status, -EPIPE);
        rig.kernel.control(0x02, 1, 0, 0, {}, 0x81); // the halt is cleared; the other transfer goes on
        ASSERT_TRUE(rig.kernel.take(&a));
        EXPECT_EQ(a.seqnum, second);
        EXPECT_EQ(a.actual, 1000u);
        EXPECT_EQ(a.status, -EREMOTEIO); // as its flag asks for short transfers
        const uint32_t hung = rig.kernel.submit(false, 0, 4, {0x22, 0xC2, 4, 0, 0, 0, 4, 0}, start);
        rig.kernel.unlink(hung);
        ASSERT_TRUE(rig.kernel.take(&a));
        EXPECT_EQ(a.command, 4u);
        EXPECT_EQ(a.status, -ECONNRESET);
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(rig.kernel.control(0x22, 0xC2, 5, 1, {0xC2}).status, 0);
        EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(49));
        EXPECT_EQ(rig.kernel.control(0xA2, 0xB0, 0, 60).data[2], 5);
    }
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
    {
        rig_t rig; // lengths of wire and request that differ
        const answer_t a = [&rig] {
            rig.kernel.submit(true, 0, 4, {0xA2, 0xB0, 0, 0, 0, 0, 60, 0});
            answer_t got;
            rig.kernel.take(&got);
            return got;
        }();
        EXPECT_EQ(a.actual, 4u);
        rig.kernel.submit(false, 0, 2, {0x22, 0xC0, 3, 0, 0, 0, 20, 0}, {1, 4});
        answer_t b;
        ASSERT_TRUE(rig.kernel.take(&b));
        EXPECT_EQ(b.actual, 2u);
        const answer_t c = rig.kernel.control(0x80, 9, 1, 0);
        EXPECT_EQ(c.status, 0);
        shutdown(rig.kernel.fd, SHUT_RDWR);
        EXPECT_EQ(rig.finish(), USBIP_CLOSED);
    }
}

TEST(UsbipServer, OneKernelAtATimeImportsIt)
{
    rig_t rig; // for its camera; the session of the pair ends first
    shutdown(rig.kernel.fd, SHUT_RDWR);
    rig.finish();
    std::string error;
    const int listener = usbip_listen("127.0.0.1", 0, &error);
    ASSERT_GE(listener, 0) << error;
    sockaddr_in addr = {};
    socklen_t len = sizeof addr;
    getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &len);
    std::thread serving([&] { usbip_serve(&rig.server, listener); });
    const auto ask = [&addr](uint16_t code, const char *bus_id) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        bytes_t request = {1, 0x11, static_cast<uint8_t>(code >> 8), static_cast<uint8_t>(code), 0, 0, 0, 0};
        if (bus_id != nullptr) {
            request.resize(40, 0);
            strcpy(reinterpret_cast<char *>(&request[8]), bus_id);
        }
        send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        return fd;
    };
    const auto receive = [](int fd, size_t n) {
        bytes_t b(n, 0xEE);
        b.resize(static_cast<size_t>(std::max<ssize_t>(0, recv(fd, b.data(), n, MSG_WAITALL))));
        return b;
    };
    int fd = ask(0x8005, nullptr);
    const bytes_t list = receive(fd, 12 + 312 + 4 + 1); // and no more
    ASSERT_EQ(list.size(), 12u + 312 + 4);
    EXPECT_EQ(word(list, 0), 0x01110005u);
    EXPECT_EQ(word(list, 8), 1u);
    EXPECT_STREQ(reinterpret_cast<const char *>(&list[12 + 256]), "1-1");
    EXPECT_EQ(word(list, 12 + 296), 3u); // high speed
    EXPECT_EQ(word(list, 12 + 300), 0x111B1238u);
    close(fd);

    const int importer = ask(0x8003, "1-1");
    const bytes_t import = receive(importer, 8 + 312);
    ASSERT_EQ(import.size(), 8u + 312);
    EXPECT_EQ(word(import, 4), 0u);
    kernel_t kernel = {importer, 0, {}};
    EXPECT_EQ(kernel.control(0x80, 6, 0x0100, 18).data.size(), 18u);
    fd = ask(0x8003, "1-1"); // taken
    EXPECT_EQ(word(receive(fd, 8), 4), 1u);
    close(fd);
    fd = ask(0x8003, "9-9");
    EXPECT_EQ(word(receive(fd, 8), 4), 1u);
    close(fd);
    fd = ask(0x8005, nullptr);
    EXPECT_EQ(word(receive(fd, 12), 8), 0u);
    close(fd);
    close(importer);
    for (int tries = 0; rig.server.in_use.load() && tries < 200; tries++)
        usleep(10000);
    fd = ask(0x8003, "1-1"); // free again
    EXPECT_EQ(word(receive(fd, 8), 4), 0u);
    rig.server.stop = true;
    serving.join();
    close(fd);
    close(listener);
}

TEST(UsbipServer, FindsAFreePortOfTheRightHub)
{
    const std::string status = "hub port sta spd dev      sockfd local_busid\n"
                               "hs  0000 006 003 00010002 000003 1-1\n"
                               "hs  0001 004 000 00000000 000000 0-0\n"
                               "hs  0002 004 000 00000000 000000 0-0\n"
                               "ss  0008 004 000 00000000 000000 0-0\n";
    EXPECT_EQ(usbip_free_port(status, USB_SPEED_HIGH, -1), 1);
    EXPECT_EQ(usbip_free_port(status, USB_SPEED_LOW, 2), 2);
    EXPECT_EQ(usbip_free_port(status, USB_SPEED_HIGH, 0), -1);
    EXPECT_EQ(usbip_free_port(status, USB_SPEED_SUPER, -1), 8);
    EXPECT_EQ(usbip_free_port("", USB_SPEED_HIGH, -1), -1);
}
