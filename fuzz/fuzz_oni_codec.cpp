// Decodes the input as a coded block into a buffer whose size its first byte tells, and encodes it as
// samples: what the encoder makes must decode to as many samples.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "replay/oni_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const uint32_t room = data[0] * 4u + 1, n = static_cast<uint32_t>(size - 1);
    std::vector<uint8_t> out(room);
    uint32_t written;
    oni_codec_decode(data + 1, n, out.data(), room, &written);
    if (written > room)
        abort();

    std::vector<uint16_t> samples(n / 2 + 1);
    memcpy(samples.data(), data + 1, n);
    const uint32_t count = static_cast<uint32_t>(samples.size());
    std::vector<uint8_t> block(4 * count + 16);
    if (oni_codec_encode(samples.data(), count, data[0] & 1 ? 65536 : 4096, block.data(),
                         static_cast<uint32_t>(block.size()), &written) != ONI_CODEC_OK)
        return 0;
    std::vector<uint16_t> back(count);
    uint32_t bytes;
    const oni_codec_status_t status = oni_codec_decode(block.data(), written, back.data(), 2 * count, &bytes);
    if (status != ONI_CODEC_OK || bytes != 2 * count || back[0] != samples[0])
        abort();
    return 0;
}
