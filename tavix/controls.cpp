// A device's controls: listing them, reading and setting them by key (numbers or text), and the
// callback told of their changes.
//
// Locks, always taken in this order: the registry lock (TavixDeviceMutex), only to find the slot
// and take its control lock; the slot's ControlMutex, which serialises the control calls of one
// device; the backend's own. A watch's lock is held while the host's change callback runs, and
// that callback may make control calls and take the registry lock, so none of those locks is
// ever held while waiting for the watch's lock or for the backend to stop its reports.
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "llib/gen/charsets.h"
#include "platform/devicecontrols.h"
#include "tavixdevice.h"

struct TavixControlWatch {
    LLockObject lock; // held while the callback runs, so clearing it waits for the call
    TavixControlChangeCallBack callBack = nullptr;
    void* context = nullptr;
    std::shared_ptr<platform::BackendDevice> backend; // the device that reports the changes
};

namespace {

using platform::ControlResult;
using platform::ControlType;
using platform::DeviceControl;

// A control call's hold on its device: the slot, its control lock (taken while the registry
// lock still keeps the slot from going) and the device's backend.
class ControlCall {
public:
    explicit ControlCall(unsigned long handle) {
        LLockObjectLocker registry(TavixDeviceMutex);
        device = TavixDevice::GetDevice(handle);
        if (device == nullptr)
            return;
        backend = device->pDevice->backendDevice();
        device->ControlMutex.Lock();
    }
    ~ControlCall() {
        if (device != nullptr)
            device->ControlMutex.Unlock();
    }
    ControlCall(const ControlCall&) = delete;
    ControlCall& operator=(const ControlCall&) = delete;

    bool IsValid() const { return device != nullptr && backend != nullptr; }

    // The control with this key, from the device's current list; false when there is none.
    bool Find(const char* key, DeviceControl& control) {
        if (key == nullptr)
            return false;
        for (DeviceControl& each : backend->Controls())
            if (each.key == key) {
                control = std::move(each);
                return true;
            }
        return false;
    }

    TavixControlResult Fail(ControlResult result, const std::string& sentence) {
        device->sControlError = sentence;
        return static_cast<TavixControlResult>(result);
    }

    // Finds the control a change names and checks what every change checks: it exists, it can
    // be set, and it takes text when `isText` (a string control) or a number otherwise.
    TavixControlResult Check(const char* key, bool isText, DeviceControl& control) {
        if (key == nullptr)
            return Fail(ControlResult::Invalid, "No control was named.");
        if (!Find(key, control))
            return Fail(ControlResult::UnknownKey,
                        "The device has no control \"" + std::string(key) + "\".");
        if ((control.flags & platform::kControlReadOnly) != 0)
            return Fail(ControlResult::ReadOnly,
                        "The control \"" + control.key + "\" can be read but not set.");
        if (isText != (control.type == ControlType::String))
            return Fail(ControlResult::WrongType,
                        "The control \"" + control.key + "\" takes " +
                            (isText ? "a number, not text." : "text, not a number."));
        return TavixControlResultSet;
    }

    // Brings the value into the control's range (a string's text to its length) and has the
    // device take it.
    TavixControlResult Apply(const DeviceControl& control, int64_t value, std::string text,
                             long long* valueSet) {
        if (control.type == ControlType::String && control.maximum > 0)
            text.resize(WholeCharacters(text, static_cast<size_t>(control.maximum)));
        else
            value = platform::NearestAllowedValue(control, value);
        DeviceControl after = control;
        std::string reason;
        const ControlResult result = backend->SetControl(control, value, text, after, reason);
        if (result != ControlResult::Set)
            return Fail(result, !reason.empty() ? reason
                                                : "The device refused to set the control \"" +
                                                      control.key + "\".");
        device->sControlError.clear();
        if (valueSet != nullptr)
            *valueSet = after.value;
        return TavixControlResultSet;
    }

    TavixDevice* device = nullptr;
    std::shared_ptr<platform::BackendDevice> backend;
};

bool IsValidUTF8(const char* text) {
    const size_t size = strlen(text) + 1;
    std::vector<wchar_t> decoded(size);
    return LCopyUTF32FromUTF8Native(decoded.data(), text, size) == kLCopyDone;
}

// Which watch has each device's reports, so a slot that ends never stops those of the slot that
// took the device after it.
std::mutex& ListeningMutex() {
    static std::mutex* mutex = new std::mutex;
    return *mutex;
}
std::map<platform::BackendDevice*, TavixControlWatch*>& Listening() {
    static auto* listening = new std::map<platform::BackendDevice*, TavixControlWatch*>;
    return *listening;
}

void Tell(const std::weak_ptr<TavixControlWatch>& weakWatch, const DeviceControl& change) {
    const std::shared_ptr<TavixControlWatch> watch = weakWatch.lock();
    if (watch == nullptr)
        return;
    LLockObjectLocker locked(watch->lock);
    if (watch->callBack == nullptr)
        return;
    // Whatever the host's calls autorelease goes with the call, as on the capture threads.
    NSAutoreleasePool* pool = new NSAutoreleasePool;
    const char* text = change.type == ControlType::String ? change.text.c_str() : "";
    watch->callBack(change.key.c_str(), change.value, text, change.flags, watch->context);
    pool->drain();
}

bool StartListening(const std::shared_ptr<TavixControlWatch>& watch) {
    std::lock_guard<std::mutex> locked(ListeningMutex());
    TavixControlWatch*& listener = Listening()[watch->backend.get()];
    if (listener == watch.get())
        return true;
    const std::weak_ptr<TavixControlWatch> weakWatch = watch;
    if (!watch->backend->WatchControls(
            [weakWatch](const DeviceControl& change) { Tell(weakWatch, change); })) {
        if (listener == nullptr)
            Listening().erase(watch->backend.get());
        return false;
    }
    listener = watch.get();
    return true;
}

// Stops the device's reports when they still go to this watch; its callback is cleared already,
// so the running report, if any, ends without calling the host.
void StopListening(TavixControlWatch& watch) {
    std::lock_guard<std::mutex> locked(ListeningMutex());
    auto it = Listening().find(watch.backend.get());
    if (it == Listening().end() || it->second != &watch)
        return;
    Listening().erase(it);
    watch.backend->WatchControls(nullptr);
}

void SetWatchCallBack(TavixControlWatch& watch, TavixControlChangeCallBack callBack,
                      void* context) {
    // The lock is recursive: from inside the callback this does not wait for itself.
    LLockObjectLocker locked(watch.lock);
    watch.callBack = callBack;
    watch.context = context;
}

TavixControlMenuItem_C MenuItemOf(const platform::ControlMenuItem& item) {
    return TavixControlMenuItem_C{item.index, item.name.c_str(), item.value};
}

} // namespace

void TavixEndControlWatch(const std::shared_ptr<TavixControlWatch>& watch) {
    SetWatchCallBack(*watch, nullptr, nullptr);
    StopListening(*watch);
}

bool TavixDeviceEnumerateControls(unsigned long handle, TavixControlEnumerateCallBack callBack,
                                  void* context) {
    std::vector<DeviceControl> controls;
    {
        ControlCall call(handle);
        if (!call.IsValid() || callBack == nullptr)
            return false;
        controls = call.backend->Controls();
    }
    // The host is called without the control lock, so other threads' calls go on meanwhile.
    for (const DeviceControl& control : controls) {
        std::vector<TavixControlMenuItem_C> menu;
        for (const platform::ControlMenuItem& item : control.menu)
            menu.push_back(MenuItemOf(item));
        TavixControl_C record{};
        record.key = control.key.c_str();
        record.name = control.name.c_str();
        record.type = static_cast<TavixControlType>(control.type);
        record.flags = control.flags;
        record.minimum = control.minimum;
        record.maximum = control.maximum;
        record.step = control.step;
        record.defaultValue = control.defaultValue;
        record.value = control.value;
        record.text = control.type == ControlType::String ? control.text.c_str() : "";
        record.menu = menu.empty() ? nullptr : menu.data();
        record.menuCount = static_cast<unsigned int>(menu.size());
        if (!callBack(&record, context))
            break;
    }
    return true;
}

bool TavixDeviceGetControl(unsigned long handle, const char* key, long long* value) {
    ControlCall call(handle);
    DeviceControl control;
    if (!call.IsValid() || value == nullptr || !call.Find(key, control) ||
        control.type == ControlType::String || control.type == ControlType::Button)
        return false;
    *value = control.value;
    return true;
}

TavixControlResult TavixDeviceSetControl(unsigned long handle, const char* key, long long value,
                                         long long* valueSet) {
    ControlCall call(handle);
    if (!call.IsValid())
        return TavixControlResultInvalid;
    DeviceControl control;
    const TavixControlResult checked = call.Check(key, false, control);
    return checked != TavixControlResultSet ? checked
                                            : call.Apply(control, value, std::string(), valueSet);
}

bool TavixDeviceGetControlText(unsigned long handle, const char* key, char* buffer, size_t size) {
    if (buffer != nullptr && size > 0)
        buffer[0] = 0;
    ControlCall call(handle);
    DeviceControl control;
    if (!call.IsValid() || buffer == nullptr || !call.Find(key, control) ||
        control.type != ControlType::String)
        return false;
    if (size > 0) {
        const size_t length = WholeCharacters(control.text, size - 1);
        memcpy(buffer, control.text.data(), length);
        buffer[length] = 0;
    }
    return true;
}

TavixControlResult TavixDeviceSetControlText(unsigned long handle, const char* key,
                                             const char* text) {
    ControlCall call(handle);
    if (!call.IsValid())
        return TavixControlResultInvalid;
    if (text == nullptr)
        return call.Fail(ControlResult::Invalid, "No text was given for the control.");
    if (!IsValidUTF8(text))
        return call.Fail(ControlResult::Invalid, "The text for the control is not valid UTF-8.");
    DeviceControl control;
    if (key != nullptr && call.Find(key, control) && control.type == ControlType::String) {
        const TavixControlResult checked = call.Check(key, true, control);
        return checked != TavixControlResultSet ? checked : call.Apply(control, 0, text, nullptr);
    }
    const TavixControlResult checked = call.Check(key, false, control);
    if (checked != TavixControlResultSet)
        return checked;
    int64_t value = 0;
    if (!platform::ValueForText(control, text, value))
        return call.Fail(ControlResult::WrongType, "\"" + std::string(text) +
                                                       "\" names no value of the control \"" +
                                                       control.key + "\".");
    return call.Apply(control, value, std::string(), nullptr);
}

bool TavixDeviceSetControlChangeCallBack(unsigned long handle, TavixControlChangeCallBack callBack,
                                         void* context) {
    std::shared_ptr<TavixControlWatch> watch, replaced;
    {
        ControlCall call(handle);
        if (!call.IsValid())
            return false;
        watch = call.device->pControlWatch;
        if (watch == nullptr && callBack == nullptr)
            return true;
        if (watch == nullptr || watch->backend != call.backend) {
            // The first callback, or a device whose backend object was replaced (replugged).
            replaced = std::move(watch);
            watch = std::make_shared<TavixControlWatch>();
            watch->backend = call.backend;
            call.device->pControlWatch = watch;
        }
    }
    if (replaced != nullptr)
        TavixEndControlWatch(replaced);
    if (callBack == nullptr) {
        TavixEndControlWatch(watch);
        return true;
    }
    if (!StartListening(watch))
        return false;
    SetWatchCallBack(*watch, callBack, context);
    return true;
}
