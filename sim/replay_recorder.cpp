#include "replay_recorder.h"

#include "replay/oni_writer.h"
#include "tqcam.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

// Recordings of one seed are the same to the byte: their clock starts on the first day of 2024.
static constexpr uint32_t FIRST_DAY = 1704067200;

static constexpr uint32_t CALIB_PIECE = 524288; // bytes of the calibration file in one property

// Cameras that a calibration would not tell apart are one: a calibration file on disk is found by this
// number, and must not be taken for another camera's.
sim_identity_t sim_identity(const sim_config_t &cfg)
{
    const sim_defects_t &d = cfg.defects;
    uint64_t model =
        static_cast<uint64_t>(cfg.camera->name[0]) << 8 | static_cast<uint8_t>(cfg.camera->name[1]);
    for (const double term : {d.offset_mm, d.offset_spread_mm, d.slope_spread, d.periodic, d.drift})
        model = sim_mix64(model) + static_cast<uint64_t>(static_cast<int64_t>(term * 1e6));
    sim_rng_t rng = sim_rng_stream(cfg.seed, 4, model);
    sim_identity_t id = {};
    id.pid = 1;
    id.cid = static_cast<uint16_t>(sim_rng_next(rng));
    id.wid = static_cast<uint16_t>(sim_rng_next(rng) & 0xFF);
    id.serial[0] = static_cast<uint32_t>(sim_rng_next(rng));
    const uint32_t low = static_cast<uint32_t>(id.pid << 24 | id.wid << 16 | id.cid);
    id.dev_id = static_cast<uint64_t>(id.serial[0]) << 32 | low;
    id.dev_id32 = id.serial[0] ^ static_cast<uint32_t>(id.wid << 16 | id.cid);
    id.hardware = 1;
    id.software = 200;
    id.boot = 10;
    return id;
}

tqcam_frame_info_t sim_frame_info(const sim_frame_t &frame)
{
    tqcam_frame_info_t info = {};
    info.frame_size = static_cast<uint32_t>(frame.data.size());
    info.frame_format = static_cast<uint16_t>(frame.format);
    info.frame_idx = static_cast<uint16_t>(frame.index);
    info.width = frame.width;
    info.height = frame.height;
    info.pixel_bytes = static_cast<uint8_t>(info.frame_size / frame.width / frame.height);
    info.temp_cb = frame.temp_cb;
    info.temp_ib = frame.temp_ib;
    info.time_sec = FIRST_DAY + frame.time_of_day_sec;
    info.time_usec = frame.time_usec;
    info.meta_size = frame.meta_size;
    info.meta_intg_us = frame.meta_intg_us;
    return info;
}

static void _put_int(oni_ostream_t *stream, const char *key, uint64_t value)
{
    oni_ostream_set_property(stream, ONI_PROP_INT, key, &value, sizeof value);
}

static void _put_string(oni_ostream_t *stream, const char *key, const char *text)
{
    oni_ostream_set_property(stream, ONI_PROP_STRING, key, text, static_cast<uint32_t>(strlen(text) + 1));
}

static void _put_device(oni_ostream_t *dev, const sim_config_t &cfg, const std::string &calib_name,
                        const std::vector<uint8_t> &calib)
{
    const sim_identity_t id = sim_identity(cfg);
    char serial[32];
    snprintf(serial, sizeof serial, "%08X%08X%08X", id.serial[0], id.serial[1], id.serial[2]);
    const double version = 1.0;
    const tqcam_version_t dev_ver = {id.hardware, id.software, id.boot, 0};

    oni_ostream_set_property(dev, ONI_PROP_REAL, "TQ_REP_VER", &version, sizeof version);
    _put_string(dev, "TQ_VENDOR", SIM_VENDOR);
    _put_string(dev, "TQ_PRODUCT", cfg.camera->product);
    _put_string(dev, "TQ_SERIAL", serial);
    _put_int(dev, "TQ_DEV_ID", id.dev_id);
    oni_ostream_set_property(dev, ONI_PROP_GENERAL, "TQ_DEV_VER", &dev_ver, sizeof dev_ver);
    _put_int(dev, "TQ_DEV_MAX_FPS", cfg.camera->max_fps);
    _put_int(dev, "TQ_DEV_MAX_INTG_US", cfg.camera->max_intg_us);
    if (calib.empty())
        return;
    _put_string(dev, "TQ_FILENAME_CALIB", calib_name.c_str());
    for (size_t at = 0; at < calib.size(); at += CALIB_PIECE)
        oni_ostream_set_property(dev, ONI_PROP_GENERAL, "TQ_FILEDATA_CALIB", calib.data() + at,
                                 static_cast<uint32_t>(std::min<size_t>(CALIB_PIECE, calib.size() - at)));
}

static void _put_raw(oni_ostream_t *raw, const sim_config_t &cfg)
{
    _put_int(raw, "TQ_FRAME_IMGW", cfg.camera->width);
    _put_int(raw, "TQ_FRAME_IMGH", cfg.camera->height);
    _put_int(raw, "TQ_FRAME_FPS", cfg.fps);
    _put_int(raw, "TQ_FRAME_FMT", cfg.format);
    _put_int(raw, "TQ_FRAME_MOD_FREQ", cfg.freq0);
    _put_int(raw, "TQ_FRAME_MOD_FREQ", cfg.freq0);
    _put_int(raw, "TQ_FRAME_MOD_FREQ1", cfg.freq1);
    _put_int(raw, "TQ_CONF_INTG1_US", cfg.intg_us);
    _put_int(raw, "TQ_CONF_INTG2_US", cfg.intg2_us);
    // First and last row, first and last column, then binning and a spare byte.
    uint8_t roi[13] = {};
    oni_put_u16(roi + 2, static_cast<uint16_t>(cfg.camera->height - 1));
    oni_put_u16(roi + 6, static_cast<uint16_t>(cfg.camera->width - 1));
    oni_ostream_set_property(raw, ONI_PROP_GENERAL, "TQ_FRAME_ROI_INFO", roi, sizeof roi);
}

bool sim_recorder_open(sim_recorder_t *rec, const char *path, const char *truth_path, const sim_config_t &cfg,
                       const std::string &calib_name, const std::vector<uint8_t> &calib, std::string *error)
{
    *rec = {};
    if (truth_path != nullptr) {
        rec->truth = fopen(truth_path, "wb");
        if (rec->truth == nullptr) {
            *error = std::string("can't write ") + truth_path + ": " + strerror(errno);
            return false;
        }
    }
    errno = 0;
    rec->writer = oni_writer_open(path);
    const oni_stream_cfg_t dev_cfg = {ONI_NODE_DEVICE, nullptr, 0, 0, 0, 0, 0, 0};
    const oni_stream_cfg_t raw_cfg = {ONI_NODE_DEPTH,    "TQ_REPLAY",        101, 4096,
                                      cfg.camera->width, cfg.camera->height, 2,   cfg.fps};
    oni_ostream_t *dev = rec->writer == nullptr ? nullptr : oni_ostream_open(rec->writer, &dev_cfg);
    if (dev != nullptr) {
        _put_device(dev, cfg, calib_name, calib);
        oni_ostream_close(dev);
        rec->raw = oni_ostream_open(rec->writer, &raw_cfg);
    }
    if (rec->raw == nullptr) {
        *error = std::string("can't write ") + path + (errno != 0 ? std::string(": ") + strerror(errno) : "");
        sim_recorder_close(rec);
        if (dev != nullptr)
            sim_recorder_discard(path);
        if (truth_path != nullptr)
            sim_recorder_discard(truth_path);
        return false;
    }
    _put_raw(rec->raw, cfg);
    return true;
}

bool sim_recorder_add(sim_recorder_t *rec, const sim_frame_t &frame)
{
    const tqcam_frame_info_t info = sim_frame_info(frame);
    oni_ostream_set_property(rec->raw, ONI_PROP_GENERAL, "TQ_FRAME_INFO", &info, sizeof info);
    const uint64_t ts = static_cast<uint64_t>(info.time_sec) * 1000000 + info.time_usec;
    oni_ostream_save_frame(rec->raw, frame.data.data(), info.frame_size, ts);
    if (ferror(rec->writer->fp) != 0)
        return false;
    if (rec->truth != nullptr) {
        std::vector<float> metres(frame.truth_mm.begin(), frame.truth_mm.end());
        for (float &m : metres)
            m /= 1000.0f;
        if (fwrite(metres.data(), sizeof(float), metres.size(), rec->truth) != metres.size())
            return false;
    }
    rec->frames++;
    return true;
}

bool sim_recorder_close(sim_recorder_t *rec)
{
    bool ok = rec->writer == nullptr || ferror(rec->writer->fp) == 0;
    if (rec->writer != nullptr)
        oni_writer_close(rec->writer);
    if (rec->truth != nullptr && fclose(rec->truth) != 0)
        ok = false;
    *rec = {};
    return ok;
}

void sim_recorder_discard(const char *path)
{
    std::error_code error;
    if (std::filesystem::is_regular_file(path, error))
        std::filesystem::remove(path, error);
}
