// Core Foundation strings, as far as the utility layer converts text through them: an immutable
// string of UTF-16 units made from bytes in one encoding and written out in another.
//
// Encodings understood: kCFStringEncodingWindowsLatin1 (code page 1252),
// kCFStringEncodingISOLatin1, kCFStringEncodingUnicode (UTF-16 units in the machine's byte order)
// and kCFStringEncodingUTF8. Others fail: creation returns null and CFStringGetCString returns
// false. UTF-8 is strict both ways: malformed bytes (an overlong form, an encoded surrogate, a
// value above U+10FFFF, a sequence cut short) make creation fail, and a surrogate unit without its
// partner cannot be written out. The system encoding (the one of file names) is UTF-8.
//
// Strings hold no lock; they are immutable once created, so any thread may read one.
#pragma once

#include "platform/cfbase.h"
#include "platform/mactypes.h"

typedef const struct __CFString* CFStringRef;
typedef UInt32 CFStringEncoding;
typedef UInt16 UniChar;
typedef unsigned char* StringPtr; // a length byte, then that many bytes

struct CFRange {
    CFIndex location;
    CFIndex length;
};

enum : CFStringEncoding {
    kCFStringEncodingUnicode = 0x0100,
    kCFStringEncodingISOLatin1 = 0x0201,
    kCFStringEncodingWindowsLatin1 = 0x0500,
    kCFStringEncodingUTF8 = 0x08000100,
};

// A string from numBytes bytes in encoding, or null when the encoding is not understood, the
// byte count is negative, or (for kCFStringEncodingUnicode) odd. In Windows Latin-1 the five
// bytes the code page leaves undefined (0x81, 0x8D, 0x8F, 0x90, 0x9D) stand for the control
// characters of the same value. A leading byte-order mark of UTF-16 text is dropped, and a
// swapped one makes the units read in the other byte order. The allocator and
// isExternalRepresentation are accepted for the platform's signature and have no effect here.
// The caller owns the returned reference.
CFStringRef CFStringCreateWithBytes(CFAllocatorRef allocator, const UInt8* bytes, CFIndex numBytes,
                                    CFStringEncoding encoding, Boolean isExternalRepresentation);

// Writes the whole string into buffer in encoding, terminated: one 0 byte for the single-byte
// encodings, one 0 unit (two bytes) for kCFStringEncodingUnicode. False, with buffer untouched,
// when the string and its terminator do not fit in bufferSize bytes, when a character cannot be
// represented in the encoding, or when the encoding is not understood.
Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex bufferSize,
                           CFStringEncoding encoding);

// A string from a NUL-terminated text in encoding (a single-byte encoding or UTF-8); null as for
// CFStringCreateWithBytes, and for a null text.
CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char* text,
                                      CFStringEncoding encoding);

// The number of UTF-16 units in the string; 0 for null.
CFIndex CFStringGetLength(CFStringRef string);

// Copies the units of range (which must lie within the string) into buffer, unterminated.
void CFStringGetCharacters(CFStringRef string, CFRange range, UniChar* buffer);

// Writes the string as a length-prefixed text of at most bufferSize - 1 (and 255) bytes in
// encoding. False when it does not fit or does not convert, as for CFStringGetCString.
Boolean CFStringGetPascalString(CFStringRef string, StringPtr buffer, CFIndex bufferSize,
                                CFStringEncoding encoding);

// The encoding of file names and of text exchanged with the system: kCFStringEncodingUTF8.
CFStringEncoding CFStringGetSystemEncoding();

// Strings are released with CFRelease (cfbase.h).
