// The exported C interface: each function checks the handle against the registry and forwards
// to one member of the device slot.
#include "tavixdevice.h"
#include "tavixdeviceformat.h"

namespace {

// Objects the platform autoreleases on a thread without a pool (the host's main thread, as a
// rule) are released when the outermost call into the library returns; nothing the library
// made during a call is used after it.
class CallScope {
public:
    CallScope() { ++Depth(); }
    ~CallScope() {
        if (--Depth() == 0)
            NSAutoreleasePool::drainThreadOrphans();
    }

private:
    static int& Depth() {
        thread_local int depth = 0;
        return depth;
    }
};

template <class Result, class Action>
Result WithDevice(unsigned long handle, Result invalid, Action action) {
    CallScope scope;
    TavixDevice* device = TavixDevice::GetDevice(handle);
    return device != nullptr ? action(*device) : invalid;
}

class CallBackEnumerator : public ITavixDeviceEnumerator {
public:
    CallBackEnumerator(TavixDeviceEnumerateCallBack callBack, void* context)
        : callBack(callBack), context(context) {}
    bool OnDevice(const char* name) override { return callBack(name, context); }

private:
    TavixDeviceEnumerateCallBack callBack;
    void* context;
};

class CallBackFormatEnumerator : public ITavixDeviceFormatEnumerator {
public:
    CallBackFormatEnumerator(TavixDeviceFormatEnumerateCallBack callBack, void* context)
        : callBack(callBack), context(context) {}
    bool OnDeviceFormatAudio(unsigned long format) override {
        const TavixDeviceFormat_C record = {static_cast<unsigned int>(format), 0, 0, 0};
        return callBack(&record, false, context);
    }
    bool OnDeviceFormatVideo(unsigned long format, unsigned long width,
                             unsigned long height) override {
        const TavixDeviceFormat_C record = {static_cast<unsigned int>(format),
                                            static_cast<unsigned int>(width),
                                            static_cast<unsigned int>(height), 0};
        return callBack(&record, true, context);
    }

private:
    TavixDeviceFormatEnumerateCallBack callBack;
    void* context;
};

} // namespace

bool TavixHasUsedDevices() {
    return TavixDevice::HasUsedDevices();
}

bool TavixDumpUsedDevices() {
    return TavixDevice::DumpUsedDevices();
}

void TavixDeviceEnumerate(ITavixDeviceEnumerator* enumerator, TavixDeviceMediaType type,
                          unsigned int flags) {
    CallScope scope;
    if (enumerator == nullptr)
        return;
    TavixDeviceEnumeratorExWrapper wrapper(enumerator, type, flags);
    TavixDevice::Enumerate(&wrapper);
}

bool TavixDeviceFormatEnumerate(unsigned long handle, ITavixDeviceFormatEnumerator* enumerator) {
    CallScope scope;
    QTCaptureDevice* device = TavixDevice::GetQTDevice(handle);
    if (device == nullptr)
        return false;
    return TavixDeviceFormatEnumerateEx(device, enumerator);
}

unsigned long TavixDeviceGet(const char* name, TavixDeviceMediaType type) {
    if (name == nullptr || name[0] == 0)
        return 0;
    CallScope scope;
    LLockObjectLocker locked(TavixDeviceMutex);
    TavixDevice* device = TavixDevice::GetDevice(name, type);
    if (device == nullptr)
        device = TavixDevice::CreateDevice(name, type);
    if (device == nullptr)
        return 0;
    device->Retain();
    return device->Handle();
}

bool TavixDeviceRetain(unsigned long handle) {
    CallScope scope;
    LLockObjectLocker locked(TavixDeviceMutex);
    TavixDevice* device = TavixDevice::GetDevice(handle);
    if (device != nullptr)
        device->Retain();
    return device != nullptr;
}

bool TavixDeviceRelease(unsigned long handle) {
    CallScope scope;
    std::shared_ptr<TavixControlWatch> endedWatch;
    {
        LLockObjectLocker locked(TavixDeviceMutex);
        TavixDevice* device = TavixDevice::GetDevice(handle);
        if (device == nullptr)
            return false;
        endedWatch = device->Release();
    }
    if (endedWatch != nullptr)
        TavixEndControlWatch(endedWatch);
    return true;
}

bool TavixDeviceOpen(unsigned long handle) {
    return WithDevice(handle, false, [](TavixDevice& d) { return d.Open(); });
}

bool TavixDeviceClose(unsigned long handle) {
    return WithDevice(handle, false, [](TavixDevice& d) { return d.Close(); });
}

bool TavixDeviceCloseAudioDevice(unsigned long handle) {
    return WithDevice(handle, false, [](TavixDevice& d) { return d.CloseAudioDevice(); });
}

bool TavixDeviceCloseAllAudioDevices() {
    CallScope scope;
    return TavixDevice::CloseAllAudioDevices();
}

bool TavixDeviceIsOpened(unsigned long handle) {
    return WithDevice(handle, false, [](TavixDevice& d) { return d.IsOpened(); });
}

bool TavixDeviceHasMediaType(unsigned long handle, TavixDeviceMediaType type) {
    return WithDevice(handle, false, [type](TavixDevice& d) { return d.HasMediaType(type); });
}

bool TavixDeviceIsTransportAvailable(unsigned long handle) {
    return WithDevice(handle, false, [](TavixDevice& d) { return d.IsTransportAvailable(); });
}

TavixDeviceTransportMode TavixDeviceGetTransportMode(unsigned long handle) {
    return WithDevice(handle, TavixDeviceTransportModeStop, [](TavixDevice& d) {
        return d.IsTransportAvailable() ? d.GetTransportMode()
                                        : TavixDeviceTransportModeUnavailable;
    });
}

void TavixDeviceSetTransportMode(unsigned long handle, TavixDeviceTransportMode mode) {
    WithDevice(handle, 0, [mode](TavixDevice& d) {
        d.SetTransportMode(mode);
        return 0;
    });
}

bool TavixDeviceStartCapture(unsigned long handle, TavixDeviceVideoCallBack videoCallBack,
                             long videoCallBackData, unsigned long pixelFormat, unsigned long width,
                             unsigned long height, TavixDeviceAudioCallBack audioCallBack,
                             long audioCallBackData, unsigned int sampleFormatFlags,
                             unsigned long sampleRate, unsigned long channels,
                             unsigned long bytesPerSample, const char* outputFilePath) {
    return WithDevice(handle, false, [&](TavixDevice& d) {
        return d.StartCapture(videoCallBack, videoCallBackData, pixelFormat, width, height,
                              audioCallBack, audioCallBackData, sampleFormatFlags, sampleRate,
                              channels, bytesPerSample, outputFilePath);
    });
}

bool TavixDeviceStartCaptureWithAudioDevice(
    unsigned long handle, const char* audioDeviceName, TavixDeviceVideoCallBack videoCallBack,
    long videoCallBackData, unsigned long pixelFormat, unsigned long width, unsigned long height,
    TavixDeviceAudioCallBack audioCallBack, long audioCallBackData, unsigned int sampleFormatFlags,
    unsigned long sampleRate, unsigned long channels, unsigned long bytesPerSample,
    const char* outputFilePath) {
    return WithDevice(handle, false, [&](TavixDevice& d) {
        if (audioDeviceName == nullptr || audioDeviceName[0] == 0)
            return false;
        d.CreateAudioDevice(audioDeviceName);
        return d.StartCapture(videoCallBack, videoCallBackData, pixelFormat, width, height,
                              audioCallBack, audioCallBackData, sampleFormatFlags, sampleRate,
                              channels, bytesPerSample, outputFilePath);
    });
}

bool TavixDeviceStopCapture(unsigned long handle) {
    return WithDevice(handle, false, [](TavixDevice& d) { return d.StopCapture(); });
}

bool TavixDeviceStopRecording(unsigned long handle) {
    return WithDevice(handle, false, [](TavixDevice& d) { return d.StopRecording(); });
}

bool TavixDeviceGetRecordingFrameCounts(unsigned long handle, unsigned long* recorded,
                                        unsigned long* notRecorded) {
    return WithDevice(handle, false, [&](TavixDevice& d) {
        return d.GetRecordingFrameCounts(recorded, notRecorded);
    });
}

bool TavixDeviceIsCapturing(unsigned long handle) {
    return WithDevice(handle, false, [](TavixDevice& d) { return d.IsCapturing(); });
}

bool TavixDeviceGetSMPTETime(unsigned long handle, SMPTETime* time) {
    return WithDevice(handle, false, [time](TavixDevice& d) { return d.GetSMPTETime(time); });
}

bool TavixDeviceInvalidateCaptureVideoCallBack(unsigned long handle,
                                               TavixDeviceVideoCallBack callBack,
                                               long callBackData) {
    return WithDevice(handle, false, [&](TavixDevice& d) {
        return d.InvalidateCaptureVideoCallBack(callBack, callBackData);
    });
}

bool TavixDeviceInvalidateCaptureAudioCallBack(unsigned long handle,
                                               TavixDeviceAudioCallBack callBack,
                                               long callBackData) {
    return WithDevice(handle, false, [&](TavixDevice& d) {
        return d.InvalidateCaptureAudioCallBack(callBack, callBackData);
    });
}

bool TavixDeviceIsConnected(unsigned long handle) {
    return WithDevice(handle, false, [](TavixDevice& d) { return d.IsConnected(); });
}

bool TavixDeviceIsUsedByAnotherApplication(unsigned long handle) {
    return WithDevice(handle, false, [](TavixDevice& d) { return d.IsUsedByAnotherApplication(); });
}

unsigned long TavixDeviceSMPTE2Milliseconds(const SMPTETime* time) {
    if (time == nullptr)
        return 0;
    float rate;
    switch (time->mType) {
    case 0:
        rate = 24.0f;
        break;
    case 1:
        rate = 25.0f;
        break;
    case 2:
    case 3:
        rate = 30.0f;
        break;
    case 4:
    case 5:
        rate = 29.97f;
        break;
    case 6:
        rate = 60.0f;
        break;
    case 7:
        rate = 59.94f;
        break;
    default:
        rate = 25.0f;
        break;
    }
    // 32-bit arithmetic that wraps (done unsigned, where wrapping is defined) for out-of-range
    // fields such as 32767 hours or negative minutes.
    const auto widened = [](int16_t field) { return static_cast<uint32_t>(int32_t{field}); };
    const uint32_t whole = widened(time->mHours) * 3600000u + widened(time->mMinutes) * 60000u +
                           widened(time->mSeconds) * 1000u;
    float frames = static_cast<float>(time->mFrames) * 1000.0f / rate;
    if (!(frames > 0.0f))
        frames = 0.0f;
    const uint32_t framePart =
        frames >= 4294967296.0f ? 4294967295u : static_cast<uint32_t>(frames);
    return static_cast<uint32_t>(whole + framePart);
}

void TavixDeviceEnumerateWithCallBack(TavixDeviceEnumerateCallBack callBack, void* context,
                                      TavixDeviceMediaType type, unsigned int flags) {
    if (callBack == nullptr)
        return;
    CallBackEnumerator enumerator(callBack, context);
    TavixDeviceEnumerate(&enumerator, type, flags);
}

bool TavixDeviceFormatEnumerateWithCallBack(unsigned long handle,
                                            TavixDeviceFormatEnumerateCallBack callBack,
                                            void* context) {
    if (callBack == nullptr)
        return false;
    CallBackFormatEnumerator enumerator(callBack, context);
    return TavixDeviceFormatEnumerate(handle, &enumerator);
}
