#include "support/tavix_helpers.h"

void LogFrame(const unsigned char*, unsigned long pixelFormat, unsigned long width,
              unsigned long height, unsigned long bytesPerRow, const SMPTETime* time, long data) {
    CallbackLog& log = *reinterpret_cast<CallbackLog*>(data);
    log.pixelFormat = pixelFormat;
    log.width = width;
    log.height = height;
    log.bytesPerRow = bytesPerRow;
    if (time != nullptr)
        log.sawTimecode = true;
    log.lastData = data;
    const double now = SteadySeconds();
    double unset = 0;
    log.firstFrameAt.compare_exchange_strong(unset, now);
    log.lastFrameAt = now;
    ++log.frames;
}

void LogSound(const unsigned char*, unsigned int formatFlags, unsigned long sampleRate,
              unsigned long channels, unsigned long bytesPerSample, unsigned long sampleFrames,
              long data) {
    CallbackLog& log = *reinterpret_cast<CallbackLog*>(data);
    log.formatFlags = formatFlags;
    log.sampleRate = sampleRate;
    log.channels = channels;
    log.bytesPerSample = bytesPerSample;
    if (sampleFrames > log.maxSampleFrames)
        log.maxSampleFrames = sampleFrames;
    int unset = -1;
    log.framesAtFirstSound.compare_exchange_strong(unset, log.frames.load());
    log.sampleFrames += static_cast<long>(sampleFrames);
}

double SteadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

DeviceScope::~DeviceScope() {
    if (handle == 0)
        return;
    // A device closed while capturing needs opening again for the stop to take.
    TavixDeviceOpen(handle);
    TavixDeviceStopCapture(handle);
    TavixDeviceClose(handle);
    for (int i = 0; i < 100 && TavixDeviceRelease(handle); ++i) {
    }
}

virtualdevices::DeviceSpec CameraSpec(const std::string& name, virtualdevices::VideoMode mode) {
    virtualdevices::DeviceSpec camera;
    camera.name = name;
    camera.video = true;
    camera.videoModes = {mode};
    return camera;
}

virtualdevices::DeviceSpec MicrophoneSpec(const std::string& name) {
    virtualdevices::DeviceSpec mic;
    mic.name = name;
    mic.sound = true;
    mic.audio = {48000,
                 kAudioFormatLinearPCM,
                 kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked,
                 8,
                 1,
                 8,
                 2,
                 32,
                 0};
    return mic;
}
