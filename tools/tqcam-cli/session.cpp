// The library and the open device behind a command.
#include "cli.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "progress.h"
#include "usb_devices.h"

Library::Library(const GlobalOptions &global, bool quiet)
{
    tqcam_init("");
    // Lines of the log are for whoever asks; the commands say themselves what a user needs to know.
    tqcam_log_cfg(global.verbose && !quiet ? 1 : 7, 7, 5);
    if (!global.data_dir.empty()) {
        std::string prefix = global.data_dir;
        if (prefix.back() != '/')
            prefix += '/';
        if (tqcam_path_set(prefix.c_str()) != 0)
            throw CliError{EXIT_FAILED, "cannot make the folder " + prefix};
    }
}

Library::~Library()
{
    tqcam_uninit();
}

Device::Device(const std::string &uri)
{
    if (uri.empty()) {
        dev_ = tqcam_dev_open(nullptr);
        if (!dev_ && !usb_access_advice(usb_devices()).empty())
            throw CliError{EXIT_NO_DEVICE, usb_access_advice(usb_devices())};
        if (!dev_)
            throw CliError{EXIT_NO_DEVICE, "no camera found; open a recording with its file name, as in: "
                                           "tqcam play scene.oni"};
        return;
    }
    dev_ = tqcam_dev_open_by_uri(uri.c_str());
    if (dev_)
        return;
    if (uri.rfind("usb:", 0) == 0)
        throw CliError{EXIT_NO_DEVICE,
                       "no camera answers at " + uri + "; tqcam list shows those that are there"};
    const std::string path = uri.rfind("file://", 0) == 0 ? uri.substr(7) : uri;
    FILE *file = std::fopen(path.c_str(), "rb");
    if (!file)
        throw CliError{EXIT_NO_DEVICE, "cannot open " + path + ": " + std::strerror(errno)};
    std::fclose(file);
    throw CliError{EXIT_NO_DEVICE, path + " is not a recording that can be played (tqcam -v says why)"};
}

Device::~Device()
{
    tqcam_dev_close(dev_);
}

tqcam_dev_info_t Device::info() const
{
    tqcam_dev_info_t info = {};
    tqcam_dev_get_info(dev_, &info);
    return info;
}

uint32_t Device::param_u32(uint32_t id) const
{
    tqcam_param_item_t item = {};
    item.param_id = id;
    item.param_len = 4;
    uint32_t value = 0;
    if (tqcam_param_batch_get(dev_, &item, 1) && item.param_len >= 4)
        std::memcpy(&value, item.value, sizeof value);
    return value;
}

bool Device::answers() const
{
    tqcam_param_item_t item = {};
    item.param_id = TQCAM_PARAM_FORMAT;
    item.param_len = 4;
    return tqcam_param_batch_get(dev_, &item, 1);
}

uint32_t Device::range_mm() const
{
    tqcam_param_item_t dual = {};
    dual.param_id = TQCAM_PARAM_DUAL_FREQ;
    dual.param_len = 8;
    uint32_t f[2] = {param_u32(TQCAM_PARAM_MOD_FREQ), 0};
    if (tqcam_param_batch_get(dev_, &dual, 1)) {
        uint32_t pair[2];
        std::memcpy(pair, dual.value, sizeof pair);
        const uint32_t format = param_u32(TQCAM_PARAM_FORMAT) & 127;
        if (pair[1] != 0 && (format == 14 || format == 17))
            f[0] = pair[0] < pair[1] ? pair[0] : pair[1];
    }
    return f[0] == 0 ? 0 : static_cast<uint32_t>(std::fmin(1.4989622e11 / f[0], 65535.0));
}

Capture::Capture(Device &device, bool stepped) : device_(device)
{
    tqcam_dev_t *dev = device.get();
    if (device.is_replay()) {
        const int count = tqcam_cap_seek_frame(dev, 0, 2);
        total_ = count > 0 && count < 100000000 ? static_cast<uint32_t>(count) : 0;
        if (stepped) {
            tqcam_param_item_t step = {};
            step.param_id = TQCAM_PARAM_FPS;
            step.param_len = 4;
            tqcam_param_batch_set(dev, &step, 1);
        }
    }
    tqcam_cap_cfg_t cfg;
    tqcam_cap_config_get(dev, &cfg);
    cfg.on_cap_err = on_error;
    tqcam_cap_config_set(dev, &cfg);
    if (!tqcam_cap_start(dev))
        throw CliError{EXIT_FAILED, "the device refused to start capture"};
    raw.resize(size_t{4} << 20);
}

Capture::~Capture()
{
    tqcam_cap_stop(device_.get());
}

// The engine hands errors to the thread that retrieves: the capture that runs there is the one to tell.
static thread_local Capture *g_retrieving = nullptr;

bool Capture::on_error(tqcam_dev_t *, int code, uint64_t value)
{
    if (!g_retrieving)
        return true;
    if (code == TQCAM_ERR_CAP_FRAME_DISCARD)
        g_retrieving->lost_ = value;
    else
        g_retrieving->last_error_ = code;
    return true;
}

bool Capture::next()
{
    if (total_ != 0 && taken_ >= total_) {
        end_reason_ = "end of the recording";
        return false;
    }
    for (int grown = 0; grown < 8; grown++) {
        g_retrieving = this;
        tqcam_frame_t first = {};
        const int got = ended_with_ != 0 ? ended_with_
                                         : tqcam_cap_get_frames(device_.get(), 1, raw.data(),
                                                                static_cast<uint32_t>(raw.size()), &first);
        g_retrieving = nullptr;
        // A code that ends the capture may bring a last frame along.
        if (got >= 1 || first.frame_info.frame_size != 0) {
            ended_with_ = std::min(got, 0);
            taken_++;
            info = first.frame_info;
            if (info.frame_size <= raw.size())
                return true;
            raw.resize(info.frame_size); // this one was cut; the next of its size has room
            continue;
        }
        const int error = got < 0 ? got : last_error_;
        if (error == TQCAM_ERR_CAP_EOF)
            end_reason_ = "end of the recording";
        else if (interrupted())
            end_reason_ = "interrupted";
        else if (error < 0)
            end_reason_ = std::string("capture failed: ") + tqcam_error_name(error);
        else if (!tqcam_cap_is_ongoing(device_.get()))
            end_reason_ = device_.is_replay() ? "end of the recording" : "capture ended";
        else
            end_reason_ = "no frame came in time";
        return false;
    }
    end_reason_ = "frames too large";
    return false;
}

void Capture::seek(uint32_t frame)
{
    if (tqcam_cap_seek_frame(device_.get(), static_cast<int>(frame), 0) < 0)
        throw CliError{EXIT_FAILED, "cannot move to frame " + std::to_string(frame)};
    taken_ = frame;
}
