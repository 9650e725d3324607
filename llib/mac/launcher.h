// Running the desktop's opener, shared by the file-browser actions and LCFURL::GotoURL.
#pragma once

// Runs gLOpenLauncher with item as its one argument, without a shell; true when it ran and
// exited with status 0.
bool RunOpenLauncher(const char* item);
