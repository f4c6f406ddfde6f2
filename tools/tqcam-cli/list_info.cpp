// tqcam list, tqcam info
#include "cli.h"

#include <cinttypes>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "usb_devices.h"

static const char *_speed_name(uint8_t speed)
{
    static const char *const names[] = {"unknown", "low", "full", "high", "super", "super+"};
    return speed < sizeof names / sizeof names[0] ? names[speed] : "unknown";
}

static void _list(const GlobalOptions &global, bool json)
{
    Library library(global, json);
    tqcam_dev_t found[16];
    const int count = tqcam_dev_list(found, 16);
    const std::vector<UsbDevice> known = usb_devices();
    nlohmann::json all = nlohmann::json::array();
    for (int i = 0; i < count; i++) {
        char uri[256] = "";
        tqcam_dev_get_uri(&found[i], uri, sizeof uri);
        const tqcam_usb_addr_t &usb = found[i].address.usb;
        const UsbDevice *device = usb_device_at(known, usb.bus, usb.addr);
        const std::string path = device ? device->path : "", serial = device ? device->serial : "";
        if (json)
            all.push_back({{"uri", uri},
                           {"product", usb.product},
                           {"vendor", usb.vendor},
                           {"path", path},
                           {"serial", serial},
                           {"speed", _speed_name(usb.speed)}});
        else
            std::printf("%s  %s  %s  %s  serial %s  %s speed\n", uri, path.c_str(), usb.product, usb.vendor,
                        serial.c_str(), _speed_name(usb.speed));
    }
    const std::string advice = usb_access_advice(known);
    if (json)
        std::printf("%s\n", all.dump(2).c_str());
    else if (count == 0 && advice.empty())
        std::printf("no camera found; open a recording with its file name, as in: tqcam play scene.oni\n");
    if (!advice.empty())
        std::fprintf(stderr, "tqcam: %s\n", advice.c_str());
}

static void _info(const GlobalOptions &global, const std::string &uri, bool json)
{
    Library library(global, json);
    Device device(uri);
    const tqcam_dev_info_t info = device.info();
    const uint32_t format = device.param_u32(TQCAM_PARAM_FORMAT), fps = device.param_u32(TQCAM_PARAM_FPS),
                   freq = device.param_u32(TQCAM_PARAM_MOD_FREQ), intg = device.param_u32(TQCAM_PARAM_INTG1);
    const int count = device.is_replay() ? tqcam_cap_seek_frame(device.get(), 0, 2) : 0;
    const tqcam_lens_info_t &lens = info.lens_param;
    if (json) {
        nlohmann::json out = {
            {"uri", info.uri ? info.uri : ""},
            {"product", info.product},
            {"vendor", info.vendor},
            {"serial", info.serial},
            {"device_id", info.dev_id},
            {"file_id", info.dev_id32},
            {"driver", info.drv_name},
            {"version",
             {{"hardware", info.version.hardware},
              {"software", info.version.software},
              {"boot", info.version.boot}}},
            {"max",
             {{"width", info.max_w},
              {"height", info.max_h},
              {"fps", info.max_fps},
              {"integration_us", info.max_intg_us}}},
            {"format", format},
            {"fps", fps},
            {"frequency_hz", freq},
            {"range_mm", device.range_mm()},
            {"integration_us", intg},
            {"calibrated_hz",
             std::vector<uint32_t>(info.calib_freqs, info.calib_freqs + info.calib_freq_cnt)},
            {"lens", {{"cx", lens.cx}, {"cy", lens.cy}, {"fx", lens.fx}, {"fy", lens.fy}}},
        };
        if (device.is_replay())
            out["frames"] = count;
        std::printf("%s\n", out.dump(2).c_str());
        return;
    }
    std::printf("URI            %s\n", info.uri ? info.uri : "");
    std::printf("Product        %s, %s, serial %s, id 0x%016" PRIX64 "\n", info.product, info.vendor,
                info.serial, info.dev_id);
    std::printf("Driver         %s\n", info.drv_name);
    std::printf("Version        hardware %u, software %u, boot %u\n", info.version.hardware,
                info.version.software, info.version.boot);
    std::printf("Limits         %u x %u, %u frames/s, %u us\n", info.max_w, info.max_h, info.max_fps,
                info.max_intg_us);
    std::printf("Set to         format %u, %u frames/s, %.3f MHz (%u mm unambiguous), %u us\n", format, fps,
                freq / 1e6, device.range_mm(), intg);
    std::printf("Lens           cx %.2f, cy %.2f, fx %.2f, fy %.2f, %u distortion coefficients\n", lens.cx,
                lens.cy, lens.fx, lens.fy, lens.n_dcoef);
    if (info.calib_freq_cnt == 0)
        std::printf("Calibration    none\n");
    else
        for (uint32_t i = 0; i < info.calib_freq_cnt; i++)
            std::printf("%s%.3f MHz\n", i == 0 ? "Calibration    " : "               ",
                        info.calib_freqs[i] / 1e6);
    if (device.is_replay())
        std::printf("Frames         %d\n", count);
}

void add_list(CLI::App &app, const GlobalOptions &global)
{
    CLI::App *command = app.add_subcommand("list", "list the cameras on USB");
    auto json = std::make_shared<bool>(false);
    command->add_flag("--json", *json, "for scripts");
    command->callback([&global, json] { _list(global, *json); });
}

void add_info(CLI::App &app, const GlobalOptions &global)
{
    CLI::App *command = app.add_subcommand("info", "what a camera or a recording is");
    auto uri = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("URI", *uri, "camera or recording");
    command->add_flag("--json", *json, "for scripts");
    command->callback([&global, uri, json] { _info(global, *uri, *json); });
}
