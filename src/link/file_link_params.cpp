// Parameter reads and writes of a replay. Neither takes file_lock: they are also reached from the property
// sink, which runs under it.
#include <algorithm>
#include <cstring>

#include "link/file_link.h"
#include "log/log.h"

namespace {

constexpr uint32_t FPS_BY_FILE = 999;       // above it, the pace is the file's
constexpr uint16_t DEFAULT_MAX_FPS = 60;    // where the file states no limit
constexpr uint16_t DEFAULT_MAX_INTG = 1500; // microseconds, likewise
constexpr uint8_t PRODUCT_LEN_MAX = 17;

void _set_fps(file_ll_priv_t *priv, uint32_t fps)
{
    if (fps == 0) {
        priv->sim_mode = 0;
        LOG_AS(TQ_LOG_DEBUG, "DBG", "file_ll_param_set", "[%s]REP_SET: file replay set to sync mode\n");
    } else if (fps > FPS_BY_FILE) {
        priv->sim_mode = 1;
        LOG_AS(TQ_LOG_DEBUG, "DBG", "file_ll_param_set", "[%s]REP_SET: file replay set to sim mode\n");
    } else if (priv->sim_mode) {
        priv->fps = fps;
        LOG_AS(TQ_LOG_DEBUG, "DBG", "file_ll_param_set", "[%s]REP_SET: file replay sim mode set fps to %d\n",
               static_cast<int>(fps));
    }
}

// With prop_lock held; the item is cleared.
void _get(const file_ll_priv_t *priv, tqcam_ll_param_t *item)
{
    uint8_t *v = item->value;
    switch (item->id) {
    case TQCAM_PARAM_MOD_FREQ:
        oni_put_u32(v, priv->mod_freq);
        item->len = 4;
        break;
    case TQCAM_PARAM_PRODUCT:
        item->len = static_cast<uint8_t>(strnlen(priv->product, PRODUCT_LEN_MAX));
        memcpy(v, priv->product, item->len);
        break;
    case TQCAM_PARAM_LIMITS:
        oni_put_u16(v, priv->max_w);
        oni_put_u16(v + 2, priv->max_h);
        oni_put_u16(v + 4, 2);
        oni_put_u16(v + 6, priv->max_fps ? priv->max_fps : DEFAULT_MAX_FPS);
        oni_put_u16(v + 8, priv->max_intg_us ? priv->max_intg_us : DEFAULT_MAX_INTG);
        item->len = 12;
        break;
    case TQCAM_PARAM_SERIAL:
        oni_put_u32(v, priv->serial0);
        item->len = 12;
        break;
    case TQCAM_PARAM_VERSION:
        memcpy(v, priv->dev_ver, sizeof(priv->dev_ver));
        item->len = sizeof(priv->dev_ver);
        break;
    case TQCAM_PARAM_CHIP_ID:
        oni_put_u16(v, priv->pid);
        oni_put_u16(v + 2, priv->cid);
        oni_put_u16(v + 4, priv->wid);
        item->len = 6;
        break;
    case TQCAM_PARAM_ROI:
        memcpy(v, priv->roi, sizeof(priv->roi));
        item->len = sizeof(priv->roi);
        break;
    case TQCAM_PARAM_FORMAT:
        oni_put_u32(v, priv->frame_info.frame_format);
        item->len = 4;
        break;
    case TQCAM_PARAM_FPS:
        oni_put_u32(v, priv->fps);
        item->len = 4;
        break;
    case TQCAM_PARAM_INTG1:
        oni_put_u16(v, static_cast<uint16_t>(priv->intg1_us));
        item->len = 4;
        break;
    case TQCAM_PARAM_INTG2:
        oni_put_u16(v, static_cast<uint16_t>(priv->intg2_us));
        item->len = 4;
        break;
    case TQCAM_PARAM_DUAL_FREQ:
        oni_put_u32(v, priv->dual_freq0);
        oni_put_u32(v + 4, priv->dual_freq1);
        item->len = 4; // though both words are there
        break;
    default:
        break; // length 0: the replay doesn't know it
    }
}

} // namespace

bool file_ll_param_set(tqcam_ll_dev_t *dev, const tqcam_ll_param_t *items, int count)
{
    file_ll_priv_t *priv = static_cast<file_ll_priv_t *>(dev->priv);
    for (int i = 0; priv && items && i < count; i++) {
        const uint32_t value = oni_get_u32(items[i].value);
        if (items[i].id == TQCAM_PARAM_FPS)
            _set_fps(priv, value);
        else if (items[i].id == TQCAM_PARAM_MOD_FREQ)
            LOG_DEBUG("[%s]REP_SET: mod freq to %u\n", value);
    }
    return true;
}

bool file_ll_param_get(tqcam_ll_dev_t *dev, tqcam_ll_param_t *items, int count)
{
    file_ll_priv_t *priv = static_cast<file_ll_priv_t *>(dev->priv);
    if (!priv || !items)
        return true;
    file_ll_locked_t lock(&priv->prop_lock);
    for (int i = 0; i < count; i++) {
        items[i].len = 0;
        memset(items[i].value, 0, sizeof(items[i].value));
        _get(priv, &items[i]);
    }
    return true;
}
