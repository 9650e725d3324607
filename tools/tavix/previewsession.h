// The capture behind `tavix preview`: the device, capture with the preview's callbacks,
// recordings started and ended while previewing, the tape transport, snapshots. It tells what
// happens in one line on standard output and keeps the latest line as a notice for the window.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "controls.h"
#include "llib/mac/tavix.h"
#include "options.h"
#include "previewfeed.h"

// recordPath empty: recordings get time-stamped names in the current folder.
using PreviewOptions = DeviceWishes;

class PreviewSession {
public:
    explicit PreviewSession(const PreviewOptions& options);
    ~PreviewSession(); // stops capture (closing a recording), closes and releases the device
    PreviewSession(const PreviewSession&) = delete;
    PreviewSession& operator=(const PreviewSession&) = delete;

    // Finds, opens, sets the controls asked for and starts capturing; false after printing why.
    bool Start();

    const std::string& DeviceName() const { return options.device; }
    bool HasVideo() const { return hasVideo; }
    bool HasSound() const { return wantsSound; }
    // Frames come in the device's own format unless one was asked for, so that the window
    // shows the device's buffers as they are. When the window cannot show that format, this
    // starts capture again asking the library for '2vuy', which it converts anything to.
    void AskForShowableFormat();
    PreviewFeed& Feed() { return feed; }
    bool IsConnected() const;

    // Starts a recording, or ends the one running and keeps previewing.
    void ToggleRecording(double now);
    bool IsRecording() const { return recording; }
    double RecordingSeconds(double now) const { return recording ? now - recordingStart : 0; }
    const std::string& RecordingPath() const { return recordingPath; }
    const std::vector<std::string>& Recordings() const { return recordings; }
    // Pictures of the running recording that the recorder dropped (its encoder fell behind).
    unsigned long PicturesNotRecorded() const;

    bool HasTransport() const;
    TavixDeviceTransportMode TransportMode() const;
    // Sets a transport mode; on a device without transport only notes that it has none.
    void SetTransport(TavixDeviceTransportMode mode, double now);
    // Play when stopped, stop otherwise.
    void PlayOrStop(double now);

    // Writes the frame as a time-stamped PNG picture in the current folder.
    void WriteSnapshot(const CapturedFrame& frame, double now);

    // Moves a control by `steps` 32nds of its range (the preview's keys) and tells the value set.
    void StepControl(const std::string& key, int steps, double now);
    // The control the device last reported changed and its value ("gain 40"); empty before.
    std::string ChangedControl() const;

    // The latest event, shown for a few seconds, and whether it tells of a failure.
    const std::string& Notice() const { return notice; }
    double NoticeTime() const { return noticeTime; }
    bool NoticeIsFailure() const { return noticeIsFailure; }

private:
    bool StartCapture(const char* recordPath);
    static void ControlChanged(const char* key, long long value, const char* text,
                               unsigned int flags, void* context);
    std::string NextRecordingPath() const;
    void Tell(double now, bool failure, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

    PreviewOptions options;
    PreviewFeed feed;
    unsigned long device = 0;
    bool opened = false, hasVideo = false, wantsSound = false;
    unsigned long pixelFormat = 0;
    bool recording = false;
    double recordingStart = 0;
    std::string recordingPath;
    std::vector<std::string> recordings;
    std::vector<ControlInfo> controls; // as listed at the start, for menu item names
    mutable std::mutex changedMutex;   // the change callback runs on a library thread
    std::string changed;
    std::string notice;
    double noticeTime = -1000;
    bool noticeIsFailure = false;
};

// "YYYYMMDD-HHMMSS" of the local time, for file names.
std::string TimeStamp();
// A file's size as "12.3 kB" or "4.5 MB"; "-" when it cannot be read.
std::string FileSizeText(const std::string& path);
