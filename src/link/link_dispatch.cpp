// The link calls: each forwards to the link that the record belongs to. Nothing here locks or keeps state.
//
// A record finds its link by being offered around: each link's dev_open takes its own address types only and,
// on success, writes its table into the record. From then on every call goes to that table. A record that
// never opened has no table and is treated like a NULL one.
#include "link/link_ops.h"
#include "log/log.h"

namespace {
const tqcam_ll_ops_t *const _links[] = {&usb_ll_ops, &file_ll_ops};

const tqcam_ll_ops_t *_ops(const tqcam_ll_dev_t *dev)
{
    return dev ? dev->ops : nullptr;
}
} // namespace

bool tqcam_ll_init(void)
{
    int index = 0;
    for (const tqcam_ll_ops_t *link : _links) {
        if (!link->init()) {
            LOG_ERROR("[%s]ll_init failed: ll[%d]\n", index);
            return false;
        }
        index++;
    }
    return true;
}

void tqcam_ll_uninit(void)
{
    for (const tqcam_ll_ops_t *link : _links)
        link->uninit();
}

void tqcam_ll_set_debug(int level)
{
    for (const tqcam_ll_ops_t *link : _links)
        link->set_debug(level);
}

int tqcam_ll_dev_list(tqcam_ll_dev_t *list, int max)
{
    if (!list || max < 1)
        return 0;
    int found = 0;
    for (const tqcam_ll_ops_t *link : _links) {
        if (found < max)
            found += link->dev_list(list + found, max - found);
    }
    return found;
}

tqcam_ll_dev_t *tqcam_ll_dev_open(tqcam_ll_dev_t *dev)
{
    if (!dev)
        return nullptr;
    if (dev->ops)
        return dev->ops->dev_open(dev);
    for (const tqcam_ll_ops_t *link : _links) {
        if (tqcam_ll_dev_t *opened = link->dev_open(dev))
            return opened;
    }
    return nullptr;
}

tqcam_ll_dev_t *tqcam_ll_dev_open_by_fd(tqcam_ll_dev_t *dev, int fd)
{
    if (!dev)
        return nullptr;
    if (dev->ops)
        return dev->ops->dev_open_by_fd(dev, fd);
    for (const tqcam_ll_ops_t *link : _links) {
        if (tqcam_ll_dev_t *opened = link->dev_open_by_fd(dev, fd))
            return opened;
    }
    return nullptr;
}

void tqcam_ll_dev_close(tqcam_ll_dev_t *dev)
{
    if (const tqcam_ll_ops_t *ops = _ops(dev))
        ops->dev_close(dev);
}

bool tqcam_ll_dev_reset(tqcam_ll_dev_t *dev, int target)
{
    const tqcam_ll_ops_t *ops = _ops(dev);
    return ops && ops->dev_reset(dev, static_cast<uint8_t>(target));
}

bool tqcam_ll_exe_cmd(tqcam_ll_dev_t *dev, int write, int type, int value, void *data, uint32_t len,
                      uint32_t timeout_ms)
{
    const tqcam_ll_ops_t *ops = _ops(dev);
    return ops && ops->exe_cmd(dev, static_cast<uint8_t>(write), static_cast<uint8_t>(type),
                               static_cast<uint16_t>(value), data, len, timeout_ms);
}

int tqcam_ll_tx_data(tqcam_ll_dev_t *dev, const void *data, uint32_t len)
{
    const tqcam_ll_ops_t *ops = _ops(dev);
    return ops ? ops->tx_data(dev, data, len) : 0;
}

void tqcam_ll_cap_abort(tqcam_ll_dev_t *dev)
{
    if (const tqcam_ll_ops_t *ops = _ops(dev))
        ops->cap_abort(dev);
}

void tqcam_ll_cap_wait(tqcam_ll_dev_t *dev)
{
    if (const tqcam_ll_ops_t *ops = _ops(dev))
        ops->cap_wait(dev);
}

bool tqcam_ll_cap_start(tqcam_ll_dev_t *dev, uint32_t mode, tqcam_ll_rx_cb_t cb, void *arg)
{
    const tqcam_ll_ops_t *ops = _ops(dev);
    return ops && ops->cap_start(dev, mode, cb, arg);
}

bool tqcam_ll_cap_stop(tqcam_ll_dev_t *dev)
{
    const tqcam_ll_ops_t *ops = _ops(dev);
    return ops && ops->cap_stop(dev);
}

int tqcam_ll_cap_seek(tqcam_ll_dev_t *dev, int offset, int origin)
{
    const tqcam_ll_ops_t *ops = _ops(dev);
    return ops && ops->cap_seek ? ops->cap_seek(dev, offset, origin) : -1;
}

bool tqcam_ll_reg_write(tqcam_ll_dev_t *dev, int type, uint32_t addr, const uint32_t *data, int count)
{
    const tqcam_ll_ops_t *ops = _ops(dev);
    return ops && ops->reg_write(dev, static_cast<uint8_t>(type), addr, data, static_cast<uint16_t>(count));
}

bool tqcam_ll_reg_read(tqcam_ll_dev_t *dev, int type, uint32_t addr, uint32_t *data, int count)
{
    const tqcam_ll_ops_t *ops = _ops(dev);
    return ops && ops->reg_read(dev, static_cast<uint8_t>(type), addr, data, static_cast<uint16_t>(count));
}

bool tqcam_ll_param_set(tqcam_ll_dev_t *dev, const tqcam_ll_param_t *items, int count)
{
    const tqcam_ll_ops_t *ops = _ops(dev);
    return ops && ops->param_set(dev, items, count);
}

bool tqcam_ll_param_get(tqcam_ll_dev_t *dev, tqcam_ll_param_t *items, int count)
{
    const tqcam_ll_ops_t *ops = _ops(dev);
    return ops && ops->param_get(dev, items, count);
}

int tqcam_ll_firmware_upgrade(tqcam_ll_dev_t *dev, uint16_t type, uint16_t version, const char *path)
{
    return tqcam_bin_data_write(dev, type, version, 0, path);
}
