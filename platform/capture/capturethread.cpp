#include "capturethread.h"

#include <chrono>
#include <thread>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>
#include <string>

namespace {
// How long one read waits, so a stop request is seen promptly.
constexpr int kReadTimeoutMs = 50;

// Streams whose capture thread was asked to stop but still holds them: the thread is returning
// from a delegate call, often the very call that stopped the session. A device streams to one
// reader at a time (a V4L2 node refuses a second), so a new stream of the same device, started
// by that call, waits until the old one is let go; the wait is bounded, so a delegate that
// blocks on its own successor only delays it.
constexpr auto kHandOverWait = std::chrono::seconds(3);
std::mutex gEndingMutex;
std::condition_variable gEndingChanged;
std::multiset<std::string> gEndingStreams; // by device unique id
} // namespace

struct CaptureThread::State {
    QTCaptureSession* session = nullptr;   // retained while the thread runs
    QTCaptureDeviceInput* input = nullptr; // retained for the state's life
    std::atomic<bool> stopRequested{false};
    std::string deviceId;
    bool holdsStream = false;  // under gEndingMutex
    bool listedEnding = false; // in gEndingStreams; under gEndingMutex
    QTFormatDescription* videoDescription = nullptr;
    QTFormatDescription* audioDescription = nullptr;

    ~State() {
        NSReleaseIfSet(videoDescription);
        NSReleaseIfSet(audioDescription);
        NSReleaseIfSet(input);
    }

    QTFormatDescription* DescriptionFor(const platform::CapturedSample& sample, bool video);
    void Deliver(const platform::CapturedSample& sample);
    void ListEndingLocked();
    void SetHoldsStream(bool holds);
    static void Run(std::shared_ptr<State> state);
};

void CaptureThread::State::ListEndingLocked() {
    if (!holdsStream || listedEnding)
        return;
    gEndingStreams.insert(deviceId);
    listedEnding = true;
}

void CaptureThread::State::SetHoldsStream(bool holds) {
    std::lock_guard<std::mutex> locked(gEndingMutex);
    holdsStream = holds;
    if (holds && stopRequested.load())
        ListEndingLocked();
    if (!holds && listedEnding) {
        gEndingStreams.erase(gEndingStreams.find(deviceId));
        listedEnding = false;
        gEndingChanged.notify_all();
    }
}

QTFormatDescription* CaptureThread::State::DescriptionFor(const platform::CapturedSample& sample,
                                                          bool video) {
    // One description per stream format, kept while the format stays the same.
    if (video) {
        const bool same =
            videoDescription != nullptr &&
            videoDescription->deviceFormat().formatType == sample.video->pixelFormat &&
            videoDescription->deviceFormat().width == sample.video->width &&
            videoDescription->deviceFormat().height == sample.video->height;
        if (!same) {
            NSReleaseIfSet(videoDescription);
            platform::DeviceFormat format;
            format.kind = platform::MediaKind::Video;
            format.formatType = sample.video->pixelFormat;
            format.width = sample.video->width;
            format.height = sample.video->height;
            format.frameRate = sample.frameRate;
            videoDescription = new QTFormatDescription(format);
        }
        return videoDescription;
    }
    if (audioDescription == nullptr ||
        memcmp(&audioDescription->deviceFormat().audio, &sample.audioFormat,
               sizeof sample.audioFormat) != 0) {
        NSReleaseIfSet(audioDescription);
        platform::DeviceFormat format;
        format.kind = platform::MediaKind::Sound;
        format.formatType = sample.audioFormat.mFormatID;
        format.audio = sample.audioFormat;
        audioDescription = new QTFormatDescription(format);
    }
    return audioDescription;
}

void CaptureThread::State::Deliver(const platform::CapturedSample& sample) {
    NSArray* outputs = session->outputs(); // a snapshot, autoreleased into this turn's pool
    NSArray* connections = input->connections();
    QTCaptureConnection* videoConnection = nullptr;
    QTCaptureConnection* soundConnection = nullptr;
    for (size_t i = 0; i < connections->count(); ++i) {
        auto* connection = static_cast<QTCaptureConnection*>(connections->objectAtIndex(i));
        if (connection->mediaType()->isEqualToString(QTMediaTypeSound))
            soundConnection = connection;
        else
            videoConnection = connection;
    }
    if (sample.video != nullptr) {
        auto* buffer = new QTSampleBuffer(DescriptionFor(sample, true), sample, false);
        for (size_t i = 0; i < outputs->count() && !stopRequested.load(); ++i)
            static_cast<QTCaptureOutput*>(outputs->objectAtIndex(i))
                ->Deliver(sample, buffer, videoConnection, true);
        buffer->release();
    }
    if (sample.audio != nullptr) {
        auto* buffer = new QTSampleBuffer(DescriptionFor(sample, false), sample, true);
        QTCaptureConnection* connection =
            soundConnection != nullptr ? soundConnection : videoConnection;
        for (size_t i = 0; i < outputs->count() && !stopRequested.load(); ++i)
            static_cast<QTCaptureOutput*>(outputs->objectAtIndex(i))
                ->Deliver(sample, buffer, connection, false);
        buffer->release();
    }
}

void CaptureThread::State::Run(std::shared_ptr<State> state) {
    QTCaptureDevice* device = state->input->device();
    std::unique_ptr<platform::DeviceStream> stream;
    if (device != nullptr) {
        state->deviceId = device->uniqueID()->str();
        {
            std::unique_lock<std::mutex> locked(gEndingMutex);
            gEndingChanged.wait_for(locked, kHandOverWait, [&state] {
                return gEndingStreams.count(state->deviceId) == 0 || state->stopRequested.load();
            });
        }
        stream = device->backendDevice()->StartStream(state->session->RequestFor(state->input));
        state->SetHoldsStream(stream != nullptr);
    }
    while (stream != nullptr && !state->stopRequested.load()) {
        NSAutoreleasePool* pool = new NSAutoreleasePool;
        platform::CapturedSample sample;
        const platform::DeviceStream::Result result = stream->Read(kReadTimeoutMs, sample);
        if (result == platform::DeviceStream::Result::Sample && !state->stopRequested.load())
            state->Deliver(sample);
        CVPixelBufferRelease(sample.video);
        pool->drain();
        if (result == platform::DeviceStream::Result::Gone) {
            // Nothing more comes, but the device is let go of only when capture stops: a driver
            // may bring its node back as soon as its last user closes it (vivid's unplug does),
            // and the host would see the device return under its own ended capture.
            while (!state->stopRequested.load())
                std::this_thread::sleep_for(std::chrono::milliseconds(kReadTimeoutMs));
            break;
        }
    }
    stream.reset();
    state->SetHoldsStream(false);
    QTCaptureSession* session = state->session;
    state->session = nullptr;
    session->release();
}

CaptureThread::CaptureThread(QTCaptureSession* session, QTCaptureDeviceInput* input)
    : state(std::make_shared<State>()) {
    state->session = session;
    session->retain();
    state->input = input;
    input->retain();
    thread = std::thread(&State::Run, state);
}

CaptureThread::~CaptureThread() {
    RequestStop();
    Join();
}

QTCaptureDeviceInput* CaptureThread::input() const {
    return state->input;
}

void CaptureThread::RequestStop() {
    state->stopRequested = true;
    std::lock_guard<std::mutex> locked(gEndingMutex);
    state->ListEndingLocked();
    gEndingChanged.notify_all(); // a thread still waiting for its device gives up the wait
}

void CaptureThread::Join() {
    if (!thread.joinable())
        return;
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
    else
        thread.join();
}
