#include "platform/cfbase.h"

#include "cfruntime.h"

namespace {

// Every object handed out as a CFTypeRef is a __CFRuntimeBase at the same address: each object
// type derives from it alone.
const __CFRuntimeBase* Base(CFTypeRef object) {
    return static_cast<const __CFRuntimeBase*>(object);
}

} // namespace

CFTypeRef CFRetain(CFTypeRef object) {
    if (object != nullptr)
        Base(object)->references.fetch_add(1, std::memory_order_relaxed);
    return object;
}

void CFRelease(CFTypeRef object) {
    if (object == nullptr || Base(object)->references.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    delete Base(object);
}
