#include "platform/devices/alsa/alsadevices.h"

#include <cerrno>
#include <cstdlib>
#include <map>

namespace {

// A hint's value, freed; empty when the hint lacks it.
std::string HintValue(const void* hint, const char* id) {
    char* value = snd_device_name_get_hint(hint, id);
    if (!value)
        return std::string();
    std::string text(value);
    free(value);
    return text;
}

const snd_pcm_format_t kPreferredFormats[] = {SND_PCM_FORMAT_S16_LE,   SND_PCM_FORMAT_S32_LE,
                                              SND_PCM_FORMAT_S24_3LE,  SND_PCM_FORMAT_S24_LE,
                                              SND_PCM_FORMAT_FLOAT_LE, SND_PCM_FORMAT_U8};

} // namespace

bool AlsaSampleLayoutOf(snd_pcm_format_t format, AlsaSampleLayout& layout) {
    const unsigned isFloat = 1, isBigEndian = 2, isSigned = 4, isPacked = 8;
    unsigned bigEndian = snd_pcm_format_big_endian(format) == 1 ? isBigEndian : 0;
    switch (format) {
    case SND_PCM_FORMAT_U8:
        layout = {isPacked, 8, 1};
        return true;
    case SND_PCM_FORMAT_S8:
        layout = {isSigned | isPacked, 8, 1};
        return true;
    case SND_PCM_FORMAT_S16_LE:
    case SND_PCM_FORMAT_S16_BE:
        layout = {isSigned | isPacked | bigEndian, 16, 2};
        return true;
    case SND_PCM_FORMAT_S24_3LE:
    case SND_PCM_FORMAT_S24_3BE:
        layout = {isSigned | isPacked | bigEndian, 24, 3};
        return true;
    case SND_PCM_FORMAT_S24_LE:
    case SND_PCM_FORMAT_S24_BE:
        // 24 significant bits in the low part of four bytes: not packed, not aligned high.
        layout = {isSigned | bigEndian, 24, 4};
        return true;
    case SND_PCM_FORMAT_S32_LE:
    case SND_PCM_FORMAT_S32_BE:
        layout = {isSigned | isPacked | bigEndian, 32, 4};
        return true;
    case SND_PCM_FORMAT_FLOAT_LE:
    case SND_PCM_FORMAT_FLOAT_BE:
        layout = {isFloat | isPacked | bigEndian, 32, 4};
        return true;
    default:
        return false;
    }
}

bool AlsaIsOfferedPcm(const std::string& pcmName) {
    return pcmName == "default" || pcmName.compare(0, 3, "hw:") == 0;
}

void AlsaAssignDisplayNames(std::vector<AlsaDeviceInfo>& devices) {
    std::map<std::string, int> seen;
    for (AlsaDeviceInfo& device : devices) {
        std::string name = device.description.substr(0, device.description.find('\n'));
        if (name.empty())
            name = device.pcmName;
        int count = ++seen[name];
        device.displayName = count == 1 ? name : name + " (" + std::to_string(count) + ")";
    }
}

std::vector<AlsaDeviceInfo> AlsaListDevices() {
    std::vector<AlsaDeviceInfo> devices;
    void** hints = nullptr;
    if (snd_device_name_hint(-1, "pcm", &hints) < 0 || !hints)
        return devices;
    for (void** hint = hints; *hint; ++hint) {
        std::string name = HintValue(*hint, "NAME");
        std::string direction = HintValue(*hint, "IOID");
        // No IOID means the PCM works both ways.
        if (name.empty() || direction == "Output" || !AlsaIsOfferedPcm(name))
            continue;
        AlsaDeviceInfo info;
        info.pcmName = name;
        info.description = HintValue(*hint, "DESC");
        info.uniqueId = "alsa:" + name;
        if (name == "default")
            devices.insert(devices.begin(), std::move(info));
        else
            devices.push_back(std::move(info));
    }
    snd_device_name_free_hint(hints);
    AlsaAssignDisplayNames(devices);
    return devices;
}

bool AlsaIsPresent(const std::string& pcmName) {
    for (const AlsaDeviceInfo& device : AlsaListDevices())
        if (device.pcmName == pcmName)
            return true;
    return false;
}

bool AlsaIsInUse(const std::string& pcmName) {
    snd_pcm_t* pcm = nullptr;
    int error = snd_pcm_open(&pcm, pcmName.c_str(), SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK);
    if (error < 0)
        return error == -EBUSY;
    snd_pcm_close(pcm);
    return false;
}

bool AlsaChooseFormat(snd_pcm_t* pcm, snd_pcm_hw_params_t* parameters, AlsaNativeFormat& format) {
    bool found = false;
    for (snd_pcm_format_t candidate : kPreferredFormats) {
        if (snd_pcm_hw_params_test_format(pcm, parameters, candidate) == 0) {
            format.format = candidate;
            found = snd_pcm_hw_params_set_format(pcm, parameters, candidate) == 0;
            break;
        }
    }
    if (!found)
        return false;
    unsigned channels = 2;
    if (snd_pcm_hw_params_test_channels(pcm, parameters, channels) != 0 &&
        snd_pcm_hw_params_get_channels_min(parameters, &channels) != 0)
        return false;
    if (snd_pcm_hw_params_set_channels(pcm, parameters, channels) != 0)
        return false;
    format.channels = channels;
    unsigned rate = 48000;
    if (snd_pcm_hw_params_set_rate_near(pcm, parameters, &rate, nullptr) != 0)
        return false;
    format.rate = rate;
    return format.rate > 0 && format.channels > 0;
}

bool AlsaProbeNativeFormat(const std::string& pcmName, AlsaNativeFormat& format, bool* busy) {
    if (busy)
        *busy = false;
    snd_pcm_t* pcm = nullptr;
    int error = snd_pcm_open(&pcm, pcmName.c_str(), SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK);
    if (error < 0) {
        if (busy)
            *busy = error == -EBUSY;
        return false;
    }
    snd_pcm_hw_params_t* parameters = nullptr;
    snd_pcm_hw_params_malloc(&parameters);
    const bool found = parameters && snd_pcm_hw_params_any(pcm, parameters) >= 0 &&
                       AlsaChooseFormat(pcm, parameters, format);
    snd_pcm_hw_params_free(parameters);
    snd_pcm_close(pcm);
    return found;
}
