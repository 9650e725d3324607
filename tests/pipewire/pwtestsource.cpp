// A PipeWire camera and microphone of known content, for the PipeWire tests: the camera offers
// YUY2 640x480 at 30 fps and BGRx 320x240 at 15 fps and shows the eight 75% colour bars; the
// microphone gives a 1000 Hz sine at half scale, S16LE 48000 Hz stereo. Prints "ready" once the
// daemon lists both nodes; ends on SIGTERM or SIGINT or when its standard input closes.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include "support/colourbars.h"

namespace {

constexpr const char* kCameraName = "tavix-test-pw-camera";
constexpr const char* kMicrophoneName = "tavix-test-pw-microphone";
constexpr int kSampleRate = 48000, kChannels = 2;
constexpr double kToneHz = 1000;
// The microphone makes its sound in periods of this many sample frames, from a clock of its own
// as a sound card does; following the camera's clock instead, it would give 1024 frames per
// picture, 30720 a second.
constexpr uint32_t kPeriod = 1024;

struct Source {
    pw_main_loop* loop = nullptr;
    pw_core* core = nullptr;
    pw_registry* registry = nullptr;
    spa_hook registryListener{};
    bool sawCamera = false, sawMicrophone = false, toldReady = false;

    pw_stream* camera = nullptr;
    spa_hook cameraListener{};
    spa_source* frameTimer = nullptr;
    spa_video_info_raw video{};
    uint32_t stride = 0;
    uint64_t sequence = 0;

    pw_stream* microphone = nullptr;
    spa_hook microphoneListener{};
    spa_source* periodTimer = nullptr;
    double phase = 0;
};

uint64_t NowNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return uint64_t(now.tv_sec) * SPA_NSEC_PER_SEC + uint64_t(now.tv_nsec);
}

// The bars across a row, in the negotiated format; every row is the same.
void DrawBars(const Source& source, uint8_t* pixels) {
    const uint32_t width = source.video.size.width, height = source.video.size.height;
    uint8_t* row = pixels;
    for (uint32_t x = 0; x < width; ++x) {
        const uint8_t* rgb = kColourBars[x * 8 / width];
        if (source.video.format == SPA_VIDEO_FORMAT_YUY2) {
            // Each pair of pixels shares the chroma of its first, as the bars' edges are even.
            const std::array<double, 3> ycbcr = YCbCrOf(rgb, YCbCrColour{});
            row[x * 2] = uint8_t(std::lround(ycbcr[0]));
            row[x * 2 + 1] = uint8_t(std::lround(ycbcr[x % 2 == 0 ? 1 : 2]));
        } else {
            row[x * 4] = rgb[2];
            row[x * 4 + 1] = rgb[1];
            row[x * 4 + 2] = rgb[0];
            row[x * 4 + 3] = 255;
        }
    }
    for (uint32_t y = 1; y < height; ++y)
        memcpy(pixels + y * source.stride, row, source.stride);
}

void ProcessCamera(void* data) {
    auto& source = *static_cast<Source*>(data);
    pw_buffer* buffer = pw_stream_dequeue_buffer(source.camera);
    if (buffer == nullptr)
        return;
    spa_buffer* frame = buffer->buffer;
    spa_data& plane = frame->datas[0];
    const uint32_t size = source.stride * source.video.size.height;
    if (plane.data != nullptr && plane.maxsize >= size && source.stride != 0) {
        DrawBars(source, static_cast<uint8_t*>(plane.data));
        plane.chunk->offset = 0;
        plane.chunk->size = size;
        plane.chunk->stride = int32_t(source.stride);
    } else {
        plane.chunk->size = 0;
    }
    if (auto* header = static_cast<spa_meta_header*>(
            spa_buffer_find_meta_data(frame, SPA_META_Header, sizeof(spa_meta_header)))) {
        header->flags = 0;
        header->pts = int64_t(NowNanoseconds());
        header->dts_offset = 0;
        header->seq = source.sequence++;
    }
    pw_stream_queue_buffer(source.camera, buffer);
}

void CameraFormatChanged(void* data, uint32_t id, const spa_pod* param) {
    auto& source = *static_cast<Source*>(data);
    if (id != SPA_PARAM_Format || param == nullptr)
        return;
    spa_video_info_raw video{};
    if (spa_format_video_raw_parse(param, &video) < 0)
        return;
    source.video = video;
    const uint32_t bytesPerPixel = video.format == SPA_VIDEO_FORMAT_YUY2 ? 2 : 4;
    source.stride = SPA_ROUND_UP_N(video.size.width * bytesPerPixel, 4);
    const uint32_t size = source.stride * video.size.height;

    uint8_t bytes[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(bytes, sizeof bytes);
    const spa_pod* params[2];
    params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
        SPA_POD_CHOICE_RANGE_Int(4, 2, 8), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
        SPA_PARAM_BUFFERS_size, SPA_POD_Int(int32_t(size)), SPA_PARAM_BUFFERS_stride,
        SPA_POD_Int(int32_t(source.stride)), SPA_PARAM_BUFFERS_dataType,
        SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd))));
    params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
        SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
    pw_stream_update_params(source.camera, params, 2);
}

// A source that drives the graph makes its frames from a timer, every `interval` nanoseconds
// while it streams.
void RunWhileDriving(const Source& source, pw_stream* stream, pw_stream_state state,
                     spa_source* timer, uint64_t interval) {
    pw_loop* loop = pw_main_loop_get_loop(source.loop);
    if (state == PW_STREAM_STATE_STREAMING && pw_stream_is_driving(stream)) {
        timespec first{0, 1},
            every{time_t(interval / SPA_NSEC_PER_SEC), long(interval % SPA_NSEC_PER_SEC)};
        pw_loop_update_timer(loop, timer, &first, &every, false);
    } else {
        pw_loop_update_timer(loop, timer, nullptr, nullptr, false);
    }
}

// The camera's frames come at the negotiated rate.
void CameraStateChanged(void* data, pw_stream_state, pw_stream_state state, const char*) {
    auto& source = *static_cast<Source*>(data);
    const uint32_t num = source.video.framerate.num ? source.video.framerate.num : 30;
    const uint32_t denom = source.video.framerate.denom ? source.video.framerate.denom : 1;
    RunWhileDriving(source, source.camera, state, source.frameTimer,
                    SPA_NSEC_PER_SEC * denom / num);
}

void FrameDue(void* data, uint64_t) {
    auto& source = *static_cast<Source*>(data);
    pw_stream_trigger_process(source.camera);
}

void ProcessMicrophone(void* data) {
    auto& source = *static_cast<Source*>(data);
    pw_buffer* buffer = pw_stream_dequeue_buffer(source.microphone);
    if (buffer == nullptr)
        return;
    spa_data& plane = buffer->buffer->datas[0];
    if (plane.data == nullptr) {
        pw_stream_queue_buffer(source.microphone, buffer);
        return;
    }
    const uint32_t stride = sizeof(int16_t) * kChannels;
    const uint32_t frames = std::min(kPeriod, plane.maxsize / stride);
    auto* samples = static_cast<int16_t*>(plane.data);
    for (uint32_t i = 0; i < frames; ++i) {
        const auto value = int16_t(std::lround(16384 * std::sin(source.phase)));
        for (int c = 0; c < kChannels; ++c)
            samples[i * kChannels + c] = value;
        source.phase += 2 * M_PI * kToneHz / kSampleRate;
        if (source.phase >= 2 * M_PI)
            source.phase -= 2 * M_PI;
    }
    plane.chunk->offset = 0;
    plane.chunk->stride = int32_t(stride);
    plane.chunk->size = frames * stride;
    pw_stream_queue_buffer(source.microphone, buffer);
}

void MicrophoneStateChanged(void* data, pw_stream_state, pw_stream_state state, const char*) {
    auto& source = *static_cast<Source*>(data);
    RunWhileDriving(source, source.microphone, state, source.periodTimer,
                    SPA_NSEC_PER_SEC * kPeriod / kSampleRate);
}

void PeriodDue(void* data, uint64_t) {
    pw_stream_trigger_process(static_cast<Source*>(data)->microphone);
}

void NodeAppeared(void* data, uint32_t, uint32_t, const char* type, uint32_t,
                  const spa_dict* props) {
    auto& source = *static_cast<Source*>(data);
    if (strcmp(type, PW_TYPE_INTERFACE_Node) != 0 || props == nullptr)
        return;
    const char* name = spa_dict_lookup(props, PW_KEY_NODE_NAME);
    if (name == nullptr)
        return;
    source.sawCamera |= strcmp(name, kCameraName) == 0;
    source.sawMicrophone |= strcmp(name, kMicrophoneName) == 0;
    if (source.sawCamera && source.sawMicrophone && !source.toldReady) {
        source.toldReady = true;
        printf("ready\n");
        fflush(stdout);
    }
}

void Quit(void* data, int) {
    pw_main_loop_quit(static_cast<Source*>(data)->loop);
}

void InputReadable(void* data, int fd, uint32_t) {
    char bytes[256];
    if (read(fd, bytes, sizeof bytes) <= 0)
        pw_main_loop_quit(static_cast<Source*>(data)->loop);
}

const spa_pod* VideoFormat(spa_pod_builder& builder, spa_video_format format, uint32_t width,
                           uint32_t height, uint32_t fps) {
    const spa_rectangle size = SPA_RECTANGLE(width, height);
    const spa_fraction rate = SPA_FRACTION(fps, 1);
    return static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
        SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
        SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format, SPA_POD_Id(format),
        SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size), SPA_FORMAT_VIDEO_framerate,
        SPA_POD_Fraction(&rate)));
}

} // namespace

int main(int argc, char** argv) {
    pw_init(&argc, &argv);
    Source source;
    source.loop = pw_main_loop_new(nullptr);
    pw_loop* loop = pw_main_loop_get_loop(source.loop);
    pw_loop_add_signal(loop, SIGTERM, Quit, &source);
    pw_loop_add_signal(loop, SIGINT, Quit, &source);
    pw_loop_add_io(loop, STDIN_FILENO, SPA_IO_IN | SPA_IO_HUP | SPA_IO_ERR, false, InputReadable,
                   &source);
    source.frameTimer = pw_loop_add_timer(loop, FrameDue, &source);
    source.periodTimer = pw_loop_add_timer(loop, PeriodDue, &source);

    pw_context* context = pw_context_new(loop, nullptr, 0);
    source.core = pw_context_connect(context, nullptr, 0);
    if (source.core == nullptr) {
        fprintf(stderr, "No PipeWire daemon answers: %s\n", strerror(errno));
        return 1;
    }
    static const pw_registry_events registryEvents = {
        .version = PW_VERSION_REGISTRY_EVENTS, .global = NodeAppeared, .global_remove = nullptr};
    source.registry = pw_core_get_registry(source.core, PW_VERSION_REGISTRY, 0);
    pw_registry_add_listener(source.registry, &source.registryListener, &registryEvents, &source);

    static const pw_stream_events cameraEvents = [] {
        pw_stream_events events{};
        events.version = PW_VERSION_STREAM_EVENTS;
        events.state_changed = CameraStateChanged;
        events.param_changed = CameraFormatChanged;
        events.process = ProcessCamera;
        return events;
    }();
    source.camera = pw_stream_new(
        source.core, kCameraName,
        pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", PW_KEY_NODE_NAME, kCameraName,
                          PW_KEY_NODE_DESCRIPTION, "Tavix PipeWire Test Camera", PW_KEY_MEDIA_TYPE,
                          "Video", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE, "Camera",
                          nullptr));
    pw_stream_add_listener(source.camera, &source.cameraListener, &cameraEvents, &source);
    uint8_t videoBytes[1024];
    spa_pod_builder videoBuilder = SPA_POD_BUILDER_INIT(videoBytes, sizeof videoBytes);
    const spa_pod* videoFormats[2] = {
        VideoFormat(videoBuilder, SPA_VIDEO_FORMAT_YUY2, 640, 480, 30),
        VideoFormat(videoBuilder, SPA_VIDEO_FORMAT_BGRx, 320, 240, 15)};
    pw_stream_connect(source.camera, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                      pw_stream_flags(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS),
                      videoFormats, 2);

    static const pw_stream_events microphoneEvents = [] {
        pw_stream_events events{};
        events.version = PW_VERSION_STREAM_EVENTS;
        events.state_changed = MicrophoneStateChanged;
        events.process = ProcessMicrophone;
        return events;
    }();
    source.microphone = pw_stream_new(
        source.core, kMicrophoneName,
        pw_properties_new(PW_KEY_MEDIA_CLASS, "Audio/Source", PW_KEY_NODE_NAME, kMicrophoneName,
                          PW_KEY_NODE_DESCRIPTION, "Tavix PipeWire Test Microphone",
                          PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture", nullptr));
    pw_stream_add_listener(source.microphone, &source.microphoneListener, &microphoneEvents,
                           &source);
    uint8_t audioBytes[1024];
    spa_pod_builder audioBuilder = SPA_POD_BUILDER_INIT(audioBytes, sizeof audioBytes);
    spa_audio_info_raw audio{};
    audio.format = SPA_AUDIO_FORMAT_S16_LE;
    audio.rate = kSampleRate;
    audio.channels = kChannels;
    audio.position[0] = SPA_AUDIO_CHANNEL_FL;
    audio.position[1] = SPA_AUDIO_CHANNEL_FR;
    const spa_pod* audioFormat =
        spa_format_audio_raw_build(&audioBuilder, SPA_PARAM_EnumFormat, &audio);
    pw_stream_connect(source.microphone, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                      pw_stream_flags(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS),
                      &audioFormat, 1);

    pw_main_loop_run(source.loop);

    pw_stream_destroy(source.camera);
    pw_stream_destroy(source.microphone);
    pw_proxy_destroy(reinterpret_cast<pw_proxy*>(source.registry));
    pw_core_disconnect(source.core);
    pw_context_destroy(context);
    pw_main_loop_destroy(source.loop);
    pw_deinit();
    return 0;
}
