// The movie file output: records what the session captures with the movie recorder. The file
// is created once the first picture and the first sound have shown what the streams carry (or
// after a second with only one of them).
#include <cstdio>

#include "platform/movierecorder.h"
#include "platform/qtkit.h"

namespace {
constexpr double kWaitForOtherStreamSeconds = 1.0;

std::string FailureText(const std::string& path, const std::string& reason) {
    return "The recording to " + path + " failed: " + reason + ".";
}

// A file that failed while being written keeps what reached the disk before.
std::string WrittenFileFailureText(const std::string& path, const std::string& reason) {
    return FailureText(path, reason + "; what was written before the failure plays");
}
// A deck's timecode as FFmpeg reads it: drop-frame timecode (29.97 and 30 drop) with ';'.
std::string TimecodeText(const SMPTETime& time) {
    const bool drop = time.mType == kSMPTETimeType30Drop || time.mType == kSMPTETimeType2997Drop;
    char text[32];
    snprintf(text, sizeof text, "%02d:%02d:%02d%c%02d", time.mHours, time.mMinutes, time.mSeconds,
             drop ? ';' : ':', time.mFrames);
    return text;
}
} // namespace

struct QTCaptureMovieFileOutput::Recording {
    std::string path;
    MovieEncoding encoding;
    std::unique_ptr<MovieRecorder> recorder;
    bool gaveUp = false;
    std::string whyGaveUp;
    uint64_t otherSizedPictures = 0; // not recorded: the file keeps its first picture size
    double firstSample = -1;
    bool haveVideo = false, haveAudio = false;
    MovieVideoSettings video;
    MovieAudioSettings audio;
};

QTCaptureMovieFileOutput::QTCaptureMovieFileOutput() = default;

QTCaptureMovieFileOutput::~QTCaptureMovieFileOutput() {
    Finish();
    NSReleaseIfSet(url);
}

void QTCaptureMovieFileOutput::recordToOutputFileURL(NSURL* newURL) {
    Finish();
    std::lock_guard<std::mutex> locked(mutex);
    if (newURL != nullptr)
        newURL->retain();
    NSReleaseIfSet(url);
    url = newURL;
    if (url != nullptr && sessionRunning) {
        recording.reset(new Recording);
        recording->path = url->path();
        recording->encoding = chosenEncoding;
    }
}

NSURL* QTCaptureMovieFileOutput::outputFileURL() const {
    std::lock_guard<std::mutex> locked(mutex);
    return url;
}

void QTCaptureMovieFileOutput::setEncoding(const MovieEncoding& encoding) {
    std::lock_guard<std::mutex> locked(mutex);
    chosenEncoding = encoding;
}

MovieEncoding QTCaptureMovieFileOutput::encoding() const {
    std::lock_guard<std::mutex> locked(mutex);
    return chosenEncoding;
}

void QTCaptureMovieFileOutput::SessionStarted(QTCaptureSession* session) {
    std::lock_guard<std::mutex> locked(mutex);
    sessionRunning = true;
    expectVideo = expectAudio = keepDV = false;
    NSArray* inputs = session->inputs();
    for (size_t i = 0; i < inputs->count(); ++i) {
        auto* input = dynamic_cast<QTCaptureDeviceInput*>(inputs->objectAtIndex(i));
        if (input == nullptr || input->device() == nullptr)
            continue;
        const platform::DeviceInfo info = input->device()->backendDevice()->Info();
        expectVideo = expectVideo || info.hasVideo || info.isMuxed;
        expectAudio = expectAudio || info.hasSound || info.isMuxed;
        keepDV = keepDV || info.isMuxed;
    }
    if (url != nullptr && recording == nullptr) {
        recording.reset(new Recording);
        recording->path = url->path();
        recording->encoding = chosenEncoding;
    }
}

void QTCaptureMovieFileOutput::SessionStopped() {
    Finish();
    std::lock_guard<std::mutex> locked(mutex);
    sessionRunning = false;
}

void QTCaptureMovieFileOutput::Finish() {
    std::unique_ptr<Recording> ending;
    {
        std::lock_guard<std::mutex> locked(mutex);
        ending.swap(recording);
    }
    if (ending != nullptr && ending->recorder != nullptr) {
        ending->recorder->Finish();
        std::lock_guard<std::mutex> locked(mutex);
        const MovieRecorderStatistics figures = ending->recorder->GetStatistics();
        last.videoFrames = figures.videoFramesWritten;
        last.videoFramesNotRecorded = figures.videoFramesDropped + ending->otherSizedPictures;
        last.audioFrames = figures.audioFramesWritten;
        last.bytes = figures.bytesWritten;
        last.failed = figures.failed;
        last.recording = false;
        lastFailure = figures.failed
                          ? WrittenFileFailureText(ending->path, ending->recorder->FailureReason())
                          : std::string();
    } else if (ending != nullptr) {
        std::lock_guard<std::mutex> locked(mutex);
        lastFailure = ending->gaveUp ? ending->whyGaveUp : std::string();
    }
}

std::string QTCaptureMovieFileOutput::failureReason() const {
    std::lock_guard<std::mutex> locked(mutex);
    if (recording == nullptr)
        return lastFailure;
    if (recording->recorder == nullptr)
        return recording->gaveUp ? recording->whyGaveUp : std::string();
    const std::string reason = recording->recorder->FailureReason();
    return reason.empty() ? reason : WrittenFileFailureText(recording->path, reason);
}

QTCaptureMovieFileOutput::Statistics QTCaptureMovieFileOutput::statistics() const {
    std::lock_guard<std::mutex> locked(mutex);
    if (recording == nullptr || recording->recorder == nullptr) {
        Statistics figures = last;
        figures.failed = figures.failed || (recording != nullptr && recording->gaveUp);
        return figures;
    }
    const MovieRecorderStatistics current = recording->recorder->GetStatistics();
    Statistics figures;
    figures.videoFrames = current.videoFramesWritten;
    figures.videoFramesNotRecorded = current.videoFramesDropped + recording->otherSizedPictures;
    figures.audioFrames = current.audioFramesWritten;
    figures.bytes = current.bytesWritten;
    figures.failed = current.failed;
    figures.recording = true;
    return figures;
}

void QTCaptureMovieFileOutput::Deliver(const platform::CapturedSample& sample, QTSampleBuffer*,
                                       QTCaptureConnection*, bool isVideo) {
    std::lock_guard<std::mutex> locked(mutex);
    Recording* active = recording.get();
    if (active == nullptr || active->gaveUp)
        return;
    if (active->firstSample < 0)
        active->firstSample = sample.time;
    if (active->recorder == nullptr) {
        if (isVideo && sample.video != nullptr && !active->haveVideo) {
            const PixelFormatInfo* info = FindPixelFormat(sample.video->pixelFormat);
            if (info != nullptr) {
                active->video.width = static_cast<int>(sample.video->width);
                active->video.height = static_cast<int>(sample.video->height);
                active->video.pixelFormat = info->ffmpegFormat;
                active->video.frameRate = sample.frameRate > 0 ? sample.frameRate : 30;
                active->video.keepAsDV = keepDV;
                active->video.fieldOrder = sample.video->fieldOrder;
                active->video.timecode = sample.hasTimecode ? TimecodeText(sample.timecode) : "";
                // A Motion-JPEG camera's own pictures are stored as they came.
                active->video.storesJPEG =
                    active->encoding.video == MovieVideoCodec::MJPEG && !sample.jpeg.empty();
                active->haveVideo = true;
            }
        }
        // A muxed device's sample carries both: the file is made on its first picture, which
        // it then starts with, and with that picture's timecode.
        if (sample.audio != nullptr && !active->haveAudio) {
            const AudioStreamBasicDescription& format = sample.audioFormat;
            const bool nonInterleaved =
                (format.mFormatFlags & kAudioFormatFlagIsNonInterleaved) != 0;
            active->audio.sampleRate = format.mSampleRate;
            active->audio.channels = static_cast<int>(format.mChannelsPerFrame);
            active->audio.bytesPerSample = static_cast<int>(
                format.mChannelsPerFrame == 0 ? 0
                : nonInterleaved              ? format.mBytesPerFrame
                                              : format.mBytesPerFrame / format.mChannelsPerFrame);
            active->audio.isFloat = (format.mFormatFlags & kAudioFormatFlagIsFloat) != 0;
            active->audio.isNonInterleaved = nonInterleaved;
            active->audio.isBigEndian = (format.mFormatFlags & kAudioFormatFlagIsBigEndian) != 0;
            active->audio.isSignedInteger =
                (format.mFormatFlags & kAudioFormatFlagIsSignedInteger) != 0;
            active->haveAudio = true;
        }
        const bool complete =
            (active->haveVideo || !expectVideo) && (active->haveAudio || !expectAudio);
        const bool waitedEnough = sample.time - active->firstSample >= kWaitForOtherStreamSeconds;
        if (!complete && !waitedEnough)
            return;
        if (!active->haveVideo && !active->haveAudio) {
            active->gaveUp = true;
            active->whyGaveUp = FailureText(active->path, "no picture or sound came to record");
            return;
        }
        std::string why;
        active->recorder = MovieRecorder::Create(
            active->path, active->haveVideo ? &active->video : nullptr,
            active->haveAudio ? &active->audio : nullptr, active->encoding, &why);
        if (active->recorder == nullptr) {
            // A file that cannot be made now (its folder went away since the session took the
            // output) ends the recording; capture goes on.
            active->gaveUp = true;
            active->whyGaveUp = FailureText(active->path, why);
            return;
        }
    }
    if (isVideo && sample.video != nullptr && active->haveVideo) {
        const CVPixelBufferRef frame = sample.video;
        if (static_cast<int>(frame->width) != active->video.width ||
            static_cast<int>(frame->height) != active->video.height) {
            ++active->otherSizedPictures;
            return;
        }
        if (active->video.storesJPEG) {
            active->recorder->AppendJPEG(sample.jpeg.data(), sample.jpeg.size(), sample.time);
            return;
        }
        const uint8_t* planes[4] = {nullptr, nullptr, nullptr, nullptr};
        int strides[4] = {0, 0, 0, 0};
        for (int plane = 0; plane < frame->layout.planeCount; ++plane) {
            planes[plane] = frame->base + frame->layout.planeOffset[plane];
            strides[plane] = static_cast<int>(frame->layout.bytesPerRow[plane]);
        }
        active->recorder->AppendVideo(planes, strides, sample.time);
    } else if (!isVideo && sample.audio != nullptr && active->haveAudio) {
        const AudioBufferList* list = sample.audio;
        const UInt32 bytesPerFrame = sample.audioFormat.mBytesPerFrame;
        if (bytesPerFrame == 0 || list->mNumberBuffers == 0 || list->mNumberBuffers > 32)
            return;
        const void* buffers[32];
        for (UInt32 i = 0; i < list->mNumberBuffers; ++i)
            buffers[i] = list->mBuffers[i].mData;
        active->recorder->AppendAudio(
            buffers, static_cast<int>(list->mNumberBuffers),
            static_cast<int>(list->mBuffers[0].mDataByteSize / bytesPerFrame), sample.time);
    }
}
