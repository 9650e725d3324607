#include "virtualcontrols.h"

namespace {

using platform::ControlMenuItem;
using platform::ControlResult;
using platform::ControlType;
using platform::DeviceControl;

constexpr int64_t kManualExposure = 1;
// The camera moves its gain by one step every this many pictures under automatic exposure.
constexpr uint64_t kPicturesPerGainStep = 15;

DeviceControl Integer(const char* key, const char* name, int64_t minimum, int64_t maximum,
                      int64_t defaultValue) {
    DeviceControl control;
    control.key = key;
    control.name = name;
    control.minimum = minimum;
    control.maximum = maximum;
    control.defaultValue = control.value = defaultValue;
    return control;
}

DeviceControl Menu(const char* key, const char* name, std::vector<ControlMenuItem> items,
                   int64_t defaultValue) {
    DeviceControl control =
        Integer(key, name, items.front().index, items.back().index, defaultValue);
    control.type = ControlType::Menu;
    control.menu = std::move(items);
    return control;
}

std::vector<DeviceControl> TestCameraControls() {
    std::vector<DeviceControl> controls = {
        Integer("brightness", "Brightness", 0, 255, 128),
        Integer("contrast", "Contrast", 0, 255, 128),
        Integer("saturation", "Saturation", 0, 255, 128),
        Integer("hue", "Hue", -180, 180, 0),
        // Item 2 is missing on purpose: drivers leave such gaps and hosts must cope.
        Menu("test_pattern", "Test Pattern",
             {{0, "Colour Bars", 0}, {1, "Grey Bars", 1}, {3, "Black", 3}}, 0),
        Menu("exposure_auto", "Auto Exposure",
             {{1, "Manual Mode", 1}, {3, "Aperture Priority Mode", 3}}, 3),
        Integer("exposure", "Exposure Time, Absolute", 1, 10000, 333),
        Integer("gain", "Gain", 0, 255, 32),
        Integer("restore_defaults", "Restore Defaults", 0, 0, 0),
    };
    controls.back().type = ControlType::Button;
    controls.back().flags = platform::kControlWriteOnly;
    for (size_t i = 0; i < controls.size(); ++i)
        controls[i].id = static_cast<uint32_t>(i + 1);
    return controls;
}

bool IsPictureControl(const std::string& key) {
    return key == "brightness" || key == "contrast" || key == "saturation" || key == "hue" ||
           key == "test_pattern";
}

} // namespace

bool VirtualControls::Look::operator==(const Look& other) const {
    return brightness == other.brightness && contrast == other.contrast &&
           saturation == other.saturation && hue == other.hue && pattern == other.pattern;
}

VirtualControls::VirtualControls() : controls(TestCameraControls()) {
    UpdateFlags();
}

VirtualControls::~VirtualControls() {
    Watch(nullptr);
}

std::vector<DeviceControl> VirtualControls::List() const {
    std::lock_guard<std::mutex> locked(mutex);
    return controls;
}

DeviceControl* VirtualControls::Find(const std::string& key) {
    for (DeviceControl& control : controls)
        if (control.key == key)
            return &control;
    return nullptr;
}

int64_t VirtualControls::Value(const char* key) const {
    for (const DeviceControl& control : controls)
        if (control.key == key)
            return control.value;
    return 0;
}

bool VirtualControls::Automatic() const {
    return Value("exposure_auto") != kManualExposure;
}

void VirtualControls::UpdateFlags() {
    const bool automatic = Automatic();
    Find("exposure")->flags = automatic ? uint32_t(platform::kControlInactive) : 0u;
    Find("gain")->flags = automatic ? platform::kControlInactive | platform::kControlVolatile : 0;
}

ControlResult VirtualControls::Set(const DeviceControl& wanted, int64_t value, DeviceControl& after,
                                   std::string& reason) {
    std::lock_guard<std::mutex> locked(mutex);
    DeviceControl* control = Find(wanted.key);
    if (control == nullptr) {
        reason = "The test camera has no control \"" + wanted.key + "\".";
        return ControlResult::UnknownKey;
    }
    if ((control->flags & platform::kControlInactive) != 0) {
        reason = "The test camera's " + control->key +
                 " cannot be set while exposure_auto is automatic; set exposure_auto to "
                 "manual first.";
        return ControlResult::Inactive;
    }
    const std::vector<DeviceControl> before = controls;
    if (control->type == ControlType::Button) {
        for (DeviceControl& each : controls)
            each.value = each.defaultValue;
        after = *control;
    } else {
        control->value = platform::NearestAllowedValue(*control, value);
        after = *control;
    }
    UpdateFlags();
    after.flags = Find(wanted.key)->flags;
    bool lookChanged = false;
    for (size_t i = 0; i < controls.size(); ++i)
        lookChanged = lookChanged ||
                      (IsPictureControl(controls[i].key) && controls[i].value != before[i].value);
    if (lookChanged)
        ++lookVersion;
    QueueChanges(before);
    return ControlResult::Set;
}

void VirtualControls::Reset() {
    std::lock_guard<std::mutex> locked(mutex);
    for (DeviceControl& control : controls)
        control.value = control.defaultValue;
    UpdateFlags();
    pictures = 0;
    gainDirection = 1;
    ++lookVersion;
}

VirtualControls::Look VirtualControls::CurrentLook() const {
    std::lock_guard<std::mutex> locked(mutex);
    Look look;
    look.brightness = static_cast<int>(Value("brightness"));
    look.contrast = static_cast<int>(Value("contrast"));
    look.saturation = static_cast<int>(Value("saturation"));
    look.hue = static_cast<int>(Value("hue"));
    look.pattern = static_cast<int>(Value("test_pattern"));
    return look;
}

void VirtualControls::OnPicture() {
    std::lock_guard<std::mutex> locked(mutex);
    if (!Automatic() || ++pictures < kPicturesPerGainStep)
        return;
    pictures = 0;
    const std::vector<DeviceControl> before = controls;
    DeviceControl& gain = *Find("gain");
    // Up to the top of the range and back down, one step at a time.
    if (gain.value + gainDirection > gain.maximum || gain.value + gainDirection < gain.minimum)
        gainDirection = -gainDirection;
    gain.value += gainDirection;
    QueueChanges(before);
}

void VirtualControls::QueueChanges(const std::vector<DeviceControl>& before) {
    std::lock_guard<std::mutex> locked(eventMutex);
    if (!listener)
        return;
    for (size_t i = 0; i < controls.size(); ++i)
        if (controls[i].value != before[i].value || controls[i].flags != before[i].flags)
            queue.push_back(controls[i]);
    eventsChanged.notify_all();
}

bool VirtualControls::Watch(platform::ControlChangeListener newListener) {
    std::unique_lock<std::mutex> locked(eventMutex);
    if (newListener) {
        listener = std::move(newListener);
        if (!eventThread.joinable()) {
            stopping = false;
            eventThread = std::thread(&VirtualControls::DeliverChanges, this);
        }
        return true;
    }
    listener = nullptr;
    queue.clear();
    // From inside the listener the running call is the caller's own: the thread stays, idle.
    if (!eventThread.joinable() || eventThread.get_id() == std::this_thread::get_id())
        return true;
    stopping = true;
    eventsChanged.notify_all();
    std::thread finished = std::move(eventThread);
    locked.unlock();
    finished.join();
    return true;
}

void VirtualControls::DeliverChanges() {
    std::unique_lock<std::mutex> locked(eventMutex);
    for (;;) {
        eventsChanged.wait(locked, [this] { return stopping || !queue.empty(); });
        if (stopping)
            return;
        const DeviceControl change = queue.front();
        queue.pop_front();
        const platform::ControlChangeListener call = listener;
        locked.unlock();
        if (call)
            call(change);
        locked.lock();
    }
}
