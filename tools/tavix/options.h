// Command-line parsing shared by the `tavix` commands.
#pragma once

#include <string>
#include <vector>

// Four-character code from text such as "lpcm"; false unless exactly four printable
// characters.
bool ParseFourCC(const std::string& text, unsigned long& code);
std::string FourCCText(unsigned long code);

// The pixel formats the library delivers to the commands, by the name a user types (any case:
// "bgra" is BGRA). Two of them are numbers rather than four characters (ARGB is 32, 24RG is 24).
bool ParsePixelFormat(const std::string& text, unsigned long& code);
// The name of a pixel format code ("ARGB" for 32); its four characters for one outside the list.
std::string PixelFormatName(unsigned long code);
// "2vuy, yuvs, ...": every name ParsePixelFormat takes.
std::string PixelFormatNames();

// "WxH" with both sides from 1 to kMaxSide.
constexpr unsigned long kMaxSide = 16384;
bool ParseSize(const std::string& text, unsigned long& width, unsigned long& height);

// A positive number of seconds, at most a day (kMaxSeconds).
constexpr double kMaxSeconds = 86400;
bool ParseSeconds(const std::string& text, double& seconds);

// A frame rate in frames per second, above 0 and at most 1000 ("60", "29.97").
bool ParseRate(const std::string& text, double& framesPerSecond);

// What `capture` and `preview` both take: the device, a companion sound device, a recording and
// the format wishes.
struct DeviceWishes {
    std::string device;
    std::string audioDevice;
    std::string recordPath;
    unsigned long pixelFormat = 0, width = 0, height = 0;
    std::vector<std::string> settings; // "key=value" controls set before capture starts
};

// Reads argv[i] as one of the arguments every capturing command takes (NAME, --audio, --record,
// --format, --size, --set), moving i past its value. kExitOK when it was read; kExitUsage
// after printing what is wrong (a missing or bad value, a second name, an unknown option with
// the nearest of `commandOptions` and the shared ones).
int ParseDeviceWish(int argc, char** argv, int& i, DeviceWishes& wishes,
                    const std::vector<std::string>& commandOptions);
// kExitOK when a device was named; kExitUsage after printing what is missing.
int RequireDevice(const DeviceWishes& wishes, const char* command);

// Checks what the wishes ask of the opened device before capture starts: a pixel format or
// size needs a device with pictures. Prints why not and returns false.
bool WishesFitDevice(unsigned long device, const DeviceWishes& wishes);

// The movie containers a recording may be, by the file's extension.
const char* const kMovieExtensions = ".mov, .mp4, .m4v, .mkv or .avi";
bool IsMovieExtension(const std::string& path);
// Lower-case extension of a file name without its dot ("" when it has none).
std::string ExtensionOf(const std::string& path);

// A file the command will write: refused (printed, false) when it exists and overwrite is off.
bool MayWrite(const std::string& path, bool overwrite);

// The closest of `candidates` to a misspelt `word` (a few letters off), or "".
std::string NearestWord(const std::string& word, const std::vector<std::string>& candidates);
// Prints "unknown option X (did you mean Y?)".
void PrintUnknownOption(const std::string& option, const std::vector<std::string>& known);

// "--opt=value" arguments become "--opt" "value", so every command takes both spellings.
std::vector<char*> SplitOptionValues(int argc, char** argv, std::vector<std::string>& storage);

// A JSON string with quotes and escapes.
std::string JsonText(const std::string& text);

// Prints "tavix: message" on standard error.
void PrintError(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Exit statuses of the commands.
enum { kExitOK = 0, kExitFailure = 1, kExitUsage = 2 };
