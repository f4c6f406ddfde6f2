// Filters, use cases and feature marks: thin layers over the chip driver.
#include <algorithm>
#include <cstring>

#include "tqcam.h"

#include "api/device.h"
#include "drivers/driver.h"
#include "log/log.h"

namespace {

enum { USE_CASE_MAX = 3, FUNC_CNT = 32 };

int _filter(const char *name, tqcam_dev_t *dev, uint32_t filter_id, const tqcam_filter_arg_t *arg,
            bool enable)
{
    ApiGuard guard(dev, name);
    if (!guard)
        return -1;
    tqcam_dev_priv_t *priv = dev->priv;
    if (!priv->drv)
        priv->drv = tqcam_drv_find(&priv->ll);
    const DrvUse drv(priv);
    if (!drv) {
        LOG_AS(6, "ERR", name, "[%s]cannot find driver for device: product=%s\n", dev->product);
        return -1;
    }
    bool ok = false;
    if (enable)
        ok = drv->ops->filter_enable && drv->ops->filter_enable(drv, filter_id, arg);
    else
        ok = drv->ops->filter_disable && drv->ops->filter_disable(drv, filter_id);
    return ok ? 0 : -1;
}

} // namespace

int tqcam_filter_enable(tqcam_dev_t *dev, uint32_t filter_id, const tqcam_filter_arg_t *arg)
{
    return _filter(__func__, dev, filter_id, arg, true);
}

int tqcam_filter_disable(tqcam_dev_t *dev, uint32_t filter_id)
{
    return _filter(__func__, dev, filter_id, nullptr, false);
}

int tqcam_use_case_list(tqcam_dev_t *dev, tqcam_use_case_t *cases, int max)
{
    ApiGuard guard(dev, __func__);
    if (!guard || !cases || max < 1)
        return -1;
    const DrvUse drv(dev->priv);
    return drv && drv->ops->use_case_list ? drv->ops->use_case_list(drv, cases, (uint8_t)max) : -1;
}

int tqcam_get_cur_use_case(tqcam_dev_t *dev, tqcam_use_case_t *out)
{
    ApiGuard guard(dev, __func__);
    if (!guard || !out)
        return -1;
    const DrvUse drv(dev->priv);
    return drv && drv->ops->use_case_get ? drv->ops->use_case_get(drv, out) : -1;
}

int tqcam_use_case_set_uid(tqcam_dev_t *dev, uint32_t index)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return -1;
    tqcam_use_case_t cases[USE_CASE_MAX] = {};
    const int count = std::min<int>(tqcam_use_case_list(dev, cases, USE_CASE_MAX), USE_CASE_MAX);
    if (count < 1)
        return -1;
    if (index >= (uint32_t)count) {
        LOG_ERROR("[%s]Wrong case idx '%d': only have %d cases\n", (int)index, count);
        return -1;
    }
    const tqcam_use_case_t &c = cases[index];
    LOG_DEBUG2("[%s]Set to case#%d '%s': uid, f=%u/%u, fps=%d\n", (int)index, c.name ? c.name : "", c.f0,
               c.f1, c.fps);

    // The device changes its frequency first; the driver hears of the case only when it did.
    tqcam_param_item_t item = {};
    item.param_id = c.f1 ? TQCAM_PARAM_DUAL_FREQ : TQCAM_PARAM_MOD_FREQ;
    item.param_len = c.f1 ? 8 : 4;
    memcpy(item.value, &c.f0, 4);
    if (c.f1)
        memcpy(item.value + 4, &c.f1, 4);
    if (!tqcam_param_batch_set(dev, &item, 1))
        return -1;
    const DrvUse drv(dev->priv);
    return drv && drv->ops->use_case_set ? drv->ops->use_case_set(drv, index) : -1;
}

bool tqcam_func_activate(tqcam_dev_t *dev, uint32_t func)
{
    ApiGuard guard(dev, __func__);
    if (!guard || func >= FUNC_CNT)
        return false;
    dev->priv->func_mask.word.fetch_or(1u << func, std::memory_order_relaxed);
    return true;
}

bool tqcam_func_deactivate(tqcam_dev_t *dev, uint32_t func)
{
    ApiGuard guard(dev, __func__);
    if (!guard || func >= FUNC_CNT)
        return false;
    dev->priv->func_mask.word.fetch_and(~(1u << func), std::memory_order_relaxed);
    return true;
}

bool tqcam_func_activate_status_get(tqcam_dev_t *dev, uint32_t func)
{
    ApiGuard guard(dev, __func__);
    return guard && func < FUNC_CNT && (dev->priv->func_mask >> func & 1);
}
