// The decompressed audio output: hands each sound buffer to its delegate as the device
// delivered it; the delegate converts.
#include "platform/qtkit.h"

void QTCaptureDecompressedAudioOutput::setDelegate(
    QTCaptureDecompressedAudioOutputDelegate* delegate) {
    std::lock_guard<std::recursive_mutex> locked(mutex);
    audioDelegate = delegate;
}

QTCaptureDecompressedAudioOutputDelegate* QTCaptureDecompressedAudioOutput::delegate() const {
    std::lock_guard<std::recursive_mutex> locked(mutex);
    return audioDelegate;
}

void QTCaptureDecompressedAudioOutput::Deliver(const platform::CapturedSample& sample,
                                               QTSampleBuffer* buffer,
                                               QTCaptureConnection* connection, bool isVideo) {
    if (isVideo || sample.audio == nullptr)
        return;
    std::lock_guard<std::recursive_mutex> locked(mutex);
    if (audioDelegate != nullptr)
        audioDelegate->captureOutput(this, buffer, connection);
}
