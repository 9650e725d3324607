// A sound input's capture volume and switch, from ALSA's simple mixer interface over the card.
#include "platform/devices/alsa/alsamixer.h"

#include <alsa/asoundlib.h>

using platform::ControlResult;
using platform::ControlType;
using platform::DeviceControl;

namespace {

// The card's mixer, open and loaded while the object lives.
class Mixer {
public:
    explicit Mixer(int card) {
        if (card < 0 || snd_mixer_open(&handle, 0) < 0) {
            handle = nullptr;
            return;
        }
        const std::string name = "hw:" + std::to_string(card);
        if (snd_mixer_attach(handle, name.c_str()) < 0 ||
            snd_mixer_selem_register(handle, nullptr, nullptr) < 0 || snd_mixer_load(handle) < 0) {
            snd_mixer_close(handle);
            handle = nullptr;
        }
    }
    ~Mixer() {
        if (handle != nullptr)
            snd_mixer_close(handle);
    }
    Mixer(const Mixer&) = delete;
    Mixer& operator=(const Mixer&) = delete;

    snd_mixer_t* handle = nullptr;
};

// One control and the mixer element behind it.
struct MixerControl {
    snd_mixer_elem_t* element = nullptr;
    DeviceControl control;
};

// The element's capture volume (the first channel's: every channel is set alike) or switch.
void ReadValue(snd_mixer_elem_t* element, DeviceControl& control) {
    if (control.type == ControlType::Boolean) {
        int on = 0;
        snd_mixer_selem_get_capture_switch(element, SND_MIXER_SCHN_FRONT_LEFT, &on);
        control.value = on != 0;
    } else {
        long volume = 0;
        snd_mixer_selem_get_capture_volume(element, SND_MIXER_SCHN_FRONT_LEFT, &volume);
        control.value = volume;
    }
    control.flags = snd_mixer_selem_is_active(element) ? 0u : uint32_t(platform::kControlInactive);
}

MixerControl Describe(snd_mixer_elem_t* element, const std::string& name, ControlType type) {
    MixerControl entry;
    entry.element = element;
    DeviceControl& control = entry.control;
    control.name = name;
    control.key = platform::ControlKeyFromName(name);
    control.type = type;
    control.minimum = 0;
    control.maximum = 1;
    if (type == ControlType::Integer) {
        long minimum = 0, maximum = 0;
        snd_mixer_selem_get_capture_volume_range(element, &minimum, &maximum);
        control.minimum = minimum;
        control.maximum = maximum;
    }
    ReadValue(element, control);
    // A mixer keeps no defaults: the value found stands for one.
    control.defaultValue = control.value;
    return entry;
}

// The capture controls of a loaded mixer, keys made unique. The loopback card (snd-aloop) has
// no capture volume or switch at all: its inputs offer no controls.
std::vector<MixerControl> CaptureControls(snd_mixer_t* mixer) {
    std::vector<MixerControl> entries;
    for (snd_mixer_elem_t* element = snd_mixer_first_elem(mixer); element != nullptr;
         element = snd_mixer_elem_next(element)) {
        std::string name = snd_mixer_selem_get_name(element);
        if (const unsigned index = snd_mixer_selem_get_index(element))
            name += " " + std::to_string(index);
        // The element called "Capture" does not say so twice: capture_volume, capture_switch.
        const std::string key = platform::ControlKeyFromName(name);
        const bool saysCapture =
            key == "capture" || (key.size() > 8 && key.compare(key.size() - 8, 8, "_capture") == 0);
        const std::string base = saysCapture ? name : name + " Capture";
        if (snd_mixer_selem_has_capture_volume(element))
            entries.push_back(Describe(element, base + " Volume", ControlType::Integer));
        if (snd_mixer_selem_has_capture_switch(element))
            entries.push_back(Describe(element, base + " Switch", ControlType::Boolean));
    }
    std::vector<DeviceControl> controls;
    for (const MixerControl& entry : entries)
        controls.push_back(entry.control);
    platform::MakeControlKeysUnique(controls);
    for (size_t i = 0; i < entries.size(); ++i)
        entries[i].control.key = controls[i].key;
    return entries;
}

} // namespace

int AlsaCardOf(const std::string& pcmName) {
    if (pcmName.compare(0, 3, "hw:") != 0)
        return -1;
    std::string card = pcmName.substr(3);
    if (card.compare(0, 5, "CARD=") == 0)
        card = card.substr(5);
    card = card.substr(0, card.find(','));
    return snd_card_get_index(card.c_str());
}

std::vector<DeviceControl> AlsaMixerControls(int card) {
    Mixer mixer(card);
    std::vector<DeviceControl> controls;
    if (mixer.handle == nullptr)
        return controls;
    for (const MixerControl& entry : CaptureControls(mixer.handle))
        controls.push_back(entry.control);
    return controls;
}

ControlResult AlsaMixerSet(int card, const DeviceControl& control, int64_t value,
                           DeviceControl& after, std::string& reason) {
    after = control;
    Mixer mixer(card);
    if (mixer.handle == nullptr) {
        reason = "The sound card's mixer cannot be opened: the device is gone.";
        return ControlResult::Failed;
    }
    for (MixerControl& entry : CaptureControls(mixer.handle)) {
        if (entry.control.key != control.key)
            continue;
        const int error = control.type == ControlType::Boolean
                              ? snd_mixer_selem_set_capture_switch_all(entry.element, value != 0)
                              : snd_mixer_selem_set_capture_volume_all(entry.element, long(value));
        ReadValue(entry.element, entry.control);
        after = entry.control;
        if (error == 0)
            return ControlResult::Set;
        reason = "The sound card refused " + std::to_string(value) + " for \"" + control.name +
                 "\": " + snd_strerror(error) + ".";
        return ControlResult::Failed;
    }
    reason = "The sound card no longer has \"" + control.name + "\".";
    return ControlResult::UnknownKey;
}
