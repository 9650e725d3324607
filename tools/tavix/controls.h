// A device's controls for the `tavix` commands: listing, setting from "key=value" text, and
// stepping one control up or down (the preview's keys).
#pragma once

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

// One control as the library lists it, copied out of the listing call.
struct ControlInfo {
    std::string key, name, text;
    int type = 0;
    unsigned int flags = 0;
    long long minimum = 0, maximum = 0, step = 0, defaultValue = 0, value = 0;
    std::vector<std::pair<long long, std::string>> menu; // index, name
};

// The device's controls in its order; false when they cannot be read.
bool ReadControls(unsigned long device, std::vector<ControlInfo>& controls);

// How a value reads to a person: a menu item's index and name, on/off, a string's text.
std::string ControlValueText(const ControlInfo& control, long long value);

// Whether "key=value" has a key and an '='.
bool IsSetting(const std::string& setting);

// Sets one control from "key=value", the value as a person types it (a number, on/off, a menu
// item's name or first word), and tells what the device holds afterwards in `told` ("brightness
// = 255 (nearest to 300)"); false with the library's reason in `told` when refused.
bool SetControlFromText(unsigned long device, const std::string& setting, std::string& told);

// Sets each "key=value" in order, printing each value set on `out`; stops at the first refusal,
// printing its reason, and returns false.
bool ApplySettings(unsigned long device, const std::vector<std::string>& settings,
                   FILE* out = stdout);

// Moves an integer control by `steps` 32nds of its range (at least one step), within its range;
// an inactive exposure is made manual first (exposure_auto=manual). Tells the value set, or why
// not, in `told`.
bool StepControl(unsigned long device, const std::string& key, int steps, std::string& told);

int ControlsCommand(int argc, char** argv);
