#include "support/loopbacktone.h"

#include <cerrno>
#include <cmath>
#include <cstring>

#include "support/realdevices.h"

namespace {

// One sample, -1 to 1, in `format`'s little-endian layout.
void Encode(double value, snd_pcm_format_t format, uint8_t* out) {
    if (format == SND_PCM_FORMAT_FLOAT_LE) {
        const float sample = static_cast<float>(value);
        memcpy(out, &sample, 4);
        return;
    }
    const int bits = snd_pcm_format_width(format);
    const int bytes = snd_pcm_format_physical_width(format) / 8;
    const int32_t sample =
        static_cast<int32_t>(std::lround(value * (std::ldexp(1.0, bits - 1) - 1)));
    for (int i = 0; i < bytes; ++i)
        out[i] = i < 4 ? static_cast<uint8_t>(static_cast<uint32_t>(sample) >> (8 * i)) : 0;
    if (bytes == 4 && bits == 24) // the high byte of a 24-bit sample in four extends its sign
        out[3] = sample < 0 ? 0xFF : 0;
}

} // namespace

LoopbackTone::LoopbackTone(snd_pcm_format_t format, unsigned rate, unsigned channels,
                           std::vector<double> hz, double level)
    : format(format), rate(rate), channels(channels), hz(std::move(hz)), level(level) {
    int error = snd_pcm_open(&pcm, kLoopbackPlayback, SND_PCM_STREAM_PLAYBACK, 0);
    if (error == 0)
        error = snd_pcm_set_params(pcm, format, SND_PCM_ACCESS_RW_INTERLEAVED, channels, rate, 0,
                                   500000);
    // Half a second of ring, so that a busy machine rarely starves the player. A buffer's worth
    // written and started before returning: the capture side then has the tone
    // from its first frame on.
    std::vector<uint8_t> bytes;
    snd_pcm_uframes_t buffer = 0, period = 0;
    if (error == 0)
        error = snd_pcm_get_params(pcm, &buffer, &period);
    if (error == 0) {
        Render(bytes, buffer);
        const snd_pcm_sframes_t written = snd_pcm_writei(pcm, bytes.data(), buffer);
        error = written < 0 ? int(written) : 0;
    }
    if (error == 0 && snd_pcm_state(pcm) != SND_PCM_STATE_RUNNING)
        error = snd_pcm_start(pcm);
    if (error != 0) {
        failure = std::string("cannot play into the loopback card: ") + snd_strerror(error);
        if (pcm != nullptr)
            snd_pcm_close(pcm);
        pcm = nullptr;
        return;
    }
    player = std::thread(&LoopbackTone::Play, this);
}

LoopbackTone::~LoopbackTone() {
    stop = true;
    if (player.joinable())
        player.join();
    if (pcm != nullptr) {
        snd_pcm_drop(pcm);
        snd_pcm_close(pcm);
    }
}

void LoopbackTone::Render(std::vector<uint8_t>& bytes, size_t frames) {
    const size_t sampleBytes = snd_pcm_format_physical_width(format) / 8;
    bytes.resize(frames * channels * sampleBytes);
    uint8_t* out = bytes.data();
    for (size_t n = 0; n < frames; ++n, ++position)
        for (unsigned c = 0; c < channels; ++c, out += sampleBytes)
            Encode(level * std::sin(2 * M_PI * hz[c % hz.size()] * double(position) / rate), format,
                   out);
}

void LoopbackTone::Play() {
    std::vector<uint8_t> bytes;
    const size_t frames = rate / 50;
    while (!stop) {
        Render(bytes, frames);
        const snd_pcm_sframes_t written = snd_pcm_writei(pcm, bytes.data(), frames);
        if (written == -EPIPE)
            ++underrunCount;
        if (written < 0 && snd_pcm_recover(pcm, int(written), 1) < 0) {
            ++underrunCount; // silent from now on
            return;
        }
    }
}
