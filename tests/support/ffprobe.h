// Reads what ffprobe says of a movie file, for the recording tests.
#pragma once

#include <string>
#include <vector>

struct ProbedStream {
    std::string codecType; // "video" or "audio"
    std::string codecName;
    long frames = -1; // frames counted by decoding (video) or packets (audio)
    int width = 0, height = 0;
    int sampleRate = 0, channels = 0;
    std::string fieldOrder; // "progressive", "tt" (top field first), "bb"...; "" when unknown
    double frameRate = 0;   // the stream's average picture rate
    double duration = -1;   // seconds; -1 when ffprobe does not say
};

struct ProbedMovie {
    bool readable = false; // ffprobe ran and understood the file
    std::string formatName;
    double duration = -1;
    std::vector<ProbedStream> streams;
    const ProbedStream* Find(const std::string& codecType) const;
};

// Runs ffprobe on path, counting frames. readable is false when ffprobe fails or is missing.
ProbedMovie ProbeMovie(const std::string& path);

// True when ffprobe can be run.
bool HaveFFprobe();

// The presentation times of a movie's video frames in seconds, in order, every frame decoded;
// empty when ffprobe fails or the movie has no video.
std::vector<double> ProbeFrameTimes(const std::string& path);
