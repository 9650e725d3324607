// Core Foundation bundles on Linux: a bundle is a folder. The main bundle is the folder that
// holds the running executable (from /proc/self/exe); its resources are the files beside the
// executable, so the resources folder is the bundle folder itself.
//
// A bundle's information dictionary is read, when the bundle is made, from the text file
// Info.txt in its folder: one "key = value" per line (blanks around both are dropped; lines
// without '=' and lines starting with '#' are skipped; the first value of a key counts). A
// bundle without the file has an empty dictionary, so its version is unknown. Bundles are
// immutable once made; any thread may read one.
#pragma once

#include "platform/cfbase.h"
#include "platform/cfstring.h"
#include "platform/cfurl.h"

typedef struct __CFBundle* CFBundleRef;

// The key of the bundle's version ("CFBundleVersion").
extern const CFStringRef kCFBundleVersionKey;

// The bundle of the running executable's folder; made on the first call and kept for the
// process. Not owned by the caller (do not release it). Null when the executable's path cannot
// be read.
CFBundleRef CFBundleGetMainBundle();

// A bundle of the folder bundleURL names (a file: URL or a bare path); null when that is not a
// folder. The caller owns it.
CFBundleRef CFBundleCreate(CFAllocatorRef allocator, CFURLRef bundleURL);

// The bundle folder's file: URL, ending with '/'. The caller owns it.
CFURLRef CFBundleCopyBundleURL(CFBundleRef bundle);

// The resources folder as a URL relative to the bundle's URL ("./"); make it absolute with
// CFURLCopyAbsoluteURL. The caller owns it.
CFURLRef CFBundleCopyResourcesDirectoryURL(CFBundleRef bundle);

// The information dictionary's value for key (a string), or null when the key is absent. The
// bundle owns the value: retain it to keep it beyond the bundle's life.
CFTypeRef CFBundleGetValueForInfoDictionaryKey(CFBundleRef bundle, CFStringRef key);
