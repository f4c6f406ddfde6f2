// Lens files: the text of a few numbers, and the binary with its tables.
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <locale.h>

#include "calib/file_read.h"
#include "log/log.h"
#include "tqcam_param.h"

static_assert(sizeof(tq_lens_bin_t) == 225);

namespace {
// Numbers are read with a decimal point whatever the application's locale says.
class c_numbers {
  public:
    c_numbers() : locale_(newlocale(LC_NUMERIC_MASK, "C", nullptr)), old_(uselocale(locale_)) {}
    ~c_numbers()
    {
        uselocale(old_);
        if (locale_)
            freelocale(locale_);
    }
    c_numbers(const c_numbers &) = delete;
    c_numbers &operator=(const c_numbers &) = delete;

  private:
    locale_t locale_, old_;
};
} // namespace

// An image side: a whole number of at least 1.
static bool _to_side(double value, uint32_t *side)
{
    if (!(value >= 1.0 && value <= INT32_MAX))
        return false;
    const auto whole = static_cast<int32_t>(value);
    *side = static_cast<uint32_t>(whole);
    return std::fabs(static_cast<float>(whole) - value) <= 0.001;
}

static bool _read_text(FILE *fp, tqcam_lens_param_t *out)
{
    double v[4 + TQ_LENS_DCOEF_NUM] = {};
    int n = 0;
    // Only the end of the file ends the list: what is no number leaves its place at 0.
    while (n < 4 + TQ_LENS_DCOEF_NUM && std::fscanf(fp, "%511lf", &v[n]) != EOF)
        n++;
    if (n < 6)
        return false;
    tqcam_lens_param_t lens{};
    uint32_t w, h;
    if (!_to_side(v[n - 2], &w) || !_to_side(v[n - 1], &h))
        return false;
    lens.cx = v[0];
    lens.cy = v[1];
    lens.fx = v[2];
    lens.fy = v[3];
    lens.n_dcoef = n - 6;
    for (int i = 0; i < lens.n_dcoef; i++)
        lens.dcoef[i] = v[4 + i];
    lens.img_w = w;
    lens.img_h = h;
    *out = lens;
    return true;
}

bool tqcam_param_len_load_2d_file(tqcam_lens_param_t *out, const char *filename)
{
    if (!out || !filename)
        return false;
    FILE *fp = std::fopen(filename, "r");
    bool good = false;
    if (fp) {
        const c_numbers numbers;
        good = _read_text(fp, out);
        std::fclose(fp);
    } else {
        LOG_TRACE("[%s]%s Open failed\n", filename);
    }
    if (good)
        LOG_DEBUG("[%s] Load %s: cx/cy/fx/fy=%.3f/%.3f/%.3f/%.3f, img=%u x %u, n_dcoef=%d\n", filename,
                  out->cx, out->cy, out->fx, out->fy, out->img_w, out->img_h, out->n_dcoef);
    else
        LOG_DEBUG("[%s] Load %s: skipped\n", filename);
    return good;
}

tq_lens_bin_t *tqcam_param_len_load_bin_fp(FILE *fp)
{
    tq_lens_bin_t head;
    if (!fp || !file_read(fp, &head, sizeof(head)))
        return nullptr;
    const uint64_t pixels = uint64_t{head.img_w} * head.img_h;
    // At most two and four a pixel, divided here because the products may not fit.
    if ((uint64_t{head.n_grad} + 1) / 2 > pixels || (uint64_t{head.n_reflect} + 3) / 4 > pixels)
        return nullptr;
    const uint64_t data = 4 * (uint64_t{head.n_grad} + head.n_reflect);
    if (head.size != data + 220) {
        LOG_WARN("[%s]sz wrong: hdrsz=%d, expect=%d\n", head.size, static_cast<int32_t>(data + 220));
        return nullptr;
    }
    if (data > file_rest(fp))
        return nullptr;
    auto *image = static_cast<uint8_t *>(std::malloc(sizeof(head) + data));
    if (!image || !file_read(fp, image + sizeof(head), data)) {
        std::free(image);
        return nullptr;
    }
    std::memcpy(image, &head, sizeof(head));
    return reinterpret_cast<tq_lens_bin_t *>(image);
}

tq_lens_bin_t *tqcam_param_len_load_bin_file(const char *filename)
{
    if (!filename)
        return nullptr;
    tq_lens_bin_t *lens = nullptr;
    if (FILE *fp = std::fopen(filename, "rb")) {
        lens = tqcam_param_len_load_bin_fp(fp);
        std::fclose(fp);
    } else {
        LOG_TRACE("[%s]%s Open failed\n", filename);
    }
    if (lens)
        LOG_DEBUG("[%s] Load %s: cx/cy/fx/fy=%.3f/%.3f/%.3f/%.3f, img=%u x %u, n_dcoef=%d, n_grad=%d, "
                  "n_reflect=%d\n",
                  filename, static_cast<double>(lens->cx), static_cast<double>(lens->cy),
                  static_cast<double>(lens->fx), static_cast<double>(lens->fy), lens->img_w, lens->img_h,
                  lens->n_dcoef, lens->n_grad, lens->n_reflect);
    else
        LOG_DEBUG("[%s] Load %s: skipped\n", filename);
    return lens;
}

void tqcam_param_len_unload(void *lens)
{
    std::free(lens);
}
