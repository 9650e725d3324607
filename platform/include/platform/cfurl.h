// Core Foundation URLs, as far as the utility layer moves paths and web addresses through them.
//
// A URL is its percent-encoded text and, for a relative URL, the base it is relative to. Text
// before the first ':' that is made of letters, digits, '+', '-' and '.' (starting with a
// letter) is the scheme; a URL without one is a bare path. File-system paths are taken from
// file: URLs (the authority, if any, is skipped) and from bare paths, percent-decoded as UTF-8.
// URLs are immutable; any thread may read one. Release them with CFRelease (cfbase.h).
#pragma once

#include "platform/cfbase.h"
#include "platform/cfstring.h"

typedef const struct __CFURL* CFURLRef;

typedef CFIndex CFURLPathStyle;
enum : CFIndex {
    kCFURLPOSIXPathStyle = 0,
};

// A URL from text that is already percent-encoded, relative to baseURL when one is given (the
// URL takes a reference to it). Null for a null or empty string, for a character that has no
// place in a URL (a control character, a space, anything outside ASCII) and for a '%' that is
// not followed by two hexadecimal digits.
CFURLRef CFURLCreateWithString(CFAllocatorRef allocator, CFStringRef string, CFURLRef baseURL);

// A URL from length bytes of text in encoding (UTF-8 or a single-byte encoding); characters
// that have no place in a URL are percent-encoded as UTF-8 rather than refused. Null for text
// that does not decode or is empty.
CFURLRef CFURLCreateWithBytes(CFAllocatorRef allocator, const UInt8* bytes, CFIndex length,
                              CFStringEncoding encoding, CFURLRef baseURL);

// A file: URL of a path (a relative path is taken from the current folder), percent-encoded
// except for letters, digits, '/' and - _ . ~; a folder's URL ends with '/'. Null for a null or
// empty path.
CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef allocator, CFStringRef filePath,
                                       CFURLPathStyle pathStyle, Boolean isDirectory);

// The URL with its relative part resolved against its base (and "." and ".." segments of the
// path removed); a URL without a base is returned with a new reference. The caller owns it.
CFURLRef CFURLCopyAbsoluteURL(CFURLRef url);

// The path of a file: URL or a bare path, percent-decoded, without a trailing '/' (except for
// "/"). Null for another scheme, a null URL or a path that does not decode as UTF-8.
CFStringRef CFURLCopyFileSystemPath(CFURLRef url, CFURLPathStyle pathStyle);

// The URL of the folder holding what url names (an absolute copy with its last path
// component dropped, ending with '/'); null when the path has no component to drop.
CFURLRef CFURLCreateCopyDeletingLastPathComponent(CFAllocatorRef allocator, CFURLRef url);

// The last component of the path, percent-decoded ("/" for the root); null when there is none.
CFStringRef CFURLCopyLastPathComponent(CFURLRef url);

// The URL's own text (relative URLs without their base). With a null buffer, its length in
// bytes; otherwise the number of bytes copied, unterminated, or -1 when bufferLength is too
// small.
CFIndex CFURLGetBytes(CFURLRef url, UInt8* buffer, CFIndex bufferLength);
