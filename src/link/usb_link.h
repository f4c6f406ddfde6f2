// The USB link: cameras on the bus through libusb, one context and one event thread for each open device.
//
// lock serialises commands, capture start and stop, and closing. The event thread never takes it, so that
// completions proceed while a command waits for its own. Words that both sides touch are relaxed atomics.
//
// A reset of the USB interface closes the link and opens it again while other threads may use it. Whoever
// uses the private state holds it therefore, and the last to let go frees it: a command that waited for the
// lock of a state that was closed meanwhile finds it unusable and fails.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <libusb-1.0/libusb.h>
#include <mutex>
#include <pthread.h>

#include "link/link_ops.h"
#include "util/relaxed.h"

constexpr uint16_t USB_ID_VENDOR = 0x111B, USB_ID_PRODUCT = 0x1238;
constexpr int USB_RING = 16;           // bulk IN transfers in flight
constexpr int USB_RING_BYTES = 153600; // of each
constexpr uint32_t USB_BULK_TIMEOUT_MS = 8500, USB_CMD_TIMEOUT_MS = 1000;
constexpr int USB_CMD_WAIT_MS = 2000; // a command is given up after this, whatever its own time-out says
constexpr uint32_t USB_REGS_PER_CMD = 14;
constexpr int USB_PARAMS_PER_CMD = 2;

// Command types and values.
enum {
    USB_CMD_STATUS = 0xB0,
    USB_CMD_DEVICE = 0xC0, // with USB_DEV_...
    USB_CMD_SENSOR = 0xC2, // with USB_SENSOR_...
    USB_DEV_RESET = 0,
    USB_DEV_PARAM_SET = 3,
    USB_DEV_PARAM_GET = 4,
    USB_SENSOR_REG_WRITE = 0,
    USB_SENSOR_REG_READ = 1,
    USB_SENSOR_CAP_START = 4,
    USB_SENSOR_CAP_STOP = 5,
};

struct usb_ll_rx_buf_t {
    tqcam_ll_dev_t *dev;
    relaxed_t<uint8_t> issued; // the transfer is with libusb
    uint32_t size;
    uint8_t data[USB_RING_BYTES];
};

struct usb_ll_priv_t {
    libusb_context *ctx;
    libusb_device_handle *handle;
    std::array<libusb_transfer *, USB_RING> trans;
    std::array<usb_ll_rx_buf_t *, USB_RING> bufs;
    relaxed_t<uint8_t> stop; // 1 while no capture runs; set before cancel, cleared at start
    tqcam_ll_rx_cb_t on_rx;
    void *on_rx_arg;
    uint8_t ep_din, ep_dout, inf_idx;
    pthread_t thread;
    bool thread_started;
    std::atomic<int> exit;             // the event loop must end; also libusb's completed word
    relaxed_t<uint8_t> running;        // the event thread is in its loop
    relaxed_t<uint8_t> closing;        // somebody waits to close: endless answers of "busy" end
    relaxed_t<uint32_t> in_flight;     // commands that libusb still holds
    relaxed_t<uint32_t> errors_in_row; // failed ring transfers since the last good one
    pthread_mutex_t lock;
    int holders; // usb_open.cpp
};

// The state of a record whose link is kept open: by its lock, or because a transfer is under way.
inline usb_ll_priv_t *usb_priv(const tqcam_ll_dev_t *dev)
{
    std::atomic_ref<void *> word(const_cast<tqcam_ll_dev_t *>(dev)->priv);
    return static_cast<usb_ll_priv_t *>(word.load(std::memory_order_relaxed));
}

// The record's state, which stands until it is dropped; nullptr when the link is closed.
usb_ll_priv_t *usb_priv_hold(tqcam_ll_dev_t *dev);
void usb_priv_drop(usb_ll_priv_t *priv);

// Holds lock for one operation and says whether the device is usable in it.
class UsbOperation {
  public:
    explicit UsbOperation(tqcam_ll_dev_t *dev) : priv_(usb_priv_hold(dev))
    {
        if (priv_)
            pthread_mutex_lock(&priv_->lock);
    }
    ~UsbOperation()
    {
        if (!priv_)
            return;
        pthread_mutex_unlock(&priv_->lock);
        usb_priv_drop(priv_);
    }
    UsbOperation(const UsbOperation &) = delete;
    UsbOperation &operator=(const UsbOperation &) = delete;

    bool usable() const
    {
        return priv_ && priv_->ctx && priv_->handle && priv_->exit.load(std::memory_order_relaxed) == 0;
    }
    usb_ll_priv_t *priv() const { return priv_; }

  private:
    usb_ll_priv_t *priv_;
};

// usb_open.cpp
extern relaxed_t<int> usb_log_level; // libusb's level for contexts created from here on
int usb_ll_dev_list(tqcam_ll_dev_t *list, int max);
tqcam_ll_dev_t *usb_ll_dev_open(tqcam_ll_dev_t *dev);
tqcam_ll_dev_t *usb_ll_dev_open_by_fd(tqcam_ll_dev_t *dev, int fd);
tqcam_ll_dev_t *_usb_ll_dev_open(tqcam_ll_dev_t *dev);
void usb_ll_dev_close(tqcam_ll_dev_t *dev);
bool usb_ll_dev_reset(tqcam_ll_dev_t *dev, uint8_t target);

// usb_command.cpp; the first two with lock held
bool usb_ll_exe_cmd(tqcam_ll_dev_t *dev, bool write, uint8_t type, uint16_t value, void *data, uint32_t len,
                    uint32_t timeout_ms);
bool usb_ll_check_last_cmd(tqcam_ll_dev_t *dev, uint8_t type, uint8_t value);
bool usb_ll_cmd(tqcam_ll_dev_t *dev, uint8_t write, uint8_t type, uint16_t value, void *data, uint32_t len,
                uint32_t timeout_ms);
int usb_ll_tx_data(tqcam_ll_dev_t *dev, const void *data, uint32_t len);

// usb_params.cpp
bool usb_ll_param_set(tqcam_ll_dev_t *dev, const tqcam_ll_param_t *items, int count);
bool usb_ll_param_get(tqcam_ll_dev_t *dev, tqcam_ll_param_t *items, int count);
bool usb_ll_reg_write(tqcam_ll_dev_t *dev, uint8_t type, uint32_t addr, const uint32_t *data, uint16_t count);
bool usb_ll_reg_read(tqcam_ll_dev_t *dev, uint8_t type, uint32_t addr, uint32_t *data, uint16_t count);

// usb_capture.cpp
bool usb_ll_cap_start(tqcam_ll_dev_t *dev, uint32_t mode, tqcam_ll_rx_cb_t cb, void *arg);
bool usb_ll_cap_stop(tqcam_ll_dev_t *dev);
void usb_ll_cap_abort(tqcam_ll_dev_t *dev);
void usb_ring_cancel(tqcam_ll_dev_t *dev, const char *caller);
