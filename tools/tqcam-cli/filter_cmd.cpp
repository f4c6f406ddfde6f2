// tqcam filter, and the --filter option of other commands.
#include "cli.h"

#include <cstdio>
#include <cstring>
#include <memory>

enum FilterArg { ARG_NONE, ARG_U16, ARG_BYTE, ARG_TWO_BYTES, ARG_TWO_U16, ARG_OFFSET };

struct FilterName {
    const char *name;
    uint32_t id;
    FilterArg arg;
};

static const FilterName _filters[] = {
    {"lens", TQCAM_FILTER_LENS, ARG_NONE},
    {"pixel-calib", TQCAM_FILTER_PIXEL_CALIB, ARG_NONE},
    {"denoise", TQCAM_FILTER_DENOISE, ARG_TWO_BYTES},
    {"min-amp", TQCAM_FILTER_MIN_AMP, ARG_U16},
    {"auto-intg", TQCAM_FILTER_AUTO_INTG, ARG_U16},
    {"sync-check", TQCAM_FILTER_SYNC_CHECK, ARG_U16},
    {"temp-monitor", TQCAM_FILTER_TEMP_MONITOR, ARG_U16},
    {"hdr", TQCAM_FILTER_HDR, ARG_TWO_U16},
    {"offset", TQCAM_FILTER_OFFSET, ARG_OFFSET},
    {"sport", TQCAM_FILTER_SPORT, ARG_BYTE},
    {"sys-calib", TQCAM_FILTER_SYS_CALIB, ARG_NONE},
    {"gray-ref", TQCAM_FILTER_GRAY_REF, ARG_U16},
    {"fly-pixel", TQCAM_FILTER_FLY_PIXEL, ARG_BYTE},
    {"temp-corr", TQCAM_FILTER_TEMP_CORR, ARG_NONE},
};

const char filter_help[] =
    "Filters, NAME or NAME=VALUE; no-NAME switches one off:\n"
    "  lens              undistort images\n"
    "  pixel-calib       per-pixel calibration\n"
    "  denoise=240,B     edge-keeping smoothing, B thousandths of the image size\n"
    "  min-amp=N         drop pixels with an amplitude below N\n"
    "  auto-intg=N       integration time follows the scene; N per mille of bad pixels\n"
    "  sync-check=N      look for light of other cameras, N is the delay\n"
    "  hdr=A,B           two integration times, us\n"
    "  offset=MM[,S]     add millimetres, scale by S thousandths\n"
    "  sport=MODE        one (1), two (0) or four (2) samples a pixel\n"
    "  sys-calib, temp-corr, temp-monitor=N, gray-ref=N\n"
    "  fly-pixel=N       drop mixed pixels on edges, strength 0 to 31\n";

static tqcam_filter_arg_t _argument(const FilterName &filter, const std::string &text,
                                    const std::string &value)
{
    int a = 0, b = 0;
    char rest = 0;
    const int fields = value.empty() ? 0 : std::sscanf(value.c_str(), "%d,%d%c", &a, &b, &rest);
    const auto in = [](int v, int lo, int hi) { return v >= lo && v <= hi; };
    tqcam_filter_arg_t arg = {};
    bool ok = false;
    switch (filter.arg) {
    case ARG_NONE:
        ok = value.empty();
        break;
    case ARG_U16:
        ok = fields == 1 && in(a, 0, 65535);
        arg.value = static_cast<uint16_t>(a);
        break;
    case ARG_BYTE:
        ok = fields == 1 && in(a, 0, 255);
        arg.mode = static_cast<uint8_t>(a);
        break;
    case ARG_TWO_BYTES:
        ok = fields == 2 && in(a, 0, 255) && in(b, 0, 255);
        arg.denoise.a = static_cast<uint8_t>(a);
        arg.denoise.b = static_cast<uint8_t>(b);
        break;
    case ARG_TWO_U16:
        ok = fields == 2 && in(a, 0, 65535) && in(b, 0, 65535);
        arg.hdr.intg1_us = static_cast<uint16_t>(a);
        arg.hdr.intg2_us = static_cast<uint16_t>(b);
        break;
    case ARG_OFFSET:
        ok = (fields == 1 || fields == 2) && in(a, -32768, 32767) && in(b, 0, 65535);
        arg.offset.mm = static_cast<int16_t>(a);
        arg.offset.scale = static_cast<uint16_t>(b);
        break;
    }
    if (!ok)
        throw CliError{EXIT_USAGE, text + ": wrong value\n" + filter_help};
    return arg;
}

void filter_apply(Device &device, const std::string &text)
{
    const size_t equals = text.find('=');
    std::string name = text.substr(0, equals);
    const bool off = name.rfind("no-", 0) == 0;
    if (off)
        name = name.substr(3);
    for (const FilterName &filter : _filters) {
        if (name != filter.name)
            continue;
        int result;
        if (off) {
            result = tqcam_filter_disable(device.get(), filter.id);
        } else {
            const tqcam_filter_arg_t arg = _argument(
                filter, text, equals == std::string::npos ? std::string() : text.substr(equals + 1));
            result = tqcam_filter_enable(device.get(), filter.id, &arg);
        }
        if (result != 0)
            throw CliError{EXIT_FAILED, "the camera does not take the filter " + text};
        return;
    }
    throw CliError{EXIT_USAGE, "no filter " + name + "\n" + filter_help};
}

void add_filter(CLI::App &app, const GlobalOptions &global)
{
    CLI::App *command = app.add_subcommand("filter", "try whether a device takes filters");
    auto uri = std::make_shared<std::string>();
    auto words = std::make_shared<std::vector<std::string>>();
    command->add_option("URI", *uri, "camera or recording; \"\" is the first camera")->required();
    command->add_option("FILTER", *words, "filters to switch, in this order")->required();
    command->footer(std::string(filter_help) +
                    "Filters live while a device is open: play and export take them with --filter.");
    command->callback([&global, uri, words] {
        Library library(global);
        Device device(*uri);
        for (const std::string &word : *words) {
            filter_apply(device, word);
            std::printf("%s ok\n", word.c_str());
        }
    });
}
