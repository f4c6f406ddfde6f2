// Files as the reader sees them: whole, coded, unclosed, old, damaged. What is whole before and behind a
// damage still comes.
#include "replay/oni_reader.h"

#include <gtest/gtest.h>
#include <memory>

#include "replay/oni_bytes.h"
#include "support/recording.h"
#include "support/temp_dir.h"

namespace {

using Reader = std::unique_ptr<oni_reader_t, decltype(&oni_reader_close)>;

Reader open_reader(const std::string &file)
{
    TempDir dir;
    std::ofstream("a.oni", std::ios::binary) << file;
    return {oni_reader_open("a.oni", nullptr, nullptr), oni_reader_close}; // which outlives the name
}

// A recording of n frames of 8 bytes of their number in a stream "S", node 2. Unclosed it is what a recorder
// leaves that died, of the kind that names its nodes at the start.
std::string recording(uint8_t n, uint32_t codec = ONI_CODEC_NONE, bool closed = true)
{
    TempDir dir;
    std::string cut;
    {
        Recording r("a.oni");
        r.stream("S")->codec = codec;
        for (uint8_t i = 1; i <= n; i++) {
            r.integer("AT", i);
            r.general("INFO", Bytes(8, i));
            r.frame(i, 8);
        }
        cut = read_text("a.oni");
        cut[20] = 2;
    }
    return closed ? read_text("a.oni") : cut;
}

struct Result {
    bool opened = false;
    std::string frames; // ids of the frames that came whole
    int end = 1;        // what followed them
};

Result read_all(const std::string &file)
{
    const Reader r = open_reader(file);
    Result result;
    result.opened = r != nullptr;
    if (!r || r->max_node_id < 2)
        return result;
    for (size_t reads = 0; reads < file.size() / 28 + 2; reads++) {
        uint8_t buf[64];
        uint32_t id;
        result.end = oni_istream_get_frame(&r->streams[1], buf, sizeof(buf), nullptr, &id);
        if (result.end <= 0)
            return result;
        if (result.end == 8 && buf[0] == id && buf[7] == id)
            result.frames += std::to_string(id);
    }
    ADD_FAILURE() << "the file never ends";
    return result;
}

} // namespace

TEST(OniReader, SeeksToTheSameFrameWithEveryCodec)
{
    // Read through, the frames read add to the target.
    const struct {
        int offset, origin, result, unclosed;
        uint32_t next_id; // 0 is the end of the file
    } cases[] = {{0, 0, 0, 0, 1},   {3, 0, 3, 6, 4},         {99, 0, 5, 104, 0},
                 {-1, 1, 1, 2, 2},  {7, 9, 2, 4, 3},         {INT32_MAX, 1, 5, INT32_MAX, 0},
                 {-2, 2, 3, -2, 4}, {INT32_MIN, 2, 0, -2, 1}};
    for (const uint32_t codec : {ONI_CODEC_NONE, ONI_CODEC_16ZT}) {
        for (const bool closed : {true, false}) {
            const std::string file = recording(5, codec, closed);
            for (const auto &c : cases) {
                if (!closed && c.unclosed == -2)
                    continue; // its end is not known
                SCOPED_TRACE(testing::Message() << c.offset << " of " << c.origin << ", closed " << closed);
                const Reader r = open_reader(file);
                oni_istream_t *s = &r->streams[1];
                uint8_t buf[8];
                uint32_t id = 0;
                // Too large for the buffer: cut, or not decoded. The next is whole again.
                EXPECT_EQ(oni_istream_get_frame(s, buf, 5, nullptr, &id),
                          codec == ONI_CODEC_NONE || !closed ? 5 : 0);
                EXPECT_EQ(oni_istream_get_frame(s, buf, 8, nullptr, &id), 8);
                EXPECT_EQ(oni_istream_seek_frame(s, c.offset, c.origin), closed ? c.result : c.unclosed);
                EXPECT_EQ(oni_istream_get_frame(s, buf, 8, nullptr, &id), c.next_id ? 8 : 0);
                EXPECT_EQ(c.next_id ? id : 0, c.next_id);
            }
        }
    }
}

TEST(OniReader, OldFormHasShorterHeaders)
{
    OniBytes f;
    const auto old_record = [&f](uint32_t type, const OniBytes &body, uint32_t payload) {
        const uint32_t size = static_cast<uint32_t>(body.out.size());
        f.raw("NIR").put('\0').u32(type).u32(2).u32(24 + size - payload).u32(payload).u32(0).raw(body.out);
    };
    f.file_header(2, 0);
    old_record(12, OniBytes().str("S").u32(2).u32(ONI_CODEC_NONE).u32(1).u64(0).u64(9), 0);
    old_record(8, OniBytes().u32(1).u64(9), 0);
    old_record(10, OniBytes().u64(5000).u32(1).u64(0x0101010101010101), 8);
    EXPECT_EQ(read_all(f.out).frames, "1");
}

TEST(OniReader, EachDamageHasItsResult)
{
    const std::string file = recording(4);
    const auto nth = [&](uint32_t type, size_t n) { return oni_records(file, type).at(n).pos; };
    const size_t second = nth(10, 1), id_prop = nth(3, 0), text_prop = nth(5, 0);
    const size_t info = nth(6, 5), node2_fields = nth(13, 1) + 28 + 4 + 2;
    const char *const fails = nullptr; // to open
    const struct {
        const char *what;
        size_t at;
        uint32_t value;
        const char *frames;
        int end;
    } cases[] = {
        {"too many nodes", 20, 9, fails, 0},
        {"frame of a node that can't be", second + 8, ~0u, "134", 0},
        {"property of a node that can't be", id_prop + 8, ~0u, "1234", 0},
        {"fields size that wraps with the payload", second + 12, ~0u - 7, "1", -1},
        {"payload 1", second + 16, 1, "134", 0},
        {"name length all ones", id_prop + 28, ~0u, fails, 0},
        {"name cut before its NUL", id_prop + 28, 2, fails, 0},
        {"text past the record", text_prop + 28 + 4 + 11, 80, fails, 0},
        {"value size one less", info + 28 + 9, 7, "1", -1},
        {"table at a frame", node2_fields + 28, static_cast<uint32_t>(second), "1234", 0},
        {"coded frames that are not", node2_fields + 4, ONI_CODEC_16ZT, "", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::string bad = file;
        memcpy(&bad[c.at], &c.value, 4);
        const Result got = read_all(bad);
        EXPECT_EQ(got.opened, c.frames != fails);
        EXPECT_EQ(got.frames, c.frames ? c.frames : "");
        EXPECT_TRUE(!c.frames || got.end == c.end) << got.end;
    }
    // Between two records the magic is hunted in blocks that don't overlap.
    for (const auto &[garbage, due] : {std::pair{1, "1234"}, {124, "1234"}, {125, "134"}, {128, "1234"}})
        EXPECT_EQ(read_all(std::string(file).insert(second, garbage, 'N')).frames, due) << garbage;
}
