// The reassembler under hostile bytes. The input is a series of steps, each a code, a count and what belongs
// to it: raw bytes, or a packet whose header is given magic and hash so that it gets past the check, fed in
// pieces of the step's choice; a fetch; a peek; a reset.
#include "fuzz_input.h"
#include "tq_stream.h"

void fuzz(fuzz_input in)
{
    tq_stream_cfg_t cfg = {in.take<uint8_t>() % 12u};
    tq_stream_t *stream = tq_stream_create(&cfg);
    tq_stream_get_cfg(stream, &cfg);
    while (in.size >= 3) {
        const int code = in.take<uint8_t>() % 8;
        const auto count = in.take<uint8_t>(), piece = in.take<uint8_t>();
        if (code < 5) {
            const size_t head = code < 4 ? sizeof(tq_stream_hdr_t) : 0;
            std::vector<uint8_t> bytes = in.take_bytes(head + count);
            if (head != 0 && bytes.size() >= head) {
                tq_stream_hdr_t hdr;
                memcpy(&hdr, bytes.data(), sizeof hdr);
                hdr.magic = TQ_STREAM_MAGIC;
                hdr.len &= code < 3 ? 0xFF : 0xFFFFFF;
                hdr.frame.frame_len &= code < 3 ? 0xFF : 0xFFFFFF;
                hdr.hdr_hash = tq_stream_hash16(&hdr, 34, 0);
                memcpy(bytes.data(), &hdr, sizeof hdr);
            }
            for (fuzz_input rest = {bytes.data(), bytes.size()}; rest.size > 0;) {
                const std::vector<uint8_t> part = rest.take_bytes(piece == 0 ? rest.size : piece);
                tq_stream_feed_input(stream, part.data(), static_cast<int32_t>(part.size()));
                tq_stream_state_t state;
                tq_stream_get_state(stream, &state);
                require(state.rdy_cnt <= cfg.rdy_limit);
            }
        } else if (code < 7) {
            std::vector<uint8_t> dst(piece);
            tq_frame_hdr_t hdr;
            require(tq_stream_fetch_frames(stream, dst.data(), piece, count % 16, &hdr, code == 6) <=
                    count % 16u);
        } else {
            while (tq_stream_fetch_frames(stream, nullptr, 0, 4, nullptr, false) > 0)
                ;
            tq_stream_reset(stream);
        }
    }
    tq_stream_destroy(stream);
}
