// Capture from one PipeWire node through a pw_stream linked to it.
#pragma once

#include <memory>

#include "platform/devices/pipewire/pwconnection.h"

namespace platform::pipewire {

// Starts a stream from `node` asking for `format` (at `interval` for pictures, when not empty)
// and waits until the daemon agrees on a format; null when it refuses or the node is gone.
// `wanted` is the pixel format the outputs asked for, which Motion-JPEG is decoded into.
std::unique_ptr<DeviceStream> StartCapture(const NodeInfo& node, const NodeFormat& format,
                                           FrameInterval interval, OSType wanted);

} // namespace platform::pipewire
