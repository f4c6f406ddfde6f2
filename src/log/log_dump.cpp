// Memory as log lines: the hexadecimal dump and the quoted text.
#include "log/log.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>

void tq_log_hex(tq_log_t *log, uint32_t level, const void *data, int len, int prefix)
{
    constexpr int COLUMNS = 16;
    if (data == nullptr || len < 1)
        return;
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    for (int at = 0; at < len; at += COLUMNS) {
        const int n = std::min(COLUMNS, len - at);
        char line[16 + COLUMNS * 4 + 8];
        int used = std::snprintf(line, sizeof line, "%04X: ", static_cast<unsigned>(at));
        for (int i = 0; i < COLUMNS; i++)
            used += i < n ? std::snprintf(line + used, sizeof line - used, "%02X ", bytes[at + i])
                          : std::snprintf(line + used, sizeof line - used, "   ");
        used += std::snprintf(line + used, sizeof line - used, "   ");
        for (int i = 0; i < COLUMNS; i++) {
            const bool shown = i < n && bytes[at + i] >= 0x20 && bytes[at + i] <= 0x7E;
            line[used++] = shown ? static_cast<char>(bytes[at + i]) : i < n ? '.' : ' ';
        }
        line[used++] = '\n';
        line[used] = '\0';
        tq_log_fprintf(log, level, !prefix, nullptr, "%s", line);
        if (len - at <= COLUMNS)
            break; // at + COLUMNS may not fit an int
    }
}

void tq_log_memstr(tq_log_t *log, uint32_t level, const void *data, uint32_t len, uint32_t max_len,
                   int prefix)
{
    if (data == nullptr || len == 0 || max_len == 0)
        return;
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    // What stands around the bytes is shorter than 64: the address, quotation marks and the length.
    const size_t room = static_cast<size_t>(std::min<uint64_t>(max_len, uint64_t{len} + 64));
    char *text = static_cast<char *>(std::malloc(room));
    if (text == nullptr)
        return;
    size_t used = std::min<size_t>(std::snprintf(text, room, "%p \"", data), room - 1);
    uint32_t at = 0;
    while (at < len && used < room - 1 && std::isprint(bytes[at]))
        text[used++] = static_cast<char>(bytes[at++]);
    text[used] = '\0';
    if (at == len)
        std::snprintf(text + used, room - used, "\"");
    else if (used < room - 1)
        std::snprintf(text + used, room - used, "...\"(len=%u)", len);
    tq_log_fprintf(log, level, !prefix, nullptr, "%s", text);
    std::free(text);
}
