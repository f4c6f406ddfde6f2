#include "fake_libusb.h"

#include <cstdlib>

std::vector<libusb_device> fake_devices = {libusb_device()};
int (*fake_string)(uint8_t index, unsigned char *data, int length);
std::atomic<int> fake_contexts, fake_handles, fake_transfers, fake_transfers_too_long;

struct libusb_context {
    int unused;
};

extern "C" {

int libusb_init(libusb_context **ctx)
{
    *ctx = new libusb_context();
    fake_contexts++;
    return 0;
}
void libusb_exit(libusb_context *ctx)
{
    fake_contexts--;
    delete ctx;
}
int libusb_set_option(libusb_context *, libusb_option, ...)
{
    return 0;
}
const char *libusb_error_name(int code)
{
    static const char *const names[] = {"E0", "E-1", "E-2", "E-3", "E-4", "E-5", "E-6", "E-7"};
    return code <= 0 && code > -8 ? names[-code] : "E";
}
ssize_t libusb_get_device_list(libusb_context *, libusb_device ***list)
{
    const size_t n = fake_devices.size();
    *list = static_cast<libusb_device **>(std::calloc(n + 1, sizeof **list));
    for (size_t i = 0; i < n; i++)
        (*list)[i] = &fake_devices[i];
    return static_cast<ssize_t>(n);
}
void libusb_free_device_list(libusb_device **list, int)
{
    std::free(list);
}
int libusb_get_device_descriptor(libusb_device *device, libusb_device_descriptor *desc)
{
    *desc = {};
    desc->idVendor = device->vendor;
    desc->idProduct = device->product;
    desc->bNumConfigurations = 1;
    desc->iManufacturer = 1;
    desc->iProduct = 2;
    return 0;
}
// One block of memory, so that a forgotten one is a leak.
int libusb_get_config_descriptor(libusb_device *device, uint8_t, libusb_config_descriptor **out)
{
    struct all_t {
        libusb_config_descriptor config;
        libusb_interface interfaces[4];
        libusb_interface_descriptor alternates[4];
        libusb_endpoint_descriptor endpoints[4][4];
    };
    auto *all = static_cast<all_t *>(std::calloc(1, sizeof(all_t)));
    all->config.bNumInterfaces = static_cast<uint8_t>(device->interfaces.size());
    all->config.interface = all->interfaces;
    for (size_t i = 0; i < device->interfaces.size(); i++) {
        const std::vector<uint8_t> &addresses = device->interfaces[i];
        for (size_t e = 0; e < addresses.size(); e++)
            all->endpoints[i][e].bEndpointAddress = addresses[e];
        all->alternates[i].bNumEndpoints = static_cast<uint8_t>(addresses.size());
        all->alternates[i].endpoint = all->endpoints[i];
        all->interfaces[i] = {&all->alternates[i], 1};
    }
    *out = &all->config;
    return 0;
}
void libusb_free_config_descriptor(libusb_config_descriptor *config)
{
    std::free(config);
}
uint8_t libusb_get_bus_number(libusb_device *device)
{
    return device->bus;
}
uint8_t libusb_get_port_number(libusb_device *device)
{
    return device->port;
}
uint8_t libusb_get_device_address(libusb_device *device)
{
    return device->addr;
}
int libusb_get_device_speed(libusb_device *device)
{
    return device->speed;
}
int libusb_open(libusb_device *device, libusb_device_handle **handle)
{
    if (device->open_error != 0)
        return device->open_error;
    *handle = new libusb_device_handle{device};
    fake_handles++;
    return 0;
}
void libusb_close(libusb_device_handle *handle)
{
    fake_handles--;
    delete handle;
}
int libusb_get_string_descriptor_ascii(libusb_device_handle *, uint8_t index, unsigned char *data, int length)
{
    return fake_string(index, data, length);
}
int libusb_set_auto_detach_kernel_driver(libusb_device_handle *, int)
{
    return 0;
}
int libusb_claim_interface(libusb_device_handle *handle, int)
{
    return handle->device->claim_error;
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
    fake_transfers++;
    return static_cast<libusb_transfer *>(std::calloc(1, sizeof(libusb_transfer)));
}
void libusb_free_transfer(libusb_transfer *transfer)
{
    if (!transfer)
        return;
    fake_transfers--;
    if (fake_contexts == 0)
        fake_transfers_too_long++;
    std::free(transfer);
}

} // extern "C"
