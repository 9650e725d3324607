#include "platform/qtkit.h"

QTSampleBuffer::QTSampleBuffer(QTFormatDescription* description,
                               const platform::CapturedSample& sample, bool forAudio)
    : description(description), audio(forAudio ? sample.audio : nullptr),
      bytesPerFrame(sample.audioFormat.mBytesPerFrame), time(sample.time), timecode(nullptr) {
    if (description != nullptr)
        description->retain();
    if (sample.hasTimecode)
        timecode = static_cast<NSValue*>(
            NSValue::valueWithBytes(&sample.timecode, sizeof sample.timecode)->retain());
}

QTSampleBuffer::~QTSampleBuffer() {
    NSReleaseIfSet(description);
    NSReleaseIfSet(timecode);
}

const AudioBufferList* QTSampleBuffer::audioBufferListWithOptions(unsigned int) const {
    return audio;
}

NSObject* QTSampleBuffer::attributeForKey(const NSString* key) const {
    if (key != nullptr && key->isEqualToString(QTSampleBufferSMPTETimeAttribute))
        return timecode;
    return nullptr;
}

unsigned long QTSampleBuffer::numberOfSamples() const {
    if (audio == nullptr || audio->mNumberBuffers == 0 || bytesPerFrame == 0)
        return audio == nullptr ? 1 : 0;
    return audio->mBuffers[0].mDataByteSize / bytesPerFrame;
}
