// The data transfer as calls on a device handle.
#include "api/device.h"
#include "log/log.h"

static int _wrong_params(const char *caller)
{
    LOG_AS(1, "DBG", caller, "[%s]Wrong params\n");
    return -1;
}

int tqcam_firmware_upgrade(tqcam_dev_t *dev, uint16_t type, uint16_t version, const char *path)
{
    ApiGuard guard(dev);
    if (!guard)
        return _wrong_params(__func__);
    return tqcam_ll_firmware_upgrade(&dev->priv->ll, type, version, path);
}

int tqcam_data_download(tqcam_dev_t *dev, const char *path, uint16_t type, uint16_t version, uint32_t addr)
{
    ApiGuard guard(dev);
    if (!guard)
        return _wrong_params(__func__);
    return tqcam_bin_data_write(&dev->priv->ll, type, version, addr, path);
}

int tqcam_data_upload(tqcam_dev_t *dev, uint16_t type, const char *path)
{
    ApiGuard guard(dev);
    if (!guard)
        return _wrong_params(__func__);
    return tqcam_bin_data_read(&dev->priv->ll, type, path);
}
