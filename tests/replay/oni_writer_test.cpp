// What the writer puts into a file, compared byte by byte with the container's layout.
#include "replay/oni_writer.h"

#include <gtest/gtest.h>

#include "replay/oni_bytes.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

const oni_stream_cfg_t DEVICE = {1, nullptr, 0, 0, 0, 0, 0, 0};
const oni_stream_cfg_t RAW = {2, "TQ_REPLAY", 101, 4096, 4, 2, 2, 30};

void expect_same(const Bytes &got, const Bytes &due)
{
    size_t at = 0;
    while (at < got.size() && at < due.size() && got[at] == due[at])
        at++;
    EXPECT_EQ(got.size(), due.size());
    EXPECT_TRUE(at == got.size() && at == due.size()) << "first difference at offset " << at;
}

// The places of the seek tables stand ahead of them: a first run finds what the second puts in.
Bytes expected_file(uint64_t *device_seek, uint64_t *raw_seek)
{
    const Bytes mode = OniBytes().u32(4).u32(2).u32(30).out;
    OniBytes f;
    f.file_header(2);
    const uint64_t device_pos = f.pos();
    f.node(1, "Device", 1, 0, 0, *device_seek).record(9, 1, 0);
    f.record(4, 1, 0, OniBytes().str("TQ_REP_VER").u32(8).put(1.0));
    f.record(5, 1, 0, OniBytes().str("TQ_PRODUCT").str("cam"));
    const uint64_t id_pos = f.pos();
    f.int_prop(1, "TQ_DEV_ID", 5).int_prop(1, "TQ_DEV_ID", 6, id_pos);
    f.record(7, 1, device_pos);
    *device_seek = f.pos();
    f.record(14, 1, 0, OniBytes().raw(Bytes(20)), 20);

    const uint64_t raw_pos = f.pos();
    f.node(2, "TQ_REPLAY", 2, 3, 9000, *raw_seek);
    f.int_prop(2, "oniRequiredFrameSize", 16)
        .int_prop(2, "xnIsGenerating", 1)
        .int_prop(2, "xnDeviceMaxDepth", 4096);
    f.int_prop(2, "xnSupportedMapOutputModesCount", 1);
    f.general(2, "xnSupportedMapOutputModes", mode).general(2, "xnMapOutputMode", mode);
    f.general(2, "xnSupportedPixelFormats", OniBytes().u32(8).out).int_prop(2, "xnPixelFormat", 4);
    f.int_prop(2, "oniPixelFormat", 101).general(2, "xnCropping", Bytes(12)).record(9, 2, 0);
    const uint64_t begin = f.pos();
    f.data_begin(2).frame(2, 0, 1000, 1, {1, 2, 3});
    const uint64_t second = f.pos();
    f.frame(2, begin, 5000, 2, {4});
    const uint64_t third = f.pos();
    f.frame(2, second, 9000, 3, {5, 6});
    f.record(7, 2, raw_pos);
    *raw_seek = f.pos();
    OniBytes table;
    table.raw(Bytes(20));
    table.u64(1000).u32(0).u64(begin).u64(5000).u32(0).u64(second).u64(9000).u32(0).u64(third);
    f.record(14, 2, 0, table, 80).record(11, 0, 0);
    return f.out;
}

} // namespace

TEST(OniWriter, FileHoldsWhatTheLayoutSays)
{
    TempDir dir;
    oni_writer_t *w = oni_writer_open("a.oni");
    ASSERT_NE(w, nullptr);
    oni_ostream_t *device = oni_ostream_open(w, &DEVICE);
    const double version = 1.0;
    const uint64_t ids[] = {5, 6};
    oni_ostream_set_property(device, ONI_PROP_REAL, "TQ_REP_VER", &version, 0);
    oni_ostream_set_property(device, ONI_PROP_STRING, "TQ_PRODUCT", "cam", 0);
    oni_ostream_set_property(device, ONI_PROP_INT, "TQ_DEV_ID", &ids[0], 0);
    oni_ostream_set_property(device, ONI_PROP_INT, "TQ_DEV_ID", &ids[1], 0);
    oni_ostream_close(device);
    oni_ostream_set_property(device, ONI_PROP_INT, "TQ_LATE", &ids[0], 0); // closed: does nothing
    oni_ostream_save_frame(device, ids, 8, 1);
    oni_ostream_t *raw = oni_ostream_open(w, &RAW);
    oni_ostream_save_frame(raw, "\1\2\3", 3, 1000);
    oni_ostream_save_frame(raw, "\4", 1, 5000);
    oni_ostream_save_frame(raw, "\5\6", 2, 9000);
    oni_writer_close(w);

    uint64_t device_seek = 0, raw_seek = 0;
    expected_file(&device_seek, &raw_seek);
    expect_same(read_file("a.oni"), expected_file(&device_seek, &raw_seek));
}

TEST(OniWriter, PixelFormatsSayTheirBitAndNumber)
{
    const uint32_t cases[][4] = {// pixel format, its bit, its number, has a depth
                                 {100, 8, 4, 1}, {103, 8, 4, 0}, {203, 8, 4, 0},  {200, 1, 1, 0},
                                 {201, 2, 2, 0}, {202, 4, 3, 0}, {204, 16, 5, 0}, {7, 0, 0, 0}};
    for (const auto &[pix_fmt, bit, number, depth] : cases) {
        SCOPED_TRACE(pix_fmt);
        TempDir dir;
        oni_writer_t *w = oni_writer_open("a.oni");
        const oni_stream_cfg_t cfg = {5, nullptr, pix_fmt, 9, 4, 2, 2, 30};
        ASSERT_NE(oni_ostream_open(w, &cfg), nullptr);
        oni_writer_close(w);
        const Bytes file = read_file("a.oni");
        const auto holds = [&](const OniBytes &part) {
            return std::search(file.begin(), file.end(), part.out.begin(), part.out.end()) != file.end();
        };
        EXPECT_TRUE(holds(OniBytes().general(1, "xnSupportedPixelFormats", OniBytes().u32(bit).out)));
        EXPECT_TRUE(
            holds(OniBytes().int_prop(1, "xnPixelFormat", number).int_prop(1, "oniPixelFormat", pix_fmt)));
        EXPECT_EQ(holds(OniBytes().str("xnDeviceMaxDepth")), depth == 1);
    }
}

TEST(OniWriter, OnlyEightStreamsAndTextsOf255Characters)
{
    TempDir dir;
    EXPECT_EQ(oni_writer_open("no/such/folder/a.oni"), nullptr);
    oni_writer_t *w = oni_writer_open("a.oni");
    for (const size_t len : {0, 1, 2, 3, 254, 255, 256, 300}) {
        oni_ostream_t *s = oni_ostream_open(w, &DEVICE);
        const std::string text(len, 'x');
        oni_ostream_set_property(s, ONI_PROP_STRING, text.c_str(), text.c_str(), 0);
        oni_ostream_close(s); // keeps its slot
        const std::string kept(std::min<size_t>(len, 255), 'x');
        const Bytes file = read_file("a.oni");
        const OniRecord prop = oni_records(file, 5).back();
        expect_same(Bytes(file.begin() + prop.pos, file.begin() + prop.end),
                    OniBytes().record(5, prop.node, 0, OniBytes().str(kept).str(kept)).out);
    }
    EXPECT_EQ(oni_ostream_open(w, &DEVICE), nullptr);
    oni_writer_close(w);
    EXPECT_EQ(word_at(read_file("a.oni"), 20), 8u);
}

TEST(OniWriter, WhatDoesNotFitLeavesItsBytesOut)
{
    TempDir dir;
    LogCapture log;
    const uint32_t most = 3146025 - 40; // a record of exactly the staging capacity
    const Bytes big(most + 1, 7);
    oni_writer_t *w = oni_writer_open("a.oni");
    oni_ostream_t *s = oni_ostream_open(w, &RAW);
    oni_ostream_save_frame(s, big.data(), most, 1);
    oni_ostream_save_frame(s, big.data(), most + 1, 2);
    oni_ostream_set_property(s, ONI_PROP_GENERAL, "TQ_BIG", big.data(), most); // no room beside its name
    oni_ostream_t *many = oni_ostream_open(w, &DEVICE);
    for (uint32_t i = 1; i <= 157299; i++) // the last is one too many for the seek table
        oni_ostream_save_frame(many, "x", 1, i);
    oni_writer_close(w);
    const Bytes file = read_file("a.oni");
    EXPECT_EQ(oni_records(file, 10).at(0).payload, most);
    EXPECT_EQ(oni_records(file, 10).at(1).payload, 0u);
    EXPECT_EQ(oni_records(file, 14).at(0).payload, 60u);
    EXPECT_EQ(oni_records(file, 14).at(1).payload, 0u);
    EXPECT_TRUE(log.has("property TQ_BIG does not fit"));
}

TEST(OniWriter, FrameThatCannotBeCodedRepeatsTheRecordBefore)
{
    TempDir dir;
    LogCapture log;
    oni_writer_t *w = oni_writer_open("a.oni");
    oni_ostream_t *s = oni_ostream_open(w, &RAW);
    s->codec = ONI_CODEC_16ZT;
    const uint16_t good[] = {1, 2}, outside[] = {1, 4096};
    oni_ostream_save_frame(s, good, 4, 1);
    oni_ostream_save_frame(s, outside, 4, 2);
    oni_writer_close(w);
    EXPECT_TRUE(log.has("[oni_ostream_save_frame] compress data failed\n"));
    const Bytes file = read_file("a.oni");
    const std::vector<OniRecord> frames = oni_records(file, 10);
    ASSERT_EQ(frames.size(), 2u);
    for (const OniRecord &r : frames)
        expect_same(Bytes(file.begin() + r.pos, file.begin() + r.end),
                    OniBytes().frame(1, 0, 1, 1, {2, 0, 1, 0, 2, 0, 0, 0, 5 << 4 | 13}).out);
}
