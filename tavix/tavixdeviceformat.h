// Format records, sets, the per-device caches and format discovery.
#pragma once

#include <cstring>

#include "llib/mac/tavixdeviceformat.h"
#include "platform/coreaudio.h"

class QTCaptureDevice;
class QTFormatDescription;

extern LList<TavixDeviceData<TavixDeviceFormatHolder>> DevicesFormats;
extern LList<TavixDeviceData<TavixDeviceFormat>> DefaultVideoFormats;

// All formats of a device, from the cache or freshly collected.
bool TavixDeviceFormatEnumerateEx(QTCaptureDevice* device,
                                  ITavixDeviceFormatEnumerator* enumerator);
// The formats one description stands for.
bool TavixDeviceFormatEnumerateEx(QTCaptureDevice* device, QTFormatDescription* description,
                                  ITavixDeviceFormatEnumerator* enumerator);

// Converts one captured buffer with converter into output (at most outputBytes); outputPackets
// receives the packets written.
bool QTDeviceFormatConvertAudioSamples(AudioConverterRef converter, AudioBufferList* input,
                                       const AudioStreamBasicDescription& inputFormat,
                                       unsigned char* output, unsigned long outputBytes,
                                       unsigned long& outputPackets,
                                       const AudioStreamBasicDescription& outputFormat);
OSStatus QTDeviceFormatConvertAudioOutputCallBack(
    AudioConverterRef converter, UInt32* ioNumberDataPackets, AudioBufferList* ioData,
    AudioStreamPacketDescription** outPacketDescriptions, void* context);
