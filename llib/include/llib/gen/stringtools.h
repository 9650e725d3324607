// The formatted-output engine and small text helpers: a delimiter parser, bounded piece copies
// and in-place character replacement.
#pragma once

#include <cstdarg>

#include "llib/gen/stringlong.h"

// The formatted-output engine: literal text and %s go straight through the writer; every other
// conversion is formatted by the C library, one at a time, into a 260-character temporary.
// Supported: '%' with an optional run of digits and points, then one of s d i u x X o c p e f g %.
// Returns the writer's count at the end (characters stored; for an appender, the whole string's
// length). A null format writes nothing and returns 0. See stringtools.cpp for what the engine
// does with everything else.
template <class Writer, class T>
unsigned long tplprintf(Writer& writer, const T* format, va_list arguments);

// Formats into buffer (size counts the terminator, at least 1), always terminated; returns the
// number of characters stored.
unsigned long tplsnprintf(char* buffer, unsigned long size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Continues formatting into a fixed writer at its position; writes no terminator.
unsigned long sprintf(LFixedLengthStringWriterTemplate<char>& writer, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Replaces the string's contents with the formatted text; returns its length.
unsigned long sprintf(LStringLongTemplate<char>& string, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Appends the formatted text to the string; returns its new length.
unsigned long tsprintfappend(LStringLongTemplate<char>& string, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// The C library's vprintf to standard output.
int tprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Copies the text up to the first of the delimiter characters (or its end) into destination,
// at most 259 characters and terminated; returns the number of characters scanned, that is the
// delimiter's index. destination holds 260 characters.
template <class T>
unsigned long LParseGetToCharacters(const T* text, const T* delimiters, T* destination);

// Replaces every `from` in text by `to`, in place, and returns text. Does nothing when from
// equals to, or when from is the terminator (which would run past the text's end).
template <class T>
T* LStringReplaceChar(T* text, T from, T to);

// A cursor over a NUL-terminated text the caller owns, for splitting it at delimiters.
template <class T>
class LStringParserTemplate {
public:
    explicit LStringParserTemplate(const T* text) : pCursor(text) {}

    // Moves to the next delimiter, or to the end; then one past the delimiter.
    void SkipToCharacterAndSkip(const T* delimiters);
    // Copies the text up to the next delimiter into destination (260 characters, at most 259
    // stored) and moves past that delimiter.
    void GetToCharacterAndSkip(const T* delimiters, T* destination);

    const T* pCursor;
};
