// tqcam calib upload, download, pack: calibration between a camera's memory and this computer.
#include "cli.h"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>

#include "long_work.h"

namespace fs = std::filesystem;

struct ExchangeOptions {
    std::string uri, file;
    bool plain = false, yes = false;
};

static std::string _own_file(const Device &device)
{
    char name[256] = "";
    if (!tq_priv_get_param_absolute_name(device.get(), name, sizeof name))
        throw CliError{EXIT_FAILED, "the camera has no name for a calibration file"};
    return name;
}

static void _upload(const GlobalOptions &global, const ExchangeOptions &options)
{
    const auto start = fs::file_time_type::clock::now() - std::chrono::milliseconds(20);
    Library library(global);
    Device device(options.uri); // fetches the calibration by itself when there is no file yet
    const std::string name = _own_file(device);
    const auto is_new = [&] {
        std::error_code error;
        const auto written = fs::last_write_time(name, error);
        return !error && written >= start;
    };
    if (!is_new()) {
        if (fs::exists(name))
            confirm("Replace " + name + " by the calibration that the camera holds?", options.yes);
        bool offered = false;
        run_long("fetching", 2, [&] { offered = tqcam_param_load_from_dev(device.get()); });
        if (!offered)
            throw CliError{EXIT_FAILED, "the camera holds no calibration"};
        if (!is_new())
            throw CliError{EXIT_FAILED, "what the camera holds is no calibration (tqcam -v says why)"};
    }
    std::printf("%s\n", name.c_str());
}

static std::set<fs::path> _packs()
{
    std::set<fs::path> found;
    for (const fs::directory_entry &entry : fs::directory_iterator("."))
        if (entry.path().filename().string().rfind("tcm_ex_encode_rel_W", 0) == 0)
            found.insert(entry.path().filename());
    return found;
}

static void _send_or_pack(const GlobalOptions &global, const ExchangeOptions &options, bool send)
{
    Library library(global);
    Device device(options.uri);
    const std::string file = options.file.empty() ? _own_file(device) : options.file;
    if (!fs::exists(file))
        throw CliError{EXIT_FAILED, "there is no calibration file " + file};
    if (send)
        confirm("Write " + file + " over the calibration in " + device.info().product + "?", options.yes);
    bool ok = false;
    run_long(send ? "sending, don't unplug" : "packing", send ? 9 : 1, [&] {
        ok = tqcam_calib_bin_data_pk_and_download_ex(device.get(), !options.plain, send, file.c_str());
    });
    if (!ok)
        throw CliError{EXIT_FAILED, send ? "the calibration was not sent (tqcam -v says why)"
                                         : "no pack was made (tqcam -v says why)"};
    if (send)
        std::printf("%s is in the camera\n", file.c_str());
    else
        for (const fs::path &pack : _packs())
            std::printf("%s\n", pack.c_str());
}

void add_calib_exchange(CLI::App &app, const GlobalOptions &global)
{
    CLI::App *command = app.get_subcommand("calib");
    auto options = std::make_shared<ExchangeOptions>();
    CLI::App *upload =
        command->add_subcommand("upload", "fetch what the camera holds, into the folder of --data");
    upload->add_option("URI", options->uri, "camera");
    upload->add_flag("--yes", options->yes, "replace a file without a question");
    upload->callback([&global, options] { _upload(global, *options); });

    const auto common = [&](const char *name, const char *help) {
        CLI::App *sub = command->add_subcommand(name, help);
        sub->add_option("URI", options->uri, "camera; \"\" is the first one")->required();
        sub->add_option("FILE", options->file,
                        "calibration file; default: the camera's own in the folder of --data")
            ->check(CLI::ExistingFile);
        sub->add_flag("--plain", options->plain, "don't zip it");
        return sub;
    };
    CLI::App *download = common("download", "send a calibration file into the camera, which then restarts");
    download->add_flag("--yes", options->yes, "don't ask");
    download->callback([&global, options] { _send_or_pack(global, *options, true); });
    common("pack", "make the file that download would send, in the working folder")
        ->callback([&global, options] { _send_or_pack(global, *options, false); });
}
