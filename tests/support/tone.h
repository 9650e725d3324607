// Measures a captured sine, for the sound tests.
#pragma once

#include <cstddef>
#include <vector>

struct ToneFigures {
    double hz = 0;        // from the median gap between rising zero crossings; 0 for fewer than two
    double peak = 0;      // largest magnitude
    size_t crossings = 0; // rising zero crossings counted
    // How far, in samples, the longest and shortest gaps between rising crossings differ: a
    // steady tone keeps it near 1, a tone with sound cut out of it does not (unless whole
    // periods were cut).
    double unevenness = 0;
};

ToneFigures MeasureTone(const std::vector<double>& samples, double sampleRate);

// Interleaved linear PCM as the host's audio callback receives it (Core Audio format flags:
// 1 float, 2 big-endian, 4 signed integer), decoded into values from -1 to 1 and appended to
// channel c's vector. Integers of `bytesPerSample` bytes use all their bits.
void AppendDecodedSound(const unsigned char* samples, unsigned formatFlags,
                        unsigned long bytesPerSample, unsigned long frames,
                        std::vector<std::vector<double>>& channels);
