// A private PipeWire for one test program: its own runtime folder, session bus, pipewire and
// wireplumber daemons, and the test source program (tests/pipewire/pwtestsource.cpp) that
// publishes a camera and a microphone of known content. WirePlumber's device monitors (ALSA,
// V4L2, libcamera, Bluetooth) are turned off by a configuration file of the lab's own, so the
// daemon offers only the test source's nodes.
#pragma once

#include <sys/types.h>

#include <string>

#include "support/tempfolder.h"

class PipeWireLab {
public:
    // Starts everything and sets XDG_RUNTIME_DIR, PIPEWIRE_RUNTIME_DIR and
    // DBUS_SESSION_BUS_ADDRESS in this process, so make it before the library first lists
    // devices. On failure Problem() says what went wrong (and the rest is torn down).
    PipeWireLab();
    // Stops the test source and the daemons and puts the environment back.
    ~PipeWireLab();
    PipeWireLab(const PipeWireLab&) = delete;
    PipeWireLab& operator=(const PipeWireLab&) = delete;

    // Why the lab cannot run on this machine (pipewire or wireplumber is not installed): the
    // only reason to skip. Empty when it can.
    static std::string SkipReason();
    // What went wrong starting the lab; empty when it runs.
    const std::string& Problem() const { return problem; }

    // Starts the test source, unless it runs, and waits until both its nodes are in the
    // registry.
    bool StartSource();
    // Ends the test source: at once with SIGKILL, as a crash would, or with SIGTERM.
    void StopSource(bool abruptly = false);

    // The camera and microphone the test source publishes.
    static constexpr const char* kCameraName = "Tavix PipeWire Test Camera";
    static constexpr const char* kCameraId = "pipewire:tavix-test-pw-camera";
    static constexpr const char* kMicrophoneName = "Tavix PipeWire Test Microphone";
    static constexpr const char* kMicrophoneId = "pipewire:tavix-test-pw-microphone";

private:
    bool Start();
    // Starts a program with `environment` added ("NAME=value" entries), its output to `log`.
    pid_t Spawn(const std::string& log, const char* const* arguments, int input = -1,
                int output = -1, const char* const* environment = nullptr);
    void Stop(pid_t& child, int signal);

    TempFolder folder{"tavix-pwlab"};
    std::string problem;
    pid_t bus = -1, pipewire = -1, wireplumber = -1, source = -1;
    int sourceInput = -1; // the test source's stdin: closing it ends the source too
    std::string savedRuntime, savedPipeWireRuntime, savedBus;
    bool hadRuntime = false, hadPipeWireRuntime = false, hadBus = false;
};
