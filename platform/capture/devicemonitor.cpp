// The device monitor: one thread, started while a listener is set, asleep in poll() until the
// kernel announces a change to a camera or sound card, the virtual devices change, or a re-listing
// it has planned falls due. Each listing is compared with the last and the difference told.
//
// The kernel's uevents come straight from the kernel (netlink group 1), so they arrive with or
// without udevd, and an ordinary user may read them. Where udevd runs it sets a new node's
// owner and mode a moment after the kernel's event, so a node that cannot be opened yet at the
// first listing would be missed: every event plans two more listings, half a second and two
// seconds later. inotify on /dev covers systems that refuse the netlink socket.
#include "platform/devicemonitor.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/devices/v4l2/v4l2camera.h"

namespace {

constexpr double kSettleDelays[] = {0.5, 2.0}; // seconds after an event: listed again

using DeviceList = std::map<std::string, platform::DeviceChange>;

platform::MediaKind KindOf(const platform::DeviceInfo& info) {
    if (info.isMuxed)
        return platform::MediaKind::Muxed;
    return info.hasVideo ? platform::MediaKind::Video : platform::MediaKind::Sound;
}

// The devices there now. Real backends list only what is present; a virtual device stays listed
// while a test has it unplugged, and counts as gone then.
DeviceList PresentDevices() {
    DeviceList present;
    for (const platform::ListedDevice& device : platform::ListDevices(platform::DeviceBackends())) {
        if (strcmp(device.backend->Name(), "virtual") == 0 && !device.device->IsConnected())
            continue;
        platform::DeviceChange& entry = present[device.info.uniqueId];
        entry.uniqueId = device.info.uniqueId;
        entry.displayName = device.info.displayName;
        entry.kind = KindOf(device.info);
    }
    return present;
}

// Whether a uevent (ACTION@DEVPATH, then KEY=VALUE strings) concerns cameras or sound.
bool ConcernsCapture(const char* message, size_t length) {
    for (size_t at = 0; at < length; at += strlen(message + at) + 1)
        if (strcmp(message + at, "SUBSYSTEM=video4linux") == 0 ||
            strcmp(message + at, "SUBSYSTEM=sound") == 0)
            return true;
    return false;
}

bool IsCaptureNodeName(const char* name) {
    return strncmp(name, "video", 5) == 0 || strncmp(name, "pcmC", 4) == 0 ||
           strcmp(name, "snd") == 0;
}

class Monitor {
public:
    bool SetListener(platform::DeviceChangeListener next) {
        if (std::this_thread::get_id() == threadId) {
            // From the listener: the running call is ours; the thread ends after it when told to
            // stop, and the next call from outside joins it.
            std::lock_guard<std::mutex> locked(mutex);
            if (ending)
                return true; // a clear from outside is waiting for this very call
            stopping = !next;
            listener = std::move(next);
            Wake();
            return true;
        }
        std::lock_guard<std::mutex> serialised(setMutex);
        if (next && running()) {
            std::lock_guard<std::mutex> calls(callMutex);
            std::lock_guard<std::mutex> locked(mutex);
            listener = std::move(next);
            return true;
        }
        Stop();
        if (!next)
            return true;
        return Start(std::move(next));
    }

    void Wake() {
        if (wakeWrite >= 0) {
            const char byte = 1;
            // A full pipe already holds a wake-up; nothing is lost.
            if (write(wakeWrite, &byte, 1) < 0) {
            }
        }
    }

    void WakeIfWatching() {
        std::lock_guard<std::mutex> locked(mutex);
        if (listener)
            Wake();
    }

private:
    bool running() {
        std::lock_guard<std::mutex> locked(mutex);
        return thread.joinable() && !stopping && !ending;
    }

    // Ends the thread (under setMutex, never on the thread itself).
    void Stop() {
        {
            std::lock_guard<std::mutex> locked(mutex);
            ending = true;
            listener = nullptr;
            Wake();
        }
        if (thread.joinable())
            thread.join();
        std::lock_guard<std::mutex> locked(mutex);
        for (int* fd : {&wakeRead, &wakeWrite, &netlink, &inotify})
            if (*fd >= 0) {
                close(*fd);
                *fd = -1;
            }
    }

    bool Start(platform::DeviceChangeListener next) {
        int pipeEnds[2];
        if (pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK) != 0)
            return false;
        OpenEventSources();
        // The baseline is taken after the sources are open, so no change falls between them.
        known = PresentDevices();
        std::lock_guard<std::mutex> locked(mutex);
        wakeRead = pipeEnds[0];
        wakeWrite = pipeEnds[1];
        stopping = ending = false;
        listener = std::move(next);
        try {
            thread = std::thread([this] { Run(); });
        } catch (const std::system_error&) {
            listener = nullptr;
            return false;
        }
        threadId = thread.get_id();
        Wake(); // a change between the baseline and now is found by a first listing
        return true;
    }

    void OpenEventSources() {
        netlink =
            socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT);
        if (netlink >= 0) {
            sockaddr_nl address{};
            address.nl_family = AF_NETLINK;
            address.nl_groups = 1; // the kernel's own events
            if (bind(netlink, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
                close(netlink);
                netlink = -1;
            }
        }
        inotify = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        if (inotify >= 0) {
            WatchFolder("/dev");
            WatchFolder("/dev/snd");
        }
    }

    void WatchFolder(const char* path) {
        inotify_add_watch(inotify, path, IN_CREATE | IN_DELETE | IN_ATTRIB | IN_MOVED_TO);
    }

    // True when the netlink socket had an event about cameras or sound.
    bool ReadUevents() {
        bool relevant = false;
        char message[8192];
        ssize_t length;
        while ((length = recv(netlink, message, sizeof message - 1, 0)) > 0) {
            message[length] = 0;
            relevant = relevant || ConcernsCapture(message, static_cast<size_t>(length));
        }
        return relevant;
    }

    bool ReadNodeEvents() {
        bool relevant = false;
        alignas(inotify_event) char events[4096];
        ssize_t length;
        while ((length = read(inotify, events, sizeof events)) > 0) {
            for (char* at = events; at < events + length;) {
                const auto* event = reinterpret_cast<const inotify_event*>(at);
                if (event->len > 0 && IsCaptureNodeName(event->name)) {
                    relevant = true;
                    if (strcmp(event->name, "snd") == 0 && (event->mask & IN_CREATE))
                        WatchFolder("/dev/snd");
                }
                at += sizeof(inotify_event) + event->len;
            }
        }
        return relevant;
    }

    void Run() {
        std::vector<double> due; // when to list the devices again, monotonic seconds
        for (;;) {
            int timeoutMs = -1;
            if (!due.empty()) {
                double first = due.front();
                for (double when : due)
                    first = std::min(first, when);
                const double wait = first - platform::MonotonicSeconds();
                timeoutMs = wait <= 0 ? 0 : static_cast<int>(wait * 1000) + 1;
            }
            pollfd sources[] = {{wakeRead, POLLIN, 0}, {netlink, POLLIN, 0}, {inotify, POLLIN, 0}};
            if (poll(sources, 3, timeoutMs) < 0 && errno != EINTR)
                return;
            const double now = platform::MonotonicSeconds();
            if (sources[0].revents & POLLIN) {
                char drained[64];
                while (read(wakeRead, drained, sizeof drained) > 0) {
                }
                std::lock_guard<std::mutex> locked(mutex);
                if (stopping || ending)
                    return;
                due.push_back(now);
            }
            const bool fromKernel = ((sources[1].revents & POLLIN) && ReadUevents()) |
                                    ((sources[2].revents & POLLIN) && ReadNodeEvents());
            if (fromKernel) {
                // A later event supersedes the plan of an earlier one.
                due = {now};
                for (double delay : kSettleDelays)
                    due.push_back(now + delay);
            }
            const size_t before = due.size();
            due.erase(
                std::remove_if(due.begin(), due.end(), [now](double when) { return when <= now; }),
                due.end());
            if (due.size() != before && !Tell())
                return;
        }
    }

    // Lists the devices and tells the listener the difference; false when told to stop.
    bool Tell() {
        DeviceList present = PresentDevices();
        std::vector<platform::DeviceChange> changes;
        for (const auto& entry : known)
            if (present.count(entry.first) == 0) {
                changes.push_back(entry.second);
                changes.back().arrived = false;
            }
        for (const auto& entry : present)
            if (known.count(entry.first) == 0) {
                changes.push_back(entry.second);
                changes.back().arrived = true;
            }
        known = std::move(present);
        for (const platform::DeviceChange& change : changes) {
            std::lock_guard<std::mutex> calls(callMutex);
            platform::DeviceChangeListener current;
            {
                std::lock_guard<std::mutex> locked(mutex);
                if (stopping || ending)
                    return false;
                current = listener;
            }
            current(change);
        }
        std::lock_guard<std::mutex> locked(mutex);
        return !stopping && !ending;
    }

    std::mutex setMutex;  // serialises SetListener from outside the thread
    std::mutex callMutex; // held around each listener call
    std::mutex mutex;     // guards listener, stopping and ending; the wake pipe's write end
    platform::DeviceChangeListener listener;
    bool stopping = false; // the listener cleared itself: the thread ends after the call
    bool ending = false;   // cleared from outside: the thread ends and is joined
    std::thread thread;
    std::atomic<std::thread::id> threadId{};
    int wakeRead = -1, wakeWrite = -1, netlink = -1, inotify = -1;
    DeviceList known; // on the thread, and before it starts
};

Monitor& TheMonitor() {
    static Monitor* monitor = new Monitor; // lives for the process: its thread may outlive main
    return *monitor;
}

} // namespace

namespace platform {

bool SetDeviceChangeListener(DeviceChangeListener listener) {
    return TheMonitor().SetListener(std::move(listener));
}

void WakeDeviceMonitor() {
    TheMonitor().WakeIfWatching();
}

std::string UniqueIdOfNode(const std::string& path) {
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr)
        return std::string();
    const std::vector<V4L2DeviceInfo> devices = V4L2QueryNode(resolved, false);
    return devices.empty() ? std::string() : devices.front().uniqueId;
}

} // namespace platform
