// tqcam-sim: records what a simulated camera sees, or serves it as a USB device, for people and tests without
// a camera.
#include "commands.h"
#include "options.h"
#include "progress.h"

#include <cstdio>

int main(int argc, char **argv)
{
    CLI::App app{
        "Simulates a time-of-flight camera before a scene whose true distances are known, and records\n"
        "it: the recording opens like a camera, FILE.truth.f32 beside it holds the true radial distance\n"
        "in metres (32-bit floats, frame behind frame)."};
    app.name("tqcam-sim");
    app.footer(
        "Exit codes: 0 done, 1 failed, 2 wrong usage, 130 interrupted (what was recorded so far stays).\n"
        "Example: tqcam-sim -o scene.oni --frames 60 && tqcam play scene.oni");
    app.add_flag_callback(
        "--list-cameras",
        [] {
            std::fputs(camera_table().c_str(), stdout);
            throw CLI::Success();
        },
        "show the cameras and leave");
    RecordOptions record;
    record_add(app, record);
    UsbOptions usb;
    usb_add(app, usb);

    interrupt_catch();
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty())
            record_run(record);
    } catch (const CLI::Success &done) {
        return app.exit(done);
    } catch (const CLI::ParseError &error) {
        app.exit(error);
        return EXIT_USAGE;
    } catch (const SimError &error) {
        std::fprintf(stderr, "tqcam-sim: %s\n", error.text.c_str());
        return error.code;
    }
    return interrupted() ? EXIT_INTERRUPTED : 0;
}
