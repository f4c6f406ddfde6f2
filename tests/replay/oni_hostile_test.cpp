// Damaged files: each has a stated result, and what is whole before and behind the damage still comes.
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

#include "replay/oni_bytes.h"
#include "replay/oni_reader.h"
#include "replay/oni_writer.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

// A file of two nodes and four frames of the second, frame i of which is 8 bytes of i.
Bytes good_file()
{
    oni_writer_t *w = oni_writer_open("good.oni");
    oni_stream_cfg_t cfg = {};
    cfg.type = 1;
    oni_ostream_t *device = oni_ostream_open(w, &cfg);
    const uint64_t id = 7;
    oni_ostream_set_property(device, ONI_PROP_INT, "ID", &id, 8);
    oni_ostream_set_property(device, ONI_PROP_STRING, "NAME", "cam", 0);
    oni_ostream_close(device);
    cfg.type = 2;
    cfg.name = "S";
    oni_ostream_t *s = oni_ostream_open(w, &cfg);
    for (uint8_t i = 1; i <= 4; i++) {
        const Bytes frame(8, i);
        oni_ostream_set_property(s, ONI_PROP_GENERAL, "INFO", frame.data(), 8);
        oni_ostream_save_frame(s, frame.data(), 8, i);
    }
    oni_writer_close(w);
    return read_file("good.oni");
}

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
    const std::unique_ptr<oni_reader_t, decltype(&oni_reader_close)> r(
        oni_reader_open(path.c_str(), no_use, nullptr), oni_reader_close);
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

TEST(OniHostile, EveryCutHasItsResult)
{
    TempDir dir;
    const Bytes file = good_file();
    const std::vector<OniRecord> records = oni_records(file);
    for (size_t cut = 0; cut <= file.size(); cut++) {
        SCOPED_TRACE(cut);
        bool has_node = false, opened = cut >= 24, in_head = true;
        Result due;
        due.end = 0;
        for (const OniRecord &r : records) {
            const bool cut_body = cut >= r.pos + 28 && cut < r.end; // in a header the file just ends
            if (cut_body) {
                due.end = -1;
                if (in_head)
                    opened = false;
            }
            if (cut < r.end)
                break;
            has_node |= r.type == 13 && r.node == 2;
            in_head &= r.type != 8;
            if (r.type == 10)
                due.frames += std::to_string(word_at(file, r.pos + 28 + 8));
        }
        due.opened = opened && has_node;
        const Result got = read_all(Bytes(file.begin(), file.begin() + static_cast<long>(cut)));
        ASSERT_EQ(got.opened, due.opened);
        if (due.opened) {
            EXPECT_EQ(got.frames, due.frames);
            EXPECT_EQ(got.end, due.end);
        }
    }
}

TEST(OniHostile, EveryWordOfEveryRecordMayBeAnything)
{
    TempDir dir;
    const Bytes file = good_file();
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
    const Bytes file = good_file();
    const std::vector<OniRecord> records = oni_records(file);
    auto nth = [&](uint32_t type, int n) {
        for (const OniRecord &r : records) {
            if (r.type == type && n-- == 0)
                return r.pos;
        }
        return size_t{0};
    };
    const size_t second = nth(10, 1), id_prop = nth(3, 0), text_prop = nth(5, 0), node2 = nth(13, 1);
    const size_t info = nth(6, 4), node2_fields = node2 + 28 + 4 + 2;
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
        {"no node", 20, 0, false, "", 0, "Cannot find string with max node id 0 in file /proc"},
        {"a node that is not there", 20, 3, false, "", 0, "Cannot find string with max node id 3"},
        {"too many nodes", 20, 9, false, "", 0, "max node id too large: 9"},
        {"too many nodes, negative", 20, ~0u, false, "", 0, "max node id too large: -1"},
        {"record type 2", second + 4, 2, true, "1", -1, "rec type not support: 0x2"},
        {"record type 15", second + 4, 15, true, "1", -1, "unsupported record type: 0xf"},
        {"frame of another node", second + 8, 1, true, "134", 0, ""},
        {"frame of node 0", second + 8, 0, true, "134", 0, ""},
        {"frame of a node that can't be", second + 8, ~0u, true, "134", 0, ""},
        {"property of a node that can't be", id_prop + 8, ~0u, true, "1234", 0, ""},
        {"fields size 0", second + 12, 0, true, "1", -1, "No more space in rdbuf"},
        {"fields size 1", second + 12, 1, true, "1", -1, "No more space in rdbuf"},
        {"fields size 0x7FFFFFFF", second + 12, 0x7FFFFFFF, true, "1", -1, "No more space in rdbuf"},
        {"fields size all ones", second + 12, ~0u, true, "1", -1, "No more space in rdbuf"},
        {"fields size that wraps with the payload", second + 12, ~0u - 7, true, "1", -1,
         "No more space in rdbuf"},
        {"payload 0", second + 16, 0, true, "1", 0, ""},
        {"payload 1", second + 16, 1, true, "134", 0, "unknown 7 data before"},
        {"payload 0x7FFFFFFF", second + 16, 0x7FFFFFFF, true, "1", -1, "No more space in rdbuf"},
        {"payload all ones", second + 16, ~0u, true, "1", -1, "No more space in rdbuf"},
        {"payload beyond the file", second + 16, 100000, true, "1", -1, "parse record failed: fpos="},
        {"fields size a byte short", id_prop + 12, 28 + 7 + 11, false, "", 0,
         "parse record failed: type=0x3"},
        {"fields size a byte long", id_prop + 12, 28 + 7 + 13, false, "", 0, "parse record failed: type=0x3"},
        {"name length 0", id_prop + 28, 0, false, "", 0, "parse record failed: type=0x3"},
        {"name length all ones", id_prop + 28, ~0u, false, "", 0, "wrong string (size outrange): nsize=-1"},
        {"name cut before its NUL", id_prop + 28, 2, false, "", 0, "wrong string (not terminated): nsize=2"},
        {"text past the record", text_prop + 28 + 9, 8, false, "", 0, "parse record failed: type=0x5"},
        {"value size all ones", info + 28 + 9, ~0u, true, "1", -1,
         "parse record failed: type=0x6, rd_idx/len=-1/"},
        {"value size one less", info + 28 + 9, 7, true, "1", -1, "parse record failed: type=0x6"},
        {"frame count all ones", node2_fields + 8, ~0u, true, "1234", 0, ""},
        {"frame count 0", node2_fields + 8, 0, true, "1234", 0, ""},
        {"frame count beyond the file", node2_fields + 8, 0x7FFFFFFF, true, "1234", 0, ""},
        {"frame count beyond the table", node2_fields + 8, 5, true, "1234", 0, "Seektable corrupted"},
        {"table at the file header", node2_fields + 28, 0, true, "1234", 0, "Seektable corrupted"},
        {"table at its own node", node2_fields + 28, static_cast<uint32_t>(node2), true, "1234", 0,
         "corrupted"},
        {"table at a property", node2_fields + 28, static_cast<uint32_t>(id_prop), true, "1234", 0,
         "corrupted"},
        {"table at a frame", node2_fields + 28, static_cast<uint32_t>(second), true, "1234", 0, "corrupted"},
        {"table beyond the file", node2_fields + 28, 0x7FFFFFFF, true, "1234", 0, "corrupted"},
        {"table at a negative place", node2_fields + 32, ~0u, true, "1234", 0, "corrupted"},
        {"unknown codec", node2_fields + 4, 0x12345678, true, "1234", 0, ""},
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
    const Bytes file = good_file();
    size_t third = 0;
    for (const OniRecord &r : oni_records(file)) {
        if (r.type == 10 && word_at(file, r.pos + 36) == 3)
            third = r.pos;
    }
    const struct {
        size_t garbage;
        bool lost; // the magic lies across two blocks of the hunt, which don't overlap
    } cases[] = {{1, false},  {10, false},  {124, false}, {125, true},
                 {127, true}, {128, false}, {500, false}, {510, true}};
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
    Bytes bad = good_file();
    for (const OniRecord &r : oni_records(bad)) {
        if (r.type == 10 && word_at(bad, r.pos + 36) == 2)
            set_word(bad, r.pos + 4, 99);
    }
    write_file("bad.oni", bad);
    const std::unique_ptr<oni_reader_t, decltype(&oni_reader_close)> r(
        oni_reader_open("bad.oni", nullptr, nullptr), oni_reader_close);
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
