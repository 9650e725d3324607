// Capture devices: the backends' devices under one list, keyed by unique id, so the same device
// is the same object for the life of the process.
#include <algorithm>
#include <map>

#include "platform/qtkit.h"

namespace {

std::mutex registryMutex;

// Devices listed so far, retained for the process (never released: hosts keep pointers).
std::map<std::string, QTCaptureDevice*>& Registry() {
    static auto* devices = new std::map<std::string, QTCaptureDevice*>;
    return *devices;
}

} // namespace

QTCaptureDevice::QTCaptureDevice(std::shared_ptr<platform::BackendDevice> backend)
    : device(std::move(backend)), info(device->Info()), displayName(new NSString(info.displayName)),
      uniqueIdentifier(new NSString(info.uniqueId)) {}

QTCaptureDevice::~QTCaptureDevice() {
    displayName->release();
    uniqueIdentifier->release();
}

std::shared_ptr<platform::BackendDevice> QTCaptureDevice::backendDevice() const {
    std::lock_guard<std::mutex> locked(mutex);
    return device;
}

void QTCaptureDevice::ReplaceBackendDevice(std::shared_ptr<platform::BackendDevice> replacement) {
    std::lock_guard<std::mutex> locked(mutex);
    // An open device keeps the backend object it was opened with.
    if (!openFlag.load())
        device = std::move(replacement);
}

NSArray* QTCaptureDevice::inputDevices() {
    std::vector<NSObject*> listed;
    std::lock_guard<std::mutex> locked(registryMutex);
    std::vector<std::string> seen;
    for (const platform::ListedDevice& found : platform::ListDevices(platform::DeviceBackends())) {
        QTCaptureDevice*& entry = Registry()[found.info.uniqueId];
        if (entry == nullptr)
            entry = new QTCaptureDevice(found.device);
        else
            entry->ReplaceBackendDevice(found.device);
        listed.push_back(entry);
        seen.push_back(found.info.uniqueId);
    }
    // A device that vanished while open stays listed, reporting that it is not connected.
    for (auto& entry : Registry())
        if (entry.second->isOpen() &&
            std::find(seen.begin(), seen.end(), entry.first) == seen.end())
            listed.push_back(entry.second);
    return NSArray::arrayWithObjects(listed);
}

QTCaptureDevice* QTCaptureDevice::deviceWithUniqueID(const NSString* uniqueID) {
    if (uniqueID == nullptr)
        return nullptr;
    std::lock_guard<std::mutex> locked(registryMutex);
    auto found = Registry().find(uniqueID->str());
    return found == Registry().end() ? nullptr : found->second;
}

bool QTCaptureDevice::hasMediaType(const NSString* mediaType) const {
    if (mediaType == nullptr)
        return false;
    if (mediaType->isEqualToString(QTMediaTypeMuxed))
        return info.isMuxed;
    if (mediaType->isEqualToString(QTMediaTypeVideo))
        return info.hasVideo && !info.isMuxed;
    if (mediaType->isEqualToString(QTMediaTypeSound))
        return info.hasSound && !info.isMuxed;
    return false;
}

bool QTCaptureDevice::isConnected() const {
    return backendDevice()->IsConnected();
}

bool QTCaptureDevice::isInUseByAnotherApplication() const {
    return backendDevice()->IsInUseByAnotherApplication();
}

bool QTCaptureDevice::open(NSError** error) {
    std::lock_guard<std::mutex> locked(mutex);
    if (openFlag.load())
        return true;
    if (!device->Open()) {
        NSSetError(error, "The device could not be opened.");
        return false;
    }
    openFlag = true;
    return true;
}

void QTCaptureDevice::close() {
    std::lock_guard<std::mutex> locked(mutex);
    if (!openFlag.load())
        return;
    device->Close();
    openFlag = false;
}

NSArray* QTCaptureDevice::formatDescriptions() const {
    std::vector<NSObject*> descriptions;
    for (const platform::DeviceFormat& format : backendDevice()->Formats())
        descriptions.push_back((new QTFormatDescription(format))->autorelease());
    return NSArray::arrayWithObjects(descriptions);
}

NSDictionary* QTCaptureDevice::deviceAttributes() const {
    auto* attributes = new NSMutableDictionary;
    const std::shared_ptr<platform::BackendDevice> backend = backendDevice();
    if (backend->HasTransport()) {
        const platform::TransportState state = backend->GetTransport();
        auto* transport = new NSDictionary(
            {{NSNumber::numberWithLong(state.speed), QTCaptureDeviceAVCTransportControlsSpeedKey},
             {NSNumber::numberWithUnsignedLong(state.playbackMode),
              QTCaptureDeviceAVCTransportControlsPlaybackModeKey}});
        attributes->setObject(transport, QTCaptureDeviceAVCTransportControlsAttribute);
        transport->release();
    }
    return static_cast<NSDictionary*>(attributes->autorelease());
}

NSObject* QTCaptureDevice::attributeForKey(const NSString* key) const {
    return deviceAttributes()->objectForKey(key);
}

void QTCaptureDevice::setAttribute(NSObject* value, const NSString* key) {
    if (key == nullptr || !key->isEqualToString(QTCaptureDeviceAVCTransportControlsAttribute))
        return;
    auto* controls = dynamic_cast<NSDictionary*>(value);
    const std::shared_ptr<platform::BackendDevice> backend = backendDevice();
    if (controls == nullptr || !backend->HasTransport())
        return;
    platform::TransportState state;
    if (auto* speed = dynamic_cast<NSNumber*>(
            controls->objectForKey(QTCaptureDeviceAVCTransportControlsSpeedKey)))
        state.speed = speed->longValue();
    if (auto* mode = dynamic_cast<NSNumber*>(
            controls->objectForKey(QTCaptureDeviceAVCTransportControlsPlaybackModeKey)))
        state.playbackMode = mode->unsignedLongValue();
    backend->SetTransport(state);
}
