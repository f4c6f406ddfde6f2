#include "image/palettes.h"

#include "image/palettes_data.inc"

struct palette_tables_t {
    float rows[kPaletteCount][kPaletteRows][3];
};

// Unpacks the runs of the data file.
static constexpr palette_tables_t _unpack()
{
    float kept[kPaletteTables * 3 * kPaletteRows]{};
    int at = 0;
    for (double run : kPaletteRuns) {
        if (run >= 0) {
            kept[at++] = (float)run;
        } else {
            for (int n = (int)-run; n > 0; n--, at++)
                kept[at] = kept[at - 1];
        }
    }
    palette_tables_t out{};
    for (int p = 0; p < kPaletteCount; p++) {
        const int place = kPaletteTable[p];
        const int first = ((place > 0 ? place : -place) - 1) * 3 * kPaletteRows;
        for (int row = 0; row < kPaletteRows; row++)
            for (int c = 0; c < 3; c++)
                out.rows[p][row][c] =
                    kept[first + c * kPaletteRows + (place > 0 ? row : kPaletteRows - 1 - row)];
    }
    return out;
}

static constexpr palette_tables_t g_tables = _unpack();

#define PALETTES_4(n) g_tables.rows[n], g_tables.rows[n + 1], g_tables.rows[n + 2], g_tables.rows[n + 3]
#define PALETTES_16(n) PALETTES_4(n), PALETTES_4(n + 4), PALETTES_4(n + 8), PALETTES_4(n + 12)

const palette_row_t *const tq_cmap_palettes[kPaletteCount] = {PALETTES_16(0), PALETTES_16(16),
                                                              PALETTES_16(32), PALETTES_16(48)};
