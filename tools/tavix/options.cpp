#include "options.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "llib/mac/tavix.h"

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
    return width >= 1 && width <= kMaxSide && height >= 1 && height <= kMaxSide;
}

bool ParseSeconds(const std::string& text, double& seconds) {
    char* end = nullptr;
    seconds = strtod(text.c_str(), &end);
    return !text.empty() && end != nullptr && *end == '\0' && seconds > 0 && seconds <= kMaxSeconds;
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

namespace {

struct PixelFormatName_ {
    const char* name;
    unsigned long code;
};

// The pixel formats the library converts into from whatever the device delivers.
const PixelFormatName_ kPixelFormats[] = {
    {"2vuy", 0x32767579}, {"yuvs", 0x79757673}, {"420v", 0x34323076}, {"420f", 0x34323066},
    {"y420", 0x79343230}, {"422v", 0x34323276}, {"444v", 0x34343476}, {"BGRA", 0x42475241},
    {"ARGB", 0x00000020}, {"RGBA", 0x52474241}, {"ABGR", 0x41424752}, {"24RG", 0x00000018},
    {"24BG", 0x32344247}, {"L565", 0x4C353635}, {"B565", 0x42353635}, {"L008", 0x4C303038},
};

std::string Lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

// Edits (insertions, deletions, changes, swaps of neighbours) that turn one word into another.
size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i)
        d[i][0] = i;
    for (size_t j = 0; j <= b.size(); ++j)
        d[0][j] = j;
    for (size_t i = 1; i <= a.size(); ++i)
        for (size_t j = 1; j <= b.size(); ++j) {
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                                d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    return d[a.size()][b.size()];
}

} // namespace

bool ParsePixelFormat(const std::string& text, unsigned long& code) {
    for (const PixelFormatName_& format : kPixelFormats)
        if (Lower(text) == Lower(format.name)) {
            code = format.code;
            return true;
        }
    return false;
}

std::string PixelFormatName(unsigned long code) {
    for (const PixelFormatName_& format : kPixelFormats)
        if (format.code == code)
            return format.name;
    return FourCCText(code);
}

std::string PixelFormatNames() {
    std::string names;
    for (const PixelFormatName_& format : kPixelFormats)
        names += (names.empty() ? "" : ", ") + std::string(format.name);
    return names;
}

std::string NearestWord(const std::string& word, const std::vector<std::string>& candidates) {
    std::string nearest;
    size_t best = word.size() < 5 ? 1 : 2; // farther than this is another word
    for (const std::string& candidate : candidates) {
        const size_t distance = EditDistance(Lower(word), Lower(candidate));
        if (distance <= best && (nearest.empty() || distance < best)) {
            nearest = candidate;
            best = distance;
        }
    }
    return nearest;
}

void PrintUnknownOption(const std::string& option, const std::vector<std::string>& known) {
    const std::string name = option.substr(0, option.find('='));
    const std::string nearest = NearestWord(name, known);
    if (nearest.empty())
        PrintError("unknown option %s", name.c_str());
    else
        PrintError("unknown option %s (did you mean %s?)", name.c_str(), nearest.c_str());
}

std::vector<char*> SplitOptionValues(int argc, char** argv, std::vector<std::string>& storage) {
    storage.clear();
    for (int i = 0; i < argc; ++i) {
        const std::string argument = argv[i];
        const size_t equals = argument.find('=');
        if (argument.rfind("--", 0) == 0 && equals != std::string::npos && equals > 2) {
            storage.push_back(argument.substr(0, equals));
            storage.push_back(argument.substr(equals + 1));
        } else {
            storage.push_back(argument);
        }
    }
    std::vector<char*> split;
    for (std::string& argument : storage)
        split.push_back(&argument[0]);
    split.push_back(nullptr);
    return split;
}

std::string JsonText(const std::string& text) {
    std::string json = "\"";
    for (const unsigned char c : text) {
        if (c == '"' || c == '\\') {
            json += '\\';
            json += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", c);
            json += escaped;
        } else {
            json += static_cast<char>(c);
        }
    }
    return json + "\"";
}

std::string ExtensionOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return "";
    return Lower(path.substr(dot + 1));
}

bool IsMovieExtension(const std::string& path) {
    const std::string extension = ExtensionOf(path);
    for (const char* known : {"mov", "mp4", "m4v", "mkv", "avi"})
        if (extension == known)
            return true;
    return false;
}

bool MayWrite(const std::string& path, bool overwrite) {
    struct stat info {};
    if (overwrite || stat(path.c_str(), &info) != 0)
        return true;
    PrintError("%s exists; -y (--overwrite) replaces it", path.c_str());
    return false;
}

bool WishesFitDevice(unsigned long device, const DeviceWishes& wishes) {
    const bool pictures = TavixDeviceHasMediaType(device, TavixDeviceMediaTypeVideo) ||
                          TavixDeviceHasMediaType(device, TavixDeviceMediaTypeMuxed);
    if (!pictures && (wishes.pixelFormat != 0 || wishes.width != 0)) {
        PrintError("\"%s\" delivers no pictures, so it takes no %s", wishes.device.c_str(),
                   wishes.pixelFormat != 0 ? "--format" : "--size");
        return false;
    }
    return true;
}

int ParseDeviceWish(int argc, char** argv, int& i, DeviceWishes& wishes,
                    const std::vector<std::string>& commandOptions) {
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
        if (!ParsePixelFormat(argv[++i], wishes.pixelFormat)) {
            PrintError("unknown pixel format \"%s\" (one of %s, in any case)", argv[i],
                       PixelFormatNames().c_str());
            return kExitUsage;
        }
    } else if (argument == "--size") {
        if (!ParseSize(argv[++i], wishes.width, wishes.height)) {
            PrintError("bad size \"%s\" (WIDTHxHEIGHT, 1 to %lu pixels a side, such as 640x480)",
                       argv[i], kMaxSide);
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
        std::vector<std::string> known = {"--audio", "--record", "--format",
                                          "--size",  "--set",    "--help"};
        known.insert(known.end(), commandOptions.begin(), commandOptions.end());
        PrintUnknownOption(argument, known);
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
