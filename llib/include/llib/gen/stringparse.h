// Fields out of texts: URL-encoding, query-string items, marked-up fields and comma-separated
// items. Pure functions on NUL-terminated UTF-8 text; none keeps state.
#pragma once

#include "llib/gen/stringlong.h"

// Puts one byte URL-encoded: a-z, A-Z, 0-9 and - _ . ! ~ as they are, every other byte as '%'
// and two upper-case hexadecimal digits (0xE9 gives %E9). The three characters are put one by
// one, so a full fixed writer may keep an escape cut short.
template <class Writer>
void LURIEncodeToWriterDirect(Writer& writer, char character) {
    const unsigned char c = static_cast<unsigned char>(character);
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '_' || c == '.' || c == '!' || c == '~') {
        writer.Put(character);
        return;
    }
    // Digits computed rather than looked up: a table local to this inline function would be a
    // unique symbol, which keeps a shared library from being unloaded.
    const unsigned int high = c >> 4, low = c & 0x0F;
    writer.Put('%');
    writer.Put(static_cast<char>(high < 10 ? '0' + high : 'A' + high - 10));
    writer.Put(static_cast<char>(low < 10 ? '0' + low : 'A' + low - 10));
}

// URL-encodes source into destination (260 bytes: at most 259 characters, terminated).
void LURIEncode(char* destination, const char* source);

// Removes the item name=value from a query string, in place. The key "name=" is searched for
// anywhere in the text (so a longer name ending in the same letters matches too); the removal
// starts at the '&' just before the key when there is one, else at the key, and runs to the
// next '&' or the end. a=1&b=2&c=3 without b gives a=1&c=3, without a gives &b=2&c=3. Nothing
// happens when the key is absent.
void LRemoveHTTPItem(const char* name, char* query);

// Copies the text between the first startMarker and the next endMarker after it (or the end of
// the text when there is none), cut to size - 1 characters and terminated; true. False, with an
// empty destination, when startMarker does not occur. Nothing is written for size 0.
bool FindTextField(const char* text, const char* startMarker, const char* endMarker,
                   char* destination, unsigned long size);

// Reads one comma-separated item of line from position and moves position past it (and past
// the comma that ends it). Double quotes group text that may hold commas and spaces and are not
// stored (so "" inside quotes stores nothing); spaces outside quotes are dropped before and
// after the item; at most size - 1 characters are kept. Stops without consuming at the end of
// the line (terminator, CR or LF): the caller looks at line[position] to see whether the line
// goes on. True when the item is not empty.
bool GetCSVListItem(const char* line, unsigned long& position, char* destination,
                    unsigned long size);
