#include "commands.h"
#include "progress.h"
#include "replay_recorder.h"

#include <cstdio>

void record_add(CLI::App &app, RecordOptions &options)
{
    app.add_option("-o,--output", options.out, "recording to write");
    app.add_option("-n,--frames", options.frames, "frames to record")
        ->check(CLI::Range(1u, 1000000u))
        ->capture_default_str();
    app.add_flag("--no-truth", options.no_truth, "write no file of true distances");
    options.camera.add(app);
}

void record_run(const RecordOptions &options)
{
    if (options.out.empty())
        throw SimError{EXIT_USAGE, "name the recording to write with -o FILE (see --help)"};
    const sim_config_t cfg = options.camera.config();
    const std::vector<uint8_t> calib = options.camera.calib_bytes();
    const std::string truth = options.out + ".truth.f32";

    sim_recorder_t rec;
    std::string error;
    if (!sim_recorder_open(&rec, options.out.c_str(), options.no_truth ? nullptr : truth.c_str(), cfg,
                           options.camera.calib_name(), calib, &error))
        throw SimError{EXIT_FAILED, error};

    const sim_source_ptr_t source = sim_source_live(cfg);
    bool ok = true;
    {
        Progress progress("recording", options.frames);
        sim_frame_t frame;
        while (ok && !interrupted() && rec.frames < options.frames) {
            ok = source->next(source->self, &frame) && sim_recorder_add(&rec, frame);
            progress.at(rec.frames);
        }
    }
    const uint32_t frames = rec.frames;
    if (!sim_recorder_close(&rec) || !ok) {
        sim_recorder_discard(options.out.c_str());
        sim_recorder_discard(truth.c_str());
        throw SimError{EXIT_FAILED, "writing " + options.out + " failed: is the disk full?"};
    }
    std::fprintf(stderr, "%s%u frames of %ux%u, format %u, in %s\n", interrupted() ? "interrupted: " : "",
                 frames, cfg.camera->width, cfg.camera->height, cfg.format, options.out.c_str());
}
