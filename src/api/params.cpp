// Parameters and registers: batches go to the link, and what the device took is then mirrored: to the private
// copies that capture reads, to the chip driver, and into a running recording.
#include "api/params.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "api/device.h"
#include "api/recording.h"
#include "drivers/driver.h"
#include "log/log.h"

namespace {
enum { PARAM_ID_18 = 18, PARAM_ID_171 = 171 }; // 171 is sent as 18 and has no effect here

std::unique_ptr<tqcam_ll_param_t[]> _new_records(const tqcam_param_item_t *items, int count)
{
    if (count < 0 || (!items && count > 0))
        return nullptr;
    return std::unique_ptr<tqcam_ll_param_t[]>(new (std::nothrow)
                                                   tqcam_ll_param_t[static_cast<size_t>(count)]());
}

// What the library does about a parameter that the device took. Names the lines after the exported call.
class Reaction {
  public:
    Reaction(tqcam_dev_t *dev, const tqcam_param_item_t &item, const char *caller)
        : dev_(dev), priv_(dev->priv), drv_(dev->priv), item_(item), caller_(caller)
    {
    }
    void run();

  private:
    const tqcam_drv_ops_t *ops() const { return drv_ ? drv_->ops : nullptr; }
    uint32_t u32(unsigned at) const { return param_u32(item_, at); }
    uint16_t u16(unsigned at) const { return param_u16(item_, at); }
    void fps();
    void intg(int index);
    void format();
    void mod_freq();
    void dual_freq();
    void roi();

    tqcam_dev_t *dev_;
    tqcam_dev_priv_t *priv_;
    const DrvUse drv_;
    const tqcam_param_item_t &item_;
    const char *caller_;
};

void Reaction::fps()
{
    const uint32_t value = u32(0);
    LOG_AS(2, "DBG", caller_, "[%s]Set FPS:%d\n", static_cast<int>(value));
    if (value == 0) // a replay is stepped frame by frame; its rate stays what it was
        return;
    priv_->fps = value;
    if (ops() && ops()->on_update_fps)
        ops()->on_update_fps(drv_, value);
    rec_prop_int(dev_, "TQ_FRAME_FPS", value);
}

void Reaction::intg(int index)
{
    const bool pair = index == 0 && item_.param_len == 8;
    const uint32_t value = pair ? u32(0) : u16(0);
    if (index == 0) {
        LOG_AS(2, "DBG", caller_, "[%s]Set INTG1: %d\n", static_cast<int>(value));
        priv_->intg_us = value;
    } else {
        LOG_AS(2, "DBG", caller_, "[%s]Set INTG2: %d\n", static_cast<int>(value));
        priv_->intg2_us = value;
    }
    if (ops() && ops()->on_update_intg_time)
        ops()->on_update_intg_time(drv_, value, index);
    rec_prop_int(dev_, index == 0 ? "TQ_CONF_INTG1_US" : "TQ_CONF_INTG2_US", value);
}

void Reaction::format()
{
    const uint32_t value = u32(0);
    LOG_AS(2, "DBG", caller_, "[%s]Set FRM_FMT: %d\n", static_cast<int>(value));
    priv_->frame_fmt = value;
    if (ops() && ops()->on_update_fmt)
        ops()->on_update_fmt(drv_, value);
    rec_prop_int(dev_, "TQ_FRAME_FMT", value);
}

void Reaction::mod_freq()
{
    const uint32_t value = u32(0);
    LOG_AS(2, "DBG", caller_, "[%s]Set MOD_FREQ: %d\n", static_cast<int>(value));
    priv_->mod_freq = value;
    priv_->dual_freq0 = value;
    if (ops() && ops()->on_update_mod_freq)
        ops()->on_update_mod_freq(drv_, value, 0, 0);
    rec_prop_int(dev_, "TQ_FRAME_MOD_FREQ", value);
}

// The pair counts only for a driver that can take it; mod_freq stays the single frequency set last.
void Reaction::dual_freq()
{
    const uint32_t f0 = u32(0), f1 = u32(4);
    LOG_AS(2, "DBG", caller_, "[%s]Set DUAL-FREQ: %u, %u\n", f0, f1);
    if (!ops() || !ops()->on_update_mod_freq)
        return;
    priv_->dual_freq0 = f0;
    priv_->dual_freq1 = f1;
    ops()->on_update_mod_freq(drv_, f0, f1, 0);
    rec_prop_int(dev_, "TQ_FRAME_MOD_FREQ", f0);
    rec_prop_int(dev_, "TQ_FRAME_MOD_FREQ1", f1);
}

void Reaction::roi()
{
    LOG_AS(2, "DBG", caller_, "[%s]Set ROI: TL @ [%u, %u], BR @ [%u, %u], bin=%d\n", u16(4), u16(0), u16(6),
           u16(2), item_.value[8]);
    if (ops() && ops()->on_update_roi)
        ops()->on_update_roi(drv_, item_.value);
    rec_prop_general(dev_, "TQ_FRAME_ROI_INFO", item_.value, 13);
}

void Reaction::run()
{
    switch (item_.param_id & 0xFF) { // the byte that reached the device
    case TQCAM_PARAM_DEV_MODE:
        LOG_AS(2, "DBG", caller_, "[%s]Set DEV_MOD: %d\n", static_cast<int>(u32(0)));
        priv_->dev_mode = u32(0);
        break;
    case TQCAM_PARAM_CAP_MODE:
        LOG_AS(2, "DBG", caller_, "[%s]Set DEV_CAP_MOD: %d %d\n", static_cast<int>(u32(0)),
               static_cast<int>(u32(4)));
        priv_->cap_mode = u32(0);
        break;
    case TQCAM_PARAM_FPS:
        return fps();
    case TQCAM_PARAM_INTG1:
        return intg(0);
    case TQCAM_PARAM_INTG2:
        return intg(1);
    case TQCAM_PARAM_FORMAT:
        return format();
    case TQCAM_PARAM_MOD_FREQ:
        return mod_freq();
    case TQCAM_PARAM_GRAY_DIV:
        if (ops() && ops()->on_update_gray_div)
            ops()->on_update_gray_div(drv_, u16(0));
        break;
    case TQCAM_PARAM_DUAL_FREQ:
        return dual_freq();
    case TQCAM_PARAM_ROI:
        return roi();
    default: // passed through untouched
        break;
    }
}

// The link before anything here: a value that the device refuses has no effect on the library.
bool _tqcam_param_batch_set(tqcam_dev_t *dev, const tqcam_param_item_t *items, int count)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    const auto records = _new_records(items, count);
    if (!records)
        return false;
    for (int i = 0; i < count; i++) {
        const uint8_t id = static_cast<uint8_t>(items[i].param_id);
        records[i].id = id == PARAM_ID_171 ? static_cast<uint8_t>(PARAM_ID_18) : id;
        records[i].len = items[i].param_len;
        memcpy(records[i].value, items[i].value, sizeof(records[i].value));
    }
    LOG_TRACE("[%s]set %d param\n", count);
    if (!tqcam_ll_param_set(&dev->priv->ll, records.get(), count))
        return false;
    for (int i = 0; i < count; i++)
        Reaction(dev, items[i], __func__).run();
    return true;
}
} // namespace

uint16_t param_u16(const tqcam_param_item_t &item, unsigned at)
{
    return static_cast<uint16_t>(item.value[at] | item.value[at + 1] << 8);
}

uint32_t param_u32(const tqcam_param_item_t &item, unsigned at)
{
    return param_u16(item, at) | static_cast<uint32_t>(param_u16(item, at + 2)) << 16;
}

bool _tqcam_param_batch_get(tqcam_dev_t *dev, tqcam_param_item_t *items, int count)
{
    const auto records = _new_records(items, count);
    if (!records)
        return false;
    for (int i = 0; i < count; i++) {
        records[i].id = static_cast<uint8_t>(items[i].param_id);
        records[i].len = items[i].param_len;
    }
    LOG_TRACE("[%s]get %d param\n", count);
    if (!tqcam_ll_param_get(&dev->priv->ll, records.get(), count))
        return false;
    for (int i = 0; i < count; i++) {
        items[i].param_len = records[i].len;
        memcpy(items[i].value, records[i].value, sizeof(items[i].value));
    }
    return true;
}

bool tqcam_param_batch_set(tqcam_dev_t *dev, const tqcam_param_item_t *items, int count)
{
    return _tqcam_param_batch_set(dev, items, count);
}

bool tqcam_param_batch_get(tqcam_dev_t *dev, tqcam_param_item_t *items, int count)
{
    ApiGuard guard(dev, __func__);
    return guard && _tqcam_param_batch_get(dev, items, count);
}

bool tqcam_reg_batch_write(tqcam_dev_t *dev, int target, uint32_t reg_base, const uint32_t *values, int count)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    LOG_TRACE("[%s]target=%d,reg_base=%d,reg_cnt=%d,val_buf=%p\n", target, static_cast<int>(reg_base), count,
              static_cast<const void *>(values));
    if (count < 0 || (!values && count > 0)) // cut to 16 bits a negative count would be a large one
        return false;
    return tqcam_ll_reg_write(&dev->priv->ll, target & 0xFF, reg_base, values, count & 0xFFFF);
}

bool tqcam_reg_batch_read(tqcam_dev_t *dev, int target, uint32_t reg_base, uint32_t *values, int count)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    LOG_TRACE("[%s]target=%d,reg_base=%d,reg_cnt=%d,val_buf=%p\n", target, static_cast<int>(reg_base), count,
              static_cast<void *>(values));
    if (count < 0 || (!values && count > 0))
        return false;
    return tqcam_ll_reg_read(&dev->priv->ll, target & 0xFF, reg_base, values, count & 0xFFFF);
}

uint32_t tq_priv_get_fps(tqcam_dev_t *dev)
{
    DevPeek peek(dev);
    return peek.priv ? static_cast<uint32_t>(peek.priv->fps) : 0;
}

uint32_t tq_priv_get_param_id(tqcam_dev_t *dev)
{
    DevPeek peek(dev);
    return peek.priv ? peek.priv->dev_id32 : 0;
}

uint32_t tq_priv_get_fmt(tqcam_dev_t *dev)
{
    DevPeek peek(dev);
    return peek.priv ? static_cast<uint32_t>(peek.priv->frame_fmt) : 0;
}

tq_calib_len_map_t *tq_priv_get_len_calib_handle(tqcam_dev_t *dev)
{
    DevPeek peek(dev);
    return peek.priv ? &peek.priv->lens_map : nullptr;
}

bool tq_priv_get_param_absolute_name(tqcam_dev_t *dev, char *buf, int size)
{
    if (!dev_is_open(dev, __func__) || !buf || size < 1)
        return false;
    snprintf(buf, static_cast<size_t>(size), "%stqcam_param_%u.bin", tqcam_path_get(),
             tq_priv_get_param_id(dev));
    return true;
}
