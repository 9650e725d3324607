// Controls of the kernel's virtual camera driver, for the device tests.
#pragma once

#include <cstdint>
#include <string>

// Presses a button control by name (vivid's "Disconnect" simulates an unplug); false when the
// driver has no such control.
bool PressButton(int fd, const char* name);

// Sets a control of the capture node at `node` through a file handle of its own, as another
// program would while the library captures. `name` is the driver's name ("Wrap Timestamp") or
// the one v4l2-ctl shows ("wrap_timestamp"); a button is pressed by setting it to 1. False when
// the node cannot be opened or has no such control, or the driver refuses the value.
bool SetControl(const std::string& node, const std::string& name, int64_t value);
