// Unpacking of raw frames with meta data into 16-bit samples, for tools that look at the sensor itself.
//
// A raw frame holds four sub-frames; each begins with its meta data (three lines of 192 bytes at 4, 200 and
// 396, with 4 bytes in between) and goes on with its pixels. The output begins with its row width and row
// count; then come, for each sub-frame, its pixels and its three meta lines, a byte a sample.
#include <cstring>

#include "api/device.h"
#include "log/log.h"

namespace {
constexpr unsigned SUB_FRAMES = 4;
constexpr unsigned META_LINES = 3, META_LINE_BYTES = 192, META_LINE_STRIDE = 196, META_LINE_BEGIN = 4;
constexpr uint32_t META_MIN = META_LINE_BEGIN + META_LINES * META_LINE_STRIDE; // 592
constexpr uint64_t OUT_HDR_BYTES = 4;
constexpr uint32_t SIDE_MAX = 1u << 20;

// Samples are big-endian, the value in the middle bits: out come 11 bits with their sign.
uint16_t _sample(const uint8_t *src)
{
    const uint16_t swapped = static_cast<uint16_t>(src[0] << 8 | src[1]);
    return static_cast<uint16_t>(static_cast<int16_t>(static_cast<uint16_t>(swapped << 1)) >> 5);
}

void _put_u16(uint8_t *dst, uint64_t index, uint16_t value)
{
    memcpy(dst + 2 * index, &value, sizeof(value));
}

// Both formats; they differ in the samples of a row.
int _unpack(uint8_t *dst, uint32_t dst_len, const uint8_t *src, uint32_t src_len,
            const tqcam_frame_info_t &info, unsigned samples_per_pixel, const char *caller)
{
    const uint64_t row = static_cast<uint64_t>(info.width) * samples_per_pixel;
    const bool sane = info.width <= SIDE_MAX && info.height <= SIDE_MAX; // the sums below stay in 64 bits
    const uint64_t samples = row * info.height;
    const uint64_t sub_bytes = static_cast<uint64_t>(info.meta_size) + 2 * samples;
    const uint64_t out_bytes = OUT_HDR_BYTES + SUB_FRAMES * 2 * (samples + META_LINES * row);
    if (!sane || out_bytes > dst_len || out_bytes > INT32_MAX || SUB_FRAMES * sub_bytes > src_len ||
        info.meta_size < META_MIN || info.width < META_LINE_BYTES) {
        LOG_AS(6, "ERR", caller, "[%s]wrong dst_len: %d (wxh=%dx%d), meta_size:%d\n",
               static_cast<int>(dst_len), static_cast<int>(info.width), static_cast<int>(info.height),
               static_cast<int>(info.meta_size));
        return 0;
    }
    _put_u16(dst, 0, static_cast<uint16_t>(row));
    _put_u16(dst, 1, static_cast<uint16_t>(info.height * SUB_FRAMES + SUB_FRAMES * META_LINES));
    memset(dst + OUT_HDR_BYTES, 0, out_bytes - OUT_HDR_BYTES);
    const uint64_t whole = samples - samples % 4; // pixels go by fours; what is left over stays 0
    uint64_t at = OUT_HDR_BYTES / 2;
    for (unsigned sub = 0; sub < SUB_FRAMES; sub++) {
        const uint8_t *meta = src + sub * sub_bytes;
        const uint8_t *pixels = meta + info.meta_size;
        for (uint64_t i = 0; i < whole; i++)
            _put_u16(dst, at + i, _sample(pixels + 2 * i));
        at += samples;
        for (unsigned line = 0; line < META_LINES; line++, at += row) {
            const uint8_t *bytes = meta + META_LINE_BEGIN + line * META_LINE_STRIDE;
            for (unsigned i = 0; i < META_LINE_BYTES; i++)
                _put_u16(dst, at + i, bytes[i]);
        }
    }
    return static_cast<int>(out_bytes);
}

int _tqcam_get_raw_frames_ex(uint8_t *dst, uint32_t dst_len, const uint8_t *src, uint32_t src_len,
                             const tqcam_frame_info_t &info)
{
    return _unpack(dst, dst_len, src, src_len, info, 1, __func__);
}

int _tqcam_get_raw_ab_frames_ex(uint8_t *dst, uint32_t dst_len, const uint8_t *src, uint32_t src_len,
                                const tqcam_frame_info_t &info)
{
    return _unpack(dst, dst_len, src, src_len, info, 2, __func__);
}
} // namespace

int tqcam_get_raw_frames_ex(tqcam_dev_t *dev, void *dst, uint32_t dst_len, const void *src, uint32_t src_len,
                            const tqcam_frame_info_t *info)
{
    enum { FMT_AB = 37, FMT_PLANES = 2 };
    ApiGuard guard(dev, __func__);
    if (!guard)
        return -1;
    const tqcam_frame_info_t frame = info ? *info : dev_last_info(dev->priv);
    if (frame.frame_format != FMT_PLANES && frame.frame_format != FMT_AB)
        return -1;
    if (!dst || !src) {
        LOG_DEBUG("[%s]Wrong params\n");
        return 0;
    }
    const auto unpack = frame.frame_format == FMT_AB ? _tqcam_get_raw_ab_frames_ex : _tqcam_get_raw_frames_ex;
    return unpack(static_cast<uint8_t *>(dst), dst_len, static_cast<const uint8_t *>(src), src_len, frame);
}
