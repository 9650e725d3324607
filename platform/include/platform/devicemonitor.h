// Watching capture devices come and go. While a listener is set, one thread waits for the
// kernel's device events (a netlink uevent socket, and inotify on /dev where netlink is not
// allowed) and for the virtual devices' changes, lists the devices again when one concerns
// cameras or sound, and tells the listener what arrived and what left, by unique id. Nothing
// runs while nothing happens.
#pragma once

#include <functional>
#include <string>

#include "platform/devicebackend.h"

namespace platform {

struct DeviceChange {
    std::string uniqueId;
    std::string displayName;
    MediaKind kind = MediaKind::Video;
    bool arrived = false; // false: it left
};

using DeviceChangeListener = std::function<void(const DeviceChange&)>;

// Sets the listener (an empty one stops watching), which is called on the monitor's thread, one
// call at a time. The devices present when watching starts are the baseline: only later changes
// are told. Returns once no call to the previous listener runs, except when called from the
// listener itself (the running call is the one still going). False when the thread could not
// start.
bool SetDeviceChangeListener(DeviceChangeListener listener);

// Asks a watching monitor to list the devices again now (the virtual devices call it whenever a
// test adds, removes, plugs or unplugs one). Does nothing when no listener is set.
void WakeDeviceMonitor();

// The unique id of the camera at a device node ("/dev/video2", or a link to it such as
// /dev/v4l/by-id/...): the first input's for a node with several; empty when no camera is there.
std::string UniqueIdOfNode(const std::string& path);

} // namespace platform
