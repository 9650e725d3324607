// The sound inputs ALSA knows of: capture PCMs from its device hints, and the format each one
// delivers natively.
#pragma once

#include <alsa/asoundlib.h>
#include <string>
#include <vector>

// One capture PCM as the hints describe it.
struct AlsaDeviceInfo {
    std::string pcmName;     // what snd_pcm_open takes: "hw:CARD=Loopback,DEV=1", "default"
    std::string description; // the DESC hint, whole (may hold two lines)
    std::string displayName; // the description's first line, made unique by AlsaAssignDisplayNames
    std::string uniqueId;    // "alsa:" and the PCM name: card ids are stable across reboots
};

// The format a PCM delivers without conversion.
struct AlsaNativeFormat {
    snd_pcm_format_t format = SND_PCM_FORMAT_UNKNOWN;
    unsigned rate = 0;
    unsigned channels = 0;
};

// How one sample of a format sits in memory, in the terms of Core Audio's linear-PCM flags
// (float 1, big-endian 2, signed integer 4, packed 8).
struct AlsaSampleLayout {
    unsigned formatFlags = 0;
    unsigned bitsPerChannel = 0;
    unsigned bytesPerSample = 0;
};

// The layout of a sample format; false for formats tavix does not deliver (compressed,
// 20-bit, 64-bit float...).
bool AlsaSampleLayoutOf(snd_pcm_format_t format, AlsaSampleLayout& layout);

// True for the hints tavix offers as sound inputs: the hardware devices ("hw:") and the default
// device ("default", which reaches PulseAudio or PipeWire where they run). Plug-in layers over
// the same hardware (plughw, dsnoop, front, sysdefault...) would list each input many times.
bool AlsaIsOfferedPcm(const std::string& pcmName);

// The capture PCMs of ALSA's "pcm" hints that AlsaIsOfferedPcm accepts, "default" first, with
// display names assigned. Empty on a machine without sound inputs. Any thread.
std::vector<AlsaDeviceInfo> AlsaListDevices();

// Gives every device a display name: the first line of its description (the PCM name when there
// is none), followed by " (2)", " (3)"... for later devices with the same text.
void AlsaAssignDisplayNames(std::vector<AlsaDeviceInfo>& devices);

// True while ALSA's hints still list the PCM (a USB microphone that was unplugged is not).
bool AlsaIsPresent(const std::string& pcmName);

// True when the PCM refuses to open for capture because another program holds it.
bool AlsaIsInUse(const std::string& pcmName);

// Narrows an open PCM's hardware parameters to the format it prefers and says which: the first
// sample format of S16_LE, S32_LE, S24_3LE, S24_LE, FLOAT_LE, U8 it accepts, two channels where
// allowed (else the fewest), the rate nearest 48000 Hz. What a PCM accepts can change while it
// is closed (the loopback card's capture side takes whatever its playback side was opened
// with), so a capture chooses on the PCM it then reads from. False when it accepts none.
bool AlsaChooseFormat(snd_pcm_t* pcm, snd_pcm_hw_params_t* parameters, AlsaNativeFormat& format);

// Opens the PCM for capture and reads the format AlsaChooseFormat prefers. False when the PCM
// cannot be opened (absent, or busy: `busy` is then set) or accepts none of those formats.
bool AlsaProbeNativeFormat(const std::string& pcmName, AlsaNativeFormat& format, bool* busy);
