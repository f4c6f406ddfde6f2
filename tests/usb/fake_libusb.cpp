#include "fake_libusb.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <mutex>

using fake_clock = std::chrono::steady_clock;

FakeBus g_bus;

namespace {
struct Pending {
    libusb_transfer *transfer;
    fake_clock::time_point due;
    bool never;
    int status, length;
};
std::mutex g_mutex;
std::condition_variable g_cond;
std::deque<Pending> g_pending;
int g_unplugged = 0; // the status that everything ends with, or 0

void _finish(libusb_transfer *transfer, int status, int length)
{
    transfer->status = static_cast<libusb_transfer_status>(status);
    transfer->actual_length = length;
    transfer->callback(transfer);
}
bool _is_bulk_in(const libusb_transfer *t)
{
    return t->type == LIBUSB_TRANSFER_TYPE_BULK && (t->endpoint & 0x80);
}
} // namespace

struct libusb_device {
    FakeDevice info;
};
struct libusb_device_handle {
    libusb_device device;
};
struct libusb_context {
    int unused;
};

void fake_reset()
{
    std::lock_guard<std::mutex> guard(g_mutex);
    g_bus = FakeBus();
    g_pending.clear();
    g_unplugged = 0;
}

size_t fake_bulk_in_waiting()
{
    std::lock_guard<std::mutex> guard(g_mutex);
    return static_cast<size_t>(std::count_if(g_pending.begin(), g_pending.end(), [](const Pending &p) {
        return _is_bulk_in(p.transfer) && p.never;
    }));
}

size_t fake_waiting()
{
    std::lock_guard<std::mutex> guard(g_mutex);
    return g_pending.size();
}

bool fake_bulk_in(int status, const std::vector<uint8_t> &data)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    for (Pending &p : g_pending) {
        if (!_is_bulk_in(p.transfer) || !p.never)
            continue;
        std::copy(data.begin(), data.end(), p.transfer->buffer);
        p.never = false;
        p.due = fake_clock::now();
        p.status = status;
        p.length = static_cast<int>(data.size());
        g_cond.notify_all();
        return true;
    }
    return false;
}

void fake_unplug(int status)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    g_unplugged = status;
    for (Pending &p : g_pending) {
        p.never = false;
        p.due = fake_clock::now();
        p.status = status;
        p.length = 0;
    }
    g_cond.notify_all();
}

size_t fake_steps_left()
{
    std::lock_guard<std::mutex> guard(g_mutex);
    return g_bus.script.size();
}

void expect_status(uint8_t type, uint8_t value, uint8_t status, const std::string &message)
{
    FakeStep step;
    step.out = false;
    step.type = 0xB0;
    step.data.assign(60, 0);
    step.data[0] = status;
    step.data[1] = type;
    step.data[2] = value;
    std::copy_n(message.begin(), std::min<size_t>(message.size(), 57), step.data.begin() + 3);
    g_bus.script.push_back(step);
}

void expect_write(uint8_t type, uint16_t value, std::vector<uint8_t> payload, uint8_t status)
{
    FakeStep step;
    step.type = type;
    step.value = value;
    step.any_data = payload.empty();
    step.data = std::move(payload);
    g_bus.script.push_back(step);
    expect_status(type, static_cast<uint8_t>(value), status);
}

void expect_read(uint8_t type, uint16_t value, std::vector<uint8_t> reply, uint8_t status)
{
    FakeStep step;
    step.out = false;
    step.type = type;
    step.value = value;
    step.data = std::move(reply);
    g_bus.script.push_back(step);
    expect_status(type, static_cast<uint8_t>(value), status);
}

extern "C" {

int libusb_init(libusb_context **ctx)
{
    *ctx = new libusb_context();
    g_bus.contexts++;
    return 0;
}
void libusb_exit(libusb_context *ctx)
{
    g_bus.contexts--;
    delete ctx;
}
int libusb_set_option(libusb_context *, libusb_option, ...)
{
    return 0;
}
const char *libusb_error_name(int code)
{
    static thread_local char name[16];
    std::snprintf(name, sizeof name, "E%d", code);
    return name;
}
ssize_t libusb_get_device_list(libusb_context *, libusb_device ***list)
{
    auto **devices = new libusb_device *[g_bus.devices.size() + 1];
    for (size_t i = 0; i < g_bus.devices.size(); i++)
        devices[i] = new libusb_device{g_bus.devices[i]};
    devices[g_bus.devices.size()] = nullptr;
    *list = devices;
    return static_cast<ssize_t>(g_bus.devices.size());
}
void libusb_free_device_list(libusb_device **list, int)
{
    for (libusb_device **d = list; *d; d++)
        delete *d;
    delete[] list;
}
int libusb_get_device_descriptor(libusb_device *device, libusb_device_descriptor *desc)
{
    *desc = {};
    desc->idVendor = device->info.vendor;
    desc->idProduct = device->info.product;
    desc->bNumConfigurations = 1;
    desc->iManufacturer = 1;
    desc->iProduct = 2;
    return 0;
}
int libusb_get_config_descriptor(libusb_device *device, uint8_t, libusb_config_descriptor **out)
{
    const auto &interfaces = device->info.interfaces;
    auto *config = new libusb_config_descriptor();
    auto *inf = new libusb_interface[interfaces.size()]();
    for (size_t i = 0; i < interfaces.size(); i++) {
        auto *alt = new libusb_interface_descriptor();
        auto *endpoints = new libusb_endpoint_descriptor[interfaces[i].size()]();
        for (size_t e = 0; e < interfaces[i].size(); e++)
            endpoints[e].bEndpointAddress = interfaces[i][e];
        alt->bNumEndpoints = static_cast<uint8_t>(interfaces[i].size());
        alt->endpoint = endpoints;
        inf[i].altsetting = alt;
        inf[i].num_altsetting = 1;
    }
    config->bNumInterfaces = static_cast<uint8_t>(interfaces.size());
    config->interface = inf;
    *out = config;
    return 0;
}
void libusb_free_config_descriptor(libusb_config_descriptor *config)
{
    for (int i = 0; i < config->bNumInterfaces; i++) {
        delete[] config->interface[i].altsetting->endpoint;
        delete config->interface[i].altsetting;
    }
    delete[] config->interface;
    delete config;
}
uint8_t libusb_get_bus_number(libusb_device *device)
{
    return device->info.bus;
}
uint8_t libusb_get_port_number(libusb_device *device)
{
    return device->info.port;
}
uint8_t libusb_get_device_address(libusb_device *device)
{
    return device->info.addr;
}
int libusb_get_device_speed(libusb_device *device)
{
    return device->info.speed;
}
int libusb_open(libusb_device *device, libusb_device_handle **handle)
{
    if (device->info.open_error != 0)
        return device->info.open_error;
    *handle = new libusb_device_handle{*device};
    g_bus.handles++;
    return 0;
}
void libusb_close(libusb_device_handle *handle)
{
    g_bus.handles--;
    delete handle;
}
int libusb_get_string_descriptor_ascii(libusb_device_handle *, uint8_t index, unsigned char *data, int length)
{
    const std::string text = index == 1 ? "a vendor with a long name" : "X-E1-Y";
    const int n = std::min<int>(length, static_cast<int>(text.size()));
    std::copy_n(text.begin(), n, data); // without a NUL, as a full field has none
    return n;
}
int libusb_set_auto_detach_kernel_driver(libusb_device_handle *, int)
{
    return 0;
}
int libusb_claim_interface(libusb_device_handle *handle, int)
{
    return handle->device.info.claim_error;
}
int libusb_release_interface(libusb_device_handle *, int)
{
    return 0;
}
int libusb_clear_halt(libusb_device_handle *, unsigned char)
{
    return 0;
}
libusb_transfer *libusb_alloc_transfer(int)
{
    g_bus.transfers++;
    return static_cast<libusb_transfer *>(std::calloc(1, sizeof(libusb_transfer)));
}
void libusb_free_transfer(libusb_transfer *transfer)
{
    if (!transfer)
        return;
    EXPECT_GT(g_bus.contexts, 0) << "a transfer outlived its context";
    g_bus.transfers--;
    std::free(transfer);
}

static Pending _answer(libusb_transfer *transfer)
{
    Pending pending = {transfer, fake_clock::now(), false, LIBUSB_TRANSFER_COMPLETED, 0};
    if (_is_bulk_in(transfer) || g_bus.silent) {
        pending.never = true;
        return pending;
    }
    const bool bulk = transfer->type == LIBUSB_TRANSFER_TYPE_BULK;
    const uint8_t *setup = transfer->buffer;
    const bool out = bulk || !(setup[0] & 0x80);
    const uint8_t type = bulk ? 0 : setup[1];
    const auto value = static_cast<uint16_t>(bulk ? 0 : setup[2] | setup[3] << 8);
    uint8_t *data = bulk ? transfer->buffer : transfer->buffer + 8;
    const int room = bulk ? transfer->length : transfer->length - 8;
    if (g_bus.script.empty() && g_bus.busy_forever && !out && type == 0xB0) {
        data[0] = 0xFE;
        data[1] = 0xC0;
        pending.length = 60;
        return pending;
    }
    if (g_bus.script.empty()) {
        ADD_FAILURE() << "unexpected transfer: out=" << out << " type=" << int(type) << " value=" << value;
        pending.status = LIBUSB_TRANSFER_STALL;
        return pending;
    }
    const FakeStep step = g_bus.script.front();
    g_bus.script.erase(g_bus.script.begin());
    EXPECT_EQ(step.out, out);
    EXPECT_EQ(step.bulk, bulk);
    EXPECT_EQ(int(step.type), int(type));
    EXPECT_EQ(step.value, value);
    EXPECT_TRUE(bulk || setup[0] == (out ? 0x22 : 0xA2));
    pending.status = step.status;
    if (out) {
        EXPECT_TRUE(step.any_data || std::vector<uint8_t>(data, data + room) == step.data);
        pending.length = step.length >= 0 ? step.length : room;
    } else {
        const int n = std::min<int>(room, static_cast<int>(step.data.size()));
        std::copy_n(step.data.begin(), n, data);
        pending.length = step.length >= 0 ? step.length : n;
    }
    pending.never = step.delay_ms < 0;
    pending.due += std::chrono::milliseconds(std::max(0, step.delay_ms));
    return pending;
}

int libusb_submit_transfer(libusb_transfer *transfer)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    if (transfer->type == LIBUSB_TRANSFER_TYPE_BULK && !(transfer->endpoint & 0x80) &&
        g_bus.submit_error_bulk_out)
        return g_bus.submit_error_bulk_out;
    if (g_unplugged != 0)
        return LIBUSB_ERROR_NO_DEVICE;
    g_pending.push_back(_answer(transfer));
    const int waiting = static_cast<int>(std::count_if(
        g_pending.begin(), g_pending.end(), [](const Pending &p) { return _is_bulk_in(p.transfer); }));
    g_bus.max_bulk_in = std::max(g_bus.max_bulk_in, waiting);
    g_cond.notify_all();
    return 0;
}

int libusb_cancel_transfer(libusb_transfer *transfer)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    for (Pending &p : g_pending)
        if (p.transfer == transfer) {
            p.never = false;
            p.due = fake_clock::now();
            p.status = LIBUSB_TRANSFER_CANCELLED;
            g_cond.notify_all();
            return 0;
        }
    return LIBUSB_ERROR_NOT_FOUND;
}

int libusb_handle_events_timeout_completed(libusb_context *, timeval *tv, int *)
{
    std::unique_lock<std::mutex> guard(g_mutex);
    const auto end = fake_clock::now() + std::chrono::microseconds(std::min<long>(tv->tv_usec, 20000));
    for (;;) {
        const auto now = fake_clock::now();
        auto next = end;
        for (size_t i = 0; i < g_pending.size(); i++) {
            const Pending p = g_pending[i];
            if (p.never)
                continue;
            if (p.due <= now) {
                g_pending.erase(g_pending.begin() + static_cast<std::ptrdiff_t>(i));
                guard.unlock();
                _finish(p.transfer, p.status, p.length);
                return 0;
            }
            next = std::min(next, p.due);
        }
        if (now >= end)
            return 0;
        g_cond.wait_until(guard, next);
    }
}
void libusb_interrupt_event_handler(libusb_context *)
{
    g_cond.notify_all();
}

} // extern "C"
