// Opens the input as a recording, reads frames of every stream and seeks about.
#include "fuzz_input.h"
#include "replay/oni_reader.h"

static void on_property(oni_reader_t *reader, int, const char *name, const void *value, uint32_t size, void *)
{
    if (const oni_istream_t *s = oni_reader_cur_stream(reader))
        touch(s->name, 1);
    touch(name, strlen(name));
    touch(value, size);
}

static int read_frame(oni_istream_t *s)
{
    uint8_t buf[333];
    uint64_t ts;
    uint32_t id;
    const int n = oni_istream_get_frame(s, buf, sizeof(buf), &ts, &id);
    require(n <= static_cast<int>(sizeof(buf)));
    return n;
}

void fuzz(fuzz_input in)
{
    memory_file file(in);
    oni_reader_t *r = oni_reader_open(file.name.data(), on_property, nullptr);
    for (uint32_t i = 0; r && i < r->max_node_id; i++) {
        oni_istream_t *s = &r->streams[i];
        oni_reader_rewind(r);
        for (size_t frames = 0; read_frame(s) > 0; frames++)
            require(frames < in.size / 28); // every frame takes a record of 28 bytes
        for (const auto &[offset, origin] : {std::pair{2, 0}, {-1, 1}, {0, 2}, {1, 0}}) {
            oni_istream_seek_frame(s, offset, origin);
            read_frame(s);
        }
    }
    oni_reader_close(r);
}
