#include "support/tone.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

ToneFigures MeasureTone(const std::vector<double>& samples, double sampleRate) {
    ToneFigures figures;
    size_t last = 0;
    size_t longest = 0, shortest = SIZE_MAX;
    double lastAt = 0;
    std::vector<double> periods;
    for (size_t n = 1; n < samples.size(); ++n) {
        figures.peak = std::max(figures.peak, std::fabs(samples[n]));
        if (samples[n - 1] < 0 && samples[n] >= 0) {
            // Where the sine crosses zero between the two samples.
            const double at =
                static_cast<double>(n - 1) + -samples[n - 1] / (samples[n] - samples[n - 1]);
            if (figures.crossings++ > 0) {
                longest = std::max(longest, n - last);
                shortest = std::min(shortest, n - last);
                periods.push_back(at - lastAt);
            }
            last = n;
            lastAt = at;
        }
    }
    if (figures.crossings > 1) {
        // The median period: a few periods broken by sound a starved machine lost do not move
        // it, a tone at the wrong pitch does.
        std::nth_element(periods.begin(), periods.begin() + long(periods.size() / 2),
                         periods.end());
        figures.hz = sampleRate / periods[periods.size() / 2];
        figures.unevenness = static_cast<double>(longest - shortest);
    }
    return figures;
}

void AppendDecodedSound(const unsigned char* samples, unsigned formatFlags,
                        unsigned long bytesPerSample, unsigned long frames,
                        std::vector<std::vector<double>>& channels) {
    const bool isFloat = formatFlags & 1, bigEndian = formatFlags & 2, isSigned = formatFlags & 4;
    for (unsigned long n = 0; n < frames; ++n) {
        for (std::vector<double>& channel : channels) {
            uint64_t bits = 0;
            for (unsigned long i = 0; i < bytesPerSample; ++i) {
                const unsigned long at = bigEndian ? i : bytesPerSample - 1 - i;
                bits = bits << 8 | samples[at];
            }
            samples += bytesPerSample;
            double value = 0;
            if (isFloat && bytesPerSample == 4) {
                float f;
                const uint32_t word = static_cast<uint32_t>(bits);
                memcpy(&f, &word, 4);
                value = f;
            } else if (isFloat && bytesPerSample == 8) {
                memcpy(&value, &bits, 8);
            } else {
                const double full = std::ldexp(1.0, static_cast<int>(bytesPerSample * 8) - 1);
                const double raw = static_cast<double>(bits);
                value = isSigned ? (raw >= full ? raw - 2 * full : raw) / full : raw / full - 1;
            }
            channel.push_back(value);
        }
    }
}
