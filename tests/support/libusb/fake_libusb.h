// A libusb of a test program's own: devices as the program lists them, and transfers that go to the program.
#pragma once

#include <atomic>
#include <cstdint>
#include <libusb-1.0/libusb.h>
#include <vector>

struct libusb_device {
    uint8_t bus = 1, port = 2, addr = 3;
    int speed = LIBUSB_SPEED_HIGH;
    uint16_t vendor = 0x111B, product = 0x1238;
    std::vector<std::vector<uint8_t>> interfaces = {{0x81, 0x02}}; // endpoint addresses of each interface
    int open_error = 0, claim_error = 0;
};
struct libusb_device_handle {
    libusb_device *device;
};

extern std::vector<libusb_device> fake_devices;
extern int (*fake_string)(uint8_t index, unsigned char *data, int length);
// What the program has and has not given back.
extern std::atomic<int> fake_contexts, fake_handles, fake_transfers, fake_transfers_too_long;

inline bool fake_is_bulk_in(const libusb_transfer *t)
{
    return t->type == LIBUSB_TRANSFER_TYPE_BULK && (t->endpoint & 0x80);
}

inline void fake_finish(libusb_transfer *transfer, int status, int length)
{
    transfer->status = static_cast<libusb_transfer_status>(status);
    transfer->actual_length = length;
    transfer->callback(transfer);
}
