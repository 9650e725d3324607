// Core Foundation strings, as far as the utility layer converts text through them: an immutable
// string of UTF-16 units made from bytes in one encoding and written out in another.
//
// Encodings understood: kCFStringEncodingWindowsLatin1 (code page 1252), kCFStringEncodingISOLatin1
// and kCFStringEncodingUnicode (UTF-16 units in the machine's byte order). Others fail: creation
// returns null and CFStringGetCString returns false.
//
// Strings hold no lock; they are immutable once created, so any thread may read one.
#pragma once

#include "platform/mactypes.h"

typedef const struct __CFAllocator* CFAllocatorRef; // as in events.h
typedef const struct __CFString* CFStringRef;
typedef UInt32 CFStringEncoding;
typedef long CFIndex; // as in cfrunloop.h

enum : CFStringEncoding {
    kCFStringEncodingUnicode = 0x0100,
    kCFStringEncodingISOLatin1 = 0x0201,
    kCFStringEncodingWindowsLatin1 = 0x0500,
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

// The number of UTF-16 units in the string; 0 for null.
CFIndex CFStringGetLength(CFStringRef string);

// Drops the reference the creator owns; null is ignored.
void CFRelease(CFStringRef string);
