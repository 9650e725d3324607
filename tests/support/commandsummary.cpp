#include "support/commandsummary.h"

#include <regex>

VideoSummary VideoSummaryOf(const std::string& output) {
    // The capture's line has the frame rate in brackets after its frames, the preview's has not.
    static const std::regex plain(R"(video +(\d+) frames(?: \([^)]*\))?, (\d+) dropped,)");
    static const std::regex json(R"("video": \{"frames": (\d+), "dropped": (\d+),)");
    VideoSummary summary;
    std::smatch match;
    if (std::regex_search(output, match, plain) || std::regex_search(output, match, json)) {
        summary.frames = std::stoll(match[1]);
        summary.dropped = std::stoll(match[2]);
    }
    return summary;
}
