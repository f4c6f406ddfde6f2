// tqcam export: frames of a recording or a camera as files.
#include "cli.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "png_files.h"
#include "progress.h"

struct ExportOptions {
    std::string uri, frames = "0:1", out = ".", range;
    std::vector<std::string> filters, kinds = {"dist", "color", "gray"};
    uint32_t palette = 0;
};

static void _must(bool ok, const std::string &path)
{
    if (!ok)
        throw CliError{EXIT_FAILED, "cannot write " + path};
}

static void _export_raw(const std::string &path, const Capture &capture)
{
    const tqcam_frame_info_t &info = capture.info;
    const size_t pixels = static_cast<size_t>(info.width) * info.height, samples = info.frame_size / 2;
    std::vector<uint16_t> words(samples);
    std::memcpy(words.data(), capture.raw.data(), samples * 2);
    const int fd = tqcam_file_open(path.c_str(), "wb");
    const int planes = pixels != 0 && samples % pixels == 0 ? static_cast<int>(samples / pixels) : 0;
    char tag[33];
    std::snprintf(tag, sizeof tag, "format%u", info.frame_format);
    // A frame that isn't whole planes of 16-bit samples is kept as one long row.
    const bool ok =
        fd >= 0 &&
        (planes > 0
             ? tqcam_frame_save_raw(fd, TQCAM_RAW_U16, words.data(), static_cast<int>(samples),
                                    static_cast<int>(info.width), static_cast<int>(info.height), planes, tag)
             : tqcam_frame_save_raw(fd, TQCAM_RAW_U16, words.data(), static_cast<int>(samples),
                                    static_cast<int>(samples), 1, 1, tag));
    if (fd >= 0)
        tqcam_file_close(fd);
    _must(ok, path);
}

static void _export_frame(Device &device, const Capture &capture, const ExportOptions &options,
                          const std::string &stem, uint16_t lo, uint16_t hi)
{
    const tqcam_frame_info_t &info = capture.info;
    const int w = static_cast<int>(info.width), h = static_cast<int>(info.height);
    const auto pixels = static_cast<uint32_t>(static_cast<uint64_t>(info.width) * info.height);
    std::vector<uint16_t> image(pixels);
    std::vector<uint8_t> bytes(static_cast<size_t>(pixels) * 3);
    const auto wants = [&](const char *kind) {
        for (const std::string &k : options.kinds)
            if (k == kind || k == "all")
                return true;
        return false;
    };
    if (wants("raw"))
        _export_raw(stem + "_raw.tqf", capture);
    if (wants("dist") || wants("color")) {
        if (tqcam_frame_get_dist_u16(device.get(), image.data(), pixels, capture.raw.data(), info.frame_size,
                                     &info) <= 0)
            throw CliError{EXIT_FAILED, "frame " + stem + " does not decode (tqcam -v says why)"};
        if (wants("dist"))
            _must(png_write_gray16(stem + "_dist_mm.png", image.data(), w, h), stem + "_dist_mm.png");
        if (wants("color")) {
            const tqcam_cmap_opt_t cmap = {options.palette, 0};
            tqcam_cmap_dist_u16_to_RGB(bytes.data(), static_cast<int>(bytes.size()), image.data(),
                                       static_cast<int>(pixels), TQCAM_PIX_RGB, lo, hi, &cmap);
            _must(png_write_rgb8(stem + "_color.png", bytes.data(), w, h), stem + "_color.png");
        }
    }
    if (wants("gray")) {
        if (tqcam_frame_get_gray_u16(device.get(), image.data(), pixels, capture.raw.data(), info.frame_size,
                                     &info) <= 0)
            throw CliError{EXIT_FAILED, "frame " + stem + " does not decode (tqcam -v says why)"};
        tqcam_cmap_gray_u16_to_IR(bytes.data(), static_cast<int>(pixels), image.data(),
                                  static_cast<int>(pixels), 640);
        _must(png_write_gray8(stem + "_gray.png", bytes.data(), w, h), stem + "_gray.png");
    }
}

static void _export(const GlobalOptions &global, const ExportOptions &options)
{
    unsigned first = 0, last = 0;
    char rest = 0;
    const int fields = std::sscanf(options.frames.c_str(), "%u:%u%c", &first, &last, &rest);
    if (fields == 1 && options.frames.find(':') == std::string::npos)
        last = first + 1;
    else if (fields != 2 || last <= first)
        throw CliError{EXIT_USAGE, "--frames takes A:B, frames A to B - 1, or one number"};
    unsigned lo = 0, hi = 0;
    if (!options.range.empty() &&
        (std::sscanf(options.range.c_str(), "%u:%u%c", &lo, &hi, &rest) != 2 || hi <= lo || hi > 65535))
        throw CliError{EXIT_USAGE, "--range takes LOW:HIGH in millimetres"};

    Library library(global);
    Device device(options.uri);
    for (const std::string &filter : options.filters)
        filter_apply(device, filter);
    if (hi == 0)
        hi = device.range_mm() != 0 ? device.range_mm() : 10000;

    std::error_code error;
    std::filesystem::create_directories(options.out, error);
    if (error)
        throw CliError{EXIT_FAILED, "cannot make the folder " + options.out + ": " + error.message()};

    Capture capture(device, true);
    if (capture.frames_total() != 0 && last > capture.frames_total())
        throw CliError{EXIT_USAGE, "the recording has " + std::to_string(capture.frames_total()) + " frames"};
    if (first > 0 && device.is_replay())
        capture.seek(first);
    Progress progress("exporting", last - first);
    for (unsigned i = first; i < last && !interrupted(); i++) {
        if (!capture.next())
            throw CliError{EXIT_FAILED,
                           "frame " + std::to_string(i) + " did not come: " + capture.end_reason()};
        char name[32];
        std::snprintf(name, sizeof name, "/frame_%05u", i);
        _export_frame(device, capture, options, options.out + name, static_cast<uint16_t>(lo),
                      static_cast<uint16_t>(hi));
        progress.at(i - first + 1);
    }
}

void add_export(CLI::App &app, const GlobalOptions &global)
{
    CLI::App *command =
        app.add_subcommand("export", "write frames as files: 16-bit PNG in millimetres, colour, gray, raw");
    auto options = std::make_shared<ExportOptions>();
    command->add_option("URI", options->uri, "camera or recording");
    command->add_option("--frames", options->frames, "A:B, frames A to B - 1")->capture_default_str();
    command->add_option("--out", options->out, "folder, made when missing")->capture_default_str();
    command->add_option("--what", options->kinds, "dist, color, gray, raw or all")
        ->delimiter(',')
        ->check(CLI::IsMember({"dist", "color", "gray", "raw", "all"}))
        ->capture_default_str();
    command->add_option("--range", options->range,
                        "LOW:HIGH millimetres for colours; default: the whole range");
    command->add_option("--palette", options->palette, "palette of the colours")
        ->check(CLI::Range(0, 63))
        ->capture_default_str();
    command->add_option("--filter", options->filters, "switch a filter, as tqcam filter --help tells");
    command->callback([&global, options] { _export(global, *options); });
}
