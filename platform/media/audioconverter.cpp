// The audio converter: linear PCM to linear PCM. Samples are decoded into planar doubles (exact
// for every integer size up to 32 bits), resampled and remixed by libswresample when the rate
// or the channel count differs, and encoded into the destination layout.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "platform/coreaudio.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace {

// One side of the conversion, as read from its description.
struct PCMLayout {
    double rate = 0;
    int channels = 0;
    int bytesPerSample = 0; // storage size of one sample of one channel
    int bits = 0;           // significant bits
    bool isFloat = false;
    bool isSigned = false;
    bool bigEndian = false;
    bool nonInterleaved = false;
    bool alignedHigh = false;
    UInt32 bytesPerFrame = 0; // of one buffer: one channel when non-interleaved

    int buffers() const { return nonInterleaved ? channels : 1; }
};

bool ReadLayout(const AudioStreamBasicDescription& d, PCMLayout& layout) {
    if (d.mFormatID != kAudioFormatLinearPCM || !(d.mSampleRate > 0) ||
        !std::isfinite(d.mSampleRate) || d.mSampleRate > 1e6 || d.mChannelsPerFrame < 1 ||
        d.mChannelsPerFrame > 32 || d.mFramesPerPacket > 1 || d.mBytesPerFrame == 0 ||
        d.mBytesPerPacket != d.mBytesPerFrame)
        return false;
    layout.rate = d.mSampleRate;
    layout.channels = static_cast<int>(d.mChannelsPerFrame);
    layout.isFloat = (d.mFormatFlags & kAudioFormatFlagIsFloat) != 0;
    layout.isSigned = (d.mFormatFlags & kAudioFormatFlagIsSignedInteger) != 0;
    layout.bigEndian = (d.mFormatFlags & kAudioFormatFlagIsBigEndian) != 0;
    layout.nonInterleaved = (d.mFormatFlags & kAudioFormatFlagIsNonInterleaved) != 0;
    layout.alignedHigh = (d.mFormatFlags & kAudioFormatFlagIsAlignedHigh) != 0;
    layout.bytesPerFrame = d.mBytesPerFrame;
    const UInt32 perSample =
        layout.nonInterleaved ? d.mBytesPerFrame : d.mBytesPerFrame / d.mChannelsPerFrame;
    if (!layout.nonInterleaved && perSample * d.mChannelsPerFrame != d.mBytesPerFrame)
        return false;
    layout.bytesPerSample = static_cast<int>(perSample);
    layout.bits =
        d.mBitsPerChannel != 0 ? static_cast<int>(d.mBitsPerChannel) : layout.bytesPerSample * 8;
    if (layout.isFloat)
        return (perSample == 4 && layout.bits == 32) || (perSample == 8 && layout.bits == 64);
    return perSample >= 1 && perSample <= 4 && layout.bits >= 1 &&
           layout.bits <= layout.bytesPerSample * 8;
}

double DecodeSample(const unsigned char* p, const PCMLayout& layout) {
    unsigned char bytes[8] = {0};
    const int size = layout.bytesPerSample;
    for (int i = 0; i < size; ++i)
        bytes[i] = layout.bigEndian ? p[size - 1 - i] : p[i];
    if (layout.isFloat) {
        if (size == 4) {
            float value;
            memcpy(&value, bytes, 4);
            return std::isfinite(value) ? value : 0.0;
        }
        double value;
        memcpy(&value, bytes, 8);
        return std::isfinite(value) ? value : 0.0;
    }
    uint64_t raw = 0;
    for (int i = 0; i < size; ++i)
        raw |= static_cast<uint64_t>(bytes[i]) << (8 * i);
    const int storage = size * 8;
    // Samples that use fewer bits than their storage sit high or low in it.
    if (layout.bits < storage && layout.alignedHigh)
        raw >>= storage - layout.bits;
    const int bits = layout.bits;
    raw &= (bits == 64 ? ~0ull : ((1ull << bits) - 1));
    int64_t value = static_cast<int64_t>(raw);
    const int64_t half = int64_t{1} << (bits - 1);
    if (layout.isSigned) {
        if (value >= half)
            value -= half * 2;
    } else {
        value -= half;
    }
    return static_cast<double>(value) / static_cast<double>(half);
}

void EncodeSample(double x, unsigned char* p, const PCMLayout& layout) {
    unsigned char bytes[8] = {0};
    const int size = layout.bytesPerSample;
    if (layout.isFloat) {
        if (size == 4) {
            const float value = static_cast<float>(x);
            memcpy(bytes, &value, 4);
        } else {
            memcpy(bytes, &x, 8);
        }
    } else {
        const int bits = layout.bits;
        const int64_t half = int64_t{1} << (bits - 1);
        double scaled = std::nearbyint(x * static_cast<double>(half));
        scaled =
            std::min(std::max(scaled, -static_cast<double>(half)), static_cast<double>(half - 1));
        int64_t value = static_cast<int64_t>(scaled);
        if (!layout.isSigned)
            value += half;
        uint64_t raw = static_cast<uint64_t>(value) & ((1ull << bits) - 1);
        if (layout.alignedHigh && bits < size * 8)
            raw <<= size * 8 - bits;
        for (int i = 0; i < size; ++i)
            bytes[i] = static_cast<unsigned char>(raw >> (8 * i));
    }
    for (int i = 0; i < size; ++i)
        p[i] = layout.bigEndian ? bytes[size - 1 - i] : bytes[i];
}

} // namespace

struct OpaqueAudioConverter {
    PCMLayout in, out;
    SwrContext* resampler = nullptr;          // only when the rate or the channel count differs
    std::vector<std::vector<double>> decoded; // input frames, per input channel
    std::vector<std::vector<double>>
        pending; // converted frames not yet handed out, per output channel
    size_t pendingStart = 0;
    std::vector<unsigned char> listStorage; // the AudioBufferList handed to the input callback

    bool Resamples() const { return resampler != nullptr; }

    bool OpenResampler() {
        if (in.rate == out.rate && in.channels == out.channels)
            return true;
        AVChannelLayout inLayout, outLayout;
        av_channel_layout_default(&inLayout, in.channels);
        av_channel_layout_default(&outLayout, out.channels);
        const int ok = swr_alloc_set_opts2(
            &resampler, &outLayout, AV_SAMPLE_FMT_DBLP, static_cast<int>(std::lround(out.rate)),
            &inLayout, AV_SAMPLE_FMT_DBLP, static_cast<int>(std::lround(in.rate)), 0, nullptr);
        av_channel_layout_uninit(&inLayout);
        av_channel_layout_uninit(&outLayout);
        if (ok < 0)
            return false;
        if (in.channels != out.channels) {
            const std::vector<double> matrix = ChannelMatrix(in.channels, out.channels);
            if (swr_set_matrix(resampler, matrix.data(), in.channels) < 0)
                return false;
        }
        return swr_init(resampler) >= 0;
    }

    // Channel mapping that keeps the level: a mono source goes to every output channel at full
    // level, fewer output channels average the inputs that fold onto them, more output channels
    // repeat the inputs in turn. (libswresample's default mixes mono into stereo at -3 dB and
    // stereo into mono at +3 dB, which a capture host would not expect.)
    static std::vector<double> ChannelMatrix(int inputs, int outputs) {
        std::vector<double> matrix(static_cast<size_t>(inputs * outputs), 0.0);
        for (int o = 0; o < outputs; ++o) {
            if (outputs >= inputs) {
                matrix[static_cast<size_t>(o * inputs + o % inputs)] = 1.0;
                continue;
            }
            int folded = 0;
            for (int i = o; i < inputs; i += outputs)
                ++folded;
            for (int i = o; i < inputs; i += outputs)
                matrix[static_cast<size_t>(o * inputs + i)] = 1.0 / folded;
        }
        return matrix;
    }

    size_t PendingFrames() const { return pending.empty() ? 0 : pending[0].size() - pendingStart; }

    void CompactPending() {
        if (pendingStart == 0)
            return;
        for (auto& channel : pending)
            channel.erase(channel.begin(), channel.begin() + static_cast<long>(pendingStart));
        pendingStart = 0;
    }

    // Converts `frames` decoded input frames (or flushes, with frames 0 and flush set) into
    // pending output.
    void Convert(size_t frames, bool flush) {
        CompactPending();
        if (!Resamples()) {
            for (int c = 0; c < out.channels; ++c)
                pending[c].insert(pending[c].end(), decoded[c].begin(),
                                  decoded[c].begin() + static_cast<long>(frames));
            return;
        }
        const int inCount = static_cast<int>(frames);
        const int room = swr_get_out_samples(resampler, inCount) + 16;
        const size_t before = pending[0].size();
        for (auto& channel : pending)
            channel.resize(before + static_cast<size_t>(room));
        std::vector<uint8_t*> outPlanes(out.channels);
        for (int c = 0; c < out.channels; ++c)
            outPlanes[c] = reinterpret_cast<uint8_t*>(pending[c].data() + before);
        std::vector<const uint8_t*> inPlanes(in.channels);
        for (int c = 0; c < in.channels; ++c)
            inPlanes[c] = reinterpret_cast<const uint8_t*>(decoded[c].data());
        const int made = swr_convert(resampler, outPlanes.data(), room,
                                     flush ? nullptr : inPlanes.data(), flush ? 0 : inCount);
        for (auto& channel : pending)
            channel.resize(before + static_cast<size_t>(std::max(0, made)));
    }
};

OSStatus AudioConverterNew(const AudioStreamBasicDescription* source,
                           const AudioStreamBasicDescription* destination, AudioConverterRef* out) {
    if (source == nullptr || destination == nullptr || out == nullptr)
        return paramErr;
    *out = nullptr;
    auto* converter = new (std::nothrow) OpaqueAudioConverter;
    if (converter == nullptr)
        return kAudioConverterErr_OperationNotSupported;
    if (!ReadLayout(*source, converter->in) || !ReadLayout(*destination, converter->out) ||
        !converter->OpenResampler()) {
        AudioConverterDispose(converter);
        return kAudioConverterErr_FormatNotSupported;
    }
    converter->decoded.resize(converter->in.channels);
    converter->pending.resize(converter->out.channels);
    *out = converter;
    return noErr;
}

OSStatus AudioConverterDispose(AudioConverterRef converter) {
    if (converter == nullptr)
        return paramErr;
    swr_free(&converter->resampler);
    delete converter;
    return noErr;
}

OSStatus AudioConverterReset(AudioConverterRef converter) {
    if (converter == nullptr)
        return paramErr;
    for (auto& channel : converter->pending)
        channel.clear();
    converter->pendingStart = 0;
    if (converter->resampler != nullptr) {
        swr_close(converter->resampler);
        swr_init(converter->resampler);
    }
    return noErr;
}

OSStatus AudioConverterFillComplexBuffer(AudioConverterRef converter,
                                         AudioConverterComplexInputDataProc inputProc,
                                         void* userData, UInt32* ioOutputDataPacketSize,
                                         AudioBufferList* output, AudioStreamPacketDescription*) {
    if (converter == nullptr || inputProc == nullptr || ioOutputDataPacketSize == nullptr ||
        output == nullptr)
        return paramErr;
    const PCMLayout& in = converter->in;
    const PCMLayout& out = converter->out;
    if (output->mNumberBuffers < static_cast<UInt32>(out.buffers()))
        return kAudioConverterErr_InvalidOutputSize;
    // The output's capacity in frames: the smallest of what the buffers can hold.
    size_t capacity = *ioOutputDataPacketSize;
    for (int b = 0; b < out.buffers(); ++b) {
        if (output->mBuffers[b].mData == nullptr)
            return kAudioConverterErr_InvalidOutputSize;
        capacity =
            std::min<size_t>(capacity, output->mBuffers[b].mDataByteSize / out.bytesPerFrame);
    }
    size_t produced = 0;
    OSStatus status = noErr;
    bool ended = false;
    converter->listStorage.resize(AudioBufferListSize(static_cast<UInt32>(in.buffers())));
    AudioBufferList* inputList = reinterpret_cast<AudioBufferList*>(converter->listStorage.data());

    auto handOut = [&]() {
        const size_t count = std::min(capacity - produced, converter->PendingFrames());
        for (size_t f = 0; f < count; ++f)
            for (int c = 0; c < out.channels; ++c) {
                const double sample = converter->pending[c][converter->pendingStart + f];
                unsigned char* target =
                    out.nonInterleaved ? static_cast<unsigned char*>(output->mBuffers[c].mData) +
                                             (produced + f) * out.bytesPerSample
                                       : static_cast<unsigned char*>(output->mBuffers[0].mData) +
                                             (produced + f) * out.bytesPerFrame +
                                             static_cast<size_t>(c) * out.bytesPerSample;
                EncodeSample(sample, target, out);
            }
        converter->pendingStart += count;
        produced += count;
    };

    handOut();
    while (produced < capacity && !ended) {
        // Ask for about as many input frames as the remaining output needs.
        const double ratio = in.rate / out.rate;
        UInt32 request =
            static_cast<UInt32>(std::ceil(static_cast<double>(capacity - produced) * ratio)) + 1;
        inputList->mNumberBuffers = static_cast<UInt32>(in.buffers());
        for (int b = 0; b < in.buffers(); ++b)
            inputList->mBuffers[b] =
                AudioBuffer{static_cast<UInt32>(in.nonInterleaved ? 1 : in.channels), 0, nullptr};
        UInt32 given = request;
        AudioStreamPacketDescription* descriptions = nullptr;
        status = inputProc(converter, &given, inputList, &descriptions, userData);
        if (status != noErr)
            break;
        // Never read past what the buffers say they hold.
        size_t frames = given;
        for (int b = 0; b < in.buffers(); ++b) {
            if (inputList->mBuffers[b].mData == nullptr)
                frames = 0;
            else
                frames = std::min<size_t>(frames,
                                          inputList->mBuffers[b].mDataByteSize / in.bytesPerFrame);
        }
        if (frames == 0) {
            ended = true;
            if (converter->Resamples())
                converter->Convert(0, true);
        } else {
            for (int c = 0; c < in.channels; ++c) {
                converter->decoded[c].resize(frames);
                for (size_t f = 0; f < frames; ++f) {
                    const unsigned char* source =
                        in.nonInterleaved
                            ? static_cast<const unsigned char*>(inputList->mBuffers[c].mData) +
                                  f * in.bytesPerSample
                            : static_cast<const unsigned char*>(inputList->mBuffers[0].mData) +
                                  f * in.bytesPerFrame + static_cast<size_t>(c) * in.bytesPerSample;
                    converter->decoded[c][f] = DecodeSample(source, in);
                }
            }
            converter->Convert(frames, false);
        }
        handOut();
    }
    for (int b = 0; b < out.buffers(); ++b)
        output->mBuffers[b].mDataByteSize = static_cast<UInt32>(produced * out.bytesPerFrame);
    *ioOutputDataPacketSize = static_cast<UInt32>(produced);
    return status;
}
