// Images as PNG files, through libpng.
#pragma once

#include <cstdint>
#include <string>

// Each returns false when the file can't be written.
bool png_write_gray16(const std::string &path, const uint16_t *pixels, int w, int h);
bool png_write_gray8(const std::string &path, const uint8_t *pixels, int w, int h);
bool png_write_rgb8(const std::string &path, const uint8_t *pixels, int w, int h);
