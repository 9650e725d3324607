// Conversions between the library's UTF-8 text and the other forms it meets at its edges:
// 16-bit text (one unit per character, surrogates not paired), 32-bit wchar_t text, the Ansi code
// page (read as Windows Latin-1, written as ISO Latin-1), ISO-8859-1 through iconv, and
// byte-swapped 16-bit text for files.
//
// Naming: LCopy<target>From<source>; the target is written into the first argument. A size
// argument counts destination characters of the destination's form, terminator included; a
// function without one takes a 260-character destination unless its comment says otherwise.
// Truncation is silent except in the UTF-8 coder's result. Sources are NUL-terminated and never
// null. Every function is reentrant and keeps no state.
#pragma once

#include "llib/gen/stringlong.h"

// An empty 16-bit text (a single 0 unit).
extern const unsigned short szEmptyStringUTF16[1];

// Results of the UTF-8 coder.
enum {
    kLCopyDone = 0,        // the whole source was converted
    kLCopyTruncated = 1,   // the destination is full; it holds what came before
    kLCopyIllegalInput = 2 // malformed input (the decoder stops there) or a replaced value
};

// UTF-8 to UTF-32. Converts at most size - 1 source bytes, so the output always fits; stops with
// kLCopyTruncated as soon as the bytes consumed, the next character included, would reach size.
// Malformed input (a stray trailing byte, a lead byte 0xC0, 0xC1 or above 0xF4, an overlong
// form, an encoded surrogate, a value above U+10FFFF, a sequence cut short) stops with
// kLCopyIllegalInput, keeping what came before. The output is always terminated (size >= 1).
int LCopyUTF32FromUTF8Native(wchar_t* destination, const char* source, unsigned long size);
int LCopyUTF32FromUTF8(wchar_t* destination, const char* source, unsigned long size);

// UTF-32 to UTF-8 (size in bytes). Surrogate code points are encoded like any other 3-byte
// value; a value above U+10FFFF (or negative) becomes U+FFFD and the result
// kLCopyIllegalInput, and encoding goes on. Stops with kLCopyTruncated before the first
// character that would not fit together with the terminator. Always terminated (size >= 1).
int LCopyUTF8FromUTF32Native(char* destination, const wchar_t* source, unsigned long size);
int LCopyUTF8FromUTF32(char* destination, const wchar_t* source, unsigned long size);

// UTF-8 to 16-bit text: decodes (as above) and keeps each code point's low 16 bits, so
// characters above U+FFFF lose their high bits (U+1F600 becomes 0xF600).
void LCopyUnicodeFromUTF8(unsigned short* destination, const char* source, unsigned long size);
void LCopyUnicodeFromUTF8(unsigned short* destination, const char* source);

// 16-bit text to UTF-8: every unit is one code point, surrogates included, so a surrogate pair
// becomes two 3-byte sequences. At most size - 1 units are read.
void LCopyUTF8FromUnicode(char* destination, const unsigned short* source, unsigned long size);
void LCopyUTF8FromUnicode(char* destination, const unsigned short* source);

// Widening and narrowing, at most size - 1 characters, terminated.
void LCopyUTF32FromUnicode(wchar_t* destination, const unsigned short* source, unsigned long size);
void LCopyUnicodeFromUTF32(unsigned short* destination, const wchar_t* source, unsigned long size);

// The Ansi code page, read as Windows Latin-1 and written as ISO Latin-1 (so U+20AC reads in but
// does not write back). All or nothing: when the text does not fit or holds a character the
// target cannot represent, the destination is left empty.
void LCopyUnicodeFromAnsi(unsigned short* destination, const char* source, unsigned long size);
void LCopyAnsiFromUnicode(char* destination, const unsigned short* source, unsigned long size);
void LCopyUTF8FromAnsi(char* destination, const char* source, unsigned long size);
void LCopyAnsiFromUTF8(char* destination, const char* source, unsigned long size);

// Converts with iconv from fromEncoding to toEncoding: the destination is emptied, then filled
// with the whole characters that fit in size - 1 bytes, up to the end of the source or the first
// character that is invalid in the source or cannot be represented in the target; then
// terminated. An encoding iconv cannot open leaves the destination empty.
template <class TD, class TS>
void LCopyIconvFixedLength(TD* destination, const TS* source, unsigned long size,
                           const char* toEncoding, const char* fromEncoding);
// The same with the destination taken to hold strlen(source) + 1 bytes.
template <class TD, class TS>
void LCopyIconvFixedLength(TD* destination, const TS* source, const char* toEncoding,
                           const char* fromEncoding);

// UTF-8 to ISO-8859-1 and back (WIN1252 is converted as ISO-8859-1 too). A conversion to
// ISO-8859-1 ends before the first character outside Latin-1. The unsized forms take the
// destination to hold strlen(source) + 1 bytes (so a conversion from ISO-8859-1 may be cut).
void LCopyToISO88591(char* destination, const char* source, unsigned long size);
void LCopyToISO88591(char* destination, const char* source);
void LCopyFromISO88591(char* destination, const char* source, unsigned long size);
void LCopyFromISO88591(char* destination, const char* source);
void LCopyToWIN1252(char* destination, const char* source, unsigned long size);
void LCopyFromWIN1252(char* destination, const char* source, unsigned long size);

// Shift-JIS text is kept as it is: a bounded byte copy (at most size - 1 bytes, terminated).
void LCopyToSHIFTJIS932(char* destination, const char* source, unsigned long size);
void LCopyFromSHIFTJIS932(char* destination, const char* source, unsigned long size);

// Copies at most size units, stopping at the source's 0, each stored with its two bytes
// swapped; returns the number copied. With terminate, a 0 unit follows them (the destination
// then holds size + 1 units); without, the rest of the size units are filled with byte-swapped
// spaces (fixed-width fields).
unsigned long LCopyToBigEndianUnicode(unsigned short* destination, const unsigned short* source,
                                      unsigned long size, bool terminate);

// The number of characters, counted by their lead bytes without validation. A character cut
// short by the terminator counts as one.
unsigned long utf8strlen(const char* text);
// Copies whole characters while they fit in size - 1 bytes, then terminates (nothing is written
// for size 0); a character is never split, and one cut short by the source's terminator is left
// out. Returns the number of bytes copied.
unsigned long utf8strlcpy(char* destination, const char* source, unsigned long size);

// Growable-string forms; n is the source's length in its own characters.

// Empties the string, grows it to 6n + 1 bytes and converts into it; the length stays 0, so read
// the result as a NUL-terminated text through pData.
void LCopyFromUnicode(LStringLongTemplate<char>& destination, const unsigned short* source);
// Grow to 6n + 1 bytes and convert; the length is not updated (read the result through pData).
void LCopyFromISO88591(LStringLongTemplate<char>& destination, const char* source);
void LCopyFromWIN1252(LStringLongTemplate<char>& destination, const char* source);
void LCopyFromSHIFTJIS932(LStringLongTemplate<char>& destination, const char* source);
// Grow to n + 1 bytes and convert; the length is not updated.
void LCopyToISO88591(LStringLongTemplate<char>& destination, const char* source);
void LCopyToWIN1252(LStringLongTemplate<char>& destination, const char* source);
void LCopyToSHIFTJIS932(LStringLongTemplate<char>& destination, const char* source);
// Grow (to 6n + 1 bytes for UTF-8, n + 1 otherwise), convert, and set the length to the
// result's. An empty source (also one without a buffer) gives the empty text.
void LCopyUTF8FromUnicode(LStringLongTemplate<char>& destination,
                          const LStringLongTemplate<unsigned short>& source);
void LCopyAnsiFromUnicode(LStringLongTemplate<char>& destination,
                          const LStringLongTemplate<unsigned short>& source);
void LCopyUnicodeFromAnsi(LStringLongTemplate<unsigned short>& destination,
                          const LStringLongTemplate<char>& source);
void LCopyUnicodeFromUTF8(LStringLongTemplate<unsigned short>& destination,
                          const LStringLongTemplate<char>& source);
