// Opens the input as a recording, reads frames of every stream and seeks about.
#include "memory_file.h"
#include "replay/oni_reader.h"

static uint8_t sink_sum;

// Touches every byte that it is given.
static void on_property(oni_reader_t *reader, int, const char *name, const void *value, uint32_t size, void *)
{
    if (const oni_istream_t *s = oni_reader_cur_stream(reader))
        sink_sum ^= static_cast<uint8_t>(s->name[0]);
    for (; *name; name++)
        sink_sum ^= static_cast<uint8_t>(*name);
    for (uint32_t i = 0; i < size; i++)
        sink_sum ^= static_cast<const uint8_t *>(value)[i];
}

static bool read_frames(oni_istream_t *s, int limit)
{
    uint8_t buf[333];
    uint64_t ts;
    uint32_t id;
    int n = 1;
    while (limit-- > 0 && (n = oni_istream_get_frame(s, buf, sizeof(buf), &ts, &id)) > 0) {
        if (n > static_cast<int>(sizeof(buf)))
            abort();
    }
    return n > 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const memory_file file(data, size);
    oni_reader_t *r = oni_reader_open(file.name(), on_property, nullptr);
    for (uint32_t i = 0; r && i < r->max_node_id; i++) {
        oni_istream_t *s = &r->streams[i];
        oni_reader_rewind(r);
        // Every frame takes a record of 28 bytes.
        if (read_frames(s, static_cast<int>(size / 28 + 1)))
            abort();
        oni_istream_seek_frame(s, 2, 0);
        read_frames(s, 1);
        oni_istream_seek_frame(s, -1, 1);
        oni_istream_seek_frame(s, 0, 2);
        read_frames(s, 1);
        oni_istream_seek_frame(s, 1, 0);
        read_frames(s, 2);
    }
    oni_reader_close(r);
    return 0;
}
