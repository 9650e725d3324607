#include "platform/movierecorder.h"

#include "platform/videoconverter.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libavutil/time.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace {

// Pictures waiting for the encoder; beyond this the recorder drops pictures rather than let
// memory grow while the encoder falls behind.
constexpr size_t kMaxQueuedPictures = 60;
// The file is flushed to disk at least this often, so a killed process loses little.
constexpr double kFlushIntervalSeconds = 0.5;
// How much lower the encoding threads run than the capture threads: on a machine short of
// processor time, the encoder falls behind (and the recorder drops whole pictures, counted)
// before live pictures and sound are held up.
constexpr int kEncoderNiceness = 5;

// Lowers the calling thread's priority by kEncoderNiceness (on Linux the nice value is per
// thread, and threads it creates inherit it). Cannot be undone without privileges, so only for
// threads that do nothing but encode.
void LowerThisThreadsPriority() {
    const id_t thread = static_cast<id_t>(syscall(SYS_gettid));
    errno = 0;
    const int current = getpriority(PRIO_PROCESS, thread);
    if (errno == 0)
        setpriority(PRIO_PROCESS, thread, std::min(current + kEncoderNiceness, 19));
}

// Opens an encoder on a thread of its own at the encoder's priority, so that the worker threads
// the encoder starts (x264 starts several) inherit it.
bool OpenEncoder(AVCodecContext* context, const AVCodec* codec) {
    int result = -1;
    std::thread opener([&] {
        LowerThisThreadsPriority();
        result = avcodec_open2(context, codec, nullptr);
    });
    opener.join();
    return result >= 0;
}

enum class Container { Unknown, QuickTime, MP4, Matroska, AVI };

Container ContainerForPath(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return Container::Unknown;
    std::string extension = path.substr(dot + 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(tolower(c)); });
    if (extension == "mov")
        return Container::QuickTime;
    if (extension == "mp4" || extension == "m4v")
        return Container::MP4;
    if (extension == "mkv")
        return Container::Matroska;
    if (extension == "avi")
        return Container::AVI;
    return Container::Unknown;
}

const char* MuxerName(Container container) {
    switch (container) {
    case Container::MP4:
        return "mp4";
    case Container::Matroska:
        return "matroska";
    case Container::AVI:
        return "avi";
    case Container::QuickTime:
    case Container::Unknown:
        break;
    }
    return "mov";
}

// DV carries only the PAL and NTSC standard-definition sizes at their own rates.
bool IsDVStandard(const MovieVideoSettings& video) {
    const bool pal =
        video.width == 720 && video.height == 576 && std::fabs(video.frameRate - 25) < 0.01;
    const bool ntsc = video.width == 720 && video.height == 480 &&
                      std::fabs(video.frameRate - 30000.0 / 1001) < 0.05;
    return pal || ntsc;
}

// FFmpeg's words for an error code ("No space left on device").
std::string ErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(code, text, sizeof text);
    return text;
}

struct QueuedItem {
    AVFrame* frame; // owned; pts already set in its stream's encoder time base
    bool isVideo;
    AVPacket* jpeg = nullptr; // owned: a JPEG picture to store as it is, instead of a frame
};

void FreeFrame(AVFrame* frame) {
    av_frame_free(&frame);
}

// A frame of `samples` sound samples in the encoder's format, its buffers allocated; null when
// memory ran out.
AVFrame* NewSoundFrame(const AVCodecContext* codec, int samples) {
    AVFrame* frame = av_frame_alloc();
    if (frame == nullptr)
        return nullptr;
    frame->format = codec->sample_fmt;
    frame->nb_samples = samples;
    frame->sample_rate = codec->sample_rate;
    if (av_channel_layout_copy(&frame->ch_layout, &codec->ch_layout) < 0 ||
        av_frame_get_buffer(frame, 0) < 0)
        av_frame_free(&frame); // sets frame to null
    return frame;
}

// The encoder a codec chosen by name stands for; null for Automatic, or when this FFmpeg has none.
const AVCodec* ChosenVideoEncoder(MovieVideoCodec codec) {
    switch (codec) {
    case MovieVideoCodec::H264:
        return avcodec_find_encoder_by_name("libx264");
    case MovieVideoCodec::FFV1:
        return avcodec_find_encoder(AV_CODEC_ID_FFV1);
    case MovieVideoCodec::MJPEG:
        return avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    case MovieVideoCodec::Automatic:
        break;
    }
    return nullptr;
}

// MP4 players expect AAC; QuickTime and Matroska keep the sound as 16-bit PCM unless AAC is
// chosen.
AVCodecID ChosenSoundCodec(MovieSoundCodec codec, Container container) {
    switch (codec) {
    case MovieSoundCodec::AAC:
        return AV_CODEC_ID_AAC;
    case MovieSoundCodec::PCM:
        return AV_CODEC_ID_PCM_S16LE;
    case MovieSoundCodec::Automatic:
        break;
    }
    return container == Container::MP4 ? AV_CODEC_ID_AAC : AV_CODEC_ID_PCM_S16LE;
}

// Settles what a chosen encoding changes on top of the common encoder settings: H.264's rate
// factor; for FFV1 a picture format that loses nothing of the input, and for Motion-JPEG one
// that keeps a full-height chroma input's (4:2:2) detail.
void ConfigureChosenEncoder(AVCodecContext* context, const AVCodec* codec,
                            const MovieEncoding& encoding, int inputFormat) {
    if (codec->id == AV_CODEC_ID_H264 && encoding.quality >= 0) {
        av_opt_set_int(context->priv_data, "crf", encoding.quality, 0);
    } else if (codec->id == AV_CODEC_ID_FFV1) {
        context->pix_fmt = avcodec_find_best_pix_fmt_of_list(
            codec->pix_fmts, static_cast<AVPixelFormat>(inputFormat), 0, nullptr);
        // Every picture on its own, so damage to one spoils no other; sliced with checksums, so
        // an archive can be checked and the slices encoded on all cores.
        context->gop_size = 1;
        context->level = 3;
        context->slices = 4;
        context->thread_count = 0;
        av_opt_set_int(context->priv_data, "slicecrc", 1, 0);
    } else if (codec->id == AV_CODEC_ID_MJPEG) {
        const AVPixFmtDescriptor* input =
            av_pix_fmt_desc_get(static_cast<AVPixelFormat>(inputFormat));
        const bool fullHeightChroma = input != nullptr && input->log2_chroma_h == 0;
        context->pix_fmt = fullHeightChroma ? AV_PIX_FMT_YUVJ422P : AV_PIX_FMT_YUVJ420P;
        // A fixed, fine quantiser, as a camera's own JPEG pictures have: no rate control.
        context->flags |= AV_CODEC_FLAG_QSCALE;
        context->global_quality = FF_QP2LAMBDA * 3;
    }
}

} // namespace

const char* const kMovieFileExtensions = ".mov, .mp4, .m4v, .mkv or .avi";

bool IsMovieFilePath(const std::string& path) {
    return ContainerForPath(path) != Container::Unknown;
}

struct MovieRecorder::Implementation {
    ~Implementation() { Close(); }

    bool Open(const std::string& path, const MovieVideoSettings* video,
              const MovieAudioSettings* audio);
    bool OpenVideo(const MovieVideoSettings& settings, Container container);
    bool OpenAudio(const MovieAudioSettings& settings, Container container);
    void SetStartTimecode(const std::string& timecode);
    bool AppendVideo(const uint8_t* const planes[4], const int strides[4], double seconds);
    bool OpenJPEGStream(const MovieVideoSettings& settings);
    bool AppendJPEG(const uint8_t* data, size_t size, double seconds);
    bool EnqueueJPEG(AVPacket* jpeg);
    bool AppendAudio(const void* const buffers[], int bufferCount, int sampleFrames,
                     double seconds);
    bool Finish();
    void Close();

    // Encoder thread.
    void Run();
    bool Encode(AVCodecContext* codec, AVStream* stream, AVFrame* frame);
    bool EncodeAudio(AVFrame* frame);
    bool WritePacket(AVPacket* packet, AVStream* stream, AVCodecContext* codec);
    // Ends the file's writing; code is FFmpeg's error (AVERROR) for the reason, 0 when none.
    void MarkFailed(int code);

    double RelativeTime(double seconds);
    bool Enqueue(AVFrame* frame, bool isVideo);
    // Queues silent sound from sample `from` up to `to`, in pieces of a tenth of a second.
    bool EnqueueSilence(int64_t from, int64_t to);

    AVFormatContext* format = nullptr;
    Container container = Container::QuickTime;
    MovieEncoding encoding;

    AVStream* videoStream = nullptr;
    AVCodecContext* videoCodec = nullptr;
    SwsContext* scaler = nullptr;
    OSType inputFormat = 0; // the frames' pixel format when libyuv converts it to the encoder's
    // For a frame format libswscale does not read: that format, and a picture of its stand-in,
    // repacked by libyuv, for libswscale to read instead.
    OSType repackedFormat = 0;
    PixelFormatLayout standInLayout;
    OSType standInFormat = 0;
    std::vector<uint8_t> standIn;
    MovieVideoSettings videoSettings;
    int64_t lastVideoPts = INT64_MIN;
    std::mutex videoMutex; // guards scaler, standIn and lastVideoPts

    AVStream* audioStream = nullptr;
    AVCodecContext* audioCodec = nullptr;
    SwrContext* resampler = nullptr;
    AVAudioFifo* audioFifo = nullptr; // for encoders with a fixed frame size
    MovieAudioSettings audioSettings;
    int64_t nextAudioPts = INT64_MIN;
    int64_t fifoPts = 0;
    std::vector<float> audioScratch;
    std::mutex audioMutex; // guards resampler, nextAudioPts and audioScratch

    std::mutex timeMutex;
    bool hasOrigin = false;
    double origin = 0;

    std::mutex queueMutex;
    std::condition_variable queueChanged;
    std::deque<QueuedItem> queue;
    size_t queuedPictures = 0;
    bool finishing = false;
    std::thread encoder;

    std::mutex finishMutex;
    bool finished = false;
    bool completed = false;

    std::atomic<bool> failed{false};
    std::atomic<int> failureCode{0}; // the first error that failed the file
    std::string openFailure;         // why Open gave up
    // Pictures handed in, pictures whose packets reached the file, and pictures that will not:
    // dropped from a full queue, refused once the file failed, or rejected by the converter
    // or the encoder. Those still queued or inside the encoder are in neither of the last two
    // until Finish settles the account.
    std::atomic<uint64_t> videoFramesOffered{0};
    std::atomic<uint64_t> videoFramesWritten{0};
    std::atomic<uint64_t> videoFramesDropped{0};
    std::atomic<uint64_t> audioFramesWritten{0};
    std::atomic<uint64_t> bytesWritten{0};
    double lastFlush = 0;
    AVPacket* packet = nullptr;
};

bool MovieRecorder::Implementation::Open(const std::string& path, const MovieVideoSettings* video,
                                         const MovieAudioSettings* audio) {
    container = ContainerForPath(path);
    if (container == Container::Unknown) {
        openFailure = std::string("its extension names no container the library writes (") +
                      kMovieFileExtensions + ")";
        return false;
    }
    if (avformat_alloc_output_context2(&format, nullptr, MuxerName(container), path.c_str()) < 0)
        return false;
    if (video != nullptr && !OpenVideo(*video, container))
        return false;
    if (audio != nullptr && !OpenAudio(*audio, container))
        return false;
    if (video != nullptr)
        SetStartTimecode(video->timecode);
    const int opened = avio_open(&format->pb, path.c_str(), AVIO_FLAG_WRITE);
    if (opened < 0) {
        openFailure = ErrorText(opened);
        return false;
    }

    AVDictionary* options = nullptr;
    if (container == Container::Matroska) {
        av_dict_set(&options, "cluster_time_limit", "1000", 0);
    } else if (container != Container::AVI) {
        // Fragments of about a second, each complete on disk: a killed process leaves a file
        // that plays up to its last fragment.
        av_dict_set(&options, "movflags", "+frag_keyframe+empty_moov+default_base_moof", 0);
        av_dict_set(&options, "frag_duration", "1000000", 0);
    }
    const int written = avformat_write_header(format, &options);
    av_dict_free(&options);
    if (written < 0) {
        openFailure = ErrorText(written);
        return false;
    }
    avio_flush(format->pb);
    packet = av_packet_alloc();
    if (packet == nullptr)
        return false;
    encoder = std::thread(&Implementation::Run, this);
    return true;
}

bool MovieRecorder::Implementation::OpenVideo(const MovieVideoSettings& settings,
                                              Container container) {
    if (settings.width <= 0 || settings.height <= 0 || settings.pixelFormat < 0 ||
        settings.frameRate <= 0 || settings.frameRate > 1000)
        return false;
    videoSettings = settings;
    if (settings.storesJPEG)
        return OpenJPEGStream(settings);
    const bool chosen = encoding.video != MovieVideoCodec::Automatic;
    // MP4 has no place for DV: a deck's pictures are encoded there like a camera's.
    const bool dv =
        !chosen && settings.keepAsDV && IsDVStandard(settings) && container != Container::MP4;
    const AVCodec* codec = ChosenVideoEncoder(encoding.video);
    if (chosen && codec == nullptr) {
        openFailure = "this system's FFmpeg has no encoder for the chosen video codec";
        return false;
    }
    if (dv)
        codec = avcodec_find_encoder(AV_CODEC_ID_DVVIDEO);
    if (codec == nullptr)
        codec = avcodec_find_encoder_by_name("libx264");
    if (codec == nullptr)
        codec = avcodec_find_encoder(AV_CODEC_ID_MPEG4);
    if (codec == nullptr)
        return false;
    videoCodec = avcodec_alloc_context3(codec);
    if (videoCodec == nullptr)
        return false;
    const AVRational rate = av_d2q(settings.frameRate, 1001000);
    videoCodec->width = settings.width;
    videoCodec->height = settings.height;
    videoCodec->framerate = rate;
    videoCodec->sample_aspect_ratio = AVRational{1, 1};
    if (codec->id == AV_CODEC_ID_DVVIDEO) {
        // DV is constant-rate: one tick per frame.
        videoCodec->time_base = av_inv_q(rate);
        videoCodec->pix_fmt = settings.height == 576 ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_YUV411P;
    } else {
        // MPEG-4 part 2 allows time-base denominators up to 65535; milliseconds suit both. AVI
        // counts frames at a constant rate, so there a tick is a frame (a late picture takes
        // the next tick, and the muxer fills a gap with empty frames).
        videoCodec->time_base = container == Container::AVI ? av_inv_q(rate) : AVRational{1, 1000};
        videoCodec->pix_fmt = AV_PIX_FMT_YUV420P;
        videoCodec->gop_size = std::max(1, static_cast<int>(std::lround(settings.frameRate)));
        if (codec->id == AV_CODEC_ID_H264) {
            // A file has no use for the zero-latency tune: B-frames and the lookahead make it
            // smaller for less work (a grainy 720p30 picture: 49% of a core and 5.6 MB per
            // 10 s, against 66% and 17 MB with the tune). Threads are x264's own choice, one
            // and a half frame threads per core, so 1080p keeps up on two cores.
            av_opt_set(videoCodec->priv_data, "preset", "veryfast", 0);
            av_opt_set(videoCodec->priv_data, "crf", "23", 0);
            videoCodec->thread_count = 0;
        } else {
            videoCodec->bit_rate = static_cast<int64_t>(settings.width) * settings.height * 4;
        }
        ConfigureChosenEncoder(videoCodec, codec, encoding, settings.pixelFormat);
    }
    if (settings.fieldOrder != FieldOrder::Progressive) {
        // Coded as fields, with the order in the stream and in the container's track. x264
        // takes the order only from its own options: without them it codes bottom-first
        // pictures as top-first, and players would show the fields the wrong way round.
        const bool topFirst = settings.fieldOrder == FieldOrder::TopFirst;
        videoCodec->flags |= AV_CODEC_FLAG_INTERLACED_DCT | AV_CODEC_FLAG_INTERLACED_ME;
        videoCodec->field_order = topFirst ? AV_FIELD_TT : AV_FIELD_BB;
        if (codec->id == AV_CODEC_ID_H264)
            av_opt_set(videoCodec->priv_data, "x264-params", topFirst ? "tff=1" : "bff=1", 0);
    }
    if (format->oformat->flags & AVFMT_GLOBALHEADER)
        videoCodec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (!OpenEncoder(videoCodec, codec))
        return false;
    videoStream = avformat_new_stream(format, nullptr);
    if (videoStream == nullptr)
        return false;
    videoStream->time_base = videoCodec->time_base;
    videoStream->avg_frame_rate = rate;
    if (avcodec_parameters_from_context(videoStream->codecpar, videoCodec) < 0)
        return false;
    const PixelFormatInfo* input = FindPixelFormatByFFmpeg(settings.pixelFormat);
    if (input != nullptr && videoCodec->pix_fmt == AV_PIX_FMT_YUV420P)
        inputFormat = input->pixelFormat;
    int scalerInput = settings.pixelFormat;
    const PixelFormatInfo* standInInfo =
        input != nullptr ? SwscaleFormat(input->pixelFormat) : nullptr;
    if (standInInfo != nullptr && standInInfo != input) {
        // 64 bytes spare: libyuv's vector row functions may store past the picture's end.
        if (!GetPixelFormatLayout(standInInfo->pixelFormat, size_t(settings.width),
                                  size_t(settings.height), 64, standInLayout))
            return false;
        repackedFormat = input->pixelFormat;
        standInFormat = standInInfo->pixelFormat;
        standIn.resize(standInLayout.totalSize + 64);
        scalerInput = standInInfo->ffmpegFormat;
    }
    scaler = sws_getContext(
        settings.width, settings.height, static_cast<AVPixelFormat>(scalerInput), settings.width,
        settings.height, videoCodec->pix_fmt, SWS_BILINEAR, nullptr, nullptr, nullptr);
    return scaler != nullptr;
}

// The muxers write the start timecode from the metadata: QuickTime as a timecode track beside
// the picture's, the other containers as a "timecode" tag.
void MovieRecorder::Implementation::SetStartTimecode(const std::string& timecode) {
    if (timecode.empty() || videoStream == nullptr)
        return;
    av_dict_set(&videoStream->metadata, "timecode", timecode.c_str(), 0);
    av_dict_set(&format->metadata, "timecode", timecode.c_str(), 0);
}

bool MovieRecorder::Implementation::OpenAudio(const MovieAudioSettings& settings,
                                              Container chosen) {
    if (settings.sampleRate < 1000 || settings.sampleRate > 384000 || settings.channels < 1 ||
        settings.channels > 8 || settings.bytesPerSample < 1 || settings.bytesPerSample > 4 ||
        (settings.isFloat && settings.bytesPerSample != 4))
        return false;
    audioSettings = settings;
    const AVCodecID id = ChosenSoundCodec(encoding.sound, chosen);
    const AVCodec* codec = avcodec_find_encoder(id);
    if (codec == nullptr)
        return false;
    audioCodec = avcodec_alloc_context3(codec);
    if (audioCodec == nullptr)
        return false;
    const int rate = static_cast<int>(std::lround(settings.sampleRate));
    audioCodec->sample_rate = rate;
    av_channel_layout_default(&audioCodec->ch_layout, settings.channels);
    audioCodec->sample_fmt = id == AV_CODEC_ID_AAC ? AV_SAMPLE_FMT_FLTP : AV_SAMPLE_FMT_S16;
    audioCodec->time_base = AVRational{1, rate};
    if (id == AV_CODEC_ID_AAC)
        audioCodec->bit_rate = 64000 * settings.channels;
    if (format->oformat->flags & AVFMT_GLOBALHEADER)
        audioCodec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (avcodec_open2(audioCodec, codec, nullptr) < 0)
        return false;
    audioStream = avformat_new_stream(format, nullptr);
    if (audioStream == nullptr)
        return false;
    audioStream->time_base = audioCodec->time_base;
    if (avcodec_parameters_from_context(audioStream->codecpar, audioCodec) < 0)
        return false;
    // Sound arrives as interleaved floats (normalised in AppendAudio) at the encoder's rate.
    if (swr_alloc_set_opts2(&resampler, &audioCodec->ch_layout, audioCodec->sample_fmt, rate,
                            &audioCodec->ch_layout, AV_SAMPLE_FMT_FLT, rate, 0, nullptr) < 0 ||
        swr_init(resampler) < 0)
        return false;
    if (audioCodec->frame_size > 0) {
        audioFifo = av_audio_fifo_alloc(audioCodec->sample_fmt, settings.channels,
                                        audioCodec->frame_size * 4);
        if (audioFifo == nullptr)
            return false;
    }
    return true;
}

double MovieRecorder::Implementation::RelativeTime(double seconds) {
    std::lock_guard<std::mutex> locked(timeMutex);
    if (!hasOrigin) {
        hasOrigin = true;
        origin = seconds;
    }
    return seconds - origin;
}

bool MovieRecorder::Implementation::Enqueue(AVFrame* frame, bool isVideo) {
    {
        std::lock_guard<std::mutex> locked(queueMutex);
        if (finishing || failed.load()) {
            FreeFrame(frame);
            if (isVideo)
                ++videoFramesDropped;
            return false;
        }
        if (isVideo && queuedPictures >= kMaxQueuedPictures) {
            FreeFrame(frame);
            ++videoFramesDropped;
            return false;
        }
        queue.push_back(QueuedItem{frame, isVideo});
        if (isVideo)
            ++queuedPictures;
    }
    queueChanged.notify_one();
    return true;
}

bool MovieRecorder::Implementation::AppendVideo(const uint8_t* const planes[4],
                                                const int strides[4], double seconds) {
    if (videoCodec == nullptr || videoSettings.storesJPEG || planes == nullptr ||
        strides == nullptr)
        return false;
    ++videoFramesOffered;
    if (failed.load()) {
        ++videoFramesDropped;
        return false;
    }
    const double when = RelativeTime(seconds);
    AVFrame* frame = av_frame_alloc();
    if (frame == nullptr) {
        ++videoFramesDropped;
        return false;
    }
    frame->format = videoCodec->pix_fmt;
    frame->width = videoCodec->width;
    frame->height = videoCodec->height;
    frame->interlaced_frame = videoSettings.fieldOrder != FieldOrder::Progressive;
    frame->top_field_first = videoSettings.fieldOrder == FieldOrder::TopFirst;
    if (av_frame_get_buffer(frame, 0) < 0) {
        FreeFrame(frame);
        ++videoFramesDropped;
        return false;
    }
    std::lock_guard<std::mutex> locked(videoMutex);
    // libyuv for the formats the pixel-format table gives it, libswscale for the others.
    if (inputFormat == 0 ||
        !ConvertPlanesWithLibyuv(inputFormat, planes, strides, YCbCrColour(),
                                 kCVPixelFormatType_420YpCbCr8Planar, frame->data, frame->linesize,
                                 size_t(videoCodec->width), size_t(videoCodec->height))) {
        const uint8_t* in[4] = {planes[0], planes[1], planes[2], planes[3]};
        int inStrides[4] = {strides[0], strides[1], strides[2], strides[3]};
        if (standInFormat != 0) {
            uint8_t* repacked[4] = {nullptr, nullptr, nullptr, nullptr};
            for (int plane = 0; plane < standInLayout.planeCount; ++plane) {
                repacked[plane] = standIn.data() + standInLayout.planeOffset[plane];
                inStrides[plane] = static_cast<int>(standInLayout.bytesPerRow[plane]);
            }
            if (!ConvertPlanesWithLibyuv(repackedFormat, planes, strides, YCbCrColour(),
                                         standInFormat, repacked, inStrides,
                                         size_t(videoCodec->width), size_t(videoCodec->height))) {
                FreeFrame(frame);
                ++videoFramesDropped;
                return false;
            }
            std::copy(repacked, repacked + 4, in);
            for (int plane = standInLayout.planeCount; plane < 4; ++plane)
                inStrides[plane] = 0;
        }
        sws_scale(scaler, in, inStrides, 0, videoSettings.height, frame->data, frame->linesize);
    }
    int64_t pts = std::llround(std::max(0.0, when) / av_q2d(videoCodec->time_base));
    // Encoders need strictly increasing times; a late or duplicate time moves up one tick.
    if (pts <= lastVideoPts)
        pts = lastVideoPts + 1;
    lastVideoPts = pts;
    frame->pts = pts;
    return Enqueue(frame, true);
}

// A Motion-JPEG stream of the camera's own pictures, stored as they came: no encoder, only a
// context (never opened) that gives the packets' time base.
bool MovieRecorder::Implementation::OpenJPEGStream(const MovieVideoSettings& settings) {
    videoCodec = avcodec_alloc_context3(nullptr);
    videoStream = avformat_new_stream(format, nullptr);
    if (videoCodec == nullptr || videoStream == nullptr)
        return false;
    videoCodec->time_base = AVRational{1, 1000};
    videoStream->time_base = videoCodec->time_base;
    videoStream->avg_frame_rate = av_d2q(settings.frameRate, 1001000);
    AVCodecParameters* parameters = videoStream->codecpar;
    parameters->codec_type = AVMEDIA_TYPE_VIDEO;
    parameters->codec_id = AV_CODEC_ID_MJPEG;
    parameters->width = settings.width;
    parameters->height = settings.height;
    parameters->sample_aspect_ratio = AVRational{1, 1};
    return true;
}

bool MovieRecorder::Implementation::AppendJPEG(const uint8_t* data, size_t size, double seconds) {
    if (!videoSettings.storesJPEG || videoStream == nullptr)
        return false;
    ++videoFramesOffered;
    const double when = RelativeTime(seconds);
    AVPacket* jpeg = failed.load() || data == nullptr || size == 0 || size > INT32_MAX
                         ? nullptr
                         : av_packet_alloc();
    if (jpeg == nullptr || av_new_packet(jpeg, static_cast<int>(size)) < 0) {
        av_packet_free(&jpeg);
        ++videoFramesDropped;
        return false;
    }
    memcpy(jpeg->data, data, size);
    jpeg->flags |= AV_PKT_FLAG_KEY;
    {
        std::lock_guard<std::mutex> locked(videoMutex);
        int64_t pts = std::llround(std::max(0.0, when) / av_q2d(videoCodec->time_base));
        if (pts <= lastVideoPts)
            pts = lastVideoPts + 1;
        lastVideoPts = pts;
        jpeg->pts = jpeg->dts = pts;
    }
    return EnqueueJPEG(jpeg);
}

bool MovieRecorder::Implementation::EnqueueJPEG(AVPacket* jpeg) {
    {
        std::lock_guard<std::mutex> locked(queueMutex);
        if (finishing || failed.load() || queuedPictures >= kMaxQueuedPictures) {
            av_packet_free(&jpeg);
            ++videoFramesDropped;
            return false;
        }
        queue.push_back(QueuedItem{nullptr, true, jpeg});
        ++queuedPictures;
    }
    queueChanged.notify_one();
    return true;
}

namespace {

// One sample of any supported linear-PCM layout as a float in [-1, 1].
float SampleToFloat(const uint8_t* sample, const MovieAudioSettings& settings) {
    uint8_t bytes[4] = {0, 0, 0, 0};
    const int size = settings.bytesPerSample;
    for (int i = 0; i < size; ++i)
        bytes[i] = settings.isBigEndian ? sample[size - 1 - i] : sample[i];
    if (settings.isFloat) {
        float value;
        memcpy(&value, bytes, 4);
        return std::isfinite(value) ? value : 0.0f;
    }
    uint32_t raw = 0;
    for (int i = 0; i < size; ++i)
        raw |= static_cast<uint32_t>(bytes[i]) << (8 * i);
    const int bits = 8 * size;
    int64_t value = raw;
    if (settings.isSignedInteger) {
        if (raw & (1u << (bits - 1)))
            value -= int64_t{1} << bits;
    } else {
        value -= int64_t{1} << (bits - 1);
    }
    return static_cast<float>(static_cast<double>(value) /
                              static_cast<double>(int64_t{1} << (bits - 1)));
}

} // namespace

bool MovieRecorder::Implementation::AppendAudio(const void* const buffers[], int bufferCount,
                                                int sampleFrames, double seconds) {
    if (audioCodec == nullptr || buffers == nullptr || sampleFrames <= 0 || failed.load())
        return false;
    const int channels = audioSettings.channels;
    const int needed = audioSettings.isNonInterleaved ? channels : 1;
    if (bufferCount < needed)
        return false;
    for (int i = 0; i < needed; ++i)
        if (buffers[i] == nullptr)
            return false;
    const double when = RelativeTime(seconds);
    std::lock_guard<std::mutex> locked(audioMutex);
    audioScratch.resize(static_cast<size_t>(sampleFrames) * channels);
    const int size = audioSettings.bytesPerSample;
    for (int frameIndex = 0; frameIndex < sampleFrames; ++frameIndex) {
        for (int channel = 0; channel < channels; ++channel) {
            const uint8_t* sample =
                audioSettings.isNonInterleaved
                    ? static_cast<const uint8_t*>(buffers[channel]) +
                          static_cast<size_t>(frameIndex) * size
                    : static_cast<const uint8_t*>(buffers[0]) +
                          (static_cast<size_t>(frameIndex) * channels + channel) * size;
            audioScratch[static_cast<size_t>(frameIndex) * channels + channel] =
                SampleToFloat(sample, audioSettings);
        }
    }
    AVFrame* frame = NewSoundFrame(audioCodec, sampleFrames);
    if (frame == nullptr)
        return false;
    const uint8_t* input[1] = {reinterpret_cast<const uint8_t*>(audioScratch.data())};
    if (swr_convert(resampler, frame->data, sampleFrames, input, sampleFrames) != sampleFrames) {
        FreeFrame(frame);
        return false;
    }
    // Sound is continuous: after the first buffer its time is counted in samples, unless the
    // capture clock says it has drifted by more than a tenth of a second (a gap or a restart).
    const int64_t stamped = std::llround(std::max(0.0, when) * audioCodec->sample_rate);
    if (nextAudioPts == INT64_MIN ||
        std::llabs(stamped - nextAudioPts) > audioCodec->sample_rate / 10) {
        const int64_t resumed =
            std::max(stamped, nextAudioPts == INT64_MIN ? int64_t{0} : nextAudioPts);
        // AVI times sound by its samples alone, from the file's start: silence fills what came
        // before the first sound and every gap, so that the sound after it keeps its time.
        if (container == Container::AVI &&
            !EnqueueSilence(nextAudioPts == INT64_MIN ? 0 : nextAudioPts, resumed)) {
            FreeFrame(frame);
            return false;
        }
        nextAudioPts = resumed;
    }
    frame->pts = nextAudioPts;
    nextAudioPts += sampleFrames;
    return Enqueue(frame, false);
}

bool MovieRecorder::Implementation::EnqueueSilence(int64_t from, int64_t to) {
    const int64_t piece = std::max(1, audioCodec->sample_rate / 10);
    for (int64_t at = from; at < to; at += piece) {
        const int samples = static_cast<int>(std::min(piece, to - at));
        AVFrame* silence = NewSoundFrame(audioCodec, samples);
        if (silence == nullptr)
            return false;
        av_samples_set_silence(silence->data, 0, samples, audioCodec->ch_layout.nb_channels,
                               audioCodec->sample_fmt);
        silence->pts = at;
        if (!Enqueue(silence, false))
            return false;
    }
    return true;
}

void MovieRecorder::Implementation::MarkFailed(int code) {
    int none = 0;
    if (code < 0)
        failureCode.compare_exchange_strong(none, code);
    failed = true;
    std::lock_guard<std::mutex> locked(queueMutex);
    for (QueuedItem& item : queue) {
        FreeFrame(item.frame);
        av_packet_free(&item.jpeg);
    }
    queue.clear();
    videoFramesDropped += queuedPictures;
    queuedPictures = 0;
}

bool MovieRecorder::Implementation::WritePacket(AVPacket* encoded, AVStream* stream,
                                                AVCodecContext* codec) {
    av_packet_rescale_ts(encoded, codec->time_base, stream->time_base);
    encoded->stream_index = stream->index;
    const bool isPicture = stream == videoStream;
    const int written = av_interleaved_write_frame(format, encoded);
    if (written < 0 || format->pb->error < 0) {
        MarkFailed(written < 0 ? written : format->pb->error);
        return false;
    }
    // Every encoder used here makes one packet of each picture.
    if (isPicture)
        ++videoFramesWritten;
    const double now = av_gettime_relative() / 1e6;
    if (now - lastFlush >= kFlushIntervalSeconds) {
        avio_flush(format->pb);
        lastFlush = now;
        if (format->pb->error < 0) {
            MarkFailed(format->pb->error);
            return false;
        }
    }
    bytesWritten = static_cast<uint64_t>(std::max<int64_t>(0, avio_tell(format->pb)));
    return true;
}

bool MovieRecorder::Implementation::Encode(AVCodecContext* codec, AVStream* stream,
                                           AVFrame* frame) {
    if (avcodec_send_frame(codec, frame) < 0)
        return false; // a rejected frame is skipped; the file goes on
    for (;;) {
        const int received = avcodec_receive_packet(codec, packet);
        if (received == AVERROR(EAGAIN) || received == AVERROR_EOF)
            return true;
        if (received < 0)
            return false;
        const bool ok = WritePacket(packet, stream, codec);
        av_packet_unref(packet);
        if (!ok)
            return false;
    }
}

bool MovieRecorder::Implementation::EncodeAudio(AVFrame* frame) {
    if (audioFifo == nullptr)
        return Encode(audioCodec, audioStream, frame);
    // Fixed-size encoders (AAC) take exactly frame_size samples per frame; a short last piece is
    // padded with silence.
    const int chunk = audioCodec->frame_size;
    const auto encodeHeld = [&](bool all) {
        while (av_audio_fifo_size(audioFifo) >= chunk ||
               (all && av_audio_fifo_size(audioFifo) > 0)) {
            AVFrame* piece = NewSoundFrame(audioCodec, chunk);
            if (piece == nullptr)
                return false;
            av_samples_set_silence(piece->data, 0, chunk, audioCodec->ch_layout.nb_channels,
                                   audioCodec->sample_fmt);
            av_audio_fifo_read(audioFifo, reinterpret_cast<void**>(piece->data), chunk);
            piece->pts = fifoPts;
            fifoPts += chunk;
            const bool ok = Encode(audioCodec, audioStream, piece);
            FreeFrame(piece);
            if (!ok)
                return false;
        }
        return true;
    };
    if (frame == nullptr)
        return encodeHeld(true) && Encode(audioCodec, audioStream, nullptr);
    // Sound re-timed after a gap goes on at its own time: what is held from before the gap is
    // encoded first rather than run on into it (a gap is longer than a padded piece).
    const int held = av_audio_fifo_size(audioFifo);
    if (held > 0 && frame->pts != fifoPts + held && !encodeHeld(true))
        return false;
    if (av_audio_fifo_size(audioFifo) == 0)
        fifoPts = frame->pts;
    av_audio_fifo_write(audioFifo, reinterpret_cast<void**>(frame->data), frame->nb_samples);
    return encodeHeld(false);
}

void MovieRecorder::Implementation::Run() {
    LowerThisThreadsPriority();
    for (;;) {
        QueuedItem item{nullptr, false};
        {
            std::unique_lock<std::mutex> locked(queueMutex);
            queueChanged.wait(locked, [this] { return !queue.empty() || finishing; });
            if (queue.empty())
                return; // finishing, and everything queued is written
            item = queue.front();
            queue.pop_front();
            if (item.isVideo)
                --queuedPictures;
        }
        if (item.jpeg != nullptr) {
            if (!failed.load())
                WritePacket(item.jpeg, videoStream, videoCodec);
            av_packet_free(&item.jpeg);
            continue;
        }
        if (!failed.load()) {
            if (item.isVideo) {
                if (!Encode(videoCodec, videoStream, item.frame) && !failed.load())
                    ++videoFramesDropped; // the encoder refused it; the file goes on
            } else {
                const int samples = item.frame->nb_samples;
                if (EncodeAudio(item.frame))
                    audioFramesWritten += static_cast<uint64_t>(samples);
            }
        }
        FreeFrame(item.frame);
    }
}

bool MovieRecorder::Implementation::Finish() {
    std::lock_guard<std::mutex> finishing_(finishMutex);
    if (finished)
        return completed;
    finished = true;
    {
        std::lock_guard<std::mutex> locked(queueMutex);
        finishing = true;
    }
    queueChanged.notify_all();
    if (encoder.joinable())
        encoder.join();
    if (format == nullptr || format->pb == nullptr)
        return false;
    if (!failed.load()) {
        if (videoCodec != nullptr)
            Encode(videoCodec, videoStream, nullptr);
        if (audioCodec != nullptr)
            EncodeAudio(nullptr);
    }
    // Even after a write error the trailer is attempted: what reached the disk stays playable.
    const int trailer = av_write_trailer(format);
    avio_flush(format->pb);
    const int flushed = format->pb->error;
    bytesWritten = static_cast<uint64_t>(std::max<int64_t>(0, avio_tell(format->pb)));
    const int closed = avio_closep(&format->pb);
    completed = trailer >= 0 && flushed >= 0 && closed >= 0 && !failed.load();
    if (!completed)
        MarkFailed(trailer < 0 ? trailer : flushed < 0 ? flushed : closed);
    // Every picture handed in is now either in the file or not: also those a failed file left
    // inside the encoder.
    videoFramesDropped =
        videoFramesOffered - std::min(videoFramesWritten.load(), videoFramesOffered.load());
    return completed;
}

void MovieRecorder::Implementation::Close() {
    Finish();
    if (format != nullptr && format->pb != nullptr)
        avio_closep(&format->pb);
    avformat_free_context(format);
    format = nullptr;
    avcodec_free_context(&videoCodec);
    avcodec_free_context(&audioCodec);
    sws_freeContext(scaler);
    scaler = nullptr;
    swr_free(&resampler);
    if (audioFifo != nullptr)
        av_audio_fifo_free(audioFifo);
    audioFifo = nullptr;
    av_packet_free(&packet);
}

std::unique_ptr<MovieRecorder> MovieRecorder::Create(const std::string& path,
                                                     const MovieVideoSettings* video,
                                                     const MovieAudioSettings* audio,
                                                     std::string* error) {
    return Create(path, video, audio, MovieEncoding(), error);
}

std::unique_ptr<MovieRecorder> MovieRecorder::Create(const std::string& path,
                                                     const MovieVideoSettings* video,
                                                     const MovieAudioSettings* audio,
                                                     const MovieEncoding& encoding,
                                                     std::string* error) {
    if (const std::string refusal = CannotHold(path, encoding); !refusal.empty()) {
        if (error != nullptr)
            *error = refusal;
        return nullptr;
    }
    if (path.empty() || (video == nullptr && audio == nullptr)) {
        if (error != nullptr)
            *error = path.empty() ? "no file path" : "nothing to record";
        return nullptr;
    }
    // FFmpeg's chatter (encoder settings, statistics) is not for the host's terminal.
    if (av_log_get_level() > AV_LOG_ERROR)
        av_log_set_level(AV_LOG_ERROR);
    auto implementation = std::make_unique<Implementation>();
    implementation->encoding = encoding;
    if (!implementation->Open(path, video, audio)) {
        if (error != nullptr)
            *error = !implementation->openFailure.empty()
                         ? implementation->openFailure
                         : "the container or an encoder is not available";
        // Leave no half-made file behind when the recording never started.
        const bool created =
            implementation->format != nullptr && implementation->format->pb != nullptr;
        implementation.reset();
        if (created)
            remove(path.c_str());
        return nullptr;
    }
    return std::unique_ptr<MovieRecorder>(new MovieRecorder(std::move(implementation)));
}

MovieRecorder::MovieRecorder(std::unique_ptr<Implementation> implementation)
    : implementation(std::move(implementation)) {}

MovieRecorder::~MovieRecorder() = default;

bool MovieRecorder::AppendVideo(const uint8_t* const planes[4], const int strides[4],
                                double seconds) {
    return implementation->AppendVideo(planes, strides, seconds);
}

bool MovieRecorder::AppendJPEG(const uint8_t* data, size_t size, double seconds) {
    return implementation->AppendJPEG(data, size, seconds);
}

bool MovieRecorder::AppendAudio(const void* const buffers[], int bufferCount, int sampleFrames,
                                double seconds) {
    return implementation->AppendAudio(buffers, bufferCount, sampleFrames, seconds);
}

bool MovieRecorder::Finish() {
    return implementation->Finish();
}

MovieRecorderStatistics MovieRecorder::GetStatistics() const {
    MovieRecorderStatistics statistics;
    statistics.videoFramesWritten = implementation->videoFramesWritten.load();
    statistics.videoFramesDropped = implementation->videoFramesDropped.load();
    statistics.audioFramesWritten = implementation->audioFramesWritten.load();
    statistics.bytesWritten = implementation->bytesWritten.load();
    statistics.failed = implementation->failed.load();
    return statistics;
}

std::string MovieRecorder::FailureReason() const {
    if (!implementation->failed.load())
        return std::string();
    const int code = implementation->failureCode.load();
    return code < 0 ? ErrorText(code) : "the file could not be written";
}

std::string MovieRecorder::GetVideoEncoderName() const {
    if (implementation->videoCodec == nullptr || implementation->videoCodec->codec == nullptr)
        return std::string();
    return implementation->videoCodec->codec->name;
}

std::string MovieRecorder::CannotHold(const std::string& path, const MovieEncoding& encoding) {
    struct Chosen {
        bool wanted;
        AVCodecID id;
        const char* what;
    } const chosen[] = {
        {encoding.video == MovieVideoCodec::FFV1, AV_CODEC_ID_FFV1, "FFV1 pictures"},
        {encoding.video == MovieVideoCodec::MJPEG, AV_CODEC_ID_MJPEG, "Motion-JPEG pictures"},
        {encoding.sound == MovieSoundCodec::PCM, AV_CODEC_ID_PCM_S16LE, "PCM sound"}};
    // FFmpeg's own table of what each container's muxer takes; a muxer that does not know is
    // left to try. The QuickTime muxer also writes FFV1, under the 'FFV1' tag its table leaves
    // out; FFmpeg-based players read such files.
    const auto holds = [](Container container, AVCodecID id) {
        const AVOutputFormat* muxer = av_guess_format(MuxerName(container), nullptr, nullptr);
        return muxer == nullptr || avformat_query_codec(muxer, id, FF_COMPLIANCE_NORMAL) != 0 ||
               (container == Container::QuickTime && id == AV_CODEC_ID_FFV1);
    };
    const Container container = ContainerForPath(path);
    for (const Chosen& c : chosen) {
        if (!c.wanted || holds(container, c.id))
            continue;
        std::string others;
        const std::pair<Container, const char*> known[] = {{Container::QuickTime, ".mov"},
                                                           {Container::Matroska, ".mkv"},
                                                           {Container::MP4, ".mp4"},
                                                           {Container::AVI, ".avi"}};
        std::vector<std::string> fits;
        for (const auto& [other, extension] : known)
            if (holds(other, c.id))
                fits.push_back(extension);
        for (size_t i = 0; i < fits.size(); ++i)
            others += (i == 0 ? "" : i + 1 == fits.size() ? " or " : ", ") + fits[i];
        const size_t dot = path.find_last_of('.');
        const std::string files =
            dot == std::string::npos || path.find('/', dot) != std::string::npos
                ? std::string("Files without an extension")
                : "Files ending in " + path.substr(dot);
        return files + " cannot hold " + c.what +
               (others.empty() ? std::string(".") : "; record to " + others + ".");
    }
    return std::string();
}
