// What every Core Foundation object of the platform layer shares: a reference count. The
// creator of an object (a Create or Copy call) owns one reference; CFRetain adds one and
// CFRelease drops one, and the last release frees the object. Counting is atomic, so references
// may be dropped on any thread.
#pragma once

typedef const void* CFTypeRef;
typedef const struct __CFAllocator* CFAllocatorRef; // as in events.h
typedef long CFIndex;                               // as in cfrunloop.h

// Adds a reference and returns object; null is returned as it is.
CFTypeRef CFRetain(CFTypeRef object);
// Drops one reference to any platform object (string, URL, bundle, run-loop socket or source);
// the last one frees it. Null is ignored.
void CFRelease(CFTypeRef object);
