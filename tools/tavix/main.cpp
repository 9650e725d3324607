// The `tavix` command: lists capture devices and their formats, captures and records, and drives
// tape decks, through the library's C interface.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "controls.h"
#include "devices.h"
#include "llib/mac/tavix.h"
#include "options.h"
#include "preview.h"

namespace {

void PrintUsage(FILE* out) {
    fprintf(out,
            "usage: tavix COMMAND [ARGUMENTS]\n"
            "       tavix --version\n\n"
            "  list [--watch]               capture devices, their media types, ids and state;\n"
            "                               --watch: then each arrival and departure\n"
            "  formats NAME                 the formats device NAME delivers\n"
            "  controls NAME [KEY=VALUE]    lists or sets brightness, exposure and the rest\n"
            "  capture NAME [OPTIONS]       captures, shows a live status, records, snapshots\n"
            "  transport NAME ACTION        play, stop, rewind, ff or status of a tape deck\n"
            "  preview NAME [OPTIONS]       a live window: picture, level, timecode, transport\n\n"
            "NAME is a device's name, its unique id (see list) or a camera's /dev/videoN.\n"
            "Options take their value as --opt VALUE or --opt=VALUE.\n"
            "tavix COMMAND --help tells more.\n");
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> storage;
    std::vector<char*> split = SplitOptionValues(argc, argv, storage);
    argc = static_cast<int>(split.size()) - 1;
    argv = split.data();
    if (argc < 2) {
        PrintError("no command given");
        PrintUsage(stderr);
        return kExitUsage;
    }
    const char* command = argv[1];
    if (strcmp(command, "--help") == 0 || strcmp(command, "-h") == 0 ||
        strcmp(command, "help") == 0) {
        PrintUsage(stdout);
        return kExitOK;
    }
    if (strcmp(command, "--version") == 0 || strcmp(command, "-V") == 0) {
        // The command and the library are built and versioned together.
        printf("tavix %s (libtavix %s)\n", TAVIX_VERSION, TAVIX_VERSION);
        return kExitOK;
    }
    int status;
    if (strcmp(command, "list") == 0)
        status = ListCommand(argc - 1, argv + 1);
    else if (strcmp(command, "formats") == 0)
        status = FormatsCommand(argc - 1, argv + 1);
    else if (strcmp(command, "controls") == 0)
        status = ControlsCommand(argc - 1, argv + 1);
    else if (strcmp(command, "capture") == 0)
        status = CaptureCommand(argc - 1, argv + 1);
    else if (strcmp(command, "transport") == 0)
        status = TransportCommand(argc - 1, argv + 1);
    else if (strcmp(command, "preview") == 0)
        status = PreviewCommand(argc - 1, argv + 1);
    else {
        const std::vector<std::string> commands = {"list",      "formats", "controls",  "capture",
                                                   "transport", "preview", "--version", "--help"};
        const std::string nearest = NearestWord(command, commands);
        if (!nearest.empty())
            PrintError("unknown command \"%s\" (did you mean %s?)", command, nearest.c_str());
        else
            PrintError("unknown command \"%s\"", command);
        PrintUsage(stderr);
        return kExitUsage;
    }
    fflush(stdout);
    return status;
}
