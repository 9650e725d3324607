#include "options.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

bool ParseFourCC(const std::string& text, unsigned long& code) {
    if (text.size() != 4)
        return false;
    code = 0;
    for (unsigned char c : text) {
        if (!isprint(c))
            return false;
        code = code << 8 | c;
    }
    return true;
}

std::string FourCCText(unsigned long code) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const char c = static_cast<char>((code >> shift) & 0xFF);
        text += isprint(static_cast<unsigned char>(c)) ? c : '?';
    }
    return text;
}

bool ParseSize(const std::string& text, unsigned long& width, unsigned long& height) {
    const size_t x = text.find_first_of("xX");
    if (x == std::string::npos || x == 0 || x + 1 >= text.size())
        return false;
    for (size_t i = 0; i < text.size(); ++i)
        if (i != x && !isdigit(static_cast<unsigned char>(text[i])))
            return false;
    width = strtoul(text.substr(0, x).c_str(), nullptr, 10);
    height = strtoul(text.substr(x + 1).c_str(), nullptr, 10);
    return width >= 1 && width <= 16384 && height >= 1 && height <= 16384;
}

bool ParseSeconds(const std::string& text, double& seconds) {
    char* end = nullptr;
    seconds = strtod(text.c_str(), &end);
    return !text.empty() && end != nullptr && *end == '\0' && seconds > 0 && seconds <= 86400;
}

bool ParseRate(const std::string& text, double& framesPerSecond) {
    char* end = nullptr;
    framesPerSecond = strtod(text.c_str(), &end);
    return !text.empty() && end != nullptr && *end == '\0' && framesPerSecond > 0 &&
           framesPerSecond <= 1000;
}

void PrintError(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fputs("tavix: ", stderr);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
    va_end(arguments);
}

int ParseDeviceWish(int argc, char** argv, int& i, DeviceWishes& wishes) {
    const std::string argument = argv[i];
    const bool takesValue = argument == "--audio" || argument == "--record" ||
                            argument == "--format" || argument == "--size" || argument == "--set";
    if (takesValue && i + 1 >= argc) {
        PrintError("%s needs a value", argument.c_str());
        return kExitUsage;
    }
    if (argument == "--audio") {
        wishes.audioDevice = argv[++i];
    } else if (argument == "--record") {
        wishes.recordPath = argv[++i];
    } else if (argument == "--format") {
        if (!ParseFourCC(argv[++i], wishes.pixelFormat)) {
            PrintError("bad pixel format \"%s\" (four characters, such as 2vuy or BGRA)", argv[i]);
            return kExitUsage;
        }
    } else if (argument == "--size") {
        if (!ParseSize(argv[++i], wishes.width, wishes.height)) {
            PrintError("bad size \"%s\" (WIDTHxHEIGHT, such as 640x480)", argv[i]);
            return kExitUsage;
        }
    } else if (argument == "--set") {
        wishes.settings.push_back(argv[++i]);
        const size_t equals = wishes.settings.back().find('=');
        if (equals == std::string::npos || equals == 0) {
            PrintError("bad --set \"%s\" (KEY=VALUE, such as brightness=200)", argv[i]);
            return kExitUsage;
        }
    } else if (!argument.empty() && argument[0] == '-') {
        PrintError("unknown option %s", argument.c_str());
        return kExitUsage;
    } else if (wishes.device.empty()) {
        wishes.device = argument;
    } else {
        PrintError("unexpected argument \"%s\"", argument.c_str());
        return kExitUsage;
    }
    return kExitOK;
}

int RequireDevice(const DeviceWishes& wishes, const char* command) {
    if (!wishes.device.empty())
        return kExitOK;
    PrintError("%s needs a device name (see tavix list)", command);
    return kExitUsage;
}
