#include "platform/devices/alsa/alsacapture.h"

#include <cerrno>
#include <ctime>
#include <vector>

namespace {

double MonotonicSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec + now.tv_nsec / 1e9;
}

// How long one wait for data may block, so that stop() is noticed promptly.
const int kWaitMs = 50;

} // namespace

AlsaCapture::Status AlsaCapture::start(const std::string& pcmName, const AlsaNativeFormat& format,
                                       Deliver deliverTo, Vanished vanishedTo) {
    if (worker.joinable() || format.rate == 0 || format.channels == 0)
        return Status::Failed;
    int error = snd_pcm_open(&pcm, pcmName.c_str(), SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK);
    if (error < 0) {
        pcm = nullptr;
        return error == -EBUSY ? Status::Busy : error == -ENOENT ? Status::Gone : Status::Failed;
    }
    // A 200 ms buffer in four periods: room for a slow delivery without an overrun.
    unsigned bufferUs = 200000;
    error = snd_pcm_set_params(pcm, format.format, SND_PCM_ACCESS_RW_INTERLEAVED, format.channels,
                               format.rate, 0, bufferUs);
    snd_pcm_uframes_t bufferSize = 0;
    if (error == 0)
        error = snd_pcm_get_params(pcm, &bufferSize, &periodFrames);
    ssize_t bytes = snd_pcm_frames_to_bytes(pcm, 1);
    if (error < 0 || periodFrames == 0 || bytes <= 0) {
        snd_pcm_close(pcm);
        pcm = nullptr;
        return error == -EBUSY ? Status::Busy : Status::Failed;
    }
    current = format;
    frameBytes = size_t(bytes);
    deliver = std::move(deliverTo);
    vanished = std::move(vanishedTo);
    stopping = false;
    gone = false;
    overrunCount = 0;
    snd_pcm_start(pcm);
    worker = std::thread(&AlsaCapture::run, this);
    return Status::Ok;
}

void AlsaCapture::stop() {
    if (worker.joinable()) {
        stopping = true;
        worker.join();
    }
    if (pcm) {
        snd_pcm_close(pcm);
        pcm = nullptr;
    }
    deliver = nullptr;
    vanished = nullptr;
}

// Recovers from an overrun or a suspend and restarts capture; false when the device is gone
// or cannot be recovered.
bool AlsaCapture::recover(int error) {
    if (error == -EPIPE)
        ++overrunCount;
    if (snd_pcm_recover(pcm, error, 1) < 0)
        return false;
    snd_pcm_start(pcm);
    return true;
}

void AlsaCapture::run() {
    std::vector<uint8_t> samples(periodFrames * frameBytes);
    while (!stopping) {
        int ready = snd_pcm_wait(pcm, kWaitMs);
        if (ready == -EINTR)
            continue;
        if (ready < 0 && ready != -EPIPE && ready != -ESTRPIPE) {
            gone = true;
            break;
        }
        snd_pcm_sframes_t got = snd_pcm_readi(pcm, samples.data(), periodFrames);
        if (got == -EAGAIN || got == 0)
            continue;
        if (got == -EPIPE || got == -ESTRPIPE || got == -EINTR) {
            if (!recover(int(got))) {
                gone = true;
                break;
            }
            continue;
        }
        if (got < 0) {
            gone = true;
            break;
        }
        // The last frame read is `delay` frames older than now, the first `got - 1` older still.
        snd_pcm_sframes_t delay = 0;
        if (snd_pcm_delay(pcm, &delay) < 0 || delay < 0)
            delay = 0;
        double timestamp = MonotonicSeconds() - double(delay + got) / current.rate;
        if (deliver)
            deliver(samples.data(), size_t(got), timestamp);
    }
    if (gone && vanished)
        vanished();
}
