// The decompressed video output: hands each picture to its delegate, in place when the
// pixel-buffer attributes ask for nothing or for what the device delivers, converted into a
// pooled buffer otherwise.
#include <cmath>

#include "platform/qtkit.h"
#include "platform/videoconverter.h"

QTCaptureDecompressedVideoOutput::QTCaptureDecompressedVideoOutput()
    : converter(new VideoConverter) {}

QTCaptureDecompressedVideoOutput::~QTCaptureDecompressedVideoOutput() {
    NSReleaseIfSet(attributes);
    delete converter;
}

void QTCaptureDecompressedVideoOutput::setDelegate(
    QTCaptureDecompressedVideoOutputDelegate* delegate) {
    std::lock_guard<std::recursive_mutex> locked(mutex);
    videoDelegate = delegate;
}

QTCaptureDecompressedVideoOutputDelegate* QTCaptureDecompressedVideoOutput::delegate() const {
    std::lock_guard<std::recursive_mutex> locked(mutex);
    return videoDelegate;
}

void QTCaptureDecompressedVideoOutput::setPixelBufferAttributes(NSDictionary* newAttributes) {
    std::lock_guard<std::recursive_mutex> locked(mutex);
    std::lock_guard<std::mutex> requestLocked(requestMutex);
    if (newAttributes != nullptr)
        newAttributes->retain();
    NSReleaseIfSet(attributes);
    attributes = newAttributes;
    request = platform::StreamRequest();
    if (attributes == nullptr)
        return;
    if (auto* format =
            dynamic_cast<NSNumber*>(attributes->objectForKey(kCVPixelBufferPixelFormatTypeKey)))
        request.pixelFormat = CanonicalPixelFormat(format->unsignedIntValue());
    // Sizes are doubles; nonsense (negative, huge) counts as no wish.
    auto readSize = [this](const NSString* key) -> size_t {
        auto* number = dynamic_cast<NSNumber*>(attributes->objectForKey(key));
        if (number == nullptr)
            return 0;
        const double value = number->doubleValue();
        return value >= 1 && value <= 16384 ? static_cast<size_t>(value) : 0;
    };
    request.width = readSize(kCVPixelBufferWidthKey);
    request.height = readSize(kCVPixelBufferHeightKey);
}

NSDictionary* QTCaptureDecompressedVideoOutput::pixelBufferAttributes() const {
    std::lock_guard<std::recursive_mutex> locked(mutex);
    return attributes;
}

void QTCaptureDecompressedVideoOutput::setMinimumVideoFrameInterval(double seconds) {
    std::lock_guard<std::mutex> locked(requestMutex);
    frameInterval = std::isfinite(seconds) && seconds > 0 ? seconds : 0;
}

double QTCaptureDecompressedVideoOutput::minimumVideoFrameInterval() const {
    std::lock_guard<std::mutex> locked(requestMutex);
    return frameInterval;
}

platform::StreamRequest QTCaptureDecompressedVideoOutput::Request() const {
    std::lock_guard<std::mutex> locked(requestMutex);
    platform::StreamRequest wishes = request;
    wishes.framesPerSecond = frameInterval > 0 ? 1 / frameInterval : 0;
    return wishes;
}

void QTCaptureDecompressedVideoOutput::Deliver(const platform::CapturedSample& sample,
                                               QTSampleBuffer* buffer,
                                               QTCaptureConnection* connection, bool isVideo) {
    if (!isVideo || sample.video == nullptr)
        return;
    deliveredRate = sample.frameRate;
    std::lock_guard<std::recursive_mutex> locked(mutex);
    if (videoDelegate == nullptr)
        return;
    CVPixelBufferRef frame =
        converter->Convert(sample.video, request.pixelFormat, request.width, request.height);
    if (frame == nullptr)
        return;
    videoDelegate->captureOutput(this, frame, buffer, connection);
    CVPixelBufferRelease(frame);
}
