// Core Audio's stream descriptions, buffer lists, timecode record and the audio converter, with
// the desktop system's field layouts and constants. The converter converts between any two
// linear-PCM descriptions (rate, channels, 1 to 4 bytes per integer sample or 4/8-byte floats,
// signed or unsigned, either byte order, interleaved or not) with libswresample.
#pragma once

#include <cstddef>

#include "llib/mac/smptetime.h"
#include "platform/mactypes.h"

struct AudioStreamBasicDescription {
    Float64 mSampleRate;
    UInt32 mFormatID;
    UInt32 mFormatFlags;
    UInt32 mBytesPerPacket;
    UInt32 mFramesPerPacket;
    UInt32 mBytesPerFrame;
    UInt32 mChannelsPerFrame;
    UInt32 mBitsPerChannel;
    UInt32 mReserved;
};
static_assert(sizeof(AudioStreamBasicDescription) == 40, "Core Audio's layout");

struct AudioBuffer {
    UInt32 mNumberChannels;
    UInt32 mDataByteSize;
    void* mData;
};

struct AudioBufferList {
    UInt32 mNumberBuffers;
    AudioBuffer mBuffers[1]; // really mNumberBuffers of them
};

// Bytes an AudioBufferList with n buffers needs.
constexpr size_t AudioBufferListSize(UInt32 n) {
    return offsetof(AudioBufferList, mBuffers) + (n > 0 ? n : 1) * sizeof(AudioBuffer);
}

struct AudioStreamPacketDescription {
    SInt64 mStartOffset;
    UInt32 mVariableFramesInPacket;
    UInt32 mDataByteSize;
};

static_assert(sizeof(SMPTETime) == 24, "Core Audio's layout");
static_assert(offsetof(SMPTETime, mHours) == 16, "Core Audio's layout");

constexpr UInt32 kAudioFormatLinearPCM = 0x6C70636D; // 'lpcm'

enum : UInt32 {
    kAudioFormatFlagIsFloat = 1u << 0,
    kAudioFormatFlagIsBigEndian = 1u << 1,
    kAudioFormatFlagIsSignedInteger = 1u << 2,
    kAudioFormatFlagIsPacked = 1u << 3,
    kAudioFormatFlagIsAlignedHigh = 1u << 4,
    kAudioFormatFlagIsNonInterleaved = 1u << 5,
    kAudioFormatFlagIsNonMixable = 1u << 6,
    kLinearPCMFormatFlagIsFloat = kAudioFormatFlagIsFloat,
    kLinearPCMFormatFlagIsSignedInteger = kAudioFormatFlagIsSignedInteger,
    kLinearPCMFormatFlagIsPacked = kAudioFormatFlagIsPacked,
    kLinearPCMFormatFlagIsNonInterleaved = kAudioFormatFlagIsNonInterleaved,
};

enum : UInt32 {
    kSMPTETimeType24 = 0,
    kSMPTETimeType25 = 1,
    kSMPTETimeType30Drop = 2,
    kSMPTETimeType30 = 3,
    kSMPTETimeType2997 = 4,
    kSMPTETimeType2997Drop = 5,
    kSMPTETimeType60 = 6,
    kSMPTETimeType5994 = 7,
};

enum : UInt32 { kSMPTETimeValid = 1u << 0, kSMPTETimeRunning = 1u << 1 };

enum : OSStatus {
    kAudioConverterErr_FormatNotSupported = 0x666D743F,    // 'fmt?'
    kAudioConverterErr_OperationNotSupported = 0x6F703F3F, // 'op??'
    kAudioConverterErr_InvalidInputSize = 0x696E737A,      // 'insz'
    kAudioConverterErr_InvalidOutputSize = 0x6F74737A,     // 'otsz'
};

struct OpaqueAudioConverter;
typedef OpaqueAudioConverter* AudioConverterRef;

// The converter asks its input callback for up to *ioNumberDataPackets packets; the callback
// points ioData's buffers at them, sets the count it gave (0 means the input has ended) and
// returns noErr, or an error that ends the conversion.
typedef OSStatus (*AudioConverterComplexInputDataProc)(
    AudioConverterRef converter, UInt32* ioNumberDataPackets, AudioBufferList* ioData,
    AudioStreamPacketDescription** outDataPacketDescription, void* inUserData);

// Makes a converter between two linear-PCM descriptions; kAudioConverterErr_FormatNotSupported
// for anything else (or a null argument: paramErr). Any thread; one converter is used by one
// thread at a time.
OSStatus AudioConverterNew(const AudioStreamBasicDescription* inSourceFormat,
                           const AudioStreamBasicDescription* inDestinationFormat,
                           AudioConverterRef* outAudioConverter);
OSStatus AudioConverterDispose(AudioConverterRef converter);
// Forgets buffered input and the resampler's history.
OSStatus AudioConverterReset(AudioConverterRef converter);
// Fills outOutputData with up to *ioOutputDataPacketSize packets, pulling input through
// inInputDataProc until the output is full or the input ends; sets *ioOutputDataPacketSize to
// the packets produced. Input beyond what fits stays buffered for the next call. When the input
// ends, what the resampler still holds is flushed into the output.
OSStatus AudioConverterFillComplexBuffer(AudioConverterRef converter,
                                         AudioConverterComplexInputDataProc inInputDataProc,
                                         void* inInputDataProcUserData,
                                         UInt32* ioOutputDataPacketSize,
                                         AudioBufferList* outOutputData,
                                         AudioStreamPacketDescription* outPacketDescription);
