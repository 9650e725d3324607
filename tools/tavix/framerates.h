// Frame rates and sound formats as the `tavix` commands show and check them.
#pragma once

#include <string>
#include <vector>

#include "llib/mac/tavix.h"

// The rates the device offers for capture in this format and size (0: the device's choice).
std::vector<TavixFrameRate_C> OfferedRates(unsigned long device, unsigned long pixelFormat,
                                           unsigned long width, unsigned long height);

// "30, 60 fps", "29.97 fps", "5-60 fps (steps of 1/60 s)"; empty when none are offered.
std::string RatesText(const std::vector<TavixFrameRate_C>& rates);

// Whether `framesPerSecond` is one of the rates: a single rate to a hundredth of a frame per
// second, or a rate inside a range.
bool OffersRate(const std::vector<TavixFrameRate_C>& rates, double framesPerSecond);

// "48000 Hz, 2 channels, 32-bit float" for each sound format the device delivers in format
// type `format`.
std::vector<std::string> SoundFormatTexts(unsigned long device, unsigned long format);
