// How samples become I and Q in each mode, for the plain kernels.
#pragma once

#include "drivers/common/phase.h"
#include "drivers/epc/epc_kernels.h"

struct epc_iq_t {
    int32_t i, q;
    uint32_t amp;
    bool valid;
};

inline bool epc_in_scale(int32_t sample)
{
    return sample >= 2 && sample <= 4093;
}
inline bool epc_not_end(int32_t sample)
{
    return sample != 0 && sample != 4095;
}

template <epc_samples_t form> inline epc_iq_t epc_iq(const epc_row_t &row, const epc_dist_t &d, size_t x)
{
    if constexpr (form == EPC_SAMPLES_4DCS) {
        const int32_t g = row.gray ? row.gray[x] : 0;
        const int32_t p0 = (row.p[0][x] >> d.shift) - g, p1 = (row.p[1][x] >> d.shift) - g;
        const int32_t p2 = row.p[2][x] >> d.shift, p3 = row.p[3][x] >> d.shift;
        const int32_t i = p2 - p0, q = p3 - p1;
        return {i, q, squared_amp(i, q),
                epc_in_scale(p0) && epc_in_scale(p1) && epc_in_scale(p2) && epc_in_scale(p3)};
    } else if constexpr (form == EPC_SAMPLES_LEVEL) {
        const int32_t i = 2048 - row.p[2][x], q = 2048 - row.p[3][x];
        return {i, q, squared_amp(i, q), epc_not_end(row.p[0][x]) && epc_not_end(row.p[1][x])};
    } else {
        const int32_t p0 = row.p[0][x], p1 = row.p[1][x], p2 = row.p[2][x], p3 = row.p[3][x];
        const int32_t i = p2 - p0, q = p3 - p1;
        const bool valid = epc_not_end(p0) && epc_not_end(p1) && epc_not_end(p2) && epc_not_end(p3);
        if constexpr (form == EPC_SAMPLES_DIFF)
            return {i, q, squared_amp(i, q), valid};
        return {2048 - p1, 2048 - p2, squared_amp(i, q), valid};
    }
}

// Runs a row through map(phase, x), which gives the distance of a valid pixel.
template <epc_samples_t form, class Map>
inline void epc_row_of(const epc_row_t &row, const epc_dist_t &d, Map map)
{
    for (size_t x = 0; x < row.n; x++) {
        const epc_iq_t s = epc_iq<form>(row, d, x);
        row.amp[x] = s.valid ? s.amp : 0;
        row.dist[x] = s.valid ? map(phase_of(s.i, s.q, d.base), x) : d.invalid;
    }
}

template <class Map> inline void epc_row_by_form(const epc_row_t &row, const epc_dist_t &d, Map map)
{
    switch (d.samples) {
    case EPC_SAMPLES_4DCS:
        return epc_row_of<EPC_SAMPLES_4DCS>(row, d, map);
    case EPC_SAMPLES_DIFF:
        return epc_row_of<EPC_SAMPLES_DIFF>(row, d, map);
    case EPC_SAMPLES_LEVEL:
        return epc_row_of<EPC_SAMPLES_LEVEL>(row, d, map);
    case EPC_SAMPLES_LEVEL_ALL:
        return epc_row_of<EPC_SAMPLES_LEVEL_ALL>(row, d, map);
    }
}
