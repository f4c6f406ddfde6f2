#include "png_files.h"

#include <png.h>

// libpng's simplified interface takes 16-bit samples as linear light and marks the file so, which would make
// viewers darken a distance image: 16-bit files go through the full interface.
bool png_write_gray16(const std::string &path, const uint16_t *pixels, int w, int h)
{
    FILE *file = std::fopen(path.c_str(), "wb");
    if (!file)
        return false;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
        return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, static_cast<png_uint_32>(w), static_cast<png_uint_32>(h), 16, PNG_COLOR_TYPE_GRAY,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(png, 3);
    png_write_info(png, info);
    png_set_swap(png); // samples are stored high byte first
    for (int row = 0; row < h; row++)
        png_write_row(png, reinterpret_cast<png_const_bytep>(pixels + static_cast<size_t>(row) * w));
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return std::fclose(file) == 0;
}

static bool _png_write8(const std::string &path, const uint8_t *pixels, int w, int h, png_uint_32 format)
{
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(w);
    image.height = static_cast<png_uint_32>(h);
    image.format = format;
    return png_image_write_to_file(&image, path.c_str(), 0, pixels, 0, nullptr) != 0;
}

bool png_write_gray8(const std::string &path, const uint8_t *pixels, int w, int h)
{
    return _png_write8(path, pixels, w, h, PNG_FORMAT_GRAY);
}

bool png_write_rgb8(const std::string &path, const uint8_t *pixels, int w, int h)
{
    return _png_write8(path, pixels, w, h, PNG_FORMAT_RGB);
}
