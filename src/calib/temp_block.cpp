// Temperature blocks: how much the measured phase moves per degree of the circuit board (CB), of the
// illumination board (IB) and per frame a second.
#include "calib/calib_blocks.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "calib/file_read.h"
#include "log/log.h"
#include "tq_math.h"

#define LOG_TEMP(level, tag, fmt, ...) LOG_AS(level, tag, "calib_load", fmt __VA_OPT__(, ) __VA_ARGS__)

struct TQCAM_PACKED temp_sample_t {
    uint16_t intg, fps;
    int16_t tcb, tib; // tenths of a degree
    uint32_t phase;
};
static_assert(sizeof(temp_sample_t) == 12);

static constexpr uint32_t FITTED_COEFS = 5;                      // what samples yield
static constexpr float MAX_COEF = 1000.0f, DEFAULT_COEF = 50.0f; // phase per degree

// In the order of calib_result_t: CB alone, IB alone, then CB, IB and fps together.
struct model_t {
    float t[CALIB_TCOEF_NUM];
    uint32_t cnt;
};

using bytes_ptr = std::unique_ptr<uint8_t, decltype(&std::free)>;

// Reads the head and as much data as its count and the type ask for. The length is proved against the block.
static bytes_ptr _read_block(const calib_walk_t *walk, calib_temp_hdr_t *hdr)
{
    const par_dev_hdr blk = walk->param->blk[walk->i];
    bytes_ptr data(nullptr, &std::free);
    uint8_t head[sizeof(par_dev_hdr) + sizeof(*hdr)];
    if (!file_read(walk->param->fp, head, sizeof(head))) {
        LOG_TEMP(6, "ERR", "[%s]read temp calib blk failed: %s\n", "end of file");
        return data;
    }
    std::memcpy(hdr, head + sizeof(par_dev_hdr), sizeof(*hdr));
    const size_t unit = blk.type == TQ_BLK_TEMP_SAMPLES ? sizeof(temp_sample_t) : sizeof(float);
    const size_t size = hdr->cnt * unit;
    if (blk.size != sizeof(head) + size) {
        LOG_TEMP(6, "ERR", "[%s]read temp calib blk data failed: %s\n", "wrong length");
        return data;
    }
    data.reset(static_cast<uint8_t *>(std::malloc(size ? size : 1)));
    if (!data) {
        LOG_TEMP(6, "ERR", "[%s]malloc failed\n");
        std::exit(-3);
    }
    if (!file_read(walk->param->fp, data.get(), size)) {
        LOG_TEMP(6, "ERR", "[%s]read temp calib blk failed: %s\n", "end of file");
        data.reset();
    }
    return data;
}

// One fit of the phase on k - 1 columns, outliers dropped.
static void _fit(const float *columns, const float *phase, int n, int k, float *coef, float *r,
                 int32_t *outlier_idx, int32_t *n_outlier)
{
    *n_outlier = n;
    tq_math_multiple_linear_fit_outlier_remove_f32(columns, phase, nullptr, n, coef, k, r, outlier_idx,
                                                   n_outlier, 10, 0.03f, 0.999f);
}

static void _fit_samples(const calib_walk_t *walk, const calib_temp_hdr_t *hdr, const uint8_t *data,
                         model_t *model)
{
    const int n = hdr->cnt;
    LOG_TEMP(1, "DBG",
             "[%s] BLK#%u [t=%u]: Tvec=%u, f=%.1f Mhz, fps=%u, intg=%u, tenv=%.1f, ROI=(%d,%d,%d,%d)\n",
             static_cast<unsigned>(walk->i), TQ_BLK_TEMP_SAMPLES, hdr->cnt, hdr->freq / 1e6, hdr->fps,
             hdr->intg, hdr->tenv / 10.0, hdr->roi[2], hdr->roi[3], hdr->roi[0], hdr->roi[1]);
    const auto rows = static_cast<size_t>(n);
    const std::unique_ptr<float, decltype(&std::free)> columns(
        static_cast<float *>(std::calloc(rows + 1, 5 * sizeof(float))), &std::free);
    if (!columns) {
        LOG_TEMP(6, "ERR", "[%s]malloc failed\n");
        std::exit(-3);
    }
    auto *outlier_idx = reinterpret_cast<int32_t *>(columns.get());
    float *phase = columns.get() + rows, *tcb = phase + rows, *tib = tcb + rows, *fps = tib + rows;
    for (size_t i = 0; i < rows; i++) {
        temp_sample_t s;
        std::memcpy(&s, data + i * sizeof(s), sizeof(s));
        phase[i] = static_cast<float>(s.phase);
        tcb[i] = s.tcb;
        tib[i] = s.tib;
        fps[i] = s.fps;
        LOG_TEMP(0, "TRC", "[%s] tcb,tib,phase,fps,intg=%f,%f,%f,%d,%d\n", tcb[i], tib[i], phase[i], s.fps,
                 s.intg);
    }
    float c[4] = {}, r = 0;
    int32_t n_outlier;
    float *t = model->t;
    _fit(tcb, phase, n, 2, c, &r, outlier_idx, &n_outlier);
    t[0] = c[1] * 10; // per degree, from tenths
    LOG_TEMP(1, "DBG", "[%s] * Tcb coef calc [n=%u]: r=%.3f, coef=%.3f, n_outlier=%d\n", hdr->cnt, r, t[0],
             n_outlier);
    _fit(tib, phase, n, 2, c, &r, outlier_idx, &n_outlier);
    t[1] = c[1] * 10;
    LOG_TEMP(1, "DBG", "[%s] * Tib coef calc [n=%u]: r=%.3f, coef=%.3f, n_outlier=%d\n", hdr->cnt, r, t[1],
             n_outlier);
    _fit(tcb, phase, n, 3, c, &r, outlier_idx, &n_outlier);
    LOG_TEMP(1, "DBG", "[%s] * Tib+cb coef calc [n=%u]: r=%.3f, coef=%.3f, %.3f, %.3f, n_outlier=%d\n",
             hdr->cnt, r, c[0], c[1], c[2], n_outlier);
    _fit(tcb, phase, n, 4, c, &r, outlier_idx, &n_outlier);
    for (int i = 0; i < 3; i++)
        t[2 + i] = c[1 + i] * 10;
    LOG_TEMP(1, "DBG", "[%s] * Tib+cb+fps coef calc [n=%u]: r=%.3f, coef=%.3f, %.3f, %.3f, n_outlier=%d\n",
             hdr->cnt, r, t[2], t[3], t[4], n_outlier);
    model->cnt = FITTED_COEFS;
}

// What no camera shows gives way to the model of the CB temperature alone, or to the usual coefficients.
static void _apply_fallbacks(model_t *model)
{
    float *t = model->t;
    const bool finite = std::all_of(t, t + CALIB_TCOEF_NUM, [](float v) { return std::isfinite(v); });
    const bool invalid = t[0] > MAX_COEF || t[1] > MAX_COEF || !std::isfinite(t[0]);
    if (invalid) {
        LOG_TEMP(5, "WRN", "[%s] * temp coef may invalid : [0]=%f, [1]=%f. use default.\n", t[0], t[1]);
        t[0] = t[1] = t[2] = DEFAULT_COEF;
        t[3] = t[4] = t[5] = 0;
    }
    if (invalid || !finite || t[2] == 0 || t[3] == 0 || t[4] == 0) {
        LOG_TEMP(1, "DBG", "[%s] * Tceof revert to CB only model\n");
        t[2] = t[0];
        t[3] = t[4] = t[5] = 0;
    }
    if (!finite)
        std::replace_if(
            t, t + CALIB_TCOEF_NUM, [](float v) { return !std::isfinite(v); }, 0.0f);
}

// Of two models the one at the target frequency or the nearest above it serves better. One below it counts as
// far away, since the difference wraps.
static bool _is_preferred(const calib_walk_t *walk, uint32_t freq)
{
    const calib_result_t *res = walk->res;
    return res->tcoef_cnt == 0 || res->tcoef_hdr.freq - walk->target > freq - walk->target;
}

bool calib_load_temp_block(calib_walk_t *walk)
{
    const uint8_t type = walk->param->blk[walk->i].type;
    calib_temp_hdr_t hdr;
    const bytes_ptr data = _read_block(walk, &hdr);
    if (!data)
        return false;
    model_t model{};
    float *t = model.t;
    if (hdr.freq == 0) {
        LOG_TEMP(6, "ERR", "[%s] BLK#%u [t=%u]: wrong freq=%u in temp blk\n", static_cast<unsigned>(walk->i),
                 type, hdr.freq);
        return true;
    }
    if (type == TQ_BLK_TEMP_SAMPLES) {
        _fit_samples(walk, &hdr, data.get(), &model);
    } else if (hdr.cnt > 3) {
        model.cnt = std::min<uint32_t>(hdr.cnt, CALIB_TCOEF_NUM);
        std::memcpy(t, data.get(), model.cnt * sizeof(float));
    } else {
        LOG_TEMP(6, "ERR", "[%s] BLK#%u [t=%u]: temp result coef cnt wrong: %d\n",
                 static_cast<unsigned>(walk->i), type, hdr.cnt);
        return true;
    }
    LOG_TEMP(1, "DBG",
             "[%s] BLK#%u [t=%u]: f=%.1f Mhz, fps=%u, intg=%u, Temp coef: [%.3f, %.3f, %.3f, %.3f, %.3f, "
             "%.3f][%.3f,%.3f,%.3f,%.3f]\n",
             static_cast<unsigned>(walk->i), type, hdr.freq / 1e6, hdr.fps, hdr.intg, t[0], t[1], t[2], t[3],
             t[4], t[5], t[6], t[7], t[8], t[9]);
    _apply_fallbacks(&model);
    if (!_is_preferred(walk, hdr.freq))
        return true;

    calib_result_t *res = walk->res;
    const auto range = static_cast<float>(1.49896224e11 / hdr.freq);
    res->tcoef_cnt = model.cnt;
    res->tcoef_hdr = hdr;
    for (uint32_t i = 0; i < CALIB_TCOEF_NUM; i++) {
        res->tcoef[i] = t[i];
        res->tcoef_mm[i] = t[i] * range * (1.0f / 32768);
    }
    const float *mm = res->tcoef_mm;
    LOG_TEMP(1, "DBG", "[%s] * Use Tcoef [n=%d,f=%.1f]: [%.1f,%.1f,%.1f,%.1f] [%.1f,%.1f,%.1f,%.1f] mm/deg\n",
             res->tcoef_cnt, hdr.freq / 1e6, t[0], t[1], t[2], t[3], mm[0], mm[1], mm[2], mm[3]);
    return true;
}
