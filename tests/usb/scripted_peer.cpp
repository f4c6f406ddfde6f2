#include "scripted_peer.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>

Peer peer;

namespace {
struct Pending {
    libusb_transfer *transfer;
    bool done;
    int status = LIBUSB_TRANSFER_COMPLETED, length = 0;
};
std::mutex g_mutex;
std::condition_variable g_cond;
std::deque<Pending> g_pending;
int g_unplugged; // the status that everything ended with, or 0

void _end(Pending *p, int status, int length)
{
    *p = {p->transfer, true, status, length};
    g_cond.notify_all();
}
} // namespace

void peer_reset()
{
    peer = Peer();
    g_pending.clear();
    g_unplugged = 0;
    fake_devices = {libusb_device()};
}

size_t peer_waiting()
{
    std::lock_guard<std::mutex> guard(g_mutex);
    return static_cast<size_t>(
        std::count_if(g_pending.begin(), g_pending.end(), [](const Pending &p) { return !p.done; }));
}

bool peer_bulk_in(int status, const std::vector<uint8_t> &data)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    for (Pending &p : g_pending)
        if (fake_is_bulk_in(p.transfer) && !p.done) {
            std::copy(data.begin(), data.end(), p.transfer->buffer);
            _end(&p, status, static_cast<int>(data.size()));
            return true;
        }
    return false;
}

void peer_unplug(int status)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    g_unplugged = status;
    for (Pending &p : g_pending)
        _end(&p, status, 0);
}

void expect_status(uint8_t type, uint8_t value, uint8_t status, const std::string &message)
{
    std::vector<uint8_t> record = {status, type, value};
    record.insert(record.end(), message.begin(), message.end());
    record.resize(60);
    peer.script.push_back({.out = false, .type = 0xB0, .data = record});
}

void expect_write(uint8_t type, uint16_t value, std::vector<uint8_t> payload, uint8_t status)
{
    peer.script.push_back({.type = type, .value = value, .data = std::move(payload)});
    expect_status(type, static_cast<uint8_t>(value), status);
}

void expect_read(uint8_t type, uint16_t value, std::vector<uint8_t> reply)
{
    peer.script.push_back({.out = false, .type = type, .value = value, .data = std::move(reply)});
    expect_status(type, static_cast<uint8_t>(value), 0);
}

static Pending _answer(libusb_transfer *transfer)
{
    if (fake_is_bulk_in(transfer) || peer.silent)
        return {transfer, false};
    const uint8_t *setup = transfer->buffer;
    uint8_t *data = transfer->buffer + LIBUSB_CONTROL_SETUP_SIZE;
    const int room = transfer->length - LIBUSB_CONTROL_SETUP_SIZE;
    const bool out = setup[0] == 0x22;
    const auto value = static_cast<uint16_t>(setup[2] | setup[3] << 8);
    if (peer.script.empty() && peer.beyond >= 0 && (out || setup[1] == 0xB0)) {
        static uint8_t record[3];
        if (out)
            std::copy_n(std::array{static_cast<uint8_t>(peer.beyond), setup[1], setup[2]}.data(), 3, record);
        else
            std::copy_n(record, 3, data);
        return {transfer, true, LIBUSB_TRANSFER_COMPLETED, room};
    }
    if (peer.script.empty() || transfer->type != LIBUSB_TRANSFER_TYPE_CONTROL) {
        ADD_FAILURE() << "unexpected transfer: out=" << out << " type=" << +setup[1] << " value=" << value;
        return {transfer, true, LIBUSB_TRANSFER_STALL};
    }
    const PeerStep step = peer.script.front();
    peer.script.pop_front();
    EXPECT_EQ(step.out, out);
    EXPECT_EQ(setup[0], out ? 0x22 : 0xA2);
    EXPECT_EQ(+step.type, +setup[1]);
    EXPECT_EQ(step.value, value);
    int length = room;
    if (out) {
        EXPECT_TRUE(step.data.empty() || std::vector<uint8_t>(data, data + room) == step.data);
    } else {
        length = std::min(room, static_cast<int>(step.data.size()));
        std::copy_n(step.data.begin(), length, data);
    }
    return {transfer, !step.never, LIBUSB_TRANSFER_COMPLETED, length};
}

extern "C" {

int libusb_submit_transfer(libusb_transfer *transfer)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    if (transfer->type == LIBUSB_TRANSFER_TYPE_BULK && !fake_is_bulk_in(transfer) && peer.bulk_out_error)
        return peer.bulk_out_error;
    if (g_unplugged != 0)
        return LIBUSB_ERROR_NO_DEVICE;
    g_pending.push_back(_answer(transfer));
    g_cond.notify_all();
    return 0;
}

int libusb_cancel_transfer(libusb_transfer *transfer)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    for (Pending &p : g_pending)
        if (p.transfer == transfer) {
            _end(&p, LIBUSB_TRANSFER_CANCELLED, 0);
            return 0;
        }
    return LIBUSB_ERROR_NOT_FOUND;
}

int libusb_handle_events_timeout_completed(libusb_context *, timeval *, int *)
{
    std::unique_lock<std::mutex> guard(g_mutex);
    const auto done = [] {
        return std::find_if(g_pending.begin(), g_pending.end(), [](const Pending &p) { return p.done; });
    };
    g_cond.wait_for(guard, std::chrono::milliseconds(20), [&] { return done() != g_pending.end(); });
    if (done() == g_pending.end())
        return 0;
    const Pending p = *done();
    g_pending.erase(done());
    guard.unlock();
    fake_finish(p.transfer, p.status, p.length);
    return 0;
}

void libusb_interrupt_event_handler(libusb_context *)
{
    g_cond.notify_all();
}

} // extern "C"
