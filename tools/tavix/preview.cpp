// `tavix preview NAME [--audio NAME] [--format FOURCC] [--size WxH] [--record FILE]
//                     [--set KEY=VALUE]...`
#include <cstdio>
#include <cstdlib>
#include <string>

#include "preview.h"

#include "capturestats.h"
#include "options.h"
#include "previewsession.h"
#ifdef TAVIX_HAVE_SDL2
#include "previewwindow.h"
#endif

namespace {

void PrintUsage(FILE* out) {
    fprintf(out,
            "usage: tavix preview NAME [--audio NAME] [--format FOURCC] [--size WxH]\n"
            "                          [--record FILE] [--set KEY=VALUE]...\n\n"
            "Opens a window with the live picture of device NAME (and sound from --audio NAME),\n"
            "its timecode, frame rate, dropped frames, sound level and recording. A sound-only\n"
            "device shows its level and a scrolling waveform.\n"
            "  --format FOURCC    asks for a pixel format the window shows as it comes, in\n"
            "                     any case: 2vuy, yuvs, 420v, 420f, y420, BGRA, ARGB, RGBA,\n"
            "                     24RG, 24BG\n"
            "  --size WxH         asks for a frame size, e.g. 640x480\n"
            "  --record FILE      where R records (.mov, .mp4, .m4v, .mkv, .avi); later recordings "
            "are\n"
            "                     numbered beside it (FILE-2.mov). Without it, R records to\n"
            "                     tavix-YYYYMMDD-HHMMSS.mov in the current folder\n"
            "  --set KEY=VALUE    sets a control before capture starts, e.g. brightness=200;\n"
            "                     repeat it for more (see tavix controls NAME)\n\n"
            "Keys:\n"
            "  Space              play or stop a tape deck\n"
            "  Left, Right        rewind, fast forward\n"
            "  Shift+Left/Right   play fast in reverse, forward\n"
            "  R                  start or end a recording\n"
            "  S                  write the current frame as tavix-YYYYMMDD-HHMMSS.png\n"
            "  F                  full screen on or off\n"
            "  b, B               brightness down, up (a 32nd of its range)\n"
            "  e, E               exposure down, up; turns exposure_auto to manual first\n"
            "  Q, Escape          quit (a running recording is kept)\n\n"
            "The window shows the latest control the device reports changed.\n"
            "Needs a display (DISPLAY or WAYLAND_DISPLAY); tavix capture works without one.\n");
}

// Returns kExitOK, or the exit status after printing what is wrong.
int ParseArguments(int argc, char** argv, PreviewOptions& arguments, bool& help) {
    help = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            help = true;
            return kExitOK;
        }
        if (const int status = ParseDeviceWish(argc, argv, i, arguments, {}); status != kExitOK)
            return status;
    }
    return RequireDevice(arguments, "preview");
}

bool HasDisplay() {
    const char* x11 = getenv("DISPLAY");
    const char* wayland = getenv("WAYLAND_DISPLAY");
    return (x11 != nullptr && *x11 != '\0') || (wayland != nullptr && *wayland != '\0');
}

#ifdef TAVIX_HAVE_SDL2
void PrintSummary(PreviewSession& session, double seconds) {
    const CaptureStats& stats = session.Feed().stats;
    printf("\nPreviewed %.1f s from \"%s\"\n", seconds, session.DeviceName().c_str());
    if (session.HasVideo())
        printf("  video      %llu frames, %llu dropped, %lu x %lu %s\n",
               static_cast<unsigned long long>(stats.frames.load()),
               static_cast<unsigned long long>(stats.droppedFrames.load()), stats.width.load(),
               stats.height.load(), PixelFormatName(stats.pixelFormat).c_str());
    if (stats.hasTimecode)
        printf("  timecode   last %s, %llu break%s\n", TimecodeText(stats.timecode).c_str(),
               static_cast<unsigned long long>(stats.timecodeBreaks.load()),
               stats.timecodeBreaks == 1 ? "" : "s");
    if (stats.windingSeconds > 0)
        printf("  winding    %.1f s, without pictures (not counted as dropped)\n",
               stats.windingSeconds.load());
    if (session.HasSound())
        printf("  audio      %llu sample frames\n",
               static_cast<unsigned long long>(stats.sampleFrames.load()));
    for (const std::string& path : session.Recordings())
        printf("  recording  %s (%s)\n", path.c_str(), FileSizeText(path).c_str());
}
#endif

} // namespace

int PreviewCommand(int argc, char** argv) {
    PreviewOptions arguments;
    bool help = false;
    const int parsed = ParseArguments(argc, argv, arguments, help);
    if (help || parsed != kExitOK) {
        PrintUsage(help ? stdout : stderr);
        return parsed;
    }
    if (!arguments.recordPath.empty() && !IsMovieExtension(arguments.recordPath)) {
        PrintError("cannot tell the container of %s from its extension (%s)",
                   arguments.recordPath.c_str(), kMovieExtensions);
        return kExitFailure;
    }
    const std::string instead =
        "tavix capture \"" + arguments.device + "\" shows the same figures on the terminal";
#ifndef TAVIX_HAVE_SDL2
    PrintError("this tavix was built without a window (SDL2 was missing); %s", instead.c_str());
    return kExitUsage;
#else
    if (!HasDisplay()) {
        PrintError("no display to open a window on (neither DISPLAY nor WAYLAND_DISPLAY is "
                   "set); %s",
                   instead.c_str());
        return kExitUsage;
    }
    if (arguments.pixelFormat != 0 && !WindowShowsPixelFormat(arguments.pixelFormat)) {
        PrintError("the window cannot show pixel format %s (it shows %s)",
                   PixelFormatName(arguments.pixelFormat).c_str(), WindowPixelFormatList().c_str());
        return kExitUsage;
    }
    std::string error;
    if (!ConnectToDisplay(error)) {
        PrintError("cannot open a window (%s); %s", error.c_str(), instead.c_str());
        return kExitUsage;
    }
    PreviewSession session(arguments);
    if (!session.Start())
        return kExitFailure;
    const double begin = MonotonicSeconds();
    if (!RunPreviewWindow(session, error)) {
        PrintError("cannot open a window (%s); %s", error.c_str(), instead.c_str());
        return kExitUsage;
    }
    PrintSummary(session, MonotonicSeconds() - begin);
    return kExitOK;
#endif
}
