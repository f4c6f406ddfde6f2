// Commands over the control endpoint with their confirmation, and bulk data to the device.
#include "link/usb_link.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>

#include "log/log.h"

// One transfer that a caller waits for. Caller and completion both hold it; the last one to let go frees it,
// so that a completion after the caller gave up finds its memory still there.
struct usb_wait_t {
    libusb_transfer *transfer = nullptr;
    uint8_t *buffer = nullptr;
    relaxed_t<uint32_t> *in_flight = nullptr;
    std::mutex mutex;
    std::condition_variable cond;
    bool done = false;
    std::atomic<int> holders{1};
};

static void _wait_release(usb_wait_t *wait)
{
    if (wait->holders.fetch_sub(1) != 1)
        return;
    libusb_free_transfer(wait->transfer);
    std::free(wait->buffer);
    delete wait;
}

static void _usb_ll_on_cmd_finish(libusb_transfer *transfer)
{
    LOG_TRACE("[%s]tx actual_len = %d, status  = %d\n", transfer->actual_length, transfer->status);
    auto *wait = static_cast<usb_wait_t *>(transfer->user_data);
    *wait->in_flight += static_cast<uint32_t>(-1);
    {
        std::lock_guard<std::mutex> guard(wait->mutex);
        wait->done = true;
        wait->cond.notify_one();
    }
    _wait_release(wait);
}

static usb_wait_t *_wait_create(usb_ll_priv_t *priv, size_t bytes)
{
    auto *wait = new (std::nothrow) usb_wait_t();
    if (!wait)
        return nullptr;
    wait->transfer = libusb_alloc_transfer(0);
    wait->buffer = static_cast<uint8_t *>(std::calloc(1, bytes));
    wait->in_flight = &priv->in_flight;
    if (wait->transfer && wait->buffer)
        return wait;
    _wait_release(wait);
    return nullptr;
}

static int _wait_submit(usb_wait_t *wait)
{
    wait->holders = 2;
    *wait->in_flight += 1;
    const int r = libusb_submit_transfer(wait->transfer);
    if (r != 0) { // no completion comes
        *wait->in_flight += static_cast<uint32_t>(-1);
        wait->holders = 1;
    }
    return r;
}

static bool _wait_for(usb_wait_t *wait, int ms)
{
    std::unique_lock<std::mutex> guard(wait->mutex);
    return wait->cond.wait_until(guard, std::chrono::steady_clock::now() + std::chrono::milliseconds(ms),
                                 [wait] { return wait->done; });
}

// After a cancel the completion is due at once; one that doesn't come keeps its own memory.
static void _wait_give_up(usb_wait_t *wait)
{
    libusb_cancel_transfer(wait->transfer);
    _wait_for(wait, 1000);
}

static int _status_to_result(const libusb_transfer *transfer, const char *caller)
{
    switch (transfer->status) {
    case LIBUSB_TRANSFER_COMPLETED:
        return transfer->actual_length;
    case LIBUSB_TRANSFER_ERROR:
    case LIBUSB_TRANSFER_CANCELLED:
        return LIBUSB_ERROR_IO;
    case LIBUSB_TRANSFER_TIMED_OUT:
        return LIBUSB_ERROR_TIMEOUT;
    case LIBUSB_TRANSFER_STALL:
        return LIBUSB_ERROR_PIPE;
    case LIBUSB_TRANSFER_NO_DEVICE:
        return LIBUSB_ERROR_NO_DEVICE;
    case LIBUSB_TRANSFER_OVERFLOW:
        return LIBUSB_ERROR_OVERFLOW;
    default:
        if (log_passes(TQ_LOG_WARN))
            tq_log(nullptr, TQ_LOG_WARN, "WRN", "[%s]unrecognised status code %d", caller, transfer->status);
        return LIBUSB_ERROR_OTHER;
    }
}

bool usb_ll_exe_cmd(tqcam_ll_dev_t *dev, bool write, uint8_t type, uint16_t value, void *data, uint32_t len,
                    uint32_t timeout_ms)
{
    usb_ll_priv_t *priv = usb_priv(dev);
    if (!priv || !priv->handle) {
        LOG_ERROR("[%s] USB handler Is NULL!\r\n");
        return false;
    }
    if (len > 0xFFFF || (len > 0 && !data)) {
        LOG_ERROR("[%s]exe usb cmd failed: %s\n", libusb_error_name(LIBUSB_ERROR_INVALID_PARAM));
        return false; // the setup block holds 16 bits of length
    }
    usb_wait_t *wait = _wait_create(priv, LIBUSB_CONTROL_SETUP_SIZE + len);
    if (!wait) {
        LOG_ERROR("[%s]no memory\n");
        return false;
    }
    const uint8_t request_type = write ? 0x22 : 0xA2; // class request to an endpoint, out or in
    libusb_fill_control_setup(wait->buffer, request_type, type, value, 0, static_cast<uint16_t>(len));
    if (write && len > 0)
        std::memcpy(wait->buffer + LIBUSB_CONTROL_SETUP_SIZE, data, len);
    libusb_fill_control_transfer(wait->transfer, priv->handle, wait->buffer, _usb_ll_on_cmd_finish, wait,
                                 timeout_ms);
    int r = _wait_submit(wait);
    if (r != 0) {
        LOG_ERROR("[%s]libusb_submit_transfer failed: r = %d (%s)\n", r, libusb_error_name(r));
        _wait_release(wait);
        return false;
    }
    if (_wait_for(wait, USB_CMD_WAIT_MS)) {
        const int got = wait->transfer->actual_length;
        if (!write && got > 0)
            std::memcpy(data, wait->buffer + LIBUSB_CONTROL_SETUP_SIZE,
                        static_cast<uint32_t>(got) < len ? static_cast<uint32_t>(got) : len);
        r = _status_to_result(wait->transfer, __func__);
    } else {
        LOG_DEBUG("[%s]control transfer timeout !\n");
        _wait_give_up(wait);
        r = LIBUSB_ERROR_TIMEOUT;
    }
    _wait_release(wait);
    if (r == static_cast<int>(len))
        return true;
    LOG_ERROR("[%s]exe usb cmd failed: %s\n", libusb_error_name(r));
    return false;
}

bool usb_ll_check_last_cmd(tqcam_ll_dev_t *dev, uint8_t type, uint8_t value)
{
    struct {
        uint8_t status, type, value;
        char message[57 + 1]; // the device's text need not end in NUL
    } record;
    for (;;) {
        record = {};
        if (!usb_ll_exe_cmd(dev, false, USB_CMD_STATUS, 0, &record, 60, USB_CMD_TIMEOUT_MS))
            return false;
        if (record.type != type || record.value != value) {
            LOG_WARN("[%s] last cmd (t=0x%x,v=0x%x) is not as expect(t=0x%x,v=0x%x)\r\n", record.type,
                     record.value, type, value);
            return false;
        }
        if (record.status == 0xFF) {
            LOG_ERROR("[%s]%s\n", record.message);
            return false;
        }
        if (record.status != 0xFE)
            return true;
        if (usb_priv(dev)->closing)
            return false; // a device that is busy for good must not keep its own close waiting
    }
}

bool usb_ll_cmd(tqcam_ll_dev_t *dev, uint8_t write, uint8_t type, uint16_t value, void *data, uint32_t len,
                uint32_t timeout_ms)
{
    UsbOperation operation(dev);
    if (!operation.usable())
        return false;
    const auto confirm = static_cast<uint8_t>(value & 255);
    if (!usb_ll_exe_cmd(dev, true, type, value, data, len, timeout_ms) ||
        !usb_ll_check_last_cmd(dev, type, confirm))
        return false;
    return write || (usb_ll_exe_cmd(dev, false, type, value, data, len, timeout_ms) &&
                     usb_ll_check_last_cmd(dev, type, confirm));
}

int usb_ll_tx_data(tqcam_ll_dev_t *dev, const void *data, uint32_t len)
{
    UsbOperation operation(dev);
    if (!operation.usable())
        return LIBUSB_ERROR_NO_DEVICE;
    if (!data || len > INT32_MAX)
        return LIBUSB_ERROR_INVALID_PARAM;
    usb_ll_priv_t *priv = usb_priv(dev);
    usb_wait_t *wait = _wait_create(priv, len > 0 ? len : 1);
    if (!wait) {
        LOG_ERROR("[%s]no memory\n");
        return 0;
    }
    std::memcpy(wait->buffer, data, len);
    libusb_fill_bulk_transfer(wait->transfer, priv->handle, priv->ep_dout, wait->buffer,
                              static_cast<int>(len), _usb_ll_on_cmd_finish, wait, USB_BULK_TIMEOUT_MS);
    LOG_TRACE("[%s]trans[%d] issue: txlen=%d\n", 0, static_cast<int>(len));
    int r = _wait_submit(wait);
    if (r != 0) {
        LOG_ERROR("[%s]trans[%d] issue failed\n", 0);
        _wait_release(wait);
        return r;
    }
    // libusb ends the transfer after its own time-out; the second on top is for a completion that got lost.
    bool done = false;
    for (uint32_t ms = 0; ms < USB_BULK_TIMEOUT_MS + 1000 && !done; ms += 100)
        done = _wait_for(wait, 100);
    if (done) {
        r = _status_to_result(wait->transfer, __func__);
    } else {
        _wait_give_up(wait);
        r = LIBUSB_ERROR_TIMEOUT;
    }
    _wait_release(wait);
    // A halted pipe stays so until somebody clears it, and the caller's next try would fail as well.
    if (r == LIBUSB_ERROR_PIPE && libusb_clear_halt(priv->handle, priv->ep_dout) != 0)
        LOG_ERROR("[%s] Clear halt failed on EP: %0x!\r\n", priv->ep_dout);
    return r;
}
