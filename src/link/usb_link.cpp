// The USB link. It finds no cameras yet: a listing is empty, an open is refused, and every call on a record
// says that there is no device. The rest of the library is complete without it and works on replay files.
#include "link/link_ops.h"

namespace {
bool _usb_ll_init()
{
    return true;
}
void _usb_ll_uninit() {}
void _usb_ll_set_debug(int) {}

tqcam_ll_dev_t *_usb_ll_dev_open(tqcam_ll_dev_t *)
{
    return nullptr;
}
tqcam_ll_dev_t *_usb_ll_dev_open_by_fd(tqcam_ll_dev_t *, int)
{
    return nullptr;
}
void _usb_ll_dev_close(tqcam_ll_dev_t *) {}
int _usb_ll_dev_list(tqcam_ll_dev_t *, int)
{
    return 0;
}

bool _usb_ll_cmd(tqcam_ll_dev_t *, uint8_t, uint8_t, uint16_t, void *, uint32_t, uint32_t)
{
    return false;
}
int _usb_ll_tx_data(tqcam_ll_dev_t *, const void *, uint32_t)
{
    return -1;
}

void _usb_ll_cap_abort(tqcam_ll_dev_t *) {}
void _usb_ll_cap_wait(tqcam_ll_dev_t *) {}
bool _usb_ll_cap_start(tqcam_ll_dev_t *, uint32_t, tqcam_ll_rx_cb_t, void *)
{
    return false;
}
bool _usb_ll_cap_stop(tqcam_ll_dev_t *)
{
    return false;
}

bool _usb_ll_dev_reset(tqcam_ll_dev_t *, uint8_t)
{
    return false;
}
bool _usb_ll_reg_write(tqcam_ll_dev_t *, uint8_t, uint32_t, const uint32_t *, uint16_t)
{
    return false;
}
bool _usb_ll_reg_read(tqcam_ll_dev_t *, uint8_t, uint32_t, uint32_t *, uint16_t)
{
    return false;
}
bool _usb_ll_param_set(tqcam_ll_dev_t *, const tqcam_ll_param_t *, int)
{
    return false;
}
bool _usb_ll_param_get(tqcam_ll_dev_t *, tqcam_ll_param_t *, int)
{
    return false;
}
} // namespace

const tqcam_ll_ops_t usb_ll_ops = {
    .init = _usb_ll_init,
    .uninit = _usb_ll_uninit,
    .set_debug = _usb_ll_set_debug,
    .dev_open = _usb_ll_dev_open,
    .dev_open_by_fd = _usb_ll_dev_open_by_fd,
    .dev_close = _usb_ll_dev_close,
    .dev_list = _usb_ll_dev_list,
    .exe_cmd = _usb_ll_cmd,
    .tx_data = _usb_ll_tx_data,
    .cap_abort = _usb_ll_cap_abort,
    .cap_wait = _usb_ll_cap_wait,
    .cap_start = _usb_ll_cap_start,
    .cap_stop = _usb_ll_cap_stop,
    .cap_seek = nullptr,
    .dev_reset = _usb_ll_dev_reset,
    .reg_write = _usb_ll_reg_write,
    .reg_read = _usb_ll_reg_read,
    .param_set = _usb_ll_param_set,
    .param_get = _usb_ll_param_get,
};
