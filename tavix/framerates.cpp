// The frame rates a device offers and the one a capture uses, and the sound formats a device
// delivers in full (rate, channels, sample size), which the format records cannot carry.
//
// Both enumerations read the backend's own description of the device: they make no platform
// objects, so they leave nothing to release on the caller's thread and never probe the device.
#include <cmath>

#include "platform/pixelformats.h"
#include "tavixdevice.h"

namespace {

TavixFrameRate_C RecordOf(const platform::FrameRates& rates) {
    const platform::FrameInterval& fastest = rates.fastest;
    const platform::FrameInterval& slowest = rates.IsRange() ? rates.slowest : rates.fastest;
    TavixFrameRate_C record{};
    record.framesPerSecond = fastest.FramesPerSecond();
    record.minFramesPerSecond = slowest.FramesPerSecond();
    record.dwIntervalNumerator = fastest.numerator;
    record.dwIntervalDenominator = fastest.denominator;
    record.dwMaxIntervalNumerator = slowest.numerator;
    record.dwMaxIntervalDenominator = slowest.denominator;
    if (rates.IsRange() && !rates.step.IsEmpty()) {
        record.dwStepNumerator = rates.step.numerator;
        record.dwStepDenominator = rates.step.denominator;
    }
    return record;
}

// The backend of a valid handle's device; null for an invalid handle.
std::shared_ptr<platform::BackendDevice> BackendOf(unsigned long handle) {
    QTCaptureDevice* device = TavixDevice::GetQTDevice(handle);
    return device != nullptr ? device->backendDevice() : nullptr;
}

} // namespace

bool TavixDeviceFormatEnumerateFrameRates(unsigned long handle, unsigned long pixelFormat,
                                          unsigned long width, unsigned long height,
                                          TavixFrameRateEnumerateCallBack callBack, void* context) {
    const std::shared_ptr<platform::BackendDevice> backend = BackendOf(handle);
    if (backend == nullptr || callBack == nullptr)
        return false;
    // The same wish StartCapture would pass on: the rates are those of what the device streams
    // for it, also for a size it only reaches by scaling.
    platform::StreamRequest request;
    request.pixelFormat = CanonicalPixelFormat(static_cast<OSType>(pixelFormat));
    request.width = width <= 16384 ? width : 0;
    request.height = height <= 16384 ? height : 0;
    platform::DeviceFormat format;
    if (!backend->StreamFormatFor(request, format))
        return false;
    for (const platform::FrameRates& rates : format.rates) {
        if (rates.fastest.IsEmpty())
            continue;
        const TavixFrameRate_C record = RecordOf(rates);
        if (!callBack(&record, context))
            break;
    }
    return true;
}

bool TavixDeviceSetCaptureFrameRate(unsigned long handle, double framesPerSecond) {
    TavixDevice* device = TavixDevice::GetDevice(handle);
    if (device == nullptr || !std::isfinite(framesPerSecond) || framesPerSecond < 0)
        return false;
    device->dFrameRate = framesPerSecond;
    return true;
}

bool TavixDeviceGetCaptureFrameRate(unsigned long handle, double* framesPerSecond) {
    TavixDevice* device = TavixDevice::GetDevice(handle);
    if (device == nullptr || framesPerSecond == nullptr || !device->IsSessionRunning() ||
        device->pVideoOutput == nullptr)
        return false;
    const double delivered = device->pVideoOutput->DeliveredFrameRate();
    if (delivered <= 0)
        return false;
    *framesPerSecond = delivered;
    return true;
}

bool TavixDeviceEnumerateSoundFormats(unsigned long handle,
                                      TavixSoundFormatEnumerateCallBack callBack, void* context) {
    const std::shared_ptr<platform::BackendDevice> backend = BackendOf(handle);
    if (backend == nullptr || callBack == nullptr)
        return false;
    for (const platform::DeviceFormat& format : backend->Formats()) {
        const AudioStreamBasicDescription& audio = format.audio;
        if (format.kind == platform::MediaKind::Video || audio.mChannelsPerFrame == 0)
            continue;
        TavixSoundFormat_C record{};
        record.sampleRate = audio.mSampleRate;
        record.dwFormat = audio.mFormatID;
        record.dwFormatFlags = audio.mFormatFlags;
        record.dwChannels = audio.mChannelsPerFrame;
        record.dwBitsPerChannel = audio.mBitsPerChannel;
        if (!callBack(&record, context))
            break;
    }
    return true;
}
