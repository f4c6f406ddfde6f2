// The reassembler under hostile bytes. The input is a series of steps, each a code, a count and what belongs
// to it: raw bytes, or a packet whose header is given magic and hash so that it gets past the check, fed in
// pieces of the step's choice; a fetch; a peek; a reset.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tq_stream.h"

namespace {
void require(bool held)
{
    if (!held)
        std::abort();
}

void feed(tq_stream_t *stream, const std::vector<uint8_t> &bytes, size_t piece)
{
    for (size_t at = 0; at < bytes.size();) {
        const size_t n = piece == 0 ? bytes.size() : std::min(piece, bytes.size() - at);
        const std::vector<uint8_t> part(bytes.begin() + at, bytes.begin() + at + n);
        tq_stream_feed_input(stream, part.data(), static_cast<int32_t>(n));
        at += n;
        tq_stream_state_t state;
        tq_stream_get_state(stream, &state);
        tq_stream_cfg_t cfg;
        require(state.rdy_cnt <= tq_stream_get_cfg(stream, &cfg)->rdy_limit);
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const tq_stream_cfg_t cfg = {data[0] % 12u};
    tq_stream_t *stream = tq_stream_create(&cfg);
    size_t at = 1;
    while (size - at >= 3) {
        const uint8_t code = data[at], count = data[at + 1], piece = data[at + 2];
        at += 3;
        std::vector<uint8_t> bytes;
        if (code % 8 < 5) {
            const size_t head = code % 8 < 4 ? sizeof(tq_stream_hdr_t) : 0;
            const size_t n = std::min<size_t>(head + count, size - at);
            bytes.assign(data + at, data + at + n);
            at += n;
            if (head != 0 && n >= head) {
                tq_stream_hdr_t hdr;
                std::memcpy(&hdr, bytes.data(), sizeof hdr);
                hdr.magic = TQ_STREAM_MAGIC;
                hdr.len &= code % 8 < 3 ? 0xFF : 0xFFFFFF;
                hdr.frame.frame_len &= code % 8 < 3 ? 0xFF : 0xFFFFFF;
                hdr.hdr_hash = tq_stream_hash16(&hdr, 34, 0);
                std::memcpy(bytes.data(), &hdr, sizeof hdr);
            }
            feed(stream, bytes, piece);
        } else if (code % 8 < 7) {
            std::vector<uint8_t> dst(piece);
            tq_frame_hdr_t hdr;
            const uint32_t got =
                tq_stream_fetch_frames(stream, dst.data(), piece, count % 16, &hdr, code % 8 == 6);
            require(got <= count % 16u);
        } else {
            while (tq_stream_fetch_frames(stream, nullptr, 0, 4, nullptr, false) > 0)
                ;
            tq_stream_reset(stream);
        }
    }
    tq_stream_destroy(stream);
    return 0;
}
