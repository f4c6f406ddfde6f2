// The 64 palettes of the colour map.
#pragma once

constexpr int kPaletteCount = 64;
constexpr int kPaletteRows = 256;

using palette_row_t = float[3]; // R, G, B in 0 to 1

// Each points to 256 rows, from the low end of a range to its high end.
extern const palette_row_t *const tq_cmap_palettes[kPaletteCount];
