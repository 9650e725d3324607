// The capture objects: devices, sessions, inputs, connections, outputs, sample buffers and
// format descriptions, under the desktop framework's names, with members named after their
// selectors ([session addInput:input error:&error] is session->addInput(input, &error)).
//
// A session runs one capture thread per device input while it runs; each thread reads samples
// from its device's backend stream and hands them to the session's outputs, which call their
// delegates on that thread. stopRunning returns only after the capture threads have stopped
// calling delegates; setDelegate returns only after a delegate call already under way on
// another thread has finished.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/coreaudio.h"
#include "platform/corevideo.h"
#include "platform/devicebackend.h"
#include "platform/foundation.h"
#include "platform/movierecorder.h"

// Media types.
extern NSString* const QTMediaTypeVideo;
extern NSString* const QTMediaTypeSound;
extern NSString* const QTMediaTypeMuxed;

// Device attributes: the tape-transport controls, a dictionary with a speed (long) and a
// playback mode (unsigned long).
extern NSString* const QTCaptureDeviceAVCTransportControlsAttribute;
extern NSString* const QTCaptureDeviceAVCTransportControlsSpeedKey;
extern NSString* const QTCaptureDeviceAVCTransportControlsPlaybackModeKey;
enum : unsigned long {
    QTCaptureDeviceAVCTransportControlsNotPlayingMode = 0,
    QTCaptureDeviceAVCTransportControlsPlayingMode = 1,
};

// Sample-buffer and format-description attributes.
extern NSString* const QTSampleBufferSMPTETimeAttribute; // NSValue of SMPTETime
extern NSString* const
    QTFormatDescriptionAudioStreamBasicDescriptionAttribute; // NSValue of the description
extern NSString* const QTFormatDescriptionVideoEncodedPixelsSizeAttribute; // NSValue of NSSize

enum : unsigned int { QTSampleBufferAudioBufferListOptionAssure16ByteAlignment = 1 };

class QTFormatDescription : public NSObject {
public:
    explicit QTFormatDescription(const platform::DeviceFormat& format);
    NSString* mediaType() const;
    UInt32 formatType() const { return format.formatType; }
    NSDictionary* formatDescriptionAttributes() const { return attributes; }
    NSObject* attributeForKey(const NSString* key) const { return attributes->objectForKey(key); }
    const platform::DeviceFormat& deviceFormat() const { return format; }

protected:
    ~QTFormatDescription() override;

private:
    platform::DeviceFormat format;
    NSMutableDictionary* attributes;
};

class QTCaptureDevice : public NSObject {
public:
    // Every capture device present (and those gone while open), in a stable order: real
    // devices first, the virtual test devices last. Autoreleased.
    static NSArray* inputDevices();
    // Looks a device up by its unique id among those listed so far; null when unknown.
    static QTCaptureDevice* deviceWithUniqueID(const NSString* uniqueID);

    NSString* localizedDisplayName() const { return displayName; }
    NSString* uniqueID() const { return uniqueIdentifier; }
    bool hasMediaType(const NSString* mediaType) const;
    bool isConnected() const;
    bool isInUseByAnotherApplication() const;
    // Opens the device; false (with *error set when error is not null) when it cannot.
    bool open(NSError** error);
    void close();
    bool isOpen() const { return openFlag.load(); }
    // Autoreleased array of QTFormatDescription.
    NSArray* formatDescriptions() const;
    // Autoreleased; holds the transport-controls attribute when the device has one.
    NSDictionary* deviceAttributes() const;
    NSObject* attributeForKey(const NSString* key) const;
    void setAttribute(NSObject* value, const NSString* key);

    // For the capture core.
    std::shared_ptr<platform::BackendDevice> backendDevice() const;
    explicit QTCaptureDevice(std::shared_ptr<platform::BackendDevice> device);
    void ReplaceBackendDevice(std::shared_ptr<platform::BackendDevice> device);

protected:
    ~QTCaptureDevice() override;

private:
    mutable std::mutex mutex;
    std::shared_ptr<platform::BackendDevice> device;
    platform::DeviceInfo info;
    NSString* displayName;
    NSString* uniqueIdentifier;
    std::atomic<bool> openFlag{false};
};

class QTCaptureConnection : public NSObject {
public:
    QTCaptureConnection(QTFormatDescription* description, NSString* mediaType);
    QTFormatDescription* formatDescription() const { return description; }
    NSString* mediaType() const { return media; }

protected:
    ~QTCaptureConnection() override;

private:
    QTFormatDescription* description;
    NSString* media;
};

class QTCaptureSession;

class QTCaptureInput : public NSObject {};

class QTCaptureDeviceInput : public QTCaptureInput {
public:
    // initWithDevice:, with one reference for the caller; the input retains the device.
    explicit QTCaptureDeviceInput(QTCaptureDevice* device);
    QTCaptureDevice* device() const { return captureDevice; }
    // One connection per media the device delivers (pictures, sound); autoreleased array.
    NSArray* connections() const { return connectionList; }

protected:
    ~QTCaptureDeviceInput() override;

private:
    QTCaptureDevice* captureDevice;
    NSArray* connectionList;
};

class QTSampleBuffer : public NSObject {
public:
    QTSampleBuffer(QTFormatDescription* description, const platform::CapturedSample& sample,
                   bool forAudio);
    QTFormatDescription* formatDescription() const { return description; }
    // The sound of the buffer; null for a picture. Valid while the delegate call runs.
    const AudioBufferList* audioBufferListWithOptions(unsigned int options) const;
    // QTSampleBufferSMPTETimeAttribute when the sample carries a timecode; null otherwise.
    NSObject* attributeForKey(const NSString* key) const;
    double presentationTime() const { return time; }
    unsigned long numberOfSamples() const;

protected:
    ~QTSampleBuffer() override;

private:
    QTFormatDescription* description;
    const AudioBufferList* audio;
    UInt32 bytesPerFrame;
    double time;
    NSValue* timecode;
};

class QTCaptureOutput : public NSObject {
public:
    // Which outputs a test may make a session refuse.
    enum class Kind { Video, Audio, Movie };
    virtual Kind kind() const = 0;

    // For the capture core. Called on a capture thread for each sample of the session's inputs.
    virtual void Deliver(const platform::CapturedSample& sample, QTSampleBuffer* buffer,
                         QTCaptureConnection* connection, bool isVideo) = 0;
    // The session started running with this output, or stopped or removed it.
    virtual void SessionStarted(QTCaptureSession*) {}
    virtual void SessionStopped() {}
};

class QTCaptureDecompressedVideoOutputDelegate {
public:
    // captureOutput:didOutputVideoFrame:withSampleBuffer:fromConnection:
    virtual void captureOutput(QTCaptureOutput* output, CVImageBufferRef videoFrame,
                               QTSampleBuffer* sampleBuffer, QTCaptureConnection* connection) = 0;

protected:
    ~QTCaptureDecompressedVideoOutputDelegate() = default;
};

class QTCaptureDecompressedAudioOutputDelegate {
public:
    // captureOutput:didOutputAudioSampleBuffer:fromConnection:
    virtual void captureOutput(QTCaptureOutput* output, QTSampleBuffer* sampleBuffer,
                               QTCaptureConnection* connection) = 0;
    // The sound format the delegate converts every buffer into, when it has a fixed one: the
    // session refuses the output when it cannot convert its inputs' sound into that format.
    // False (the default): the delegate takes the sound as it comes.
    virtual bool wantedFormat(AudioStreamBasicDescription*) const { return false; }

protected:
    ~QTCaptureDecompressedAudioOutputDelegate() = default;
};

class QTCaptureDecompressedVideoOutput : public QTCaptureOutput {
public:
    QTCaptureDecompressedVideoOutput();
    Kind kind() const override { return Kind::Video; }
    // The delegate is not retained. Returns once no call to the previous delegate runs.
    void setDelegate(QTCaptureDecompressedVideoOutputDelegate* delegate);
    QTCaptureDecompressedVideoOutputDelegate* delegate() const;
    // Pixel format, width and height wanted (kCVPixelBuffer...Key); the dictionary is retained.
    void setPixelBufferAttributes(NSDictionary* attributes);
    NSDictionary* pixelBufferAttributes() const;
    // The time the device is asked to leave between pictures, in seconds: the session asks the
    // device for the offered rate nearest to its inverse when capture starts. 0 (the default)
    // leaves the rate to the device; a negative or non-finite interval counts as 0.
    void setMinimumVideoFrameInterval(double seconds);
    double minimumVideoFrameInterval() const;
    // The wishes read from the attributes and the frame interval (0 where none was given).
    platform::StreamRequest Request() const;
    // The nominal rate of the last picture delivered since the session started, in frames per
    // second; 0 before the first or when the device does not state its rate. Any thread.
    double DeliveredFrameRate() const { return deliveredRate.load(); }
    // A new run has delivered no picture yet.
    void SessionStarted(QTCaptureSession*) override { deliveredRate = 0; }

protected:
    ~QTCaptureDecompressedVideoOutput() override;
    void Deliver(const platform::CapturedSample& sample, QTSampleBuffer* buffer,
                 QTCaptureConnection* connection, bool isVideo) override;

private:
    mutable std::recursive_mutex mutex; // held around every delegate call
    QTCaptureDecompressedVideoOutputDelegate* videoDelegate = nullptr;
    NSDictionary* attributes = nullptr;
    // Written under both locks, read under either: a starting capture thread asks for it while
    // a delegate call may hold `mutex` and wait for that very thread (a callback stopping
    // capture joins the session's threads).
    mutable std::mutex requestMutex;
    platform::StreamRequest request;
    double frameInterval = 0; // under requestMutex
    std::atomic<double> deliveredRate{0};
    class VideoConverter* converter = nullptr;
};

class QTCaptureDecompressedAudioOutput : public QTCaptureOutput {
public:
    Kind kind() const override { return Kind::Audio; }
    void setDelegate(QTCaptureDecompressedAudioOutputDelegate* delegate);
    QTCaptureDecompressedAudioOutputDelegate* delegate() const;

protected:
    void Deliver(const platform::CapturedSample& sample, QTSampleBuffer* buffer,
                 QTCaptureConnection* connection, bool isVideo) override;

private:
    mutable std::recursive_mutex mutex;
    QTCaptureDecompressedAudioOutputDelegate* audioDelegate = nullptr;
};

// Records what the session captures to a movie file (see platform/movierecorder.h).
class QTCaptureMovieFileOutput : public QTCaptureOutput {
public:
    QTCaptureMovieFileOutput();
    Kind kind() const override { return Kind::Movie; }
    // Starts recording to url (null stops): while the session runs the file is written. The
    // session refuses the output when the file cannot be created; a file that fails later
    // (a full disk) ends the recording, and failureReason says why.
    void recordToOutputFileURL(NSURL* url);
    NSURL* outputFileURL() const;
    // What the next recording encodes pictures and sound as; a running one keeps its own.
    void setEncoding(const MovieEncoding& encoding);
    MovieEncoding encoding() const;
    // What has been written so far, for status displays and tests. videoFramesNotRecorded
    // counts the pictures that came while the file was being written but are not in it (the
    // encoder fell behind, the file failed, the picture size changed); pictures before the file
    // starts (it waits for the first sound) are in neither count.
    struct Statistics {
        uint64_t videoFrames = 0, audioFrames = 0, bytes = 0;
        uint64_t videoFramesNotRecorded = 0;
        bool failed = false;
        bool recording = false;
    };
    Statistics statistics() const;
    // Why the current recording, or the last one, failed, as a sentence a host can show;
    // empty while it has not failed.
    std::string failureReason() const;

protected:
    ~QTCaptureMovieFileOutput() override;
    void Deliver(const platform::CapturedSample& sample, QTSampleBuffer* buffer,
                 QTCaptureConnection* connection, bool isVideo) override;
    void SessionStarted(QTCaptureSession* session) override;
    void SessionStopped() override;

private:
    struct Recording;
    void Finish();
    mutable std::mutex mutex;
    NSURL* url = nullptr;
    std::unique_ptr<Recording> recording;
    Statistics last; // of the recording that ended last
    std::string lastFailure;
    bool sessionRunning = false;
    bool expectVideo = false, expectAudio = false, keepDV = false;
    MovieEncoding chosenEncoding;
};

class CaptureThread;

class QTCaptureSession : public NSObject {
public:
    QTCaptureSession();
    // False (error set) when the session refuses the input: its device is not open, or a test
    // made the session refuse it. Adding an input already in the session succeeds.
    bool addInput(QTCaptureInput* input, NSError** error);
    void removeInput(QTCaptureInput* input);
    // False (error set, a sentence a host can show) when the session cannot serve the output:
    // a video output whose pixel-buffer attributes ask for a pixel format or a size the
    // converter cannot make, or whose session has inputs and none delivers pictures; an audio
    // output whose session has inputs and none delivers sound, or whose delegate wants a sound
    // format the converter cannot make; a movie file output whose file cannot be created; or
    // a test made the session refuse this kind of output. An output already in the session is
    // checked again (its wishes may have changed) and otherwise succeeds.
    bool addOutput(QTCaptureOutput* output, NSError** error);
    void removeOutput(QTCaptureOutput* output);
    void startRunning();
    // Returns once no delegate call runs or can start (from a delegate, the calling thread's
    // own call is the one still running).
    void stopRunning();
    bool isRunning() const { return running.load(); }
    NSArray* inputs() const;
    NSArray* outputs() const;

    // What the capture thread of input asks its device for.
    platform::StreamRequest RequestFor(QTCaptureDeviceInput* input) const;

protected:
    ~QTCaptureSession() override;

private:
    void StartThread(QTCaptureDeviceInput* input);
    void StopThreads(const QTCaptureDeviceInput* only);
    mutable std::recursive_mutex mutex; // guards the lists; never held while joining
    std::vector<QTCaptureDeviceInput*> inputList;
    std::vector<QTCaptureOutput*> outputList;
    std::vector<std::unique_ptr<CaptureThread>> threads;
    std::atomic<bool> running{false};
};
