#include "platform/devices/alsa/alsacapture.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
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
// The ring: long enough that a capture thread kept off the processor for a while loses
// nothing, read in short periods so that every delivery is small. A delivery is converted into
// the host's format in one fixed 64 KB area: 10 ms fits even 96 kHz, 6 channels, 8-byte samples.
const unsigned kBufferUs = 500000;
const unsigned kPeriodUs = 10000;

// Sets the ring and period sizes near what is wanted; a device that insists on others keeps its
// own (deliveries are cut to 10 ms pieces anyway).
void ChooseSizes(snd_pcm_t* pcm, snd_pcm_hw_params_t* parameters) {
    unsigned bufferUs = kBufferUs, periodUs = kPeriodUs;
    snd_pcm_hw_params_t* saved = nullptr;
    snd_pcm_hw_params_malloc(&saved);
    if (saved == nullptr)
        return;
    snd_pcm_hw_params_copy(saved, parameters);
    if (snd_pcm_hw_params_set_buffer_time_near(pcm, parameters, &bufferUs, nullptr) < 0)
        snd_pcm_hw_params_copy(parameters, saved);
    snd_pcm_hw_params_copy(saved, parameters);
    if (snd_pcm_hw_params_set_period_time_near(pcm, parameters, &periodUs, nullptr) < 0)
        snd_pcm_hw_params_copy(parameters, saved);
    snd_pcm_hw_params_free(saved);
}

} // namespace

AlsaCapture::Status AlsaCapture::start(const std::string& pcmName, Deliver deliverTo,
                                       Vanished vanishedTo) {
    if (worker.joinable())
        return Status::Failed;
    int error = snd_pcm_open(&pcm, pcmName.c_str(), SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK);
    if (error < 0) {
        pcm = nullptr;
        return error == -EBUSY ? Status::Busy : error == -ENOENT ? Status::Gone : Status::Failed;
    }
    snd_pcm_hw_params_t* parameters = nullptr;
    snd_pcm_hw_params_malloc(&parameters);
    AlsaNativeFormat chosen;
    bool ready =
        parameters != nullptr && snd_pcm_hw_params_any(pcm, parameters) >= 0 &&
        snd_pcm_hw_params_set_access(pcm, parameters, SND_PCM_ACCESS_RW_INTERLEAVED) == 0 &&
        AlsaChooseFormat(pcm, parameters, chosen);
    if (ready) {
        ChooseSizes(pcm, parameters);
        error = snd_pcm_hw_params(pcm, parameters);
        ready = error == 0 &&
                snd_pcm_hw_params_get_period_size(parameters, &periodFrames, nullptr) == 0;
    }
    if (parameters != nullptr)
        snd_pcm_hw_params_free(parameters);
    const ssize_t bytes = ready ? snd_pcm_frames_to_bytes(pcm, 1) : 0;
    if (!ready || periodFrames == 0 || bytes <= 0) {
        snd_pcm_close(pcm);
        pcm = nullptr;
        return error == -EBUSY ? Status::Busy : Status::Failed;
    }
    current = chosen;
    frameBytes = size_t(bytes);
    deliver = std::move(deliverTo);
    vanished = std::move(vanishedTo);
    stopping = false;
    gone = false;
    overrunCount = 0;
    lostFrameCount = 0;
    nextFrameTime = 0;
    overrunPending = false;
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
    if (error == -EPIPE) {
        ++overrunCount;
        overrunPending = true;
    }
    if (snd_pcm_recover(pcm, error, 1) < 0)
        return false;
    snd_pcm_start(pcm);
    return true;
}

void AlsaCapture::deliverPieces(const uint8_t* samples, size_t frames, double timestamp) {
    // The sound an overrun lost is the gap between where the last read ended and where this
    // one starts.
    if (overrunPending && nextFrameTime > 0) {
        const double lost = std::round((timestamp - nextFrameTime) * current.rate);
        if (lost > 0)
            lostFrameCount += uint64_t(lost);
    }
    overrunPending = false;
    nextFrameTime = timestamp + double(frames) / current.rate;
    const size_t piece = std::max<size_t>(1, current.rate / 100);
    for (size_t done = 0; done < frames && deliver; done += piece)
        deliver(samples + done * frameBytes, std::min(piece, frames - done),
                timestamp + double(done) / current.rate);
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
        deliverPieces(samples.data(), size_t(got),
                      MonotonicSeconds() - double(delay + got) / current.rate);
    }
    if (gone && vanished)
        vanished();
}
