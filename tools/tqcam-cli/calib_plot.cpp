#include "calib_plot.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "png_files.h"

namespace {

using Rgb = std::array<uint8_t, 3>;

constexpr Rgb BLACK{0, 0, 0}, WHITE{255, 255, 255}, GREY{190, 190, 190}, BLUE{40, 80, 200}, RED{200, 40, 40};

// -1 is blue, 0 white, 1 red.
Rgb diverging(float t)
{
    if (!std::isfinite(t))
        return BLACK;
    t = std::clamp(t, -1.0f, 1.0f);
    const Rgb &end = t < 0 ? BLUE : RED;
    Rgb out;
    for (size_t i = 0; i < 3; i++)
        out[i] = static_cast<uint8_t>(255 + std::fabs(t) * static_cast<float>(end[i] - 255));
    return out;
}

PlotScale scale_of(const std::vector<float> &plane)
{
    std::vector<float> v;
    std::copy_if(plane.begin(), plane.end(), std::back_inserter(v), [](float x) { return std::isfinite(x); });
    if (v.empty())
        return {};
    const auto at = [&v](double part) {
        const auto it = v.begin() + static_cast<long>(part * static_cast<double>(v.size() - 1));
        std::nth_element(v.begin(), it, v.end());
        return *it;
    };
    const float middle = at(0.5), span = std::max(middle - at(0.01), at(0.99) - middle);
    return {middle, span > 0 ? span : 1e-6f};
}

// Row of a plane that an image row shows.
uint32_t plane_row(uint32_t row, uint32_t w, uint32_t h)
{
    if (w != 320 || h != 240)
        return row;
    return row < h / 2 ? 2 * (h / 2 - 1 - row) : 2 * (row - h / 2) + 1;
}

class Canvas {
  public:
    Canvas(int w, int h) : w_(w), h_(h), rgb_(3 * static_cast<size_t>(w) * static_cast<size_t>(h), 255) {}
    void dot(int x, int y, const Rgb &colour)
    {
        if (x < 0 || x >= w_ || y < 0 || y >= h_)
            return;
        std::copy(colour.begin(), colour.end(),
                  &rgb_[3 * (static_cast<size_t>(y) * static_cast<size_t>(w_) + static_cast<size_t>(x))]);
    }
    bool write(const std::string &path) const { return png_write_rgb8(path, rgb_.data(), w_, h_); }

  private:
    int w_, h_;
    std::vector<uint8_t> rgb_;
};

} // namespace

bool plot_plane(const std::string &path, const std::vector<float> &plane, uint32_t w, uint32_t h,
                PlotScale &scale)
{
    scale = scale_of(plane);
    Canvas canvas(static_cast<int>(w), static_cast<int>(h));
    for (uint32_t row = 0; row < h; row++)
        for (uint32_t col = 0; col < w; col++)
            canvas.dot(
                static_cast<int>(col), static_cast<int>(row),
                diverging((plane[size_t{plane_row(row, w, h)} * w + col] - scale.middle) / scale.span));
    return canvas.write(path);
}

bool plot_wave(const std::string &path, const CalibPlanes &planes, float &span_mm)
{
    constexpr int W = 800, H = 400;
    // The fitted wave is what the correction adds, and so what is left behind the line.
    const auto wave = [&planes](float mm) {
        return planes.amp * std::sin(planes.omega * mm + planes.pha) + planes.ofs;
    };
    span_mm = std::fabs(planes.amp) + std::fabs(planes.ofs);
    for (const CalibPoint &p : planes.points)
        if (std::isfinite(p.error))
            span_mm = std::max(span_mm, std::fabs(p.error));
    span_mm = std::isfinite(span_mm) ? std::max(1.0f, 1.1f * span_mm) : 1.0f;
    const auto y_of = [span_mm](float mm) {
        const float y = (1 - std::clamp(mm / span_mm, -2.0f, 2.0f)) * (H - 1) / 2;
        return std::isfinite(y) ? static_cast<int>(std::lround(y)) : -1;
    };
    Canvas canvas(W, H);
    for (int x = 0; x < W; x++)
        canvas.dot(x, y_of(0), GREY);
    for (int quarter = 1; quarter < 4; quarter++)
        for (int y = 0; y < H; y++)
            canvas.dot(W * quarter / 4, y, GREY);
    int last = -1;
    for (int x = 0; x < W; x++) {
        const int y = y_of(wave(planes.range_mm * static_cast<float>(x) / W));
        for (int i = std::min(last < 0 ? y : last, y); i <= std::max(last, y); i++)
            canvas.dot(x, i, BLUE);
        last = y;
    }
    for (const CalibPoint &p : planes.points) {
        const float turns = p.mm / planes.range_mm, part = turns - std::floor(turns);
        const int cx = std::isfinite(part) ? static_cast<int>(part * W) : -9, cy = y_of(p.error);
        for (int dy = -3; dy <= 3; dy++)
            for (int dx = -3; dx <= 3; dx++)
                if (dx * dx + dy * dy <= 10)
                    canvas.dot(cx + dx, cy + dy, RED);
    }
    return canvas.write(path);
}
