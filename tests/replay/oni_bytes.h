// Builds and takes apart ONI files byte by byte, apart from the library's own constants.
#pragma once

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "replay/oni_writer.h"

using Bytes = std::vector<uint8_t>;

inline Bytes read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

inline void write_file(const std::string &path, const Bytes &bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline uint32_t word_at(const Bytes &b, size_t at)
{
    uint32_t v;
    memcpy(&v, b.data() + at, 4);
    return v;
}

inline void set_word(Bytes &b, size_t at, uint32_t v)
{
    memcpy(b.data() + at, &v, 4);
}

class OniBytes {
  public:
    Bytes out;

    template <typename T> OniBytes &put(T v)
    {
        const uint8_t *p = reinterpret_cast<const uint8_t *>(&v);
        out.insert(out.end(), p, p + sizeof(v));
        return *this;
    }
    OniBytes &u32(uint32_t v) { return put(v); }
    OniBytes &u64(uint64_t v) { return put(v); }
    OniBytes &raw(const Bytes &b)
    {
        out.insert(out.end(), b.begin(), b.end());
        return *this;
    }
    OniBytes &str(const std::string &s)
    {
        u32(static_cast<uint32_t>(s.size() + 1));
        out.insert(out.end(), s.c_str(), s.c_str() + s.size() + 1);
        return *this;
    }
    OniBytes &file_header(uint32_t max_node, uint8_t major = 1, uint16_t maint = 1)
    {
        out.insert(out.end(), {'N', 'I', '1', '0', major, 0});
        return put(maint).u32(0).u64(~0ull).u32(max_node);
    }
    // A record around a body whose last `payload` bytes are the payload.
    OniBytes &record(uint32_t type, uint32_t node, uint64_t undo, const OniBytes &body = {},
                     uint32_t payload = 0)
    {
        const uint32_t size = static_cast<uint32_t>(body.out.size());
        out.insert(out.end(), {'N', 'I', 'R', 0});
        return u32(type).u32(node).u32(28 + size - payload).u32(payload).u64(undo).raw(body.out);
    }
    OniBytes &node(uint32_t id, const std::string &name, uint32_t type, uint32_t frames, uint64_t max_ts,
                   uint64_t seek_pos, const char *codec = "NONE")
    {
        uint32_t code;
        memcpy(&code, codec, 4);
        return record(13, id, 0,
                      OniBytes().str(name).u32(type).u32(code).u32(frames).u64(0).u64(max_ts).u64(seek_pos));
    }
    OniBytes &int_prop(uint32_t node, const std::string &name, uint64_t value, uint64_t undo = 0)
    {
        return record(3, node, undo, OniBytes().str(name).u32(8).u64(value));
    }
    OniBytes &general(uint32_t node, const std::string &name, const Bytes &value, uint64_t undo = 0)
    {
        return record(6, node, undo,
                      OniBytes().str(name).u32(static_cast<uint32_t>(value.size())).raw(value));
    }
    OniBytes &data_begin(uint32_t node) { return record(8, node, 0, OniBytes().u32(~0u).u64(~0ull)); }
    OniBytes &frame(uint32_t node, uint64_t undo, uint64_t ts, uint32_t id, const Bytes &data)
    {
        return record(10, node, undo, OniBytes().u64(ts).u32(id).raw(data),
                      static_cast<uint32_t>(data.size()));
    }
    uint64_t pos() const { return out.size(); }
};

struct OniRecord {
    size_t pos, end;
    uint32_t type, node, payload;
};

// The records of an intact file.
inline std::vector<OniRecord> oni_records(const Bytes &b)
{
    std::vector<OniRecord> all;
    for (size_t at = 24; at + 28 <= b.size(); at = all.back().end)
        all.push_back({at, at + word_at(b, at + 12) + word_at(b, at + 16), word_at(b, at + 4),
                       word_at(b, at + 8), word_at(b, at + 16)});
    return all;
}

// The records of one type; data records have type 10.
inline std::vector<OniRecord> oni_records(const Bytes &b, uint32_t type)
{
    std::vector<OniRecord> some;
    for (const OniRecord &r : oni_records(b))
        if (r.type == type)
            some.push_back(r);
    return some;
}

// A recording of a device, and of n frames of 8 bytes of their number in a stream "S", node 2. Unclosed it is
// what a recorder leaves that died, of the kind that names its nodes at the start.
inline Bytes oni_recording(uint8_t n, uint32_t codec = ONI_CODEC_NONE, bool closed = true)
{
    const oni_stream_cfg_t device_cfg = {1, nullptr, 0, 0, 0, 0, 0, 0}, cfg = {2, "S", 101, 4096, 2, 2, 2, 5};
    oni_writer_t *w = oni_writer_open("good.oni");
    oni_ostream_t *device = oni_ostream_open(w, &device_cfg);
    oni_ostream_set_property(device, ONI_PROP_INT, "ID", "\7\0\0\0\0\0\0", 8);
    oni_ostream_set_property(device, ONI_PROP_STRING, "NAME", "cam", 0);
    oni_ostream_close(device);
    oni_ostream_t *s = oni_ostream_open(w, &cfg);
    s->codec = codec;
    for (uint64_t i = 1; i <= n; i++) {
        const Bytes frame(8, static_cast<uint8_t>(i));
        oni_ostream_set_property(s, ONI_PROP_INT, "AT", &i, 8);
        oni_ostream_set_property(s, ONI_PROP_GENERAL, "INFO", frame.data(), 8);
        oni_ostream_save_frame(s, frame.data(), 8, i * 1000500);
    }
    Bytes bytes = read_file("good.oni");
    oni_writer_close(w);
    if (closed)
        return read_file("good.oni");
    set_word(bytes, 20, 2);
    return bytes;
}
