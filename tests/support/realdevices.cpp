#include "support/realdevices.h"

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

std::string LoopbackInputName() {
    for (const AlsaDeviceInfo& device : AlsaListDevices())
        if (device.pcmName == kLoopbackCapture)
            return device.displayName;
    return {};
}
