// Files as the reader sees them: whole, foreign, coded, unclosed.
#include "replay/oni_reader.h"

#include <gtest/gtest.h>
#include <memory>

#include "replay/oni_bytes.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using Reader = std::unique_ptr<oni_reader_t, decltype(&oni_reader_close)>;

using Seen = std::vector<std::string>;

// Keeps "stream:key=value", of the integers only.
void on_property(oni_reader_t *reader, int kind, const char *name, const void *value, uint32_t, void *arg)
{
    const oni_istream_t *s = oni_reader_cur_stream(reader);
    uint64_t i;
    memcpy(&i, value, kind == ONI_PROP_INT ? 8 : 1);
    if (kind == ONI_PROP_INT)
        static_cast<Seen *>(arg)->push_back((s ? s->name : "?") + std::string(":") + name + "=" +
                                            std::to_string(i));
}

Reader open_reader(const char *path, Seen *seen = nullptr)
{
    return {oni_reader_open(path, seen ? on_property : nullptr, seen), oni_reader_close};
}

int next(oni_istream_t *s, uint32_t *id, int room = 8)
{
    uint16_t buf[4096] = {};
    uint64_t ts;
    return oni_istream_get_frame(s, buf, room, &ts, id);
}

} // namespace

TEST(OniReader, DeliversFramesAndPropertiesInFileOrder)
{
    for (const uint32_t codec : {ONI_CODEC_NONE, ONI_CODEC_16ZT}) {
        TempDir dir;
        write_file("a.oni", oni_recording(3, codec));
        Seen seen;
        Reader r = open_reader("a.oni", &seen);
        ASSERT_TRUE(r);
        EXPECT_EQ(seen.back(), "S:AT=1"); // the head ends with the first frame's data begin record
        oni_istream_t *s = &r->streams[1];
        EXPECT_EQ(s->frame_count, 3u);
        EXPECT_EQ(s->max_ts, 3001500u);
        EXPECT_EQ(s->seek_count, 3u);
        for (uint32_t i = 1; i <= 3; i++) {
            uint8_t buf[8] = {};
            uint64_t ts;
            uint32_t id;
            ASSERT_EQ(oni_istream_get_frame(s, buf, 8, &ts, &id), 8);
            EXPECT_EQ(buf[7], i);
            EXPECT_EQ(ts, i * 1000500 / 1000);
            EXPECT_EQ(id, i);
            EXPECT_EQ(s->frame_idx, i);
        }
        EXPECT_EQ(seen.back(), "S:AT=3");
        uint32_t id;
        EXPECT_EQ(next(s, &id), 0);
        // Too large for the buffer: cut, or not decoded. The next is whole again.
        oni_reader_rewind(r.get());
        LogCapture log;
        EXPECT_EQ(next(s, &id, 5), codec == ONI_CODEC_NONE ? 5 : 0);
        EXPECT_EQ(log.has("[oni_istream_get_frame]oni decompress data failed\n"), codec == ONI_CODEC_16ZT);
        EXPECT_EQ(next(s, &id), 8);
        EXPECT_EQ(id, 2u);
        EXPECT_EQ(oni_istream_get_frame(s, nullptr, 8, nullptr, nullptr), -1);
        EXPECT_EQ(oni_istream_get_frame(s, &id, 0, nullptr, nullptr), -1);
        EXPECT_EQ(oni_reader_cur_stream(r.get()), nullptr); // between records
        // The first seek meets the properties of the head; one in front of a frame is not part of it.
        oni_reader_rewind(r.get());
        seen.clear();
        EXPECT_EQ(oni_istream_seek_frame(s, 2, 0), 2);
        EXPECT_EQ(seen.front(), "Device:ID=7");
        EXPECT_EQ(seen.back(), "S:AT=1");
    }
}

TEST(OniReader, SeeksToTheSameFrameWithEveryCodec)
{
    // Read through, the frames read add to the target.
    const struct {
        int offset, origin, result, unclosed;
        uint32_t next_id; // 0 is the end of the file
    } cases[] = {{0, 0, 0, 0, 1},
                 {3, 0, 3, 6, 4},
                 {99, 0, 5, 104, 0},
                 {-1, 0, 0, 0, 1},
                 {-1, 1, 1, 2, 2},
                 {7, 9, 2, 4, 3},
                 {INT32_MAX, 1, 5, INT32_MAX, 0},
                 {-2, 2, 3, -2, 4},
                 {INT32_MIN, 2, 0, -2, 1}};
    for (const uint32_t codec : {ONI_CODEC_NONE, ONI_CODEC_16ZT}) {
        for (const bool closed : {true, false}) {
            TempDir dir;
            write_file("a.oni", oni_recording(5, codec, closed));
            for (const auto &c : cases) {
                if (!closed && c.unclosed == -2)
                    continue; // its end is not known
                SCOPED_TRACE(testing::Message() << c.offset << " of " << c.origin << ", closed " << closed);
                Reader r = open_reader("a.oni");
                ASSERT_TRUE(r);
                oni_istream_t *s = &r->streams[1];
                uint32_t id = 0;
                next(s, &id);
                next(s, &id);
                LogCapture log;
                const int got = oni_istream_seek_frame(s, c.offset, c.origin);
                EXPECT_EQ(got, closed ? c.result : c.unclosed);
                EXPECT_EQ(log.has("using slow way"), !closed && c.result > 0);
                EXPECT_EQ(next(s, &id), c.next_id ? 8 : 0);
                EXPECT_EQ(c.next_id ? id : 0, c.next_id);
            }
        }
    }
}

TEST(OniReader, StreamsShareOneCursorAndForeignRecordsPass)
{
    TempDir dir;
    OniBytes f;
    f.file_header(2).node(1, "A", 1, ~0u, 0, 0).node(2, "B", 2, ~0u, 0, 0);
    f.int_prop(3, "OTHER", 1).int_prop(0, "NOBODY", 2); // of nodes that there are not
    f.data_begin(2).frame(1, 0, 1, 11, {1}).frame(2, 0, 2, 21, {2}).node(2, "C", 3, 9, 9, 9);
    f.frame(7, 0, 0, 71, {3}).frame(1, 0, 3, 12, {4}).frame(2, 0, 4, 22, {5, 6}).record(11, 0, 0);
    write_file("a.oni", f.out);
    Seen seen;
    Reader r = open_reader("a.oni", &seen);
    ASSERT_TRUE(r);
    EXPECT_EQ(seen, (Seen{"?:OTHER=1", "?:NOBODY=2"}));
    uint32_t id;
    EXPECT_EQ(next(&r->streams[1], &id), 1);
    EXPECT_EQ(id, 21u);
    EXPECT_EQ(next(&r->streams[1], &id), 2);
    EXPECT_EQ(id, 22u);
    EXPECT_STREQ(r->streams[1].name, "B");   // the second record for a node is passed over
    EXPECT_EQ(next(&r->streams[0], &id), 0); // its frames lie behind
}

TEST(OniReader, OldFormHasShorterHeaders)
{
    TempDir dir;
    const auto old_record = [](OniBytes &f, uint32_t type, const OniBytes &body, uint32_t payload) {
        const uint32_t size = static_cast<uint32_t>(body.out.size());
        f.out.insert(f.out.end(), {'N', 'I', 'R', 0});
        f.u32(type).u32(1).u32(24 + size - payload).u32(payload).u32(0).raw(body.out);
    };
    OniBytes f;
    f.file_header(1, 1, 0);
    old_record(f, 12, OniBytes().str("S").u32(2).u32(ONI_CODEC_NONE).u32(1).u64(0).u64(9), 0);
    old_record(f, 8, OniBytes().u32(1).u64(9), 0);
    old_record(f, 10, OniBytes().u64(5000).u32(1).raw({7, 8}), 2);
    write_file("a.oni", f.out);
    Reader r = open_reader("a.oni");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->streams[0].seek_table, nullptr);
    uint32_t id;
    EXPECT_EQ(next(&r->streams[0], &id), 2);
    EXPECT_EQ(id, 1u);
}
