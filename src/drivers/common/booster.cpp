#include "drivers/common/booster.h"

#include <cstdlib>
#include <cstring>

#include "log/log.h"

bool booster_cache(booster_t *b, const void *raw, const tqcam_frame_info_t *info)
{
    const uint32_t size = info->frame_size;
    if (size < 8 || size % 8 != 0)
        return false;
    if (b->bfps_buf.data && (b->bfps_size != size || b->bfps_fill > size)) {
        LOG_DEBUG("[%s]realloc bfps buffer since frame size changed : %d -> %d (blen=%d, fsz=%d)\n",
                  b->bfps_size, size, b->bfps_fill, size);
        b->bfps_buf.release();
    }
    if (!b->bfps_buf.data) {
        if (!b->bfps_buf.need(size_t{4} * size)) {
            LOG_ERROR("[%s]malloc failed\n");
            exit(-3);
        }
        b->bfps_size = size;
        b->bfps_fill = 0;
        b->roll = 0;
    }
    b->bfps_info = *info;
    memcpy(b->bfps_buf.as<uint8_t>() + b->bfps_fill, raw, size); // at most the second of four places
    b->bfps_fill += size;
    return true;
}

bool booster_has_data(const booster_t *b)
{
    return b->bfps_buf.data && b->bfps_size == b->bfps_info.frame_size &&
           b->bfps_fill >= b->bfps_size + static_cast<uint32_t>(b->roll);
}

void _feature_bfps_fill_data(booster_t *b, void *dst)
{
    const uint32_t size = b->bfps_size, quarter = size / 4;
    const uint32_t newer = static_cast<uint32_t>(b->roll);
    uint8_t *const old_frame = b->bfps_buf.as<uint8_t>(), *const new_frame = old_frame + size;
    uint8_t *const out = static_cast<uint8_t *>(dst);
    memcpy(out, new_frame, newer);
    memcpy(out + newer, old_frame + newer, size - newer);
    b->roll += static_cast<int32_t>(quarter);
    if (b->roll == static_cast<int32_t>(size)) {
        memcpy(old_frame, new_frame, size);
        b->roll = 0;
        b->bfps_fill = size;
    }
}
