// Point clouds as PLY files (G. Turk, The PLY Polygon File Format, 1994), text or binary.
#include "tqcam.h"

#include <charconv>
#include <cstdio>
#include <cstring>

#include "api/fd_io.h"
#include "log/log.h"

namespace {
constexpr size_t ROW_MAX = 255;

// Collects rows, so that a point doesn't cost a system call.
class rows_t {
  public:
    explicit rows_t(int fd) : fd_(fd) {}

    // Room for one row; nullptr when the file takes no more.
    char *row() { return used_ + ROW_MAX + 1 <= sizeof bytes_ || flush() ? bytes_ + used_ : nullptr; }
    void took(size_t len) { used_ += len; }
    bool flush()
    {
        const bool good = fd_write(fd_, bytes_, used_);
        used_ = 0;
        return good;
    }

  private:
    int fd_;
    size_t used_ = 0;
    char bytes_[16384];
};

struct colour_t {
    uint8_t rgb[3];
};

// An intensity is a gray; any other value gives its three low bytes as they stand.
colour_t _colour(float value, int format)
{
    const uint32_t v = static_cast<uint32_t>(f32_to_i32(value));
    const uint8_t low = static_cast<uint8_t>(v);
    if (format == TQCAM_PCL_FORMAT_XYZI)
        return {{low, low, low}};
    return {{low, static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16)}};
}

// Writes as %f does, but with a point in every locale. Returns the end; nullptr when there is no room.
char *_put_f32(char *at, char *end, float v, char after)
{
    const std::to_chars_result r =
        std::to_chars(at, end, static_cast<double>(v), std::chars_format::fixed, 6);
    if (r.ec != std::errc() || r.ptr == end)
        return nullptr;
    *r.ptr = after;
    return r.ptr + 1;
}

// One row as text. Returns its length; 0 when it is longer than a row may be.
size_t _text_row(char *row, const float *point, bool coloured, int format)
{
    char *at = row, *const end = row + ROW_MAX;
    for (int i = 0; i < 3 && at != nullptr; i++)
        at = _put_f32(at, end, point[i], i < 2 || coloured ? ' ' : '\n');
    if (at == nullptr)
        return 0;
    if (coloured) {
        const colour_t c = _colour(point[3], format);
        const size_t room = static_cast<size_t>(end - at) + 1;
        const int n = std::snprintf(at, room, "%d %d %d\n", c.rgb[0], c.rgb[1], c.rgb[2]);
        if (n < 0 || static_cast<size_t>(n) >= room)
            return 0;
        at += n;
    }
    return static_cast<size_t>(at - row);
}

size_t _binary_row(char *row, const float *point, int format)
{
    const colour_t c = _colour(point[3], format);
    std::memcpy(row, point, 12);
    std::memcpy(row + 12, c.rgb, 3);
    return 15;
}

bool _write_text(int fd, const char *text)
{
    return fd_write(fd, text, std::strlen(text));
}
} // namespace

bool tqcam_frame_save_ply(int fd, const float *pcl, int pcl_len, int format, bool binary)
{
    if (fd < 0 || pcl == nullptr || pcl_len < 1 || format < TQCAM_PCL_FORMAT_XYZ ||
        format > TQCAM_PCL_FORMAT_XYZI) {
        LOG_ERROR("[%s]wrong parameters\n");
        return false;
    }
    const bool coloured = format != TQCAM_PCL_FORMAT_XYZ;
    const int values = coloured ? 4 : 3;
    if (pcl_len % values != 0) {
        if (coloured)
            LOG_ERROR("[%s]wrong pcl_len: %d for TQCAM_PCL_FORMAT_XYZD/TQCAM_PCL_FORMAT_XYZI\n", pcl_len);
        else
            LOG_ERROR("[%s]wrong pcl_len: %d for TQCAM_PCL_FORMAT_XYZ\n", pcl_len);
        return false;
    }
    const int n_pcl = pcl_len / values;

    char vertex[128];
    std::snprintf(vertex, sizeof vertex,
                  "element vertex %d\nproperty float32 x\nproperty float32 y\nproperty float32 z\n", n_pcl);
    if (!_write_text(fd, binary ? "ply\nformat binary_little_endian 1.0\n" : "ply\nformat ascii 1.0\n")) {
        LOG_ERROR("[%s]write PLY header failed: fd = %d\n", fd);
        return false;
    }
    if (!_write_text(fd, vertex) ||
        (coloured &&
         !_write_text(fd, "property   uint8   red\nproperty   uint8   green\nproperty   uint8   blue\n"))) {
        LOG_ERROR("[%s]write PLY vertex line failed: fd = %d\n", fd);
        return false;
    }
    if (!_write_text(fd, "end_header\n")) {
        LOG_ERROR("[%s]write PLY header failed: fd = %d\n", fd);
        return false;
    }

    if (binary && !coloured) {
        const size_t len = static_cast<size_t>(pcl_len) * sizeof(float);
        const bool good = fd_write(fd, pcl, len);
        if (!good)
            LOG_ERROR("[%s]write PLY data %u bytes failed: fd = %d\n", static_cast<unsigned>(len), fd);
        return good;
    }
    rows_t rows(fd);
    bool good = true;
    int n = 0;
    for (; good && n < n_pcl; n++) {
        const float *point = pcl + static_cast<size_t>(n) * static_cast<size_t>(values);
        char *row = rows.row();
        const size_t len = row == nullptr ? 0
                           : binary       ? _binary_row(row, point, format)
                                          : _text_row(row, point, coloured, format);
        rows.took(len);
        good = len > 0;
    }
    good = good && rows.flush();
    if (good)
        return true;
    if (binary)
        LOG_ERROR("[%s]write PLY data failed: fd = %d, pcl_ofs=%d\n", fd, n * values);
    else if (coloured)
        LOG_ERROR("[%s]write PLY header failed: fd = %d\n", fd);
    else
        LOG_ERROR("[%s]write PLY data failed: fd = %d, n_pcl=%d\n", fd, n);
    return false;
}
