// Frame files: one line of text, then images of little-endian samples, for raw frames, distance and gray.
// They stand on plain descriptors, so that an application may append frames, or keep them in a file of its
// own.
#include "tqcam.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "api/fd_io.h"
#include "log/log.h"

namespace {
constexpr size_t HEADER_MAX = 256;

enum sample_t { SAMPLE_U8, SAMPLE_U16, SAMPLE_U32, SAMPLE_F32 };

size_t _sample_size(sample_t sample)
{
    return sample == SAMPLE_U8 ? 1 : sample == SAMPLE_U16 ? 2 : 4;
}

struct free_t {
    void operator()(void *p) const { std::free(p); }
};
using buffer_t = std::unique_ptr<uint8_t, free_t>;

buffer_t _buffer(size_t len)
{
    return buffer_t(static_cast<uint8_t *>(std::malloc(len)));
}

// Samples of one image; 0 when a size is 0 or below, or the product is no int.
int _image_samples(int64_t width, int64_t height, int64_t planes)
{
    if (width < 1 || height < 1 || planes < 1 || width > INT32_MAX || height > INT32_MAX ||
        planes > INT32_MAX)
        return 0;
    const int64_t area = width * height;
    if (area > INT32_MAX || area * planes > INT32_MAX)
        return 0;
    return static_cast<int>(area * planes);
}

// Frames know their place by the low half of the offset alone: at every 4 GiB both sides meet a header again.
bool _at_header(off_t at)
{
    return static_cast<uint32_t>(at) == 0;
}

// ---- Saving
// -------------------------------------------------------------------------------------------------

bool _write_header(int fd, const char *line, int len)
{
    return !_at_header(lseek(fd, 0, SEEK_CUR)) || (len > 0 && fd_write(fd, line, static_cast<size_t>(len)));
}

int _log_bytes(int n, unsigned size)
{
    return static_cast<int>(static_cast<unsigned>(n) * size);
}

// Writes n values, converted one by one into a temporary buffer. False when a step of it fails.
template <typename T, typename From, typename F>
bool _write_converted(int fd, const From *from, int n, F convert)
{
    const size_t len = static_cast<size_t>(n) * sizeof(T);
    const buffer_t buffer = _buffer(len);
    if (buffer == nullptr)
        return false;
    T *to = reinterpret_cast<T *>(buffer.get());
    for (int i = 0; i < n; i++)
        to[i] = static_cast<T>(convert(from[i]));
    return fd_write(fd, to, len);
}

// ---- Loading
// ------------------------------------------------------------------------------------------------

// What the header of the file told; kept for the images behind it.
struct layout_t {
    int width, height, planes;
    sample_t sample;
};

struct form_t {
    const char *scan; // two or three sizes, then perhaps a tag
    sample_t sample;
    int sizes;
};

constexpr form_t RAW_FORMS[] = {{"TQ_RAW,U32,%18lld,%18lld,%18lld,%32s", SAMPLE_U32, 3},
                                {"TQ_RAW,U16,%18lld,%18lld,%18lld,%32s", SAMPLE_U16, 3}};
constexpr form_t DIST_FORMS[] = {{"TQ_DIST,F32,%18lld,%18lld", SAMPLE_F32, 2},
                                 {"TQ_DIST,U32,%18lld,%18lld", SAMPLE_U32, 2},
                                 {"TQ_DIST,U16,%18lld,%18lld", SAMPLE_U16, 2}};
constexpr form_t GRAY_FORMS[] = {{"TQ_GRAY,U8,%18lld,%18lld", SAMPLE_U8, 2},
                                 {"TQ_GRAY,U16,%18lld,%18lld", SAMPLE_U16, 2}};

bool _parse_header(const char *line, const form_t *forms, size_t n_forms, layout_t *layout, char tag[33])
{
    for (size_t i = 0; i < n_forms; i++) {
        long long size[3] = {0, 0, 1};
        tag[0] = '\0';
        // The functions that scan two sizes have no tag, and their forms leave the last two arguments alone.
        if (std::sscanf(line, forms[i].scan, &size[0], &size[1], &size[2], tag) < forms[i].sizes)
            continue;
        if (_image_samples(size[0], size[1], size[2]) == 0)
            return false;
        *layout = {static_cast<int>(size[0]), static_cast<int>(size[1]), static_cast<int>(size[2]),
                   forms[i].sample};
        return true;
    }
    return false;
}

// Reads the header when the file stands at one.
bool _load_header(int fd, const form_t *forms, size_t n_forms, layout_t *layout, char tag[33],
                  const char *name)
{
    tag[0] = '\0';
    const off_t start = lseek(fd, 0, SEEK_CUR);
    if (!_at_header(start))
        return true;
    char text[HEADER_MAX + 1];
    const int64_t got = fd_read(fd, text, HEADER_MAX);
    bool good = got >= 1;
    if (good) {
        const char *end = static_cast<const char *>(std::memchr(text, '\n', static_cast<size_t>(got)));
        const int64_t len = end != nullptr ? end - text + 1 : got;
        // What lies behind the line is samples, and none of them may be scanned with it.
        text[end != nullptr ? len - 1 : len] = '\0';
        good = _parse_header(text, forms, n_forms, layout, tag);
        if (good)
            lseek(fd, start + len, SEEK_SET);
        else
            *layout = layout_t{};
    }
    if (!good)
        LOG_AS(6, "ERR", name, "[%s]faile to load TQ file header\n");
    return good;
}

// True when the file is known to end before len more bytes. Sizes in a header promise much at no cost: memory
// is asked for only when the file can fill it. *left tells what is there.
bool _ends_before(int fd, uint64_t len, int64_t *left)
{
    struct stat st;
    const off_t at = lseek(fd, 0, SEEK_CUR);
    if (at < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    *left = std::max<int64_t>(0, st.st_size - at);
    return static_cast<uint64_t>(*left) < len;
}

// Reads the header, when the file stands at one, and one image as it stands in the file; *samples tells its
// size. nullptr at the end of the file and on failure.
template <size_t N>
buffer_t _load_image(int fd, const form_t (&forms)[N], layout_t *kept, char tag[33], int *samples,
                     const char *name)
{
    if (!_load_header(fd, forms, N, kept, tag, name))
        return nullptr;
    const layout_t layout = *kept;
    *samples = _image_samples(layout.width, layout.height, layout.planes);
    if (*samples == 0)
        return nullptr; // no header came before
    const size_t len = static_cast<size_t>(*samples) * _sample_size(layout.sample);
    int64_t got = 0;
    buffer_t image;
    if (_ends_before(fd, len, &got)) {
        lseek(fd, 0, SEEK_END); // as if it had been read
    } else {
        image = _buffer(len);
        if (image == nullptr) {
            LOG_AS(6, "ERR", name, "[%s]malloc failed!\n");
            return nullptr;
        }
        got = fd_read(fd, image.get(), len);
    }
    if (got == static_cast<int64_t>(len))
        return image;
    if (got != 0)
        LOG_AS(6, "ERR", name, "[%s]read %d date failed: ret= %d\n", static_cast<int>(len),
               static_cast<int>(got));
    return nullptr;
}

template <typename From, typename To, typename F>
int _convert(const buffer_t &image, To *dst, int n, F convert)
{
    const From *from = reinterpret_cast<const From *>(image.get());
    for (int i = 0; i < n; i++)
        dst[i] = static_cast<To>(convert(from[i]));
    return n;
}

int _delivered(const void *dst, int dst_len, int samples)
{
    return dst != nullptr ? std::clamp(dst_len, 0, samples) : 0;
}

void _store(int *out, int value)
{
    if (out != nullptr)
        *out = value;
}

// One file of each kind is read at a time in the process.
layout_t g_raw, g_dist, g_gray;
} // namespace

int tqcam_file_open(const char *path, const char *mode)
{
    if (path == nullptr || mode == nullptr)
        return -1;
    FILE *file = std::fopen(path, mode);
    if (file == nullptr) {
        LOG_ERROR("[%s]open %s failed\n", path);
        return -1;
    }
    // A descriptor of its own, so that the stream need not stay allocated for the descriptor's sake.
    const bool cloexec = (fcntl(fileno(file), F_GETFD) & FD_CLOEXEC) != 0;
    const int fd = fcntl(fileno(file), cloexec ? F_DUPFD_CLOEXEC : F_DUPFD, 0);
    std::fclose(file);
    return fd;
}

void tqcam_file_close(int fd)
{
    if (fd >= 0)
        close(fd);
}

bool tqcam_frame_save_raw(int fd, int save_fmt, const uint16_t *raw, int raw_len, int width, int height,
                          int dcs_n, const char *tag)
{
    const int image = _image_samples(width, height, dcs_n);
    if (raw == nullptr || image == 0 || raw_len < 1 || raw_len % image != 0) {
        LOG_ERROR("[%s]wrong param: raw_len=%d, w=%d, h=%d\n", raw_len, width, height);
        return false;
    }
    if (save_fmt != TQCAM_RAW_U32 && save_fmt != TQCAM_RAW_U16) {
        LOG_ERROR("[%s]wrong raw save format: %d\n", save_fmt);
        return false;
    }
    const char *text = tag != nullptr ? tag : "";
    const int tag_len = static_cast<int>(std::min<size_t>(std::strcspn(text, "\r\n"), INT32_MAX / 2));
    char *line = nullptr; // a line break in the tag would end the header
    const int line_len =
        asprintf(&line, "TQ_RAW,%s,%d,%d,%d,%.*s\n", save_fmt == TQCAM_RAW_U32 ? "U32" : "U16", width, height,
                 dcs_n, tag_len, text);
    const bool written = line_len > 0 && _write_header(fd, line, line_len);
    if (line_len > 0)
        std::free(line);
    if (!written) {
        LOG_ERROR("[%s]faile to save TQ_RAW header\n");
        return false;
    }
    if (save_fmt == TQCAM_RAW_U16) {
        if (!fd_write(fd, raw, static_cast<size_t>(raw_len) * 2)) {
            LOG_ERROR("[%s]faile to save TQ_RAW U16 data: %d bytes\n", _log_bytes(raw_len, 2));
            return false;
        }
    } else if (!_write_converted<uint32_t>(fd, raw, raw_len, [](uint16_t v) { return v; })) {
        LOG_ERROR("[%s]faile to save TQ_RAW U32 data: %d bytes\n", _log_bytes(raw_len, 4));
        return false;
    }
    return true;
}

bool tqcam_frame_save_distance(int fd, int save_fmt, const float *dist, int dist_len, int width, int height)
{
    static const char *const names[] = {"F32", "U32", "U16"};
    const int image = _image_samples(width, height, 1);
    if (dist == nullptr || image == 0 || dist_len < image) {
        LOG_ERROR("[%s]wrong param: dist_len=%d, w=%d, h=%d\n", dist_len, width, height);
        return false;
    }
    if (save_fmt < TQCAM_DIST_F32 || save_fmt > TQCAM_DIST_U16) {
        LOG_ERROR("[%s]wrong distance save format: %d\n", save_fmt);
        return false;
    }
    char line[64];
    if (!_write_header(
            fd, line,
            std::snprintf(line, sizeof line, "TQ_DIST,%s,%d,%d\n", names[save_fmt], width, height))) {
        LOG_ERROR("[%s]faile to save TQ_DIST header\n");
        return false;
    }
    const int n = dist_len - dist_len % image;
    const auto mm = [](float metres) { return f32_to_i32(metres * 1000.0f); };
    if (save_fmt == TQCAM_DIST_F32) {
        if (!fd_write(fd, dist, static_cast<size_t>(n) * 4)) {
            LOG_ERROR("[%s]faile to save TQ_DIST F32 data: %d bytes\n", _log_bytes(n, 4));
            return false;
        }
    } else if (save_fmt == TQCAM_DIST_U32) {
        if (!_write_converted<uint32_t>(fd, dist, n, mm)) {
            LOG_ERROR("[%s]faile to save TQ_DIST U32 data: %d bytes\n", _log_bytes(n, 4));
            return false;
        }
    } else if (!_write_converted<uint16_t>(fd, dist, n, mm)) {
        LOG_ERROR("[%s]faile to save TQ_DIST U16 data: %d bytes\n", _log_bytes(n, 2));
        return false;
    }
    return true;
}

bool tqcam_frame_save_gray(int fd, int save_fmt, const float *gray, int gray_len, int width, int height)
{
    const int image = _image_samples(width, height, 1);
    if (gray == nullptr || image == 0 || gray_len < 1) {
        LOG_ERROR("[%s]wrong param: gray_len=%d, w=%d, h=%d\n", gray_len, width, height);
        return false;
    }
    if (save_fmt != TQCAM_GRAY_U8 && save_fmt != TQCAM_GRAY_U16) {
        LOG_ERROR("[%s]wrong gray save format: %d\n", save_fmt);
        return false;
    }
    char line[64];
    if (!_write_header(fd, line,
                       std::snprintf(line, sizeof line, "TQ_GRAY,%s,%d,%d\n",
                                     save_fmt == TQCAM_GRAY_U8 ? "U8" : "U16", width, height))) {
        LOG_ERROR("[%s]faile to save TQ_GRAY header\n");
        return false;
    }
    const int n = std::min(image, gray_len);
    if (save_fmt == TQCAM_GRAY_U8) {
        if (!_write_converted<uint8_t>(fd, gray, n, f32_to_i32)) {
            LOG_ERROR("[%s]faile to save TQ_GRAY U8 data: %d bytes\n", n);
            return false;
        }
    } else if (!_write_converted<uint16_t>(fd, gray, n, f32_to_i32)) {
        LOG_ERROR("[%s]faile to save TQ_GRAY U16 data: %d bytes\n", _log_bytes(n, 2));
        return false;
    }
    return true;
}

int tqcam_frame_load_raw(int fd, uint16_t *dst, int dst_len, int *width, int *height, int *dcs_n, char *tag,
                         int tag_len)
{
    char text[33];
    int samples = 0;
    const buffer_t image = _load_image(fd, RAW_FORMS, &g_raw, text, &samples, __func__);
    if (image == nullptr)
        return 0;
    const int n = _delivered(dst, dst_len, samples);
    if (g_raw.sample == SAMPLE_U32)
        _convert<uint32_t>(image, dst, n, [](uint32_t v) { return v; });
    else
        _convert<uint16_t>(image, dst, n, [](uint16_t v) { return v; });
    _store(width, g_raw.width);
    _store(height, g_raw.height);
    _store(dcs_n, g_raw.planes);
    if (tag != nullptr && tag_len > 0)
        std::snprintf(tag, static_cast<size_t>(tag_len), "%s", text);
    return n;
}

int tqcam_frame_load_distance(int fd, float *dst, int dst_len, int *width, int *height)
{
    char text[33];
    int samples = 0;
    const buffer_t image = _load_image(fd, DIST_FORMS, &g_dist, text, &samples, __func__);
    if (image == nullptr)
        return 0;
    const int n = _delivered(dst, dst_len, samples);
    if (g_dist.sample == SAMPLE_F32)
        _convert<float>(image, dst, n, [](float v) { return v; });
    else if (g_dist.sample == SAMPLE_U32)
        _convert<uint32_t>(image, dst, n, [](uint32_t v) { return static_cast<float>(v) / 1000.0f; });
    else
        _convert<uint16_t>(image, dst, n, [](uint16_t v) { return static_cast<float>(v) / 1000.0f; });
    _store(width, g_dist.width);
    _store(height, g_dist.height);
    return n;
}

int tqcam_frame_load_gray(int fd, float *dst, int dst_len, int *width, int *height)
{
    char text[33];
    int samples = 0;
    const buffer_t image = _load_image(fd, GRAY_FORMS, &g_gray, text, &samples, __func__);
    if (image == nullptr)
        return 0;
    const int n = _delivered(dst, dst_len, samples);
    if (g_gray.sample == SAMPLE_U8)
        _convert<uint8_t>(image, dst, n, [](uint8_t v) { return v; });
    else
        _convert<uint16_t>(image, dst, n, [](uint16_t v) { return v; });
    _store(width, g_gray.width);
    _store(height, g_gray.height);
    return n;
}
