// Random numbers and trigonometry that give the same bits on every machine: no library function with a result
// of its own choosing takes part, only IEEE additions, products and square roots.
#pragma once

#include <cstddef>
#include <cstdint>

// One stream of random numbers (splitmix64). Streams are cheap: each frame and each purpose has its own, so
// that any frame can be made without those before it.
typedef struct sim_rng_t {
    uint64_t state;
} sim_rng_t;

inline uint64_t sim_mix64(uint64_t z)
{
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
}

inline sim_rng_t sim_rng_stream(uint64_t seed, uint64_t purpose, uint64_t index)
{
    return {sim_mix64(sim_mix64(sim_mix64(seed + 0x9E3779B97F4A7C15u) + purpose) + index)};
}

inline uint64_t sim_rng_next(sim_rng_t &rng)
{
    return sim_mix64(rng.state += 0x9E3779B97F4A7C15u);
}

// 0 up to, and not including, 1.
inline double sim_rng_uniform(sim_rng_t &rng)
{
    return static_cast<double>(sim_rng_next(rng) >> 11) * 0x1p-53;
}

// Mean 0, variance 1: the sum of twelve 16-bit uniforms, which ends at six sigma.
inline double sim_rng_gauss(sim_rng_t &rng)
{
    int32_t sum = 0;
    for (int i = 0; i < 3; i++) {
        const uint64_t r = sim_rng_next(rng);
        sum += static_cast<int32_t>((r & 0xFFFF) + ((r >> 16) & 0xFFFF) + ((r >> 32) & 0xFFFF) + (r >> 48));
    }
    return (sum - 12 * 32767.5) * 0x1p-16;
}

// To the nearest integer, half up, for magnitudes below a million: a conversion costs less than std::floor
// does on the oldest machines that this is built for.
inline int32_t sim_round(double v)
{
    return static_cast<int32_t>(v + 1048576.5) - 1048576;
}

// Sine and cosine of an angle below 250000 turns, good to about 1e-15.
inline void sim_sincos_turns(double turns, double *s, double *c)
{
    const int32_t quarter = sim_round(turns * 4.0);
    const double x = (turns - quarter * 0.25) * 6.283185307179586;
    const double y = x * x;
    double sn = -1.0 / 1307674368000.0, cs = -1.0 / 87178291200.0;
    sn = sn * y + 1.0 / 6227020800.0;
    cs = cs * y + 1.0 / 479001600.0;
    sn = sn * y - 1.0 / 39916800.0;
    cs = cs * y - 1.0 / 3628800.0;
    sn = sn * y + 1.0 / 362880.0;
    cs = cs * y + 1.0 / 40320.0;
    sn = sn * y - 1.0 / 5040.0;
    cs = cs * y - 1.0 / 720.0;
    sn = sn * y + 1.0 / 120.0;
    cs = cs * y + 1.0 / 24.0;
    sn = sn * y - 1.0 / 6.0;
    cs = cs * y - 0.5;
    sn = (sn * y + 1.0) * x;
    cs = cs * y + 1.0;
    switch (quarter & 3) {
    case 0:
        *s = sn;
        *c = cs;
        break;
    case 1:
        *s = cs;
        *c = -sn;
        break;
    case 2:
        *s = -sn;
        *c = -cs;
        break;
    default:
        *s = -cs;
        *c = sn;
        break;
    }
}
