// Whole text files: loaded into UTF-8 strings, recognising byte-order marks where asked, and
// saved as UTF-8 (tagged as such) or as UTF-16 with a mark. Files are opened with the advisory
// locks of llib/unix/filehandle.h (a shared lock waited for up to 1 s to read, an exclusive one
// up to 0.5 s to write); a lock not obtained does not stop the operation.
#pragma once

#include "llib/gen/stringlong.h"

// The file's bytes as they are. False (the string untouched) when the file cannot be opened.
bool LLoadText(const char* path, LStringLongTemplate<char>& text);
// A UTF-16 file, big- or little-endian by its mark (native order without one), as UTF-8.
bool LLoadTextUnicode(const char* path, LStringLongTemplate<char>& text);
// A UTF-16 file in native order, a mark kept as the character U+FEFF, as UTF-8.
bool LLoadTextAsUTF16(const char* path, LStringLongTemplate<char>& text);
// UTF-16 (either order) or UTF-8 by the mark, else the bytes as they are.
bool LLoadTextAutoChar(const char* path, LStringLongTemplate<char>& text);

// Write or append the text's bytes (no mark, no terminator) and tag the file as UTF-8; the
// tag's result (LFile::SetFileAttributeTextEncodingUTF8), not the write's.
int LSaveText(const char* path, const char* text);
int LSaveText(const char* path, const LStringLongTemplate<char>& text);
int LSaveAppendText(const char* path, const char* text);
int LSaveAppendText(const char* path, const LStringLongTemplate<char>& text);
// FF FE and the text as UTF-16 little-endian; no tag.
void LSaveTextAsUnicodeBOM(const char* path, const LStringLongTemplate<char>& text);
