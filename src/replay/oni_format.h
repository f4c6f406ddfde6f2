// The byte layout of an ONI file, the published recording container, once for reader and writer: a file
// header, then a flat row of records, each of which belongs to a node; a node is one stream. All integers are
// little-endian and nothing is aligned.
#pragma once

#include <cstddef>
#include <cstdint>

// File header, 24 bytes. The reader tells the old form by the version 1.0.0 alone: record headers lack the
// last four bytes of the undo position, node records lack the seek position, and there are no seek tables.
inline constexpr uint32_t ONI_FILE_MAGIC = 0x3031494E; // "NI10"
inline constexpr uint32_t ONI_FILE_HDR_SIZE = 24;
inline constexpr uint32_t ONI_FILE_OFS_MAGIC = 0;
inline constexpr uint32_t ONI_FILE_OFS_MAJOR = 4;     // u8
inline constexpr uint32_t ONI_FILE_OFS_MINOR = 5;     // u8
inline constexpr uint32_t ONI_FILE_OFS_MAINT = 6;     // u16
inline constexpr uint32_t ONI_FILE_OFS_BUILD = 8;     // u32
inline constexpr uint32_t ONI_FILE_OFS_MAX_TS = 12;   // u64, global maximum timestamp
inline constexpr uint32_t ONI_FILE_OFS_MAX_NODE = 20; // u32, highest node id
inline constexpr uint32_t ONI_MAX_NODES = 8;

// Record header. The fields size counts the header, and in property records the value; the payload size is
// that of a frame or a seek table behind the fields. The undo position is the file position of the record
// that this one supersedes, 0 when there is none.
inline constexpr uint32_t ONI_REC_MAGIC = 0x0052494E; // "NIR" and a NUL
inline constexpr uint32_t ONI_REC_HDR_SIZE = 28;
inline constexpr uint32_t ONI_REC_HDR_SIZE_OLD = 24;
inline constexpr uint32_t ONI_REC_OFS_MAGIC = 0;
inline constexpr uint32_t ONI_REC_OFS_TYPE = 4;     // u32
inline constexpr uint32_t ONI_REC_OFS_NODE = 8;     // u32, from 1; 0 in the end record
inline constexpr uint32_t ONI_REC_OFS_FIELDS = 12;  // u32
inline constexpr uint32_t ONI_REC_OFS_PAYLOAD = 16; // u32
inline constexpr uint32_t ONI_REC_OFS_UNDO = 20;    // u64, u32 in the old form

enum oni_rec_type_t : uint32_t {
    ONI_REC_INT = 3,             // string name, u32 size (8), u64 value
    ONI_REC_REAL = 4,            // string name, u32 size (8), f64 value
    ONI_REC_STRING = 5,          // string name, string value
    ONI_REC_GENERAL = 6,         // string name, u32 size, the bytes
    ONI_REC_NODE_REMOVED = 7,    // nothing
    ONI_REC_DATA_BEGIN = 8,      // u32 frame count, u64 maximum timestamp
    ONI_REC_NODE_READY = 9,      // nothing
    ONI_REC_DATA = 10,           // u64 timestamp in microseconds, u32 frame id; then the frame
    ONI_REC_END = 11,            // nothing
    ONI_REC_NODE_ADDED_OLD = 12, // string name, node fields without the seek position
    ONI_REC_NODE_ADDED = 13,     // string name, node fields
    ONI_REC_SEEK_TABLE = 14      // no fields; the payload is the table
};

inline constexpr uint32_t ONI_DATA_FIELDS_SIZE = 12;       // of a data record and of a data begin record
inline constexpr uint32_t ONI_FRAMES_UNKNOWN = 0xFFFFFFFF; // frame count of a stream that was never closed

// Node fields behind the name of a node-added record.
inline constexpr uint32_t ONI_NODE_FIELDS_SIZE = 36;
inline constexpr uint32_t ONI_NODE_FIELDS_SIZE_OLD = 28;
inline constexpr uint32_t ONI_NODE_OFS_TYPE = 0;      // u32
inline constexpr uint32_t ONI_NODE_OFS_CODEC = 4;     // u32
inline constexpr uint32_t ONI_NODE_OFS_FRAMES = 8;    // u32
inline constexpr uint32_t ONI_NODE_OFS_MIN_TS = 12;   // u64
inline constexpr uint32_t ONI_NODE_OFS_MAX_TS = 20;   // u64
inline constexpr uint32_t ONI_NODE_OFS_SEEK_POS = 28; // u64, not in the old form

enum oni_node_type_t : uint32_t {
    ONI_NODE_DEVICE = 1,
    ONI_NODE_DEPTH = 2,
    ONI_NODE_IMAGE = 3,
    ONI_NODE_IR = 5
};

// Codecs, four characters as a little-endian word.
inline constexpr uint32_t ONI_CODEC_NONE = 0x454E4F4E; // "NONE", raw frames
inline constexpr uint32_t ONI_CODEC_16ZT = 0x547A3631; // "16zT", 16-bit samples by table and delta

// One entry of a seek table. Entry 0 of a table is all zero and not used; entry k is frame k, from 1.
inline constexpr uint32_t ONI_SEEK_ENTRY_SIZE = 20;
inline constexpr uint32_t ONI_SEEK_OFS_TS = 0;    // u64, microseconds
inline constexpr uint32_t ONI_SEEK_OFS_FRAME = 8; // u32, written as 0
inline constexpr uint32_t ONI_SEEK_OFS_POS = 12;  // u64, file position of the frame's data record

// Property kinds, in the sink's call and in the writer's.
enum oni_prop_kind_t : int {
    ONI_PROP_GENERAL = 0,
    ONI_PROP_INT = 1,
    ONI_PROP_REAL = 2,
    ONI_PROP_STRING = 90
};

inline uint16_t oni_get_u16(const uint8_t *p)
{
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

inline uint32_t oni_get_u32(const uint8_t *p)
{
    return oni_get_u16(p) | static_cast<uint32_t>(oni_get_u16(p + 2)) << 16;
}

inline uint64_t oni_get_u64(const uint8_t *p)
{
    return oni_get_u32(p) | static_cast<uint64_t>(oni_get_u32(p + 4)) << 32;
}

inline void oni_put_u16(uint8_t *p, uint16_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

inline void oni_put_u32(uint8_t *p, uint32_t v)
{
    oni_put_u16(p, static_cast<uint16_t>(v));
    oni_put_u16(p + 2, static_cast<uint16_t>(v >> 16));
}

inline void oni_put_u64(uint8_t *p, uint64_t v)
{
    oni_put_u32(p, static_cast<uint32_t>(v));
    oni_put_u32(p + 4, static_cast<uint32_t>(v >> 32));
}
