// The per-pixel work of the EPC family. Each kernel takes rows or whole images and a small record of
// parameters, never the driver's record. The plain form defines the result.
//
// A raw frame is one to four planes of 16-bit words, 12-bit samples around 2048. How a pixel's samples become
// I and Q depends on the mode; the caller sets the pointers of a row accordingly.
#pragma once

#include <cstddef>
#include <cstdint>

#include "drivers/common/periodic.h"

enum epc_samples_t {
    EPC_SAMPLES_4DCS,      // planes 0 to 3; a sample is valid in 2 to 4093; I = p2 - p0, Q = p3 - p1
    EPC_SAMPLES_DIFF,      // as above, but a sample is valid unless it is 0 or 4095
    EPC_SAMPLES_LEVEL,     // p0 and p1 are tested so; I = 2048 - p2, Q = 2048 - p3
    EPC_SAMPLES_LEVEL_ALL, // all four are tested so; I = 2048 - p1, Q = 2048 - p2, amplitude as in DIFF
};

// One row of pixels.
struct epc_row_t {
    const uint16_t *p[4];
    const int16_t *gray;         // reference, which 4DCS samples are corrected by; or nullptr
    uint16_t *dist;              // mm
    uint32_t *amp;               // squared amplitude; 0 for an invalid pixel
    const float *slope, *offset; // calibrated line of each pixel, for epc_drnu_row alone
    size_t n;
};

// What the last steps of a calibrated distance take: periodic error, system calibration, range.
struct epc_after_t {
    periodic_t periodic;
    int32_t sys_k, sys_o; // 32768 is a scale of 1; mm
    int32_t dmax;         // range in mm; above 0

    bool operator==(const epc_after_t &o) const
    {
        return periodic.amp == o.periodic.amp && periodic.omega == o.periodic.omega &&
               periodic.pha == o.periodic.pha && periodic.ofs == o.periodic.ofs && sys_k == o.sys_k &&
               sys_o == o.sys_o && dmax == o.dmax;
    }
};

// The distance after these steps, from whole millimetres. This rule defines the table.
inline uint16_t epc_after(int32_t d, const epc_after_t &a)
{
    const int32_t corrected = to_i32(periodic_correct(static_cast<float>(d), a.periodic));
    int64_t r = static_cast<int64_t>(corrected) * a.sys_k / 32768 + a.sys_o;
    if (r < 0)
        r += a.dmax;
    if (r > a.dmax)
        r -= a.dmax;
    return static_cast<uint16_t>(r);
}

// epc_after for d in lo to lo + n - 1, 0 among them; n may be 0, and table then nullptr. Behind the last
// entry stands 0, the distance of an invalid pixel.
struct epc_after_table_t {
    const uint16_t *table;
    int32_t lo;
    uint32_t n;
};

struct epc_dist_t {
    epc_samples_t samples;
    uint8_t shift;    // bits below the sample in its word, 4DCS alone
    uint16_t invalid; // distance of an invalid pixel
    int32_t base;     // of the phase
    int32_t dmax;     // range in mm; 0: every distance is 0
    int32_t off;      // user's offset in mm

    // Calibrated alone.
    epc_after_t after;
    int64_t global_off; // mm, with the user's offset in it
    int32_t slope_k;    // global slope times 1000
    float global_k;     // global slope, mm for each step of phase
    float tc;           // temperature correction, phase
    epc_after_table_t after_table;
    const uint16_t *phase_table; // distances of all phases by the global line, then 0; or nullptr
};

// Uncalibrated, corrected by one line for all pixels, and by a line of its own for each pixel.
void epc_dist_row_plain(const epc_row_t &row, const epc_dist_t &d);
void epc_global_row_plain(const epc_row_t &row, const epc_dist_t &d);
void epc_drnu_row_plain(const epc_row_t &row, const epc_dist_t &d);

// The forms that run: on vectors where the processor has them, with the same result.
void epc_dist_row(const epc_row_t &row, const epc_dist_t &d);
void epc_global_row(const epc_row_t &row, const epc_dist_t &d);
void epc_drnu_row(const epc_row_t &row, const epc_dist_t &d);

// The distance of a phase by the global line. This rule defines the table.
uint16_t epc_global_mm(int32_t phase, const epc_dist_t &d);

// Gray from masked samples: 4DCS and DIFF take four rows, LEVEL two. 0 where a sample is below 2 or above
// 4093.
void epc_gray_diff_row_plain(uint16_t *gray, const uint16_t *const p[4], size_t n);
void epc_gray_level_row_plain(uint16_t *gray, const uint16_t *p0, const uint16_t *p1, size_t n);
void epc_gray_diff_row(uint16_t *gray, const uint16_t *const p[4], size_t n);
void epc_gray_level_row(uint16_t *gray, const uint16_t *p0, const uint16_t *p1, size_t n);

// Two integration times in one frame: of four rows as they leave the sensor, the first two were taken with
// one and the others with the other. Each pixel and the one two rows on both get the better of the two: the
// brighter one, unless it is saturated. Rows beyond the last four stay.
void epc_hdr_merge_plain(uint16_t *dist, uint32_t *amp, uint32_t w, uint32_t h);
void epc_hdr_merge(uint16_t *dist, uint32_t *amp, uint32_t w, uint32_t h);
// The same for a gray image, which is its own measure of brightness.
void epc_hdr_merge_gray_plain(uint16_t *gray, uint32_t w, uint32_t h);
void epc_hdr_merge_gray(uint16_t *gray, uint32_t w, uint32_t h);

// Of two squared amplitudes, is the second the better one?
inline constexpr uint32_t EPC_SATURATED = 4000000;
inline bool epc_take_second(uint32_t first, uint32_t second)
{
    return (first <= second || first >= EPC_SATURATED) && (second <= EPC_SATURATED || first == 0);
}

// The row of the image that leaves the sensor as raw row r: rows come from the middle out, two at a time.
inline uint32_t epc_image_row(uint32_t r, uint32_t h)
{
    return r % 2 == 0 ? h / 2 - 1 - r / 2 : h / 2 + r / 2;
}
// Puts rows in order; h is even.
void epc_row_sort_u16_plain(uint16_t *dst, const uint16_t *src, uint32_t w, uint32_t h);
void epc_row_sort_u32_plain(uint32_t *dst, const uint32_t *src, uint32_t w, uint32_t h);
