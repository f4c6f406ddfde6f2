#include "replay/oni_reader.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "log/log.h"
#include "replay/oni_codec.h"

namespace {

constexpr uint32_t HUNT_BLOCK = 128; // bytes that the magic hunt looks at in one piece

uint64_t _reader_pos(const oni_reader_t *r)
{
    return static_cast<uint64_t>(ftello(r->fp));
}

bool _reader_seek(oni_reader_t *r, uint64_t pos)
{
    return pos <= static_cast<uint64_t>(INT64_MAX) && fseeko(r->fp, static_cast<off_t>(pos), SEEK_SET) == 0;
}

// The next n bytes of the body. Past its end nothing is given out, and the index leaves the body for good, so
// that the record doesn't add up.
const uint8_t *_reader_take(oni_reader_t *r, uint32_t n)
{
    if (static_cast<uint64_t>(r->rd_idx) + n > r->rd_len) {
        r->rd_idx = UINT32_MAX;
        return nullptr;
    }
    const uint8_t *at = r->rdbuf + r->rd_idx;
    r->rd_idx += n;
    return at;
}

uint32_t _reader_take_u32(oni_reader_t *r)
{
    const uint8_t *at = _reader_take(r, 4);
    return at ? oni_get_u32(at) : 0;
}

uint64_t _reader_take_u64(oni_reader_t *r)
{
    const uint8_t *at = _reader_take(r, 8);
    return at ? oni_get_u64(at) : 0;
}

// A text of the body, empty on failure. Its length alone is held against the body, without the four bytes of
// the length itself: what lies behind the body is zero, and such a record doesn't add up.
const char *_reader_get_string(oni_reader_t *r)
{
    const uint32_t at = r->rd_idx;
    const uint8_t *word = _reader_take(r, 4);
    if (!word)
        return "";
    const uint32_t size = oni_get_u32(word);
    if (static_cast<uint64_t>(at) + size > r->rd_len) {
        LOG_ERROR("[%s]wrong string (size outrange): nsize=%d\n", static_cast<int>(size));
        r->rd_idx = at;
        return "";
    }
    r->rd_idx += size;
    if (size == 0)
        return "";
    const char *text = reinterpret_cast<const char *>(word + 4);
    if (text[size - 1] != '\0') {
        LOG_ERROR("[%s]wrong string (not terminated): nsize=%d\n", static_cast<int>(size));
        return "";
    }
    return text;
}

// Moves the file to the next record magic, over whatever lies before it. Returns 1, 0 at the end of the file,
// -1 when reading fails.
int _reader_seek_magic(oni_reader_t *r)
{
    const uint64_t entry = _reader_pos(r);
    uint64_t skipped = 0;
    uint8_t block[HUNT_BLOCK];
    for (;;) {
        const size_t n = fread(block, 1, sizeof(block), r->fp);
        if (n == 0) {
            if (feof(r->fp))
                return 0;
            LOG_ERROR("[%s]cannot find record header: fpos=0x%x\n", static_cast<unsigned>(entry));
            return -1;
        }
        for (size_t i = 0; i + 4 <= n; i++) {
            if (oni_get_u32(block + i) != ONI_REC_MAGIC)
                continue;
            if (fseeko(r->fp, static_cast<off_t>(i) - static_cast<off_t>(n), SEEK_CUR) != 0)
                return -1;
            skipped += i;
            if (skipped != 0)
                LOG_ERROR("[%s]ONI: unknown %lu data before: fpos=0x%lx\n",
                          static_cast<unsigned long>(skipped), static_cast<unsigned long>(_reader_pos(r)));
            return 1;
        }
        // The next block does not overlap this one: a magic across the two is passed over.
        skipped += n;
    }
}

int _reader_parse_record(oni_reader_t *r, bool table_only);

// Reads the seek table of a stream that was just met, which stands at the end of the file, and comes back. A
// stream without one is read frame by frame. False when the file can't be brought back.
bool _reader_load_seek_table(oni_reader_t *r, oni_istream_t *s)
{
    const uint64_t table_size = static_cast<uint64_t>(s->frame_count) * ONI_SEEK_ENTRY_SIZE;
    if (s->frame_count == ONI_FRAMES_UNKNOWN)
        return true;
    s->seek_table = table_size > r->file_size ? nullptr : static_cast<uint8_t *>(malloc(table_size + 1));
    if (!s->seek_table)
        return true;

    const oni_rec_hdr_t node_hdr = r->hdr;
    const uint32_t node_len = r->rd_len;
    bool loaded = _reader_seek(r, s->seek_pos) && _reader_parse_record(r, true) == ONI_REC_SEEK_TABLE;
    // An empty record leaves the value of some record before it.
    const uint32_t bytes = loaded && r->hdr.payload_size > 0 ? r->value_len : 0;
    if (loaded && bytes >= ONI_SEEK_ENTRY_SIZE + table_size) {
        memcpy(s->seek_table, r->value + ONI_SEEK_ENTRY_SIZE, table_size);
        s->seek_count = s->frame_count;
    } else {
        if (!loaded || bytes > 0)
            LOG_AS(TQ_LOG_ERROR, "ERR", "_reader_parse_record",
                   "[%s]Seektable corrupted: skip using seektable\n");
        free(s->seek_table);
        s->seek_table = nullptr;
        if (!loaded) {
            r->hdr = node_hdr;
            r->rd_len = node_len;
        }
    }
    // What the node's own body held is gone.
    r->name = nullptr;
    r->node_fields = nullptr;
    r->rd_idx = r->rd_len;
    return _reader_seek(r, s->data_start);
}

bool _reader_add_node(oni_reader_t *r)
{
    const char *name = _reader_get_string(r);
    r->name = name;
    const uint32_t fields_size = r->old_format ? ONI_NODE_FIELDS_SIZE_OLD : ONI_NODE_FIELDS_SIZE;
    const uint8_t *fields = _reader_take(r, fields_size);
    r->node_fields = fields;
    r->hdr.type = ONI_REC_NODE_ADDED;
    const uint32_t id = r->hdr.node_id;
    // The second record for a node is the one that closing its stream rewrote.
    if (r->rd_idx != r->rd_len || id == 0 || id > r->max_node_id || r->streams[id - 1].valid)
        return true;

    oni_istream_t *s = &r->streams[id - 1];
    s->name = strdup(name);
    if (!s->name)
        return false;
    s->reader = r;
    s->node_id = id;
    s->type = oni_get_u32(fields + ONI_NODE_OFS_TYPE);
    s->codec = oni_get_u32(fields + ONI_NODE_OFS_CODEC);
    s->frame_count = oni_get_u32(fields + ONI_NODE_OFS_FRAMES);
    s->min_ts = oni_get_u64(fields + ONI_NODE_OFS_MIN_TS);
    s->max_ts = oni_get_u64(fields + ONI_NODE_OFS_MAX_TS);
    s->seek_pos = r->old_format ? 0 : oni_get_u64(fields + ONI_NODE_OFS_SEEK_POS);
    s->frame_idx = 0;
    s->data_start = _reader_pos(r);
    s->valid = 1; // before the table is read: a table position that leads back here ends there
    r->stream_count++;
    return r->old_format || _reader_load_seek_table(r, s);
}

void _reader_property(oni_reader_t *r, int kind, const void *value, uint32_t size)
{
    if (r->on_property && r->rd_idx == r->rd_len)
        r->on_property(r, kind, r->name, value, size, r->arg);
}

// The body of a record, by its type. False is a failure of its own, beside not adding up.
bool _reader_parse_body(oni_reader_t *r)
{
    switch (r->hdr.type) {
    case ONI_REC_INT:
    case ONI_REC_REAL: {
        r->name = _reader_get_string(r);
        (void)_reader_take_u32(r);
        const uint64_t bits = _reader_take_u64(r);
        double real;
        memcpy(&real, &bits, sizeof(real));
        if (r->hdr.type == ONI_REC_INT)
            _reader_property(r, ONI_PROP_INT, &bits, sizeof(bits));
        else
            _reader_property(r, ONI_PROP_REAL, &real, sizeof(real));
        return true;
    }
    case ONI_REC_STRING: {
        r->name = _reader_get_string(r);
        const char *text = _reader_get_string(r);
        r->value = reinterpret_cast<const uint8_t *>(text);
        r->value_len = static_cast<uint32_t>(strlen(text)) + 1;
        _reader_property(r, ONI_PROP_STRING, text, r->value_len);
        return true;
    }
    case ONI_REC_GENERAL: {
        r->name = _reader_get_string(r);
        r->value_len = _reader_take_u32(r);
        r->value = _reader_take(r, r->value_len);
        _reader_property(r, ONI_PROP_GENERAL, r->value, r->value_len);
        return true;
    }
    case ONI_REC_DATA_BEGIN:
        (void)_reader_take(r, ONI_DATA_FIELDS_SIZE);
        return true;
    case ONI_REC_DATA:
        r->timestamp = _reader_take_u64(r);
        r->frame_id = _reader_take_u32(r);
        r->value_len = r->hdr.payload_size;
        r->value = _reader_take(r, r->value_len);
        return true;
    case ONI_REC_NODE_ADDED_OLD:
    case ONI_REC_NODE_ADDED:
        return _reader_add_node(r);
    default:
        return true;
    }
}

// Reads one record and works by its type; with table_only a seek table is the only one accepted. Returns the
// record type, 0 at the end of the file, -1 on an error.
int _reader_parse_record(oni_reader_t *r, bool table_only)
{
    r->rd_idx = 0;
    r->in_body = 0;
    const int found = _reader_seek_magic(r);
    if (found <= 0)
        return found;

    uint8_t bytes[ONI_REC_HDR_SIZE] = {}; // the old form leaves the end of the undo position 0
    const uint32_t hdr_size = r->old_format ? ONI_REC_HDR_SIZE_OLD : ONI_REC_HDR_SIZE;
    if (fread(bytes, 1, hdr_size, r->fp) != hdr_size) {
        if (feof(r->fp))
            return 0;
        LOG_ERROR("[%s]read record header failed: fpos=0x%x, errno=%d\n",
                  static_cast<unsigned>(_reader_pos(r)), errno);
        return -1;
    }
    oni_rec_hdr_t &hdr = r->hdr;
    hdr.magic = oni_get_u32(bytes + ONI_REC_OFS_MAGIC);
    hdr.type = oni_get_u32(bytes + ONI_REC_OFS_TYPE);
    hdr.node_id = oni_get_u32(bytes + ONI_REC_OFS_NODE);
    hdr.fields_size = oni_get_u32(bytes + ONI_REC_OFS_FIELDS);
    hdr.payload_size = oni_get_u32(bytes + ONI_REC_OFS_PAYLOAD);
    hdr.undo_pos = oni_get_u64(bytes + ONI_REC_OFS_UNDO);
    if (hdr.magic != ONI_REC_MAGIC) {
        LOG_ERROR("[%s]wrong record magic: 0x%x, fpos=%u\n", hdr.magic,
                  static_cast<unsigned>(_reader_pos(r)));
        return -1;
    }
    if (hdr.type > ONI_REC_SEEK_TABLE) {
        LOG_ERROR("[%s]unsupported record type: 0x%x\n", hdr.type);
        return -1;
    }
    if (hdr.type < ONI_REC_INT) {
        LOG_ERROR("[%s]rec type not support: 0x%x\n", hdr.type);
        return -1;
    }
    if (table_only && hdr.type != ONI_REC_SEEK_TABLE)
        return -1;

    // Fields that don't even cover the header give a body below zero.
    const int64_t body = static_cast<int64_t>(hdr.fields_size) + hdr.payload_size - hdr_size;
    if (body < 0 || body > r->rdbuf_size) {
        LOG_ERROR("[%s]No more space in rdbuf : field size = %u, buf rem = %u\n", static_cast<unsigned>(body),
                  r->rdbuf_size);
        return -1;
    }
    if (body == 0)
        return static_cast<int>(hdr.type);
    r->rd_len = static_cast<uint32_t>(body);
    if (fread(r->rdbuf, 1, r->rd_len, r->fp) != r->rd_len) {
        LOG_ERROR("[%s]parse record failed: fpos=%u\n", static_cast<unsigned>(_reader_pos(r)));
        return -1;
    }
    memset(r->rdbuf + r->rd_len, 0, 4); // see _reader_get_string
    r->name = nullptr;
    r->value = nullptr;
    r->value_len = 0;
    r->node_fields = nullptr;
    if (hdr.type == ONI_REC_SEEK_TABLE) {
        r->value = r->rdbuf;
        r->value_len = r->rd_len;
        r->rd_idx = r->rd_len;
        return ONI_REC_SEEK_TABLE;
    }

    r->in_body = 1;
    const bool good = _reader_parse_body(r);
    r->in_body = 0;
    if (!good || r->rd_idx != r->rd_len) {
        LOG_ERROR("[%s]parse record failed: type=0x%x, rd_idx/len=%d/%d\n", hdr.type,
                  static_cast<int>(r->rd_idx), static_cast<int>(r->rd_len));
        return -1;
    }
    return static_cast<int>(hdr.type);
}

// The slot that tells whether the file has what its header promises.
bool _reader_has_last_node(const oni_reader_t *r)
{
    return r->streams[r->max_node_id - 1].valid;
}

bool _reader_open_head(oni_reader_t *r, const char *path)
{
    uint8_t *hdr = r->file_hdr;
    if (fread(hdr, 1, ONI_FILE_HDR_SIZE, r->fp) != ONI_FILE_HDR_SIZE) {
        LOG_AS(TQ_LOG_ERROR, "ERR", "oni_reader_open", "[%s]parse file header failed: fpos=%u\n",
               static_cast<unsigned>(_reader_pos(r)));
        return false;
    }
    if (oni_get_u32(hdr + ONI_FILE_OFS_MAGIC) != ONI_FILE_MAGIC) {
        LOG_AS(TQ_LOG_ERROR, "ERR", "oni_reader_open", "[%s]wrong oni file: id=%u\n",
               oni_get_u32(hdr + ONI_FILE_OFS_MAGIC));
        return false;
    }
    r->old_format = hdr[ONI_FILE_OFS_MAJOR] == 1 && hdr[ONI_FILE_OFS_MINOR] == 0 &&
                    oni_get_u16(hdr + ONI_FILE_OFS_MAINT) == 0;
    r->max_node_id = oni_get_u32(hdr + ONI_FILE_OFS_MAX_NODE);
    if (r->max_node_id > ONI_MAX_NODES) {
        LOG_AS(TQ_LOG_ERROR, "ERR", "oni_reader_open", "[%s]max node id too large: %d\n",
               static_cast<int>(r->max_node_id));
        return false;
    }
    struct stat st;
    if (fstat(fileno(r->fp), &st) == 0 && st.st_size > 0)
        r->file_size = static_cast<uint64_t>(st.st_size);

    // A file that was never closed says 0, and has no stream to look for.
    if (r->max_node_id > 0) {
        r->streams = static_cast<oni_istream_t *>(calloc(r->max_node_id, sizeof(oni_istream_t)));
        if (!r->streams)
            return false;
        while (!feof(r->fp)) {
            const int type = _reader_parse_record(r, false);
            if (type < 0)
                return false;
            if (type == ONI_REC_DATA_BEGIN) {
                if (r->first_data_pos == 0)
                    r->first_data_pos = _reader_pos(r);
                if (_reader_has_last_node(r))
                    return true;
            }
        }
        if (_reader_has_last_node(r))
            return true;
    }
    LOG_AS(TQ_LOG_ERROR, "ERR", "oni_reader_open", "[%s]Cannot find string with max node id %u in file %s\n",
           r->max_node_id, path);
    return false;
}

} // namespace

oni_reader_t *oni_reader_open(const char *path, oni_prop_cb_t on_property, void *arg)
{
    oni_reader_t *r = static_cast<oni_reader_t *>(calloc(1, sizeof(oni_reader_t)));
    if (!r)
        return nullptr;
    r->rdbuf = static_cast<uint8_t *>(malloc(ONI_RDBUF_SIZE + 4));
    r->rdbuf_size = ONI_RDBUF_SIZE;
    r->on_property = on_property;
    r->arg = arg;
    r->fp = path && r->rdbuf ? fopen(path, "rb") : nullptr;
    if (r->rdbuf && !r->fp)
        LOG_ERROR("[%s]open file failed: %s\n", path ? path : "(null)");
    if (!r->fp || !_reader_open_head(r, path)) {
        oni_reader_close(r);
        return nullptr;
    }
    r->opened = 1;
    return r;
}

void oni_reader_close(oni_reader_t *reader)
{
    if (!reader)
        return;
    if (reader->fp)
        fclose(reader->fp);
    for (uint32_t i = 0; reader->streams && i < reader->max_node_id; i++) {
        free(reader->streams[i].seek_table);
        free(reader->streams[i].name);
    }
    free(reader->streams);
    free(reader->rdbuf);
    free(reader);
}

void oni_reader_rewind(oni_reader_t *reader)
{
    if (!reader || !reader->fp)
        return;
    uint64_t start = 0;
    for (uint32_t i = 0; i < reader->max_node_id; i++) {
        oni_istream_t *s = &reader->streams[i];
        if (!s->valid)
            continue;
        s->frame_idx = 0;
        if (start == 0)
            start = s->data_start;
    }
    (void)_reader_seek(reader, start);
}

oni_istream_t *oni_reader_cur_stream(oni_reader_t *reader)
{
    if (!reader || !reader->in_body)
        return nullptr;
    const uint32_t id = reader->hdr.node_id;
    if (id == 0 || id > static_cast<uint32_t>(reader->stream_count) || !reader->streams[id - 1].valid)
        return nullptr;
    return &reader->streams[id - 1];
}

int oni_istream_next(oni_istream_t *stream)
{
    if (!stream || !stream->valid || !stream->reader->opened)
        return -1;
    oni_reader_t *r = stream->reader;
    while (!feof(r->fp)) {
        const int type = _reader_parse_record(r, false);
        if (type <= 0)
            return type;
        if (type != ONI_REC_DATA || r->hdr.node_id != stream->node_id)
            continue;
        // A data record without a body is a frame without bytes, and what stands here is of another record.
        if (r->hdr.fields_size + static_cast<uint64_t>(r->hdr.payload_size) <= ONI_REC_HDR_SIZE) {
            r->value = nullptr;
            r->value_len = 0;
        }
        stream->frame_idx++;
        return 1;
    }
    return 0;
}

int oni_istream_deliver(oni_istream_t *stream, void *buf, int buf_size)
{
    const oni_reader_t *r = stream->reader;
    if (stream->codec == ONI_CODEC_16ZT) {
        uint32_t written;
        const oni_codec_status_t status =
            oni_codec_decode(r->value, r->value_len, buf, static_cast<uint32_t>(buf_size), &written);
        if (status == ONI_CODEC_OK)
            return static_cast<int>(written);
        LOG_AS(TQ_LOG_ERROR, "ERR", "oni_istream_get_frame", "[%s]oni decompress data failed\n");
        return 0;
    }
    const uint32_t n =
        static_cast<uint32_t>(buf_size) < r->value_len ? static_cast<uint32_t>(buf_size) : r->value_len;
    if (n > 0)
        memcpy(buf, r->value, n);
    return static_cast<int>(n);
}

int oni_istream_get_frame(oni_istream_t *stream, void *buf, int buf_size, uint64_t *ts_ms, uint32_t *frame_id)
{
    if (!buf || buf_size < 1)
        return -1;
    const int found = oni_istream_next(stream);
    if (found <= 0)
        return found;
    const int n = oni_istream_deliver(stream, buf, buf_size);
    if (ts_ms)
        *ts_ms = stream->reader->timestamp / 1000;
    if (frame_id)
        *frame_id = stream->reader->frame_id;
    return n;
}

int oni_istream_seek_frame(oni_istream_t *stream, int offset, int origin)
{
    if (!stream || !stream->valid || !stream->reader->opened)
        return -1;
    oni_reader_t *r = stream->reader;
    int64_t target = stream->frame_idx;
    if (origin == 0)
        target = offset;
    else if (origin == 1)
        target += offset;
    else if (origin == 2)
        target = static_cast<int64_t>(stream->frame_count) + offset;
    if (target < 0)
        target = 0;
    if (target > stream->frame_count)
        target = stream->frame_count;
    stream->frame_idx = static_cast<uint32_t>(target);

    if (target == 0)
        return _reader_seek(r, stream->data_start) ? 0 : -1;
    int found = 1;
    if (!stream->seek_table) {
        LOG_WARN("[%s]ONI stream not seekable: using slow way\n");
        if (!_reader_seek(r, stream->data_start))
            return -1;
        for (; target > 0 && found > 0; target--)
            found = oni_istream_next(stream); // each adds 1 to frame_idx, which is the target already
    } else {
        // Properties ahead of the first frame have to be met once.
        if (_reader_pos(r) < r->first_data_pos && oni_istream_next(stream) > 0)
            stream->frame_idx--;
        const uint8_t *entry = stream->seek_table + static_cast<size_t>(target - 1) * ONI_SEEK_ENTRY_SIZE;
        if (!_reader_seek(r, oni_get_u64(entry + ONI_SEEK_OFS_POS)))
            return -1;
        stream->frame_idx--;
        found = oni_istream_next(stream);
    }
    if (found < 0)
        return -1;
    return stream->frame_idx <= INT_MAX ? static_cast<int>(stream->frame_idx) : INT_MAX;
}
