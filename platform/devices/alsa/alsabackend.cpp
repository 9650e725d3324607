// ALSA sound inputs as capture devices: the hardware capture PCMs and the default device, each
// delivering in its native format from its own capture thread.
//
// The capture thread never waits for the host: what it reads is queued for the session's capture
// thread, which converts it and calls the host. A host that takes a while (a slow callback, a
// busy machine) therefore loses nothing; it gets the sound late and all of it. Only a host more
// than kMaxQueuedSeconds behind loses sound: the oldest is dropped so that the delay stays
// bounded, and the delivered times jump by the span dropped, as they do after an overrun of the
// device's own ring.
#include "platform/devices/alsa/alsabackend.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <map>
#include <mutex>

#include "platform/devices/alsa/alsacapture.h"
#include "platform/devices/alsa/alsamixer.h"
#include "platform/soundqueue.h"

namespace {

// Captured sound waiting for the session's capture thread, in seconds; beyond this the oldest is
// dropped.
constexpr double kMaxQueuedSeconds = 2;
// How long a probe of a PCM's native format is trusted before it is made again.
constexpr double kProbeSeconds = 5;

AudioStreamBasicDescription DescriptionOf(const AlsaNativeFormat& format) {
    AlsaSampleLayout layout;
    AlsaSampleLayoutOf(format.format, layout);
    AudioStreamBasicDescription d{};
    d.mSampleRate = format.rate;
    d.mFormatID = kAudioFormatLinearPCM;
    d.mFormatFlags = layout.formatFlags;
    d.mBytesPerFrame = layout.bytesPerSample * format.channels;
    d.mBytesPerPacket = d.mBytesPerFrame;
    d.mFramesPerPacket = 1;
    d.mChannelsPerFrame = format.channels;
    d.mBitsPerChannel = layout.bitsPerChannel;
    return d;
}

// Native formats by PCM name, probed at most every few seconds: a probe opens the device.
class ProbeCache {
public:
    bool Get(const std::string& pcm, AlsaNativeFormat& format) {
        std::lock_guard<std::mutex> locked(mutex);
        Entry& entry = entries[pcm];
        const double now = platform::MonotonicSeconds();
        if (entry.when == 0 || now - entry.when > kProbeSeconds) {
            bool busy = false;
            entry.ok = AlsaProbeNativeFormat(pcm, entry.format, &busy);
            // A busy device keeps the format it last showed.
            if (!entry.ok && busy && entry.format.rate != 0)
                entry.ok = true;
            entry.when = now;
        }
        format = entry.format;
        return entry.ok;
    }

private:
    struct Entry {
        double when = 0;
        bool ok = false;
        AlsaNativeFormat format;
    };
    std::mutex mutex;
    std::map<std::string, Entry> entries;
};

ProbeCache& Probes() {
    static ProbeCache cache;
    return cache;
}

class AlsaStream : public platform::DeviceStream {
public:
    bool Start(const std::string& pcm) {
        return capture.start(
                   pcm,
                   [this](const uint8_t* samples, size_t frames, double timestamp) {
                       platform::SoundQueue::Piece piece;
                       // The capture thread starts after the format is chosen.
                       const AlsaNativeFormat& native = capture.format();
                       piece.bytes.assign(samples, samples + frames * capture.bytesPerFrame());
                       piece.frames = frames;
                       piece.time = timestamp;
                       std::lock_guard<std::mutex> locked(mutex);
                       queue.Push(std::move(piece), size_t(kMaxQueuedSeconds * native.rate));
                       ready.notify_one();
                   },
                   [this] {
                       std::lock_guard<std::mutex> locked(mutex);
                       gone = true;
                       ready.notify_one();
                   }) == AlsaCapture::Status::Ok &&
               Describe();
    }

    ~AlsaStream() override { capture.stop(); }

    Result Read(int timeoutMs, platform::CapturedSample& sample) override {
        std::unique_lock<std::mutex> locked(mutex);
        ready.wait_for(locked, std::chrono::milliseconds(timeoutMs),
                       [this] { return !queue.Empty() || gone; });
        if (queue.Empty())
            return gone ? Result::Gone : Result::Timeout;
        current = queue.Pop(format.mSampleRate, format.mChannelsPerFrame);
        locked.unlock();
        list.mNumberBuffers = 1;
        list.mBuffers[0].mNumberChannels = format.mChannelsPerFrame;
        list.mBuffers[0].mDataByteSize = static_cast<UInt32>(current.bytes.size());
        list.mBuffers[0].mData = current.bytes.data();
        sample.audio = &list;
        sample.audioFormat = format;
        sample.time = current.time;
        return Result::Sample;
    }

private:
    bool Describe() {
        format = DescriptionOf(capture.format());
        return format.mBytesPerFrame != 0;
    }

    AudioStreamBasicDescription format{};
    AlsaCapture capture;
    std::mutex mutex;
    std::condition_variable ready;
    platform::SoundQueue queue;
    bool gone = false;
    platform::SoundQueue::Piece current; // what the last Read handed out, valid until the next
    AudioBufferList list{};
};

// The card and device numbers of a hardware PCM ("hw:CARD=Loopback,DEV=1" on card 2 is
// "alsa:2,1"), as other backends reaching the same hardware name it; empty for other PCMs.
std::string IdentityOf(const std::string& pcmName) {
    const int card = AlsaCardOf(pcmName);
    if (card < 0)
        return {};
    const size_t comma = pcmName.find(',');
    std::string device = comma == std::string::npos ? "0" : pcmName.substr(comma + 1);
    if (device.compare(0, 4, "DEV=") == 0)
        device = device.substr(4);
    return "alsa:" + std::to_string(card) + "," + device.substr(0, device.find(','));
}

class AlsaDevice : public platform::BackendDevice {
public:
    explicit AlsaDevice(AlsaDeviceInfo info)
        : info(std::move(info)), identity(IdentityOf(this->info.pcmName)) {}

    platform::DeviceInfo Info() const override {
        platform::DeviceInfo result;
        result.uniqueId = info.uniqueId;
        result.displayName = info.displayName;
        result.hasSound = true;
        result.identity = identity;
        return result;
    }

    bool IsConnected() override { return AlsaIsPresent(info.pcmName); }
    bool IsInUseByAnotherApplication() override { return AlsaIsInUse(info.pcmName); }
    // Capture needs the device to itself: a device another program holds does not open (the
    // PCM is opened for each stream; opening the device only checks that it could be).
    bool Open() override { return IsConnected() && !AlsaIsInUse(info.pcmName); }
    void Close() override {}

    std::vector<platform::DeviceFormat> Formats() override {
        AlsaNativeFormat native;
        if (!Probes().Get(info.pcmName, native))
            return {};
        platform::DeviceFormat format;
        format.kind = platform::MediaKind::Sound;
        format.formatType = kAudioFormatLinearPCM;
        format.audio = DescriptionOf(native);
        return {format};
    }

    std::unique_ptr<platform::DeviceStream> StartStream(const platform::StreamRequest&) override {
        auto stream = std::make_unique<AlsaStream>();
        if (!stream->Start(info.pcmName))
            return nullptr;
        return stream;
    }

    // The capture volume and switch of the card the PCM belongs to; ALSA tells of mixer changes
    // only to a mixer handle kept open and polled, which is not done here: no WatchControls.
    std::vector<platform::DeviceControl> Controls() override {
        return AlsaMixerControls(AlsaCardOf(info.pcmName));
    }

    platform::ControlResult SetControl(const platform::DeviceControl& control, int64_t value,
                                       const std::string&, platform::DeviceControl& after,
                                       std::string& reason) override {
        return AlsaMixerSet(AlsaCardOf(info.pcmName), control, value, after, reason);
    }

private:
    AlsaDeviceInfo info;
    std::string identity;
};

class AlsaBackend : public platform::DeviceBackend {
public:
    const char* Name() const override { return "alsa"; }

    std::vector<std::shared_ptr<platform::BackendDevice>> Enumerate() override {
        std::vector<std::shared_ptr<platform::BackendDevice>> devices;
        for (AlsaDeviceInfo& info : AlsaListDevices()) {
            // "default" is hinted even where nothing stands behind it: offer it only when it
            // opens.
            AlsaNativeFormat native;
            if (info.pcmName == "default" && !Probes().Get(info.pcmName, native))
                continue;
            devices.push_back(std::make_shared<AlsaDevice>(std::move(info)));
        }
        return devices;
    }
};

} // namespace

platform::DeviceBackend* AlsaDeviceBackend() {
    static AlsaBackend backend;
    return &backend;
}
