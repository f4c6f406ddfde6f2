// The USB link's table of operations.
#include "link/usb_link.h"

static void _usb_ll_set_debug(int level)
{
    static constexpr int to_libusb[] = {4, 4, 3, 2, 1};
    usb_log_level = level >= 0 && level < 5 ? to_libusb[level] : 0;
}

const tqcam_ll_ops_t usb_ll_ops = {
    .init = [] { return true; },
    .uninit = [] {},
    .set_debug = _usb_ll_set_debug,
    .dev_open = usb_ll_dev_open,
    .dev_open_by_fd = usb_ll_dev_open_by_fd,
    .dev_close = usb_ll_dev_close,
    .dev_list = usb_ll_dev_list,
    .exe_cmd = usb_ll_cmd,
    .tx_data = usb_ll_tx_data,
    .cap_abort = usb_ll_cap_abort,
    .cap_wait = [](tqcam_ll_dev_t *) {},
    .cap_start = usb_ll_cap_start,
    .cap_stop = usb_ll_cap_stop,
    .cap_seek = nullptr, // tqcam_cap_seek_frame refuses a USB device
    .dev_reset = usb_ll_dev_reset,
    .reg_write = usb_ll_reg_write,
    .reg_read = usb_ll_reg_read,
    .param_set = usb_ll_param_set,
    .param_get = usb_ll_param_get,
};
