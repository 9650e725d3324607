// V4L2 controls: listed with VIDIOC_QUERY_EXT_CTRL and VIDIOC_QUERYMENU, read and written with
// VIDIOC_G_EXT_CTRLS and VIDIOC_S_EXT_CTRLS, watched through V4L2_EVENT_CTRL events.
#include "platform/devices/v4l2/v4l2controls.h"
#include "platform/devices/v4l2/v4l2camera.h"

#include <linux/videodev2.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <poll.h>
#include <set>
#include <sys/ioctl.h>
#include <unistd.h>

using platform::ControlMenuItem;
using platform::ControlResult;
using platform::ControlType;
using platform::DeviceControl;

namespace {

// The common keys of the well-known controls, whatever the driver calls them.
const struct {
    uint32_t id;
    const char* key;
} kKnownKeys[] = {
    {V4L2_CID_BRIGHTNESS, "brightness"},
    {V4L2_CID_CONTRAST, "contrast"},
    {V4L2_CID_SATURATION, "saturation"},
    {V4L2_CID_HUE, "hue"},
    {V4L2_CID_GAIN, "gain"},
    {V4L2_CID_AUTOGAIN, "gain_auto"},
    {V4L2_CID_GAMMA, "gamma"},
    {V4L2_CID_SHARPNESS, "sharpness"},
    {V4L2_CID_EXPOSURE_ABSOLUTE, "exposure"},
    {V4L2_CID_EXPOSURE_AUTO, "exposure_auto"},
    {V4L2_CID_FOCUS_ABSOLUTE, "focus"},
    {V4L2_CID_FOCUS_AUTO, "focus_auto"},
    {V4L2_CID_WHITE_BALANCE_TEMPERATURE, "white_balance_temperature"},
    {V4L2_CID_AUTO_WHITE_BALANCE, "white_balance_auto"},
    {V4L2_CID_ZOOM_ABSOLUTE, "zoom"},
    {V4L2_CID_PAN_ABSOLUTE, "pan"},
    {V4L2_CID_TILT_ABSOLUTE, "tilt"},
    {V4L2_CID_POWER_LINE_FREQUENCY, "power_line_frequency"},
    {V4L2_CID_BACKLIGHT_COMPENSATION, "backlight_compensation"},
};

// Menus are short; a driver claiming a vast index range is not asked about every index.
constexpr int64_t kMostMenuIndices = 4096;

// Every input switch of this process, and the reads that must see one input throughout, take
// turns: two devices of one node would otherwise select their inputs under each other.
std::mutex& InputSwitches() {
    static std::mutex mutex;
    return mutex;
}

constexpr auto Ioctl = V4L2Ioctl;

int OpenNode(const std::string& node) {
    return ::open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

// Selects the target's input on `fd` for the life of the scope, and the node's input before
// again at its end. Hold InputSwitches() while it lives.
class InputScope {
public:
    InputScope(int fd, const V4L2ControlTarget& target) : fd(fd) {
        if (!target.selectsInput)
            return;
        int current = 0;
        if (Ioctl(fd, VIDIOC_G_INPUT, &current) == -1) {
            error = errno;
            return;
        }
        if (uint32_t(current) == target.input)
            return;
        int wanted = int(target.input);
        // Refused (EBUSY) while the node streams another input.
        if (Ioctl(fd, VIDIOC_S_INPUT, &wanted) == -1) {
            error = errno;
            return;
        }
        previous = current;
    }
    ~InputScope() {
        if (previous >= 0)
            Ioctl(fd, VIDIOC_S_INPUT, &previous);
    }
    InputScope(const InputScope&) = delete;
    InputScope& operator=(const InputScope&) = delete;

    int error = 0; // why the input could not be selected; 0 when it is

private:
    int fd;
    int previous = -1; // the input to select again, when switched
};

bool IsListedType(uint32_t type) {
    switch (type) {
    case V4L2_CTRL_TYPE_INTEGER:
    case V4L2_CTRL_TYPE_BOOLEAN:
    case V4L2_CTRL_TYPE_MENU:
    case V4L2_CTRL_TYPE_BUTTON:
    case V4L2_CTRL_TYPE_INTEGER64:
    case V4L2_CTRL_TYPE_STRING:
    case V4L2_CTRL_TYPE_INTEGER_MENU:
        return true;
    default:
        return false;
    }
}

// Whether a control the driver reports is offered. Class headings and disabled controls are
// not controls; bitmasks, arrays and compound controls (areas, matrices, codec parameters)
// have no single value to show or set, and are left out rather than listed without one.
bool IsOffered(const v4l2_query_ext_ctrl& query) {
    return (query.flags & V4L2_CTRL_FLAG_DISABLED) == 0 && IsListedType(query.type) &&
           query.nr_of_dims == 0;
}

// V4L2_CTRL_FLAG_GRABBED (held while the node streams) is not read-only: it passes when the
// stream ends, so the control stays settable and a set refused meanwhile reports Busy.
uint32_t FlagsOf(const v4l2_query_ext_ctrl& query) {
    uint32_t flags = 0;
    if (query.flags & V4L2_CTRL_FLAG_READ_ONLY)
        flags |= platform::kControlReadOnly;
    if (query.flags & V4L2_CTRL_FLAG_INACTIVE)
        flags |= platform::kControlInactive;
    if (query.flags & V4L2_CTRL_FLAG_VOLATILE)
        flags |= platform::kControlVolatile;
    if ((query.flags & V4L2_CTRL_FLAG_WRITE_ONLY) || query.type == V4L2_CTRL_TYPE_BUTTON)
        flags |= platform::kControlWriteOnly;
    return flags;
}

std::string KeyOf(uint32_t id, const std::string& name) {
    for (const auto& known : kKnownKeys)
        if (known.id == id)
            return known.key;
    return platform::ControlKeyFromName(name);
}

// The menu's items; an index the driver refuses is a gap and left out.
std::vector<ControlMenuItem> MenuOf(int fd, const v4l2_query_ext_ctrl& query) {
    std::vector<ControlMenuItem> items;
    const bool integers = query.type == V4L2_CTRL_TYPE_INTEGER_MENU;
    for (int64_t index = query.minimum;
         index <= query.maximum && index - query.minimum < kMostMenuIndices; ++index) {
        v4l2_querymenu item{};
        item.id = query.id;
        item.index = uint32_t(index);
        if (Ioctl(fd, VIDIOC_QUERYMENU, &item) == -1)
            continue;
        ControlMenuItem entry;
        entry.index = index;
        entry.value = integers ? int64_t(item.value) : index;
        entry.name =
            integers
                ? std::to_string(item.value)
                : std::string(reinterpret_cast<const char*>(item.name),
                              strnlen(reinterpret_cast<const char*>(item.name), sizeof item.name));
        items.push_back(entry);
    }
    return items;
}

// Reads the control's current value (or text) into `control`; write-only controls and buttons
// have none to read.
bool ReadValue(int fd, DeviceControl& control) {
    control.value = 0;
    control.text.clear();
    if (control.flags & platform::kControlWriteOnly)
        return true;
    v4l2_ext_control value{};
    value.id = control.id;
    std::vector<char> text;
    if (control.type == ControlType::String) {
        text.assign(size_t(control.maximum) + 1, 0);
        value.size = uint32_t(text.size());
        value.string = text.data();
    }
    v4l2_ext_controls values{};
    values.which = V4L2_CTRL_WHICH_CUR_VAL;
    values.count = 1;
    values.controls = &value;
    if (Ioctl(fd, VIDIOC_G_EXT_CTRLS, &values) == -1)
        return false;
    if (control.type == ControlType::String)
        control.text.assign(text.data(), strnlen(text.data(), text.size()));
    else if (control.type == ControlType::Integer64)
        control.value = value.value64;
    else
        control.value = value.value;
    return true;
}

// The control as a query describes it, with its current value; its menu when `withMenu`.
DeviceControl Describe(int fd, const v4l2_query_ext_ctrl& query, bool withMenu) {
    DeviceControl control;
    control.id = query.id;
    control.name.assign(query.name, strnlen(query.name, sizeof query.name));
    control.key = KeyOf(query.id, control.name);
    control.type = ControlType(query.type);
    control.minimum = query.minimum;
    control.maximum = query.maximum;
    control.step = int64_t(query.step);
    control.defaultValue = query.default_value;
    control.flags = FlagsOf(query);
    if (withMenu && (control.type == ControlType::Menu || control.type == ControlType::IntegerMenu))
        control.menu = MenuOf(fd, query);
    ReadValue(fd, control);
    return control;
}

// The control `known` as the driver holds it now: range, flags and value read afresh, key and
// menu kept. False when the driver no longer has it.
bool Reread(int fd, const DeviceControl& known, DeviceControl& now) {
    v4l2_query_ext_ctrl query{};
    query.id = known.id;
    if (Ioctl(fd, VIDIOC_QUERY_EXT_CTRL, &query) == -1)
        return false;
    now = Describe(fd, query, false);
    now.key = known.key;
    now.menu = known.menu;
    return true;
}

ControlResult Failure(ControlResult result, std::string& reason, const std::string& sentence) {
    reason = sentence;
    return result;
}

std::string Quoted(const DeviceControl& control) {
    return "\"" + control.name + "\"";
}

} // namespace

bool V4L2ListControls(const V4L2ControlTarget& target, std::vector<DeviceControl>& controls) {
    controls.clear();
    const int fd = OpenNode(target.node);
    if (fd < 0)
        return false;
    {
        std::lock_guard<std::mutex> locked(InputSwitches());
        InputScope input(fd, target);
        if (input.error != 0) {
            ::close(fd);
            return false;
        }
        v4l2_query_ext_ctrl query{};
        query.id = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
        while (Ioctl(fd, VIDIOC_QUERY_EXT_CTRL, &query) == 0) {
            if (IsOffered(query))
                controls.push_back(Describe(fd, query, true));
            query.id |= V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
        }
    }
    ::close(fd);
    platform::MakeControlKeysUnique(controls);
    return true;
}

ControlResult V4L2SetControl(const V4L2ControlTarget& target, const DeviceControl& control,
                             int64_t value, const std::string& text, DeviceControl& after,
                             std::string& reason) {
    after = control;
    const int fd = OpenNode(target.node);
    if (fd < 0)
        return Failure(ControlResult::Failed, reason,
                       "The device is gone: " + std::string(strerror(errno)) + ".");
    std::lock_guard<std::mutex> locked(InputSwitches());
    InputScope input(fd, target);
    if (input.error != 0) {
        ::close(fd);
        if (input.error == EBUSY)
            return Failure(ControlResult::Busy, reason,
                           "The device's node captures from another of its inputs now, so " +
                               Quoted(control) + " of this one cannot be set.");
        return Failure(ControlResult::Failed, reason,
                       "The device is gone: " + std::string(strerror(input.error)) + ".");
    }
    v4l2_ext_control wanted{};
    wanted.id = control.id;
    std::string string = text;
    if (control.type == ControlType::String) {
        wanted.size = uint32_t(string.size() + 1);
        wanted.string = &string[0];
    } else if (control.type == ControlType::Integer64) {
        wanted.value64 = value;
    } else {
        wanted.value = int32_t(value);
    }
    v4l2_ext_controls values{};
    values.which = V4L2_CTRL_WHICH_CUR_VAL;
    values.count = 1;
    values.controls = &wanted;
    const int error = Ioctl(fd, VIDIOC_S_EXT_CTRLS, &values) == -1 ? errno : 0;
    const bool reread = Reread(fd, control, after);
    ::close(fd);
    if (error == 0)
        return ControlResult::Set;
    const std::string why = std::string(strerror(error)) + ".";
    const std::string what =
        control.type == ControlType::String ? "\"" + text + "\"" : std::to_string(value);
    switch (error) {
    case EACCES:
        if ((reread ? after.flags : control.flags) & platform::kControlInactive)
            return Failure(ControlResult::Inactive, reason,
                           Quoted(control) +
                               " cannot be set while its automatic partner is on: " + why);
        return Failure(ControlResult::ReadOnly, reason,
                       Quoted(control) + " can only be read: " + why);
    case EBUSY:
        return Failure(ControlResult::Busy, reason,
                       Quoted(control) + " is held by a capture or another program now: " + why);
    case ENODEV:
    case EIO:
        return Failure(ControlResult::Failed, reason, "The device is gone: " + why);
    default:
        return Failure(ControlResult::Failed, reason,
                       "The device refused " + what + " for " + Quoted(control) + ": " + why);
    }
}

struct V4L2ControlWatcher::State {
    V4L2ControlTarget target;
    platform::ControlChangeListener listener;
    std::map<uint32_t, DeviceControl> reported; // by id: each control as last told
    int fd = -1;
    int wake[2] = {-1, -1};
    std::atomic<bool> stopping{false};

    ~State() {
        for (int descriptor : {fd, wake[0], wake[1]})
            if (descriptor >= 0)
                ::close(descriptor);
    }

    enum class Ending { Stopped, NodeGone };
    void run();
    Ending watch(); // until stopped or the node goes
    void tell(uint32_t id);
};

namespace {

bool SameState(const DeviceControl& a, const DeviceControl& b) {
    return a.value == b.value && a.text == b.text && a.flags == b.flags && a.minimum == b.minimum &&
           a.maximum == b.maximum && a.step == b.step && a.defaultValue == b.defaultValue;
}

} // namespace

// Tells the listener of the control as it is now, unless nothing a host sees changed. The
// control is read afresh rather than taken from the event: a node with several inputs also
// reports the changes other inputs' selection brings (vivid swaps in each input's brightness),
// which are none of this input's business, and read afresh they are either this input's or
// skipped while another input is selected.
void V4L2ControlWatcher::State::tell(uint32_t id) {
    auto known = reported.find(id);
    if (known == reported.end())
        return;
    DeviceControl now;
    {
        std::lock_guard<std::mutex> locked(InputSwitches());
        if (target.selectsInput) {
            int current = -1;
            if (Ioctl(fd, VIDIOC_G_INPUT, &current) == -1 || uint32_t(current) != target.input)
                return;
        }
        if (!Reread(fd, known->second, now))
            return;
    }
    if (SameState(now, known->second))
        return;
    known->second = now;
    if (!stopping)
        listener(now);
}

void V4L2ControlWatcher::State::run() {
    if (watch() == Ending::NodeGone) {
        // The node is let go at once: a driver may bring a node back only once every handle
        // on the old one is closed (vivid's unplug control).
        ::close(fd);
        fd = -1;
    }
}

V4L2ControlWatcher::State::Ending V4L2ControlWatcher::State::watch() {
    pollfd watched[2] = {{fd, POLLPRI, 0}, {wake[0], POLLIN, 0}};
    while (!stopping) {
        // Only POLLPRI (events) is asked of the node: asking for frames would report an error
        // on a node that does not stream.
        if (poll(watched, 2, -1) == -1) {
            if (errno == EINTR)
                continue;
            return Ending::Stopped;
        }
        if (watched[1].revents != 0)
            return Ending::Stopped;
        // A node that goes away reports an error (its driver unregistered it).
        if (watched[0].revents & (POLLERR | POLLHUP | POLLNVAL))
            return Ending::NodeGone;
        std::set<uint32_t> changed;
        v4l2_event event{};
        while (Ioctl(fd, VIDIOC_DQEVENT, &event) == 0)
            if (event.type == V4L2_EVENT_CTRL)
                changed.insert(event.id);
        if (errno == ENODEV)
            return Ending::NodeGone;
        for (uint32_t id : changed)
            if (!stopping)
                tell(id);
    }
    return Ending::Stopped;
}

bool V4L2ControlWatcher::start(const V4L2ControlTarget& target,
                               const std::vector<DeviceControl>& controls,
                               platform::ControlChangeListener listener) {
    stop();
    auto watching = std::make_shared<State>();
    watching->target = target;
    watching->listener = std::move(listener);
    watching->fd = OpenNode(target.node);
    if (watching->fd < 0 || pipe2(watching->wake, O_CLOEXEC | O_NONBLOCK) == -1)
        return false;
    for (const DeviceControl& control : controls) {
        // The library sets controls through handles of their own, whose changes every
        // subscriber hears; with ALLOW_FEEDBACK a change made through this handle would be
        // reported too. No initial event: the host has just listed the values.
        v4l2_event_subscription subscription{};
        subscription.type = V4L2_EVENT_CTRL;
        subscription.id = control.id;
        subscription.flags = V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK;
        if (Ioctl(watching->fd, VIDIOC_SUBSCRIBE_EVENT, &subscription) == 0)
            watching->reported[control.id] = control;
    }
    if (watching->reported.empty())
        return false;
    state = watching;
    thread = std::thread([watching] { watching->run(); });
    return true;
}

void V4L2ControlWatcher::stop() {
    if (!state)
        return;
    state->stopping = true;
    const char wake = 1;
    (void)!::write(state->wake[1], &wake, 1);
    // From inside the listener the thread cannot be waited for: it ends once the listener
    // returns, and its state goes with it.
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
    else if (thread.joinable())
        thread.join();
    state.reset();
}
