#include "virtualdevice.h"

#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include "jpegpictures.h"
#include "testpattern.h"

namespace {

// Sound comes in buffers of this length when the device has no pictures to follow.
constexpr double kSoundBufferSeconds = 0.01;
constexpr double kToneAmplitude = 0.5;
// Pictures drawn before a camera set to still pictures stops drawing.
constexpr uint64_t kStillPictures = 8;

class VirtualStream : public platform::DeviceStream {
public:
    VirtualStream(std::shared_ptr<VirtualDevice> device, const virtualdevices::VideoMode* mode,
                  double framesPerSecond, bool keepJPEG)
        : device(std::move(device)), start(platform::MonotonicSeconds()), keepJPEG(keepJPEG) {
        ++this->device->openStreams;
        const virtualdevices::DeviceSpec& spec = this->device->spec;
        if (mode != nullptr) {
            videoMode = *mode;
            videoMode.frameRate = framesPerSecond;
            pattern.reset(new TestPattern(mode->pixelFormat, mode->width, mode->height));
            pool = new CVPixelBufferPool(mode->pixelFormat, mode->width, mode->height);
        }
        hasSound = spec.sound || spec.muxed;
        if (hasSound) {
            const double rate = spec.audio.mSampleRate;
            // A muxed device carries each picture's sound with it; a sound device uses short
            // buffers.
            framesPerBuffer = static_cast<size_t>(std::lround(
                rate * (pattern != nullptr ? 1.0 / videoMode.frameRate : kSoundBufferSeconds)));
            const UInt32 buffers = (spec.audio.mFormatFlags & kAudioFormatFlagIsNonInterleaved)
                                       ? spec.audio.mChannelsPerFrame
                                       : 1;
            listStorage.resize(AudioBufferListSize(buffers));
            samples.resize(static_cast<size_t>(buffers) * framesPerBuffer *
                           spec.audio.mBytesPerFrame);
        }
    }

    ~VirtualStream() override {
        if (pool != nullptr) {
            pool->Invalidate();
            pool->release();
        }
        --device->openStreams;
    }

    Result Read(int timeoutMs, platform::CapturedSample& sample) override {
        if (!device->IsConnected())
            return Result::Gone;
        if (device->stalled.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(timeoutMs));
            SkipTo(platform::MonotonicSeconds());
            return Result::Timeout;
        }
        const double due = NextDue();
        if (!VirtualDevicesUnthrottled()) {
            const double now = platform::MonotonicSeconds();
            if (now < due) {
                const double wait = std::min(due - now, timeoutMs / 1000.0);
                std::this_thread::sleep_for(std::chrono::duration<double>(wait));
                if (!device->IsConnected())
                    return Result::Gone;
                if (platform::MonotonicSeconds() < due)
                    return Result::Timeout;
            }
        }
        return Produce(due, sample) ? Result::Sample : Result::Timeout;
    }

private:
    // Moves the stream's clock on, so what fell due while stalled is never delivered.
    void SkipTo(double now) {
        const double due = NextDue();
        if (due < now)
            start += now - due;
    }

    double NextDue() const {
        if (pattern != nullptr)
            return start + static_cast<double>(videoFrames) / videoMode.frameRate;
        return start +
               static_cast<double>(soundBuffers) * framesPerBuffer / device->spec.audio.mSampleRate;
    }

    bool Produce(double due, platform::CapturedSample& sample) {
        const virtualdevices::DeviceSpec& spec = device->spec;
        sample.time = due;
        bool produced = false;
        if (pattern != nullptr) {
            ++videoFrames;
            uint64_t pictureNumber = videoFrames - 1;
            bool picture = true;
            if (spec.transport) {
                const TapeTransport::Frame tape = device->transport.At(due);
                pictureNumber = static_cast<uint64_t>(tape.position);
                picture = tape.pictures;
                sample.hasTimecode = picture;
                sample.timecode = tape.timecode;
            }
            if (picture) {
                sample.video = pool->CreatePixelBuffer();
                if (sample.video != nullptr) {
                    if (!VirtualDevicesDrawStillPictures() || videoFrames <= kStillPictures) {
                        FollowControls();
                        pattern->Draw(sample.video, pictureNumber);
                    }
                    if (device->controls != nullptr)
                        device->controls->OnPicture();
                    if (videoMode.jpeg && keepJPEG)
                        sample.jpeg = jpegPictures.Compress(sample.video);
                    sample.frameRate = videoMode.frameRate;
                    produced = true;
                }
            }
            if (picture && hasSound) {
                FillSound(sample);
                produced = true;
            }
        } else if (hasSound) {
            ++soundBuffers;
            FillSound(sample);
            produced = true;
        }
        if (produced)
            ++device->delivered;
        return produced;
    }

    // Takes up a change of the picture controls from the next picture on.
    void FollowControls() {
        if (device->controls == nullptr || device->controls->LookVersion() == lookVersion)
            return;
        lookVersion = device->controls->LookVersion();
        pattern->SetLook(device->controls->CurrentLook());
    }

    void FillSound(platform::CapturedSample& sample) {
        const AudioStreamBasicDescription& format = device->spec.audio;
        const bool nonInterleaved = (format.mFormatFlags & kAudioFormatFlagIsNonInterleaved) != 0;
        const bool isFloat = (format.mFormatFlags & kAudioFormatFlagIsFloat) != 0;
        const UInt32 channels = format.mChannelsPerFrame;
        const UInt32 bytesPerSample = nonInterleaved
                                          ? format.mBytesPerFrame
                                          : format.mBytesPerFrame / std::max<UInt32>(1, channels);
        const UInt32 buffers = nonInterleaved ? channels : 1;
        auto* list = reinterpret_cast<AudioBufferList*>(listStorage.data());
        list->mNumberBuffers = buffers;
        const size_t bufferBytes = framesPerBuffer * format.mBytesPerFrame;
        for (UInt32 b = 0; b < buffers; ++b)
            list->mBuffers[b] =
                AudioBuffer{nonInterleaved ? 1 : channels, static_cast<UInt32>(bufferBytes),
                            samples.data() + b * bufferBytes};
        const double step = 2 * M_PI * device->spec.toneHz / format.mSampleRate;
        for (size_t frame = 0; frame < framesPerBuffer; ++frame) {
            const double value =
                kToneAmplitude * std::sin(step * static_cast<double>(soundFrames + frame));
            for (UInt32 channel = 0; channel < channels; ++channel) {
                unsigned char* target =
                    nonInterleaved
                        ? samples.data() + channel * bufferBytes + frame * bytesPerSample
                        : samples.data() + frame * format.mBytesPerFrame + channel * bytesPerSample;
                WriteSample(value, target, bytesPerSample, isFloat);
            }
        }
        soundFrames += framesPerBuffer;
        sample.audio = list;
        sample.audioFormat = format;
    }

    static void WriteSample(double value, unsigned char* target, UInt32 bytes, bool isFloat) {
        if (isFloat && bytes == 4) {
            const float f = static_cast<float>(value);
            memcpy(target, &f, 4);
        } else if (bytes == 2) {
            const int16_t s = static_cast<int16_t>(std::lround(value * 32767));
            memcpy(target, &s, 2);
        } else if (bytes == 4) {
            const int32_t s = static_cast<int32_t>(std::lround(value * 2147483647.0));
            memcpy(target, &s, 4);
        } else {
            memset(target, 0, bytes);
        }
    }

    std::shared_ptr<VirtualDevice> device;
    double start;
    const bool keepJPEG; // a JPEG mode hands out its pictures as JPEG too
    virtualdevices::VideoMode videoMode;
    std::unique_ptr<TestPattern> pattern;
    JPEGPictures jpegPictures;
    CVPixelBufferPool* pool = nullptr;
    bool hasSound = false;
    size_t framesPerBuffer = 0;
    uint64_t videoFrames = 0, soundBuffers = 0, soundFrames = 0;
    uint64_t lookVersion = ~uint64_t(0); // the controls' look the pattern has; none at first
    std::vector<unsigned char> listStorage, samples;
};

// The mode's rates, the default first.
std::vector<platform::FrameRates> RatesOf(const virtualdevices::VideoMode& mode) {
    std::vector<platform::FrameRates> rates{{platform::IntervalForRate(mode.frameRate), {}, {}}};
    for (double other : mode.otherRates)
        rates.push_back({platform::IntervalForRate(other), {}, {}});
    return rates;
}

} // namespace

VirtualDevice::VirtualDevice(virtualdevices::DeviceSpec deviceSpec)
    : spec(std::move(deviceSpec)),
      transport(spec.videoModes.empty() ? 25.0 : spec.videoModes.front().frameRate),
      controls(spec.controls ? new VirtualControls : nullptr), connected(spec.connected),
      inUse(spec.inUse), openable(spec.openable) {}

platform::DeviceInfo VirtualDevice::Info() const {
    platform::DeviceInfo info;
    info.uniqueId = spec.uniqueId;
    info.displayName = spec.name;
    info.isMuxed = spec.muxed;
    info.hasVideo = spec.video || spec.muxed;
    info.hasSound = spec.sound || spec.muxed;
    return info;
}

bool VirtualDevice::Open() {
    return IsConnected() && openable.load() && !inUse.load();
}

std::vector<platform::DeviceFormat> VirtualDevice::Formats() {
    std::vector<platform::DeviceFormat> formats;
    for (const virtualdevices::VideoMode& mode : spec.videoModes) {
        platform::DeviceFormat format;
        format.kind = spec.muxed ? platform::MediaKind::Muxed : platform::MediaKind::Video;
        // A deck's stream is DV; its pictures arrive decoded.
        format.formatType = spec.muxed ? FourCharCodeFromText("dvc ") : mode.pixelFormat;
        format.width = mode.width;
        format.height = mode.height;
        format.frameRate = mode.frameRate;
        format.rates = RatesOf(mode);
        if (spec.muxed)
            format.audio = spec.audio;
        formats.push_back(format);
    }
    if (spec.sound && !spec.muxed) {
        platform::DeviceFormat format;
        format.kind = platform::MediaKind::Sound;
        format.formatType = kAudioFormatLinearPCM;
        format.audio = spec.audio;
        formats.push_back(format);
    }
    return formats;
}

platform::TransportState VirtualDevice::GetTransport() {
    return transport.State(platform::MonotonicSeconds());
}

void VirtualDevice::SetTransport(const platform::TransportState& state) {
    if (spec.transport)
        transport.SetState(state, platform::MonotonicSeconds());
}

const virtualdevices::VideoMode*
VirtualDevice::ChooseMode(const platform::StreamRequest& request) const {
    if ((!spec.video && !spec.muxed) || spec.videoModes.empty())
        return nullptr;
    // A mode of the wished size and format is delivered natively. The size comes before the
    // format, as a V4L2 camera's does: a mode of the wished size in another format is converted
    // (a recording, which stores the device's pictures, then has the size asked for). Other
    // wishes get the first mode, converted and scaled.
    for (const bool formatMatters : {true, false})
        for (const virtualdevices::VideoMode& mode : spec.videoModes) {
            const bool sizeFits = (request.width == 0 || request.width == mode.width) &&
                                  (request.height == 0 || request.height == mode.height);
            const bool formatFits = !formatMatters || request.pixelFormat == 0 ||
                                    request.pixelFormat == CanonicalPixelFormat(mode.pixelFormat);
            if (sizeFits && formatFits)
                return &mode;
        }
    return &spec.videoModes.front();
}

bool VirtualDevice::StreamFormatFor(const platform::StreamRequest& request,
                                    platform::DeviceFormat& format) {
    const virtualdevices::VideoMode* mode = ChooseMode(request);
    if (mode == nullptr)
        return false;
    format = platform::DeviceFormat();
    format.formatType = mode->pixelFormat;
    format.width = mode->width;
    format.height = mode->height;
    format.frameRate = mode->frameRate;
    format.rates = RatesOf(*mode);
    return true;
}

std::unique_ptr<platform::DeviceStream>
VirtualDevice::StartStream(const platform::StreamRequest& request) {
    if (!IsConnected() || (spec.oneStream && openStreams.load() > 0))
        return nullptr;
    const virtualdevices::VideoMode* chosen = ChooseMode(request);
    if ((spec.video || spec.muxed) && chosen == nullptr)
        return nullptr;
    // The stream runs at the mode's own rate, or at the offered one nearest to a wish.
    double framesPerSecond = chosen != nullptr ? chosen->frameRate : 0;
    if (chosen != nullptr && request.framesPerSecond > 0) {
        const platform::FrameInterval interval =
            platform::NearestOfferedInterval(RatesOf(*chosen), request.framesPerSecond);
        if (!interval.IsEmpty())
            framesPerSecond = interval.FramesPerSecond();
    }
    return std::unique_ptr<platform::DeviceStream>(
        new VirtualStream(shared_from_this(), chosen, framesPerSecond, request.keepJPEG));
}

std::vector<platform::DeviceControl> VirtualDevice::Controls() {
    return controls != nullptr ? controls->List() : std::vector<platform::DeviceControl>();
}

platform::ControlResult VirtualDevice::SetControl(const platform::DeviceControl& control,
                                                  int64_t value, const std::string& text,
                                                  platform::DeviceControl& after,
                                                  std::string& reason) {
    if (controls == nullptr)
        return BackendDevice::SetControl(control, value, text, after, reason);
    return controls->Set(control, value, after, reason);
}

bool VirtualDevice::WatchControls(platform::ControlChangeListener listener) {
    return controls != nullptr && controls->Watch(std::move(listener));
}
