// Reading the summary the tavix command prints when a capture or a preview ends.
#pragma once

#include <string>

// The figures of the summary's video line; -1 where the output has none.
struct VideoSummary {
    long long frames = -1;
    long long dropped = -1;
};

// Reads the video line of `tavix capture`'s summary (plain or --json) or of `tavix preview`'s.
VideoSummary VideoSummaryOf(const std::string& output);
