#include "support/realdevices.h"

#include <cstdio>
#include <fstream>

#include "platform/devices/alsa/alsadevices.h"

const char* const kLoopbackCapture = "hw:CARD=Loopback,DEV=1";
const char* const kLoopbackPlayback = "hw:CARD=Loopback,DEV=0";

V4L2DeviceInfo FindCameraOffering(uint32_t fourcc) {
    for (V4L2DeviceInfo& device : V4L2ListDevices())
        for (const V4L2Format& format : device.formats)
            if (format.fourcc == fourcc)
                return device;
    return {};
}

V4L2DeviceInfo FindMultiplanarCamera() {
    for (V4L2DeviceInfo& device : V4L2ListDevices())
        if (device.multiplanar)
            return device;
    return {};
}

std::string MappedFileOf(const void* address) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    const auto where = reinterpret_cast<uintptr_t>(address);
    while (std::getline(maps, line)) {
        uintptr_t start = 0, end = 0;
        if (sscanf(line.c_str(), "%lx-%lx", &start, &end) != 2 || where < start || where >= end)
            continue;
        const size_t slash = line.find('/');
        return slash == std::string::npos ? "" : line.substr(slash);
    }
    return "";
}

std::string LoopbackInputName() {
    for (const AlsaDeviceInfo& device : AlsaListDevices())
        if (device.pcmName == kLoopbackCapture)
            return device.displayName;
    return {};
}
