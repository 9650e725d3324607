// The capture controls of a sound input: the capture volumes and switches of the mixer of the
// card its PCM belongs to.
#pragma once

#include <string>
#include <vector>

#include "platform/devicecontrols.h"

// The card a PCM name belongs to ("hw:CARD=Dummy,DEV=0", "hw:1,0"); -1 for a PCM of no one
// card ("default", which may reach a sound server).
int AlsaCardOf(const std::string& pcmName);

// The card's capture controls, in the mixer's order: each simple element with a capture volume
// gives an Integer control ("Mic" gives mic_capture_volume, "Capture" capture_volume), each with
// a capture switch a Boolean (capture_switch). Empty for a card without them or that cannot be
// opened.
std::vector<platform::DeviceControl> AlsaMixerControls(int card);

// Sets one of those controls (as listed) to `value` on every channel; `after` receives it as
// the mixer holds it then.
platform::ControlResult AlsaMixerSet(int card, const platform::DeviceControl& control,
                                     int64_t value, platform::DeviceControl& after,
                                     std::string& reason);
