// Converting one captured sound buffer: the converter is fed the whole buffer once through its
// input callback, told that the input has ended, and reset for the next buffer.
#include <algorithm>

#include "tavixdeviceformat.h"

namespace {

struct ConversionContext {
    const AudioStreamBasicDescription* inputFormat;
    AudioBufferList* input;
    UInt32 consumedBytes;
};

} // namespace

OSStatus QTDeviceFormatConvertAudioOutputCallBack(
    AudioConverterRef, UInt32* ioNumberDataPackets, AudioBufferList* ioData,
    AudioStreamPacketDescription** outPacketDescriptions, void* context) {
    if (ioNumberDataPackets == nullptr)
        return noErr;
    const UInt32 requested = *ioNumberDataPackets;
    *ioNumberDataPackets = 0;
    if (ioData == nullptr)
        return noErr;
    for (UInt32 i = 0; i < ioData->mNumberBuffers; ++i) {
        ioData->mBuffers[i].mDataByteSize = 0;
        ioData->mBuffers[i].mData = nullptr;
    }
    if (outPacketDescriptions != nullptr)
        *outPacketDescriptions = nullptr;
    auto* conversion = static_cast<ConversionContext*>(context);
    if (conversion == nullptr || conversion->input == nullptr ||
        conversion->input->mNumberBuffers == 0)
        return noErr;
    const UInt32 available = conversion->input->mBuffers[0].mDataByteSize;
    if (available <= conversion->consumedBytes)
        return noErr;
    const UInt32 bytesPerPacket = conversion->inputFormat->mBytesPerPacket;
    if (bytesPerPacket == 0)
        return noErr; // variable-size packets are not converted: end of data
    const unsigned long long wanted = static_cast<unsigned long long>(requested) * bytesPerPacket;
    const UInt32 bytes = static_cast<UInt32>(
        std::min<unsigned long long>(available - conversion->consumedBytes, wanted));
    // Every buffer gets the same offset and size, taken from the first input buffer.
    for (UInt32 i = 0; i < ioData->mNumberBuffers; ++i) {
        ioData->mBuffers[i].mDataByteSize = bytes;
        ioData->mBuffers[i].mData =
            i < conversion->input->mNumberBuffers && conversion->input->mBuffers[i].mData != nullptr
                ? static_cast<unsigned char*>(conversion->input->mBuffers[i].mData) +
                      conversion->consumedBytes
                : nullptr;
    }
    conversion->consumedBytes += bytes;
    *ioNumberDataPackets = bytes / bytesPerPacket;
    return noErr;
}

bool QTDeviceFormatConvertAudioSamples(AudioConverterRef converter, AudioBufferList* input,
                                       const AudioStreamBasicDescription& inputFormat,
                                       unsigned char* output, unsigned long outputBytes,
                                       unsigned long& outputPackets,
                                       const AudioStreamBasicDescription& outputFormat) {
    if (outputFormat.mBytesPerPacket == 0)
        return false;
    outputPackets = outputBytes / outputFormat.mBytesPerPacket;
    ConversionContext context{&inputFormat, input, 0};
    AudioBufferList outputList;
    outputList.mNumberBuffers = 1;
    outputList.mBuffers[0].mNumberChannels = outputFormat.mChannelsPerFrame;
    outputList.mBuffers[0].mDataByteSize =
        static_cast<UInt32>(std::min<unsigned long>(outputBytes, 0xFFFFFFFFul));
    outputList.mBuffers[0].mData = output;
    UInt32 packets = static_cast<UInt32>(std::min<unsigned long>(outputPackets, 0xFFFFFFFFul));
    const OSStatus status =
        AudioConverterFillComplexBuffer(converter, QTDeviceFormatConvertAudioOutputCallBack,
                                        &context, &packets, &outputList, nullptr);
    outputPackets = packets;
    if (status != noErr)
        return false;
    AudioConverterReset(converter);
    return true;
}
