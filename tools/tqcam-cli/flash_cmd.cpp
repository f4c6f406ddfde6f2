// tqcam reset, tqcam flash: the board, and the images in its memory.
#include "cli.h"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <unistd.h>

#include "long_work.h"

enum { TYPE_FIRMWARE = 0, TYPE_IMAGE = 2, TYPE_CALIB = 3, TYPE_ERASE_ONLY = 255 };

static void _refuse_replay(const Device &device)
{
    if (device.is_replay())
        throw CliError{EXIT_USAGE, "a recording has no memory of a camera; name a camera"};
}

static void _reset(const GlobalOptions &global, const std::string &uri, int target)
{
    Library library(global);
    Device device(uri);
    _refuse_replay(device);
    const bool ok = tqcam_dev_reset(device.get(), target);
    if (target == 3) { // the camera comes back under another address, whatever the result says
        if (!device.answers())
            throw CliError{EXIT_NO_DEVICE, "the camera did not come back"};
    } else if (!ok) {
        throw CliError{EXIT_FAILED, "the camera refused"};
    }
    std::printf("reset\n");
}

struct FlashOptions {
    std::string uri, file;
    uint16_t type = TYPE_IMAGE, version = 0;
    uint32_t size = 153600;
    bool yes = false;
};

// What the device takes for an image: erasing and writing by its size, then a rest that the type needs.
static double _seconds(uint16_t type, uintmax_t bytes)
{
    const double rest = type == TYPE_FIRMWARE ? 10 : type == TYPE_IMAGE || type == TYPE_CALIB ? 7 : 0;
    return 1 + rest + static_cast<double>(bytes) / 2e6;
}

static void _write(const GlobalOptions &global, const FlashOptions &options)
{
    Library library(global);
    Device device(options.uri);
    _refuse_replay(device);
    std::error_code error;
    const uintmax_t bytes = std::filesystem::file_size(options.file, error);
    if (error || bytes == 0 || bytes > 104857600)
        throw CliError{EXIT_USAGE, options.file + " is not an image of 1 byte to 100 MiB"};
    confirm("Write " + options.file + " over " +
                (options.type == TYPE_FIRMWARE ? std::string("the firmware")
                                               : "image " + std::to_string(options.type)) +
                " of " + device.info().product + "?",
            options.yes);
    int result = -1;
    run_long("writing, don't unplug", _seconds(options.type, bytes), [&] {
        result = tqcam_firmware_upgrade(device.get(), options.type, options.version, options.file.c_str());
    });
    if (result < 0)
        throw CliError{EXIT_FAILED, "the image was not written (tqcam -v says why; a version must be above "
                                    "that of the image in the camera)"};
    std::printf("%ju bytes written\n", bytes);
}

static void _read(const GlobalOptions &global, const FlashOptions &options)
{
    Library library(global);
    Device device(options.uri);
    _refuse_replay(device);
    int result = -1;
    run_long("reading", 5,
             [&] { result = tqcam_data_upload(device.get(), options.type, options.file.c_str()); });
    if (result < 0)
        throw CliError{EXIT_FAILED, "nothing to read: the camera holds no image of this type, or " +
                                        options.file + " can't be written"};
    std::printf("%ju bytes in %s\n", std::filesystem::file_size(options.file), options.file.c_str());
}

static void _erase(const GlobalOptions &global, const FlashOptions &options)
{
    Library library(global);
    Device device(options.uri);
    _refuse_replay(device);
    confirm("Erase the calibration in " + std::string(device.info().product) + "?", options.yes);
    // The transfer takes the size to erase from a file, of which no byte is sent.
    char name[] = "/tmp/tqcam-erase-XXXXXX";
    const int fd = mkstemp(name);
    const bool made = fd >= 0 && ftruncate(fd, options.size) == 0;
    if (fd >= 0)
        close(fd);
    int result = -1;
    if (made)
        run_long("erasing, don't unplug", 2,
                 [&] { result = tqcam_firmware_upgrade(device.get(), TYPE_ERASE_ONLY, 64999, name); });
    if (fd >= 0)
        unlink(name);
    if (result < 0)
        throw CliError{EXIT_FAILED, "the calibration was not erased (tqcam -v says why)"};
    std::printf("erased\n");
}

void add_reset(CLI::App &app, const GlobalOptions &global)
{
    CLI::App *command = app.add_subcommand("reset", "restart a camera");
    auto uri = std::make_shared<std::string>();
    auto target = std::make_shared<int>(0);
    command->add_option("URI", *uri, "camera");
    command->add_option("--target", *target, "part to reset: 0 the board, 3 its USB interface")
        ->check(CLI::Range(0, 8))
        ->capture_default_str();
    command->callback([&global, uri, target] { _reset(global, *uri, *target); });
}

void add_flash(CLI::App &app, const GlobalOptions &global)
{
    CLI::App *command = app.add_subcommand("flash", "write, read or erase the memory of a camera");
    command->require_subcommand(1);
    auto options = std::make_shared<FlashOptions>();
    const auto common = [&](const char *name, const char *help) {
        CLI::App *sub = command->add_subcommand(name, help);
        sub->add_option("URI", options->uri, "camera; \"\" is the first one")->required();
        return sub;
    };
    const auto type = [&](CLI::App *sub) {
        sub->add_option("--type", options->type,
                        "0 firmware (the camera restarts), 2 and 3 data and calibration")
            ->check(CLI::Range(0, 254))
            ->capture_default_str();
    };
    CLI::App *write =
        common("write", "write an image; the camera takes versions above that of the one it holds");
    write->add_option("FILE", options->file, "the image")->required()->check(CLI::ExistingFile);
    type(write);
    write->add_option("--version", options->version, "version of the image")->required();
    write->add_flag("--yes", options->yes, "don't ask");
    write->callback([&global, options] { _write(global, *options); });

    CLI::App *read = common("read", "read an image; cameras give the first 12 of every 450 bytes only");
    read->add_option("FILE", options->file, "file to write")->required();
    type(read);
    read->callback([&global, options] { _read(global, *options); });

    CLI::App *erase = common("erase", "erase the calibration");
    erase->add_option("--size", options->size, "bytes to erase")
        ->check(CLI::Range(1u, 104857600u))
        ->capture_default_str();
    erase->add_flag("--yes", options->yes, "don't ask");
    erase->callback([&global, options] { _erase(global, *options); });
}
