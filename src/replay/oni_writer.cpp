#include "replay/oni_writer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <unistd.h>
#include <uthash.h>

#include "log/log.h"
#include "replay/oni_codec.h"

struct oni_prop_pos_t {
    char name[48]; // cut, and then without a NUL
    uint64_t pos;
    UT_hash_handle hh;
};

namespace {

constexpr uint32_t WRITER_BUF_SIZE = 3146025; // 3 MiB and room for the fields
constexpr uint32_t STRING_MAX = 255;          // characters that a record keeps of a text

// Begins a record in the staging buffer.
void _writer_begin(oni_writer_t *w, uint32_t type, uint32_t node_id, uint64_t undo_pos)
{
    if (w->buf_size == 0)
        return;
    oni_put_u32(w->buf + ONI_REC_OFS_MAGIC, ONI_REC_MAGIC);
    oni_put_u32(w->buf + ONI_REC_OFS_TYPE, type);
    oni_put_u32(w->buf + ONI_REC_OFS_NODE, node_id);
    oni_put_u32(w->buf + ONI_REC_OFS_FIELDS, ONI_REC_HDR_SIZE);
    oni_put_u32(w->buf + ONI_REC_OFS_PAYLOAD, 0);
    oni_put_u64(w->buf + ONI_REC_OFS_UNDO, undo_pos);
    w->cursor = w->buf + ONI_REC_HDR_SIZE;
}

// Appends bytes to the staged record and counts them in the header's word at size_ofs. False leaves the
// record as it was.
bool _writer_append(oni_writer_t *w, uint32_t size_ofs, const void *data, uint32_t size)
{
    if (w->buf_size == 0 || size > w->buf_size - static_cast<size_t>(w->cursor - w->buf))
        return false;
    if (size > 0)
        memcpy(w->cursor, data, size);
    w->cursor += size;
    oni_put_u32(w->buf + size_ofs, oni_get_u32(w->buf + size_ofs) + size);
    return true;
}

bool _writer_field(oni_writer_t *w, const void *data, uint32_t size)
{
    return _writer_append(w, ONI_REC_OFS_FIELDS, data, size);
}

bool _writer_payload(oni_writer_t *w, const void *data, uint32_t size)
{
    return _writer_append(w, ONI_REC_OFS_PAYLOAD, data, size);
}

bool _writer_u32(oni_writer_t *w, uint32_t v)
{
    uint8_t bytes[4];
    oni_put_u32(bytes, v);
    return _writer_field(w, bytes, sizeof(bytes));
}

bool _writer_u64(oni_writer_t *w, uint64_t v)
{
    uint8_t bytes[8];
    oni_put_u64(bytes, v);
    return _writer_field(w, bytes, sizeof(bytes));
}

// A length that counts the NUL, then the text.
bool _writer_string(oni_writer_t *w, const char *text)
{
    const uint32_t len = static_cast<uint32_t>(strnlen(text, STRING_MAX));
    return _writer_u32(w, len + 1) && _writer_field(w, text, len) && _writer_field(w, "", 1);
}

uint64_t _writer_pos(oni_writer_t *w)
{
    return static_cast<uint64_t>(ftello(w->fp));
}

// Writes out what is staged, where the file stands. False when not all of it went out.
bool _writer_out(oni_writer_t *w)
{
    const size_t size = oni_get_u32(w->buf + ONI_REC_OFS_FIELDS) + oni_get_u32(w->buf + ONI_REC_OFS_PAYLOAD);
    return fwrite(w->buf, 1, size, w->fp) == size;
}

// Appends the staged record. A record that the file takes only in part would end every reading there, so it
// is cut off again.
bool _writer_end(oni_writer_t *w)
{
    if (w->buf_size == 0 || !w->cursor)
        return true;
    if (w->full)
        return false;
    const uint64_t pos = _writer_pos(w);
    if (_writer_out(w))
        return true;
    if (!w->full_told)
        LOG_WARN("[%s]write replay file failed: %s\n", strerror(errno));
    w->full = 1;
    w->full_told = 1;
    const off_t end = static_cast<off_t>(pos);
    if (ftruncate(fileno(w->fp), end) != 0 || fseeko(w->fp, end, SEEK_SET) != 0)
        LOG_WARN("[%s]replay file ends in a cut record\n");
    return false;
}

bool _writer_file_hdr(oni_writer_t *w)
{
    uint8_t hdr[ONI_FILE_HDR_SIZE] = {};
    oni_put_u32(hdr + ONI_FILE_OFS_MAGIC, ONI_FILE_MAGIC);
    hdr[ONI_FILE_OFS_MAJOR] = 1;
    oni_put_u16(hdr + ONI_FILE_OFS_MAINT, 1);
    oni_put_u64(hdr + ONI_FILE_OFS_MAX_TS, UINT64_MAX);
    oni_put_u32(hdr + ONI_FILE_OFS_MAX_NODE, w->max_node_id);
    return fwrite(hdr, 1, sizeof(hdr), w->fp) == sizeof(hdr);
}

const char *_default_name(uint32_t type)
{
    switch (type) {
    case ONI_NODE_DEVICE:
        return "Device";
    case ONI_NODE_DEPTH:
        return "Depth";
    case ONI_NODE_IMAGE:
        return "Image";
    case ONI_NODE_IR:
        return "IR";
    default:
        return "Invalid";
    }
}

// Stages the node-added record, at creation and again, in the same size, at close.
void _ostream_stage_node(oni_ostream_t *s, uint32_t frames, uint64_t max_ts, uint64_t seek_pos)
{
    oni_writer_t *w = s->writer;
    _writer_begin(w, ONI_REC_NODE_ADDED, s->node_id, 0);
    _writer_string(w, s->name);
    _writer_u32(w, s->cfg.type);
    _writer_u32(w, s->codec);
    _writer_u32(w, frames);
    _writer_u64(w, 0);
    _writer_u64(w, max_ts);
    _writer_u64(w, seek_pos);
}

void _ostream_set_int(oni_ostream_t *s, const char *name, uint64_t value)
{
    oni_ostream_set_property(s, ONI_PROP_INT, name, &value, sizeof(value));
}

// What the published container says of a pixel format: the bit in the word of supported formats, and its
// number.
struct pixel_format_t {
    uint32_t pix_fmt, bit, number;
};

constexpr pixel_format_t PIXEL_FORMATS[] = {
    {100, 8, 4}, {101, 8, 4}, {102, 8, 4}, {103, 8, 4},  {200, 1, 1},
    {201, 2, 2}, {202, 4, 3}, {203, 8, 4}, {204, 16, 5},
};

void _ostream_write_properties(oni_ostream_t *s)
{
    const oni_stream_cfg_t &cfg = s->cfg;
    uint8_t mode[12], cropping[12] = {}, word[4];
    oni_put_u32(mode, cfg.width);
    oni_put_u32(mode + 4, cfg.height);
    oni_put_u32(mode + 8, cfg.fps);

    _ostream_set_int(s, "oniRequiredFrameSize", static_cast<uint64_t>(cfg.width) * cfg.height * cfg.bpp);
    _ostream_set_int(s, "xnIsGenerating", 1);
    if (cfg.pix_fmt == 100 || cfg.pix_fmt == 101)
        _ostream_set_int(s, "xnDeviceMaxDepth", cfg.max_value);
    _ostream_set_int(s, "xnSupportedMapOutputModesCount", 1);
    oni_ostream_set_property(s, ONI_PROP_GENERAL, "xnSupportedMapOutputModes", mode, sizeof(mode));
    oni_ostream_set_property(s, ONI_PROP_GENERAL, "xnMapOutputMode", mode, sizeof(mode));
    if (cfg.pix_fmt != 0) {
        pixel_format_t format = {cfg.pix_fmt, 0, 0};
        for (const pixel_format_t &known : PIXEL_FORMATS) {
            if (known.pix_fmt == cfg.pix_fmt)
                format = known;
        }
        oni_put_u32(word, format.bit);
        oni_ostream_set_property(s, ONI_PROP_GENERAL, "xnSupportedPixelFormats", word, sizeof(word));
        _ostream_set_int(s, "xnPixelFormat", format.number);
        _ostream_set_int(s, "oniPixelFormat", cfg.pix_fmt);
    }
    oni_ostream_set_property(s, ONI_PROP_GENERAL, "xnCropping", cropping, sizeof(cropping));
}

void _ostream_free_lists(oni_ostream_t *s)
{
    oni_prop_pos_t *prop, *next;
    HASH_ITER(hh, s->props, prop, next)
    {
        HASH_DEL(s->props, prop);
        free(prop);
    }
    free(s->seek_list);
    s->seek_list = nullptr;
    s->seek_room = 0;
}

void _ostream_free(oni_ostream_t *s)
{
    _ostream_free_lists(s);
    free(s->name);
    free(s);
}

// Keeps the position of a property's record and returns that of the one before it, or 0.
uint64_t _ostream_prop_moved(oni_ostream_t *s, const char *name, uint64_t pos)
{
    const size_t len = strnlen(name, sizeof(oni_prop_pos_t::name));
    oni_prop_pos_t *prop = nullptr;
    HASH_FIND(hh, s->props, name, len, prop);
    if (prop) {
        const uint64_t before = prop->pos;
        prop->pos = pos;
        return before;
    }
    prop = static_cast<oni_prop_pos_t *>(calloc(1, sizeof(oni_prop_pos_t)));
    if (!prop) {
        LOG_ERROR("[%s]malloc failed\n");
        exit(-1);
    }
    memcpy(prop->name, name, len);
    prop->pos = pos;
    HASH_ADD(hh, s->props, name, len, prop);
    return 0;
}

void _ostream_add_seek_entry(oni_ostream_t *s, uint64_t ts, uint64_t pos)
{
    if (s->seek_lost)
        return;
    if (s->frame_count > s->seek_room) {
        const uint64_t room = s->seek_room == 0 ? 256 : 2 * static_cast<uint64_t>(s->seek_room);
        void *list = room > UINT32_MAX ? nullptr : realloc(s->seek_list, room * ONI_SEEK_ENTRY_SIZE);
        if (!list) {
            LOG_ERROR("[%s]malloc failed\n");
            s->seek_lost = 1;
            return;
        }
        s->seek_list = static_cast<uint8_t *>(list);
        s->seek_room = static_cast<uint32_t>(room);
    }
    uint8_t *entry = s->seek_list + static_cast<size_t>(s->frame_count - 1) * ONI_SEEK_ENTRY_SIZE;
    oni_put_u64(entry + ONI_SEEK_OFS_TS, ts);
    oni_put_u32(entry + ONI_SEEK_OFS_FRAME, 0);
    oni_put_u64(entry + ONI_SEEK_OFS_POS, pos);
}

// Stages a data record. A frame that can't be encoded stages none.
void _ostream_stage_frame(oni_ostream_t *s, const void *data, uint32_t len, uint64_t ts)
{
    oni_writer_t *w = s->writer;
    uint8_t *coded = nullptr;
    if (s->codec == ONI_CODEC_16ZT) {
        const uint64_t room = 2 * static_cast<uint64_t>(len) + 16;
        const uint32_t count = len / 2;
        uint16_t *samples =
            static_cast<uint16_t *>(malloc(len + 1ull)); // the frame may lie at an odd address
        coded = room > UINT32_MAX ? nullptr : static_cast<uint8_t *>(malloc(room));
        oni_codec_status_t status = ONI_CODEC_FULL;
        if (samples && coded) {
            memcpy(samples, data, 2 * static_cast<size_t>(count));
            status =
                oni_codec_encode(samples, count, s->cfg.max_value, coded, static_cast<uint32_t>(room), &len);
        }
        free(samples);
        if (status != ONI_CODEC_OK) {
            LOG_AS(TQ_LOG_ERROR, "ERR", "oni_ostream_save_frame", "[%s] compress data failed\n");
            free(coded);
            return;
        }
        data = coded;
    }
    _writer_begin(w, ONI_REC_DATA, s->node_id, s->last_frame_pos);
    _writer_u64(w, ts);
    _writer_u32(w, s->frame_count);
    _writer_payload(w, data, len);
    free(coded);
}

} // namespace

oni_writer_t *oni_writer_open(const char *path)
{
    oni_writer_t *w = static_cast<oni_writer_t *>(calloc(1, sizeof(oni_writer_t)));
    if (!w)
        return nullptr;
    w->fp = path ? fopen(path, "wb+") : nullptr;
    w->buf = static_cast<uint8_t *>(malloc(WRITER_BUF_SIZE));
    if (w->fp)
        setvbuf(w->fp, nullptr, _IONBF, 0);
    if (w->fp && w->buf && _writer_file_hdr(w)) {
        w->buf_size = WRITER_BUF_SIZE;
        return w;
    }
    if (w->fp)
        fclose(w->fp);
    free(w->buf);
    free(w);
    return nullptr;
}

void oni_writer_close(oni_writer_t *writer)
{
    if (!writer)
        return;
    for (oni_ostream_t *&slot : writer->streams) {
        if (slot) {
            oni_ostream_close(slot);
            _ostream_free(slot);
            slot = nullptr;
        }
    }
    writer->full = 0;
    _writer_begin(writer, ONI_REC_END, 0, 0);
    _writer_end(writer);
    if (fseeko(writer->fp, 0, SEEK_SET) == 0)
        (void)_writer_file_hdr(writer);
    fclose(writer->fp);
    free(writer->buf);
    free(writer);
}

oni_ostream_t *oni_ostream_open(oni_writer_t *writer, const oni_stream_cfg_t *cfg)
{
    if (!writer || !cfg)
        return nullptr;
    oni_ostream_t **slot = nullptr;
    for (oni_ostream_t *&s : writer->streams) {
        if (!s) {
            slot = &s;
            break;
        }
    }
    if (!slot)
        return nullptr;
    oni_ostream_t *s = static_cast<oni_ostream_t *>(calloc(1, sizeof(oni_ostream_t)));
    char *name = strndup(cfg->name ? cfg->name : _default_name(cfg->type), STRING_MAX);
    if (!s || !name) {
        free(s);
        free(name);
        return nullptr;
    }
    s->cfg = *cfg;
    s->name = name;
    s->cfg.name = name;
    s->codec = ONI_CODEC_NONE;
    s->writer = writer;
    s->node_id = ++writer->max_node_id;
    s->node_pos = _writer_pos(writer);

    _ostream_stage_node(s, ONI_FRAMES_UNKNOWN, UINT64_MAX, 0);
    if (!_writer_end(writer)) { // the header must name no node that the file lacks
        writer->max_node_id--;
        _ostream_free(s);
        return nullptr;
    }
    *slot = s;
    if (cfg->type != ONI_NODE_DEVICE && cfg->type != UINT32_MAX)
        _ostream_write_properties(s);
    _writer_begin(writer, ONI_REC_NODE_READY, s->node_id, 0);
    _writer_end(writer);
    return s;
}

void oni_ostream_close(oni_ostream_t *stream)
{
    if (!stream || !stream->writer)
        return;
    oni_writer_t *w = stream->writer;
    w->full = 0; // where a cut frame was may be room for what closes the stream
    _writer_begin(w, ONI_REC_NODE_REMOVED, stream->node_id, stream->node_pos);
    _writer_end(w);

    uint64_t seek_pos = _writer_pos(w);
    const uint8_t zero_entry[ONI_SEEK_ENTRY_SIZE] = {};
    const uint64_t entries = static_cast<uint64_t>(stream->frame_count) * ONI_SEEK_ENTRY_SIZE;
    _writer_begin(w, ONI_REC_SEEK_TABLE, stream->node_id, 0);
    if (!stream->seek_lost && ONI_REC_HDR_SIZE + sizeof(zero_entry) + entries <= w->buf_size) {
        _writer_payload(w, zero_entry, sizeof(zero_entry));
        _writer_payload(w, stream->seek_list, static_cast<uint32_t>(entries));
    }
    if (!_writer_end(w))
        seek_pos = 0; // none

    const uint64_t end = _writer_pos(w);
    if (fseeko(w->fp, static_cast<off_t>(stream->node_pos), SEEK_SET) == 0) {
        _ostream_stage_node(stream, stream->frame_count, stream->last_ts, seek_pos);
        (void)_writer_out(w);
    }
    if (w->max_node_id < stream->node_id)
        w->max_node_id = stream->node_id;
    (void)fseeko(w->fp, static_cast<off_t>(end), SEEK_SET);
    _ostream_free_lists(stream);
    stream->writer = nullptr;
}

void oni_ostream_set_property(oni_ostream_t *stream, int kind, const char *name, const void *value,
                              uint32_t size)
{
    if (!stream || !stream->writer || !stream->writer->fp || !name || (!value && size > 0))
        return;
    oni_writer_t *w = stream->writer;
    uint32_t type;
    switch (kind) {
    case ONI_PROP_GENERAL:
        type = ONI_REC_GENERAL;
        break;
    case ONI_PROP_INT:
        type = ONI_REC_INT;
        break;
    case ONI_PROP_REAL:
        type = ONI_REC_REAL;
        break;
    case ONI_PROP_STRING:
        type = ONI_REC_STRING;
        break;
    default:
        return;
    }
    if (kind != ONI_PROP_GENERAL && !value)
        return;
    _writer_begin(w, type, stream->node_id, 0);
    bool fits = _writer_string(w, name);
    if (kind == ONI_PROP_STRING) {
        fits = fits && _writer_string(w, static_cast<const char *>(value));
    } else if (kind == ONI_PROP_GENERAL) {
        fits = fits && _writer_u32(w, size) && _writer_field(w, value, size);
    } else {
        uint64_t word;
        memcpy(&word, value, sizeof(word));
        fits = fits && _writer_u32(w, sizeof(word)) && _writer_u64(w, word);
    }
    if (!fits) {
        LOG_ERROR("[%s]property %s does not fit a record: %u bytes\n", name, size);
        return;
    }
    oni_put_u64(w->buf + ONI_REC_OFS_UNDO, _ostream_prop_moved(stream, name, _writer_pos(w)));
    _writer_end(w);
}

void oni_ostream_save_frame(oni_ostream_t *stream, const void *data, uint32_t len, uint64_t ts)
{
    if (!stream || !data || !stream->writer)
        return;
    oni_writer_t *w = stream->writer;
    // Taken ahead of the data begin record, so that a seek to the first frame passes it.
    const uint64_t pos = _writer_pos(w);
    if (!stream->started) {
        _writer_begin(w, ONI_REC_DATA_BEGIN, stream->node_id, 0);
        _writer_u32(w, ONI_FRAMES_UNKNOWN);
        _writer_u64(w, UINT64_MAX);
        if (!_writer_end(w))
            return;
        stream->started = 1;
    }
    if (ts == 0) {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        ts = static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
    }
    stream->frame_count++;
    _ostream_stage_frame(stream, data, len, ts);
    if (!_writer_end(w)) { // without a staged frame this repeats the record before it
        stream->frame_count--;
        return;
    }
    stream->last_ts = ts;
    stream->last_frame_pos = pos;
    _ostream_add_seek_entry(stream, ts, pos);
    fflush(w->fp);
}
