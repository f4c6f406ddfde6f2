// What the properties of a recording do. A key has one kind; as another it is passed over with a line, and so
// are keys that nobody knows, as a foreign file brings them.
#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "link/file_link.h"
#include "log/log.h"

namespace {

constexpr uint32_t OLD_ROI_SIZE = 16;

// One property on its way.
struct prop_t {
    tqcam_ll_dev_t *dev;
    file_ll_priv_t *priv;
    const char *key;
    const uint8_t *bytes;
    uint32_t size;
    uint64_t num;
    double real;
    bool live; // met among the frames: it goes to the device handle as well
};

uint16_t _to_u16(uint64_t v)
{
    return static_cast<uint16_t>(std::min<uint64_t>(v, UINT16_MAX));
}

// At most room bytes of a general property, the rest cleared.
void _copy_general(const prop_t &p, void *dst, uint32_t room)
{
    const uint32_t n = std::min(p.size, room);
    memset(dst, 0, room);
    if (n > 0)
        memcpy(dst, p.bytes, n);
}

bool _set_param(const prop_t &p, uint32_t id, const void *value, uint8_t len)
{
    tqcam_param_item_t item = {};
    item.param_id = id;
    item.param_len = len;
    memcpy(item.value, value, len);
    return tqcam_param_batch_set(p.dev->dev, &item, 1);
}

// A side of the frame, in pixels.
bool _frame_side(const prop_t &p, uint32_t tqcam_frame_info_t::*side, uint16_t file_ll_priv_t::*largest)
{
    if (p.num > UINT16_MAX) {
        LOG_AS(TQ_LOG_WARN, "WRN", "_fill_ll_on_get_property", "[%s]%s=%lu is no frame side, ignored\n",
               p.key, static_cast<unsigned long>(p.num));
        return false;
    }
    p.priv->frame_info.*side = static_cast<uint32_t>(p.num);
    p.priv->*largest = std::max(p.priv->*largest, _to_u16(p.num));
    return true;
}

// Each key's work on the private state, with prop_lock held, and then, for those met among the frames, what
// reaches the device handle, without it.
#define REP_LOG(level, tag, ...) LOG_AS(level, tag, "_fill_ll_on_get_property", __VA_ARGS__)

void _set_imgw(const prop_t &p)
{
    _frame_side(p, &tqcam_frame_info_t::width, &file_ll_priv_t::max_w);
}

void _set_imgh(const prop_t &p)
{
    _frame_side(p, &tqcam_frame_info_t::height, &file_ll_priv_t::max_h);
}

void _set_fmt(const prop_t &p)
{
    p.priv->frame_info.frame_format = static_cast<uint16_t>(p.num);
    p.priv->subframes = p.num == 1 ? 2 : p.num == 4 ? 1 : 4;
    REP_LOG(TQ_LOG_DEBUG, "DBG", "[%s]REP: frame_format set to %u\n", static_cast<unsigned>(p.num));
}

void _set_max_intg(const prop_t &p)
{
    p.priv->max_intg_us = _to_u16(p.num);
}

void _set_max_fps(const prop_t &p)
{
    p.priv->max_fps = _to_u16(p.num);
}

void _set_fps(const prop_t &p)
{
    p.priv->fps = static_cast<uint32_t>(p.num);
    REP_LOG(TQ_LOG_TRACE, "TRC", "[%s]REP: fps change to %u (dummy)\n", static_cast<unsigned>(p.num));
}

void _live_fps(const prop_t &p)
{
    const uint32_t fps = static_cast<uint32_t>(p.num);
    if (_set_param(p, TQCAM_PARAM_FPS, &fps, sizeof(fps)))
        REP_LOG(TQ_LOG_DEBUG, "DBG", "[%s]REP: fps set to %u\n", fps);
    else
        REP_LOG(TQ_LOG_ERROR, "ERR", "[%s]REP: fps set to %u failed\n", fps);
}

void _set_mod_freq(const prop_t &p)
{
    p.priv->mod_freq = static_cast<uint32_t>(p.num);
    p.priv->dual_freq0 = static_cast<uint32_t>(p.num);
}

void _live_mod_freq(const prop_t &p)
{
    const uint32_t freq = static_cast<uint32_t>(p.num);
    if (_set_param(p, TQCAM_PARAM_MOD_FREQ, &freq, sizeof(freq)))
        REP_LOG(TQ_LOG_DEBUG, "DBG", "[%s]REP: mod_freq set to %u\n", freq);
    else
        REP_LOG(TQ_LOG_ERROR, "ERR", "[%s]REP: mod_freq set to %u failed\n", freq);
}

void _set_mod_freq1(const prop_t &p)
{
    p.priv->dual_freq1 = static_cast<uint32_t>(p.num);
}

void _live_mod_freq1(const prop_t &p)
{
    uint32_t pair[2];
    {
        file_ll_locked_t lock(&p.priv->prop_lock);
        pair[0] = p.priv->dual_freq0;
        pair[1] = p.priv->dual_freq1;
    }
    if (_set_param(p, TQCAM_PARAM_DUAL_FREQ, pair, sizeof(pair)))
        REP_LOG(TQ_LOG_DEBUG, "DBG", "[%s]REP: mod_freq set to %u %d\n", pair[0], static_cast<int>(pair[1]));
    else
        REP_LOG(TQ_LOG_ERROR, "ERR", "[%s]REP: mod_freq set to %u %u failed\n", pair[0], pair[1]);
}

void _set_intg1(const prop_t &p)
{
    p.priv->intg1_us = static_cast<uint32_t>(p.num);
    REP_LOG(TQ_LOG_DEBUG, "DBG", "[%s]REP: intg1_us set to %u\n", p.priv->intg1_us);
}

void _set_intg2(const prop_t &p)
{
    p.priv->intg2_us = static_cast<uint32_t>(p.num);
    REP_LOG(TQ_LOG_DEBUG, "DBG", "[%s]REP: intg2_us set to %u, hdr_en=%d (intg1=%u)\n", p.priv->intg2_us,
            p.priv->intg2_us != 0, p.priv->intg1_us);
}

void _live_intg2(const prop_t &p)
{
    tqcam_filter_arg_t arg = {};
    {
        file_ll_locked_t lock(&p.priv->prop_lock);
        arg.hdr.intg1_us = static_cast<uint16_t>(p.priv->intg1_us);
        arg.hdr.intg2_us = static_cast<uint16_t>(p.priv->intg2_us);
    }
    if (static_cast<uint32_t>(p.num) == 0)
        tqcam_filter_disable(p.dev->dev, TQCAM_FILTER_HDR);
    else
        tqcam_filter_enable(p.dev->dev, TQCAM_FILTER_HDR, &arg);
}

void _set_dev_id(const prop_t &p)
{
    file_ll_priv_t *priv = p.priv;
    priv->dev_id = p.num;
    priv->cid = static_cast<uint16_t>(p.num);
    priv->wid = static_cast<uint8_t>(p.num >> 16);
    priv->pid = static_cast<uint8_t>(p.num >> 24);
    priv->serial0 = static_cast<uint32_t>(p.num >> 32);
    REP_LOG(TQ_LOG_TRACE, "TRC", "[%s]pid/wid/cid/s = %x/%x/%x/%x\n", priv->pid, priv->wid, priv->cid,
            priv->serial0);
}

void _set_rep_ver(const prop_t &p)
{
    p.priv->rep_ver = static_cast<float>(p.real);
}

void _set_product(const prop_t &p)
{
    char *product = p.priv->product;
    memset(product, 0, sizeof(p.priv->product));
    memcpy(product, p.bytes,
           strnlen(reinterpret_cast<const char *>(p.bytes),
                   std::min<size_t>(p.size, sizeof(p.priv->product) - 1)));
}

// The recorded name is only shown: the file goes into the working directory under the name that the driver
// looks for.
void _set_calib_name(const prop_t &p)
{
    file_ll_priv_t *priv = p.priv;
    if (p.live)
        return;
    const uint32_t id = (static_cast<uint32_t>(priv->wid) << 16 | priv->cid) ^ priv->serial0;
    snprintf(priv->calib_name, sizeof(priv->calib_name), "tqcam_param_%" PRIu32 ".bin", id);
    REP_LOG(TQ_LOG_DEBUG, "DBG", "[%s]embedded calib fname: %s, save to %s\n",
            reinterpret_cast<const char *>(p.bytes), priv->calib_name);
    if (priv->calib_fp)
        fclose(priv->calib_fp);
    priv->calib_fp = fopen(priv->calib_name, "wb");
    if (!priv->calib_fp)
        REP_LOG(TQ_LOG_WARN, "WRN", "[%s]Open calib data file failed: %s\n", priv->calib_name);
}

void _set_calib_data(const prop_t &p)
{
    if (p.live)
        return;
    if (!p.priv->calib_fp)
        REP_LOG(TQ_LOG_WARN, "WRN", "[%s]Wrong calib data in replay file: no calib file openned\n");
    else if (fwrite(p.bytes, 1, p.size, p.priv->calib_fp) != p.size)
        REP_LOG(TQ_LOG_WARN, "WRN", "[%s]Write calib data file failed\n");
}

void _set_dev_ver(const prop_t &p)
{
    _copy_general(p, p.priv->dev_ver, sizeof(p.priv->dev_ver));
}

void _set_frame_info(const prop_t &p)
{
    _copy_general(p, &p.priv->frame_info, sizeof(p.priv->frame_info));
}

void _set_binning(const prop_t &p)
{
    _copy_general(p, p.priv->binning, sizeof(p.priv->binning));
}

// The old form: columns a to b and row pairs c to d of the sensor's half, and two words whose quotient is the
// number of sensor pixels in a pixel.
void _convert_old_roi(const prop_t &p)
{
    const uint8_t *in = p.bytes;
    const int a = oni_get_u16(in), b = oni_get_u16(in + 2), c = oni_get_u16(in + 4), d = oni_get_u16(in + 6);
    const uint32_t w1 = oni_get_u32(in + 8), w2 = oni_get_u32(in + 12);
    REP_LOG(TQ_LOG_DEBUG, "DBG", "[%s]REP: old ROI info detected: %d,%d,%d,%d\n", a, b, c, d);
    uint8_t binning = 0;
    switch (w1 == 0 ? 0 : w2 / w1) {
    case 4:
        binning = 1;
        break;
    case 16:
        binning = 2;
        break;
    case 64:
        binning = 3;
        break;
    case 8:
        binning = 4;
        break;
    default:
        break;
    }
    uint8_t *roi = p.priv->roi;
    oni_put_u16(roi + 2, static_cast<uint16_t>((d - c) * 2 + 1)); // rows and columns begin at 0
    oni_put_u16(roi + 6, static_cast<uint16_t>(b - a));
    roi[8] = binning;
    oni_put_u32(roi + 9, w2);
}

void _set_roi(const prop_t &p)
{
    file_ll_priv_t *priv = p.priv;
    memset(priv->roi, 0, sizeof(priv->roi));
    if (p.size == OLD_ROI_SIZE)
        _convert_old_roi(p);
    else
        _copy_general(p, priv->roi, sizeof(priv->roi));
    const int rows = oni_get_u16(priv->roi + 2) - oni_get_u16(priv->roi);
    const int cols = oni_get_u16(priv->roi + 6) - oni_get_u16(priv->roi + 4);
    if (cols >= priv->max_w)
        priv->max_w = _to_u16(static_cast<uint64_t>(cols) + 1);
    if (rows >= priv->max_h)
        priv->max_h = _to_u16(static_cast<uint64_t>(rows) + 1);
}

void _live_roi(const prop_t &p)
{
    uint8_t roi[sizeof(p.priv->roi)];
    {
        file_ll_locked_t lock(&p.priv->prop_lock);
        memcpy(roi, p.priv->roi, sizeof(roi));
    }
    if (_set_param(p, TQCAM_PARAM_ROI, roi, sizeof(roi)))
        REP_LOG(TQ_LOG_DEBUG, "DBG", "[%s]REP: roi set ok\n");
    else
        REP_LOG(TQ_LOG_ERROR, "ERR", "[%s]REP: roi set  failed\n");
}

struct prop_row_t {
    const char *key;
    int kind;
    void (*set)(const prop_t &p);  // prop_lock held
    void (*live)(const prop_t &p); // without it; may be NULL
};

constexpr prop_row_t PROPERTIES[] = {
    {"TQ_FRAME_IMGW", ONI_PROP_INT, _set_imgw, nullptr},
    {"TQ_FRAME_IMGH", ONI_PROP_INT, _set_imgh, nullptr},
    {"TQ_FRAME_FMT", ONI_PROP_INT, _set_fmt, nullptr},
    {"TQ_DEV_MAX_INTG_US", ONI_PROP_INT, _set_max_intg, nullptr},
    {"TQ_DEV_MAX_FPS", ONI_PROP_INT, _set_max_fps, nullptr},
    {"TQ_FRAME_FPS", ONI_PROP_INT, _set_fps, _live_fps},
    {"TQ_FRAME_MOD_FREQ", ONI_PROP_INT, _set_mod_freq, _live_mod_freq},
    {"TQ_FRAME_MOD_FREQ1", ONI_PROP_INT, _set_mod_freq1, _live_mod_freq1},
    {"TQ_CONF_INTG1_US", ONI_PROP_INT, _set_intg1, nullptr},
    {"TQ_CONF_INTG2_US", ONI_PROP_INT, _set_intg2, _live_intg2},
    {"TQ_DEV_ID", ONI_PROP_INT, _set_dev_id, nullptr},
    {"TQ_REP_VER", ONI_PROP_REAL, _set_rep_ver, nullptr},
    {"TQ_PRODUCT", ONI_PROP_STRING, _set_product, nullptr},
    {"TQ_FILENAME_CALIB", ONI_PROP_STRING, _set_calib_name, nullptr},
    {"TQ_FILEDATA_CALIB", ONI_PROP_GENERAL, _set_calib_data, nullptr},
    {"TQ_DEV_VER", ONI_PROP_GENERAL, _set_dev_ver, nullptr},
    {"TQ_FRAME_INFO", ONI_PROP_GENERAL, _set_frame_info, nullptr},
    {"TQ_BINNING", ONI_PROP_GENERAL, _set_binning, nullptr},
    {"TQ_FRAME_ROI_INFO", ONI_PROP_GENERAL, _set_roi, _live_roi},
};

// Says what came; false for a kind that there is not.
bool _log_property(int kind, const prop_t &p)
{
    switch (kind) {
    case ONI_PROP_INT:
        REP_LOG(TQ_LOG_TRACE, "TRC", "[%s]PROP-INT  %s=%lu\n", p.key, static_cast<unsigned long>(p.num));
        return true;
    case ONI_PROP_REAL:
        REP_LOG(TQ_LOG_TRACE, "TRC", "[%s]PROP-REAL %s=%f\n", p.key, p.real);
        return true;
    case ONI_PROP_STRING:
        REP_LOG(TQ_LOG_TRACE, "TRC", "[%s]PROP-STR  %s=%s\n", p.key, reinterpret_cast<const char *>(p.bytes));
        return true;
    case ONI_PROP_GENERAL:
        REP_LOG(TQ_LOG_TRACE, "TRC", "[%s]PROP-GEN  %s=%d bytes\n", p.key, static_cast<int>(p.size));
        return true;
    default:
        REP_LOG(TQ_LOG_DEBUG, "DBG", "[%s]PROP-UNKNOWN: %s\n", p.key);
        return false;
    }
}

} // namespace

void _fill_ll_on_get_property(oni_reader_t *reader, int kind, const char *key, const void *value,
                              uint32_t size, void *arg)
{
    tqcam_ll_dev_t *dev = static_cast<tqcam_ll_dev_t *>(arg);
    file_ll_priv_t *priv = static_cast<file_ll_priv_t *>(dev->priv);
    oni_istream_t *stream = oni_reader_cur_stream(reader);
    if (!stream)
        return;
    if (strcmp(stream->name, "TQ_REPLAY") == 0)
        priv->stream = stream;
    else if (strcmp(stream->name, "Device") != 0)
        return;

    prop_t p = {dev, priv, key, static_cast<const uint8_t *>(value), size, 0, 0.0, priv->reader != nullptr};
    if (kind == ONI_PROP_INT)
        memcpy(&p.num, value, sizeof(p.num));
    else if (kind == ONI_PROP_REAL)
        memcpy(&p.real, value, sizeof(p.real));
    if (!_log_property(kind, p))
        return;
    for (const prop_row_t &row : PROPERTIES) {
        if (strcmp(row.key, key) != 0)
            continue;
        if (row.kind != kind) {
            LOG_WARN("[%s]%s of another kind ignored: %d\n", key, kind);
            return;
        }
        {
            file_ll_locked_t lock(&priv->prop_lock);
            row.set(p);
        }
        if (p.live && row.live)
            row.live(p);
        return;
    }
}
