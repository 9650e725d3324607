// Per-thread autorelease pools.
#include <pthread.h>

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

void DestroyThreadPools(void* pools) {
    delete static_cast<ThreadPools*>(pools);
}

// The pools live under a thread key rather than in a thread_local object: a thread_local with a
// destructor would keep the library mapped after dlclose for as long as the loading thread
// lives. The key goes with the library; the unloading thread's leftovers are released then.
struct PoolKey {
    pthread_key_t key{};
    bool valid = false;
    PoolKey() { valid = pthread_key_create(&key, DestroyThreadPools) == 0; }
    ~PoolKey() {
        if (!valid)
            return;
        DestroyThreadPools(pthread_getspecific(key));
        pthread_setspecific(key, nullptr);
        pthread_key_delete(key);
        valid = false;
    }
};

PoolKey poolKey;

ThreadPools& CurrentThreadPools() {
    if (!poolKey.valid) {
        // Before the key exists or after it is gone (static set-up and tear-down): one shared
        // set of pools, kept for the life of the process.
        static ThreadPools* const unkeyed = new ThreadPools;
        return *unkeyed;
    }
    auto* pools = static_cast<ThreadPools*>(pthread_getspecific(poolKey.key));
    if (pools == nullptr) {
        pools = new ThreadPools;
        pthread_setspecific(poolKey.key, pools);
    }
    return *pools;
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
