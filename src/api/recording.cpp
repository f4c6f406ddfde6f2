// Recording: the replay file that a capture makes, which streams it holds, and the properties from which the
// file link later answers in the camera's place.
//
// Order matters, for a reader meets a file front to back: the device's node with the calibration is complete
// before the first frame, and every property stands before the frames that it applies to.
#include "api/recording.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <sys/stat.h>

#include "api/device.h"
#include "api/params.h"
#include "drivers/driver.h"
#include "log/log.h"
#include "replay/oni_writer.h"

static_assert(sizeof(tqcam_frame_info_t) == 100 && sizeof(tqcam_version_t) == 8); // both are file formats

namespace {
constexpr double REPLAY_VERSION = 1.0;
constexpr int NAME_ROOM = 256;
constexpr size_t CALIB_BLOCK = 524288; // bytes of the calibration file in one record
constexpr uint32_t ROI_BYTES = 13;
constexpr int NOT_MANUAL = -9, WRONG_ARGUMENT = -22;

struct stream_kind_t {
    const char *name;
    uint32_t type, pix_fmt, max_value;
};
constexpr stream_kind_t DIST_STREAM = {"TQ_DEPTH", ONI_NODE_DEPTH, 100, 4096};
constexpr stream_kind_t GRAY_STREAM = {"TQ_IR", ONI_NODE_IR, 203, 16384};
constexpr stream_kind_t RAW_STREAM = {"TQ_REPLAY", ONI_NODE_DEPTH, 101, 4096};

void _set_int(oni_ostream_t *stream, const char *key, uint64_t value)
{
    oni_ostream_set_property(stream, ONI_PROP_INT, key, &value, sizeof(value));
}

void _set_string(oni_ostream_t *stream, const char *key, const char *text)
{
    oni_ostream_set_property(stream, ONI_PROP_STRING, key, text, static_cast<uint32_t>(strlen(text) + 1));
}

void _close_writer(tqcam_dev_priv_t *priv)
{
    priv->save_raw = priv->save_dist = priv->save_gray = nullptr; // they are the writer's
    oni_writer_close(priv->save_writer);
    priv->save_writer = nullptr;
}

// Recording a replay into the very file that it plays would cut it off under the reader.
bool _is_played(const tqcam_dev_priv_t *priv, const char *path)
{
    struct stat played, saved;
    return priv->ll.address.if_type == TQCAM_IF_FILE && priv->ll.address.file.path &&
           stat(priv->ll.address.file.path, &played) == 0 && stat(path, &saved) == 0 &&
           played.st_dev == saved.st_dev && played.st_ino == saved.st_ino;
}

void _write_device(const tqcam_dev_t *dev, oni_ostream_t *stream)
{
    const tqcam_dev_info_t &info = dev->priv->info;
    oni_ostream_set_property(stream, ONI_PROP_REAL, "TQ_REP_VER", &REPLAY_VERSION, sizeof(REPLAY_VERSION));
    _set_string(stream, "TQ_VENDOR", dev->vendor);
    _set_string(stream, "TQ_PRODUCT", dev->product);
    _set_string(stream, "TQ_SERIAL", dev->serial);
    _set_int(stream, "TQ_DEV_ID", dev->dev_id);
    oni_ostream_set_property(stream, ONI_PROP_GENERAL, "TQ_DEV_VER", &dev->version, sizeof(dev->version));
    _set_int(stream, "TQ_DEV_MAX_FPS", info.max_fps);
    _set_int(stream, "TQ_DEV_MAX_INTG_US", info.max_intg_us);
}

// The calibration file goes along, so that the recording decodes as the camera did.
void _write_calib(oni_ostream_t *stream, const char *name, const char *caller)
{
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(name, "rb"), &fclose);
    if (!file) {
        LOG_AS(1, "DBG", caller, "[%s]No calib data in replay file\n");
        return;
    }
    const std::unique_ptr<void, decltype(&free)> block(calloc(1, CALIB_BLOCK), &free);
    if (!block) {
        LOG_AS(6, "ERR", caller, "[%s]malloc failed\n");
        exit(-3);
    }
    _set_string(stream, "TQ_FILENAME_CALIB", name);
    size_t n;
    do {
        n = fread(block.get(), 1, CALIB_BLOCK, file.get());
        if (n > 0)
            oni_ostream_set_property(stream, ONI_PROP_GENERAL, "TQ_FILEDATA_CALIB", block.get(),
                                     static_cast<uint32_t>(n));
    } while (n == CALIB_BLOCK);
    if (ferror(file.get()))
        LOG_AS(5, "WRN", caller, "[%s]save calib data into replay failed\n");
}

// A stream of frames as large as first's, with what all three have in common. nullptr when it can't be
// opened.
oni_ostream_t *_open_stream(tqcam_dev_priv_t *priv, const stream_kind_t &kind,
                            const tqcam_frame_info_t &first)
{
    oni_stream_cfg_t cfg = {};
    cfg.type = kind.type;
    cfg.name = kind.name;
    cfg.pix_fmt = kind.pix_fmt;
    cfg.max_value = kind.max_value;
    cfg.width = first.width;
    cfg.height = first.height;
    cfg.bpp = 2;
    cfg.fps = priv->fps;
    oni_ostream_t *stream = oni_ostream_open(priv->save_writer, &cfg);
    if (stream) {
        _set_int(stream, "TQ_FRAME_IMGW", priv->max_w);
        _set_int(stream, "TQ_FRAME_IMGH", priv->max_h);
        _set_int(stream, "TQ_FRAME_FPS", priv->fps);
    }
    return stream;
}

void _open_image_stream(tqcam_dev_priv_t *priv, const stream_kind_t &kind, const tqcam_frame_info_t &first,
                        uint8_t *enabled, oni_ostream_t **stream, const char *caller)
{
    if (*stream || !*enabled)
        return;
    *stream = _open_stream(priv, kind, first);
    if (!*stream) {
        LOG_AS(5, "WRN", caller, "[%s]cannot open gray u16 stream\n");
        *enabled = 0;
    }
}

// roi: the device's, or nullptr when it didn't tell.
void _open_raw_stream(tqcam_dev_priv_t *priv, const tqcam_frame_info_t &first, const tqcam_param_item_t *roi,
                      const char *caller)
{
    oni_ostream_t *stream = priv->save_raw = _open_stream(priv, RAW_STREAM, first);
    if (!stream) {
        LOG_AS(5, "WRN", caller, "[%s]cannot open replay stream\n");
        priv->cap_cfg.en_save_replay = 0;
        return;
    }
    _set_int(stream, "TQ_FRAME_FMT", first.frame_format);
    _set_int(stream, "TQ_FRAME_MOD_FREQ", priv->mod_freq);
    _set_int(stream, "TQ_FRAME_MOD_FREQ", priv->dual_freq0);
    _set_int(stream, "TQ_FRAME_MOD_FREQ1", priv->dual_freq1);
    _set_int(stream, "TQ_CONF_INTG1_US", priv->intg_us);
    _set_int(stream, "TQ_CONF_INTG2_US", priv->intg2_us);
    if (roi)
        oni_ostream_set_property(stream, ONI_PROP_GENERAL, "TQ_FRAME_ROI_INFO", roi->value, ROI_BYTES);
    else
        LOG_AS(5, "WRN", caller, "[%s]roi info save failed\n");
}

void _set_frame_info(oni_ostream_t *stream, const tqcam_frame_info_t &info)
{
    oni_ostream_set_property(stream, ONI_PROP_GENERAL, "TQ_FRAME_INFO", &info, sizeof(info));
}
} // namespace

void _tqcam_cap_replay_start(tqcam_dev_t *dev)
{
    tqcam_dev_priv_t *priv = dev->priv;
    char calib_name[NAME_ROOM] = "";
    tq_priv_get_param_absolute_name(dev, calib_name, sizeof(calib_name));

    MutexLock lock(&priv->save_lock);
    const tqcam_cap_cfg_t &cfg = priv->cap_cfg;
    if (!cfg.save_file || !(cfg.en_save_replay || cfg.en_save_dist || cfg.en_save_gray))
        return;
    LOG_DEBUG("[%s]enable replay file: %s\n", cfg.save_file);
    _close_writer(priv);
    if (!_is_played(priv, cfg.save_file))
        priv->save_writer = oni_writer_open(cfg.save_file);
    if (!priv->save_writer) {
        LOG_WARN("[%s]open replay file %s failed\n", cfg.save_file);
        return;
    }
    if (!cfg.en_save_replay)
        return;
    oni_stream_cfg_t node = {};
    node.type = ONI_NODE_DEVICE;
    oni_ostream_t *stream = oni_ostream_open(priv->save_writer, &node);
    if (!stream) {
        LOG_WARN("[%s]open replay stream failed\n");
        return;
    }
    _write_device(dev, stream);
    _write_calib(stream, calib_name, __func__);
    oni_ostream_close(stream);
}

void _tqcam_cap_replay_stop(tqcam_dev_t *dev)
{
    tqcam_dev_priv_t *priv = dev->priv;
    LOG_TRACE("[%s]disable replay saving\n");
    MutexLock lock(&priv->save_lock);
    oni_ostream_close(priv->save_raw);
    oni_ostream_close(priv->save_dist);
    oni_ostream_close(priv->save_gray);
    _close_writer(priv);
}

void rec_save_frames(tqcam_dev_t *dev, const void *buf, uint32_t buf_len, uint32_t got,
                     const tqcam_frame_info_t *first)
{
    static const char caller[] = "_tqcam_cap_get_frames"; // its retrieval, to whoever reads the log
    tqcam_dev_priv_t *priv = dev->priv;
    bool raw_is_new;
    {
        MutexLock lock(&priv->save_lock);
        if (!priv->save_writer)
            return;
        raw_is_new = priv->cap_cfg.en_save_replay && !priv->save_raw;
    }
    tqcam_param_item_t roi = {};
    roi.param_id = TQCAM_PARAM_ROI;
    roi.param_len = ROI_BYTES;
    const bool has_roi = raw_is_new && _tqcam_param_batch_get(dev, &roi, 1) && roi.param_len > 0;

    MutexLock lock(&priv->save_lock);
    if (!priv->save_writer)
        return; // a stop came in between
    tqcam_cap_cfg_t &cfg = priv->cap_cfg;
    _open_image_stream(priv, DIST_STREAM, *first, &cfg.en_save_dist, &priv->save_dist, caller);
    _open_image_stream(priv, GRAY_STREAM, *first, &cfg.en_save_gray, &priv->save_gray, caller);
    if (raw_is_new && cfg.en_save_replay && !priv->save_raw)
        _open_raw_stream(priv, *first, has_roi ? &roi : nullptr, caller);
    if (!priv->save_raw || cfg.en_save_manual == 1)
        return;
    _set_frame_info(priv->save_raw, *first);
    const uint64_t size = first->frame_size; // of 0: nobody knows what these bytes are
    const uint8_t *frame = static_cast<const uint8_t *>(buf);
    for (uint64_t i = 0; frame && size > 0 && i < got && (i + 1) * size <= buf_len; i++)
        oni_ostream_save_frame(priv->save_raw, frame + i * size, first->frame_size, 0);
}

void rec_save_image(tqcam_dev_t *dev, int kind, const void *image, uint32_t bytes)
{
    tqcam_dev_priv_t *priv = dev->priv;
    MutexLock lock(&priv->save_lock);
    if (kind == DRV_KIND_DIST && priv->cap_cfg.en_save_dist)
        oni_ostream_save_frame(priv->save_dist, image, bytes, 0);
    else if (kind == DRV_KIND_GRAY && priv->cap_cfg.en_save_gray)
        oni_ostream_save_frame(priv->save_gray, image, bytes, 0);
}

void rec_prop_int(tqcam_dev_t *dev, const char *key, uint64_t value)
{
    MutexLock lock(&dev->priv->save_lock);
    _set_int(dev->priv->save_raw, key, value);
}

void rec_prop_general(tqcam_dev_t *dev, const char *key, const void *value, uint32_t size)
{
    MutexLock lock(&dev->priv->save_lock);
    oni_ostream_set_property(dev->priv->save_raw, ONI_PROP_GENERAL, key, value, size);
}

void rec_auto_intg(tqcam_dev_t *dev, uint32_t intg_us)
{
    tqcam_dev_priv_t *priv = dev->priv;
    MutexLock lock(&priv->save_lock);
    if (priv->cap_cfg.en_save_manual != 1)
        _set_int(priv->save_raw, "TQ_CONF_INTG1_US", intg_us);
}

void rec_close(tqcam_dev_t *dev)
{
    MutexLock lock(&dev->priv->save_lock);
    _close_writer(dev->priv);
}

int tqcam_cap_save_frame(tqcam_dev_t *dev, const void *data, uint32_t len, const tqcam_frame_info_t *info)
{
    if (!dev || !data || len == 0)
        return WRONG_ARGUMENT;
    if (info && info->frame_size != len) {
        LOG_ERROR("[%s]wrong frame len: %u (expect %u)\n", len, info->frame_size);
        return WRONG_ARGUMENT;
    }
    ApiGuard guard(dev);
    if (!guard)
        return WRONG_ARGUMENT;
    tqcam_dev_priv_t *priv = dev->priv;
    MutexLock lock(&priv->save_lock);
    if (!priv->save_raw || priv->cap_cfg.en_save_manual != 1)
        return NOT_MANUAL;
    if (info)
        _set_frame_info(priv->save_raw, *info);
    oni_ostream_save_frame(priv->save_raw, data, len, 0);
    return 0;
}
