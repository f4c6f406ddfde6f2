// Finding the cameras on the bus, opening one, its event thread, reset and close.
#include "link/usb_link.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <sys/prctl.h>
#include <unistd.h>

#include "log/log.h"

relaxed_t<int> usb_log_level;

static bool _is_ours(const libusb_device_descriptor &desc)
{
    return desc.idVendor == USB_ID_VENDOR && desc.idProduct == USB_ID_PRODUCT && desc.bNumConfigurations != 0;
}

// Guards the pointers of all records to their states, and the counts of holders.
static std::mutex _hold_lock;

usb_ll_priv_t *usb_priv_hold(tqcam_ll_dev_t *dev)
{
    std::lock_guard<std::mutex> guard(_hold_lock);
    usb_ll_priv_t *priv = usb_priv(dev);
    if (priv)
        priv->holders++;
    return priv;
}

void usb_priv_drop(usb_ll_priv_t *priv)
{
    {
        std::lock_guard<std::mutex> guard(_hold_lock);
        if (--priv->holders > 0)
            return;
    }
    pthread_mutex_destroy(&priv->lock);
    delete priv;
}

static void _priv_set(tqcam_ll_dev_t *dev, usb_ll_priv_t *priv)
{
    std::lock_guard<std::mutex> guard(_hold_lock);
    std::atomic_ref<void *>(dev->priv).store(priv, std::memory_order_relaxed);
}

// Chooses interface and endpoints, and notes them in priv unless that is NULL.
static bool _parse_usb_dev_desc(usb_ll_priv_t *priv, libusb_device *device)
{
    libusb_config_descriptor *config = nullptr;
    if (libusb_get_config_descriptor(device, 0, &config) != 0)
        return false;
    bool chosen = false;
    for (int i = 0; i < config->bNumInterfaces && !chosen; i++) {
        const libusb_interface &inf = config->interface[i];
        if (inf.num_altsetting != 1 || inf.altsetting[0].bNumEndpoints != 2)
            continue;
        const uint8_t first = inf.altsetting[0].endpoint[0].bEndpointAddress;
        const uint8_t second = inf.altsetting[0].endpoint[1].bEndpointAddress;
        if (((first ^ second) & LIBUSB_ENDPOINT_IN) == 0) {
            LOG_DEBUG("[%s] skip interface with two endpoints of the same direction\n");
            continue;
        }
        chosen = true;
        if (priv) {
            const bool first_is_in = (first & LIBUSB_ENDPOINT_IN) != 0;
            priv->ep_din = first_is_in ? first : second;
            priv->ep_dout = first_is_in ? second : first;
            priv->inf_idx = static_cast<uint8_t>(i);
            LOG_TRACE("[%s] TQU dev: ep_din=%x, ep_dout=%x, inf_idx=%u\n", priv->ep_din, priv->ep_dout,
                      priv->inf_idx);
        }
    }
    libusb_free_config_descriptor(config);
    return chosen;
}

static void _address_of(libusb_device *device, tqcam_usb_addr_t *usb)
{
    usb->bus = libusb_get_bus_number(device);
    usb->port = libusb_get_port_number(device);
    usb->addr = libusb_get_device_address(device);
    usb->speed = static_cast<uint8_t>(libusb_get_device_speed(device));
}

// A string descriptor as ASCII, NUL-terminated in a field of 16 bytes.
static void _read_string(libusb_device_handle *handle, uint8_t index, char (&out)[16])
{
    std::memset(out, 0, sizeof out);
    if (index != 0 && libusb_get_string_descriptor_ascii(
                          handle, index, reinterpret_cast<unsigned char *>(out), sizeof out) < 0)
        out[0] = '\0';
    out[15] = '\0';
}

int usb_ll_dev_list(tqcam_ll_dev_t *list, int max)
{
    if (!list || max < 1)
        return 0;
    std::memset(static_cast<void *>(list), 0, sizeof *list * static_cast<size_t>(max));
    libusb_context *ctx = nullptr;
    int r = libusb_init(&ctx);
    libusb_device **devices = nullptr;
    const ssize_t n = r == 0 ? libusb_get_device_list(ctx, &devices) : r;
    if (n < 0) {
        LOG_ERROR("[%s]  enum usb device failed: %d \n", static_cast<int>(n));
        if (r == 0)
            libusb_exit(ctx);
        return 0;
    }
    LOG_DEBUG("[%s]probe tqcam device (max=%d) in %d usb device\n", max, static_cast<int>(n));
    int count = 0;
    for (ssize_t i = 0; i < n && count < max; i++) {
        libusb_device_descriptor desc;
        if (libusb_get_device_descriptor(devices[i], &desc) != 0) {
            LOG_ERROR("[%s]  Failed to get device desc of device %d\n", static_cast<int>(i));
            continue;
        }
        tqcam_ll_dev_t record = {};
        tqcam_usb_addr_t &usb = record.address.usb;
        _address_of(devices[i], &usb);
        LOG_TRACE("[%s][%02d] %04x:%04x @ %03d:%03d:%03d\n", static_cast<int>(i), desc.idVendor,
                  desc.idProduct, usb.bus, usb.port, usb.addr);
        if (!_is_ours(desc) || !_parse_usb_dev_desc(nullptr, devices[i]))
            continue;
        libusb_device_handle *handle = nullptr;
        r = libusb_open(devices[i], &handle);
        if (r != 0) {
            LOG_DEBUG("[%s]failed to open this device: %s\n", libusb_error_name(r));
            continue;
        }
        record.inited = 1;
        record.address.if_type = TQCAM_IF_USB;
        record.ops = &usb_ll_ops;
        _read_string(handle, desc.iProduct, usb.product);
        _read_string(handle, desc.iManufacturer, usb.vendor);
        libusb_close(handle);
        LOG_DEBUG("[%s]  TQCAM device [%s, %s] found @ %03d:%03d:%03d (speed=%d)\n", usb.product, usb.vendor,
                  usb.bus, usb.port, usb.addr, usb.speed);
        list[count++] = record;
    }
    libusb_free_device_list(devices, 1);
    libusb_exit(ctx);
    return count;
}

[[noreturn]] static void _die(const char *caller, const char *text, int status)
{
    tq_log(nullptr, TQ_LOG_ERROR, "ERR", text, caller);
    std::exit(status);
}

static usb_ll_priv_t *_usb_ll_dev_priv_alloc(tqcam_ll_dev_t *dev)
{
    auto *priv = new (std::nothrow) usb_ll_priv_t();
    if (!priv)
        _die(__func__, "[%s]malloc failed\n", -2);
    for (int i = 0; i < USB_RING; i++) {
        priv->trans[i] = libusb_alloc_transfer(0);
        if (!priv->trans[i])
            _die(__func__, "[%s]malloc failed\n", -2);
        priv->bufs[i] = new (std::nothrow) usb_ll_rx_buf_t();
        if (!priv->bufs[i])
            _die(__func__, "[%s]malloc failed!\n", -1);
        priv->bufs[i]->dev = dev;
        priv->bufs[i]->size = USB_RING_BYTES;
    }
    if (pthread_mutex_init(&priv->lock, nullptr) != 0)
        _die(__func__, "[%s]pthread_mutex_init failed\n", -1);
    priv->holders = 1;
    return priv;
}

// What belongs to libusb goes at once, the rest with the last holder.
static void _priv_free(usb_ll_priv_t *priv)
{
    for (int i = 0; i < USB_RING; i++) {
        // A transfer that libusb would not give back is better lost than freed under it.
        if (priv->bufs[i]->issued)
            continue;
        if (priv->trans[i])
            libusb_free_transfer(priv->trans[i]);
        delete priv->bufs[i];
    }
    // A transfer holds its device, and so went before the context.
    if (priv->ctx)
        libusb_exit(priv->ctx);
    priv->ctx = nullptr;
    usb_priv_drop(priv);
}

static void _ll_event_loop(usb_ll_priv_t *priv)
{
    priv->running = 1;
    LOG_DEBUG("[%s]Enter ll event loop...\n");
    while (priv->exit.load(std::memory_order_relaxed) == 0) {
        timeval wait = {0, 200000};
        const int r =
            libusb_handle_events_timeout_completed(priv->ctx, &wait, reinterpret_cast<int *>(&priv->exit));
        if (r >= 0)
            continue;
        if (r == LIBUSB_ERROR_INTERRUPTED) {
            LOG_DEBUG("[%s]libusb_handle_events LIBUSB_ERROR_INTERRUPTED \n");
        } else if (r == LIBUSB_ERROR_TIMEOUT) {
            LOG_WARN("[%s]libusb_handle_events timeout \n");
            break;
        } else {
            LOG_ERROR("[%s]libusb reports error: %s\n", libusb_error_name(r));
            if (r != LIBUSB_ERROR_BUSY && r != LIBUSB_ERROR_OVERFLOW)
                break;
        }
    }
    priv->running = 0;
    LOG_DEBUG("[%s]Exit ll event loop...\n");
}

static void *_usb_ll_evt_thread(void *priv)
{
    prctl(PR_SET_NAME, "LLUSBEvtLoop");
    LOG_DEBUG("[%s]enter\n");
    _ll_event_loop(static_cast<usb_ll_priv_t *>(priv));
    LOG_DEBUG("[%s]exit\n");
    return nullptr;
}

// Is this the device that the record asks for, and can it be opened? Stores what the record did not know.
static bool _try_device(tqcam_ll_dev_t *dev, usb_ll_priv_t *priv, libusb_device *device, int index)
{
    tqcam_usb_addr_t &wanted = dev->address.usb;
    libusb_device_descriptor desc;
    if (libusb_get_device_descriptor(device, &desc) != 0) {
        LOG_AS(6, "ERR", "_usb_ll_dev_open", "[%s]  Failed to get device desc of device %d\n", index);
        return false;
    }
    tqcam_usb_addr_t found = {};
    _address_of(device, &found);
    if (dev->inited)
        LOG_AS(0, "TRC", "_usb_ll_dev_open", "[%s][%d] %04x:%04x (speed=%d) @ %03d:%03d:%03d\n", index,
               desc.idVendor, desc.idProduct, found.speed, found.bus, found.port, found.addr);
    if (!_is_ours(desc) || !_parse_usb_dev_desc(priv, device))
        return false;
    int r;
    if (dev->inited) {
        if (wanted.bus != found.bus || wanted.port != found.port ||
            (wanted.addr != 255 && wanted.addr != found.addr))
            return false;
        LOG_AS(1, "DBG", "_usb_ll_dev_open",
               "[%s]open tqcam device @ %03d:%03d:%03d, EP_DIN=%x, EP_DOUT=%x\n", found.bus, found.port,
               found.addr, priv->ep_din, priv->ep_dout);
        r = libusb_open(device, &priv->handle);
        if (r != 0) {
            LOG_AS(1, "DBG", "_usb_ll_dev_open", "[%s]failed to open this device: %s\n",
                   libusb_error_name(r));
            priv->handle = nullptr;
            return false;
        }
        wanted.addr = found.addr;
        wanted.speed = found.speed;
        return true;
    }
    LOG_AS(1, "DBG", "_usb_ll_dev_open",
           "[%s]found tqcam device (speed=%d) @ %03d:%03d:%03d, EP_DIN=%x, EP_DOUT=%x\n", found.speed,
           found.bus, found.port, found.addr, priv->ep_din, priv->ep_dout);
    if (found.speed < LIBUSB_SPEED_HIGH)
        LOG_AS(5, "WRN", "_usb_ll_dev_open",
               "[%s]found tqcam device not in HS mode (speed=%d) @ %03d:%03d:%03d\n", found.speed, found.bus,
               found.port, found.addr);
    r = libusb_open(device, &priv->handle);
    if (r != 0) {
        LOG_AS(1, "DBG", "_usb_ll_dev_open", "[%s]  failed to open this device: %s, try next ...\n",
               libusb_error_name(r));
        priv->handle = nullptr;
        return false;
    }
    dev->inited = 1;
    dev->address.if_type = TQCAM_IF_USB;
    wanted.bus = found.bus;
    wanted.port = found.port;
    wanted.addr = found.addr;
    wanted.speed = found.speed;
    return true;
}

// Nothing may be with libusb when the transfers are freed: they are cancelled while the event thread still
// runs their completions, and what is left is collected here once that thread is gone.
static bool _all_returned(const usb_ll_priv_t *priv)
{
    for (const usb_ll_rx_buf_t *buf : priv->bufs)
        if (buf->issued)
            return false;
    return priv->in_flight == 0;
}

// With the lock held, unless the record doesn't know of the state yet.
static void _shut(tqcam_ll_dev_t *dev, usb_ll_priv_t *priv)
{
    priv->stop = 1;
    if (priv->thread_started) {
        usb_ring_cancel(dev, "usb_ll_dev_close");
        for (int ms = 0; ms < 1000 && priv->running && !_all_returned(priv); ms++)
            usleep(1000);
        LOG_AS(1, "DBG", "usb_ll_dev_close", "[%s]stop evt thread...\n");
        priv->exit = 1;
        libusb_interrupt_event_handler(priv->ctx);
        pthread_join(priv->thread, nullptr);
        priv->thread_started = false;
    }
    for (int tries = 0; tries < 20 && !_all_returned(priv); tries++) {
        timeval wait = {0, 50000};
        libusb_handle_events_timeout_completed(priv->ctx, &wait, nullptr);
    }
    libusb_release_interface(priv->handle, 0);
    libusb_release_interface(priv->handle, 1);
    libusb_close(priv->handle);
    priv->handle = nullptr;
    _priv_set(dev, nullptr);
    _priv_free(priv);
}

tqcam_ll_dev_t *_usb_ll_dev_open(tqcam_ll_dev_t *dev)
{
    if (!dev || (dev->address.if_type != TQCAM_IF_USB && dev->address.if_type != TQCAM_IF_ANY))
        return nullptr;
    if (usb_priv(dev)) // open
        return dev;
    usb_ll_priv_t *priv = _usb_ll_dev_priv_alloc(dev);
    LOG_DEBUG("[%s] create usb context\n");
    int r = libusb_init(&priv->ctx);
    if (r != 0) {
        LOG_ERROR("[%s] create usb context failed: %s\n", libusb_error_name(r));
        priv->ctx = nullptr;
        _priv_free(priv);
        return nullptr;
    }
    libusb_set_option(priv->ctx, LIBUSB_OPTION_LOG_LEVEL, static_cast<int>(usb_log_level));
    libusb_device **devices = nullptr;
    const ssize_t n = libusb_get_device_list(priv->ctx, &devices);
    if (n < 0) {
        LOG_ERROR("[%s]  enum libusb device failed: %d \n", static_cast<int>(n));
        _priv_free(priv);
        return nullptr;
    }
    LOG_TRACE("[%s]  %d usb device found \n", static_cast<int>(n));
    bool opened = false;
    for (ssize_t i = 0; i < n && !opened; i++)
        opened = _try_device(dev, priv, devices[i], static_cast<int>(i));
    libusb_free_device_list(devices, 1);
    if (!opened) {
        _priv_free(priv);
        return nullptr;
    }

    if (dev->address.if_type != TQCAM_IF_USB) // else other threads may read it
        dev->address.if_type = TQCAM_IF_USB;
    libusb_set_auto_detach_kernel_driver(priv->handle, 1);
    r = libusb_claim_interface(priv->handle, priv->inf_idx);
    if (r != 0) {
        LOG_ERROR("[%s]libusb_claim_interface %d failed: %s\n", priv->inf_idx, libusb_error_name(r));
        _shut(dev, priv);
        return nullptr;
    }
    priv->running = 0;
    priv->exit = 0;
    priv->stop = 1;
    if (pthread_create(&priv->thread, nullptr, _usb_ll_evt_thread, priv) != 0) {
        LOG_ERROR("[%s] create evt thread failed\n");
        _shut(dev, priv);
        return nullptr;
    }
    priv->thread_started = true;
    if (dev->ops != &usb_ll_ops)
        dev->ops = &usb_ll_ops;
    _priv_set(dev, priv);
    return dev;
}

tqcam_ll_dev_t *usb_ll_dev_open(tqcam_ll_dev_t *dev)
{
    return _usb_ll_dev_open(dev);
}

tqcam_ll_dev_t *usb_ll_dev_open_by_fd(tqcam_ll_dev_t *dev, int)
{
    return _usb_ll_dev_open(dev);
}

void usb_ll_dev_close(tqcam_ll_dev_t *dev)
{
    if (!dev || dev->address.if_type != TQCAM_IF_USB)
        return;
    if (usb_ll_priv_t *priv = usb_priv_hold(dev)) {
        priv->closing = 1; // before the wait for the lock
        usb_priv_drop(priv);
    }
    UsbOperation operation(dev);
    if (operation.usable())
        _shut(dev, operation.priv());
    else
        LOG_WARN("[%s]device no need to closed!\n");
}

bool usb_ll_dev_reset(tqcam_ll_dev_t *dev, uint8_t target)
{
    uint32_t payload = target;
    {
        UsbOperation operation(dev);
        if (!operation.usable())
            return false;
        LOG_TRACE("[%s]rest device (target=%d)\n", target);
        if (target != 3)
            return usb_ll_exe_cmd(dev, true, USB_CMD_DEVICE, USB_DEV_RESET, &payload, sizeof payload,
                                  USB_CMD_TIMEOUT_MS) &&
                   usb_ll_check_last_cmd(dev, USB_CMD_DEVICE, USB_DEV_RESET);
        LOG_TRACE("[%s]Reset usb if (timeout = %d ms) ...\n", 3000);
        usb_ll_exe_cmd(dev, true, USB_CMD_DEVICE, USB_DEV_RESET, &payload, sizeof payload,
                       USB_CMD_TIMEOUT_MS);
        _shut(dev, operation.priv()); // in the same lock: of two resets at once only one goes on
    }
    // The device drops off the bus and comes back on the same port with another address.
    dev->address.usb.addr = 255;
    bool back = false;
    for (int tries = 0; tries < 15 && !back; tries++) {
        usleep(200000);
        back = _usb_ll_dev_open(dev) != nullptr;
    }
    if (!back)
        LOG_WARN("[%s]reopen device failed!\n");
    LOG_TRACE("[%s]Reset usb if end. \n");
    return false;
}
