// The frame and sample delegates: each platform frame or sound buffer becomes one call of the
// host's callback, under the delegate's lock, so invalidation can cut the callback off safely.
#include <cmath>
#include <cstring>

#include "tavixdevice.h"
#include "tavixdeviceformat.h"

TavixDeviceDecompressedVideoOutputDelegate::TavixDeviceDecompressedVideoOutputDelegate(
    TavixDeviceVideoCallBack callBack, long callBackData)
    : pVideoCallBack(callBack), VideoCallBackData(callBackData), pSMPTETimeStamp(nullptr),
      SMPTETimeStampHolder() {}

void TavixDeviceDecompressedVideoOutputDelegate::captureOutput(QTCaptureOutput*,
                                                               CVImageBufferRef videoFrame,
                                                               QTSampleBuffer* sampleBuffer,
                                                               QTCaptureConnection*) {
    // The host's callback may stop capture, which releases this delegate: the reference held
    // here keeps it, and the lock inside it, alive until the lock has been let go.
    const NSScopedRetain alive(this);
    LLockObjectLocker locked(DelegateMutex);
    if (pVideoCallBack == nullptr)
        return;
    pSMPTETimeStamp = nullptr;
    if (auto* time = dynamic_cast<NSValue*>(
            sampleBuffer->attributeForKey(QTSampleBufferSMPTETimeAttribute))) {
        SMPTETimeStampHolder = time->SMPTETimeValue();
        pSMPTETimeStamp = &SMPTETimeStampHolder;
    }
    CVPixelBufferLockBaseAddress(videoFrame, 0);
    const TavixDeviceVideoCallBack callBack = pVideoCallBack;
    const long data = VideoCallBackData;
    const SMPTETime* timecode = pSMPTETimeStamp;
    const size_t bytesPerRow = CVPixelBufferGetBytesPerRow(videoFrame);
    const size_t height = CVPixelBufferGetHeight(videoFrame);
    const size_t width = CVPixelBufferGetWidth(videoFrame);
    const OSType pixelFormat = CVPixelBufferGetPixelFormatType(videoFrame);
    const auto* pixels = static_cast<const unsigned char*>(CVPixelBufferGetBaseAddress(videoFrame));
    callBack(pixels, pixelFormat, width, height, bytesPerRow, timecode, data);
    CVPixelBufferUnlockBaseAddress(videoFrame, 0);
}

bool TavixDeviceDecompressedVideoOutputDelegate::getSMPTETime(SMPTETime* time) {
    LLockObjectLocker locked(DelegateMutex);
    if (pSMPTETimeStamp != nullptr && time != nullptr)
        memcpy(time, pSMPTETimeStamp, sizeof *time);
    return pSMPTETimeStamp != nullptr;
}

bool TavixDeviceDecompressedVideoOutputDelegate::invalidateVideoCallBack(
    TavixDeviceVideoCallBack callBack, long callBackData) {
    LLockObjectLocker locked(DelegateMutex);
    bool matched = false;
    if (pVideoCallBack == callBack) {
        pVideoCallBack = nullptr;
        matched = true;
    }
    if (VideoCallBackData == callBackData) {
        VideoCallBackData = 0;
        matched = true;
    }
    return matched;
}

TavixDeviceDecompressedAudioOutputDelegate::TavixDeviceDecompressedAudioOutputDelegate(
    TavixDeviceAudioCallBack callBack, long callBackData, unsigned int flags,
    unsigned long sampleRate, unsigned long channels, unsigned long bytesPerSample)
    : pAudioCallBack(callBack), AudioCallBackData(callBackData), InputStreamDescription(),
      OutputStreamDescription(), AudioConverter(nullptr) {
    const UInt32 bytes = bytesPerSample != 0 ? static_cast<UInt32>(bytesPerSample) : 2;
    const UInt32 count = channels != 0 ? static_cast<UInt32>(channels) : 2;
    OutputStreamDescription.mSampleRate =
        sampleRate != 0 ? static_cast<double>(sampleRate) : 44100.0;
    OutputStreamDescription.mFormatID = kAudioFormatLinearPCM;
    OutputStreamDescription.mFormatFlags = flags != 0 ? flags : 12;
    OutputStreamDescription.mBytesPerPacket = bytes * count;
    OutputStreamDescription.mFramesPerPacket = 1;
    OutputStreamDescription.mBytesPerFrame = bytes * count;
    OutputStreamDescription.mChannelsPerFrame = count;
    OutputStreamDescription.mBitsPerChannel = bytes * 8;
    OutputStreamDescription.mReserved = 0;
}

TavixDeviceDecompressedAudioOutputDelegate::~TavixDeviceDecompressedAudioOutputDelegate() {
    if (AudioConverter != nullptr) {
        AudioConverterDispose(AudioConverter);
        AudioConverter = nullptr;
    }
}

void TavixDeviceDecompressedAudioOutputDelegate::captureOutput(QTCaptureOutput*,
                                                               QTSampleBuffer* sampleBuffer,
                                                               QTCaptureConnection*) {
    const NSScopedRetain alive(this); // as for frames: the callback may release this delegate
    LLockObjectLocker locked(DelegateMutex);
    if (pAudioCallBack == nullptr)
        return;
    if (AudioConverter == nullptr) {
        QTFormatDescription* description = sampleBuffer->formatDescription();
        auto* value = description != nullptr
                          ? dynamic_cast<NSValue*>(description->attributeForKey(
                                QTFormatDescriptionAudioStreamBasicDescriptionAttribute))
                          : nullptr;
        if (value == nullptr || value->size() != sizeof InputStreamDescription)
            return;
        value->getValue(&InputStreamDescription);
        if (AudioConverterNew(&InputStreamDescription, &OutputStreamDescription, &AudioConverter) !=
                noErr ||
            AudioConverter == nullptr) {
            AudioConverter = nullptr;
            return;
        }
    }
    auto* list = const_cast<AudioBufferList*>(sampleBuffer->audioBufferListWithOptions(1));
    if (list == nullptr)
        return;
    unsigned long count = 0;
    if (!QTDeviceFormatConvertAudioSamples(AudioConverter, list, InputStreamDescription,
                                           ConvertSamplesBuffer, sizeof ConvertSamplesBuffer, count,
                                           OutputStreamDescription) ||
        count == 0)
        return;
    const unsigned long bytesPerSample = OutputStreamDescription.mBitsPerChannel / 8;
    if (bytesPerSample == 0)
        return;
    const double rate = OutputStreamDescription.mSampleRate;
    const unsigned long sampleRate = !(rate > 0)           ? 0
                                     : rate > 4294967295.0 ? 4294967295ul
                                                           : static_cast<unsigned long>(rate);
    pAudioCallBack(ConvertSamplesBuffer, OutputStreamDescription.mFormatFlags, sampleRate,
                   OutputStreamDescription.mChannelsPerFrame, bytesPerSample, count,
                   AudioCallBackData);
}

bool TavixDeviceDecompressedAudioOutputDelegate::wantedFormat(
    AudioStreamBasicDescription* format) const {
    *format = OutputStreamDescription; // set once, when the delegate is made
    return true;
}

bool TavixDeviceDecompressedAudioOutputDelegate::invalidateAudioCallBack(
    TavixDeviceAudioCallBack callBack, long callBackData) {
    LLockObjectLocker locked(DelegateMutex);
    bool matched = false;
    if (pAudioCallBack == callBack) {
        pAudioCallBack = nullptr;
        matched = true;
    }
    if (AudioCallBackData == callBackData) {
        AudioCallBackData = 0;
        matched = true;
    }
    return matched;
}
