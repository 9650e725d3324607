// The device backends, in the order their devices are listed, and the rule that lists a device
// reachable through several of them once.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <set>
#include <sstream>

#include "platform/devicebackend.h"

#include "platform/devices/alsa/alsabackend.h"
#include "platform/devices/pipewire/pwbackend.h"
#include "platform/devices/v4l2/v4l2backend.h"

platform::DeviceBackend* VirtualDeviceBackend();

namespace platform {

std::vector<DeviceBackend*> SelectBackends(const char* names,
                                           const std::vector<DeviceBackend*>& all) {
    if (names == nullptr || *names == '\0')
        return all;
    std::vector<DeviceBackend*> chosen;
    std::istringstream list(names);
    std::string name;
    while (std::getline(list, name, ',')) {
        name.erase(0, name.find_first_not_of(" \t"));
        name.erase(name.find_last_not_of(" \t") + 1);
        for (DeviceBackend* backend : all)
            if (name == backend->Name() &&
                std::find(chosen.begin(), chosen.end(), backend) == chosen.end())
                chosen.push_back(backend);
    }
    return chosen;
}

const std::vector<DeviceBackend*>& DeviceBackends() {
    // By default a camera the process may open directly comes through V4L2, one only PipeWire
    // gives a picture of (libcamera) through PipeWire; sound sources through PipeWire where a
    // daemon runs, else ALSA. The virtual test devices come last.
    static const std::vector<DeviceBackend*>* backends = new std::vector<DeviceBackend*>(
        SelectBackends(getenv("TAVIX_BACKENDS"), {V4L2DeviceBackend(), PipeWireDeviceBackend(),
                                                  AlsaDeviceBackend(), VirtualDeviceBackend()}));
    return *backends;
}

std::vector<ListedDevice> ListDevices(const std::vector<DeviceBackend*>& backends) {
    std::vector<ListedDevice> listed;
    std::set<std::string> reached; // identities listed by earlier backends
    for (DeviceBackend* backend : backends) {
        std::set<std::string> reachedHere;
        for (std::shared_ptr<BackendDevice>& device : backend->Enumerate()) {
            ListedDevice entry{backend, std::move(device), {}};
            entry.info = entry.device->Info();
            const std::string& identity = entry.info.identity;
            if (!identity.empty() && reached.count(identity) != 0)
                continue;
            if (!identity.empty())
                reachedHere.insert(identity);
            listed.push_back(std::move(entry));
        }
        reached.insert(reachedHere.begin(), reachedHere.end());
    }
    return listed;
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
