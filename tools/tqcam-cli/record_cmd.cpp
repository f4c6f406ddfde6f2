// tqcam record: what a device gives, as a recording.
#include "cli.h"

#include <cstdio>
#include <memory>

#include "progress.h"

struct RecordOptions {
    std::string uri, file;
    std::vector<std::string> filters;
    uint32_t frames = 0;
    bool dist = false, gray = false;
};

static void _record(const GlobalOptions &global, const RecordOptions &options)
{
    Library library(global);
    Device device(options.uri);
    for (const std::string &filter : options.filters)
        filter_apply(device, filter);
    if (FILE *probe = std::fopen(options.file.c_str(), "ab"))
        std::fclose(probe);
    else
        throw CliError{EXIT_FAILED, "cannot write " + options.file};

    std::string name = options.file;
    tqcam_cap_cfg_t cfg;
    tqcam_cap_config_get(device.get(), &cfg);
    cfg.en_save_replay = 1;
    cfg.en_save_dist = options.dist;
    cfg.en_save_gray = options.gray;
    cfg.save_file = name.data();
    tqcam_cap_config_set(device.get(), &cfg);

    uint32_t count = 0;
    uint64_t lost = 0;
    std::string reason;
    {
        Capture capture(device, true);
        const uint32_t limit = options.frames != 0 ? options.frames : capture.frames_total();
        if (limit == 0)
            std::fprintf(stderr, "recording until Ctrl-C\n");
        Progress progress("recording", limit);
        std::vector<uint16_t> image;
        while (!interrupted() && (limit == 0 || count < limit) && capture.next()) {
            // The library records an image when it is decoded.
            const auto n =
                static_cast<uint32_t>(static_cast<uint64_t>(capture.info.width) * capture.info.height);
            image.resize(n);
            if (options.dist)
                tqcam_frame_get_dist_u16(device.get(), image.data(), n, capture.raw.data(),
                                         capture.info.frame_size, &capture.info);
            if (options.gray)
                tqcam_frame_get_gray_u16(device.get(), image.data(), n, capture.raw.data(),
                                         capture.info.frame_size, &capture.info);
            progress.at(++count);
        }
        lost = capture.frames_lost();
        reason = capture.end_reason();
    }
    std::printf("%u frames in %s, %llu lost\n", count, options.file.c_str(),
                static_cast<unsigned long long>(lost));
    if (count == 0 && !interrupted())
        throw CliError{EXIT_FAILED, "no frame: " + reason};
}

void add_record(CLI::App &app, const GlobalOptions &global)
{
    CLI::App *command = app.add_subcommand("record", "record a camera, or a part of a recording");
    auto options = std::make_shared<RecordOptions>();
    command->add_option("URI", options->uri, "camera or recording; \"\" is the first camera")->required();
    command->add_option("FILE", options->file, "the recording to write")->required();
    command->add_option("-n,--frames", options->frames, "stop after so many");
    command->add_flag("--dist", options->dist, "distance images too");
    command->add_flag("--gray", options->gray, "gray images too");
    command->add_option("--filter", options->filters, "switch a filter, as tqcam filter --help tells");
    command->callback([&global, options] { _record(global, *options); });
}
