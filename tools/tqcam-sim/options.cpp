#include "options.h"

#include "calib_render.h"

#include <cmath>
#include <cstdio>
#include <memory>

void CameraOptions::add(CLI::App &app)
{
    std::vector<std::string> names;
    for (size_t i = 0; sim_camera_at(i) != nullptr; i++)
        names.push_back(sim_camera_at(i)->name);
    app.add_option("--camera", camera, "camera; --list-cameras shows them")
        ->check(CLI::IsMember(names))
        ->capture_default_str();
    app.add_option("--format", format, "frame format; default: the camera's first");
    app.add_option("--freq", freq_mhz, "modulation frequency in MHz, two of them for dual-frequency formats")
        ->delimiter(',')
        ->expected(1, 2);
    app.add_option("--fps", fps, "frames per second");
    app.add_option("--intg", intg, "integration time in microseconds; default: by camera and distance");
    app.add_option("--hdr", intg2, "second integration time in microseconds");
    app.add_option("--seed", seed,
                   "what random numbers start from; the same seed gives the same camera and frames")
        ->capture_default_str();
    CLI::Option *file = app.add_option("--calib", calib, "calibration file that the camera carries")
                            ->check(CLI::ExistingFile);
    app.add_flag("--with-calibration", with_calibration,
                 "the camera carries the calibration that undoes its --defects")
        ->excludes(file);

    const std::string in_scene = "Scene";
    app.add_option("--scene", scene,
                   "room (tilted wall, box, ball), wall (flat), dome (one distance), ramp (0 to --distance)")
        ->check(CLI::IsMember({"room", "wall", "dome", "ramp"}))
        ->capture_default_str()
        ->group(in_scene);
    app.add_option(
           "--distance", distance,
           "distance of the wall, or end of the ramp, in millimetres; default: within the unambiguous range")
        ->group(in_scene);
    app.add_option("--reflectivity", reflectivity, "reflectivity of the wall")
        ->check(CLI::Range(0.0, 1.0))
        ->group(in_scene);
    app.add_flag("--still", still, "the ball doesn't move")->group(in_scene);
    app.add_option("--temp-cb", temp_cb, "temperature of the board at the start, degrees")
        ->check(CLI::Range(-40.0, 125.0))
        ->group(in_scene);
    app.add_option("--temp-ib", temp_ib, "temperature of the light source at the start, degrees")
        ->check(CLI::Range(-40.0, 125.0))
        ->group(in_scene);
    app.add_option("--warmup", warmup, "degrees by which the board warms in the long run")
        ->check(CLI::Range(-100.0, 100.0))
        ->group(in_scene);

    const std::string in_defects = "Defects (0 switches one off)";
    app.add_option("--defects", defects,
                   "start from none (ideal), noise (light and noise), all (and the errors that a calibration "
                   "removes)")
        ->check(CLI::IsMember({"none", "noise", "all"}))
        ->capture_default_str()
        ->group(in_defects);
    const auto term = [&](const char *name, std::optional<double> &value, double low, double high,
                          const char *text) {
        app.add_option(name, value, text)->check(CLI::Range(low, high))->group(in_defects);
    };
    term("--offset", offset, -1e5, 1e5, "offset of all pixels, mm");
    term("--offset-spread", offset_spread, 0, 1e4, "spread (sigma) of the pixels' offsets, mm");
    term("--slope", slope, 0, 0.2, "spread (sigma) of the pixels' slopes around 1");
    term("--periodic", periodic, 0, 0.1, "error of four waves a range, share of the range");
    term("--drift", drift, -10, 10, "drift with temperature, 1 is the camera's");
    term("--dead", dead, 0, 1, "share of dead pixels");
    term("--falloff", falloff, 0, 1, "1: light falls with distance squared; 0: same amplitude everywhere");
    term("--amplitude", amplitude, 0, 2047, "fixed amplitude in samples, without falloff");
    term("--ambient", ambient, 0, 4095, "background light in 500 us, samples");
    term("--shot", shot, 0, 10, "shot noise, variance for each sample of light");
    term("--read", read, 0, 500, "read noise (sigma), samples");
    term("--saturation", saturation, 0, 1, "1: full pixels saturate");
    term("--flying", flying, 0, 1, "1: pixels across edges mix what they see");
}

sim_config_t CameraOptions::config() const
{
    sim_config_t cfg = sim_config_default(sim_camera_find(camera.c_str()));
    cfg.scene = sim_scene_make(scene == "room"   ? SIM_SCENE_ROOM
                               : scene == "wall" ? SIM_SCENE_WALL
                               : scene == "dome" ? SIM_SCENE_DOME
                                                 : SIM_SCENE_RAMP);
    cfg.defects = defects == "none"    ? sim_defects_none()
                  : defects == "noise" ? sim_defects_noise(cfg.camera)
                                       : sim_defects_all(cfg.camera);
    cfg.seed = seed;
    cfg.format = format.value_or(cfg.format);
    if (!freq_mhz.empty()) {
        for (const double mhz : freq_mhz)
            if (!(mhz >= 1 && mhz <= 200))
                throw SimError{EXIT_USAGE, "--freq takes 1 to 200 MHz"};
        cfg.freq0 = static_cast<uint32_t>(std::lround(freq_mhz[0] * 1e6));
        cfg.freq1 = freq_mhz.size() > 1 ? static_cast<uint32_t>(std::lround(freq_mhz[1] * 1e6)) : 0;
    }
    const sim_s_format_t *s_format = sim_raw_s_format(cfg.format);
    if (freq_mhz.empty() && s_format != nullptr) // the camera's own pair, or its first
        cfg.freq1 = !s_format->dual ? 0 : cfg.freq1 != 0 ? cfg.freq1 : 40000000;
    cfg.fps = fps.value_or(cfg.fps);
    cfg.scene.reflectivity = reflectivity.value_or(cfg.scene.reflectivity);
    sim_config_fit(&cfg);
    cfg.intg_us = intg.value_or(cfg.intg_us);
    cfg.intg2_us = intg2.value_or(cfg.intg2_us);
    cfg.scene.distance_mm = distance.value_or(cfg.scene.distance_mm);
    cfg.scene.moving = cfg.scene.moving && !still;
    cfg.temp_cb = static_cast<int16_t>(std::lround(temp_cb.value_or(cfg.temp_cb / 10.0) * 10));
    cfg.temp_ib = static_cast<int16_t>(std::lround(temp_ib.value_or(cfg.temp_ib / 10.0) * 10));
    cfg.warmup_deg = warmup.value_or(0);

    sim_defects_t &d = cfg.defects;
    d.offset_mm = offset.value_or(d.offset_mm);
    d.offset_spread_mm = offset_spread.value_or(d.offset_spread_mm);
    d.slope_spread = slope.value_or(d.slope_spread);
    d.periodic = periodic.value_or(d.periodic);
    d.drift = drift.value_or(d.drift);
    d.dead_share = dead.value_or(d.dead_share);
    d.falloff = falloff.value_or(d.falloff);
    if (amplitude) {
        d.falloff = 0;
        d.fixed_amp = *amplitude;
    }
    d.ambient = ambient.value_or(d.ambient);
    d.shot = shot.value_or(d.shot);
    d.read = read.value_or(d.read);
    d.saturation = saturation.value_or(d.saturation);
    d.flying = flying.value_or(d.flying);

    const std::string wrong = sim_config_check(cfg);
    if (!wrong.empty())
        throw SimError{EXIT_USAGE, wrong};
    return cfg;
}

std::vector<uint8_t> CameraOptions::calib_bytes() const
{
    if (with_calibration) {
        const sim_config_t cfg = config();
        sim_camera_t cam;
        sim_camera_init(&cam, cfg.camera, cfg.defects, cfg.seed);
        return sim_calib_file_bytes(sim_calib_render(cam, sim_calib_plan(cfg.freq0, cfg.freq1)));
    }
    std::vector<uint8_t> bytes;
    if (calib.empty())
        return bytes;
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(calib.c_str(), "rb"), fclose);
    uint8_t piece[65536];
    size_t n = 0;
    while (file && bytes.size() < (size_t{256} << 20) && (n = fread(piece, 1, sizeof piece, file.get())) > 0)
        bytes.insert(bytes.end(), piece, piece + n);
    if (!file || ferror(file.get()) != 0 || bytes.empty())
        throw SimError{EXIT_FAILED, "can't read calibration file " + calib};
    return bytes;
}

std::string CameraOptions::calib_name() const
{
    return with_calibration ? "simulated.bin" : calib;
}

std::string camera_table()
{
    std::string text = "name    image      format  MHz       product\n";
    for (size_t i = 0; sim_camera_at(i) != nullptr; i++) {
        const sim_camera_row_t &row = *sim_camera_at(i);
        char image[24], freq[24], line[128];
        snprintf(image, sizeof image, "%ux%u", row.width, row.height);
        snprintf(freq, sizeof freq, row.freq1 != 0 ? "%u/%u" : "%u", row.freq0 / 1000000,
                 row.freq1 / 1000000);
        snprintf(line, sizeof line, "%-8s%-11s%-8u%-10s%s\n", row.name, image, row.format, freq, row.product);
        text += line;
    }
    return text;
}
