// tqcam calib info, check, plot: what a calibration file holds, what is wrong with it, and how it looks.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "calib_plot.h"
#include "cli.h"

using nlohmann::json;

static json _number(double v)
{
    return std::isfinite(v) ? json(v) : json(nullptr);
}

static json _block_json(const CalibBlock &b)
{
    json out = {{"type", b.type}, {"kind", calib_type_name(b.type)}, {"offset", b.offset}, {"size", b.size}};
    const CalibDrnu &d = b.drnu;
    if (b.type == TQ_BLK_DRNU_IMAGES || b.type == TQ_BLK_DRNU_RESULT)
        out.update({{"frequency_hz", d.freq},
                    {"width", d.width},
                    {"height", d.height},
                    {"images", d.images},
                    {"scale", d.scale},
                    {"integration_us", d.intg},
                    {"fps", d.fps},
                    {"temp_cb", d.t_cal_cb / 10.0},
                    {"temp_ib", d.t_cal_ib / 10.0},
                    {"depths", d.ref_is_z}});
    const CalibTemp &t = b.temp;
    if (b.type == TQ_BLK_TEMP_SAMPLES || b.type == TQ_BLK_TEMP_RESULT) {
        json coefs = json::array();
        for (float v : t.coefs)
            coefs.push_back(_number(v));
        out.update({{"frequency_hz", t.freq},
                    {"temp_env", t.tenv / 10.0},
                    {"samples", t.samples.size()},
                    {"phase_per_degree", coefs}});
    }
    const tq_lens_bin_t &l = b.lens;
    if (b.type == TQ_BLK_LENS)
        out.update({{"cx", _number(l.cx)},
                    {"cy", _number(l.cy)},
                    {"fx", _number(l.fx)},
                    {"fy", _number(l.fy)},
                    {"width", uint32_t{l.img_w}},
                    {"height", uint32_t{l.img_h}},
                    {"gradient_values", uint32_t{l.n_grad}},
                    {"reflection_values", uint32_t{l.n_reflect}}});
    return out;
}

static void _print_block(const CalibBlock &b, size_t index)
{
    std::printf("Block %-9zu%s, %zu bytes at %zu", index, calib_type_name(b.type), b.size, b.offset);
    const CalibDrnu &d = b.drnu;
    const CalibTemp &t = b.temp;
    switch (b.type) {
    case TQ_BLK_DRNU_IMAGES:
    case TQ_BLK_DRNU_RESULT:
        std::printf(": %.3f MHz, %u x %u", d.freq / 1e6, d.width, d.height);
        if (b.type == TQ_BLK_DRNU_IMAGES)
            std::printf(", %d images of %u a turn%s", d.images, d.scale, d.ref_is_z ? ", depths" : "");
        std::printf("\n               at CB %.1f, IB %.1f degrees, %d frames/s, %u us", d.t_cal_cb / 10.0,
                    d.t_cal_ib / 10.0, d.fps, d.intg);
        break;
    case TQ_BLK_TEMP_SAMPLES:
    case TQ_BLK_TEMP_RESULT:
        std::printf(": %.3f MHz, ", t.freq / 1e6);
        if (b.type == TQ_BLK_TEMP_SAMPLES)
            std::printf("%zu samples, fitted ", t.samples.size());
        std::printf("coefficients");
        for (float v : t.coefs)
            std::printf(" %.3f", static_cast<double>(v));
        break;
    case TQ_BLK_LENS:
        std::printf(": cx %.2f, cy %.2f, fx %.2f, fy %.2f, %u x %u, %u gradient and %u reflection values",
                    static_cast<double>(b.lens.cx), static_cast<double>(b.lens.cy),
                    static_cast<double>(b.lens.fx), static_cast<double>(b.lens.fy), b.lens.img_w,
                    b.lens.img_h, b.lens.n_grad, b.lens.n_reflect);
        break;
    default:
        break;
    }
    std::printf("\n");
}

static void _info(const std::string &path, bool as_json)
{
    const CalibFile file(path);
    if (file.bytes.size() < sizeof file.hdr)
        throw CliError{EXIT_FAILED, path + " is no calibration file: " + file.problems.front()};
    const par_tq_hdr &h = file.hdr;
    const tqcam_lens_param_t &l = h.lens;
    json freqs = json::array(), blocks = json::array();
    for (const CalibBlock &b : file.blocks) {
        if (b.drnu.freq)
            freqs.push_back(b.drnu.freq);
        blocks.push_back(_block_json(b));
    }
    if (as_json) {
        json out = {{"file", path},
                    {"bytes", file.bytes.size()},
                    {"version", h.ver},
                    {"block_version", h.blk_ver},
                    {"time", uint32_t{h.ts}},
                    {"block_time", uint32_t{h.blk_ts}},
                    {"checksum", {{"stated", uint16_t{h.cksum}}, {"computed", file.cksum}}},
                    {"frequencies_hz", freqs},
                    {"blocks", blocks},
                    {"problems", file.problems},
                    {"remarks", file.remarks}};
        if (!file.old_container())
            out["block_checksum"] = {{"stated", uint16_t{h.blk_cksum}}, {"computed", file.blk_cksum}};
        if (h.name[0])
            out["lens"] = {{"name", file.lens_name()},   {"cx", _number(l.cx)}, {"cy", _number(l.cy)},
                           {"fx", _number(l.fx)},        {"fy", _number(l.fy)}, {"width", uint32_t{l.img_w}},
                           {"height", uint32_t{l.img_h}}};
        // A name is whatever the file holds.
        std::printf("%s\n", out.dump(2, ' ', false, json::error_handler_t::replace).c_str());
        return;
    }
    std::printf("File           %s, %zu bytes\n", path.c_str(), file.bytes.size());
    std::printf("Version        %u, blocks %u\n", h.ver, h.blk_ver);
    std::printf("Time           %u, blocks %u\n", h.ts, h.blk_ts);
    std::printf("Checksum       0x%04x%s", h.cksum, h.cksum == file.cksum ? "" : " (wrong)");
    if (!file.old_container())
        std::printf(", blocks 0x%04x%s", h.blk_cksum, h.blk_cksum == file.blk_cksum ? "" : " (wrong)");
    std::printf("\n");
    if (h.name[0])
        std::printf("Lens           %s: cx %.2f, cy %.2f, fx %.2f, fy %.2f, %u x %u\n",
                    file.lens_name().c_str(), l.cx, l.cy, l.fx, l.fy, l.img_w, l.img_h);
    for (size_t i = 0; i < file.blocks.size(); i++)
        _print_block(file.blocks[i], i);
    if (!file.problems.empty())
        std::printf("Problems       %zu; tqcam calib check %s names them\n", file.problems.size(),
                    path.c_str());
}

// What only the fits bring to light.
static void _check_fits(CalibFile &file)
{
    for (size_t i = 0; i < file.blocks.size(); i++) {
        const CalibBlock &b = file.blocks[i];
        CalibPlanes planes;
        if (b.type != TQ_BLK_DRNU_IMAGES || !calib_planes(file, b, planes))
            continue;
        char text[256];
        const double bad = 100.0 * static_cast<double>(planes.bad) / static_cast<double>(planes.slope.size());
        if (!(planes.r_line >= 0.9f) || planes.r_steps < 0.9f) {
            std::snprintf(text, sizeof text,
                          "block %zu: the images don't follow their distances (r %.3f for the steps, %.3f "
                          "for the line)",
                          i, static_cast<double>(planes.r_steps), static_cast<double>(planes.r_line));
            file.remarks.push_back(text);
        }
        if (bad > 1) {
            std::snprintf(text, sizeof text,
                          "block %zu: %.1f %% of the pixels follow no line and get the common one", i, bad);
            file.remarks.push_back(text);
        }
    }
}

static void _check(const std::string &path)
{
    CalibFile file(path);
    if (file.problems.empty())
        _check_fits(file);
    for (const std::string &text : file.problems)
        std::printf("wrong: %s\n", text.c_str());
    for (const std::string &text : file.remarks)
        std::printf("note: %s\n", text.c_str());
    // The library has the last word.
    auto param = std::make_unique<tqcam_param_t>();
    const bool opens = tqcam_param_open_file(param.get(), path.c_str());
    if (!opens && param->fp)
        std::fclose(param->fp);
    tqcam_param_close(param.get());
    if (!file.problems.empty() || !opens)
        throw CliError{EXIT_FAILED,
                       path + (opens ? " is not usable as a whole" : " is refused by the library")};
    std::printf("%s is good\n", path.c_str());
}

static void _plot(const std::string &path, const std::string &dir)
{
    const CalibFile file(path);
    std::error_code failed;
    std::filesystem::create_directories(dir, failed);
    int plotted = 0;
    for (const CalibBlock &b : file.blocks) {
        CalibPlanes planes;
        if ((b.type != TQ_BLK_DRNU_IMAGES && b.type != TQ_BLK_DRNU_RESULT) || !calib_planes(file, b, planes))
            continue;
        char mhz[32];
        std::snprintf(mhz, sizeof mhz, "_%.3fMHz.png", b.drnu.freq / 1e6);
        const auto name = [&](const char *what) {
            return (std::filesystem::path(dir) / (what + std::string(mhz))).string();
        };
        PlotScale slope, offset;
        float span = 0;
        if (!plot_plane(name("slope"), planes.slope, b.drnu.width, b.drnu.height, slope) ||
            !plot_plane(name("offset"), planes.offset, b.drnu.width, b.drnu.height, offset) ||
            !plot_wave(name("periodic"), planes, span))
            throw CliError{EXIT_FAILED, "can't write pictures to " + dir};
        std::printf("%.3f MHz, range %.0f mm, in %s\n", b.drnu.freq / 1e6,
                    static_cast<double>(planes.range_mm), dir.c_str());
        std::printf("  slope        %.5f in white, %+.5f in full colour\n", static_cast<double>(slope.middle),
                    static_cast<double>(slope.span));
        std::printf("  offset       %.1f mm in white, %+.1f mm in full colour\n",
                    static_cast<double>(offset.middle), static_cast<double>(offset.span));
        std::printf("  periodic     %.2f mm, edges at %.1f mm; %zu of %zu pixels have the common line\n",
                    static_cast<double>(planes.amp), static_cast<double>(span), planes.bad,
                    planes.slope.size());
        plotted++;
    }
    if (plotted == 0)
        throw CliError{EXIT_FAILED, path + " holds no block that makes a picture; see tqcam calib check"};
}

void add_calib(CLI::App &app)
{
    CLI::App *command = app.add_subcommand("calib", "look into a calibration file");
    command->require_subcommand(1);
    auto path = std::make_shared<std::string>();
    auto dir = std::make_shared<std::string>(".");
    auto as_json = std::make_shared<bool>(false);

    CLI::App *info = command->add_subcommand("info", "header, blocks, frequencies, temperature model, lens");
    info->add_option("FILE", *path, "calibration file")->required()->check(CLI::ExistingFile);
    info->add_flag("--json", *as_json, "for scripts");
    info->callback([path, as_json] { _info(*path, *as_json); });

    CLI::App *check = command->add_subcommand("check", "say in words what is wrong with a file");
    check->add_option("FILE", *path, "calibration file")->required()->check(CLI::ExistingFile);
    check->callback([path] { _check(*path); });

    CLI::App *plot = command->add_subcommand("plot", "pictures of slopes, offsets and the periodic error");
    plot->add_option("FILE", *path, "calibration file")->required()->check(CLI::ExistingFile);
    plot->add_option("-o,--out", *dir, "folder for the pictures")->capture_default_str();
    plot->callback([path, dir] { _plot(*path, *dir); });
}
