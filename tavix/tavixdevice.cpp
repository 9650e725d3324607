// The device registry and the members of a device slot: look-up, reference counting, opening,
// the companion audio device, the capture session, transport and timecode.
#include "tavixdevice.h"

#include <cstring>

#include "llib/mac/genutils.h"

// Built before the load-time set-up clears it (1001): a slot holds error texts.
TavixDevice TavixDevices[kTavixDeviceCount] __attribute__((init_priority(1000)));

namespace {

// Takes a part out of the session (when there is one) and releases the slot's reference.
void RemoveInput(QTCaptureSession* session, QTCaptureDeviceInput*& input) {
    if (input == nullptr)
        return;
    if (session != nullptr)
        session->removeInput(input);
    NSReleaseIfSet(input);
}

template <class Output>
void RemoveOutput(QTCaptureSession* session, Output*& output) {
    if (output == nullptr)
        return;
    if (session != nullptr)
        session->removeOutput(output);
    NSReleaseIfSet(output);
}

bool EqualIgnoringASCIICase(const char* a, const char* b) {
    for (;; ++a, ++b) {
        unsigned char x = static_cast<unsigned char>(*a), y = static_cast<unsigned char>(*b);
        if (x >= 'A' && x <= 'Z')
            x = static_cast<unsigned char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z')
            y = static_cast<unsigned char>(y - 'A' + 'a');
        if (x != y)
            return false;
        if (x == 0)
            return true;
    }
}

// Adds the session's reason for a refusal (or fallback when it gave none) to the slot's text.
void NoteRefusal(std::string& text, const NSError* error, const char* fallback) {
    const char* reason = error != nullptr ? error->localizedDescription() : fallback;
    text += (text.empty() ? "" : " ") + std::string(reason);
}

void CopyName(char (&target)[260], const char* name) {
    strncpy(target, name, sizeof target - 1);
    target[sizeof target - 1] = 0;
}

// Speed and playback mode of each transport mode.
struct TransportSetting {
    long speed;
    unsigned long playbackMode;
};
const TransportSetting kTransportSettings[] = {{0, 0},     {10000, 1},  {-19000, 0},
                                               {19000, 0}, {-13000, 1}, {13000, 1}};

} // namespace

// The registry: enumeration, look-up, creation and reference counting.

void TavixDevice::Enumerate(ITavixDeviceEnumeratorEx* enumerator) {
    if (enumerator == nullptr)
        return;
    NSArray* devices = QTCaptureDevice::inputDevices();
    const size_t count = devices->count();
    for (size_t i = 0; i < count; ++i) {
        auto* device = static_cast<QTCaptureDevice*>(devices->objectAtIndex(i));
        if (device == nullptr)
            continue;
        NSString* displayName = device->localizedDisplayName();
        const char* name = displayName != nullptr
                               ? displayName->cStringUsingEncoding(NSUTF8StringEncoding)
                               : nullptr;
        if (name == nullptr)
            continue;
        if (!enumerator->OnDevice(name, device))
            return;
    }
}

bool TavixDeviceFinder::OnDevice(const char* name, QTCaptureDevice* device) {
    if (!EqualIgnoringASCIICase(name, pszName) || !TavixDevice::HasMediaType(device, MediaType))
        return true;
    pFoundDevice = device;
    return false;
}

bool TavixDeviceEnumeratorExWrapper::OnDevice(const char* name, QTCaptureDevice* device) {
    if (!TavixDevice::HasMediaType(device, MediaType))
        return true;
    if (!device->isConnected() && (dwFlags & 1) == 0)
        return true;
    return pEnumerator->OnDevice(name);
}

TavixDevice* TavixDevice::GetDevice(unsigned long handle) {
    const unsigned long first = reinterpret_cast<unsigned long>(&TavixDevices[0]);
    const unsigned long end = reinterpret_cast<unsigned long>(&TavixDevices[kTavixDeviceCount]);
    if (handle < first || handle >= end)
        return nullptr;
    // Only the start of a slot is a handle; an address inside one is not.
    if ((handle - first) % sizeof(TavixDevice) != 0)
        return nullptr;
    TavixDevice* device = reinterpret_cast<TavixDevice*>(handle);
    return device->IsInUse() ? device : nullptr;
}

QTCaptureDevice* TavixDevice::GetQTDevice(unsigned long handle) {
    TavixDevice* device = GetDevice(handle);
    return device != nullptr ? device->pDevice : nullptr;
}

TavixDevice* TavixDevice::GetDevice(const char* name, TavixDeviceMediaType type) {
    if (name == nullptr)
        return nullptr;
    for (TavixDevice& device : TavixDevices)
        if (device.IsInUse() && EqualIgnoringASCIICase(device.szName, name) &&
            HasMediaType(device.pDevice, type))
            return &device;
    return nullptr;
}

TavixDevice* TavixDevice::CreateDevice(const char* name, TavixDeviceMediaType type) {
    if (TavixDevice* existing = GetDevice(name, type))
        return existing;
    TavixDevice* slot = nullptr;
    for (TavixDevice& device : TavixDevices)
        if (!device.IsInUse()) {
            slot = &device;
            break;
        }
    if (slot == nullptr)
        return nullptr;
    TavixDeviceFinder finder(name, type);
    Enumerate(&finder);
    if (finder.pFoundDevice == nullptr)
        return nullptr;
    slot->Clear();
    slot->pDevice = static_cast<QTCaptureDevice*>(finder.pFoundDevice->retain());
    CopyName(slot->szName, name);
    slot->nRefCount = 0;
    return slot;
}

void TavixDevice::Retain() {
    ++nRefCount;
}

std::shared_ptr<TavixControlWatch> TavixDevice::Release() {
    if (nRefCount - 1 <= 0 && IsSessionRunning())
        StopRecording();
    if (IsSessionRunning())
        return nullptr;
    if (--nRefCount > 0)
        return nullptr;
    std::shared_ptr<TavixControlWatch> watch;
    {
        LLockObjectLocker locked(ControlMutex);
        watch = std::move(pControlWatch);
    }
    // A session that is not running (a refused start, or one stopped by a change of the audio
    // device) is left alone by StopCapture, which tears down only a running one; nobody else
    // can release those objects, so the last reference does.
    TearDownSession();
    NSReleaseIfSet(pDevice);
    NSReleaseIfSet(pAudioDevice);
    Clear();
    return watch;
}

void TavixDevice::Clear() {
    if (IsSessionRunning())
        return;
    szName[0] = 0;
    szAudioDeviceName[0] = 0;
    pDevice = nullptr;
    pAudioDevice = nullptr;
    pSession = nullptr;
    pDeviceInput = nullptr;
    pAudioDeviceInput = nullptr;
    pVideoOutput = nullptr;
    pVideoDelegate = nullptr;
    pAudioOutput = nullptr;
    pAudioDelegate = nullptr;
    pMovieFileOutput = nullptr;
    bRecorded = false;
    dwFramesRecorded = dwFramesNotRecorded = 0;
    sStartError.clear();
    sRecordingError.clear();
    dFrameRate = 0;
    RecordingEncoding = MovieEncoding();
    nRefCount = 0;
    LLockObjectLocker locked(ControlMutex);
    sControlError.clear();
    pControlWatch.reset();
}

bool TavixDevice::HasUsedDevices() {
    for (const TavixDevice& device : TavixDevices)
        if (device.IsInUse())
            return true;
    return false;
}

bool TavixDevice::DumpUsedDevices() {
    bool used = false;
    for (const TavixDevice& device : TavixDevices)
        used = used || device.IsInUse();
    return used;
}

bool TavixDevice::IsMediaTypeSupported(TavixDeviceMediaType type) {
    switch (type) {
    case TavixDeviceMediaTypeAny:
        return IsMediaTypeSupported(TavixDeviceMediaTypeSound) ||
               IsMediaTypeSupported(TavixDeviceMediaTypeVideo) ||
               IsMediaTypeSupported(TavixDeviceMediaTypeMuxed);
    case TavixDeviceMediaTypeSound:
        return NSClassFromString("QTCaptureDecompressedAudioOutput") != nullptr;
    case TavixDeviceMediaTypeMuxed:
        return IsOSMacLeopardOrLater();
    default:
        return true;
    }
}

bool TavixDevice::HasMediaType(QTCaptureDevice* device, TavixDeviceMediaType type) {
    if (device == nullptr || !IsMediaTypeSupported(type))
        return false;
    switch (type) {
    case TavixDeviceMediaTypeAny:
        return HasMediaType(device, TavixDeviceMediaTypeVideo) ||
               HasMediaType(device, TavixDeviceMediaTypeSound) ||
               HasMediaType(device, TavixDeviceMediaTypeMuxed);
    case TavixDeviceMediaTypeSound:
        return device->hasMediaType(QTMediaTypeSound) || device->hasMediaType(QTMediaTypeMuxed);
    case TavixDeviceMediaTypeMuxed:
        return device->hasMediaType(QTMediaTypeMuxed);
    default:
        return device->hasMediaType(QTMediaTypeVideo) || device->hasMediaType(QTMediaTypeMuxed);
    }
}

bool TavixDevice::HasMediaType(TavixDeviceMediaType type) const {
    return HasMediaType(pDevice, type);
}

// Open, close and the companion audio device.

bool TavixDevice::Open() {
    if (pDevice->isOpen())
        return true;
    NSError* error = nullptr;
    return pDevice->open(&error);
}

bool TavixDevice::Close() {
    if (!pDevice->isOpen())
        return true;
    pDevice->close();
    if (pAudioDevice != nullptr && pAudioDevice->isOpen())
        pAudioDevice->close();
    return true;
}

bool TavixDevice::IsOpened() const {
    return pDevice->isOpen();
}

bool TavixDevice::IsConnected() const {
    return pDevice->isConnected();
}

bool TavixDevice::IsUsedByAnotherApplication() const {
    return pDevice->isInUseByAnotherApplication();
}

void TavixDevice::CreateAudioDevice(const char* name) {
    if (name == nullptr || name[0] == 0 || strcmp(name, szAudioDeviceName) == 0)
        return;
    if (szAudioDeviceName[0] != 0) {
        if (pSession != nullptr)
            pSession->stopRunning();
        RemoveInput(pSession, pAudioDeviceInput);
        RemoveOutput(pSession, pAudioOutput);
        NSReleaseIfSet(pAudioDelegate);
        NSReleaseIfSet(pAudioDevice);
    }
    CopyName(szAudioDeviceName, name);
    TavixDeviceFinder finder(szAudioDeviceName, TavixDeviceMediaTypeSound);
    Enumerate(&finder);
    pAudioDevice = finder.pFoundDevice != nullptr
                       ? static_cast<QTCaptureDevice*>(finder.pFoundDevice->retain())
                       : nullptr;
}

bool TavixDevice::CloseAudioDevice() {
    if (szAudioDeviceName[0] == 0)
        return true;
    if (pSession != nullptr) {
        pSession->stopRunning();
        if (pSession->isRunning())
            return false;
    }
    RemoveInput(pSession, pAudioDeviceInput);
    RemoveOutput(pSession, pAudioOutput);
    NSReleaseIfSet(pAudioDelegate);
    if (pAudioDevice == nullptr)
        return false;
    if (pAudioDevice->isOpen())
        pAudioDevice->close();
    NSReleaseIfSet(pAudioDevice);
    szAudioDeviceName[0] = 0;
    return true;
}

bool TavixDevice::CloseAllAudioDevices() {
    bool all = true;
    for (TavixDevice& device : TavixDevices)
        all = device.CloseAudioDevice() && all;
    return all;
}

// Capture.

bool TavixDevice::StartCapture(TavixDeviceVideoCallBack videoCallBack, long videoCallBackData,
                               unsigned long pixelFormat, unsigned long width, unsigned long height,
                               TavixDeviceAudioCallBack audioCallBack, long audioCallBackData,
                               unsigned int sampleFormatFlags, unsigned long sampleRate,
                               unsigned long channels, unsigned long bytesPerSample,
                               const char* outputFilePath) {
    NSError* error = nullptr;
    sStartError.clear();
    if (pMovieFileOutput == nullptr)
        sRecordingError.clear();
    if (pSession == nullptr)
        pSession = new QTCaptureSession;
    if (pDeviceInput == nullptr) {
        pDeviceInput = new QTCaptureDeviceInput(pDevice);
        error = nullptr;
        if (!pSession->addInput(pDeviceInput, &error)) {
            NoteRefusal(sStartError, error, "The session refused the device.");
            StopCapture();
            return false;
        }
    }
    if (videoCallBack != nullptr) {
        if (pVideoDelegate == nullptr)
            pVideoDelegate =
                new TavixDeviceDecompressedVideoOutputDelegate(videoCallBack, videoCallBackData);
        if (pVideoOutput == nullptr)
            pVideoOutput = new QTCaptureDecompressedVideoOutput;
        pVideoOutput->setDelegate(pVideoDelegate);
        pVideoOutput->setMinimumVideoFrameInterval(dFrameRate > 0 ? 1 / dFrameRate : 0);
        if (pixelFormat != 0 || width != 0 || height != 0) {
            auto* attributes = new NSMutableDictionary;
            if (pixelFormat != 0)
                attributes->setObject(
                    NSNumber::numberWithUnsignedInt(static_cast<unsigned int>(pixelFormat)),
                    kCVPixelBufferPixelFormatTypeKey);
            if (width != 0)
                attributes->setObject(
                    NSNumber::numberWithDouble(static_cast<double>(static_cast<uint32_t>(width))),
                    kCVPixelBufferWidthKey);
            if (height != 0)
                attributes->setObject(
                    NSNumber::numberWithDouble(static_cast<double>(static_cast<uint32_t>(height))),
                    kCVPixelBufferHeightKey);
            if (attributes->allKeys()->count() > 0)
                pVideoOutput->setPixelBufferAttributes(attributes);
            attributes->release();
        }
        error = nullptr;
        if (!pSession->addOutput(pVideoOutput, &error)) {
            NoteRefusal(sStartError, error, "The session refused the video output.");
            StopCapture();
            return false;
        }
    }
    if (audioCallBack != nullptr) {
        if (!HasMediaType(pDevice, TavixDeviceMediaTypeSound) && pAudioDevice == nullptr &&
            szAudioDeviceName[0] != 0)
            NoteRefusal(
                sStartError, nullptr,
                ("No sound device named \"" + std::string(szAudioDeviceName) + "\" was found.")
                    .c_str());
        if (!HasMediaType(pDevice, TavixDeviceMediaTypeSound) && pAudioDevice != nullptr) {
            error = nullptr;
            if (!pAudioDevice->open(&error)) {
                NoteRefusal(sStartError, error, "The sound device did not open.");
            } else if (pAudioDeviceInput == nullptr) {
                pAudioDeviceInput = new QTCaptureDeviceInput(pAudioDevice);
                error = nullptr;
                // A refusal leaves capture without this sound.
                if (!pSession->addInput(pAudioDeviceInput, &error))
                    NoteRefusal(sStartError, error, "The session refused the sound device.");
            }
        }
        if (pAudioDelegate == nullptr)
            pAudioDelegate = new TavixDeviceDecompressedAudioOutputDelegate(
                audioCallBack, audioCallBackData, sampleFormatFlags, sampleRate, channels,
                bytesPerSample);
        if (pAudioOutput == nullptr)
            pAudioOutput = new QTCaptureDecompressedAudioOutput;
        pAudioOutput->setDelegate(pAudioDelegate);
        error = nullptr;
        if (!pSession->addOutput(pAudioOutput, &error)) {
            NoteRefusal(sStartError, error, "The session refused the audio output.");
            pAudioOutput->setDelegate(nullptr);
            NSReleaseIfSet(pAudioOutput);
            NSReleaseIfSet(pAudioDelegate);
        }
    }
    if (outputFilePath != nullptr && pMovieFileOutput == nullptr) {
        pMovieFileOutput = new QTCaptureMovieFileOutput;
        pMovieFileOutput->setEncoding(RecordingEncoding);
        pMovieFileOutput->recordToOutputFileURL(
            NSURL::fileURLWithPath(NSString::stringWithUTF8String(outputFilePath)));
        error = nullptr;
        if (!pSession->addOutput(pMovieFileOutput, &error)) {
            NoteRefusal(sStartError, error, "The session refused the recording.");
            NSReleaseIfSet(pMovieFileOutput); // never recorded: no counts to keep
            StopCapture();
            return false;
        }
        bRecorded = true;
        dwFramesRecorded = dwFramesNotRecorded = 0;
    }
    if (pSession->isRunning())
        return true;
    pSession->startRunning();
    return true;
}

bool TavixDevice::StopCapture() {
    if (!pDevice->isOpen())
        return true;
    if (!IsSessionRunning())
        return true;
    TearDownSession();
    return true;
}

void TavixDevice::TearDownSession() {
    if (pSession == nullptr)
        return;
    if (pVideoOutput != nullptr)
        pVideoOutput->setDelegate(nullptr);
    if (pAudioOutput != nullptr)
        pAudioOutput->setDelegate(nullptr);
    if (pSession->isRunning())
        pSession->stopRunning();
    RemoveInput(pSession, pDeviceInput);
    RemoveInput(pSession, pAudioDeviceInput);
    RemoveOutput(pSession, pVideoOutput);
    NSReleaseIfSet(pVideoDelegate);
    RemoveOutput(pSession, pAudioOutput);
    NSReleaseIfSet(pAudioDelegate);
    EndRecording();
    NSReleaseIfSet(pSession);
}

void TavixDevice::EndRecording() {
    if (pMovieFileOutput == nullptr)
        return;
    // Taken out of the session, the output finishes its file; its counts are final then.
    if (pSession != nullptr)
        pSession->removeOutput(pMovieFileOutput);
    GetRecordingFrameCounts(&dwFramesRecorded, &dwFramesNotRecorded);
    sRecordingError = pMovieFileOutput->failureReason();
    NSReleaseIfSet(pMovieFileOutput);
}

std::string TavixDevice::GetLastError() const {
    const std::string recording =
        pMovieFileOutput != nullptr ? pMovieFileOutput->failureReason() : sRecordingError;
    std::string text = sStartError;
    LLockObjectLocker locked(ControlMutex);
    for (const std::string* part : {&recording, &sControlError})
        if (!part->empty())
            text += (text.empty() ? "" : " ") + *part;
    return text;
}

void TavixDevice::SetControlError(const std::string& sentence) {
    LLockObjectLocker locked(ControlMutex);
    sControlError = sentence;
}

bool TavixDevice::GetRecordingFrameCounts(unsigned long* recorded,
                                          unsigned long* notRecorded) const {
    if (!bRecorded)
        return false;
    unsigned long frames = dwFramesRecorded, lost = dwFramesNotRecorded;
    if (pMovieFileOutput != nullptr) {
        const QTCaptureMovieFileOutput::Statistics figures = pMovieFileOutput->statistics();
        frames = static_cast<unsigned long>(figures.videoFrames);
        lost = static_cast<unsigned long>(figures.videoFramesNotRecorded);
    }
    if (recorded != nullptr)
        *recorded = frames;
    if (notRecorded != nullptr)
        *notRecorded = lost;
    return true;
}

bool TavixDevice::StopRecording() {
    if (!pDevice->isOpen() || !IsSessionRunning())
        return true;
    if (pVideoOutput != nullptr)
        pVideoOutput->setDelegate(nullptr);
    if (pAudioOutput != nullptr)
        pAudioOutput->setDelegate(nullptr);
    NSReleaseIfSet(pVideoDelegate);
    NSReleaseIfSet(pAudioDelegate);
    EndRecording();
    return true;
}

bool TavixDevice::IsCapturing() const {
    return IsSessionRunning();
}

bool TavixDevice::InvalidateCaptureVideoCallBack(TavixDeviceVideoCallBack callBack,
                                                 long callBackData) {
    if (!IsSessionRunning() || pVideoDelegate == nullptr)
        return false;
    return pVideoDelegate->invalidateVideoCallBack(callBack, callBackData);
}

bool TavixDevice::InvalidateCaptureAudioCallBack(TavixDeviceAudioCallBack callBack,
                                                 long callBackData) {
    if (!IsSessionRunning() || pAudioDelegate == nullptr)
        return false;
    return pAudioDelegate->invalidateAudioCallBack(callBack, callBackData);
}

// Transport and timecode.

bool TavixDevice::IsTransportAvailable() const {
    return pDevice->deviceAttributes()->objectForKey(
               QTCaptureDeviceAVCTransportControlsAttribute) != nullptr;
}

TavixDeviceTransportMode TavixDevice::GetTransportMode() const {
    auto* controls = dynamic_cast<NSDictionary*>(
        pDevice->attributeForKey(QTCaptureDeviceAVCTransportControlsAttribute));
    if (controls == nullptr)
        return TavixDeviceTransportModeUnavailable;
    auto* speedValue = dynamic_cast<NSNumber*>(
        controls->objectForKey(QTCaptureDeviceAVCTransportControlsSpeedKey));
    auto* modeValue = dynamic_cast<NSNumber*>(
        controls->objectForKey(QTCaptureDeviceAVCTransportControlsPlaybackModeKey));
    const long speed = speedValue != nullptr ? speedValue->longValue() : 0;
    const unsigned long mode = modeValue != nullptr ? modeValue->unsignedLongValue() : 0;
    if (speed == 0)
        return TavixDeviceTransportModeStop;
    if (mode == 1) {
        if (speed == 10000)
            return TavixDeviceTransportModePlay;
        return speed > 0 ? TavixDeviceTransportModePlayFastForward
                         : TavixDeviceTransportModePlayFastReverse;
    }
    return speed > 0 ? TavixDeviceTransportModeFastForward : TavixDeviceTransportModeRewind;
}

void TavixDevice::SetTransportMode(TavixDeviceTransportMode mode) {
    const TransportSetting setting = static_cast<unsigned int>(mode) <= 5
                                         ? kTransportSettings[static_cast<unsigned int>(mode)]
                                         : TransportSetting{0, 0};
    auto* controls = new NSDictionary(
        {{NSNumber::numberWithLong(setting.speed), QTCaptureDeviceAVCTransportControlsSpeedKey},
         {NSNumber::numberWithUnsignedLong(setting.playbackMode),
          QTCaptureDeviceAVCTransportControlsPlaybackModeKey}});
    pDevice->setAttribute(controls, QTCaptureDeviceAVCTransportControlsAttribute);
    controls->release();
}

bool TavixDevice::GetSMPTETime(SMPTETime* time) const {
    if (!IsSessionRunning() || pVideoDelegate == nullptr)
        return false;
    return pVideoDelegate->getSMPTETime(time);
}
