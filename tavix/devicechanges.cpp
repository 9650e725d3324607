// Devices that come and go, and their lasting ids: the change callback (forwarded from the
// platform's device monitor), enumeration with unique ids, and look-up by unique id or node path.
#include <cstring>
#include <string>

#include "platform/devicemonitor.h"
#include "tavixdevice.h"

namespace {

// Objects the platform autoreleases during one of these calls go with it, even on a thread
// without a pool of its own (the device monitor's, a host's).
class PoolScope {
public:
    PoolScope() : pool(new NSAutoreleasePool) {}
    ~PoolScope() { pool->drain(); }

private:
    NSAutoreleasePool* pool;
};

TavixDeviceMediaType TypeOf(platform::MediaKind kind) {
    switch (kind) {
    case platform::MediaKind::Muxed:
        return TavixDeviceMediaTypeMuxed;
    case platform::MediaKind::Sound:
        return TavixDeviceMediaTypeSound;
    default:
        return TavixDeviceMediaTypeVideo;
    }
}

TavixDeviceMediaType TypeOf(QTCaptureDevice* device) {
    if (device->hasMediaType(QTMediaTypeMuxed))
        return TavixDeviceMediaTypeMuxed;
    return device->hasMediaType(QTMediaTypeVideo) ? TavixDeviceMediaTypeVideo
                                                  : TavixDeviceMediaTypeSound;
}

class UniqueIDEnumerator : public ITavixDeviceEnumeratorEx {
public:
    UniqueIDEnumerator(TavixDeviceEnumerateWithUniqueIDsCallBack callBack, void* context,
                       TavixDeviceMediaType type, unsigned int flags)
        : callBack(callBack), context(context), type(type), flags(flags) {}

    bool OnDevice(const char* name, QTCaptureDevice* device) override {
        if (!TavixDevice::HasMediaType(device, type))
            return true;
        const bool connected = device->isConnected();
        if (!connected && (flags & 1) == 0)
            return true;
        return callBack(name, device->uniqueID()->UTF8String(), TypeOf(device), connected, context);
    }

private:
    TavixDeviceEnumerateWithUniqueIDsCallBack callBack;
    void* context;
    TavixDeviceMediaType type;
    unsigned int flags;
};

// The listed device with this unique id; null when it is not listed now.
QTCaptureDevice* ListedDevice(const std::string& uniqueId) {
    NSArray* devices = QTCaptureDevice::inputDevices();
    for (size_t i = 0; i < devices->count(); ++i) {
        auto* device = static_cast<QTCaptureDevice*>(devices->objectAtIndex(i));
        if (device != nullptr && device->uniqueID()->str() == uniqueId)
            return device;
    }
    return nullptr;
}

// The slot holding the device, or a new one for it; null when every slot is in use. Under
// TavixDeviceMutex.
TavixDevice* SlotFor(QTCaptureDevice* device) {
    TavixDevice* free = nullptr;
    for (TavixDevice& slot : TavixDevices) {
        if (slot.IsInUse() && slot.pDevice == device)
            return &slot;
        if (free == nullptr && !slot.IsInUse())
            free = &slot;
    }
    if (free == nullptr)
        return nullptr;
    free->Clear();
    free->pDevice = static_cast<QTCaptureDevice*>(device->retain());
    // The slot goes by the device's display name, as one found by name does, so TavixDeviceGet
    // with that name finds the same handle.
    const char* name = device->localizedDisplayName()->UTF8String();
    strncpy(free->szName, name, sizeof free->szName - 1);
    free->szName[sizeof free->szName - 1] = 0;
    return free;
}

} // namespace

bool TavixDeviceSetChangeCallBack(TavixDeviceChangeCallBack callBack, void* context) {
    if (callBack == nullptr)
        return platform::SetDeviceChangeListener(nullptr);
    return platform::SetDeviceChangeListener(
        [callBack, context](const platform::DeviceChange& change) {
            PoolScope pool;
            callBack(change.displayName.c_str(), change.uniqueId.c_str(), TypeOf(change.kind),
                     change.arrived, context);
        });
}

void TavixDeviceEnumerateWithUniqueIDs(TavixDeviceEnumerateWithUniqueIDsCallBack callBack,
                                       void* context, TavixDeviceMediaType type,
                                       unsigned int flags) {
    if (callBack == nullptr)
        return;
    PoolScope pool;
    UniqueIDEnumerator enumerator(callBack, context, type, flags);
    TavixDevice::Enumerate(&enumerator);
}

unsigned long TavixDeviceGetWithUniqueID(const char* uniqueIdOrNodePath) {
    if (uniqueIdOrNodePath == nullptr || uniqueIdOrNodePath[0] == 0)
        return 0;
    PoolScope pool;
    const std::string uniqueId = uniqueIdOrNodePath[0] == '/'
                                     ? platform::UniqueIdOfNode(uniqueIdOrNodePath)
                                     : std::string(uniqueIdOrNodePath);
    if (uniqueId.empty())
        return 0;
    LLockObjectLocker locked(TavixDeviceMutex);
    QTCaptureDevice* device = ListedDevice(uniqueId);
    TavixDevice* slot = device != nullptr ? SlotFor(device) : nullptr;
    if (slot == nullptr)
        return 0;
    slot->Retain();
    return slot->Handle();
}

bool TavixDeviceGetUniqueID(unsigned long handle, char* buffer, size_t size) {
    QTCaptureDevice* device = TavixDevice::GetQTDevice(handle);
    if (buffer == nullptr)
        return false;
    if (size > 0)
        buffer[0] = 0;
    if (device == nullptr)
        return false;
    const std::string& uniqueId = device->uniqueID()->str();
    if (uniqueId.size() >= size)
        return false;
    memcpy(buffer, uniqueId.c_str(), uniqueId.size() + 1);
    return true;
}
