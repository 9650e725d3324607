// A device's controls (brightness, exposure, focus, a sound input's capture volume...) as the
// backends describe them, and the rules every backend shares: how a control's key is made from
// the driver's name, and how a wished value is brought into its range and onto its step.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace platform {

// The kinds of control drivers offer (V4L2's, with the same numbers).
enum class ControlType : int {
    Integer = 1,
    Boolean = 2,
    Menu = 3,
    Button = 4,
    Integer64 = 5,
    String = 7,
    IntegerMenu = 9,
};

// Control flags, as the C interface reports them.
enum : uint32_t {
    kControlReadOnly = 1, // the value can be read, never set
    kControlInactive = 2, // it has no effect now (its auto partner is on)
    kControlVolatile = 4, // the device changes the value itself (gain under auto gain)
    kControlWriteOnly = 8 // an action (a button, a relative move): nothing to read
};

// One item of a menu. Menus may leave gaps: their indices need not be contiguous.
struct ControlMenuItem {
    int64_t index = 0;
    std::string name;  // a text menu's item; an integer menu's value as decimal text
    int64_t value = 0; // an integer menu's value; the index for a text menu
};

struct DeviceControl {
    std::string key;  // lower-case words joined by '_': "brightness", "exposure_auto"
    std::string name; // the driver's own display name, UTF-8
    ControlType type = ControlType::Integer;
    int64_t minimum = 0, maximum = 0, step = 1, defaultValue = 0;
    int64_t value = 0; // the current value (0 for buttons and strings)
    std::string text;  // a string control's current value
    std::vector<ControlMenuItem> menu;
    uint32_t flags = 0;
    uint32_t id = 0; // the backend's own number for the control (V4L2's control id)
};

// Why a control could not be set.
enum class ControlResult : int {
    Set = 0,
    Invalid = 1,    // no such device
    UnknownKey = 2, // the device has no control with that key
    ReadOnly = 3,
    WrongType = 4, // text for a number, or a number for a string
    Inactive = 5,  // the device refuses while the control's auto partner is on
    Busy = 6,      // another program or stream holds the control
    Failed = 7,    // the device refused otherwise or is gone
};

// Told of a control whose value or flags changed (the control as it is now).
using ControlChangeListener = std::function<void(const DeviceControl&)>;

// The key for a driver's control name: lower-case ASCII words joined by '_' ("Test Pattern" is
// "test_pattern", "Exposure Time, Absolute" is "exposure_time_absolute"); characters other than
// ASCII letters and digits separate words. A name without letters or digits gives "control".
// Backends give the well-known controls their common keys ("exposure", "focus_auto") by the
// driver's control id and use this for the rest.
std::string ControlKeyFromName(const std::string& name);

// Makes the keys of one device's controls unique, in order: a key seen before gets "_2", "_3"...
void MakeControlKeysUnique(std::vector<DeviceControl>& controls);

// The allowed value nearest to `wish`: integers clamped into [minimum, maximum] and rounded to
// the nearest step counted from minimum (halfway rounds up, never past maximum); booleans 0 or
// 1 (any non-zero is 1); menus the nearest index the menu has (halfway: the lower). Other types
// come back unchanged.
int64_t NearestAllowedValue(const DeviceControl& control, int64_t wish);

// The value text names for a number, boolean or menu control, as a person would type it: a
// decimal integer; for booleans also on/off, true/false, yes/no (any case); for menus an item's
// name compared without case, the name in key form ("aperture_priority_mode"), its first word
// when no other item starts with that word ("manual" for "Manual Mode"), or an integer menu's
// number. The value is not brought into range. False when the text names nothing (or the
// control is a string or a button with text that is not a number).
bool ValueForText(const DeviceControl& control, const std::string& text, int64_t& value);

} // namespace platform
