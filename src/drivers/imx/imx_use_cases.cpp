// Use cases: sets of modulation frequencies and a frame rate that belong together.
#include <algorithm>
#include <iterator>

#include "drivers/common/dev_param.h"
#include "drivers/imx/imx_priv.h"

static constexpr tqcam_use_case_t USE_CASES[IMX_USE_CASES] = {
    {0, 30, 1, 0, 120000000, 0, "Near : 120MHz"},
    {0, 30, 2, 1, 120000000, 40000000, "Far : 120/40MHz"},
    {0, 30, 2, 2, 120000000, 20000000, "Super far : 120/20MHz"},
    {0, 0, 0, 3, 0, 0, "general_case"},
};
static constexpr uint32_t SETTABLE = 3; // the last one stands for whatever was set by hand

void imx_use_cases_init(imx_priv_t *p)
{
    std::copy(std::begin(USE_CASES), std::end(USE_CASES), p->use_cases);
}

// A find counts on for the rows behind it until a row was found whole, and what was available stays so.
int imx_use_case_list(tqcam_drv_t *drv, tqcam_use_case_t *cases, uint8_t cap)
{
    imx_priv_t *p = drv ? imx_priv(drv) : nullptr;
    if (!p || !cases || cap == 0)
        return -1;
    const uint32_t n = std::min<uint32_t>(cap, SETTABLE);
    DrvLock lock(p->calib_lock);
    bool found0 = false, found1 = false;
    for (uint32_t i = 0; i < n; i++) {
        tqcam_use_case_t &row = p->use_cases[i];
        for (uint32_t k = 0; k < p->calib_freq_cnt; k++) {
            found0 = found0 || p->calib_freqs[k] == row.f0;
            found1 = found1 || (row.nfreq == 2 && p->calib_freqs[k] == row.f1);
        }
        if (found0 && (row.nfreq == 1 || found1)) {
            row.avail = 1;
            found0 = found1 = false;
        }
    }
    std::copy_n(p->use_cases, n, cases);
    return static_cast<int>(n);
}

int imx_use_case_set(tqcam_drv_t *drv, uint32_t index)
{
    imx_priv_t *p = drv ? imx_priv(drv) : nullptr;
    if (!p || index >= SETTABLE)
        return -1;
    p->cur_use_case = index;
    const uint32_t fps = USE_CASES[index].fps;
    const uint32_t format = index >= 1 ? IMX_FMT_PACKED_DUAL : p->hdr_en ? IMX_FMT_HDR : IMX_FMT_PACKED;
    const tqcam_param_item_t items[] = {dev_param_item(TQCAM_PARAM_FPS, &fps, sizeof(fps)),
                                        dev_param_item(TQCAM_PARAM_FORMAT, &format, sizeof(format))};
    return tqcam_param_batch_set(p->dev, items, 2) ? 0 : -1;
}

int imx_use_case_get(tqcam_drv_t *drv, tqcam_use_case_t *record)
{
    imx_priv_t *p = drv ? imx_priv(drv) : nullptr;
    if (!p || !record)
        return -1;
    DrvLock lock(p->calib_lock);
    *record = p->use_cases[p->cur_use_case];
    return 0;
}
