// Writes captured pictures and sound to a movie file with libavformat and libavcodec.
//
// The container follows the file's extension: ".mov" (QuickTime), ".mp4" or ".m4v", ".mkv"
// (Matroska) or ".avi"; a file with another extension, or none, is not recorded.
// Pictures are encoded as H.264 (libx264) where that encoder exists, else MPEG-4 part 2; a
// DV-sized stream from a tape deck can be kept as DV. Sound is 16-bit PCM, or AAC in ".mp4".
// A MovieEncoding chooses otherwise: H.264 at a chosen quality, FFV1 (lossless), Motion-JPEG
// (encoded, or a camera's own JPEG pictures stored unchanged: storesJPEG), and AAC or PCM sound.
// The file is written in fragments of about one second, so a process killed while recording
// leaves a file that plays up to its last fragment.
//
// Frames are queued and encoded on the recorder's own thread, so the capture threads that hand
// them in are not held up by the encoder. When the file cannot be written (an unwritable path,
// a full disk) the recording ends, the file is closed as far as it can be, and later frames are
// ignored: capture goes on undisturbed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/pixelformats.h"

// The extensions a recording may have, as a message lists them.
extern const char* const kMovieFileExtensions;
// Whether the file's extension names a container the recorder writes (in any case).
bool IsMovieFilePath(const std::string& path);

struct MovieVideoSettings {
    int width = 0;
    int height = 0;
    int pixelFormat = -1;    // the FFmpeg pixel format (AVPixelFormat) of the frames handed in
    double frameRate = 30.0; // nominal rate: sets the key-frame interval and the time base
    bool keepAsDV = false;   // encode as DV when the size and rate are a DV standard's
    // Interlaced pictures are encoded as such and the file says which field comes first, so
    // players deinterlace them.
    FieldOrder fieldOrder = FieldOrder::Progressive;
    // The first picture's SMPTE timecode ("HH:MM:SS:FF", ';' before the frames when
    // drop-frame), written as the file's start timecode; empty for none.
    std::string timecode;
    // The pictures come as JPEG (AppendJPEG) and are stored as they are, as Motion-JPEG:
    // pixelFormat is not used then.
    bool storesJPEG = false;
};

// What the recorder encodes pictures and sound as. Automatic is its own choice described above.
enum class MovieVideoCodec { Automatic, H264, FFV1, MJPEG };
enum class MovieSoundCodec { Automatic, AAC, PCM };
struct MovieEncoding {
    MovieVideoCodec video = MovieVideoCodec::Automatic;
    int quality = -1; // H.264's constant rate factor, 0 (best) to 51; -1: the default, 23
    MovieSoundCodec sound = MovieSoundCodec::Automatic;
};

struct MovieAudioSettings {
    double sampleRate = 0;
    int channels = 0;
    int bytesPerSample = 0; // 1 to 4
    bool isFloat = false;
    bool isNonInterleaved = false;
    bool isBigEndian = false;
    bool isSignedInteger = true;
};

// What was written, for status displays and tests. Pictures still waiting for the encoder are
// counted neither as written nor as dropped; after Finish every picture handed in is one or the
// other.
struct MovieRecorderStatistics {
    uint64_t videoFramesWritten = 0; // pictures whose packets went to the file
    // Pictures that are not in the file: dropped because the encoder fell behind, refused after
    // the file failed, or rejected by the converter or the encoder.
    uint64_t videoFramesDropped = 0;
    uint64_t audioFramesWritten = 0; // sample frames
    uint64_t bytesWritten = 0;       // the file's size so far
    bool failed = false;             // the file could not be written to any more
};

class MovieRecorder {
public:
    // Opens path for writing and starts the encoder thread; null when the file cannot be
    // created, the container or a codec is unavailable, or neither stream is given (null),
    // with *error (when error is not null) saying which ("Permission denied").
    static std::unique_ptr<MovieRecorder> Create(const std::string& path,
                                                 const MovieVideoSettings* video,
                                                 const MovieAudioSettings* audio,
                                                 std::string* error = nullptr);
    // The same, encoding pictures and sound as chosen; null also when the container cannot
    // hold the chosen codecs (CannotHold).
    static std::unique_ptr<MovieRecorder> Create(const std::string& path,
                                                 const MovieVideoSettings* video,
                                                 const MovieAudioSettings* audio,
                                                 const MovieEncoding& encoding,
                                                 std::string* error = nullptr);
    // Why a file at path cannot hold what encoding chooses, as a sentence ("An .mp4 file cannot
    // hold FFV1 pictures; record to .mkv or .mov."); empty when it can.
    static std::string CannotHold(const std::string& path, const MovieEncoding& encoding);
    // Finishes the file (Finish).
    ~MovieRecorder();
    MovieRecorder(const MovieRecorder&) = delete;
    MovieRecorder& operator=(const MovieRecorder&) = delete;

    // Queues one picture, copied and converted before the call returns. planes and strides hold
    // up to four planes as the pixel format lays them out. seconds is its presentation time on
    // the capture clock (any origin, the same for sound); the file starts at the first time
    // handed in. False when the picture was not queued (failed, finished, or the queue is full).
    // Any thread.
    bool AppendVideo(const uint8_t* const planes[4], const int strides[4], double seconds);
    // Queues one JPEG picture, copied, to be stored unchanged, for a recorder created with
    // storesJPEG (AppendVideo refuses pictures then). As AppendVideo otherwise.
    bool AppendJPEG(const uint8_t* data, size_t size, double seconds);

    // Queues sample frames of sound in the format given at creation: one buffer per channel
    // when non-interleaved, else one buffer. Any thread.
    bool AppendAudio(const void* const buffers[], int bufferCount, int sampleFrames,
                     double seconds);

    // Encodes what is queued, writes the file's end and closes it. Safe to call more than once;
    // true when the file was written completely.
    bool Finish();

    MovieRecorderStatistics GetStatistics() const;
    // Once the file has failed (statistics' failed), the system's words for why ("No space
    // left on device"); empty before. Any thread.
    std::string FailureReason() const;
    // The name of the video encoder in use ("libx264", "mpeg4", "dvvideo"), or empty.
    std::string GetVideoEncoderName() const;

    struct Implementation;

private:
    explicit MovieRecorder(std::unique_ptr<Implementation> implementation);
    std::unique_ptr<Implementation> implementation;
};
