// What the checks of the vector kernels share: each form that this machine runs against the plain form, bit
// for bit, over odd sizes, unaligned buffers with guard bytes, and samples at the ends of every range.
//
// A run takes its seed from the environment variable KERNEL_SEED, or at random, and prints it.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <random>
#include <span>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "simd/dispatch.h"

class KernelRng {
  public:
    KernelRng()
    {
        const char *given = getenv("KERNEL_SEED");
        const uint64_t seed = given ? strtoull(given, nullptr, 0) : std::random_device{}();
        printf("KERNEL_SEED=%llu\n", (unsigned long long)seed);
        state_.seed(seed);
    }
    uint64_t bits() { return state_(); }
    uint32_t below(uint32_t n) { return (uint32_t)((state_() >> 32) * n >> 32); }
    float unit() { return (float)(state_() >> 40) * 0x1p-24f; }

  private:
    std::mt19937_64 state_;
};

// Runs check() once for each target that this processor has, with the others switched off; all are on again
// afterwards.
template <typename F> void for_each_target(F check)
{
    for (int bit = 0; bit < 63; bit++) {
        const int64_t target = (int64_t)1 << bit;
        if (!(simd_targets() & target))
            continue;
        simd_allow(target);
        SCOPED_TRACE(simd_name());
        check();
        if (testing::Test::HasFailure())
            break;
    }
    simd_allow(-1);
}

// n values between guard bytes, one after an arbitrary number of elements so that vectors are unaligned. The
// values begin as the guard pattern, so what a kernel leaves unwritten compares equal in both forms only if
// both leave it.
template <typename T> class Guarded {
  public:
    Guarded(size_t n, size_t shift)
        : n_(n), shift_(shift % 64), bytes_(2 * kGuard + (n + 64) * sizeof(T)), room_(new uint8_t[bytes_])
    {
        memset(room_.get(), kPattern, bytes_);
    }
    T *data() { return (T *)(room_.get() + kGuard) + shift_; }
    const T *data() const { return const_cast<Guarded *>(this)->data(); }
    size_t size() const { return n_; }
    std::span<T> values() { return {data(), n_}; }
    T &operator[](size_t i) { return data()[i]; }

    // Looks at every byte outside the values.
    testing::AssertionResult intact() const
    {
        const uint8_t *from = (const uint8_t *)data();
        const uint8_t *to = from + n_ * sizeof(T);
        for (const uint8_t *p = room_.get(); p < room_.get() + bytes_; p++)
            if ((p < from || p >= to) && *p != kPattern)
                return testing::AssertionFailure() << "wrote " << (p < from ? p - from : p - to)
                                                   << " bytes from the " << (p < from ? "first" : "end");
        return testing::AssertionSuccess();
    }

  private:
    static constexpr size_t kGuard = 256;
    static constexpr uint8_t kPattern = 0xA5;
    size_t n_, shift_, bytes_;
    std::unique_ptr<uint8_t[]> room_;
};

// Equal to the bit, and no guard byte touched; shows the first difference as a place in an image of width w.
template <typename T>
testing::AssertionResult same_bits(const Guarded<T> &plain, const Guarded<T> &vector, size_t w)
{
    if (plain.size() != vector.size())
        return testing::AssertionFailure() << "sizes differ";
    for (size_t i = 0; i < plain.size(); i++)
        if (memcmp(plain.data() + i, vector.data() + i, sizeof(T)) != 0)
            return testing::AssertionFailure()
                   << "at " << i % w << "," << i / w << " of width " << w << " of " << plain.size()
                   << ": plain " << +plain.data()[i] << ", vector " << +vector.data()[i];
    return vector.intact();
}

// run(form, out...) for both forms, each with buffers of n values, one of each type, which are then compared.
template <typename... T, typename F, typename G, typename R>
testing::AssertionResult same_results(size_t n, size_t shift, F plain, G simd, R run)
{
    std::tuple<Guarded<T>...> due{Guarded<T>(n, shift)...}, got{Guarded<T>(n, shift)...};
    std::apply([&](auto &...out) { run(plain, out.data()...); }, due);
    std::apply([&](auto &...out) { run(simd, out.data()...); }, got);
    testing::AssertionResult result = testing::AssertionSuccess();
    [&]<size_t... I>(std::index_sequence<I...>)
    {
        ((result = result ? same_bits(std::get<I>(due), std::get<I>(got), n) : result), ...);
    }
    (std::index_sequence_for<T...>());
    return result;
}

// Samples as hostile as they come: each image is of one kind, and the ends of ranges are in the mix.
inline void fill_samples(KernelRng &rng, std::span<uint16_t> image)
{
    static constexpr uint16_t kEnds[] = {0, 0, 1, 2, 4095, 32767, 32768, 65500, 65534, 65535};
    const uint32_t kind = rng.below(4);
    const uint16_t base = (uint16_t)rng.bits();
    for (uint16_t &v : image) {
        const bool end = rng.below(8) == 0;
        if (kind == 0) // anything
            v = (uint16_t)rng.bits();
        else if (kind == 1) // ends of ranges alone
            v = kEnds[rng.below(10)];
        else if (kind == 2) // a surface with noise, holes and invalid pixels
            v = end ? kEnds[rng.below(10)] : (uint16_t)(base + rng.below(32));
        else // mostly empty
            v = end ? (uint16_t)rng.bits() : 0;
    }
}

// Floats as hostile: any bits, values about the ends of the integers, mostly values of the range.
inline float some_float(KernelRng &rng, float lo, float hi)
{
    static constexpr float kEnds[] = {0.0f,          -0.0f,         0.99999994f,    1.0f,          -0.5f,
                                      59.999996f,    60.0f,         255.5f,         65535.0f,      65536.0f,
                                      2147483520.0f, 2147483648.0f, 4294967040.0f,  4294967296.0f, 1e-40f,
                                      3e38f,         -3e38f,        -2147483904.0f, INFINITY,      -INFINITY};
    const uint32_t bits = (uint32_t)rng.bits();
    float v;
    memcpy(&v, &bits, 4);
    const uint32_t kind = rng.below(8);
    return kind == 0 ? v : kind == 1 ? kEnds[rng.below(20)] : lo + rng.unit() * (hi - lo);
}

// Calls check(rng, w, h) on each target for every width from 2 to past two of the longest vectors, some
// beyond and some longer than any part of a row that a kernel takes at a time, with small heights that change
// with the width.
template <typename F> void for_each_size(F check)
{
    static constexpr int kHeights[] = {2, 3, 4, 5, 9, 17, 33};
    KernelRng rng;
    for_each_target([&] {
        for (int i = 0; i < 90 && !testing::Test::HasFailure(); i++) {
            const int w = i < 79 ? i + 2 : std::array{127,  129,  160,  191,  320, 333,
                                                      1024, 1025, 1040, 1057, 2049}[i - 79];
            SCOPED_TRACE(testing::Message() << w << " x " << kHeights[i % 7]);
            check(rng, w, kHeights[i % 7]);
        }
    });
}

// The same for rows: check(rng, n).
template <typename F> void for_each_length(F check)
{
    KernelRng rng;
    for_each_target([&] {
        for (int n = 1; n < 300 && !testing::Test::HasFailure(); n += n < 140 ? 1 : 37) {
            SCOPED_TRACE(n);
            check(rng, n);
        }
    });
}

// An image filter in both its forms.
template <class T> using filter_t = void (*)(T *, const T *, int, int);
template <class T> void check_filter(const char *name, filter_t<T> plain, filter_t<T> simd)
{
    SCOPED_TRACE(name);
    for_each_size([&](KernelRng &rng, int w, int h) {
        const size_t n = (size_t)w * h;
        Guarded<uint16_t> samples(n, 0);
        fill_samples(rng, samples.values());
        Guarded<T> src(n, rng.below(64)), due(n, rng.below(64)), got(n, rng.below(64));
        for (size_t i = 0; i < n; i++)
            src[i] = (T)(samples[i] * (sizeof(T) == 4 ? 65537u : 1u));
        plain(due.data(), src.data(), w, h);
        simd(got.data(), src.data(), w, h);
        ASSERT_TRUE(same_bits(due, got, (size_t)w));
    });
}
