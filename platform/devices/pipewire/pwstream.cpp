// A stream hands the host the daemon's own buffers where it can: a picture wraps the buffer's
// memory, mapped a second time by us (from its file descriptor, or as a second mapping of the
// shared pages the stream mapped) so that it stays readable should the stream let the buffer go
// (a link that ends frees the stream's own mappings), and the buffer is queued back to the
// stream when the picture's last reference goes. Memory that cannot be mapped again, and
// pictures whose planes come in separate blocks, are copied once. Dmabufs are not asked for;
// frames that arrive in one anyway are dropped.
#include "platform/devices/pipewire/pwstream.h"

#include <sys/mman.h>
#include <unistd.h>

#include <spa/buffer/meta.h>
#include <spa/param/audio/format-utils.h>
#include <spa/param/video/format-utils.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>

#include "platform/devices/v4l2/mjpegdecoder.h"
#include "platform/soundqueue.h"

namespace platform::pipewire {
namespace {

// How long a stream may take to agree on a format with the daemon.
constexpr double kNegotiationSeconds = 10;
// Pictures and sound waiting for the session's capture thread; beyond, the oldest are dropped.
constexpr size_t kQueuedPictures = 3;
constexpr double kQueuedSoundSeconds = 2;
// Buffers asked of the daemon: enough for the host to hold a few pictures while more arrive.
constexpr int kStreamBuffers = 8;

struct Mapping {
    void* address = MAP_FAILED;
    size_t length = 0;
    const uint8_t* data = nullptr; // the data's first byte inside the mapping
    ~Mapping() {
        if (address != MAP_FAILED)
            munmap(address, length);
    }
};

// What is kept per stream buffer (its user data).
struct BufferState {
    std::shared_ptr<Mapping> mapping; // of its first data block; null without a descriptor
    bool present = true;              // false once the stream removed the buffer
};

struct Frame {
    CVPixelBufferRef video = nullptr;
    std::vector<uint8_t> jpeg;
    std::vector<uint8_t> sound;
    size_t soundFrames = 0;
    double time = 0;
};

void ReleaseFrame(Frame& frame) {
    if (frame.video != nullptr)
        CVPixelBufferRelease(frame.video);
    frame.video = nullptr;
}

YCbCrColour ColourOf(const spa_video_info_raw& info) {
    YCbCrColour colour;
    colour.fullRange = info.color_range == SPA_VIDEO_COLOR_RANGE_0_255;
    colour.matrix = info.color_matrix == SPA_VIDEO_COLOR_MATRIX_BT709    ? YCbCrMatrix::BT709
                    : info.color_matrix == SPA_VIDEO_COLOR_MATRIX_BT2020 ? YCbCrMatrix::BT2020
                                                                         : YCbCrMatrix::BT601;
    return colour;
}

// Copies `planes` (each a first byte and a row length) into a fresh picture.
CVPixelBufferRef CopyPlanes(CVPixelBufferPool& pool, const uint8_t* const* planes,
                            const size_t* strides, int count) {
    CVPixelBufferRef copy = pool.CreatePixelBuffer();
    if (copy == nullptr)
        return nullptr;
    const PixelFormatLayout& layout = copy->layout;
    for (int p = 0; p < layout.planeCount && p < count; ++p)
        for (size_t row = 0; row < layout.planeHeight[p]; ++row)
            memcpy(copy->base + layout.planeOffset[p] + row * layout.bytesPerRow[p],
                   planes[p] + row * strides[p], std::min(strides[p], layout.bytesPerRow[p]));
    return copy;
}

class Capture : public NodeWatcher, public std::enable_shared_from_this<Capture> {
public:
    Capture(const NodeInfo& node, OSType wanted)
        : connection(Connection::Shared()), nodeId(node.id), isCamera(node.isCamera),
          decodedFormat(MjpegDecoder::DeliveredFormat(wanted)) {}

    ~Capture() override {
        pw_thread_loop_lock(connection.Loop());
        if (stream != nullptr)
            pw_stream_destroy(stream);
        pw_thread_loop_unlock(connection.Loop());
        if (pool != nullptr) {
            pool->Invalidate();
            pool->release();
        }
    }

    bool Start(const NodeInfo& node, const NodeFormat& format, FrameInterval interval) {
        pw_thread_loop* loop = connection.Loop();
        pw_thread_loop_lock(loop);
        pw_core* core = connection.Core();
        if (core == nullptr) {
            pw_thread_loop_unlock(loop);
            return false;
        }
        // The stream is linked to this node only: when it goes, the session manager must not
        // move the stream to another source.
        pw_properties* props = pw_properties_new(
            PW_KEY_MEDIA_TYPE, isCamera ? "Video" : "Audio", PW_KEY_MEDIA_CATEGORY, "Capture",
            PW_KEY_MEDIA_ROLE, isCamera ? "Camera" : "Production", PW_KEY_TARGET_OBJECT,
            node.target.c_str(), PW_KEY_NODE_DONT_RECONNECT, "true", nullptr);
        stream = pw_stream_new(core, "tavix capture", props);
        if (stream == nullptr) {
            pw_thread_loop_unlock(loop);
            return false;
        }
        static const pw_stream_events events = [] {
            pw_stream_events e{};
            e.version = PW_VERSION_STREAM_EVENTS;
            e.state_changed = OnStateChanged;
            e.param_changed = OnParamChanged;
            e.add_buffer = OnAddBuffer;
            e.remove_buffer = OnRemoveBuffer;
            e.process = OnProcess;
            return e;
        }();
        pw_stream_add_listener(stream, &listener, &events, this);
        uint8_t storage[1024];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage, sizeof(storage));
        const spa_pod* params[] = {BuildFormat(builder, format, interval)};
        const auto flags =
            static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS);
        bool started =
            pw_stream_connect(stream, PW_DIRECTION_INPUT, PW_ID_ANY, flags, params, 1) == 0;
        if (started) {
            connection.Watch(this);
            watching = true;
            const double deadline = MonotonicSeconds() + kNegotiationSeconds;
            while (!negotiated && !failed && !IsGone() && MonotonicSeconds() < deadline)
                pw_thread_loop_timed_wait(loop, 1);
            started = negotiated && !failed;
        }
        pw_thread_loop_unlock(loop);
        return started;
    }

    // Ends delivery; the stream itself goes with the last picture still held.
    void Stop() {
        pw_thread_loop_lock(connection.Loop());
        stopped = true;
        if (watching)
            connection.Unwatch(this);
        watching = false;
        if (stream != nullptr)
            pw_stream_set_active(stream, false);
        std::deque<Frame> dropped;
        {
            std::lock_guard<std::mutex> locked(mutex);
            dropped.swap(queue);
        }
        for (Frame& frame : dropped)
            ReleaseFrame(frame);
        pw_thread_loop_unlock(connection.Loop());
    }

    void NodeGone(uint32_t id) override {
        if (id == nodeId || id == SPA_ID_INVALID)
            MarkGone();
    }

    DeviceStream::Result Read(int timeoutMs, CapturedSample& sample) {
        std::unique_lock<std::mutex> locked(mutex);
        ready.wait_for(locked, std::chrono::milliseconds(timeoutMs),
                       [this] { return !queue.empty() || !sound.Empty() || gone; });
        if (!isCamera) {
            if (sound.Empty())
                return gone ? DeviceStream::Result::Gone : DeviceStream::Result::Timeout;
            current = sound.Pop(audio.mSampleRate, audio.mChannelsPerFrame);
            locked.unlock();
            sample.time = current.time;
            list.mNumberBuffers = 1;
            list.mBuffers[0].mNumberChannels = audio.mChannelsPerFrame;
            list.mBuffers[0].mDataByteSize = static_cast<UInt32>(current.bytes.size());
            list.mBuffers[0].mData = current.bytes.data();
            sample.audio = &list;
            sample.audioFormat = audio;
            return DeviceStream::Result::Sample;
        }
        if (queue.empty())
            return gone ? DeviceStream::Result::Gone : DeviceStream::Result::Timeout;
        Frame frame = std::move(queue.front());
        queue.pop_front();
        locked.unlock();
        sample.time = frame.time;
        sample.frameRate = framesPerSecond;
        if (!frame.jpeg.empty()) {
            frame.video = decoder.Decode(frame.jpeg.data(), frame.jpeg.size(), decodedFormat);
            sample.jpeg = std::move(frame.jpeg);
        }
        sample.video = frame.video;
        // A frame that cannot be used (a damaged JPEG) is skipped, not an error.
        return sample.video != nullptr ? DeviceStream::Result::Sample
                                       : DeviceStream::Result::Timeout;
    }

private:
    struct HeldPicture {
        std::shared_ptr<Capture> capture;
        pw_buffer* buffer;
        std::shared_ptr<BufferState> state;
    };

    bool IsGone() {
        std::lock_guard<std::mutex> locked(mutex);
        return gone;
    }

    void MarkGone() {
        std::lock_guard<std::mutex> locked(mutex);
        gone = true;
        ready.notify_all();
    }

    static void OnStateChanged(void* data, pw_stream_state, pw_stream_state state, const char*) {
        auto* self = static_cast<Capture*>(data);
        if (state == PW_STREAM_STATE_ERROR) {
            self->failed = true;
            self->MarkGone();
        }
        pw_thread_loop_signal(self->connection.Loop(), false);
    }

    static void OnParamChanged(void* data, uint32_t id, const spa_pod* param) {
        auto* self = static_cast<Capture*>(data);
        if (id != SPA_PARAM_Format || param == nullptr)
            return;
        if (!self->Describe(param)) {
            self->failed = true;
            pw_thread_loop_signal(self->connection.Loop(), false);
            return;
        }
        uint8_t storage[512];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage, sizeof(storage));
        const spa_pod* params[2];
        params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
            SPA_POD_CHOICE_RANGE_Int(kStreamBuffers, 2, 16), SPA_PARAM_BUFFERS_dataType,
            SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd))));
        params[1] = static_cast<const spa_pod*>(
            spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
                                       SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
                                       SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
        pw_stream_update_params(self->stream, params, 2);
        self->negotiated = true;
        pw_thread_loop_signal(self->connection.Loop(), false);
    }

    // Takes in the format the daemon agreed on; false for one this stream cannot deliver.
    bool Describe(const spa_pod* param) {
        uint32_t type = 0;
        if (spa_format_parse(param, &type, &subtype) < 0)
            return false;
        if (!isCamera) {
            spa_audio_info_raw info{};
            if (type != SPA_MEDIA_TYPE_audio || spa_format_audio_raw_parse(param, &info) < 0)
                return false;
            std::vector<NodeFormat> parsed;
            ParseEnumFormat(param, parsed);
            if (parsed.empty())
                return false;
            audio = parsed.front().format.audio;
            return true;
        }
        spa_rectangle size{};
        spa_fraction rate{};
        if (subtype == SPA_MEDIA_SUBTYPE_raw) {
            spa_video_info_raw info{};
            if (spa_format_video_raw_parse(param, &info) < 0)
                return false;
            pixelFormat = PixelFormatOfSpa(info.format);
            colour = ColourOf(info);
            size = info.size;
            rate = info.framerate;
        } else if (subtype == SPA_MEDIA_SUBTYPE_mjpg) {
            spa_video_info_mjpg info{};
            if (spa_format_video_mjpg_parse(param, &info) < 0)
                return false;
            pixelFormat = decodedFormat;
            size = info.size;
            rate = info.framerate;
        }
        if (pixelFormat == 0 || size.width == 0 || size.height == 0)
            return false;
        width = size.width;
        height = size.height;
        framesPerSecond = rate.denom != 0 ? double(rate.num) / rate.denom : 0;
        if (pool != nullptr) {
            pool->Invalidate();
            pool->release();
        }
        pool = subtype == SPA_MEDIA_SUBTYPE_raw ? new CVPixelBufferPool(pixelFormat, width, height)
                                                : nullptr;
        return true;
    }

    // Maps the buffer's first data block a second time, for pictures that wrap it: from its
    // descriptor, or, for memory the stream mapped (shared memory the daemon handed over), as
    // a second mapping of the same pages. Memory of the stream's own (not shared) is left
    // unmapped: its pictures are copied.
    static void OnAddBuffer(void*, pw_buffer* buffer) {
        auto state = std::make_shared<BufferState>();
        buffer->user_data = new std::shared_ptr<BufferState>(state);
        if (buffer->buffer->n_datas == 0)
            return;
        const spa_data& d = buffer->buffer->datas[0];
        const size_t page = size_t(sysconf(_SC_PAGESIZE));
        auto mapping = std::make_shared<Mapping>();
        size_t lead = 0;
        if (d.type == SPA_DATA_MemFd && d.fd >= 0) {
            lead = d.mapoffset % page;
            mapping->length = d.maxsize + lead;
            mapping->address = mmap(nullptr, mapping->length, PROT_READ, MAP_SHARED, int(d.fd),
                                    off_t(d.mapoffset - lead));
        } else if (d.type == SPA_DATA_MemPtr && d.data != nullptr) {
            lead = reinterpret_cast<uintptr_t>(d.data) % page;
            mapping->length = d.maxsize + lead;
            // An old size of 0 asks for a new mapping of the same shared pages.
            mapping->address =
                mremap(static_cast<uint8_t*>(d.data) - lead, 0, mapping->length, MREMAP_MAYMOVE);
        }
        if (mapping->address != MAP_FAILED) {
            mapping->data = static_cast<const uint8_t*>(mapping->address) + lead;
            state->mapping = mapping;
        }
    }

    static void OnRemoveBuffer(void*, pw_buffer* buffer) {
        auto* state = static_cast<std::shared_ptr<BufferState>*>(buffer->user_data);
        if (state == nullptr)
            return;
        (*state)->present = false;
        delete state;
        buffer->user_data = nullptr;
    }

    static void ReleasePicture(void* context, const void*) {
        auto* held = static_cast<HeldPicture*>(context);
        pw_thread_loop* loop = held->capture->connection.Loop();
        pw_thread_loop_lock(loop);
        if (held->state->present)
            pw_stream_queue_buffer(held->capture->stream, held->buffer);
        pw_thread_loop_unlock(loop);
        delete held; // may end the capture
    }

    static void OnProcess(void* data) {
        auto* self = static_cast<Capture*>(data);
        pw_buffer* buffer = pw_stream_dequeue_buffer(self->stream);
        if (buffer == nullptr)
            return;
        Frame frame;
        bool held = false;
        if (!self->stopped && self->negotiated && buffer->buffer->n_datas > 0) {
            frame.time = self->TimeOf(buffer);
            held =
                self->isCamera ? self->TakePicture(buffer, frame) : self->TakeSound(buffer, frame);
        }
        if (!held)
            pw_stream_queue_buffer(self->stream, buffer);
        if (frame.video != nullptr || !frame.jpeg.empty() || !frame.sound.empty())
            self->Queue(std::move(frame));
    }

    void Queue(Frame frame) {
        std::deque<Frame> dropped;
        {
            std::lock_guard<std::mutex> locked(mutex);
            if (!isCamera) {
                sound.Push({std::move(frame.sound), frame.soundFrames, frame.time},
                           size_t(kQueuedSoundSeconds * audio.mSampleRate));
            } else {
                queue.push_back(std::move(frame));
                while (queue.size() > kQueuedPictures) {
                    dropped.push_back(std::move(queue.front()));
                    queue.pop_front();
                }
            }
            ready.notify_one();
        }
        for (Frame& old : dropped)
            ReleaseFrame(old);
    }

    // When the buffer's first sample was taken, on the monotonic clock: the buffer's own time
    // where it is one of that clock's, else the graph cycle's that delivered it.
    double TimeOf(pw_buffer* buffer) {
        pw_time time{};
        pw_stream_get_time_n(stream, &time, sizeof(time));
        const double now = time.now > 0 ? double(time.now) / 1e9 : MonotonicSeconds();
        auto* header = static_cast<spa_meta_header*>(
            spa_buffer_find_meta_data(buffer->buffer, SPA_META_Header, sizeof(spa_meta_header)));
        if (header != nullptr && header->pts > 0 && std::fabs(double(header->pts) / 1e9 - now) < 1)
            return double(header->pts) / 1e9;
        return now;
    }

    bool TakeSound(pw_buffer* buffer, Frame& frame) {
        const spa_data& d = buffer->buffer->datas[0];
        if (d.data == nullptr || d.chunk == nullptr || audio.mBytesPerFrame == 0)
            return false;
        const uint32_t offset = std::min(d.chunk->offset % std::max(d.maxsize, 1u), d.maxsize);
        const uint32_t size = std::min(d.chunk->size, d.maxsize - offset);
        frame.soundFrames = size / audio.mBytesPerFrame;
        const auto* bytes = static_cast<const uint8_t*>(d.data) + offset;
        frame.sound.assign(bytes, bytes + frame.soundFrames * audio.mBytesPerFrame);
        // The buffer holds what was taken up to the cycle's time.
        frame.time -= double(frame.soundFrames) / audio.mSampleRate;
        return false;
    }

    // Fills frame's picture; true when it wraps the buffer, which is then queued back later.
    bool TakePicture(pw_buffer* buffer, Frame& frame) {
        const spa_buffer& spa = *buffer->buffer;
        const spa_data& d = spa.datas[0];
        if (d.chunk == nullptr || (d.data == nullptr && d.type != SPA_DATA_MemFd))
            return false;
        const uint32_t offset = std::min(d.chunk->offset % std::max(d.maxsize, 1u), d.maxsize);
        const uint32_t available =
            d.chunk->size != 0 ? std::min(d.chunk->size, d.maxsize - offset) : d.maxsize - offset;
        auto* state = static_cast<std::shared_ptr<BufferState>*>(buffer->user_data);
        const uint8_t* base = state != nullptr && (*state)->mapping != nullptr
                                  ? (*state)->mapping->data
                                  : static_cast<const uint8_t*>(d.data);
        if (base == nullptr)
            return false;
        if (subtype == SPA_MEDIA_SUBTYPE_mjpg) {
            frame.jpeg.assign(base + offset, base + offset + available);
            return false;
        }
        PixelFormatLayout layout;
        if (!GetPixelFormatLayout(pixelFormat, width, height, 1, layout))
            return false;
        if (spa.n_datas > 1 && int(spa.n_datas) >= layout.planeCount) {
            // Planes in separate blocks become one picture.
            const uint8_t* planes[3] = {};
            size_t strides[3] = {};
            for (int p = 0; p < layout.planeCount; ++p) {
                const spa_data& plane = spa.datas[p];
                if (plane.data == nullptr || plane.chunk == nullptr)
                    return false;
                planes[p] = static_cast<const uint8_t*>(plane.data) +
                            plane.chunk->offset % std::max(plane.maxsize, 1u);
                strides[p] =
                    plane.chunk->stride > 0 ? size_t(plane.chunk->stride) : layout.bytesPerRow[p];
                if (plane.chunk->offset % std::max(plane.maxsize, 1u) +
                        strides[p] * layout.planeHeight[p] >
                    plane.maxsize)
                    return false;
            }
            frame.video = CopyPlanes(*pool, planes, strides, layout.planeCount);
            if (frame.video != nullptr)
                frame.video->colour = colour;
            return false;
        }
        // One block: its later planes follow the first with the format's layout, rows scaled.
        const size_t stride = d.chunk->stride > 0 ? size_t(d.chunk->stride) : layout.bytesPerRow[0];
        if (stride < layout.bytesPerRow[0] ||
            layout.totalSize / layout.bytesPerRow[0] * stride > available)
            return false;
        const bool wrap = state != nullptr && (*state)->mapping != nullptr;
        HeldPicture* held = wrap ? new HeldPicture{shared_from_this(), buffer, *state} : nullptr;
        CVPixelBufferRef picture = nullptr;
        if (CVPixelBufferCreateWithBytes(
                nullptr, width, height, pixelFormat, const_cast<uint8_t*>(base + offset), stride,
                wrap ? ReleasePicture : nullptr, held, nullptr, &picture) != kCVReturnSuccess) {
            delete held;
            return false;
        }
        picture->colour = colour;
        if (wrap) {
            frame.video = picture;
            return true;
        }
        // Memory the stream owns alone is copied.
        const uint8_t* planes[3];
        size_t strides[3];
        for (int p = 0; p < picture->layout.planeCount; ++p) {
            planes[p] = picture->base + picture->layout.planeOffset[p];
            strides[p] = picture->layout.bytesPerRow[p];
        }
        frame.video = CopyPlanes(*pool, planes, strides, picture->layout.planeCount);
        if (frame.video != nullptr)
            frame.video->colour = colour;
        CVPixelBufferRelease(picture);
        return false;
    }

    Connection& connection;
    const uint32_t nodeId;
    const bool isCamera;
    const OSType decodedFormat;
    pw_stream* stream = nullptr;
    spa_hook listener{};
    // Under the loop's lock.
    bool watching = false, stopped = false, negotiated = false, failed = false;
    uint32_t subtype = 0;
    OSType pixelFormat = 0;
    size_t width = 0, height = 0;
    double framesPerSecond = 0;
    YCbCrColour colour;
    AudioStreamBasicDescription audio{};
    CVPixelBufferPool* pool = nullptr; // for copied pictures
    // Under `mutex`: what waits for Read.
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<Frame> queue; // pictures
    SoundQueue sound;
    bool gone = false;
    // The reader's.
    MjpegDecoder decoder;
    SoundQueue::Piece current; // the sound the last Read handed out
    AudioBufferList list{};
};

class PipeWireStream : public DeviceStream {
public:
    explicit PipeWireStream(std::shared_ptr<Capture> capture) : capture(std::move(capture)) {}
    ~PipeWireStream() override { capture->Stop(); }
    Result Read(int timeoutMs, CapturedSample& sample) override {
        return capture->Read(timeoutMs, sample);
    }

private:
    std::shared_ptr<Capture> capture;
};

} // namespace

std::unique_ptr<DeviceStream> StartCapture(const NodeInfo& node, const NodeFormat& format,
                                           FrameInterval interval, OSType wanted) {
    auto capture = std::make_shared<Capture>(node, wanted);
    if (!capture->Start(node, format, interval)) {
        capture->Stop();
        return nullptr;
    }
    return std::make_unique<PipeWireStream>(std::move(capture));
}

} // namespace platform::pipewire
