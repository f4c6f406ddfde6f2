// The ring of bulk IN transfers that carries the camera's stream to the capture engine.
#include "link/usb_link.h"

#include <unistd.h>

#include "log/log.h"

static int _slot_of(const usb_ll_priv_t *priv, const libusb_transfer *transfer)
{
    for (int i = 0; i < USB_RING; i++)
        if (priv->trans[i] == transfer)
            return i;
    return -1;
}

static void on_usb_trans_event(libusb_transfer *transfer)
{
    auto *buf = static_cast<usb_ll_rx_buf_t *>(transfer->user_data);
    tqcam_ll_dev_t *dev = buf->dev;
    usb_ll_priv_t *priv = usb_priv(dev);
    const int slot = _slot_of(priv, transfer);
    LOG_TRACE("[%s]trans[%d]: txlen=%d, status = %d\n", slot, transfer->actual_length, transfer->status);
    int32_t code = 0;
    bool tell = true, gone = false;
    switch (transfer->status) {
    case LIBUSB_TRANSFER_COMPLETED:
        priv->errors_in_row = 0;
        break;
    case LIBUSB_TRANSFER_CANCELLED:
        LOG_TRACE("[%s]trans[%d] cancelled (last_tx=%d)\n", slot, transfer->actual_length);
        break;
    case LIBUSB_TRANSFER_TIMED_OUT:
        code = TQCAM_ERR_CAP_TIMEOUT;
        LOG_DEBUG("[%s]trans[%d] timeout (last_tx=%d)\n", slot, transfer->actual_length);
        break;
    case LIBUSB_TRANSFER_STALL:
        code = TQCAM_ERR_CAP_STALL;
        LOG_WARN("[%s]trans[%d] stall (last_tx=%d)\n", slot, transfer->actual_length);
        if (libusb_clear_halt(transfer->dev_handle, priv->ep_din) != 0)
            LOG_ERROR("[%s] Clear halt failed on EP: %0x!\r\n", priv->ep_din);
        break;
    default:
        code = TQCAM_ERR_CAP_UNKNOWN;
        LOG_WARN("[%s]trans[%d] error (%d) (last_tx=%d)\n", slot, transfer->status, transfer->actual_length);
        // An unplug ends every slot, as "no device" or as "error": the sink hears of it once, and a ring that
        // brings nothing but errors is not fed again.
        tell = ++priv->errors_in_row == 1;
        gone = transfer->status == LIBUSB_TRANSFER_NO_DEVICE || priv->errors_in_row >= USB_RING;
        break;
    }
    if (gone)
        priv->stop = 1;
    if (priv->on_rx && tell)
        priv->on_rx(dev, code, buf->data, static_cast<uint32_t>(transfer->actual_length), priv->on_rx_arg);
    // Only this link cancels, and never to go on: also when a start was refused, and stop is not set.
    if (transfer->length <= 0 || priv->stop || transfer->status == LIBUSB_TRANSFER_CANCELLED) {
        buf->issued = 0;
        return;
    }
    LOG_TRACE("[%s]trans[%d] issue: size=%d \n", slot, transfer->length);
    transfer->timeout = USB_BULK_TIMEOUT_MS;
    buf->issued = 1;
    const int r = libusb_submit_transfer(transfer);
    if (r != 0) {
        buf->issued = 0;
        LOG_ERROR("[%s]Unable to submit URB. libusb error code: %d\n", r);
    } else if (priv->stop) { // set meanwhile, and its cancels may have come before this submit
        libusb_cancel_transfer(transfer);
    }
}

void usb_ring_cancel(tqcam_ll_dev_t *dev, const char *caller)
{
    usb_ll_priv_t *priv = usb_priv(dev);
    for (int i = 0; i < USB_RING; i++) {
        if (!priv->bufs[i]->issued)
            continue;
        const int r = libusb_cancel_transfer(priv->trans[i]);
        if (log_passes(TQ_LOG_TRACE))
            tq_log(nullptr, TQ_LOG_TRACE, "TRC", "[%s]trans[%d] cancel: status=%d\n", caller, i, r);
    }
}

// Transfers of the last run may still be on their way back. One that is must not be touched, so a start waits
// for them with the ring stopped; they come within milliseconds of their cancel.
static void _wait_for_ring(usb_ll_priv_t *priv)
{
    priv->stop = 1;
    for (int ms = 0; ms < 1000 && priv->running; ms++) {
        bool all_back = true;
        for (const usb_ll_rx_buf_t *buf : priv->bufs)
            all_back = all_back && !buf->issued;
        if (all_back)
            return;
        usleep(1000);
    }
}

bool usb_ll_cap_start(tqcam_ll_dev_t *dev, uint32_t mode, tqcam_ll_rx_cb_t cb, void *arg)
{
    UsbOperation operation(dev);
    if (!operation.usable())
        return false;
    usb_ll_priv_t *priv = usb_priv(dev);
    LOG_TRACE("[%s]Enter: stop status = %d\n", static_cast<int>(priv->stop));
    _wait_for_ring(priv);
    priv->stop = 0;
    if (libusb_clear_halt(priv->handle, priv->ep_din) != 0)
        LOG_ERROR("[%s] Clear halt failed on EP: %0x!\r\n", priv->ep_din);
    priv->on_rx = cb;
    priv->on_rx_arg = arg;
    priv->errors_in_row = 0;
    for (int i = 0; i < USB_RING; i++) {
        if (priv->bufs[i]->issued) {
            LOG_ERROR("[%s]trans[%d] issue failed\n", i);
            continue;
        }
        libusb_fill_bulk_transfer(priv->trans[i], priv->handle, priv->ep_din, priv->bufs[i]->data,
                                  USB_RING_BYTES, on_usb_trans_event, priv->bufs[i], USB_BULK_TIMEOUT_MS);
        priv->bufs[i]->issued = 1;
        if (libusb_submit_transfer(priv->trans[i]) != 0) {
            priv->bufs[i]->issued = 0;
            LOG_ERROR("[%s]trans[%d] issue failed\n", i);
            continue;
        }
        LOG_TRACE("[%s]trans[%d] issue: txlen=%d\n", i, USB_RING_BYTES);
    }
    if (usb_ll_exe_cmd(dev, true, USB_CMD_SENSOR, USB_SENSOR_CAP_START, &mode, sizeof mode,
                       USB_CMD_TIMEOUT_MS) &&
        usb_ll_check_last_cmd(dev, USB_CMD_SENSOR, USB_SENSOR_CAP_START))
        return true;
    LOG_AS(5, "WRN", __func__, "[%s]tqcam_ll_cap_start failed\n");
    usb_ring_cancel(dev, __func__);
    return false;
}

bool usb_ll_cap_stop(tqcam_ll_dev_t *dev)
{
    UsbOperation operation(dev);
    if (!operation.usable())
        return false;
    usb_ll_priv_t *priv = usb_priv(dev);
    LOG_DEBUG("[%s]Enter: stop status = %d\n", static_cast<int>(priv->stop));
    priv->stop = 1;
    usb_ring_cancel(dev, __func__);
    uint8_t payload = USB_CMD_SENSOR;
    return usb_ll_exe_cmd(dev, true, USB_CMD_SENSOR, USB_SENSOR_CAP_STOP, &payload, sizeof payload,
                          USB_CMD_TIMEOUT_MS) &&
           usb_ll_check_last_cmd(dev, USB_CMD_SENSOR, USB_SENSOR_CAP_STOP);
}

void usb_ll_cap_abort(tqcam_ll_dev_t *dev)
{
    if (usb_ll_priv_t *priv = usb_priv_hold(dev)) {
        priv->stop = 1;
        usb_priv_drop(priv);
    }
}
