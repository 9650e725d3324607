// The V4L2 camera backend: the video capture nodes under /dev.
#pragma once

#include "platform/devicebackend.h"

platform::DeviceBackend* V4L2DeviceBackend();
