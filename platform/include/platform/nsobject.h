// The platform's object runtime: every platform object derives from NSObject and is
// reference-counted. An object starts with one reference owned by whoever created it;
// release() deletes it when the last reference goes. Counts are atomic, so references may be
// taken and dropped on any thread.
#pragma once

#include <atomic>

class NSObject {
public:
    NSObject() = default;
    NSObject(const NSObject&) = delete;
    NSObject& operator=(const NSObject&) = delete;

    // Adds a reference; returns this object, so `field = object->retain()` reads naturally.
    NSObject* retain() {
        refCount.fetch_add(1, std::memory_order_relaxed);
        return this;
    }

    // Drops a reference; the last one calls dealloc, which deletes the object.
    void release() {
        if (refCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
            dealloc();
    }

    // Hands one reference to the calling thread's innermost autorelease pool, which releases it
    // when the pool is drained. What happens on a thread without a pool is the pool's choice
    // (see its header).
    NSObject* autorelease();

    // Current number of references, for tests.
    int retainCount() const { return refCount.load(std::memory_order_relaxed); }

protected:
    virtual ~NSObject() = default;
    // Runs when the last reference goes. A class that recycles its objects (a buffer pool)
    // overrides it and revives the object with Revive instead of deleting it.
    virtual void dealloc() { delete this; }
    void Revive() { refCount.store(1, std::memory_order_relaxed); }

private:
    std::atomic<int> refCount{1};
};

// Holds one reference for a scope, so an object outlives a call that may drop every other
// reference to it (a delegate whose host callback stops and releases its own session).
class NSScopedRetain {
public:
    explicit NSScopedRetain(NSObject* object) : object(object) { object->retain(); }
    ~NSScopedRetain() { object->release(); }
    NSScopedRetain(const NSScopedRetain&) = delete;
    NSScopedRetain& operator=(const NSScopedRetain&) = delete;

private:
    NSObject* object;
};
