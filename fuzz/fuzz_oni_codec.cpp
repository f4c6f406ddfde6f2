// Decodes the input as a coded block into a buffer whose size its first byte tells, and encodes it as
// samples: what the encoder makes must decode to as many samples.
#include "fuzz_input.h"
#include "replay/oni_codec.h"

void fuzz(fuzz_input in)
{
    const auto first = in.take<uint8_t>();
    const uint32_t room = first * 4u + 1, n = static_cast<uint32_t>(in.size);
    std::vector<uint8_t> out(room);
    uint32_t written, bytes;
    oni_codec_decode(in.data, n, out.data(), room, &written);
    require(written <= room);

    std::vector<uint16_t> samples(n / 2 + 1);
    memcpy(samples.data(), in.data, n);
    const uint32_t count = static_cast<uint32_t>(samples.size());
    std::vector<uint8_t> block(4 * count + 16);
    if (oni_codec_encode(samples.data(), count, first & 1 ? 65536 : 4096, block.data(),
                         static_cast<uint32_t>(block.size()), &written) != ONI_CODEC_OK)
        return;
    std::vector<uint16_t> back(count);
    require(oni_codec_decode(block.data(), written, back.data(), 2 * count, &bytes) == ONI_CODEC_OK);
    require(bytes == 2 * count && back[0] == samples[0]);
}
