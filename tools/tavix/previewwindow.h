// The window of `tavix preview` (SDL2): the live picture scaled with its aspect kept, the
// overlay, and the keys.
#pragma once

#include <string>

class PreviewSession;

// True when the window shows frames of this Core Video pixel format as they come, handing
// them to the renderer without converting them.
bool WindowShowsPixelFormat(unsigned long pixelFormat);
// The pixel formats it shows, for messages: "2vuy, yuvs, ...".
std::string WindowPixelFormatList();

// Reaches the display; false with the reason when there is none.
bool ConnectToDisplay(std::string& error);
// Opens the window and runs it until Q or Escape or the window is closed, then lets go of the
// display. False with the reason when the window cannot open.
bool RunPreviewWindow(PreviewSession& session, std::string& error);
