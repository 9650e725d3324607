// `tavix list`, `tavix list --watch`, `tavix formats NAME` and `tavix transport NAME ACTION`.
#include "devices.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "framerates.h"
#include "llib/mac/tavix.h"
#include "options.h"

namespace {

struct NameCollector : ITavixDeviceEnumerator {
    std::vector<std::string> names;
    bool OnDevice(const char* name) override {
        names.emplace_back(name);
        return true;
    }
};

std::vector<std::string> DeviceNames(TavixDeviceMediaType type) {
    NameCollector collector;
    TavixDeviceEnumerate(&collector, type, 1); // 1: include devices that are not connected
    return collector.names;
}

const char* MediaText(TavixDeviceMediaType type) {
    switch (type) {
    case TavixDeviceMediaTypeMuxed:
        return "muxed";
    case TavixDeviceMediaTypeSound:
        return "sound";
    default:
        return "video";
    }
}

// The display name of the sound device named or identified by `nameOrId`; empty when none.
std::string SoundDeviceName(const std::string& nameOrId) {
    if (const unsigned long audio = TavixDeviceGet(nameOrId.c_str(), TavixDeviceMediaTypeSound)) {
        TavixDeviceRelease(audio);
        return nameOrId;
    }
    struct Search {
        const std::string& id;
        std::string name;
    } search{nameOrId, ""};
    TavixDeviceEnumerateWithUniqueIDs(
        [](const char* name, const char* uniqueId, TavixDeviceMediaType, bool, void* context) {
            auto* found = static_cast<Search*>(context);
            if (found->id != uniqueId)
                return true;
            found->name = name;
            return false;
        },
        &search, TavixDeviceMediaTypeSound, 0);
    return search.name;
}

// Says that no device answers to `name`, with the nearest name when it looks misspelt.
void PrintNoDevice(const std::string& name) {
    if (name.rfind("/dev/", 0) == 0) {
        PrintError("no camera at %s: it is missing or not a capture node (see tavix list)",
                   name.c_str());
        return;
    }
    const std::string nearest = NearestWord(name, DeviceNames(TavixDeviceMediaTypeAny));
    if (!nearest.empty())
        PrintError("no capture device named \"%s\" (did you mean \"%s\"?)", name.c_str(),
                   nearest.c_str());
    else
        PrintError("no capture device named \"%s\", nor with that id (see tavix list)",
                   name.c_str());
}

std::string UniqueIdOf(unsigned long device) {
    char id[1024];
    return TavixDeviceGetUniqueID(device, id, sizeof id) ? id : "";
}

// `list --watch`: the library's change callback writes each line; the main thread waits for
// Ctrl-C (or a terminating signal) in sigwait, then clears the callback and returns. The signals
// are blocked before the library makes any thread, so every thread inherits the block and the
// signal waits for the main thread's sigwait wherever it was sent: a handler could run on a
// library thread instead and would have to wake the main thread from there.
std::mutex printMutex;

sigset_t StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&signals, signal);
    return signals;
}

void PrintChange(const char* name, const char* uniqueId, TavixDeviceMediaType type, bool arrived,
                 void*) {
    std::lock_guard<std::mutex> locked(printMutex);
    printf("%-8s  %-32s  %-5s  %s\n", arrived ? "arrived" : "left", name, MediaText(type),
           uniqueId);
    fflush(stdout);
}

int WatchDevices() {
    if (!TavixDeviceSetChangeCallBack(PrintChange, nullptr)) {
        PrintError("cannot watch for devices");
        return kExitFailure;
    }
    printf("watching for capture devices to arrive or leave; Ctrl-C ends\n");
    fflush(stdout);
    const sigset_t stops = StopSignals();
    int signal = 0;
    while (sigwait(&stops, &signal) != 0) {
    }
    TavixDeviceSetChangeCallBack(nullptr, nullptr);
    return kExitOK;
}

bool WantsHelp(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0)
            return true;
    return false;
}

// Holds a device reference for the length of a command.
class DeviceReference {
public:
    explicit DeviceReference(const char* name) : handle(GetDeviceByName(name)) {}
    ~DeviceReference() {
        if (handle != 0)
            TavixDeviceRelease(handle);
    }
    unsigned long handle;
};

// Collects the formats, so that their rates and sound details are asked for once the
// enumeration has ended.
struct FormatCollector : ITavixDeviceFormatEnumerator {
    struct Entry {
        bool video;
        unsigned long format, width, height;
    };
    std::vector<Entry> entries;
    bool OnDeviceFormatAudio(unsigned long format) override {
        entries.push_back({false, format, 0, 0});
        return true;
    }
    bool OnDeviceFormatVideo(unsigned long format, unsigned long width,
                             unsigned long height) override {
        entries.push_back({true, format, width, height});
        return true;
    }
};

// One format as a JSON object: a sound format with its details, a video format with its size
// and rates (the fastest of each entry).
std::string FormatJson(unsigned long device, const FormatCollector::Entry& entry) {
    std::string json =
        std::string("{\"media\": \"") + (entry.video ? "video" : "audio") + "\", \"format\": " +
        JsonText(entry.video ? PixelFormatName(entry.format) : FourCCText(entry.format));
    if (!entry.video) {
        std::string details;
        for (const std::string& detail : SoundFormatTexts(device, entry.format))
            details += (details.empty() ? "" : ", ") + JsonText(detail);
        return json + ", \"details\": [" + details + "]}";
    }
    std::string rates;
    char rate[32];
    for (const TavixFrameRate_C& offered :
         OfferedRates(device, entry.format, entry.width, entry.height)) {
        snprintf(rate, sizeof rate, "%s%g", rates.empty() ? "" : ", ", offered.framesPerSecond);
        rates += rate;
    }
    return json + ", \"width\": " + std::to_string(entry.width) +
           ", \"height\": " + std::to_string(entry.height) + ", \"framesPerSecond\": [" + rates +
           "]}";
}

void PrintListUsage(FILE* out) {
    fprintf(out, "usage: tavix list [--watch | --json]\n\n"
                 "Lists the capture devices with their media types, unique ids and state.\n"
                 "  --watch  then prints a line for each device that arrives or leaves, until "
                 "Ctrl-C\n"
                 "  --json   prints the list as JSON\n\n"
                 "Wherever a command takes a device NAME, it also takes the device's unique id\n"
                 "or a camera's /dev/videoN path.\n");
}

void PrintFormatsUsage(FILE* out) {
    fprintf(out, "usage: tavix formats NAME [--json]\n\nLists the audio and video formats device "
                 "NAME delivers: sound\nwith its rate, channels and sample size, pictures with "
                 "their size and frame rates.\n  --json   prints them as JSON\n");
}

// A sound format with its rate, channels and sample size; a video format with its rates.
void PrintFormat(unsigned long device, const FormatCollector::Entry& entry) {
    const std::string code = entry.video ? PixelFormatName(entry.format) : FourCCText(entry.format);
    if (!entry.video) {
        const std::vector<std::string> details = SoundFormatTexts(device, entry.format);
        if (details.empty())
            printf("  audio  %s\n", code.c_str());
        for (const std::string& detail : details)
            printf("  audio  %s  %s\n", code.c_str(), detail.c_str());
        return;
    }
    const std::string rates =
        RatesText(OfferedRates(device, entry.format, entry.width, entry.height));
    printf("  video  %s  %lu x %lu%s%s\n", code.c_str(), entry.width, entry.height,
           rates.empty() ? "" : "  ", rates.c_str());
}

} // namespace

const char* TransportModeText(TavixDeviceTransportMode mode) {
    static const char* const names[] = {"stopped",
                                        "playing",
                                        "rewinding",
                                        "fast forwarding",
                                        "fast reverse play",
                                        "fast forward play",
                                        "no transport controls"};
    return mode >= 0 && mode <= 6 ? names[mode] : "unknown";
}

unsigned long GetDeviceByName(const char* name) {
    const TavixDeviceMediaType order[] = {TavixDeviceMediaTypeVideo, TavixDeviceMediaTypeMuxed,
                                          TavixDeviceMediaTypeSound};
    for (TavixDeviceMediaType type : order)
        if (unsigned long handle = TavixDeviceGet(name, type))
            return handle;
    // Not a name: a unique id, or a camera's device node.
    return TavixDeviceGetWithUniqueID(name);
}

int ListCommand(int argc, char** argv) {
    bool watch = false, json = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h")
            return PrintListUsage(stdout), kExitOK;
        if (argument == "--watch")
            watch = true;
        else if (argument == "--json")
            json = true;
        else if (argument[0] == '-')
            return PrintUnknownOption(argument, {"--watch", "--json", "--help"}),
                   PrintListUsage(stderr), kExitUsage;
        else
            return PrintError("list takes no device name (\"%s\"); tavix formats NAME tells "
                              "about one device",
                              argv[i]),
                   PrintListUsage(stderr), kExitUsage;
    }
    if (watch && json)
        return PrintError("--watch and --json do not go together"), PrintListUsage(stderr),
               kExitUsage;
    if (watch) {
        const sigset_t stops = StopSignals();
        pthread_sigmask(SIG_BLOCK, &stops, nullptr);
    }
    const std::vector<std::string> names = DeviceNames(TavixDeviceMediaTypeAny);
    if (names.empty() && !json)
        printf("no capture devices\n");
    if (json)
        printf("[");
    bool first = true;
    for (const std::string& name : names) {
        DeviceReference device(name.c_str());
        if (device.handle == 0)
            continue;
        std::string media;
        if (TavixDeviceHasMediaType(device.handle, TavixDeviceMediaTypeMuxed))
            media = "muxed";
        else if (TavixDeviceHasMediaType(device.handle, TavixDeviceMediaTypeVideo))
            media = "video";
        else if (TavixDeviceHasMediaType(device.handle, TavixDeviceMediaTypeSound))
            media = "sound";
        const bool connected = TavixDeviceIsConnected(device.handle);
        const bool inUse = TavixDeviceIsUsedByAnotherApplication(device.handle);
        const bool transport = TavixDeviceIsTransportAvailable(device.handle);
        if (json) {
            printf("%s\n  {\"name\": %s, \"media\": \"%s\", \"id\": %s, \"connected\": %s, "
                   "\"inUse\": %s, \"transport\": %s}",
                   first ? "" : ",", JsonText(name).c_str(), media.c_str(),
                   JsonText(UniqueIdOf(device.handle)).c_str(), connected ? "true" : "false",
                   inUse ? "true" : "false", transport ? "true" : "false");
            first = false;
            continue;
        }
        std::string state = connected ? "connected" : "not connected";
        if (inUse)
            state += ", in use by another application";
        if (transport)
            state += ", transport controls";
        printf("%-32s  %-5s  %-40s  %s\n", name.c_str(), media.c_str(),
               UniqueIdOf(device.handle).c_str(), state.c_str());
    }
    if (json)
        printf("\n]\n");
    return watch ? WatchDevices() : kExitOK;
}

int FormatsCommand(int argc, char** argv) {
    std::string name;
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h")
            return PrintFormatsUsage(stdout), kExitOK;
        if (argument == "--json")
            json = true;
        else if (argument[0] == '-')
            return PrintUnknownOption(argument, {"--json", "--help"}), PrintFormatsUsage(stderr),
                   kExitUsage;
        else if (name.empty())
            name = argument;
        else
            return PrintError("unexpected argument \"%s\"", argv[i]), PrintFormatsUsage(stderr),
                   kExitUsage;
    }
    if (name.empty())
        return PrintError("formats needs a device name (see tavix list)"),
               PrintFormatsUsage(stderr), kExitUsage;
    DeviceReference device(name.c_str());
    if (device.handle == 0) {
        PrintNoDevice(name.c_str());
        return kExitFailure;
    }
    if (!TavixDeviceOpen(device.handle)) {
        PrintError("cannot open \"%s\"", name.c_str());
        return kExitFailure;
    }
    FormatCollector formats;
    const bool listed = TavixDeviceFormatEnumerate(device.handle, &formats);
    if (json) {
        printf("{\"device\": %s, \"formats\": [", JsonText(name).c_str());
        for (size_t i = 0; i < formats.entries.size(); ++i)
            printf("%s\n  %s", i == 0 ? "" : ",",
                   FormatJson(device.handle, formats.entries[i]).c_str());
        printf("\n]}\n");
    } else {
        printf("%s\n", name.c_str());
        for (const FormatCollector::Entry& entry : formats.entries)
            PrintFormat(device.handle, entry);
    }
    TavixDeviceClose(device.handle);
    if (!listed) {
        PrintError("cannot read the formats of \"%s\"", name.c_str());
        return kExitFailure;
    }
    if (formats.entries.empty() && !json)
        printf("  no formats\n");
    return kExitOK;
}

int TransportCommand(int argc, char** argv) {
    const auto usage = [](FILE* out) {
        fprintf(out, "usage: tavix transport NAME play|stop|rewind|ff|status\n\nDrives the tape "
                     "transport of device NAME, or shows what it is doing.\n");
    };
    if (WantsHelp(argc, argv))
        return usage(stdout), kExitOK;
    if (argc != 3) {
        PrintError(argc < 3 ? "transport needs a device name and an action"
                            : "transport takes a device name and one action");
        usage(stderr);
        return kExitUsage;
    }
    const std::string action = argv[2];
    TavixDeviceTransportMode mode = TavixDeviceTransportModeStop;
    if (action == "play")
        mode = TavixDeviceTransportModePlay;
    else if (action == "rewind")
        mode = TavixDeviceTransportModeRewind;
    else if (action == "ff")
        mode = TavixDeviceTransportModeFastForward;
    else if (action != "stop" && action != "status") {
        const std::string nearest = NearestWord(action, {"play", "stop", "rewind", "ff", "status"});
        PrintError("unknown transport action \"%s\" (%s%splay, stop, rewind, ff or status)",
                   argv[2], nearest.empty() ? "" : ("did you mean " + nearest + "? ").c_str(),
                   nearest.empty() ? "" : "one of ");
        usage(stderr);
        return kExitUsage;
    }
    DeviceReference device(argv[1]);
    if (device.handle == 0) {
        PrintNoDevice(argv[1]);
        return kExitFailure;
    }
    if (!TavixDeviceOpen(device.handle)) {
        PrintError("cannot open \"%s\"", argv[1]);
        return kExitFailure;
    }
    int status = kExitOK;
    if (!TavixDeviceIsTransportAvailable(device.handle)) {
        PrintError("\"%s\" has no transport controls", argv[1]);
        status = kExitFailure;
    } else {
        if (action != "status")
            TavixDeviceSetTransportMode(device.handle, mode);
        SMPTETime time;
        memset(&time, 0, sizeof time);
        const bool hasTime = TavixDeviceGetSMPTETime(device.handle, &time);
        printf("%s: %s", argv[1], TransportModeText(TavixDeviceGetTransportMode(device.handle)));
        if (hasTime)
            printf(", timecode %02d:%02d:%02d:%02d", time.mHours, time.mMinutes, time.mSeconds,
                   time.mFrames);
        printf("\n");
    }
    TavixDeviceClose(device.handle);
    return status;
}

unsigned long OpenNamedDevice(const std::string& name, std::string& audioName) {
    const unsigned long device = GetDeviceByName(name.c_str());
    if (device == 0) {
        PrintNoDevice(name.c_str());
        return 0;
    }
    if (!audioName.empty()) {
        // Only checks the name; the capture layer opens the companion device itself, by its
        // display name, so a unique id given for it is turned into that name.
        const std::string found = SoundDeviceName(audioName);
        if (found.empty()) {
            PrintError("no sound device named \"%s\", nor with that id (see tavix list)",
                       audioName.c_str());
            TavixDeviceRelease(device);
            return 0;
        }
        audioName = found;
    }
    if (!TavixDeviceOpen(device)) {
        PrintError("cannot open \"%s\"%s", name.c_str(),
                   TavixDeviceIsUsedByAnotherApplication(device) ? ": in use by another application"
                                                                 : "");
        TavixDeviceRelease(device);
        return 0;
    }
    return device;
}
