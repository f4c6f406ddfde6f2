// Damaged files: each has a stated result, and what is whole before and behind the damage still comes.
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

#include "replay/oni_bytes.h"
#include "replay/oni_reader.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using Reader = std::unique_ptr<oni_reader_t, decltype(&oni_reader_close)>;

struct Result {
    bool opened = false;
    std::string frames; // ids of the frames that came whole
    int end = 1;        // what followed them
};

Result read_all(const Bytes &file)
{
    const int fd = memfd_create("bad.oni", 0); // thousands of them
    EXPECT_EQ(write(fd, file.data(), file.size()), static_cast<ssize_t>(file.size()));
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    const oni_prop_cb_t no_use = [](oni_reader_t *, int, const char *, const void *, uint32_t, void *) {};
    const Reader r(oni_reader_open(path.c_str(), no_use, nullptr), oni_reader_close);
    close(fd);
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

TEST(OniHostile, EveryCutHasItsResultAndEveryWordMayBeAnything)
{
    TempDir dir;
    const Bytes file = oni_recording(4);
    const std::vector<OniRecord> records = oni_records(file);
    for (size_t cut = 0; cut <= file.size(); cut++) {
        SCOPED_TRACE(cut);
        bool has_node = false, in_head = true;
        Result due = {true, "", 0};
        for (const OniRecord &r : records) {
            if (cut < r.end) {
                due.end = cut >= r.pos + 28 ? -1 : 0; // in a header the file just ends
                break;
            }
            has_node |= r.type == 13 && r.node == 2;
            in_head &= r.type != 8;
            if (r.type == 10)
                due.frames += std::to_string(word_at(file, r.pos + 28 + 8));
        }
        due.opened = cut >= 24 && has_node && !(in_head && due.end < 0);
        const Result got = read_all(Bytes(file.begin(), file.begin() + static_cast<long>(cut)));
        ASSERT_EQ(got.opened, due.opened);
        if (due.opened) {
            EXPECT_EQ(got.frames, due.frames);
            EXPECT_EQ(got.end, due.end);
        }
    }
    for (size_t at = 0; at + 4 <= file.size(); at++) {
        for (const uint32_t value : {0u, 1u, 14u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
            Bytes bad = file;
            set_word(bad, at, value);
            read_all(bad); // ends, and stays inside its buffers
        }
    }
}

TEST(OniHostile, EachDamageHasItsResult)
{
    TempDir dir;
    const Bytes file = oni_recording(4);
    const auto nth = [&](uint32_t type, size_t n) { return oni_records(file, type).at(n).pos; };
    const size_t second = nth(10, 1), id_prop = nth(3, 0), text_prop = nth(5, 0), node2 = nth(13, 1);
    const size_t info = nth(6, 5), node2_fields = node2 + 28 + 4 + 2;
    const struct {
        const char *what;
        size_t at;
        uint32_t value;
        bool opened;
        const char *frames;
        int end;
        const char *line;
    } cases[] = {
        {"file magic", 0, 0, false, "", 0, "wrong oni file: id=0"},
        {"a node that is not there", 20, 3, false, "", 0, "Cannot find string with max node id 3"},
        {"too many nodes", 20, 9, false, "", 0, "max node id too large: 9"},
        {"record type 15", second + 4, 15, true, "1", -1, "unsupported record type: 0xf"},
        {"frame of another node", second + 8, 1, true, "134", 0, ""},
        {"frame of a node that can't be", second + 8, ~0u, true, "134", 0, ""},
        {"property of a node that can't be", id_prop + 8, ~0u, true, "1234", 0, ""},
        {"fields size 0", second + 12, 0, true, "1", -1, "No more space in rdbuf"},
        {"fields size that wraps with the payload", second + 12, ~0u - 7, true, "1", -1,
         "No more space in rdbuf"},
        {"payload 0", second + 16, 0, true, "1", 0, ""},
        {"payload 1", second + 16, 1, true, "134", 0, "unknown 7 data before"},
        {"payload beyond the file", second + 16, 100000, true, "1", -1, "parse record failed: fpos="},
        {"fields size a byte short", id_prop + 12, 28 + 7 + 11, false, "", 0,
         "parse record failed: type=0x3"},
        {"name length all ones", id_prop + 28, ~0u, false, "", 0, "wrong string (size outrange): nsize=-1"},
        {"name cut before its NUL", id_prop + 28, 2, false, "", 0, "wrong string (not terminated): nsize=2"},
        {"text past the record", text_prop + 28 + 9, 8, false, "", 0, "parse record failed: type=0x5"},
        {"value size one less", info + 28 + 9, 7, true, "1", -1, "parse record failed: type=0x6"},
        {"frame count beyond the table", node2_fields + 8, 5, true, "1234", 0, "Seektable corrupted"},
        {"table at a frame", node2_fields + 28, static_cast<uint32_t>(second), true, "1234", 0, "corrupted"},
        {"table beyond the file", node2_fields + 28, 0x7FFFFFFF, true, "1234", 0, "corrupted"},
        {"table at a negative place", node2_fields + 32, ~0u, true, "1234", 0, "corrupted"},
        {"coded frames that are not", node2_fields + 4, ONI_CODEC_16ZT, true, "", 0,
         "oni decompress data failed"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Bytes bad = file;
        set_word(bad, c.at, c.value);
        LogCapture log;
        const Result got = read_all(bad);
        EXPECT_EQ(got.opened, c.opened);
        if (c.opened) {
            EXPECT_EQ(got.frames, c.frames);
            EXPECT_EQ(got.end, c.end);
        }
        EXPECT_TRUE(log.has(c.line)) << log.text();
    }
}

TEST(OniHostile, GarbageBetweenRecordsIsPassedOver)
{
    TempDir dir;
    const Bytes file = oni_recording(4);
    const size_t third = oni_records(file, 10)[2].pos;
    const struct {
        size_t garbage;
        bool lost; // the magic lies across two blocks of the hunt, which don't overlap
    } cases[] = {{1, false}, {124, false}, {125, true}, {128, false}, {510, true}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.garbage);
        Bytes bad = file;
        bad.insert(bad.begin() + static_cast<long>(third), c.garbage, 'N');
        LogCapture log;
        const Result got = read_all(bad);
        EXPECT_EQ(got.frames, c.lost ? "124" : "1234");
        EXPECT_EQ(got.end, 0);
        EXPECT_EQ(log.has("ONI: unknown " + std::to_string(c.garbage) + " data before: fpos=0x"), !c.lost);
    }
}

TEST(OniHostile, SeekReachesWhatLiesBehindTheDamage)
{
    TempDir dir;
    Bytes bad = oni_recording(4);
    set_word(bad, oni_records(bad, 10)[1].pos + 4, 99);
    write_file("bad.oni", bad);
    const Reader r(oni_reader_open("bad.oni", nullptr, nullptr), oni_reader_close);
    ASSERT_TRUE(r);
    uint8_t buf[8];
    uint32_t id;
    oni_istream_t *s = &r->streams[1];
    EXPECT_EQ(oni_istream_get_frame(s, buf, 8, nullptr, &id), 8);
    EXPECT_EQ(oni_istream_get_frame(s, buf, 8, nullptr, &id), -1);
    EXPECT_EQ(oni_istream_seek_frame(s, 2, 0), -1); // the frame itself
    EXPECT_EQ(oni_istream_seek_frame(s, 3, 0), 3);
    EXPECT_EQ(oni_istream_get_frame(s, buf, 8, nullptr, &id), 8);
    EXPECT_EQ(id, 4u);

    // A table whose places are anything.
    for (uint8_t *entry = s->seek_table; entry < s->seek_table + 80; entry += 20)
        memset(entry + 12, 0xFF, 8);
    EXPECT_EQ(oni_istream_seek_frame(s, 3, 0), -1);
    memset(s->seek_table + 16, 0, 4); // far behind the end
    EXPECT_EQ(oni_istream_seek_frame(s, 1, 0), 0);
    EXPECT_EQ(oni_istream_seek_frame(s, 0, 0), 0);
    EXPECT_EQ(oni_istream_get_frame(s, buf, 8, nullptr, &id), 8);
    EXPECT_EQ(id, 1u);
}
