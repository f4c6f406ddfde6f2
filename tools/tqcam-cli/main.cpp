// tqcam: lists cameras, plays and exports recordings, sets parameters; on the library's public functions
// alone.
#include "cli.h"

#include <cstdio>

#include "progress.h"
#include "simd/dispatch.h"

int main(int argc, char **argv)
{
    CLI::App app{"Time-of-flight depth cameras: list, play, export, set up.\n"
                 "URI is \"usb://BUS:PORT\", the name of a recording, or nothing for the first camera."};
    app.name("tqcam");
    app.require_subcommand(1);
    app.footer("Exit codes: 0 done, 1 failed, 2 wrong usage, 3 no such device, 130 interrupted.");

    GlobalOptions global;
    app.add_flag("-v,--verbose", global.verbose, "show the library's log");
    app.add_option("--data", global.data_dir, "folder of calibration and lens files");

    app.add_option_function<std::string>(
           "--cpu-mask",
           [](const std::string &names) {
               if (!simd_allow_names(names.c_str()))
                   throw CLI::ValidationError("--cpu-mask",
                                              "plain, all, or targets such as SSE4,AVX2,AVX3,NEON");
           },
           "vector forms that may run: plain, all, or targets such as SSE4,AVX2,AVX3")
        ->trigger_on_parse();

    add_list(app, global);
    add_info(app, global);
    add_play(app, global);
    add_export(app, global);
    add_snapshot(app, global);
    add_record(app, global);
    add_params(app, global);
    add_filter(app, global);
    add_convert(app, global);
    add_palette(app, global);
    add_calib(app);
    add_calib_exchange(app, global);
    add_reset(app, global);
    add_flash(app, global);

    interrupt_catch();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : EXIT_USAGE;
    } catch (const CliError &error) {
        std::fprintf(stderr, "tqcam: %s\n", error.text.c_str());
        return error.code;
    }
    return interrupted() ? EXIT_INTERRUPTED : 0;
}
