// Per-thread autorelease pools.
#include <vector>

#include "platform/foundation.h"

namespace {

// The thread's pools, innermost last, and the last-resort list for objects autoreleased with
// no pool, released when the thread ends.
struct ThreadPools {
    std::vector<NSAutoreleasePool*> stack;
    std::vector<NSObject*> orphans;
    ~ThreadPools() {
        for (NSObject* object : orphans)
            object->release();
    }
};

ThreadPools& CurrentThreadPools() {
    thread_local ThreadPools pools;
    return pools;
}

} // namespace

NSAutoreleasePool::NSAutoreleasePool() {
    CurrentThreadPools().stack.push_back(this);
}

NSAutoreleasePool::~NSAutoreleasePool() {
    ThreadPools& pools = CurrentThreadPools();
    // Inner pools still open are drained first, so nesting stays intact.
    while (!pools.stack.empty() && pools.stack.back() != this)
        pools.stack.back()->release();
    if (!pools.stack.empty())
        pools.stack.pop_back();
    // Releasing may autorelease more objects into this pool; drain until it stays empty.
    while (!objects.empty()) {
        std::vector<NSObject*> batch;
        batch.swap(objects);
        for (NSObject* object : batch)
            object->release();
    }
}

size_t NSAutoreleasePool::pendingCount() {
    size_t count = CurrentThreadPools().orphans.size();
    for (NSAutoreleasePool* pool : CurrentThreadPools().stack)
        count += pool->objects.size();
    return count;
}

void NSAutoreleasePool::drainThreadOrphans() {
    ThreadPools& pools = CurrentThreadPools();
    while (!pools.orphans.empty()) {
        std::vector<NSObject*> batch;
        batch.swap(pools.orphans);
        for (NSObject* object : batch)
            object->release();
    }
}

NSObject* NSObject::autorelease() {
    ThreadPools& pools = CurrentThreadPools();
    if (pools.stack.empty())
        pools.orphans.push_back(this);
    else
        pools.stack.back()->objects.push_back(this);
    return this;
}
