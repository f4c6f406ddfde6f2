// tqcam export, tqcam snapshot: frames of a recording or a camera as files.
#include "cli.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "frame_output.h"
#include "progress.h"

struct ExportOptions {
    std::string uri, frames = "0:1", out = ".";
    std::vector<std::string> filters;
    OutputOptions output;
};

static void _export(const GlobalOptions &global, const ExportOptions &options)
{
    unsigned first = 0, last = 0;
    char rest = 0;
    const int fields = std::sscanf(options.frames.c_str(), "%u:%u%c", &first, &last, &rest);
    if (fields == 1 && options.frames.find(':') == std::string::npos)
        last = first + 1;
    else if (fields != 2 || last <= first)
        throw CliError{EXIT_USAGE, "--frames takes A:B, frames A to B - 1, or one number"};

    Library library(global);
    Device device(options.uri);
    for (const std::string &filter : options.filters)
        filter_apply(device, filter);
    FrameOutput output(device, options.output);

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
        output.write(capture, options.out + name);
        progress.at(i - first + 1);
    }
}

static void _snapshot(const GlobalOptions &global, const ExportOptions &options)
{
    Library library(global);
    Device device(options.uri);
    for (const std::string &filter : options.filters)
        filter_apply(device, filter);
    FrameOutput output(device, options.output);
    Capture capture(device, true);
    if (!capture.next())
        throw CliError{EXIT_FAILED, "no frame: " + capture.end_reason()};
    output.write(capture, options.out);
}

static void _add_common(CLI::App *command, ExportOptions &options)
{
    command->add_option("URI", options.uri, "camera or recording");
    command->add_option("--range", options.output.range,
                        "LOW:HIGH millimetres for colours; default: the whole range");
    command->add_option("--palette", options.output.palette, "palette of the colours")
        ->check(CLI::Range(0, 63))
        ->capture_default_str();
    command->add_option("--filter", options.filters, "switch a filter, as tqcam filter --help tells");
    command->add_flag("--ascii", options.output.ascii, "point clouds as text");
}

void add_export(CLI::App &app, const GlobalOptions &global)
{
    CLI::App *command = app.add_subcommand(
        "export", "write frames as files: 16-bit PNG in millimetres, colours, gray, point cloud, raw");
    auto options = std::make_shared<ExportOptions>();
    auto ply = std::make_shared<bool>(false);
    options->output.kinds = {"dist", "color", "gray"};
    _add_common(command, *options);
    command->add_option("--frames", options->frames, "A:B, frames A to B - 1")->capture_default_str();
    command->add_option("--out", options->out, "folder, made when missing")->capture_default_str();
    command->add_option("--what", options->output.kinds, "dist, color, gray, undistorted, ply, raw or all")
        ->delimiter(',')
        ->check(CLI::IsMember({"dist", "color", "gray", "undistorted", "ply", "raw", "all"}))
        ->capture_default_str();
    command->add_flag("--ply", *ply, "point clouds too");
    command->callback([&global, options, ply] {
        if (*ply)
            options->output.kinds.push_back("ply");
        _export(global, *options);
    });
}

void add_snapshot(CLI::App &app, const GlobalOptions &global)
{
    CLI::App *command = app.add_subcommand("snapshot", "write the next frame as files");
    auto options = std::make_shared<ExportOptions>();
    auto png = std::make_shared<bool>(false), ply = std::make_shared<bool>(false),
         raw = std::make_shared<bool>(false);
    options->out = "snapshot";
    _add_common(command, *options);
    command->add_option("--out", options->out, "how the files' names begin")->capture_default_str();
    command->add_flag("--png", *png, "distance in millimetres, colours, gray (the default)");
    command->add_flag("--ply", *ply, "point cloud");
    command->add_flag("--raw", *raw, "raw samples");
    command->callback([&global, options, png, ply, raw] {
        auto &kinds = options->output.kinds;
        if (*png || (!*ply && !*raw))
            kinds = {"dist", "color", "gray"};
        if (*ply)
            kinds.push_back("ply");
        if (*raw)
            kinds.push_back("raw");
        _snapshot(global, *options);
    });
}
