#include "framerates.h"

#include <cmath>
#include <cstdio>

namespace {

// 30 as "30", 30000/1001 as "29.97".
std::string RateText(double framesPerSecond) {
    char text[32];
    snprintf(text, sizeof text, "%.2f", framesPerSecond);
    std::string rate = text;
    while (rate.back() == '0')
        rate.pop_back();
    if (rate.back() == '.')
        rate.pop_back();
    return rate;
}

} // namespace

std::vector<TavixFrameRate_C> OfferedRates(unsigned long device, unsigned long pixelFormat,
                                           unsigned long width, unsigned long height) {
    std::vector<TavixFrameRate_C> rates;
    TavixDeviceFormatEnumerateFrameRates(
        device, pixelFormat, width, height,
        [](const TavixFrameRate_C* rate, void* context) {
            static_cast<std::vector<TavixFrameRate_C>*>(context)->push_back(*rate);
            return true;
        },
        &rates);
    return rates;
}

std::string RatesText(const std::vector<TavixFrameRate_C>& rates) {
    std::string text;
    for (const TavixFrameRate_C& rate : rates) {
        if (!text.empty())
            text += ", ";
        if (rate.minFramesPerSecond == rate.framesPerSecond) {
            text += RateText(rate.framesPerSecond);
            continue;
        }
        text += RateText(rate.minFramesPerSecond) + "-" + RateText(rate.framesPerSecond);
        if (rate.dwStepDenominator != 0)
            text += " (steps of " + std::to_string(rate.dwStepNumerator) + "/" +
                    std::to_string(rate.dwStepDenominator) + " s)";
    }
    return text.empty() ? text : text + " fps";
}

bool OffersRate(const std::vector<TavixFrameRate_C>& rates, double framesPerSecond) {
    for (const TavixFrameRate_C& rate : rates) {
        if (std::fabs(rate.framesPerSecond - framesPerSecond) < 0.01)
            return true;
        if (rate.minFramesPerSecond < rate.framesPerSecond &&
            framesPerSecond >= rate.minFramesPerSecond && framesPerSecond <= rate.framesPerSecond)
            return true;
    }
    return false;
}

std::vector<std::string> SoundFormatTexts(unsigned long device, unsigned long format) {
    struct Found {
        unsigned long format;
        std::vector<std::string> texts;
    } found{format, {}};
    TavixDeviceEnumerateSoundFormats(
        device,
        [](const TavixSoundFormat_C* sound, void* context) {
            auto* found = static_cast<Found*>(context);
            if (sound->dwFormat != found->format)
                return true;
            char text[96];
            snprintf(text, sizeof text, "%.0f Hz, %u channel%s, %u-bit %s", sound->sampleRate,
                     sound->dwChannels, sound->dwChannels == 1 ? "" : "s", sound->dwBitsPerChannel,
                     (sound->dwFormatFlags & 1) ? "float" : "integer");
            found->texts.push_back(text);
            return true;
        },
        &found);
    return found.texts;
}
