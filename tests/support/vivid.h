// Controls of the kernel's virtual camera driver, for the device tests.
#pragma once

#include <cstdint>
#include <string>

// Sets a control by name on an open node (vivid's "OSD Text Mode" to 2 hides the text over its
// pattern). `name` is the driver's name ("Wrap Timestamp") or the one v4l2-ctl shows
// ("wrap_timestamp"); a button is pressed by setting it to 1. False when the driver has no such
// control or refuses the value.
bool SetControl(int fd, const std::string& name, int64_t value);

// The same through a file handle of its own on the node at `node`, as another program would
// while the library captures; false also when the node cannot be opened.
bool SetControl(const std::string& node, const std::string& name, int64_t value);

// Presses a button control by name (vivid's "Disconnect" simulates an unplug); false when the
// driver has no such control.
bool PressButton(int fd, const char* name);
