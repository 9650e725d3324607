// The ALSA sound-input backend: hardware capture PCMs and the default device.
#pragma once

#include "platform/devicebackend.h"

platform::DeviceBackend* AlsaDeviceBackend();
