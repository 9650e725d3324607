// The controls of a V4L2 capture node (brightness, exposure, focus, the driver's own), read,
// set and watched through a file handle of their own: they need no streaming, and work while
// this or another program streams from the node.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/devicecontrols.h"

// Whose controls: a node, and for a node with several inputs the input they belong to.
//
// A node's controls are one set for all its inputs, but a driver may give a control a range and
// value per input: vivid keeps a brightness of its own for each input (the webcam's 0..255, the
// TV input's 128..383...) and swaps it in when the input is selected, and makes the standard
// and timings controls inactive on the inputs they do not apply to. So the controls of one
// input's device are read and set with that input selected (VIDIOC_S_INPUT), and the node's
// input before is selected again afterwards. A node that streams another input cannot switch:
// its other inputs' controls cannot be reached then.
struct V4L2ControlTarget {
    std::string node; // "/dev/video0"
    bool selectsInput = false;
    uint32_t input = 0; // the input, when selectsInput
};

// The target's controls with their current values, in the driver's order, keys made unique.
// False when the node cannot be opened or its input cannot be selected now.
bool V4L2ListControls(const V4L2ControlTarget& target,
                      std::vector<platform::DeviceControl>& controls);

// Sets `control` (as listed) to `value`, or a string control to `text` (no longer than the
// control's maximum); `after` receives it as the driver holds it then.
platform::ControlResult V4L2SetControl(const V4L2ControlTarget& target,
                                       const platform::DeviceControl& control, int64_t value,
                                       const std::string& text, platform::DeviceControl& after,
                                       std::string& reason);

// Tells a listener of the control changes the driver reports for a target (V4L2_EVENT_CTRL), on
// a thread of its own.
class V4L2ControlWatcher {
public:
    V4L2ControlWatcher() = default;
    ~V4L2ControlWatcher() { stop(); }
    V4L2ControlWatcher(const V4L2ControlWatcher&) = delete;
    V4L2ControlWatcher& operator=(const V4L2ControlWatcher&) = delete;

    // Subscribes to every control of `controls` (as listed) and starts telling `listener`. False
    // when the node cannot be opened or takes no subscription.
    bool start(const V4L2ControlTarget& target,
               const std::vector<platform::DeviceControl>& controls,
               platform::ControlChangeListener listener);
    // Stops; returns once no call to the listener runs, unless called from inside it.
    void stop();

    struct State;

private:
    std::shared_ptr<State> state;
    std::thread thread;
};
