// Measures a captured sine, for the sound tests.
#pragma once

#include <cstddef>
#include <vector>

struct ToneFigures {
    double hz = 0;        // from rising zero crossings; 0 for fewer than two
    double peak = 0;      // largest magnitude
    size_t crossings = 0; // rising zero crossings counted
};

ToneFigures MeasureTone(const std::vector<double>& samples, double sampleRate);
