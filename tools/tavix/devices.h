// Finding a device by name for the `tavix` commands.
#pragma once

#include <string>

#include "llib/mac/tavix.h"

// The handle of the first device named name (ignoring case) with video, then muxed, then sound;
// 0 when there is none. The caller releases it with TavixDeviceRelease.
unsigned long GetDeviceByName(const char* name);

// Looks up and opens the device a capturing command names, after checking that its companion
// sound device (when one is named, by display name or unique id) exists; audioName becomes
// that device's display name. The open handle, or 0 after printing what is wrong.
unsigned long OpenNamedDevice(const std::string& name, std::string& audioName);

// How a transport mode reads in the commands' output ("playing", "no transport controls").
const char* TransportModeText(TavixDeviceTransportMode mode);

int ListCommand(int argc, char** argv);
int FormatsCommand(int argc, char** argv);
int TransportCommand(int argc, char** argv);
int CaptureCommand(int argc, char** argv);
