#include "frame_output.h"

#include <cstdio>
#include <cstring>

#include "png_files.h"

static void _must(bool ok, const std::string &path)
{
    if (!ok)
        throw CliError{EXIT_FAILED, "cannot write " + path};
}

FrameOutput::FrameOutput(Device &device, const OutputOptions &options) : device_(device), options_(options)
{
    unsigned lo = 0, hi = 0;
    char rest = 0;
    if (!options.range.empty() &&
        (std::sscanf(options.range.c_str(), "%u:%u%c", &lo, &hi, &rest) != 2 || hi <= lo || hi > 65535))
        throw CliError{EXIT_USAGE, "--range takes LOW:HIGH in millimetres"};
    if (hi == 0)
        hi = device.range_mm() != 0 ? device.range_mm() : 10000;
    lo_ = static_cast<uint16_t>(lo);
    hi_ = static_cast<uint16_t>(hi);
}

bool FrameOutput::wants(const char *kind) const
{
    for (const std::string &k : options_.kinds)
        if (k == kind || k == "all")
            return true;
    return false;
}

void FrameOutput::write_color(const std::vector<uint16_t> &dist, int w, int h, const std::string &path) const
{
    std::vector<uint8_t> rgb(dist.size() * 3);
    const tqcam_cmap_opt_t cmap = {options_.palette, 0};
    tqcam_cmap_dist_u16_to_RGB(rgb.data(), static_cast<int>(rgb.size()), dist.data(),
                               static_cast<int>(dist.size()), TQCAM_PIX_RGB, lo_, hi_, &cmap);
    _must(png_write_rgb8(path, rgb.data(), w, h), path);
}

static void _write_raw(const Capture &capture, const std::string &path)
{
    const tqcam_frame_info_t &info = capture.info;
    const size_t pixels = static_cast<size_t>(info.width) * info.height, samples = info.frame_size / 2;
    std::vector<uint16_t> words(samples);
    std::memcpy(words.data(), capture.raw.data(), samples * 2);
    // A frame that isn't whole planes of 16-bit samples is kept as one long row.
    int w = static_cast<int>(samples), h = 1, planes = 1;
    if (pixels != 0 && samples % pixels == 0) {
        w = static_cast<int>(info.width);
        h = static_cast<int>(info.height);
        planes = static_cast<int>(samples / pixels);
    }
    const std::string tag = "format" + std::to_string(info.frame_format);
    const int fd = tqcam_file_open(path.c_str(), "wb");
    const bool ok = fd >= 0 && tqcam_frame_save_raw(fd, TQCAM_RAW_U16, words.data(),
                                                    static_cast<int>(samples), w, h, planes, tag.c_str());
    if (fd >= 0)
        tqcam_file_close(fd);
    _must(ok, path);
}

static void _write_ply(tqcam_dev_t *dev, const std::vector<uint16_t> &dist_mm, const tqcam_frame_info_t &info,
                       const std::string &path, float lo_m, float hi_m, bool binary)
{
    const auto n = static_cast<uint32_t>(dist_mm.size());
    std::vector<float> dist(n), cloud(size_t{n} * 4);
    for (uint32_t i = 0; i < n; i++)
        dist[i] = static_cast<float>(dist_mm[i]) * 0.001f;
    if (tqcam_frame_get_pcl_xyzd(dev, cloud.data(), n * 4, dist.data(), n, info.width, info.height, true,
                                 nullptr, lo_m, hi_m) <= 0)
        throw CliError{EXIT_FAILED, "no point cloud: the device has no lens parameters for this frame size"};
    // Pixels without measurement would all lie in the origin.
    size_t kept = 0;
    for (size_t i = 0; i < n; i++)
        if (cloud[i * 4 + 2] > 0)
            std::memmove(&cloud[kept++ * 4], &cloud[i * 4], 4 * sizeof(float));
    const int fd = tqcam_file_open(path.c_str(), "wb");
    const bool ok =
        fd >= 0 && kept > 0 &&
        tqcam_frame_save_ply(fd, cloud.data(), static_cast<int>(kept * 4), TQCAM_PCL_FORMAT_XYZD, binary);
    if (fd >= 0)
        tqcam_file_close(fd);
    _must(ok, path);
}

void FrameOutput::write(const Capture &capture, const std::string &stem) const
{
    const tqcam_frame_info_t &info = capture.info;
    const int w = static_cast<int>(info.width), h = static_cast<int>(info.height);
    const auto n = static_cast<uint32_t>(static_cast<uint64_t>(info.width) * info.height);
    tqcam_dev_t *dev = device_.get();
    std::vector<uint16_t> image(n);
    if (wants("raw"))
        _write_raw(capture, stem + "_raw.tqf");
    const bool distance = wants("dist") || wants("color") || wants("undistorted") || wants("ply");
    if (distance &&
        tqcam_frame_get_dist_u16(dev, image.data(), n, capture.raw.data(), info.frame_size, &info) <= 0)
        throw CliError{EXIT_FAILED, "frame " + stem + " does not decode (tqcam -v says why)"};
    if (wants("dist"))
        _must(png_write_gray16(stem + "_dist_mm.png", image.data(), w, h), stem + "_dist_mm.png");
    if (wants("color"))
        write_color(image, w, h, stem + "_color.png");
    if (wants("ply"))
        _write_ply(dev, image, info, stem + ".ply", static_cast<float>(lo_) * 0.001f,
                   static_cast<float>(hi_) * 0.001f, !options_.ascii);
    if (wants("undistorted")) {
        std::vector<uint16_t> flat(n);
        if (!tqcam_lens_calib_apply_dist_u16(dev, flat.data(), static_cast<int>(n), image.data(),
                                             static_cast<int>(n), &info, nullptr))
            throw CliError{EXIT_FAILED,
                           "cannot undistort: the device has no lens parameters for this frame size"};
        write_color(flat, w, h, stem + "_undistorted.png");
    }
    if (wants("gray")) {
        std::vector<uint8_t> bytes(n);
        if (tqcam_frame_get_gray_u16(dev, image.data(), n, capture.raw.data(), info.frame_size, &info) <= 0)
            throw CliError{EXIT_FAILED, "frame " + stem + " does not decode (tqcam -v says why)"};
        tqcam_cmap_gray_u16_to_IR(bytes.data(), static_cast<int>(n), image.data(), static_cast<int>(n), 640);
        _must(png_write_gray8(stem + "_gray.png", bytes.data(), w, h), stem + "_gray.png");
    }
}
