#include "calib_render.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>

#include "raw_e_family.h"

namespace {

// The state in which nothing drifts.
constexpr uint32_t REF_INTG_US = 1000;

sim_state_t _reference_state(uint32_t freq)
{
    return {freq, REF_INTG_US, SIM_REF_FPS, SIM_REF_TEMP_CB, SIM_REF_TEMP_IB};
}

// Block heads below 142 lack flags, the pinhole and distances for each image.
bool _is_stepped(const sim_calib_plan_t &plan)
{
    return plan.blk_ver >= 142;
}

// Pixel of the image that a pixel of a stored image shows.
std::vector<uint32_t> _pixel_order(const sim_camera_t &cam, const sim_calib_plan_t &plan)
{
    const uint32_t w = cam.row->width, h = cam.row->height;
    const bool as_seen = !_is_stepped(plan) && plan.kind == SIM_CALIB_IMAGES && w == 320 && h == 240;
    std::vector<uint32_t> order(static_cast<size_t>(w) * h);
    for (uint32_t row = 0; row < h; row++) {
        const uint32_t from =
            as_seen || cam.row->family != SIM_FAMILY_E ? row : sim_raw_e_image_row(cam.row, row, h);
        for (uint32_t col = 0; col < w; col++)
            order[row * w + col] = from * w + col;
    }
    return order;
}

// The lens as the library counts pixels: the centre of the first one lies at 0.
sim_calib_pinhole_t _pinhole(const sim_camera_t &cam)
{
    const sim_lens_t &l = cam.row->lens;
    return {l.cx - 0.5, l.cy - 0.5, l.fx, l.fy};
}

// How much longer the ray to a pixel is than the axis.
double _ray_stretch(const sim_camera_t &cam, uint32_t pixel)
{
    const sim_calib_pinhole_t l = _pinhole(cam);
    const double x = (pixel % cam.row->width - l.cx) / l.fx, y = (pixel / cam.row->width - l.cy) / l.fy;
    return std::sqrt(1 + x * x + y * y);
}

calib_blk_info_t _info(const sim_camera_t &cam, const sim_calib_plan_t &plan, uint32_t freq)
{
    calib_blk_info_t info{};
    info.freq = freq;
    info.intg = REF_INTG_US;
    info.t_cal0 = SIM_REF_TEMP_CB;
    info.t_cal1 = SIM_REF_TEMP_IB;
    info.fps = SIM_REF_FPS;
    info.aux0 = 2;
    info.ref_is_z = plan.flat_walls;
    info.img_w = cam.row->width;
    info.img_h = cam.row->height;
    info.scale = 32768;
    return info;
}

// One image. Phases keep 16 bits, which are two turns.
std::vector<uint16_t> _image(const sim_camera_t &cam, const sim_calib_plan_t &plan,
                             const std::vector<uint32_t> &order, uint32_t freq, double ref_mm,
                             double delay_mm)
{
    const sim_state_t state = _reference_state(freq);
    const double range = sim_range_mm(freq);
    std::vector<uint16_t> out(order.size());
    for (size_t i = 0; i < order.size(); i++) {
        if (cam.pixel[order[i]] != SIM_PIXEL_GOOD)
            continue; // no light, no phase
        const double ref = plan.flat_walls ? ref_mm * _ray_stretch(cam, order[i]) : ref_mm;
        const double mm = sim_camera_measured_mm(cam, order[i], ref + delay_mm, state);
        out[i] = static_cast<uint16_t>(std::lround(mm / range * 32768));
    }
    if (plan.ver < 150) { // older files lack the first pixel of each pair of rows
        const size_t run = 2 * static_cast<size_t>(cam.row->width);
        for (size_t at = 0; at + run <= out.size(); at += run)
            std::rotate(out.begin() + static_cast<std::ptrdiff_t>(at),
                        out.begin() + static_cast<std::ptrdiff_t>(at) + 1,
                        out.begin() + static_cast<std::ptrdiff_t>(at + run));
    }
    return out;
}

// Reference images of one frequency. They cover one turn evenly, which keeps the periodic error, four whole
// waves a turn, from bending the lines much; and each lies farther than the one before by more than pixels
// differ, or the library would take a pixel that lags for one that passed two turns.
void _add_images(sim_calib_file_t &file, const sim_camera_t &cam, const sim_calib_plan_t &plan, uint32_t freq)
{
    const std::vector<uint32_t> order = _pixel_order(cam, plan);
    const int n = std::clamp(plan.images, 4, 126) & ~1;
    const double range = sim_range_mm(freq), first = 0.04 * range, step = range / n;
    calib_blk_info_t info = _info(cam, plan, freq);
    std::vector<sim_calib_ref_t> refs;
    if (_is_stepped(plan)) {
        // Every other image with a delay step in place of a distance. The library learns the step's length
        // from the pixels at the centre, no better than their slope.
        for (int i = 0; i < n; i++) {
            const auto nc = static_cast<uint8_t>(i % 2);
            const auto ref_um = static_cast<int32_t>(std::lround((first + (i - nc) * step) * 1000));
            refs.push_back({ref_um, 0, 0, nc, _image(cam, plan, order, freq, ref_um / 1000.0, nc * step)});
        }
    } else {
        // One distance and delay steps alone.
        info.ref_cm = static_cast<float>(first / 10);
        for (int i = 0; i < n; i++)
            refs.push_back({0, 0, 0, static_cast<uint8_t>(i),
                            _image(cam, plan, order, freq, static_cast<double>(info.ref_cm) * 10, i * step)});
    }
    sim_calib_add_images(file, info, refs, _pinhole(cam));
}

// The lines and the wave that undo the defects.
void _add_ready(sim_calib_file_t &file, const sim_camera_t &cam, const sim_calib_plan_t &plan, uint32_t freq)
{
    const std::vector<uint32_t> order = _pixel_order(cam, plan);
    std::vector<float> planes(2 * order.size());
    for (size_t i = 0; i < order.size(); i++) {
        planes[i] = 1 / cam.slope[order[i]];
        planes[order.size() + i] = -cam.offset_mm[order[i]] / cam.slope[order[i]];
    }
    const double range = sim_range_mm(freq), turn = 2 * M_PI;
    sim_calib_global_t global;
    global.slope_k = 1000;
    global.offset = static_cast<int32_t>(-cam.defects.offset_mm);
    global.amp = static_cast<float>(cam.defects.periodic * range);
    global.omega = static_cast<float>(4 * turn / range);
    global.pha =
        static_cast<float>((cam.periodic_turns - 0.5) * turn); // half a wave on, so that it is taken away
    sim_calib_add_result(file, _info(cam, plan, freq), global, planes);
}

// A target at rest while board, light source and frame rate change.
void _add_temperatures(sim_calib_file_t &file, const sim_camera_t &cam, const sim_calib_plan_t &plan,
                       uint32_t freq)
{
    calib_temp_hdr_t hdr{};
    hdr.freq = freq;
    hdr.tenv = 250;
    hdr.fps = SIM_REF_FPS;
    hdr.intg = static_cast<uint16_t>(REF_INTG_US);
    const double phase_per_mm = 32768.0 / sim_range_mm(freq);
    if (plan.temp == SIM_CALIB_TEMP_COEFS) {
        const sim_drift_t &k = cam.row->drift;
        const double on = cam.defects.drift * phase_per_mm;
        const auto cb = static_cast<float>(on * k.mm_per_deg_cb),
                   ib = static_cast<float>(on * k.mm_per_deg_ib);
        sim_calib_add_temp_coefs(file, hdr, {cb, ib, cb, ib, static_cast<float>(10 * on * k.mm_per_fps)});
        return;
    }
    std::vector<sim_calib_temp_sample_t> samples;
    sim_state_t state = _reference_state(freq);
    sim_rng_t rng = sim_rng_stream(cam.seed, 'T', freq);
    for (int i = 0; i < 160; i++) {
        // Above 20 degrees, where every camera drifts in proportion.
        state.temp_cb = static_cast<int16_t>(210 + 2 * i);
        state.temp_ib = static_cast<int16_t>(state.temp_cb + 20 + sim_rng_next(rng) % 100);
        state.fps = 2 + static_cast<uint32_t>(sim_rng_next(rng) % 29);
        const double mm = 1000 + sim_camera_drift_mm(cam, state);
        samples.push_back({static_cast<uint16_t>(REF_INTG_US), static_cast<uint16_t>(state.fps),
                           state.temp_cb, state.temp_ib,
                           static_cast<uint32_t>(std::lround(std::max(0.0, mm * phase_per_mm)))});
    }
    sim_calib_add_temp_samples(file, hdr, samples);
}

void _add_lens(sim_calib_file_t &file, const sim_camera_t &cam)
{
    const sim_calib_pinhole_t l = _pinhole(cam);
    tq_lens_bin_t lens{};
    lens.cx = static_cast<float>(l.cx);
    lens.cy = static_cast<float>(l.cy);
    lens.fx = static_cast<float>(l.fx);
    lens.fy = static_cast<float>(l.fy);
    lens.img_w = cam.row->width;
    lens.img_h = cam.row->height;
    lens.n_dcoef = 5; // an ideal lens
    const size_t n = static_cast<size_t>(lens.img_w) * lens.img_h;
    sim_calib_add_lens(file, lens, std::vector<float>(n), {});
}

} // namespace

sim_calib_plan_t sim_calib_plan(uint32_t freq0, uint32_t freq1)
{
    sim_calib_plan_t plan{};
    plan.ver = 150;
    plan.blk_ver = 142;
    plan.kind = SIM_CALIB_IMAGES;
    plan.temp = SIM_CALIB_TEMP_SAMPLES;
    plan.freqs = {freq0};
    plan.images = 20;
    plan.lens = true;
    plan.ts = 1700000000;
    if (freq1 != 0 && freq1 != freq0)
        plan.freqs.push_back(freq1);
    return plan;
}

sim_calib_file_t sim_calib_render(const sim_camera_t &cam, const sim_calib_plan_t &wanted)
{
    sim_calib_plan_t plan = wanted;
    plan.flat_walls = plan.flat_walls && !cam.row->rows_from_middle;
    sim_calib_file_t file = sim_calib_file(plan.ver, plan.blk_ver);
    file.hdr.ts = file.hdr.blk_ts = plan.ts;
    const sim_calib_pinhole_t l = _pinhole(cam);
    std::snprintf(file.hdr.name, sizeof file.hdr.name, "%s", cam.row->name);
    file.hdr.lens = {l.cx, l.cy, l.fx, l.fy, {}, 5, cam.row->width, cam.row->height};
    for (uint32_t freq : plan.freqs)
        (plan.kind == SIM_CALIB_READY ? _add_ready : _add_images)(file, cam, plan, freq);
    if (plan.ver < TQ_PARAM_VER_BLK)
        return file;
    for (uint32_t freq : plan.freqs)
        if (plan.temp != SIM_CALIB_TEMP_NONE)
            _add_temperatures(file, cam, plan, freq);
    if (plan.lens)
        _add_lens(file, cam);
    return file;
}
