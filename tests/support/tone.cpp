#include "support/tone.h"

#include <algorithm>
#include <cmath>

ToneFigures MeasureTone(const std::vector<double>& samples, double sampleRate) {
    ToneFigures figures;
    size_t first = 0, last = 0;
    for (size_t n = 1; n < samples.size(); ++n) {
        figures.peak = std::max(figures.peak, std::fabs(samples[n]));
        if (samples[n - 1] < 0 && samples[n] >= 0) {
            if (figures.crossings++ == 0)
                first = n;
            last = n;
        }
    }
    if (figures.crossings > 1)
        figures.hz = static_cast<double>(figures.crossings - 1) * sampleRate /
                     static_cast<double>(last - first);
    return figures;
}
