// A steady tone played into the loopback card (snd-aloop), for the sound-capture tests: what is
// played into kLoopbackPlayback comes out of kLoopbackCapture, and while the playback side is
// open the capture side offers only the format it was opened with.
#pragma once

#include <alsa/asoundlib.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

class LoopbackTone {
public:
    // Plays channel c at hz[c % hz.size()], `level` of full scale, in `format` at `rate` with
    // `channels` channels, from the constructor's return (the capture side then delivers it)
    // until destruction. error() says why when it could not start.
    LoopbackTone(snd_pcm_format_t format, unsigned rate, unsigned channels, std::vector<double> hz,
                 double level);
    ~LoopbackTone();
    LoopbackTone(const LoopbackTone&) = delete;
    LoopbackTone& operator=(const LoopbackTone&) = delete;

    const std::string& error() const { return failure; }
    // Times the player fell behind (the machine was too busy to keep the ring filled): the
    // capture side heard silence meanwhile.
    int underruns() const { return underrunCount.load(); }

private:
    // The next `frames` frames of the tone, encoded.
    void Render(std::vector<uint8_t>& bytes, size_t frames);
    void Play();

    snd_pcm_t* pcm = nullptr;
    snd_pcm_format_t format;
    unsigned rate, channels;
    std::vector<double> hz;
    double level;
    unsigned long long position = 0; // frames rendered so far
    std::string failure;
    std::atomic<bool> stop{false};
    std::atomic<int> underrunCount{0};
    std::thread player;
};
