// The main run loop's sockets and sources: descriptors whose read callbacks run on the thread
// waiting in ReceiveNextEvent.
#include "platform/cfrunloop.h"

#include "eventloop_internal.h"
#include "../core/cfruntime.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

struct __CFSocket : __CFRuntimeBase {
    ~__CFSocket() override {
        if (context.release != nullptr && context.info != nullptr)
            context.release(context.info);
    }

    CFSocketNativeHandle fd = -1;
    CFOptionFlags callBackTypes = 0;
    CFSocketCallBack callout = nullptr;
    CFSocketContext context{};
    std::atomic<bool> valid{true};
};

struct __CFRunLoopSource : __CFRuntimeBase {
    ~__CFRunLoopSource() override { CFRelease(socket); }

    CFSocketRef socket = nullptr;
    CFIndex order = 0;
};

struct __CFRunLoopMode {
    const char* name;
};

struct __CFRunLoop {
    struct Entry {
        CFRunLoopSourceRef source;
        CFRunLoopMode mode;
    };
    std::mutex lock;
    std::vector<Entry> entries;
};

namespace {

const __CFRunLoopMode gDefaultMode{"kCFRunLoopDefaultMode"};
const __CFRunLoopMode gCommonModes{"kCFRunLoopCommonModes"};

__CFRunLoop& MainRunLoop() {
    // Never destroyed, like the event queue it serves.
    static __CFRunLoop* loop = new __CFRunLoop;
    return *loop;
}

void RetainSource(CFRunLoopSourceRef source) {
    CFRetain(source);
}

bool Watched(CFRunLoopMode mode) {
    return mode == &gDefaultMode || mode == &gCommonModes;
}

bool ContainsLocked(__CFRunLoop& loop, CFRunLoopSourceRef source, CFRunLoopMode mode) {
    return std::any_of(loop.entries.begin(), loop.entries.end(), [&](const auto& entry) {
        return entry.source == source && (mode == nullptr || entry.mode == mode);
    });
}

} // namespace

const CFRunLoopMode kCFRunLoopDefaultMode = &gDefaultMode;
const CFRunLoopMode kCFRunLoopCommonModes = &gCommonModes;

CFSocketRef CFSocketCreateWithNative(CFAllocatorRef, CFSocketNativeHandle fd,
                                     CFOptionFlags callBackTypes, CFSocketCallBack callout,
                                     const CFSocketContext* context) {
    if (fd < 0)
        return nullptr;
    auto* socket = new __CFSocket;
    socket->fd = fd;
    socket->callBackTypes = callBackTypes;
    socket->callout = callout;
    if (context != nullptr) {
        socket->context = *context;
        if (socket->context.retain != nullptr && socket->context.info != nullptr)
            socket->context.retain(socket->context.info);
    }
    return socket;
}

CFSocketNativeHandle CFSocketGetNative(CFSocketRef socket) {
    return socket != nullptr ? socket->fd : -1;
}

void CFSocketInvalidate(CFSocketRef socket) {
    if (socket != nullptr)
        socket->valid = false;
}

CFRunLoopSourceRef CFSocketCreateRunLoopSource(CFAllocatorRef, CFSocketRef socket, CFIndex order) {
    if (socket == nullptr)
        return nullptr;
    auto* source = new __CFRunLoopSource;
    CFRetain(socket);
    source->socket = socket;
    source->order = order;
    return source;
}

CFRunLoopRef CFRunLoopGetMain() {
    return &MainRunLoop();
}

CFRunLoopRef GetCFRunLoopFromEventLoop(EventLoopRef loop) {
    return loop == GetMainEventLoop() ? CFRunLoopGetMain() : nullptr;
}

void CFRunLoopAddSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode mode) {
    if (loop == nullptr || source == nullptr || mode == nullptr)
        return;
    {
        std::lock_guard<std::mutex> hold(loop->lock);
        if (ContainsLocked(*loop, source, mode))
            return;
        RetainSource(source);
        loop->entries.push_back({source, mode});
        // Lower orders are served first, like the platform's run loop.
        std::stable_sort(
            loop->entries.begin(), loop->entries.end(),
            [](const auto& a, const auto& b) { return a.source->order < b.source->order; });
    }
    // A receiver already waiting must start watching the new descriptor.
    if (loop == &MainRunLoop())
        platform::WakeMainEventLoop();
}

void CFRunLoopRemoveSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode mode) {
    if (loop == nullptr || source == nullptr)
        return;
    CFRunLoopSourceRef removed = nullptr;
    {
        std::lock_guard<std::mutex> hold(loop->lock);
        for (auto it = loop->entries.begin(); it != loop->entries.end(); ++it) {
            if (it->source == source && it->mode == mode) {
                removed = it->source;
                loop->entries.erase(it);
                break;
            }
        }
    }
    CFRelease(removed);
}

bool CFRunLoopContainsSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode mode) {
    if (loop == nullptr || source == nullptr)
        return false;
    std::lock_guard<std::mutex> hold(loop->lock);
    return ContainsLocked(*loop, source, mode);
}

namespace platform {

void MainRunLoopPrepare(RunLoopPass& pass) {
    auto& loop = MainRunLoop();
    std::lock_guard<std::mutex> hold(loop.lock);
    for (const auto& entry : loop.entries) {
        if (!Watched(entry.mode))
            continue;
        CFSocketRef socket = entry.source->socket;
        if ((socket->callBackTypes & kCFSocketReadCallBack) == 0 || !socket->valid)
            continue;
        // A source added in two watched modes is watched once.
        if (std::find(pass.sources.begin(), pass.sources.end(), entry.source) != pass.sources.end())
            continue;
        RetainSource(entry.source);
        pass.sources.push_back(entry.source);
        pass.fds.push_back({socket->fd, POLLIN, 0});
    }
}

void MainRunLoopFinish(RunLoopPass& pass, size_t first) {
    auto& loop = MainRunLoop();
    for (size_t i = 0; i < pass.sources.size(); ++i) {
        CFRunLoopSourceRef source = pass.sources[i];
        if ((pass.fds[first + i].revents & (POLLIN | POLLHUP | POLLERR)) == 0)
            continue;
        {
            // Removed while we polled: its owner no longer expects calls.
            std::lock_guard<std::mutex> hold(loop.lock);
            if (!ContainsLocked(loop, source, nullptr))
                continue;
        }
        CFSocketRef socket = source->socket;
        if (socket->valid && socket->callout != nullptr)
            socket->callout(socket, kCFSocketReadCallBack, nullptr, nullptr, socket->context.info);
    }
    for (CFRunLoopSourceRef source : pass.sources)
        CFRelease(source);
    pass.sources.clear();
}

} // namespace platform
