// What a camera on USB answers: descriptors, status records, parameters, registers, acks and stream transfers
// come from the input. The program has a libusb of its own; when the input ends, the camera is gone.
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>

#include "link/usb_link.h"
#include "tq_log.h"
#include "tqcam.h"

struct libusb_context {
    int unused;
};
struct libusb_device {
    int unused;
};
struct libusb_device_handle {
    int unused;
};

// Never destroyed: the event thread of the device that stays open waits on the condition until the process is
// gone.
static struct cam_t {
    const uint8_t *data;
    size_t left;
    libusb_context context;
    libusb_device device;
    libusb_device_handle handle;
    uint8_t last_type, last_value;
    std::deque<libusb_transfer *> ring;
    std::mutex mutex;
    std::condition_variable cond;
    bool woken;
} &cam = *new cam_t();

static uint8_t take()
{
    if (cam.left == 0)
        return 0;
    cam.left--;
    return *cam.data++;
}

static int take_into(uint8_t *to, int room)
{
    const int n = cam.left < static_cast<size_t>(room) ? static_cast<int>(cam.left) : room;
    std::memcpy(to, cam.data, static_cast<size_t>(n));
    cam.data += n;
    cam.left -= static_cast<size_t>(n);
    return n;
}

static void finish(libusb_transfer *transfer, int status, int length)
{
    transfer->status = static_cast<libusb_transfer_status>(status);
    transfer->actual_length = length;
    transfer->callback(transfer);
}

// Commands end within their submit. A first byte below 192 is a camera as it should be.
static void answer(libusb_transfer *transfer)
{
    if (cam.left == 0)
        return finish(transfer, LIBUSB_TRANSFER_NO_DEVICE, 0);
    const uint8_t how = take();
    if (transfer->type == LIBUSB_TRANSFER_TYPE_BULK)
        return finish(transfer, how < 192 ? 0 : how & 7, how < 192 ? transfer->length : how);
    uint8_t *setup = transfer->buffer, *data = setup + 8;
    const int room = transfer->length - 8;
    if (!(setup[0] & 0x80)) {
        cam.last_type = setup[1];
        cam.last_value = setup[2];
        return finish(transfer, how < 192 ? 0 : how & 7, how < 224 ? room : room / 2);
    }
    int n = room;
    if (setup[1] == USB_CMD_STATUS && how < 192) {
        const uint8_t record[3] = {how < 180 ? uint8_t{0} : uint8_t{0xFE}, cam.last_type, cam.last_value};
        std::memcpy(data, record, sizeof record);
    } else {
        n = take_into(data, room);
    }
    finish(transfer, how < 224 ? 0 : how & 7, how < 224 ? room : n);
}

extern "C" {
int libusb_init(libusb_context **ctx)
{
    *ctx = &cam.context;
    return 0;
}
void libusb_exit(libusb_context *) {}
int libusb_set_option(libusb_context *, libusb_option, ...)
{
    return 0;
}
const char *libusb_error_name(int)
{
    return "E";
}
ssize_t libusb_get_device_list(libusb_context *, libusb_device ***list)
{
    *list = static_cast<libusb_device **>(std::calloc(2, sizeof **list));
    (*list)[0] = &cam.device;
    return 1;
}
void libusb_free_device_list(libusb_device **list, int)
{
    std::free(list);
}
int libusb_get_device_descriptor(libusb_device *, libusb_device_descriptor *desc)
{
    *desc = {};
    desc->idVendor = USB_ID_VENDOR;
    desc->idProduct = USB_ID_PRODUCT;
    desc->bNumConfigurations = 1;
    desc->iProduct = 1;
    desc->iManufacturer = 2;
    return 0;
}
int libusb_get_config_descriptor(libusb_device *, uint8_t, libusb_config_descriptor **out)
{
    static libusb_endpoint_descriptor endpoints[2];
    static libusb_interface_descriptor alternate;
    static libusb_interface inf;
    static libusb_config_descriptor config;
    endpoints[0].bEndpointAddress = 0x81;
    endpoints[1].bEndpointAddress = 0x01;
    alternate.bNumEndpoints = 2;
    alternate.endpoint = endpoints;
    inf = {&alternate, 1};
    config.bNumInterfaces = 1;
    config.interface = &inf;
    *out = &config;
    return 0;
}
void libusb_free_config_descriptor(libusb_config_descriptor *) {}
uint8_t libusb_get_bus_number(libusb_device *)
{
    return 1;
}
uint8_t libusb_get_port_number(libusb_device *)
{
    return 1;
}
uint8_t libusb_get_device_address(libusb_device *)
{
    return 2;
}
int libusb_get_device_speed(libusb_device *)
{
    return LIBUSB_SPEED_HIGH;
}
int libusb_open(libusb_device *, libusb_device_handle **handle)
{
    *handle = &cam.handle;
    return 0;
}
void libusb_close(libusb_device_handle *) {}
int libusb_get_string_descriptor_ascii(libusb_device_handle *, uint8_t, unsigned char *data, int length)
{
    return take_into(data, length);
}
int libusb_set_auto_detach_kernel_driver(libusb_device_handle *, int)
{
    return 0;
}
int libusb_claim_interface(libusb_device_handle *, int)
{
    return 0;
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
    return static_cast<libusb_transfer *>(std::calloc(1, sizeof(libusb_transfer)));
}
void libusb_free_transfer(libusb_transfer *transfer)
{
    std::free(transfer);
}
int libusb_submit_transfer(libusb_transfer *transfer)
{
    if (transfer->type == LIBUSB_TRANSFER_TYPE_BULK && (transfer->endpoint & 0x80))
        cam.ring.push_back(transfer);
    else
        answer(transfer);
    return 0;
}
int libusb_cancel_transfer(libusb_transfer *transfer)
{
    for (size_t i = 0; i < cam.ring.size(); i++)
        if (cam.ring[i] == transfer) {
            cam.ring.erase(cam.ring.begin() + static_cast<std::ptrdiff_t>(i));
            finish(transfer, LIBUSB_TRANSFER_CANCELLED, 0);
            return 0;
        }
    return LIBUSB_ERROR_NOT_FOUND;
}
int libusb_handle_events_timeout_completed(libusb_context *, timeval *, int *)
{
    std::unique_lock<std::mutex> guard(cam.mutex);
    cam.cond.wait(guard, [] { return cam.woken; });
    return 0;
}
void libusb_interrupt_event_handler(libusb_context *)
{
    std::lock_guard<std::mutex> guard(cam.mutex);
    cam.woken = true;
    cam.cond.notify_all();
}
}

static void on_rx(tqcam_ll_dev_t *, int32_t, const void *data, uint32_t len, void *arg)
{
    const auto *bytes = static_cast<const uint8_t *>(data);
    for (uint32_t i = 0; i < len; i++)
        *static_cast<uint32_t *>(arg) += bytes[i];
}

static void capture(tqcam_ll_dev_t *dev)
{
    uint32_t sum = 0;
    if (!usb_ll_ops.cap_start(dev, 0, on_rx, &sum))
        return;
    while (cam.left > 0 && !cam.ring.empty()) {
        libusb_transfer *transfer = cam.ring.front();
        cam.ring.pop_front();
        const uint8_t how = take();
        const int n = take_into(transfer->buffer, how);
        finish(transfer, how % 7, n);
    }
    usb_ll_ops.cap_stop(dev);
}

static void parameters(tqcam_ll_dev_t *dev, int count)
{
    tqcam_ll_param_t items[7] = {};
    usb_ll_ops.param_get(dev, items, count);
    for (const tqcam_ll_param_t &item : items)
        if (item.len > sizeof item.value)
            std::abort();
    usb_ll_ops.param_set(dev, items, count);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool logs = [] {
        tq_log_init(nullptr, "/dev/null", "FUZZ");
        tq_log_cfg(nullptr, TQ_LOG_CONSOLE, TQ_LOG_SILENT, 0);
        return true;
    }();
    (void)logs;
    cam.data = data;
    cam.left = size;
    const uint8_t does = take();
    tqcam_ll_dev_t list[2];
    if (does == 255 && usb_ll_ops.dev_list(list, 2) == 1 &&
        std::memchr(list[0].address.usb.product, 0, 16) == nullptr)
        std::abort();
    // Opening allocates the ring and starts a thread, and so the device stays open over most inputs.
    static tqcam_ll_dev_t dev;
    dev.address.if_type = TQCAM_IF_USB;
    if (does == 254 && dev.priv) {
        usb_ll_ops.dev_close(&dev);
        if (dev.priv || !cam.ring.empty())
            std::abort();
        cam.woken = false;
    }
    if (!dev.priv && !usb_ll_ops.dev_open(&dev))
        std::abort();
    for (int steps = 0; cam.left > 0 && steps < 64; steps++) {
        const uint8_t what = steps == 0 ? does : take();
        uint32_t registers[20] = {};
        uint8_t record[64] = {};
        switch (what % 7) {
        case 0:
            parameters(&dev, what / 7 % 8);
            break;
        case 1:
            usb_ll_ops.reg_read(&dev, 1, what, registers, what / 7 % 21);
            break;
        case 2:
            usb_ll_ops.reg_write(&dev, 1, what, registers, what / 7 % 21);
            break;
        case 3:
            usb_ll_ops.exe_cmd(&dev, what / 7 & 1, 0xCC, 4, record, what / 14 % 65, 1000);
            break;
        case 4:
            usb_ll_ops.tx_data(&dev, record, what / 7);
            break;
        case 5:
            tqcam_bin_data_read(&dev, what, "/dev/null");
            break;
        default:
            capture(&dev);
            break;
        }
    }
    usb_ring_cancel(&dev, __func__);
    if (!cam.ring.empty() || usb_priv(&dev)->in_flight != 0)
        std::abort();
    return 0;
}
