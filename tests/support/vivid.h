// Controls of the kernel's virtual camera driver, for the device tests.
#pragma once

// Sets a control by name (vivid's "OSD Text Mode" to 2 hides the text over its pattern); false
// when the driver has no such control or refuses the value.
bool SetControl(int fd, const char* name, int value);
// Presses a button control by name (vivid's "Disconnect" simulates an unplug); false when the
// driver has no such control.
bool PressButton(int fd, const char* name);
