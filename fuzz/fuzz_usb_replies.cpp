// What a camera on USB answers: descriptors, status records, parameters, registers, acks and stream transfers
// come from the input. The program has a libusb of its own; when the input ends, the camera is gone.
#include <deque>
#include <semaphore>

#include "../tests/support/libusb/fake_libusb.h"
#include "fuzz_input.h"
#include "link/usb_link.h"

// Never destroyed: the event thread of the device that stays open waits to be woken until the process is
// gone.
static struct cam_t : fuzz_input {
    uint8_t last_type, last_value;
    std::deque<libusb_transfer *> ring;
    std::binary_semaphore wakes{0};
} &cam = *new cam_t();

// Commands end within their submit. A first byte below 192 is a camera as it should be.
static void answer(libusb_transfer *transfer)
{
    if (cam.size == 0)
        return fake_finish(transfer, LIBUSB_TRANSFER_NO_DEVICE, 0);
    const auto how = cam.take<uint8_t>();
    if (transfer->type == LIBUSB_TRANSFER_TYPE_BULK)
        return fake_finish(transfer, how < 192 ? 0 : how & 7, how < 192 ? transfer->length : how);
    uint8_t *setup = transfer->buffer, *data = setup + 8;
    const int room = transfer->length - 8;
    if (!(setup[0] & 0x80)) {
        cam.last_type = setup[1];
        cam.last_value = setup[2];
        return fake_finish(transfer, how < 192 ? 0 : how & 7, how < 224 ? room : room / 2);
    }
    int n = room;
    if (setup[1] == USB_CMD_STATUS && how < 192) {
        const uint8_t record[3] = {how < 180 ? uint8_t{0} : uint8_t{0xFE}, cam.last_type, cam.last_value};
        memcpy(data, record, sizeof record);
    } else {
        n = static_cast<int>(cam.take_into(data, static_cast<size_t>(room)));
    }
    fake_finish(transfer, how < 224 ? 0 : how & 7, how < 224 ? room : n);
}

extern "C" {
int libusb_submit_transfer(libusb_transfer *transfer)
{
    if (fake_is_bulk_in(transfer))
        cam.ring.push_back(transfer);
    else
        answer(transfer);
    return 0;
}
int libusb_cancel_transfer(libusb_transfer *transfer)
{
    if (std::erase(cam.ring, transfer) == 0)
        return LIBUSB_ERROR_NOT_FOUND;
    fake_finish(transfer, LIBUSB_TRANSFER_CANCELLED, 0);
    return 0;
}
int libusb_handle_events_timeout_completed(libusb_context *, timeval *, int *)
{
    cam.wakes.acquire();
    return 0;
}
void libusb_interrupt_event_handler(libusb_context *)
{
    cam.wakes.release();
}
}

static void step(tqcam_ll_dev_t *dev, uint8_t what)
{
    uint32_t registers[20] = {};
    uint8_t record[64] = {};
    tqcam_ll_param_t items[7] = {};
    const auto on_rx = [](tqcam_ll_dev_t *, int32_t, const void *bytes, uint32_t len, void *) {
        touch(bytes, len);
    };
    const int kind = what % 7, count = what / 7;
    if (kind == 0) {
        usb_ll_ops.param_get(dev, items, count % 8);
        for (const tqcam_ll_param_t &item : items)
            require(item.len <= sizeof item.value);
        usb_ll_ops.param_set(dev, items, count % 8);
    } else if (kind == 1)
        usb_ll_ops.reg_read(dev, 1, what, registers, static_cast<uint16_t>(count % 21));
    else if (kind == 2)
        usb_ll_ops.reg_write(dev, 1, what, registers, static_cast<uint16_t>(count % 21));
    else if (kind == 3)
        usb_ll_ops.exe_cmd(dev, count & 1, 0xCC, 4, record, static_cast<uint32_t>(count / 2 % 65), 1000);
    else if (kind == 4)
        usb_ll_ops.tx_data(dev, record, static_cast<uint32_t>(count));
    else if (kind == 5)
        tqcam_bin_data_read(dev, what, "/dev/null");
    else if (usb_ll_ops.cap_start(dev, 0, on_rx, nullptr)) {
        while (cam.size > 0 && !cam.ring.empty()) {
            libusb_transfer *transfer = cam.ring.front();
            cam.ring.pop_front();
            const auto how = cam.take<uint8_t>();
            fake_finish(transfer, how % 7, static_cast<int>(cam.take_into(transfer->buffer, how)));
        }
        usb_ll_ops.cap_stop(dev);
    }
}

void fuzz(fuzz_input in)
{
    fake_string = [](uint8_t, unsigned char *text, int length) {
        return static_cast<int>(cam.take_into(text, static_cast<size_t>(length)));
    };
    static_cast<fuzz_input &>(cam) = in;
    const auto does = cam.take<uint8_t>();
    tqcam_ll_dev_t list[2];
    if (does == 255 && usb_ll_ops.dev_list(list, 2) == 1)
        require(memchr(list[0].address.usb.product, 0, 16));
    // Opening allocates the ring and starts a thread, and so the device stays open over most inputs.
    static tqcam_ll_dev_t dev;
    dev.address.if_type = TQCAM_IF_USB;
    if (does == 254 && dev.priv) {
        usb_ll_ops.dev_close(&dev);
        require(!dev.priv && cam.ring.empty());
    }
    require(dev.priv || usb_ll_ops.dev_open(&dev));
    for (int steps = 0; cam.size > 0 && steps < 64; steps++)
        step(&dev, steps == 0 ? does : cam.take<uint8_t>());
    usb_ring_cancel(&dev, __func__);
    require(cam.ring.empty() && usb_priv(&dev)->in_flight == 0);
}
