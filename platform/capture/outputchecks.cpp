// The checks a session runs when an output is added: pixel formats and sizes the video
// converter can make, sound formats the audio converter can make from the inputs' sound, the
// media the inputs deliver, and a movie file that can be created.
#include "outputchecks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "platform/movierecorder.h"
#include "platform/pixelformats.h"

namespace {

// The converter makes pictures of 1 to this many pixels a side.
constexpr double kMaxPixelsPerSide = 16384;
// The audio converter's range.
constexpr UInt32 kMaxChannels = 32;
constexpr double kMaxSampleRate = 1e6;

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

// 'zzzz' for a code of four printable characters, the number in hex otherwise.
std::string CodeText(OSType code) {
    char text[16];
    bool printable = true;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const unsigned char c = static_cast<unsigned char>(code >> shift);
        printable = printable && c >= 0x20 && c < 0x7F;
    }
    if (printable)
        snprintf(text, sizeof text, "'%c%c%c%c'", static_cast<char>(code >> 24),
                 static_cast<char>(code >> 16), static_cast<char>(code >> 8),
                 static_cast<char>(code));
    else
        snprintf(text, sizeof text, "0x%08X", static_cast<unsigned int>(code));
    return text;
}

struct Media {
    bool pictures = false, sound = false;
    std::vector<AudioStreamBasicDescription> soundFormats; // as each input describes its sound
    std::string names;                                     // of the inputs' devices, for messages
};

Media MediaOf(const std::vector<QTCaptureDeviceInput*>& inputs) {
    Media media;
    for (QTCaptureDeviceInput* input : inputs) {
        QTCaptureDevice* device = input->device();
        if (device == nullptr)
            continue;
        const platform::DeviceInfo info = device->backendDevice()->Info();
        media.pictures = media.pictures || info.hasVideo || info.isMuxed;
        media.sound = media.sound || info.hasSound || info.isMuxed;
        media.names += (media.names.empty() ? "\"" : ", \"") + info.displayName + "\"";
        NSArray* connections = input->connections();
        for (size_t i = 0; i < connections->count(); ++i) {
            auto* connection = static_cast<QTCaptureConnection*>(connections->objectAtIndex(i));
            QTFormatDescription* description = connection->formatDescription();
            if (description != nullptr && description->deviceFormat().audio.mFormatID != 0)
                media.soundFormats.push_back(description->deviceFormat().audio);
        }
    }
    return media;
}

bool CheckVideo(const QTCaptureDecompressedVideoOutput& output, const Media& media,
                std::string& why) {
    // A session without inputs may still be given some: only inputs that are there decide.
    if (!media.pictures && !media.names.empty()) {
        why = "No input of the capture delivers pictures (" + media.names +
              " has sound only), so there is nothing for the video callback.";
        return false;
    }
    NSDictionary* attributes = output.pixelBufferAttributes();
    if (attributes == nullptr)
        return true;
    if (auto* format =
            dynamic_cast<NSNumber*>(attributes->objectForKey(kCVPixelBufferPixelFormatTypeKey))) {
        const OSType code = format->unsignedIntValue();
        if (FindPixelFormat(CanonicalPixelFormat(code)) == nullptr) {
            why = "The pixel format " + CodeText(code) +
                  " is not one the library can deliver (such as '2vuy', 'yuvs', 'BGRA', "
                  "'420v').";
            return false;
        }
    }
    for (const NSString* key : {kCVPixelBufferWidthKey, kCVPixelBufferHeightKey}) {
        auto* number = dynamic_cast<NSNumber*>(attributes->objectForKey(key));
        const double pixels = number != nullptr ? number->doubleValue() : 1;
        if (!(pixels >= 1 && pixels <= kMaxPixelsPerSide)) {
            why = Format("A %s of %.0f pixels is beyond what the library can deliver (1 to %.0f "
                         "pixels a side).",
                         key == kCVPixelBufferWidthKey ? "width" : "height", pixels,
                         kMaxPixelsPerSide);
            return false;
        }
    }
    return true;
}

std::string SoundText(const AudioStreamBasicDescription& d) {
    const UInt32 bytes = d.mChannelsPerFrame != 0 ? d.mBytesPerFrame / d.mChannelsPerFrame : 0;
    return Format("%u channels at %.0f Hz, %u-byte %s samples (flags %u)", d.mChannelsPerFrame,
                  d.mSampleRate, bytes,
                  (d.mFormatFlags & kAudioFormatFlagIsFloat) != 0 ? "float" : "integer",
                  d.mFormatFlags);
}

bool CheckSound(const QTCaptureDecompressedAudioOutput& output, const Media& media,
                std::string& why) {
    if (!media.sound && !media.names.empty()) {
        why = "No input of the capture delivers sound (" + media.names +
              " has none, and no sound device was added), so there is nothing for the audio "
              "callback.";
        return false;
    }
    AudioStreamBasicDescription wanted{};
    QTCaptureDecompressedAudioOutputDelegate* delegate = output.delegate();
    if (delegate == nullptr || !delegate->wantedFormat(&wanted))
        return true;
    const UInt32 bytes =
        wanted.mChannelsPerFrame != 0 ? wanted.mBytesPerFrame / wanted.mChannelsPerFrame : 0;
    const bool isFloat = (wanted.mFormatFlags & kAudioFormatFlagIsFloat) != 0;
    const std::string prefix = "The sound format wanted (" + SoundText(wanted) + ") ";
    if (wanted.mChannelsPerFrame < 1 || wanted.mChannelsPerFrame > kMaxChannels)
        why = prefix + Format("has %u channels; the library delivers 1 to %u.",
                              wanted.mChannelsPerFrame, kMaxChannels);
    else if (!(wanted.mSampleRate > 0 && wanted.mSampleRate <= kMaxSampleRate))
        why = prefix + Format("has a rate of %.0f Hz; the library delivers up to %.0f Hz.",
                              wanted.mSampleRate, kMaxSampleRate);
    else if (isFloat ? bytes != 4 && bytes != 8 : bytes < 1 || bytes > 4)
        why = prefix + Format("has %u-byte %s samples; the library delivers integers of 1 to 4 "
                              "bytes and floats of 4 or 8 bytes.",
                              bytes, isFloat ? "float" : "integer");
    if (!why.empty())
        return false;
    // Whatever the rules above let through must still convert from every input's sound.
    std::vector<AudioStreamBasicDescription> sources = media.soundFormats;
    if (sources.empty())
        sources.push_back(wanted);
    for (const AudioStreamBasicDescription& source : sources) {
        AudioConverterRef converter = nullptr;
        if (AudioConverterNew(&source, &wanted, &converter) != noErr) {
            why = prefix + "cannot be made from the sound of " + media.names + " (" +
                  SoundText(source) + ").";
            return false;
        }
        AudioConverterDispose(converter);
    }
    return true;
}

// Tries the path the way the recorder will open it: a file that exists is opened for
// writing, a new one is created and removed again.
bool CheckMovieFile(const QTCaptureMovieFileOutput& output, std::string& why) {
    NSURL* url = output.outputFileURL();
    if (url == nullptr)
        return true; // nothing to record yet
    const std::string path = url->path();
    if (path.empty()) {
        why = "The recording has an empty file path.";
        return false;
    }
    struct stat info {};
    const bool exists = stat(path.c_str(), &info) == 0;
    if (exists && S_ISDIR(info.st_mode)) {
        why = "Cannot record to " + path + ": " + strerror(EISDIR) + ".";
        return false;
    }
    if (!IsMovieFilePath(path)) {
        why = "Cannot record to " + path + ": its extension names no container the library " +
              "writes (" + kMovieFileExtensions + ").";
        return false;
    }
    const int file = open(path.c_str(), exists ? O_WRONLY : O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (file < 0) {
        why = "Cannot record to " + path + ": " + strerror(errno) + ".";
        return false;
    }
    close(file);
    if (!exists)
        unlink(path.c_str());
    return true;
}

// The chosen codecs must fit the file's container, or the recording would fail once it starts.
bool CheckMovieEncoding(const QTCaptureMovieFileOutput& output, std::string& why) {
    NSURL* url = output.outputFileURL();
    if (url == nullptr)
        return true;
    why = MovieRecorder::CannotHold(url->path(), output.encoding());
    return why.empty();
}

} // namespace

bool SessionCanServe(const QTCaptureOutput* output,
                     const std::vector<QTCaptureDeviceInput*>& inputs, std::string& why) {
    why.clear();
    switch (output->kind()) {
    case QTCaptureOutput::Kind::Video:
        return CheckVideo(static_cast<const QTCaptureDecompressedVideoOutput&>(*output),
                          MediaOf(inputs), why);
    case QTCaptureOutput::Kind::Audio:
        return CheckSound(static_cast<const QTCaptureDecompressedAudioOutput&>(*output),
                          MediaOf(inputs), why);
    case QTCaptureOutput::Kind::Movie:
        return CheckMovieFile(static_cast<const QTCaptureMovieFileOutput&>(*output), why) &&
               CheckMovieEncoding(static_cast<const QTCaptureMovieFileOutput&>(*output), why);
    }
    return true;
}
