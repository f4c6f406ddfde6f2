#include "replay/oni_codec.h"

#include <cstdlib>
#include <memory>

#include "replay/oni_format.h"

// A block is a u16 count of table values, the values in ascending order, the u16 index of the first sample,
// and then bytes. Differences d of indexes (previous minus this) from -6 to 6 are half bytes of d + 6, two a
// byte, high one first; a high half from 0xE0 on marks what is no pair of differences.
namespace {

constexpr uint32_t RUN_BASE = 0xE0;   // 0xE0 + r: r pairs of the same sample again
constexpr uint32_t RUN_MAX = 15;      // pairs that the encoder puts in one run
constexpr uint32_t LONG_MARK = 0xFF;  // a long form follows
constexpr uint32_t HALF_LAST = 13;    // as low half: the high half stands alone
constexpr uint32_t HALF_LONG = 15;    // as low half: a long form follows
constexpr int NEAR = 6;               // largest difference of a half byte
constexpr int MIDDLE = 64;            // differences below it have a long form of one byte ...
constexpr int MIDDLE_BIAS = 192;      // ... of the difference plus this
constexpr uint32_t TABLE_MAX = 65536; // values that 16 bits can have

struct decoder_t {
    const uint8_t *table; // little-endian u16, any alignment
    uint32_t count;
    uint16_t cur;
    uint8_t *out, *out_end;
    oni_codec_status_t status;
};

// Outputs the sample at the current index n times.
inline bool _decode_out(decoder_t *d, uint32_t n)
{
    if (d->cur >= d->count) {
        d->status = ONI_CODEC_BAD_INPUT;
        return false;
    }
    const uint8_t *value = d->table + 2 * static_cast<size_t>(d->cur);
    for (; n > 0; n--) {
        if (d->out == d->out_end) {
            d->status = ONI_CODEC_FULL;
            return false;
        }
        d->out[0] = value[0];
        d->out[1] = value[1];
        d->out += 2;
    }
    return true;
}

// Outputs the sample at a distance from the current index.
inline bool _decode_step(decoder_t *d, int back)
{
    d->cur = static_cast<uint16_t>(d->cur - back);
    return _decode_out(d, 1);
}

struct encoder_t {
    uint8_t *out, *out_end;
    bool full;
    uint32_t run; // pairs of unchanged samples not written yet
};

inline void _encode_byte(encoder_t *e, uint32_t byte)
{
    if (e->out == e->out_end)
        e->full = true;
    else
        *e->out++ = static_cast<uint8_t>(byte);
}

inline void _encode_u16(encoder_t *e, uint32_t v)
{
    _encode_byte(e, v & 0xFF);
    _encode_byte(e, v >> 8);
}

inline void _encode_run(encoder_t *e)
{
    if (e->run > 0)
        _encode_byte(e, RUN_BASE + e->run);
    e->run = 0;
}

} // namespace

oni_codec_status_t oni_codec_decode(const uint8_t *src, uint32_t src_size, void *dst, uint32_t dst_size,
                                    uint32_t *written)
{
    *written = 0;
    if (!src || !dst || src_size < 2)
        return ONI_CODEC_BAD_INPUT;
    const uint8_t *end = src + src_size;
    decoder_t d = {};
    d.count = oni_get_u16(src);
    d.table = src + 2;
    if (src_size < 2 + 2 * d.count + 2)
        return ONI_CODEC_BAD_INPUT;
    src = d.table + 2 * d.count;
    d.cur = oni_get_u16(src);
    src += 2;
    uint8_t *const first = static_cast<uint8_t *>(dst);
    d.out = first;
    d.out_end = first + (dst_size & ~1u);

    bool good = _decode_out(&d, 1);
    while (good && src < end) {
        const uint32_t b = *src++;
        if (b < RUN_BASE) {
            const uint32_t low = b & 15;
            good = _decode_step(&d, static_cast<int>(b >> 4) - NEAR);
            if (!good || low == HALF_LAST)
                continue;
            if (low != HALF_LONG) {
                good = _decode_step(&d, static_cast<int>(low) - NEAR);
                continue;
            }
        } else if (b != LONG_MARK) {
            good = b == RUN_BASE || _decode_out(&d, 2 * (b - RUN_BASE));
            continue;
        }
        if (src < end && *src & 0x80) {
            good = _decode_step(&d, *src++ - MIDDLE_BIAS);
        } else if (end - src >= 2) {
            d.cur = static_cast<uint16_t>(src[0] << 8 | src[1]);
            src += 2;
            good = _decode_out(&d, 1);
        } else {
            d.status = ONI_CODEC_BAD_INPUT;
            good = false;
        }
    }
    *written = static_cast<uint32_t>(d.out - first);
    return d.status;
}

oni_codec_status_t oni_codec_encode(const uint16_t *src, uint32_t count, uint32_t table_size, uint8_t *dst,
                                    uint32_t dst_size, uint32_t *written)
{
    *written = 0;
    if (!src || !dst || count == 0 || table_size == 0)
        return ONI_CODEC_BAD_INPUT;
    if (table_size > TABLE_MAX)
        table_size = TABLE_MAX;
    const std::unique_ptr<uint16_t, decltype(&std::free)> number(
        static_cast<uint16_t *>(calloc(table_size, sizeof(uint16_t))), std::free);
    if (!number)
        return ONI_CODEC_FULL;
    uint16_t *const num = number.get();
    for (uint32_t i = 0; i < count; i++) {
        if (src[i] >= table_size)
            return ONI_CODEC_BAD_INPUT;
        num[src[i]] = 1;
    }

    encoder_t e = {dst, dst + dst_size, false, 0};
    uint32_t values = 0;
    _encode_u16(&e, 0); // the count, known below
    for (uint32_t v = 0; v < table_size; v++) {
        if (num[v]) {
            _encode_u16(&e, v);
            num[v] = static_cast<uint16_t>(values++);
        }
    }
    if (e.full || values == TABLE_MAX)
        return e.full ? ONI_CODEC_FULL : ONI_CODEC_BAD_INPUT;
    oni_put_u16(dst, static_cast<uint16_t>(values));
    uint32_t prev = num[src[0]];
    _encode_u16(&e, prev);

    int half = -1; // half byte that waits for its second
    for (uint32_t i = 1; i < count && !e.full; i++) {
        const uint32_t cur = num[src[i]];
        const int d = static_cast<int16_t>(prev - cur);
        prev = cur;
        if (d < -NEAR || d > NEAR) {
            _encode_run(&e);
            _encode_byte(&e, half >= 0 ? static_cast<uint32_t>(half) << 4 | HALF_LONG : LONG_MARK);
            half = -1;
            if (d > -MIDDLE && d < MIDDLE) {
                _encode_byte(&e, static_cast<uint32_t>(d + MIDDLE_BIAS));
            } else if (cur < 0x8000) {
                _encode_byte(&e, cur >> 8);
                _encode_byte(&e, cur & 0xFF);
            } else {
                return ONI_CODEC_BAD_INPUT; // its high byte would read as the short form
            }
        } else if (half < 0) {
            half = d + NEAR;
        } else {
            if (half == NEAR && d == 0) {
                if (++e.run == RUN_MAX)
                    _encode_run(&e);
            } else {
                _encode_run(&e);
                _encode_byte(&e, static_cast<uint32_t>(half << 4 | (d + NEAR)));
            }
            half = -1;
        }
    }
    // The half byte goes out ahead of the run, as the format has it, though it came after.
    if (half >= 0)
        _encode_byte(&e, static_cast<uint32_t>(half) << 4 | HALF_LAST);
    _encode_run(&e);
    if (e.full)
        return ONI_CODEC_FULL;
    *written = static_cast<uint32_t>(e.out - dst);
    return ONI_CODEC_OK;
}
