// Converting one captured sound buffer into the host's format: the whole buffer in one call,
// bounded by the output area, across sample rates, channel counts, sample sizes and layouts.
#include <gtest/gtest.h>
#include <cmath>
#include <cstring>
#include <vector>

#include "support/tone.h"
#include "tavix/tavixdeviceformat.h"

namespace {

struct Format {
    double rate;
    UInt32 channels, bytes, flags;
};

AudioStreamBasicDescription Describe(const Format& f) {
    const bool planar = (f.flags & kAudioFormatFlagIsNonInterleaved) != 0;
    const UInt32 frameBytes = planar ? f.bytes : f.bytes * f.channels;
    return {f.rate,     kAudioFormatLinearPCM, f.flags, frameBytes, 1, frameBytes,
            f.channels, f.bytes * 8,           0};
}

// One sample value in [-1, 1) written in the format's encoding.
void Put(unsigned char* at, const Format& f, double value) {
    if (f.flags & kAudioFormatFlagIsFloat) {
        if (f.bytes == 4) {
            const float v = static_cast<float>(value);
            memcpy(at, &v, 4);
        } else {
            memcpy(at, &value, 8);
        }
        return;
    }
    const double scale = std::ldexp(1.0, static_cast<int>(f.bytes * 8 - 1));
    const long long v = std::llround(value * (scale - 1));
    for (UInt32 i = 0; i < f.bytes; ++i) // little-endian
        at[i] = static_cast<unsigned char>(static_cast<unsigned long long>(v) >> (8 * i));
}

// A captured buffer: interleaved in one AudioBuffer, or one AudioBuffer per channel.
struct Captured {
    std::vector<std::vector<unsigned char>> planes;
    std::vector<unsigned char> listStorage;
    AudioBufferList* List() { return reinterpret_cast<AudioBufferList*>(listStorage.data()); }
};

Captured Sine(const Format& f, size_t frames, double hz, double amplitude) {
    const bool planar = (f.flags & kAudioFormatFlagIsNonInterleaved) != 0;
    Captured c;
    const UInt32 buffers = planar ? f.channels : 1;
    c.planes.assign(buffers, std::vector<unsigned char>(frames * f.bytes * f.channels / buffers));
    for (size_t n = 0; n < frames; ++n) {
        const double value = amplitude * std::sin(2 * M_PI * hz * static_cast<double>(n) / f.rate);
        for (UInt32 ch = 0; ch < f.channels; ++ch) {
            unsigned char* at =
                planar ? &c.planes[ch][n * f.bytes] : &c.planes[0][(n * f.channels + ch) * f.bytes];
            Put(at, f, value);
        }
    }
    c.listStorage.resize(AudioBufferListSize(buffers));
    c.List()->mNumberBuffers = buffers;
    for (UInt32 i = 0; i < buffers; ++i)
        c.List()->mBuffers[i] = {planar ? 1 : f.channels, static_cast<UInt32>(c.planes[i].size()),
                                 c.planes[i].data()};
    return c;
}

struct Result {
    bool ok = false;
    unsigned long packets = 0;
    std::vector<unsigned char> bytes;
};

Result Convert(const Format& from, const Format& to, AudioBufferList* input,
               unsigned long outputBytes = 65535) {
    const AudioStreamBasicDescription in = Describe(from), out = Describe(to);
    AudioConverterRef converter = nullptr;
    EXPECT_EQ(noErr, AudioConverterNew(&in, &out, &converter));
    Result r;
    // Twice through one converter: each buffer leaves it reset for the next.
    for (int pass = 0; pass < 2; ++pass) {
        r.bytes.assign(outputBytes, 0);
        r.ok = QTDeviceFormatConvertAudioSamples(converter, input, in, r.bytes.data(), outputBytes,
                                                 r.packets, out);
    }
    AudioConverterDispose(converter);
    r.bytes.resize(r.packets * out.mBytesPerPacket);
    return r;
}

const UInt32 kInt = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
const UInt32 kFloat = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;

TEST(AudioConversion, TheSameFormatPassesEveryByteThatFits) {
    const Format f{44100, 2, 2, kInt};
    Captured c = Sine(f, 1024, 440, 0.7);
    ASSERT_EQ(4096u, c.planes[0].size());
    const Result r = Convert(f, f, c.List());
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(1024u, r.packets);
    EXPECT_EQ(c.planes[0], r.bytes);

    const Result part = Convert(f, f, c.List(), 403); // room for 100 whole packets
    EXPECT_TRUE(part.ok);
    EXPECT_EQ(100u, part.packets);
    EXPECT_TRUE(std::equal(part.bytes.begin(), part.bytes.end(), c.planes[0].begin()));

    Captured empty = Sine(f, 0, 1000, 0.5);
    const Result none = Convert(f, f, empty.List());
    EXPECT_TRUE(none.ok);
    EXPECT_EQ(0u, none.packets);
}

TEST(AudioConversion, ASineKeepsItsPitchAndLevelAcrossFormats) {
    struct Case {
        Format from, to;
    } cases[] = {
        {{48000, 2, 4, kFloat}, {44100, 2, 2, kInt}}, // the test microphone to the defaults
        {{44100, 1, 2, kInt}, {48000, 2, 4, kFloat}}, // mono to stereo, up-sampled
        {{48000, 2, 2, kInt}, {22050, 1, 1, kInt}},   // to 8-bit mono
        {{32000, 2, 3, kInt}, {32000, 2, 4, kInt}},   // 24-bit packed to 32-bit
        {{48000, 2, 8, kFloat}, {16000, 2, 2, kInt}}, // doubles, down-sampled
        {{48000, 2, 4, kFloat | kAudioFormatFlagIsNonInterleaved}, {44100, 2, 2, kInt}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.from.rate << "/" << c.from.channels << "ch/" << c.from.bytes << "B/"
                     << c.from.flags << " -> " << c.to.rate << "/" << c.to.channels << "ch/"
                     << c.to.bytes << "B");
        const size_t frames = static_cast<size_t>(c.from.rate / 10); // 100 ms
        Captured input = Sine(c.from, frames, 1000, 0.5);
        const Result r = Convert(c.from, c.to, input.List());
        ASSERT_TRUE(r.ok);
        // Nearly every input frame comes out at the new rate (the resampler may hold back a
        // filter's length at the end).
        const double expected = static_cast<double>(frames) * c.to.rate / c.from.rate;
        EXPECT_GT(static_cast<double>(r.packets), expected * 0.9);
        EXPECT_LE(static_cast<double>(r.packets), expected + 1);
        std::vector<std::vector<double>> channels(c.to.channels);
        AppendDecodedSound(r.bytes.data(), c.to.flags, c.to.bytes, r.packets, channels);
        for (UInt32 ch = 0; ch < c.to.channels; ++ch) {
            const ToneFigures tone = MeasureTone(channels[ch], c.to.rate);
            EXPECT_NEAR(1000, tone.hz, 10) << "channel " << ch;
            EXPECT_NEAR(0.5, tone.peak, c.to.bytes == 1 ? 0.03 : 0.02) << "channel " << ch;
        }
    }
}

TEST(AudioConversion, ConvertersRefuseWhatIsNotLinearPCM) {
    AudioStreamBasicDescription in = Describe({48000, 2, 2, kInt});
    AudioStreamBasicDescription out = in;
    out.mFormatID = 0x61616320; // 'aac '
    AudioConverterRef converter = nullptr;
    EXPECT_NE(noErr, AudioConverterNew(&in, &out, &converter));
    out = in;
    out.mChannelsPerFrame = 0;
    EXPECT_NE(noErr, AudioConverterNew(&in, &out, &converter));
}

} // namespace
