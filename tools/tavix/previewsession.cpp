#include "previewsession.h"

#include "capturestats.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

#include "devices.h"
#include "options.h"

namespace {

// Sound arrives as 48 kHz stereo 32-bit floats (flags: float, packed).
constexpr unsigned int kFloatPacked = 1 | 8;
constexpr unsigned long kSampleRate = 48000, kChannels = 2, kBytesPerSample = 4;
constexpr unsigned long k2vuy = 0x32767579;

bool Exists(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

// The library does not report a file it cannot write, so the preview checks first.
bool CanWrite(const std::string& path) {
    const bool existed = Exists(path);
    FILE* file = fopen(path.c_str(), existed ? "r+b" : "wb");
    if (file == nullptr)
        return false;
    fclose(file);
    if (!existed)
        unlink(path.c_str());
    return true;
}

// "name.ext" becomes "name-N.ext".
std::string Numbered(const std::string& path, int number) {
    const size_t slash = path.rfind('/');
    size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash) ||
        dot == (slash == std::string::npos ? 0 : slash + 1))
        dot = path.size();
    return path.substr(0, dot) + "-" + std::to_string(number) + path.substr(dot);
}

// The first of base, base-2, base-3 ... that is not there yet.
std::string Unused(const std::string& base) {
    std::string path = base;
    for (int number = 2; Exists(path); ++number)
        path = Numbered(base, number);
    return path;
}

} // namespace

std::string TimeStamp() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char text[32];
    strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
    return text;
}

std::string FileSizeText(const std::string& path) {
    struct stat info {};
    if (path.empty() || stat(path.c_str(), &info) != 0)
        return "-";
    const double bytes = static_cast<double>(info.st_size);
    char text[32];
    if (bytes < 1024 * 1024)
        snprintf(text, sizeof text, "%.1f kB", bytes / 1024);
    else
        snprintf(text, sizeof text, "%.1f MB", bytes / (1024 * 1024));
    return text;
}

PreviewSession::PreviewSession(const PreviewOptions& options) : options(options) {}

PreviewSession::~PreviewSession() {
    if (device == 0)
        return;
    // Returns once no call of the change callback runs, so `this` may go.
    TavixDeviceSetControlChangeCallBack(device, nullptr, nullptr);
    // Stopping closes a running recording properly.
    TavixDeviceStopCapture(device);
    if (opened)
        TavixDeviceClose(device);
    TavixDeviceRelease(device);
}

bool PreviewSession::Start() {
    device = OpenNamedDevice(options.device, options.audioDevice);
    if (device == 0)
        return false;
    opened = true;
    if (!WishesFitDevice(device, options))
        return false;
    hasVideo = TavixDeviceHasMediaType(device, TavixDeviceMediaTypeVideo) ||
               TavixDeviceHasMediaType(device, TavixDeviceMediaTypeMuxed);
    wantsSound =
        !options.audioDevice.empty() || TavixDeviceHasMediaType(device, TavixDeviceMediaTypeSound);
    pixelFormat = options.pixelFormat;
    if (!ApplySettings(device, options.settings))
        return false;
    ReadControls(device, controls);
    // A device that cannot report changes still previews; it shows no changed control.
    TavixDeviceSetControlChangeCallBack(device, ControlChanged, this);
    if (!StartCapture(nullptr)) {
        PrintError("cannot start capturing from \"%s\"", options.device.c_str());
        return false;
    }
    return true;
}

void PreviewSession::AskForShowableFormat() {
    // Only the device's own choice is replaced: a format asked for on the command line is
    // always one the window shows.
    if (pixelFormat != 0 || recording)
        return;
    TavixDeviceStopCapture(device);
    pixelFormat = k2vuy;
    if (!StartCapture(nullptr))
        PrintError("cannot start capturing from \"%s\" in pixel format 2vuy",
                   options.device.c_str());
}

bool PreviewSession::StartCapture(const char* recordPath) {
    const long data = reinterpret_cast<long>(&feed);
    TavixDeviceVideoCallBack video = hasVideo ? PreviewVideoFrame : nullptr;
    TavixDeviceAudioCallBack audio = wantsSound ? PreviewAudioSamples : nullptr;
    if (!options.audioDevice.empty())
        return TavixDeviceStartCaptureWithAudioDevice(
            device, options.audioDevice.c_str(), video, data, pixelFormat, options.width,
            options.height, audio, data, kFloatPacked, kSampleRate, kChannels, kBytesPerSample,
            recordPath);
    return TavixDeviceStartCapture(device, video, data, pixelFormat, options.width, options.height,
                                   audio, data, kFloatPacked, kSampleRate, kChannels,
                                   kBytesPerSample, recordPath);
}

bool PreviewSession::IsConnected() const {
    return TavixDeviceIsConnected(device);
}

unsigned long PreviewSession::PicturesNotRecorded() const {
    return recording ? ::PicturesNotRecorded(device) : 0;
}

std::string PreviewSession::NextRecordingPath() const {
    if (options.recordPath.empty())
        return Unused("tavix-" + TimeStamp() + ".mov");
    // The first take goes where --record says, later ones beside it, numbered.
    if (recordings.empty())
        return options.recordPath;
    return Unused(Numbered(options.recordPath, static_cast<int>(recordings.size()) + 1));
}

void PreviewSession::ToggleRecording(double now) {
    if (recording) {
        // Ending the recording detaches the callbacks; starting again without a file attaches
        // them anew to the session, which kept running.
        TavixDeviceStopRecording(device);
        recording = false;
        const bool resumed = StartCapture(nullptr);
        Tell(now, !resumed, "recording ended: %s (%s)%s", recordingPath.c_str(),
             FileSizeText(recordingPath).c_str(), resumed ? "" : "; capture stopped");
        return;
    }
    const std::string path = NextRecordingPath();
    if (!CanWrite(path)) {
        Tell(now, true, "cannot record to %s: %s", path.c_str(), strerror(errno));
        return;
    }
    if (!StartCapture(path.c_str())) {
        // A refused recording tears capture down; previewing goes on without it.
        const bool resumed = StartCapture(nullptr);
        Tell(now, true, "cannot record to %s%s", path.c_str(), resumed ? "" : "; capture stopped");
        return;
    }
    recording = true;
    recordingStart = now;
    recordingPath = path;
    recordings.push_back(path);
    Tell(now, false, "recording to %s", path.c_str());
}

bool PreviewSession::HasTransport() const {
    return TavixDeviceIsTransportAvailable(device);
}

TavixDeviceTransportMode PreviewSession::TransportMode() const {
    return TavixDeviceGetTransportMode(device);
}

void PreviewSession::SetTransport(TavixDeviceTransportMode mode, double now) {
    if (!HasTransport()) {
        Tell(now, true, "%s has no transport controls", options.device.c_str());
        return;
    }
    TavixDeviceSetTransportMode(device, mode);
    Tell(now, false, "%s: %s", options.device.c_str(), TransportModeText(TransportMode()));
}

void PreviewSession::PlayOrStop(double now) {
    const bool stopped = !HasTransport() || TransportMode() == TavixDeviceTransportModeStop;
    SetTransport(stopped ? TavixDeviceTransportModePlay : TavixDeviceTransportModeStop, now);
}

void PreviewSession::WriteSnapshot(const CapturedFrame& frame, double now) {
    if (frame.pixels.empty()) {
        Tell(now, true, "no frame to take a snapshot of");
        return;
    }
    std::vector<uint8_t> rgb;
    if (!ConvertToRGB(frame, rgb)) {
        Tell(now, true, "cannot make a picture from pixel format %s",
             PixelFormatName(frame.pixelFormat).c_str());
        return;
    }
    const std::string path = Unused("tavix-" + TimeStamp() + ".png");
    if (!WritePNG(path, rgb, frame.width, frame.height)) {
        Tell(now, true, "cannot write %s: %s", path.c_str(), strerror(errno));
        return;
    }
    Tell(now, false, "snapshot %s", path.c_str());
}

void PreviewSession::ControlChanged(const char* key, long long value, const char* text,
                                    unsigned int, void* context) {
    auto* session = static_cast<PreviewSession*>(context);
    std::string shown = std::to_string(value);
    for (const ControlInfo& control : session->controls)
        if (control.key == key) {
            ControlInfo current = control;
            current.text = text;
            shown = ControlValueText(current, value);
        }
    std::lock_guard<std::mutex> locked(session->changedMutex);
    session->changed = std::string(key) + " " + shown;
}

std::string PreviewSession::ChangedControl() const {
    std::lock_guard<std::mutex> locked(changedMutex);
    return changed;
}

void PreviewSession::StepControl(const std::string& key, int steps, double now) {
    std::string told;
    const bool set = ::StepControl(device, key, steps, told);
    Tell(now, !set, "%s", told.c_str());
}

void PreviewSession::Tell(double now, bool failure, const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    notice = text;
    noticeTime = now;
    noticeIsFailure = failure;
    if (failure)
        PrintError("%s", text);
    else
        printf("%s\n", text);
    fflush(stdout);
}
