// The PipeWire backend: a daemon's camera (Video/Source) and sound-source (Audio/Source) nodes
// as capture devices.
#pragma once

#include "platform/devicebackend.h"

platform::DeviceBackend* PipeWireDeviceBackend();
