// The test camera's controls: the table a host lists, the values it sets, the gain the camera
// moves itself under automatic exposure, and the thread that tells a listener of each change.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/devicecontrols.h"

class VirtualControls {
public:
    // What the picture controls ask of the drawing; the defaults leave the picture as it is.
    struct Look {
        int brightness = 128, contrast = 128, saturation = 128, hue = 0;
        int pattern = 0; // kPatternColourBars, kPatternGreyBars or kPatternBlack
        bool operator==(const Look& other) const;
        bool IsDefault() const { return *this == Look(); }
    };
    enum { kPatternColourBars = 0, kPatternGreyBars = 1, kPatternBlack = 3 };

    VirtualControls();
    ~VirtualControls();

    std::vector<platform::DeviceControl> List() const;
    platform::ControlResult Set(const platform::DeviceControl& control, int64_t value,
                                platform::DeviceControl& after, std::string& reason);
    bool Watch(platform::ControlChangeListener listener);
    // Every control back to its default, without telling anyone (the test control's reset).
    void Reset();

    Look CurrentLook() const;
    // Counts the changes of the picture controls, so a stream redraws only after one.
    uint64_t LookVersion() const { return lookVersion.load(); }
    // Called by a stream for each picture it delivers: under automatic exposure the camera
    // steps its gain every few pictures.
    void OnPicture();

private:
    platform::DeviceControl* Find(const std::string& key);
    int64_t Value(const char* key) const;
    bool Automatic() const;
    // Sets the flags that follow from exposure_auto; under `mutex`.
    void UpdateFlags();
    // Queues each control that differs from `before` for the listener; under `mutex`.
    void QueueChanges(const std::vector<platform::DeviceControl>& before);
    void DeliverChanges();

    mutable std::mutex mutex; // guards the values below
    std::vector<platform::DeviceControl> controls;
    uint64_t pictures = 0; // pictures since the gain last moved
    int gainDirection = 1;
    std::atomic<uint64_t> lookVersion{0};

    std::mutex eventMutex; // guards the listener, the queue and the thread's state
    std::condition_variable eventsChanged;
    platform::ControlChangeListener listener;
    std::deque<platform::DeviceControl> queue;
    bool stopping = false;
    std::thread eventThread;
};
