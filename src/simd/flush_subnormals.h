// While one of these stands, the thread's subnormal floats count as 0. A recursion that runs on through an
// empty region decays into them, and processors take a hundred times as long for each.
#pragma once

#include <cstdint>

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

class FlushSubnormals {
  public:
#if defined(__SSE2__)
    FlushSubnormals() : mode_(_mm_getcsr())
    {
        _mm_setcsr(mode_ | 0x8040);
    } // results, operands
    ~FlushSubnormals()
    {
        _mm_setcsr(mode_);
    }

  private:
    unsigned mode_;

  public:
#elif defined(__aarch64__)
    FlushSubnormals()
    {
        asm volatile("mrs %0, fpcr" : "=r"(mode_));
        asm volatile("msr fpcr, %0" : : "r"(mode_ | (uint64_t)1 << 24));
    }
    ~FlushSubnormals()
    {
        asm volatile("msr fpcr, %0" : : "r"(mode_));
    }

  private:
    uint64_t mode_;

  public:
#else
    FlushSubnormals() {}
    ~FlushSubnormals() {}
#endif
    FlushSubnormals(const FlushSubnormals &) = delete;
    FlushSubnormals &operator=(const FlushSubnormals &) = delete;
};
