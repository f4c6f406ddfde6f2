// tqcam palette: all palettes as a picture.
#include "cli.h"

#include <cstring>
#include <memory>

#include "png_files.h"

constexpr int BAR_W = 256, BAR_H = 14, LABEL_W = 28, GAP = 4, COLUMNS = 4, PALETTES = 64;
constexpr int CELL_W = LABEL_W + BAR_W + 2 * GAP, CELL_H = BAR_H + GAP;
constexpr int PICTURE_W = COLUMNS * CELL_W, PICTURE_H = PALETTES / COLUMNS * CELL_H + GAP;

// Digits of 3 x 5 dots, a row in three bits.
static const uint8_t _digits[10][5] = {{7, 5, 5, 5, 7}, {2, 6, 2, 2, 7}, {7, 1, 7, 4, 7}, {7, 1, 7, 1, 7},
                                       {5, 5, 7, 1, 1}, {7, 4, 7, 1, 7}, {7, 4, 7, 5, 7}, {7, 1, 1, 1, 1},
                                       {7, 5, 7, 5, 7}, {7, 5, 7, 1, 7}};

static void _number(std::vector<uint8_t> &picture, int x, int y, int number)
{
    for (int place = 0; place < 2; place++) {
        const uint8_t *digit = _digits[place == 0 ? number / 10 : number % 10];
        for (int row = 0; row < 10; row++)
            for (int column = 0; column < 6; column++)
                if (digit[row / 2] >> (2 - column / 2) & 1)
                    std::memset(
                        &picture[static_cast<size_t>((y + row) * PICTURE_W + x + place * 8 + column) * 3], 0,
                        3);
    }
}

static void _palettes(const GlobalOptions &global, const std::string &out)
{
    Library library(global);
    std::vector<uint8_t> picture(static_cast<size_t>(PICTURE_W) * PICTURE_H * 3, 255);
    uint16_t ramp[BAR_W];
    for (int i = 0; i < BAR_W; i++)
        ramp[i] = static_cast<uint16_t>(i + 1);
    for (uint32_t p = 0; p < PALETTES; p++) {
        uint8_t bar[BAR_W * 3];
        const tqcam_cmap_opt_t options = {p, 0};
        tqcam_cmap_dist_u16_to_RGB(bar, sizeof bar, ramp, BAR_W, TQCAM_PIX_RGB, 0, BAR_W, &options);
        const int x = static_cast<int>(p) % COLUMNS * CELL_W + GAP,
                  y = static_cast<int>(p) / COLUMNS * CELL_H + GAP;
        _number(picture, x, y + 2, static_cast<int>(p));
        for (int row = 0; row < BAR_H; row++)
            std::memcpy(&picture[static_cast<size_t>((y + row) * PICTURE_W + x + LABEL_W) * 3], bar,
                        sizeof bar);
    }
    if (!png_write_rgb8(out, picture.data(), PICTURE_W, PICTURE_H))
        throw CliError{EXIT_FAILED, "cannot write " + out};
}

void add_palette(CLI::App &app, const GlobalOptions &global)
{
    CLI::App *command = app.add_subcommand("palette", "all palettes as a picture, with their numbers");
    auto out = std::make_shared<std::string>("palettes.png");
    command->add_option("--out", *out, "the picture to write")->capture_default_str();
    command->callback([&global, out] { _palettes(global, *out); });
}
