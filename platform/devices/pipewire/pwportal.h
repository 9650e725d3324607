// The camera portal (org.freedesktop.portal.Camera on the session bus), the way into PipeWire
// for a sandboxed process that may not open /dev/video*: access is asked for (AccessCamera),
// then a PipeWire connection that shows only the cameras is handed over (OpenPipeWireRemote).
#pragma once

#include <string>

namespace platform::pipewire {

// Whether PipeWire is to be reached through the camera portal rather than its own socket:
// inside a Flatpak sandbox (/.flatpak-info exists) or when TAVIX_CAMERA_PORTAL=1 asks for it
// (TAVIX_CAMERA_PORTAL=0 never).
bool CameraPortalWanted();

// Asks the portal for camera access and a PipeWire remote. Returns the connection's file
// descriptor, which the caller owns; -1 with `reason` set to a sentence a host can show when
// there is no session bus, no portal, access is refused, or the portal does not answer in time.
// Blocks the calling thread while the portal asks the user (up to three minutes). Any thread,
// several at once: each call has its own bus connection and main context and leaves no GLib
// state behind.
int OpenCameraPortalRemote(std::string& reason);

} // namespace platform::pipewire
