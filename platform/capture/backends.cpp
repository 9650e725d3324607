// The device backends, in the order their devices are listed.
#include <ctime>

#include "platform/devicebackend.h"

#include "platform/devices/alsa/alsabackend.h"
#include "platform/devices/v4l2/v4l2backend.h"

platform::DeviceBackend* VirtualDeviceBackend();

namespace platform {

const std::vector<DeviceBackend*>& DeviceBackends() {
    // Real devices first; the virtual test devices always last.
    static const std::vector<DeviceBackend*>* backends = new std::vector<DeviceBackend*>{
        V4L2DeviceBackend(), AlsaDeviceBackend(), VirtualDeviceBackend()};
    return *backends;
}

std::string DeviceListProblem() {
    std::string problems;
    for (DeviceBackend* backend : DeviceBackends()) {
        const std::string problem = backend->Problem();
        if (problem.empty())
            continue;
        if (!problems.empty())
            problems += ' ';
        problems += problem;
    }
    return problems;
}

double MonotonicSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

} // namespace platform
