// The utility layer's base module: the millisecond clock, the random seed and small text helpers.
#pragma once

#include <cstddef>

// The time of day in milliseconds (seconds * 1000 + microseconds / 1000), wrapping at 32 bits.
// Wall-clock based, so it jumps when the clock is set; compute elapsed times by unsigned
// subtraction, which stays right across one wrap. Any thread.
unsigned int GetTickCount();

// Seeds the C library's random generator from the clock: srand(GetTickCount()), then
// srand(time(nullptr) ^ rand()).
void randomize();

// Small text helpers shared by the library and its hosts. Each is a pure function of its
// arguments (apart from LGenerateRandomPassword's seeding); none keeps state. Texts are
// NUL-terminated; a destination without a stated size must hold the result.

// Labels. Mnemonic markers: a single '&' is dropped and "&&" becomes '&' (&File gives File,
// Save && Exit gives Save & Exit). The destination must hold the source; a null source gives an
// empty destination. Destination and source may be the same buffer.
void LStripAmpersand(char* destination, const char* source);
// Drops parenthesised mnemonics, from a '(' directly followed by '&' up to and including the
// next ')' (or to the end): "ファイル(&F)" gives "ファイル"; a lone '&' is kept.
void LStripJPStyleAmpersand(char* destination, const char* source);
// A label for display: LStripAmpersand.
void LPrepareForDisplay(char* destination, const char* source);
// Copies source and cuts it at its first tab; returns destination.
char* LStripAfterTab(char* destination, const char* source);
// A menu item's label: mnemonics stripped (kept within 259 characters), then cut at the first
// tab, so "&Open\tCtrl+O" gives "Open". destination holds 260 characters.
void LPrepareForMenuItem(char* destination, const char* source);

// Reads hexadecimal digits (0-9, a-f, A-F) from the start up to the first other character;
// no prefix or sign; wraps at 32 bits. "1fZ" gives 0x1F, "" gives 0.
unsigned int atoh(const char* text);
unsigned int wtoh(const wchar_t* text);

// Change each byte in place with the C library's toupper or tolower; return text (null stays
// null).
char* strupr(char* text);
char* strlwr(char* text);

// Seeds the random generator (randomize), writes length lower-case letters and a terminator
// (destination holds length + 1 bytes) and returns length.
unsigned int LGenerateRandomPassword(char* destination, unsigned int length);

// Thin names over the C library.
size_t tstrlen(const char* text);
size_t tstrlen(const wchar_t* text);
size_t tstrbytes(const char* text);
char* tstrcpy(char* destination, const char* source);
int tstrcmp(const char* a, const char* b);
// Compares ignoring ASCII case (strcasecmp).
int tstricmp(const char* a, const char* b);
size_t lstrlen(const char* text);
// The number of 16-bit units before the first 0 unit.
size_t lstrlen(const unsigned short* text);
// Compares unit by unit: -1 at the first difference, 0 when either text ends first or both are
// empty, so a text and any text it begins compare equal; never positive.
int wstrcmp(const wchar_t* a, const wchar_t* b);
