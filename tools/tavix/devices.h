// Finding a device by name for the `tavix` commands.
#pragma once

// The handle of the first device named name (ignoring case) with video, then muxed, then sound;
// 0 when there is none. The caller releases it with TavixDeviceRelease.
unsigned long GetDeviceByName(const char* name);

int ListCommand(int argc, char** argv);
int FormatsCommand(int argc, char** argv);
int TransportCommand(int argc, char** argv);
int CaptureCommand(int argc, char** argv);
