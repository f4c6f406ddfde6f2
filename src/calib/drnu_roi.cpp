// Cuts a result to the part of the sensor that frames show.
#include "calib/calib_result.h"

#include "log/log.h"

// Columns and rows that each binning mode takes into one pixel.
static constexpr struct {
    uint8_t cols, rows;
} BINS[] = {{1, 1}, {2, 2}, {4, 4}, {8, 8}, {2, 4}};

static bool _same_part(const calib_roi_t *a, const calib_roi_t *b)
{
    return a->srow == b->srow && a->erow == b->erow && a->scol == b->scol && a->ecol == b->ecol &&
           a->binning == b->binning;
}

// Bins from first to last in steps of size; the last one may reach past last, but not out of the image.
static uint64_t _bin_count(uint32_t first, uint32_t last, uint32_t size, uint32_t side)
{
    if (first > last || last >= side)
        return 0;
    const uint64_t n = (uint64_t{last} - first) / size + 1;
    return first + n * size <= side ? n : 0;
}

uint32_t calib_result_freq(const calib_result_t *res, const calib_roi_t *roi)
{
    if (!res || !res->planes || (roi && !_same_part(&res->roi, roi)))
        return 0;
    return res->blk.freq;
}

bool calib_drnu_result_apply_roi(calib_result_t *res, const calib_roi_t *roi)
{
    if (!res || !roi || roi->binning >= sizeof(BINS) / sizeof(BINS[0]) || !res->planes)
        return false;
    if (res->roi_applied) {
        if (_same_part(&res->roi, roi)) {
            LOG_DEBUG("[%s]  DRNU result already applied ROI\n");
            return true;
        }
        LOG_WARN("[%s]  DRNU result cannot apply ROI more than once!\n");
        return false;
    }
    const uint32_t w = res->blk.img_w, h = res->blk.img_h;
    const uint32_t bin_cols = BINS[roi->binning].cols, bin_rows = BINS[roi->binning].rows;
    const uint64_t cols = _bin_count(roi->scol, roi->ecol, bin_cols, w);
    const uint64_t rows = _bin_count(roi->srow, roi->erow, bin_rows, h);
    const size_t full = static_cast<size_t>(w) * h;
    const size_t second = full / (bin_cols * bin_rows); // where the offsets go
    if (rows * cols == 0 || rows * cols > second) {
        LOG_WARN("[%s]wrong ROI: [%d,%d,%d,%d] binn=%d, image %ux%u\n", roi->srow, roi->erow, roi->scol,
                 roi->ecol, roi->binning, w, h);
        return false;
    }
    // In place: an output never stands behind the first pixel of its bin.
    const auto per_bin = static_cast<float>(bin_cols * bin_rows);
    for (size_t plane = 0; plane < 2; plane++) {
        float *dst = res->planes + plane * second;
        for (size_t i = 0; i < rows; i++) {
            const float *src = res->planes + plane * full + (roi->srow + i * bin_rows) * w + roi->scol;
            for (size_t j = 0; j < cols; j++, src += bin_cols) {
                float sum = 0;
                for (size_t row = 0; row < bin_rows; row++)
                    for (size_t col = 0; col < bin_cols; col++)
                        sum += src[row * w + col];
                *dst++ = sum / per_bin;
            }
        }
    }
    res->roi_applied = 1;
    res->roi = *roi;
    return true;
}
