// Run-loop sockets: a descriptor watched by the main run loop, whose callback runs on the thread
// that waits in ReceiveNextEvent (see events.h) whenever the descriptor is readable.
//
// A socket callback with kCFSocketReadCallBack is called once per pass of the run loop while the
// descriptor stays readable (the read callback re-enables itself). The socket never reads from
// or closes the descriptor; its owner keeps it open while the socket is in use.
#pragma once

#include "platform/cfbase.h"
#include "platform/events.h"

typedef int CFSocketNativeHandle;
typedef unsigned long CFOptionFlags;
typedef long CFIndex;
typedef CFOptionFlags CFSocketCallBackType;
typedef struct __CFSocket* CFSocketRef;
typedef struct __CFRunLoopSource* CFRunLoopSourceRef;
typedef const struct __CFData* CFDataRef;
typedef const struct __CFRunLoopMode* CFRunLoopMode;

constexpr CFSocketCallBackType kCFSocketNoCallBack = 0;
constexpr CFSocketCallBackType kCFSocketReadCallBack = 1;

// The default allocator (null, as everywhere on the platform).
constexpr CFAllocatorRef kCFAllocatorDefault = nullptr;
// Sources added in the default or the common modes are watched by ReceiveNextEvent.
extern const CFRunLoopMode kCFRunLoopDefaultMode;
extern const CFRunLoopMode kCFRunLoopCommonModes;

typedef void (*CFSocketCallBack)(CFSocketRef socket, CFSocketCallBackType type, CFDataRef address,
                                 const void* data, void* info);

struct CFSocketContext {
    CFIndex version;
    void* info;
    const void* (*retain)(const void* info);
    void (*release)(const void* info);
    void* (*copyDescription)(const void* info);
};

// Wraps a descriptor; the context's info (when given) is passed to the callback. Returns the
// socket with one reference, or null for a negative descriptor.
CFSocketRef CFSocketCreateWithNative(CFAllocatorRef allocator, CFSocketNativeHandle fd,
                                     CFOptionFlags callBackTypes, CFSocketCallBack callout,
                                     const CFSocketContext* context);
CFSocketNativeHandle CFSocketGetNative(CFSocketRef socket);
// Stops the callbacks for good (a callback already running finishes).
void CFSocketInvalidate(CFSocketRef socket);

// The source through which a socket joins a run loop; it holds a reference to the socket.
// Returns null for a null socket.
CFRunLoopSourceRef CFSocketCreateRunLoopSource(CFAllocatorRef allocator, CFSocketRef socket,
                                               CFIndex order);

CFRunLoopRef CFRunLoopGetMain();
// Adds a source to a run loop in a mode (the run loop takes a reference); adding it again in
// the same mode does nothing.
void CFRunLoopAddSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode mode);
// Removes a source from a mode; its callback is not called afterwards by that run loop.
void CFRunLoopRemoveSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode mode);
bool CFRunLoopContainsSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode mode);

// Sockets and sources are released with CFRelease (cfbase.h); a source's last release also
// drops its reference to the socket.
