// The median of 25 values that stand as five sorted columns: a0 to a4 are the least of each, e0 to e4 the
// greatest. BOTH puts the lesser of two into the first and the greater into the second; LOW and HIGH do one
// half of that, where the other isn't needed. The 82 halves were found by a search over the 7776 ways in
// which zeros and ones fill sorted columns, which decide for all values. The median ends in c2.
#pragma once

// clang-format off
#define MEDIAN5_NETWORK(BOTH, LOW, HIGH) \
    BOTH(b1, c0) BOTH(c1, d0) BOTH(d1, e0) BOTH(a1, b0) LOW(e0, e3) BOTH(e0, e1) LOW(d4, e1) BOTH(d1, d3) \
    BOTH(c1, c3) HIGH(a1, a3) BOTH(b1, b3) BOTH(a0, a3) BOTH(b0, b3) BOTH(c0, c3) HIGH(a0, b2) BOTH(d0, d3) \
    HIGH(b1, b2) LOW(c3, e2) BOTH(a3, b0) HIGH(a3, a4) BOTH(b0, c0) BOTH(b3, d0) LOW(d0, e4) BOTH(b3, c0) \
    BOTH(c3, d0) BOTH(d2, d4) LOW(b3, d4) BOTH(c2, c4) HIGH(b0, c2) BOTH(b2, b4) LOW(d2, d3) BOTH(a2, a4) \
    HIGH(b2, b3) BOTH(c0, d2) LOW(c4, d2) BOTH(c2, c4) HIGH(c1, c2) BOTH(a4, c2) LOW(c4, e0) HIGH(a4, c0) \
    BOTH(b3, d1) LOW(c2, d0) BOTH(b4, c3) HIGH(b3, b4) BOTH(c0, c2) LOW(c3, d1) BOTH(c3, c4) HIGH(a2, b4) \
    HIGH(c0, c3) BOTH(b4, c3) LOW(c2, c3) LOW(c2, c4) HIGH(b4, c2)
// clang-format on
