// Command-line parsing shared by the `tavix` commands.
#pragma once

#include <string>
#include <vector>

// Four-character pixel format code from text such as "2vuy" or "BGRA"; false unless exactly
// four printable characters.
bool ParseFourCC(const std::string& text, unsigned long& code);
std::string FourCCText(unsigned long code);

// "WxH" with both sides from 1 to 16384.
bool ParseSize(const std::string& text, unsigned long& width, unsigned long& height);

// A positive number of seconds, at most a day.
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
// --format, --size, --set), moving i past its value. kExitOK when it was read; kExitUsage after
// printing what is wrong (a missing or bad value, an unknown option, a second name).
int ParseDeviceWish(int argc, char** argv, int& i, DeviceWishes& wishes);
// kExitOK when a device was named; kExitUsage after printing what is missing.
int RequireDevice(const DeviceWishes& wishes, const char* command);

// Prints "tavix: message" on standard error.
void PrintError(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Exit statuses of the commands.
enum { kExitOK = 0, kExitFailure = 1, kExitUsage = 2 };
