// One capture thread per device input of a running session: reads the device's stream and hands
// each sample to the session's outputs. The thread holds the session and the input while it
// runs, so a delegate that stops and releases its own session from the capture thread leaves
// nothing dangling: the thread ends on its own after that call and lets go of them.
#pragma once

#include <atomic>
#include <memory>
#include <thread>

#include "platform/qtkit.h"

class CaptureThread {
public:
    CaptureThread(QTCaptureSession* session, QTCaptureDeviceInput* input);
    ~CaptureThread();
    CaptureThread(const CaptureThread&) = delete;
    CaptureThread& operator=(const CaptureThread&) = delete;

    QTCaptureDeviceInput* input() const;
    void RequestStop();
    // Waits for the thread to end; from the thread itself it lets the thread end on its own.
    void Join();

    struct State;

private:
    std::shared_ptr<State> state;
    std::thread thread;
};
