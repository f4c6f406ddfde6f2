#include "calib_planes.h"

#include <algorithm>
#include <cmath>

#include "tq_math.h"

namespace {

struct Image {
    int32_t ref_um;
    float ns, nf, nc;
    std::vector<uint16_t> phase;
};

constexpr float TURN = 1.0f / 32768;

// Brings the images into the form of current files: a full turn is 32768, no pixel is shifted, the steps are
// known, rows stand as they leave the sensor.
std::vector<Image> load_images(const CalibFile &file, const CalibDrnu &d)
{
    const size_t w = d.width, h = d.height, n = w * h;
    const bool stepped = file.hdr.blk_ver >= 142;
    std::vector<Image> images(static_cast<size_t>(d.images));
    bool same = true;
    for (size_t i = 0; i < images.size(); i++) {
        const size_t at = d.payload + i * (20 + 2 * n);
        Image &img = images[i];
        img = {file.at<int32_t>(at), static_cast<float>(file.bytes[at + 13]),
               static_cast<float>(file.bytes[at + 14]), static_cast<float>(file.bytes[at + 15]),
               std::vector<uint16_t>(n)};
        same = same && img.ns == images[0].ns && img.nf == images[0].nf && img.nc == images[0].nc;
        for (size_t p = 0; p < n; p++)
            img.phase[p] =
                static_cast<uint16_t>((uint32_t{file.at<uint16_t>(at + 20 + 2 * p)} << 15) / d.scale);
        for (size_t run = 0; file.hdr.ver < 150 && run < n; run += 2 * w)
            std::copy_backward(&img.phase[run], &img.phase[run + 2 * w - 1], &img.phase[run] + 2 * w);
        if (!stepped && w == 320 && h == 240) {
            const std::vector<uint16_t> seen = img.phase;
            for (size_t row = 0; row < h; row++)
                std::copy_n(&seen[row * w], w,
                            &img.phase[(row < h / 2 ? h - 2 - 2 * row : 2 * (row - h / 2) + 1) * w]);
        }
    }
    for (size_t i = 0; i < images.size() && same && !stepped; i++) {
        images[i].nc = static_cast<float>(static_cast<uint8_t>(i));
        images[i].nf = images[i].ns = 0;
    }
    return images;
}

bool wrap(float v, float range, float &out)
{
    for (int i = 0; std::fabs(v) >= range; i++) {
        if (i == 4096)
            return false;
        v = v > 0 ? v - range : v + range;
    }
    out = v;
    return true;
}

struct Fit {
    const CalibFile &file;
    const CalibDrnu &d;
    std::vector<Image> images;
    CalibPlanes &out;
    int n = 0, skip = 0;
    std::vector<float> phase, dist, ref;
    float s0 = 0, s1 = 0, s2 = 0;

    Fit(const CalibFile &f, const CalibDrnu &drnu, CalibPlanes &planes)
        : file(f), d(drnu), images(load_images(f, drnu)), out(planes), n(drnu.images), skip(drnu.images)
    {
    }

    float mm(float p) const { return p * TURN * out.range_mm; }

    // What the pixels at the centre show, a turn added where they fall behind.
    void measure_centre()
    {
        const bool stepped = file.hdr.blk_ver >= 142;
        int runs = 1;
        for (size_t i = 0; i < images.size(); i++) {
            runs += stepped && i > 0 && images[i].ref_um != images[i - 1].ref_um;
            ref.push_back(stepped ? static_cast<float>(images[i].ref_um) / 1000 : d.ref_cm * 10);
        }
        skip = n / runs;
        for (int i = 0; i < n; i++) {
            uint32_t sum = 0;
            for (size_t row = d.height / 2 - 2; row < d.height / 2 + 3; row++)
                for (size_t col = d.width / 2 - 2; col < d.width / 2 + 3; col++) {
                    const uint16_t v = images[static_cast<size_t>(i)].phase[row * d.width + col];
                    sum += v + (i != 0 && i != skip && static_cast<float>(v) < phase.back() ? 65536u : 0u);
                }
            phase.push_back(static_cast<float>(sum / 25));
            dist.push_back(mm(phase.back()));
        }
    }

    // Fits the delay steps of the images named; returns offset, coarse, fine step.
    std::vector<float> fit_steps(const std::vector<size_t> &which)
    {
        std::vector<float> x, y, c(3);
        for (size_t i : which)
            x.push_back(images[i].nc), y.push_back(dist[i]);
        for (size_t i : which)
            x.push_back(images[i].nf);
        tq_math_multiple_linear_fit_f32(x.data(), y.data(), nullptr, static_cast<int>(y.size()), c.data(), 3,
                                        &out.r_steps);
        return c;
    }

    void fit_distances()
    {
        std::vector<size_t> first, all;
        for (size_t i = 0; i < images.size(); i++) {
            all.push_back(i);
            if (images[i].ref_um == images[0].ref_um)
                first.push_back(i);
        }
        if (skip == n) {
            const std::vector<float> c = fit_steps(all);
            s0 = c[1];
            s1 = c[2];
            return;
        }
        const std::vector<float> c = fit_steps(first);
        std::vector<float> x(3 * images.size()), m(4);
        for (size_t i = 0; i < images.size(); i++) {
            const float r = static_cast<float>(images[i].ref_um / 1000);
            const float e = dist[i] - r - (images[i].nc * c[1] + c[0] + images[i].nf * c[2]);
            const float turn = e > out.range_mm / 2 ? -1.0f : e < -out.range_mm / 2 ? 1.0f : 0.0f;
            phase[i] += turn * 32768;
            dist[i] += turn * out.range_mm;
            x[i] = images[i].nc;
            x[images.size() + i] = images[i].nf;
            x[2 * images.size() + i] = r;
        }
        tq_math_multiple_linear_fit_f32(x.data(), phase.data(), nullptr, n, m.data(), 4, &out.r_steps);
        s0 = mm(m[1]);
        s1 = mm(m[2]);
        s2 = m[3];
    }

    void fit_line_and_wave()
    {
        std::vector<float> y, x, res, c(3);
        for (size_t i = 0; i < images.size(); i++)
            y.push_back(images[i].nc * s0 + ref[i] + images[i].nf * s1 + images[i].ns * s2);
        tq_math_multiple_linear_fit_f32(dist.data(), y.data(), nullptr, n, c.data(), 2, &out.r_line);
        out.g_offset = c[0];
        out.g_slope = c[1];
        out.omega = 25.132742f / out.range_mm;
        for (size_t i = 0; i < images.size(); i++) {
            const float m = out.g_slope * dist[i] + out.g_offset;
            out.points.push_back({m, y[i] - m});
            x.push_back(std::sin(out.omega * m));
            res.push_back(y[i] - m);
        }
        for (const CalibPoint &p : out.points)
            x.push_back(std::cos(out.omega * p.mm));
        tq_math_multiple_linear_fit_f32(x.data(), res.data(), nullptr, n, c.data(), 3, &out.r_wave);
        out.amp = std::sqrt(c[1] * c[1] + c[2] * c[2]);
        out.pha = atan2f(c[2], c[1]);
        out.ofs = c[0];
        if (!std::isfinite(out.amp) || !std::isfinite(out.pha) || !std::isfinite(out.ofs))
            out.amp = out.pha = out.ofs = 0;
    }

    void fit_pixels()
    {
        float g_wrapped = 0;
        wrap(out.g_offset, out.range_mm, g_wrapped);
        std::vector<float> x(images.size()), y(images.size());
        for (size_t p = 0; p < size_t{d.width} * d.height; p++) {
            const double col = static_cast<double>(p % d.width), row = static_cast<double>(p / d.width);
            for (size_t k = 0; k < images.size(); k++) {
                x[k] = images[k].phase[p];
                if (k > 0 && static_cast<int>(k) != skip && x[k] < x[k - 1])
                    x[k] += 65536.0f;
                float z = ref[k];
                if (d.ref_is_z) {
                    const auto px = static_cast<float>((col - d.cx) * static_cast<double>(z) / d.fx);
                    const auto py = static_cast<float>((row - d.cy) * static_cast<double>(z) / d.fy);
                    z = std::sqrt(px * px + py * py + z * z);
                }
                y[k] = z + images[k].nc * s0 + images[k].nf * s1;
            }
            for (float &v : x)
                v = mm(v);
            float s, o, r, wrapped = 0;
            tq_math_linear_LSR_f32(x.data(), y.data(), n, &s, &o, &r);
            const bool good = std::isfinite(s) && std::isfinite(o) && wrap(o, out.range_mm, wrapped);
            if (!good || r < 0.98f) {
                out.bad++;
                s = out.g_slope;
                wrapped = g_wrapped;
            }
            out.slope.push_back(s);
            out.offset.push_back(wrapped);
        }
    }
};

} // namespace

bool calib_planes(const CalibFile &file, const CalibBlock &block, CalibPlanes &out)
{
    const CalibDrnu &d = block.drnu;
    const size_t n = size_t{d.width} * d.height;
    out = {};
    if (d.freq == 0 || d.width > 4096 || d.height > 4096)
        return false;
    out.range_mm = static_cast<float>(149896224000.0 / d.freq);
    if (block.type == TQ_BLK_DRNU_RESULT) {
        if (d.payload_size < 48 + 8 * n)
            return false;
        out.g_slope = static_cast<float>(file.at<int32_t>(d.payload)) / 1000;
        out.g_offset = static_cast<float>(file.at<int32_t>(d.payload + 4));
        out.amp = file.at<float>(d.payload + 8);
        out.omega = file.at<float>(d.payload + 12);
        out.pha = file.at<float>(d.payload + 16);
        out.ofs = file.at<float>(d.payload + 20);
        for (size_t p = 0; p < n; p++) {
            out.slope.push_back(file.at<float>(d.payload + 48 + 4 * p));
            out.offset.push_back(file.at<float>(d.payload + 48 + 4 * (n + p)));
        }
        return true;
    }
    if (block.type != TQ_BLK_DRNU_IMAGES || d.images < 2 || d.width < 5 || d.height < 5 ||
        (file.hdr.ver < 150 && d.height % 2) || d.payload_size < (20 + 2 * n) * static_cast<size_t>(d.images))
        return false;
    Fit fit(file, d, out);
    fit.measure_centre();
    fit.fit_distances();
    fit.fit_line_and_wave();
    fit.fit_pixels();
    return true;
}
