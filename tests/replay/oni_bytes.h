// Builds and takes apart ONI files byte by byte, apart from the library's own constants.
#pragma once

#include <cstring>
#include <string>
#include <vector>

inline uint32_t word_at(const std::string &b, size_t at)
{
    uint32_t v;
    memcpy(&v, b.data() + at, 4);
    return v;
}

struct OniBytes {
    std::string out;

    template <typename T> OniBytes &put(T v) { return raw({reinterpret_cast<const char *>(&v), sizeof(v)}); }
    OniBytes &u32(uint32_t v) { return put(v); }
    OniBytes &u64(uint64_t v) { return put(v); }
    OniBytes &raw(const std::string &b)
    {
        out += b;
        return *this;
    }
    OniBytes &str(const std::string &s) { return u32(static_cast<uint32_t>(s.size() + 1)).raw(s).put('\0'); }
    OniBytes &file_header(uint32_t max_node, uint16_t maint = 1)
    {
        return raw("NI10").put('\1').put('\0').put(maint).u32(0).u64(~0ull).u32(max_node);
    }
    // A record around a body whose last `payload` bytes are the payload.
    OniBytes &record(uint32_t type, uint32_t node, uint64_t undo, const OniBytes &body = {},
                     uint32_t payload = 0)
    {
        const uint32_t size = static_cast<uint32_t>(body.out.size());
        raw("NIR").put('\0').u32(type).u32(node).u32(28 + size - payload).u32(payload);
        return u64(undo).raw(body.out);
    }
    OniBytes &node(uint32_t id, const std::string &name, uint32_t type, uint32_t frames, uint64_t max_ts,
                   uint64_t seek_pos)
    {
        return record(
            13, id, 0,
            OniBytes().str(name).u32(type).raw("NONE").u32(frames).u64(0).u64(max_ts).u64(seek_pos));
    }
    OniBytes &int_prop(uint32_t node, const std::string &name, uint64_t value, uint64_t undo = 0)
    {
        return record(3, node, undo, OniBytes().str(name).u32(8).u64(value));
    }
    OniBytes &general(uint32_t node, const std::string &name, const std::string &value)
    {
        return record(6, node, 0, OniBytes().str(name).u32(static_cast<uint32_t>(value.size())).raw(value));
    }
    OniBytes &frame(uint32_t node, uint64_t undo, uint64_t ts, uint32_t id, const std::string &data)
    {
        return record(10, node, undo, OniBytes().u64(ts).u32(id).raw(data),
                      static_cast<uint32_t>(data.size()));
    }
    uint64_t pos() const { return out.size(); }
};

struct OniRecord {
    size_t pos, end;
    uint32_t node, payload;
};

// The records of one type in an intact file; data records have type 10.
inline std::vector<OniRecord> oni_records(const std::string &b, uint32_t type)
{
    std::vector<OniRecord> some;
    for (size_t at = 24, end; at + 28 <= b.size(); at = end) {
        end = at + word_at(b, at + 12) + word_at(b, at + 16);
        if (word_at(b, at + 4) == type)
            some.push_back({at, end, word_at(b, at + 8), word_at(b, at + 16)});
    }
    return some;
}
