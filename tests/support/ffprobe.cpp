#include "support/ffprobe.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "support/process.h"

const ProbedStream* ProbedMovie::Find(const std::string& codecType) const {
    for (const ProbedStream& stream : streams)
        if (stream.codecType == codecType)
            return &stream;
    return nullptr;
}

bool HaveFFprobe() {
    return system("ffprobe -version >/dev/null 2>&1") == 0;
}

ProbedMovie ProbeMovie(const std::string& path) {
    ProbedMovie movie;
    // Quiet, so that no diagnostics mix into the output, which holds standard error too.
    const CommandOutput run = RunCommand(
        "ffprobe -v quiet -count_frames -show_entries "
        "format=format_name,duration:stream=codec_type,codec_name,nb_read_frames,width,height,"
        "sample_rate,channels,field_order,avg_frame_rate,duration -of compact=p=1:nk=0 '" +
        path + "'");
    std::istringstream lines(run.output);
    for (std::string text; std::getline(lines, text);) {
        if (!text.empty() && text.back() == '\r')
            text.pop_back();
        std::stringstream fields(text);
        std::string section, field;
        std::getline(fields, section, '|');
        ProbedStream stream;
        while (std::getline(fields, field, '|')) {
            const size_t equals = field.find('=');
            if (equals == std::string::npos)
                continue;
            const std::string key = field.substr(0, equals), value = field.substr(equals + 1);
            if (section == "format" && key == "format_name")
                movie.formatName = value;
            else if (section == "format" && key == "duration")
                movie.duration = atof(value.c_str());
            else if (section == "stream" && key == "duration")
                stream.duration = value == "N/A" ? -1 : atof(value.c_str());
            else if (key == "codec_type")
                stream.codecType = value;
            else if (key == "codec_name")
                stream.codecName = value;
            else if (key == "nb_read_frames")
                stream.frames = atol(value.c_str());
            else if (key == "width")
                stream.width = atoi(value.c_str());
            else if (key == "height")
                stream.height = atoi(value.c_str());
            else if (key == "sample_rate")
                stream.sampleRate = atoi(value.c_str());
            else if (key == "channels")
                stream.channels = atoi(value.c_str());
            else if (key == "field_order")
                stream.fieldOrder = value;
            else if (key == "avg_frame_rate" && value.find('/') != std::string::npos) {
                const double denominator = atof(value.c_str() + value.find('/') + 1);
                stream.frameRate = denominator > 0 ? atof(value.c_str()) / denominator : 0;
            }
        }
        if (section == "stream")
            movie.streams.push_back(stream);
    }
    movie.readable = run.status == 0 && !movie.formatName.empty();
    return movie;
}

std::vector<double> ProbeFrameTimes(const std::string& path) {
    const CommandOutput run = RunCommand("ffprobe -v quiet -select_streams v:0 -show_entries "
                                         "frame=best_effort_timestamp_time -of csv=p=0 '" +
                                         path + "'");
    std::vector<double> times;
    if (run.status != 0)
        return times;
    std::istringstream lines(run.output);
    for (std::string text; std::getline(lines, text);)
        if (!text.empty() && text != "N/A")
            times.push_back(atof(text.c_str()));
    std::sort(times.begin(), times.end());
    return times;
}
