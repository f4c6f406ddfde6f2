// The USB link against a scripted peer: listing, opening, commands, the ring, and the ways a device fails.
#include <algorithm>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

#include "link/usb_link.h"
#include "scripted_peer.h"
#include "support/log_capture.h"

namespace {

using clock_type = std::chrono::steady_clock;

int64_t ms_since(clock_type::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - start).count();
}

template <typename F> bool eventually(F condition)
{
    bool held = condition();
    for (int i = 0; i < 2000 && !held; held = condition(), i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return held;
}

struct Sink {
    std::mutex mutex;
    std::vector<int> codes;
    std::vector<uint8_t> bytes;

    static void take(tqcam_ll_dev_t *, int32_t code, const void *data, uint32_t len, void *arg)
    {
        auto *sink = static_cast<Sink *>(arg);
        std::lock_guard<std::mutex> guard(sink->mutex);
        sink->codes.push_back(code);
        sink->bytes.insert(sink->bytes.end(), static_cast<const uint8_t *>(data),
                           static_cast<const uint8_t *>(data) + len);
    }
    size_t count(int code)
    {
        std::lock_guard<std::mutex> guard(mutex);
        return static_cast<size_t>(std::count(codes.begin(), codes.end(), code));
    }
};

struct UsbLink : ::testing::Test {
    LogCapture log;
    Sink sink; // outlives the close in TearDown
    tqcam_ll_dev_t dev = {};

    void SetUp() override
    {
        peer_reset();
        fake_string = [](uint8_t index, unsigned char *data, int length) {
            const std::string text = index == 1 ? "a vendor with a long name" : "X-E1-Y";
            return static_cast<int>(text.copy(reinterpret_cast<char *>(data), static_cast<size_t>(length)));
        };
    }
    void open()
    {
        dev = {};
        dev.address.if_type = TQCAM_IF_ANY;
        ASSERT_EQ(usb_ll_ops.dev_open(&dev), &dev);
    }
    void start()
    {
        expect_write(0xC2, 4, {0, 0, 0, 0});
        ASSERT_TRUE(usb_ll_ops.cap_start(&dev, 0, Sink::take, &sink));
        EXPECT_EQ(peer_waiting(), 16u);
    }
    void TearDown() override
    {
        if (dev.priv)
            usb_ll_ops.dev_close(&dev);
        EXPECT_TRUE(peer.script.empty()) << "the link did not say all that was expected";
        EXPECT_EQ(fake_contexts + fake_handles + fake_transfers, 0);
        EXPECT_EQ(fake_transfers_too_long, 0) << "a transfer outlived its context";
    }
};

TEST_F(UsbLink, ListsCamerasThatCanBeOpened)
{
    libusb_device stranger, two_in, busy, second;
    stranger.product = 0x9999;
    two_in.interfaces = {{0x81, 0x82}};
    busy.open_error = LIBUSB_ERROR_ACCESS;
    second.interfaces = {{0x81, 0x82}, {0x03, 0x84}};
    second.addr = 9;
    fake_devices = {stranger, two_in, busy, libusb_device(), second};
    tqcam_ll_dev_t list[4];
    ASSERT_EQ(usb_ll_ops.dev_list(list, 4), 2);
    EXPECT_STREQ(list[0].address.usb.product, "X-E1-Y");
    EXPECT_STREQ(list[0].address.usb.vendor, "a vendor with a"); // 15 characters and the NUL
    EXPECT_EQ(list[1].address.usb.addr, 9);
    EXPECT_TRUE(log.has("[_parse_usb_dev_desc] skip interface with two endpoints of the same direction"));
    EXPECT_EQ(usb_ll_ops.dev_list(list, 1), 1);
}

TEST_F(UsbLink, OpensTheWantedAddressOnly)
{
    libusb_device other;
    other.port = 7;
    other.addr = 8;
    other.interfaces = {{0x03, 0x84}};
    fake_devices.push_back(other);
    dev.inited = 1;
    dev.address.usb.bus = 1;
    dev.address.usb.port = 7;
    dev.address.usb.addr = 3; // the address of the first device, not of the one at port 7
    EXPECT_EQ(usb_ll_ops.dev_open(&dev), nullptr);
    EXPECT_EQ(dev.priv, nullptr);
    dev.address.usb.addr = 255;
    ASSERT_EQ(usb_ll_ops.dev_open(&dev), &dev);
    EXPECT_EQ(usb_priv(&dev)->ep_din, 0x84);
    EXPECT_EQ(usb_priv(&dev)->ep_dout, 0x03);
    // Another program has it: nothing is left over.
    usb_ll_ops.dev_close(&dev);
    fake_devices[1].claim_error = LIBUSB_ERROR_BUSY;
    EXPECT_EQ(usb_ll_ops.dev_open(&dev), nullptr);
    EXPECT_TRUE(log.has("[_usb_ll_dev_open]libusb_claim_interface 0 failed: E-6"));
}

TEST_F(UsbLink, ParametersGoTwoACommand)
{
    open();
    tqcam_ll_param_t items[5] = {};
    for (uint8_t i = 0; i < 5; i++)
        items[i] = {static_cast<uint8_t>(10 + i), 4, {i}};
    const auto *p = reinterpret_cast<uint8_t *>(items);
    expect_write(0xC0, 3, {p, p + 40});
    expect_write(0xC0, 3, {p + 40, p + 80});
    expect_write(0xC0, 3, {p + 80, p + 100});
    EXPECT_TRUE(usb_ll_ops.param_set(&dev, items, 5));
    // The second command fails: the third is never sent.
    expect_write(0xC0, 3, {p, p + 40});
    expect_write(0xC0, 3, {p + 40, p + 80}, 0xFF);
    EXPECT_FALSE(usb_ll_ops.param_set(&dev, items, 5));

    // Value and length are cleared before they travel, and an answer is held to its size. A short one fails.
    std::vector<uint8_t> asked(20, 0), reply(20, 7);
    asked[0] = 10;
    reply[1] = 200;
    expect_write(0xC0, 4, asked);
    expect_read(0xC0, 4, reply);
    ASSERT_TRUE(usb_ll_ops.param_get(&dev, items, 1));
    EXPECT_EQ(items[0].len, 18);
    EXPECT_EQ(items[0].value[17], 7);
    asked[0] = 7;
    expect_write(0xC0, 4, asked);
    peer.script.push_back({.out = false, .type = 0xC0, .value = 4, .data = {reply.begin(), reply.end() - 1}});
    EXPECT_FALSE(usb_ll_ops.param_get(&dev, items, 1));
    EXPECT_TRUE(log.has("[usb_ll_param_get]read phase failed"));
}

TEST_F(UsbLink, RegistersGoFourteenACommand)
{
    open();
    uint32_t values[15] = {};
    expect_write(0xC2, 1, {1, 100, 0, 0, 0, 56, 0});
    expect_read(0xC2, 1, std::vector<uint8_t>(56, 0x11));
    expect_write(0xC2, 1, {1, 114, 0, 0, 0, 4, 0});
    expect_read(0xC2, 1, {1, 2, 3, 4});
    ASSERT_TRUE(usb_ll_ops.reg_read(&dev, 1, 100, values, 15));
    EXPECT_EQ(values[13], 0x11111111u);
    EXPECT_EQ(values[14], 0x04030201u);
    expect_write(0xC2, 0, {2, 5, 0, 0, 0, 4, 0, 9, 0, 0, 0});
    const uint32_t nine = 9;
    EXPECT_TRUE(usb_ll_ops.reg_write(&dev, 2, 5, &nine, 1));
}

TEST_F(UsbLink, StatusSaysBusyFailedOrAnotherCommand)
{
    open();
    peer.script.push_back({.type = 0xC0});
    for (int i = 0; i < 5; i++)
        expect_status(0xC0, 0, 0xFE);
    expect_status(0xC0, 0, 1);
    EXPECT_TRUE(usb_ll_ops.dev_reset(&dev, 1));

    peer.script.push_back({.type = 0xC0});
    expect_status(0xC0, 0, 0xFF, std::string(57, 'x')); // a message that fills its field has no NUL
    EXPECT_FALSE(usb_ll_ops.dev_reset(&dev, 1));
    EXPECT_TRUE(log.has("[usb_ll_check_last_cmd]" + std::string(57, 'x') + "\n"));

    peer.script.push_back({.type = 0xC0});
    expect_status(0xC2, 0, 0);
    EXPECT_FALSE(usb_ll_ops.dev_reset(&dev, 1));
    EXPECT_TRUE(log.has(" last cmd (t=0xc2,v=0x0) is not as expect(t=0xc0,v=0x0)"));
}

TEST_F(UsbLink, GivesUpACommandAfterTwoSeconds)
{
    open();
    peer.script.push_back({.type = 0xCC, .value = 1, .never = true});
    uint8_t data[4] = {};
    const auto start = clock_type::now();
    EXPECT_FALSE(usb_ll_ops.exe_cmd(&dev, 1, 0xCC, 1, data, sizeof data, 50000));
    EXPECT_GE(ms_since(start), 1950);
    EXPECT_EQ(usb_priv(&dev)->in_flight, 0u);
}

TEST_F(UsbLink, CloseEndsADeviceThatIsBusyForGood)
{
    open();
    peer.beyond = 0xFE;
    std::thread caller([this] { EXPECT_FALSE(usb_ll_ops.dev_reset(&dev, 1)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    usb_priv(&dev)->closing = 1; // what a close does before it waits for the lock
    caller.join();
}

TEST_F(UsbLink, RingDeliversAndDrains)
{
    open();
    start();
    for (uint8_t i = 0; i < 40; i++) {
        ASSERT_TRUE(eventually([&] { return peer_bulk_in(LIBUSB_TRANSFER_COMPLETED, {i}); }));
        ASSERT_TRUE(eventually([&] { return sink.count(0) == i + 1u; }));
        EXPECT_EQ(sink.bytes[i], i);
    }
    // A time-out and a stall bring their bytes and are told apart; the ring stays full.
    peer_bulk_in(LIBUSB_TRANSFER_TIMED_OUT, {1, 2});
    peer_bulk_in(LIBUSB_TRANSFER_STALL, {});
    ASSERT_TRUE(eventually([&] { return sink.count(-5) == 1 && sink.count(-7) == 1; }));
    EXPECT_EQ(sink.bytes.size(), 42u);
    ASSERT_TRUE(eventually([] { return peer_waiting() == 16; }));
    expect_write(0xC2, 5, {0xC2});
    EXPECT_TRUE(usb_ll_ops.cap_stop(&dev));
    ASSERT_TRUE(eventually([] { return peer_waiting() == 0; }));
    start(); // again, at once; closing in mid-stream leaves nothing with libusb: TearDown looks
}

TEST_F(UsbLink, RefusedStartCancelsTheRing)
{
    open();
    expect_write(0xC2, 4, {0, 0, 0, 0}, 0xFF);
    EXPECT_FALSE(usb_ll_ops.cap_start(&dev, 0, Sink::take, &sink));
    EXPECT_TRUE(eventually([] { return peer_waiting() == 0; })) << "nothing was sent again";
    const uint8_t byte = 1;
    peer.bulk_out_error = LIBUSB_ERROR_IO;
    EXPECT_EQ(usb_ll_ops.tx_data(&dev, &byte, 1), LIBUSB_ERROR_IO);
}

TEST_F(UsbLink, UnplugIsToldOnceAndEndsEverything)
{
    for (const int status : {LIBUSB_TRANSFER_NO_DEVICE, LIBUSB_TRANSFER_ERROR}) {
        peer_reset();
        open();
        sink.codes.clear();
        start();
        peer_unplug(status);
        EXPECT_TRUE(eventually([this] { return sink.count(-10) == 1 && peer_waiting() == 0; }));
        EXPECT_FALSE(usb_ll_ops.cap_stop(&dev));
        usb_ll_ops.dev_close(&dev);
        EXPECT_EQ(sink.count(-10), 1u);
    }
}

// A command, one that reads, bulk data, a start and a stop are under way when the camera goes.
TEST_F(UsbLink, UnplugDuringEveryKindOfTransfer)
{
    uint8_t data[4] = {};
    tqcam_ll_param_t item = {3, 18, {}};
    const std::function<bool()> cases[] = {
        [&] { return usb_ll_ops.exe_cmd(&dev, 1, 0xCC, 1, data, sizeof data, 1000); },
        [&] { return usb_ll_ops.param_get(&dev, &item, 1); },
        [&] { return usb_ll_ops.tx_data(&dev, data, sizeof data) >= 0; },
        [&] { return usb_ll_ops.cap_start(&dev, 0, Sink::take, &sink); },
        [&] { return usb_ll_ops.cap_stop(&dev); },
    };
    for (const auto &run : cases) {
        SCOPED_TRACE(&run - cases);
        peer_reset();
        peer.silent = true; // whatever is sent waits
        open();
        std::thread caller([&] { EXPECT_FALSE(run()); });
        ASSERT_TRUE(eventually([] { return peer_waiting() > 0; }));
        const auto start = clock_type::now();
        peer_unplug(LIBUSB_TRANSFER_NO_DEVICE);
        caller.join();
        EXPECT_LT(ms_since(start), 500);
        usb_ll_ops.dev_close(&dev);
    }
}

TEST_F(UsbLink, ResetOfTheInterfaceWhileOthersUseTheLink)
{
    open();
    peer.script.push_back({.type = 0xC0, .data = {3, 0, 0, 0}}); // no confirmation follows
    fake_devices[0].addr = 4;                                    // it comes back with the next address
    EXPECT_FALSE(usb_ll_ops.dev_reset(&dev, 3));
    ASSERT_NE(dev.priv, nullptr);
    EXPECT_EQ(dev.address.usb.addr, 4);
    EXPECT_FALSE(log.has("reopen device failed"));

    // It takes the link away from the other threads, of which one may reset as well, and gives them another.
    peer.beyond = 0;
    std::atomic<bool> ended{false};
    std::atomic<int> worked{0};
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&] {
            for (const uint32_t value = 1; !ended; usb_ll_ops.cap_abort(&dev))
                worked += usb_ll_ops.reg_write(&dev, 1, 2, &value, 1);
        });
    threads.emplace_back([&] { usb_ll_ops.dev_reset(&dev, 3); });
    for (int i = 0; i < 3; i++) {
        usb_ll_ops.dev_reset(&dev, 3);
        worked = 0;
        EXPECT_TRUE(eventually([&] { return worked > 0; }));
    }
    ended = true;
}

} // namespace
