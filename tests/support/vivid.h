// Controls of the kernel's virtual camera driver, for the device tests.
#pragma once

// Presses a button control by name (vivid's "Disconnect" simulates an unplug); false when the
// driver has no such control.
bool PressButton(int fd, const char* name);
