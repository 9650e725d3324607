// `tavix capture NAME [--audio NAME] [--seconds N] [--record FILE] [--snapshot FILE.png]
//                     [--format FOURCC] [--size WxH] [--rate FPS] [--set KEY=VALUE]...
//                     [--rewind] [--play] [--codec NAME] [--quality N]
//                     [--audio-codec NAME]`
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "capturestats.h"
#include "controls.h"
#include "devices.h"
#include "framerates.h"
#include "llib/mac/tavix.h"
#include "options.h"
#include "png.h"

namespace {

volatile sig_atomic_t interrupted = 0;

void OnInterrupt(int) {
    interrupted = 1;
}

struct CaptureOptions : DeviceWishes {
    double seconds = 5;
    std::string snapshotPath;
    double rate = 0;                   // frames per second; 0 leaves it to the device
    bool rewind = false, play = false; // drive a deck's tape around the capture
    // What the recording is encoded as: "" is the library's default video codec (H.264; a
    // deck's DV stays DV); -1 the default quality.
    std::string codec;
    int quality = -1;
    std::string audioCodec = "aac";
    bool recordingChosen = false; // any of --codec, --quality, --audio-codec given
};

void PrintUsage() {
    printf("usage: tavix capture NAME [--audio NAME] [--seconds N] [--record FILE]\n"
           "                          [--snapshot FILE.png] [--format FOURCC] [--size WxH]\n"
           "                          [--rate FPS] [--set KEY=VALUE]... [--rewind] [--play]\n"
           "                          [--codec NAME] [--quality N] [--audio-codec NAME]\n\n"
           "Captures from device NAME (and sound from --audio NAME) for N seconds (5), showing\n"
           "frames, dropped frames, timecode, sound level and file size, then a summary.\n"
           "  --record FILE      records to a movie file (.mov, .mp4 or .mkv)\n"
           "  --codec NAME       the recording's pictures: h264 (default; a deck's DV stays\n"
           "                     DV), ffv1 (lossless; .mkv or .mov) or mjpeg (Motion-JPEG:\n"
           "                     a Motion-JPEG camera's own pictures, stored unchanged)\n"
           "  --quality N        H.264's constant rate factor: 0 (best) to 51 (smallest); 23\n"
           "  --audio-codec NAME the recording's sound: aac (default) or pcm (.mov or .mkv)\n"
           "  --snapshot FILE    writes the last frame as a PNG picture\n"
           "  --format FOURCC    asks for a pixel format: 2vuy, yuvs, BGRA, ARGB, 420v, y420\n"
           "  --size WxH         asks for a frame size, e.g. 640x480\n"
           "  --rate FPS         asks for a frame rate the device offers at that size and\n"
           "                     format (see tavix formats NAME), e.g. 60 or 29.97\n"
           "  --set KEY=VALUE    sets a control before capture starts, e.g. brightness=200;\n"
           "                     repeat it for more, in order (see tavix controls NAME)\n"
           "  --rewind           rewinds a deck's tape to its start before capture starts\n"
           "  --play             plays a deck's tape while capturing and stops it at the end;\n"
           "                     a recording starts at the first frame's timecode\n"
           "Ctrl-C stops early and keeps the recording.\n");
}

bool ParseTapeOption(const std::string& argument, CaptureOptions& options) {
    if (argument == "--rewind")
        options.rewind = true;
    else if (argument == "--play")
        options.play = true;
    else
        return false;
    return true;
}

// Takes the value of --codec, --quality or --audio-codec.
int ParseRecordingChoice(const std::string& argument, const char* value, CaptureOptions& options) {
    options.recordingChosen = true;
    if (argument == "--codec" || argument == "--audio-codec") {
        std::string name = value;
        for (char& c : name)
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        const bool video = argument == "--codec";
        if (video ? name != "h264" && name != "ffv1" && name != "mjpeg"
                  : name != "aac" && name != "pcm") {
            PrintError("unknown %s \"%s\" (choose %s)", argument.c_str(), value,
                       video ? "h264, ffv1 or mjpeg" : "aac or pcm");
            return kExitUsage;
        }
        (video ? options.codec : options.audioCodec) = name;
    } else if (argument == "--quality") {
        char* end = nullptr;
        const long quality = strtol(value, &end, 10);
        if (end == value || *end != 0 || quality < 0 || quality > 51) {
            PrintError("bad quality \"%s\" (0 to 51: H.264's constant rate factor)", value);
            return kExitUsage;
        }
        options.quality = static_cast<int>(quality);
    }
    return kExitOK;
}

// The recording choices must go together and with a file to record into.
int CheckRecordingChoices(const CaptureOptions& options) {
    if (options.recordingChosen && options.recordPath.empty()) {
        PrintError("--codec, --quality and --audio-codec need --record FILE");
        return kExitUsage;
    }
    if (options.quality >= 0 && !options.codec.empty() && options.codec != "h264") {
        PrintError("--quality is for H.264; %s has no rate factor", options.codec.c_str());
        return kExitUsage;
    }
    return kExitOK;
}

// Returns kExitOK, or the exit status after printing what is wrong.
int ParseOptions(int argc, char** argv, CaptureOptions& options, bool& help) {
    help = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            help = true;
            return kExitOK;
        }
        if ((argument == "--seconds" || argument == "--snapshot" || argument == "--rate" ||
             argument == "--codec" || argument == "--quality" || argument == "--audio-codec") &&
            i + 1 >= argc) {
            PrintError("%s needs a value", argument.c_str());
            return kExitUsage;
        }
        if (argument == "--seconds") {
            if (!ParseSeconds(argv[++i], options.seconds)) {
                PrintError("bad number of seconds \"%s\"", argv[i]);
                return kExitUsage;
            }
        } else if (argument == "--rate") {
            if (!ParseRate(argv[++i], options.rate)) {
                PrintError("bad frame rate \"%s\" (frames per second, such as 30)", argv[i]);
                return kExitUsage;
            }
        } else if (argument == "--codec" || argument == "--quality" ||
                   argument == "--audio-codec") {
            if (const int status = ParseRecordingChoice(argument, argv[++i], options);
                status != kExitOK)
                return status;
        } else if (argument == "--snapshot") {
            options.snapshotPath = argv[++i];
        } else if (ParseTapeOption(argument, options)) {
        } else if (const int status = ParseDeviceWish(argc, argv, i, options); status != kExitOK) {
            return status;
        }
    }
    if (const int status = CheckRecordingChoices(options); status != kExitOK)
        return status;
    return RequireDevice(options, "capture");
}

// The snapshot is written by the command itself once capture ends, so its path is checked
// before capture starts.
bool CanWrite(const std::string& path) {
    struct stat info {};
    const bool existed = stat(path.c_str(), &info) == 0;
    FILE* file = fopen(path.c_str(), existed ? "r+b" : "wb");
    if (file == nullptr)
        return false;
    fclose(file);
    if (!existed)
        unlink(path.c_str());
    return true;
}

std::string LastError(unsigned long device) {
    char text[4096];
    return TavixDeviceGetLastError(device, text, sizeof text) ? text : "";
}

long long FileSize(const std::string& path) {
    struct stat info {};
    return path.empty() || stat(path.c_str(), &info) != 0 ? -1
                                                          : static_cast<long long>(info.st_size);
}

std::string LevelText(float peak) {
    char text[32];
    if (peak <= 0.00001f)
        snprintf(text, sizeof text, "-inf dBFS");
    else
        snprintf(text, sizeof text, "%.1f dBFS", 20 * std::log10(peak));
    return text;
}

std::string SizeText(long long bytes) {
    char text[32];
    if (bytes < 0)
        return "-";
    if (bytes < 1024 * 1024)
        snprintf(text, sizeof text, "%.1f kB", bytes / 1024.0);
    else
        snprintf(text, sizeof text, "%.1f MB", bytes / (1024.0 * 1024.0));
    return text;
}

void PrintStatus(unsigned long device, const CaptureStats& stats, const CaptureOptions& options,
                 double elapsed, bool terminal) {
    std::string line;
    char part[96];
    snprintf(part, sizeof part, "%6.1f s  frames %llu  dropped %llu", elapsed,
             static_cast<unsigned long long>(stats.frames.load()),
             static_cast<unsigned long long>(stats.droppedFrames.load()));
    line += part;
    if (stats.winding)
        line += "  winding";
    if (stats.timecodeBreaks > 0) {
        snprintf(part, sizeof part, "  timecode breaks %llu",
                 static_cast<unsigned long long>(stats.timecodeBreaks.load()));
        line += part;
    }
    if (stats.hasTimecode)
        line += "  timecode " + TimecodeText(stats.timecode);
    if (!options.audioDevice.empty() || stats.sampleFrames > 0)
        line += "  audio " + LevelText(stats.peakLevel);
    if (stats.soundLostSeconds > 0) {
        snprintf(part, sizeof part, "  sound lost %.2f s", stats.soundLostSeconds.load());
        line += part;
    }
    if (!options.recordPath.empty()) {
        line += "  file " + SizeText(FileSize(options.recordPath));
        if (const unsigned long notRecorded = PicturesNotRecorded(device); notRecorded > 0) {
            snprintf(part, sizeof part, "  not recorded %lu", notRecorded);
            line += part;
        }
    }
    if (terminal)
        printf("\r%s\033[K", line.c_str());
    else
        printf("%s\n", line.c_str());
    fflush(stdout);
}

bool TakeSnapshot(CaptureStats& stats, const std::string& path) {
    stats.snapshotWanted = true;
    const double deadline = MonotonicSeconds() + 2;
    while (!stats.snapshotTaken && MonotonicSeconds() < deadline)
        usleep(10000);
    if (!stats.snapshotTaken) {
        PrintError("no frame arrived for the snapshot");
        return false;
    }
    std::lock_guard<std::mutex> locked(stats.snapshotMutex);
    std::vector<uint8_t> rgb;
    if (!ConvertToRGB(stats.snapshot, rgb)) {
        PrintError("cannot make a picture from pixel format %s",
                   FourCCText(stats.snapshot.pixelFormat).c_str());
        return false;
    }
    if (!WritePNG(path, rgb, stats.snapshot.width, stats.snapshot.height)) {
        PrintError("cannot write %s: %s", path.c_str(), strerror(errno));
        return false;
    }
    return true;
}

// A rate the device does not offer at the wished format and size is refused with the ones it
// does, before capture starts: the library would quietly take the nearest. A device that states
// no rates is asked anyway, and its driver settles the rate.
bool AskForRate(unsigned long device, const CaptureOptions& options) {
    const std::vector<TavixFrameRate_C> offered =
        OfferedRates(device, options.pixelFormat, options.width, options.height);
    if (!offered.empty() && !OffersRate(offered, options.rate)) {
        PrintError("\"%s\" does not offer %g frames per second here; it offers %s",
                   options.device.c_str(), options.rate, RatesText(offered).c_str());
        return false;
    }
    return TavixDeviceSetCaptureFrameRate(device, options.rate);
}

// Rewinds the tape when asked, waiting until the deck stops at its start, then starts it
// playing when asked; false after saying why (no transport, or Ctrl-C while rewinding).
bool PrepareTape(unsigned long device, const CaptureOptions& options) {
    if (!options.rewind && !options.play)
        return true;
    if (!TavixDeviceIsTransportAvailable(device)) {
        PrintError("\"%s\" has no tape transport to %s", options.device.c_str(),
                   options.play ? "play" : "rewind");
        return false;
    }
    if (options.rewind) {
        TavixDeviceSetTransportMode(device, TavixDeviceTransportModeRewind);
        printf("rewinding \"%s\"\n", options.device.c_str());
        fflush(stdout);
        // A tape takes as long as it takes to rewind; Ctrl-C gives up.
        while (!interrupted && TavixDeviceGetTransportMode(device) != TavixDeviceTransportModeStop)
            usleep(50000);
        if (interrupted) {
            TavixDeviceSetTransportMode(device, TavixDeviceTransportModeStop);
            PrintError("stopped while rewinding; nothing captured");
            return false;
        }
    }
    if (options.play)
        TavixDeviceSetTransportMode(device, TavixDeviceTransportModePlay);
    return true;
}

// Stops the tape the command played, once the recording is closed, and says what the deck does.
void StopTape(unsigned long device, const CaptureOptions& options) {
    if (!options.play)
        return;
    TavixDeviceSetTransportMode(device, TavixDeviceTransportModeStop);
    printf("  tape      %s\n", TransportModeText(TavixDeviceGetTransportMode(device)));
}

// The summary's tape lines: the timecode the capture ran over, its breaks, and the winding.
void PrintTapeSummary(const CaptureStats& stats) {
    if (stats.hasTimecode)
        printf("  timecode  first %s, last %s, %llu break%s\n",
               TimecodeText(stats.firstTimecode).c_str(), TimecodeText(stats.timecode).c_str(),
               static_cast<unsigned long long>(stats.timecodeBreaks.load()),
               stats.timecodeBreaks == 1 ? "" : "s");
    for (const auto& jump : stats.breaks)
        printf("            break from %s to %s\n", TimecodeText(jump.first).c_str(),
               TimecodeText(jump.second).c_str());
    if (stats.windingSeconds > 0)
        printf("  winding   %.1f s, without pictures (not counted as dropped)\n",
               stats.windingSeconds.load());
}

} // namespace

int CaptureCommand(int argc, char** argv) {
    CaptureOptions options;
    bool help = false;
    const int parsed = ParseOptions(argc, argv, options, help);
    if (help || parsed != kExitOK) {
        if (help)
            PrintUsage();
        return parsed;
    }
    if (!options.snapshotPath.empty() && !CanWrite(options.snapshotPath)) {
        PrintError("cannot write %s: %s", options.snapshotPath.c_str(), strerror(errno));
        return kExitFailure;
    }
    const unsigned long device = OpenNamedDevice(options.device, options.audioDevice);
    if (device == 0)
        return kExitFailure;

    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    if (!ApplySettings(device, options.settings) ||
        (options.rate > 0 && !AskForRate(device, options)) || !PrepareTape(device, options) ||
        !TavixDeviceSetRecordingOptions(device, options.codec.c_str(), options.quality,
                                        options.audioCodec.c_str())) {
        TavixDeviceClose(device);
        TavixDeviceRelease(device);
        return kExitFailure;
    }

    CaptureStats stats;
    const bool hasVideo = TavixDeviceHasMediaType(device, TavixDeviceMediaTypeVideo) ||
                          TavixDeviceHasMediaType(device, TavixDeviceMediaTypeMuxed);
    const bool wantsAudio =
        !options.audioDevice.empty() || TavixDeviceHasMediaType(device, TavixDeviceMediaTypeSound);
    const long data = reinterpret_cast<long>(&stats);
    const char* record = options.recordPath.empty() ? nullptr : options.recordPath.c_str();
    // Sound arrives as 48 kHz stereo 32-bit floats (flags: float, packed).
    const unsigned int floatPacked = 1 | 8;
    bool started;
    if (!options.audioDevice.empty())
        started = TavixDeviceStartCaptureWithAudioDevice(
            device, options.audioDevice.c_str(), hasVideo ? CountVideoFrame : nullptr, data,
            options.pixelFormat, options.width, options.height, CountAudioSamples, data,
            floatPacked, 48000, 2, 4, record);
    else
        started = TavixDeviceStartCapture(device, hasVideo ? CountVideoFrame : nullptr, data,
                                          options.pixelFormat, options.width, options.height,
                                          wantsAudio ? CountAudioSamples : nullptr, data,
                                          floatPacked, 48000, 2, 4, record);
    // The library's reason for what it refused: the whole start, or the sound alone.
    const std::string refused = LastError(device);
    if (!started) {
        PrintError("cannot start capturing from \"%s\"%s%s", options.device.c_str(),
                   refused.empty() ? "" : ": ", refused.c_str());
        StopTape(device, options);
        TavixDeviceClose(device);
        TavixDeviceRelease(device);
        return kExitFailure;
    }
    if (!refused.empty())
        PrintError("capturing without sound: %s", refused.c_str());

    const bool hasTransport = TavixDeviceIsTransportAvailable(device);
    const bool terminal = isatty(STDOUT_FILENO) != 0;
    const double begin = MonotonicSeconds();
    double elapsed = 0, lastPlainLine = 0;
    double rateInUse = 0; // the device's, once a picture has said it
    while (!interrupted && (elapsed = MonotonicSeconds() - begin) < options.seconds) {
        if (hasTransport)
            NoteTransport(stats, TavixDeviceGetTransportMode(device), MonotonicSeconds());
        if (terminal || elapsed - lastPlainLine >= 1) {
            PrintStatus(device, stats, options, elapsed, terminal);
            lastPlainLine = elapsed;
        }
        if (rateInUse == 0)
            TavixDeviceGetCaptureFrameRate(device, &rateInUse);
        usleep(100000);
        if (!TavixDeviceIsConnected(device)) {
            if (terminal)
                printf("\n");
            PrintError("\"%s\" was disconnected", options.device.c_str());
            break;
        }
    }
    elapsed = MonotonicSeconds() - begin;
    PrintStatus(device, stats, options, elapsed, terminal);
    if (terminal)
        printf("\n");

    if (rateInUse == 0)
        TavixDeviceGetCaptureFrameRate(device, &rateInUse);
    bool ok = true;
    if (!options.snapshotPath.empty() && hasVideo)
        ok = TakeSnapshot(stats, options.snapshotPath) && ok;
    // Stopping closes the movie file properly, also after Ctrl-C.
    TavixDeviceStopCapture(device);
    unsigned long recorded = 0, notRecorded = 0;
    const bool recordedAny = TavixDeviceGetRecordingFrameCounts(device, &recorded, &notRecorded);
    // After the start's own text comes the reason a recording failed while being written.
    const std::string failed = LastError(device).substr(refused.size());

    const double frames = static_cast<double>(stats.frames.load());
    printf("\nCaptured %.1f s from \"%s\"%s%s\n", elapsed, options.device.c_str(),
           options.audioDevice.empty() ? "" : " with sound from ",
           options.audioDevice.empty() ? "" : ("\"" + options.audioDevice + "\"").c_str());
    if (hasVideo)
        printf("  video     %llu frames (%.1f per second), %llu dropped, %lu x %lu %s\n",
               static_cast<unsigned long long>(stats.frames.load()),
               elapsed > 0 ? frames / elapsed : 0,
               static_cast<unsigned long long>(stats.droppedFrames.load()), stats.width.load(),
               stats.height.load(), FourCCText(stats.pixelFormat).c_str());
    if (hasVideo && rateInUse > 0)
        printf("  rate      %.2f frames per second, as the device delivered them\n", rateInUse);
    PrintTapeSummary(stats);
    if (wantsAudio)
        printf("  audio     %llu sample frames (%.1f s at 48 kHz), %.2f s lost\n",
               static_cast<unsigned long long>(stats.sampleFrames.load()),
               stats.sampleFrames / 48000.0, stats.soundLostSeconds.load());
    if (!options.recordPath.empty()) {
        printf("  recording %s (%s)", options.recordPath.c_str(),
               SizeText(FileSize(options.recordPath)).c_str());
        // Pictures the recorder dropped (its encoder fell behind, or the file failed).
        if (recordedAny && hasVideo)
            printf(", %lu frames recorded", recorded);
        if (notRecorded > 0)
            printf(", %lu frames not recorded", notRecorded);
        printf("\n");
    }
    StopTape(device, options);
    TavixDeviceClose(device);
    TavixDeviceRelease(device);
    if (!failed.empty()) {
        PrintError("%s", failed.c_str() + (failed[0] == ' ' ? 1 : 0));
        ok = false;
    }
    if (!options.snapshotPath.empty() && ok)
        printf("  snapshot  %s\n", options.snapshotPath.c_str());
    if (hasVideo && stats.frames == 0) {
        PrintError("no frames arrived");
        ok = false;
    }
    return ok ? kExitOK : kExitFailure;
}
