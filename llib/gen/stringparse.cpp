#include "llib/gen/stringparse.h"

#include <cstring>

#include "llib/gen/stringtools.h"

void LURIEncode(char* destination, const char* source) {
    LFixedLengthStringWriterTemplate<char> writer(destination, 260);
    for (const char* p = source; p != nullptr && *p != 0; ++p)
        LURIEncodeToWriterDirect(writer, *p);
    writer.Terminate();
}

void LRemoveHTTPItem(const char* name, char* query) {
    if (name == nullptr || query == nullptr)
        return;
    char key[262];
    tplsnprintf(key, sizeof key, "%s=", name);
    char* found = strstr(query, key);
    if (found == nullptr)
        return;
    char* start = found > query && found[-1] == '&' ? found - 1 : found;
    const char* end = strchr(found + strlen(key), '&');
    if (end == nullptr)
        end = found + strlen(found);
    memmove(start, end, strlen(end) + 1);
}

bool FindTextField(const char* text, const char* startMarker, const char* endMarker,
                   char* destination, unsigned long size) {
    if (size == 0)
        return false;
    destination[0] = 0;
    const char* start = strstr(text, startMarker);
    if (start == nullptr)
        return false;
    start += strlen(startMarker);
    const char* end = strstr(start, endMarker);
    unsigned long length = end != nullptr ? static_cast<unsigned long>(end - start) : strlen(start);
    if (length > size - 1)
        length = size - 1;
    memcpy(destination, start, length);
    destination[length] = 0;
    return true;
}

bool GetCSVListItem(const char* line, unsigned long& position, char* destination,
                    unsigned long size) {
    const unsigned long limit = size > 0 ? size - 1 : 0;
    bool quoted = false;
    unsigned long stored = 0;
    unsigned long kept = 0; // stored characters up to the last that is not an unquoted space
    for (;;) {
        const char c = line[position];
        if (c == 0 || c == '\n' || c == '\r')
            break;
        ++position;
        if (c == ',' && !quoted)
            break;
        if (c == '"') {
            quoted = !quoted;
            continue;
        }
        if (stored >= limit)
            continue;
        const bool unquotedSpace = c == ' ' && !quoted;
        if (unquotedSpace && stored == 0)
            continue;
        destination[stored++] = c;
        if (!unquotedSpace)
            kept = stored;
    }
    if (size > 0)
        destination[kept] = 0;
    return kept != 0;
}
