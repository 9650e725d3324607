// Load-time set-up of the capture layer and the thread hooks. Static initialisers run in this
// order when the library loads (init_priority): the device table is cleared (1001), the loading
// thread is recorded as the main thread (1002), the diagnostics module builds its globals
// (1003 to 1006), the registry lock is built (1007), the format caches are emptied (1008,
// 1009). Exit-time destructors undo them in reverse.
#include <pthread.h>

#include "tavixdevice.h"

namespace {

struct DeviceTableSetUp {
    DeviceTableSetUp() {
        for (TavixDevice& device : TavixDevices)
            device.Clear();
    }
} deviceTableSetUp __attribute__((init_priority(1001)));

struct MainThreadRecord {
    MainThreadRecord() : id(pthread_self()) {}
    pthread_t id;
} MainThreadId __attribute__((init_priority(1002)));

} // namespace

LLockObject TavixDeviceMutex __attribute__((init_priority(1007)));

void* TavixThreadInit() {
    return new NSAutoreleasePool;
}

void TavixThreadDestroy(void* pool) {
    if (pool != nullptr)
        static_cast<NSAutoreleasePool*>(pool)->drain();
}

bool TavixIsMainThread() {
    return pthread_equal(MainThreadId.id, pthread_self()) != 0;
}
