// A driver's bilateral filter: the filter object, its lock, and the parameters that are wanted of it.
#pragma once

#include <cstdint>

#include "drivers/common/mutex.h"
#include "tq_depth.h"
#include "util/relaxed.h"

struct bilateral_t {
    drv_mutex_t lock; // guards bpf and what it was made with
    tq_bpf2d_iir_t bpf = {};
    float sigma_spatial = 0, sigma_range = 0;
    uint16_t range_min = 0, range_max = 0;

    relaxed_t<float> f_param_bpf_sigma_spatial, f_param_bpf_sigma_range; // wanted
    relaxed_t<uint16_t> f_param_bpf_range_min, f_param_bpf_range_max;
};

// Makes the filter anew. A failure is logged and leaves it unusable.
void bilateral_make(bilateral_t *b, uint32_t w, uint32_t h, uint16_t range_min, uint16_t range_max,
                    float sigma_spatial, float sigma_range, const char *caller);

// Makes the filter anew when it isn't what is wanted, or in any case with force.
void _filter_bpf_reload_parameter(bilateral_t *b, uint32_t w, uint32_t h, bool force);

// Filters an image. False when the filter is unusable or was made for another size: dst is untouched then.
bool bilateral_run(bilateral_t *b, uint16_t *dst, const uint16_t *src, uint32_t w, uint32_t h);

void bilateral_free(bilateral_t *b);
