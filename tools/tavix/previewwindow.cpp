#include "previewwindow.h"

#include <SDL.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <string>

#include "capturestats.h"
#include "devices.h"
#include "options.h"
#include "previewoverlay.h"
#include "previewsession.h"

namespace {

constexpr unsigned long FourCC(const char (&code)[5]) {
    return static_cast<unsigned long>(static_cast<unsigned char>(code[0])) << 24 |
           static_cast<unsigned long>(static_cast<unsigned char>(code[1])) << 16 |
           static_cast<unsigned long>(static_cast<unsigned char>(code[2])) << 8 |
           static_cast<unsigned long>(static_cast<unsigned char>(code[3]));
}

// Core Video formats and the SDL texture formats with the same bytes in memory. SDL's packed
// 32-bit formats name the bits of a native integer, so on a little-endian machine bytes
// B, G, R, A are ARGB8888. The 4:2:0 formats keep their chroma after the luma rows: '420v'
// and '420f' one plane of interleaved U and V as wide in bytes as a luma row, 'y420' a U and
// a V plane of half-width rows.
struct TextureFormat {
    unsigned long pixelFormat;
    Uint32 sdlFormat;
    SDL_YUV_CONVERSION_MODE yuvMode; // for Y'CbCr formats: matrix and range
};
const TextureFormat kTextureFormats[] = {
    {FourCC("2vuy"), SDL_PIXELFORMAT_UYVY, SDL_YUV_CONVERSION_BT601},
    {FourCC("yuvs"), SDL_PIXELFORMAT_YUY2, SDL_YUV_CONVERSION_BT601},
    {FourCC("420v"), SDL_PIXELFORMAT_NV12, SDL_YUV_CONVERSION_BT601},
    {FourCC("420f"), SDL_PIXELFORMAT_NV12, SDL_YUV_CONVERSION_JPEG},
    {FourCC("y420"), SDL_PIXELFORMAT_IYUV, SDL_YUV_CONVERSION_BT601},
    {FourCC("BGRA"), SDL_PIXELFORMAT_ARGB8888, SDL_YUV_CONVERSION_BT601},
    {0x20, SDL_PIXELFORMAT_BGRA8888, SDL_YUV_CONVERSION_BT601}, // ARGB, as the library codes it
    {FourCC("RGBA"), SDL_PIXELFORMAT_ABGR8888, SDL_YUV_CONVERSION_BT601},
    {0x18, SDL_PIXELFORMAT_RGB24, SDL_YUV_CONVERSION_BT601}, // 24RG, as the library codes it
    {FourCC("24BG"), SDL_PIXELFORMAT_BGR24, SDL_YUV_CONVERSION_BT601},
};

const TextureFormat* FindTextureFormat(unsigned long pixelFormat) {
    for (const TextureFormat& format : kTextureFormats)
        if (format.pixelFormat == pixelFormat)
            return &format;
    return nullptr;
}

// How long a notice stays, how often the slow figures are read, how long the wave reaches.
constexpr double kNoticeSeconds = 4;
constexpr double kPollSeconds = 0.25;
constexpr size_t kWaveColumns = 4000;
// Without new frames (a sound-only device, a winding deck) the overlay is still redrawn this
// often, so the meter moves.
constexpr double kRedrawSeconds = 1.0 / 30;

class Window {
public:
    explicit Window(PreviewSession& session) : session(session), feed(session.Feed()) {}
    ~Window() {
        if (texture != nullptr)
            SDL_DestroyTexture(texture);
        if (renderer != nullptr)
            SDL_DestroyRenderer(renderer);
        if (window != nullptr)
            SDL_DestroyWindow(window);
    }

    bool Open(std::string& error) {
        int width = 640, height = 360;
        if (session.HasVideo())
            InitialSize(width, height);
        // Hidden until the renderer exists: making one may replace the window with a new one
        // (SDL recreates it for OpenGL), and a window that shows and vanishes at once flickers
        // and misleads whoever looks for it by its title.
        window = SDL_CreateWindow(session.DeviceName().c_str(), SDL_WINDOWPOS_CENTERED,
                                  SDL_WINDOWPOS_CENTERED, width, height,
                                  SDL_WINDOW_RESIZABLE | SDL_WINDOW_HIDDEN);
        if (window == nullptr) {
            error = SDL_GetError();
            return false;
        }
        // Any renderer will do: a GPU one, or SDL's own software renderer, which also turns
        // the Y'CbCr textures into what the window shows.
        renderer = SDL_CreateRenderer(window, -1, 0);
        if (renderer == nullptr) {
            error = SDL_GetError();
            return false;
        }
        SDL_ShowWindow(window);
        return true;
    }

    void Run() {
        while (!quit) {
            SDL_Event event;
            if (SDL_WaitEventTimeout(&event, 10)) {
                Handle(event);
                while (SDL_PollEvent(&event))
                    Handle(event);
            }
            const double now = MonotonicSeconds();
            if (!disconnected && TakeNewestFrame(feed, frame, frameNumber)) {
                Upload();
                redraw = true;
            }
            TakeSoundFigures(now);
            if (now - lastPoll >= kPollSeconds)
                Poll(now);
            if (redraw || now - lastDraw >= kRedrawSeconds) {
                Draw(now);
                lastDraw = now;
                redraw = false;
            }
        }
    }

private:
    // The frame's size, made smaller to fit most of the screen.
    void InitialSize(int& width, int& height) {
        const double deadline = MonotonicSeconds() + 2;
        while (feed.stats.frames == 0 && MonotonicSeconds() < deadline)
            SDL_Delay(10);
        if (feed.stats.width == 0 || feed.stats.height == 0)
            return;
        width = static_cast<int>(feed.stats.width);
        height = static_cast<int>(feed.stats.height);
        SDL_Rect bounds;
        if (SDL_GetDisplayUsableBounds(0, &bounds) != 0)
            return;
        const double fit = std::min({1.0, 0.9 * bounds.w / width, 0.9 * bounds.h / height});
        width = std::max(1, static_cast<int>(width * fit));
        height = std::max(1, static_cast<int>(height * fit));
    }

    void Handle(const SDL_Event& event) {
        if (event.type == SDL_QUIT) {
            quit = true;
        } else if (event.type == SDL_WINDOWEVENT) {
            redraw = true;
        } else if (event.type == SDL_KEYDOWN) {
            Key(event.key);
            redraw = true;
        }
    }

    void Key(const SDL_KeyboardEvent& key) {
        const double now = MonotonicSeconds();
        const bool shift = (key.keysym.mod & KMOD_SHIFT) != 0;
        switch (key.keysym.sym) {
        case SDLK_q:
        case SDLK_ESCAPE:
            quit = true;
            break;
        case SDLK_f:
            if (!key.repeat) {
                const bool full = (SDL_GetWindowFlags(window) & SDL_WINDOW_FULLSCREEN) != 0;
                SDL_SetWindowFullscreen(window, full ? 0 : SDL_WINDOW_FULLSCREEN_DESKTOP);
            }
            break;
        case SDLK_SPACE:
            if (!key.repeat)
                session.PlayOrStop(now);
            break;
        case SDLK_LEFT:
            if (!key.repeat)
                session.SetTransport(shift ? TavixDeviceTransportModePlayFastReverse
                                           : TavixDeviceTransportModeRewind,
                                     now);
            break;
        case SDLK_RIGHT:
            if (!key.repeat)
                session.SetTransport(shift ? TavixDeviceTransportModePlayFastForward
                                           : TavixDeviceTransportModeFastForward,
                                     now);
            break;
        case SDLK_r:
            if (!key.repeat)
                session.ToggleRecording(now);
            break;
        case SDLK_s:
            if (!key.repeat)
                session.WriteSnapshot(frame, now);
            break;
        case SDLK_b:
            session.StepControl("brightness", shift ? 1 : -1, now);
            break;
        case SDLK_e:
            session.StepControl("exposure", shift ? 1 : -1, now);
            break;
        default:
            break;
        }
        lastPoll = 0; // the transport mode and the recording show at once
    }

    // Puts the frame into the texture as it is; a new format or size makes a new texture.
    void Upload() {
        const TextureFormat* format = FindTextureFormat(frame.pixelFormat);
        if (format == nullptr) {
            session.AskForShowableFormat();
            return;
        }
        if (frame.width == 0 || frame.height == 0)
            return;
        const int width = static_cast<int>(frame.width), height = static_cast<int>(frame.height);
        if (texture == nullptr || format != textureFormat || width != textureWidth ||
            height != textureHeight) {
            if (texture != nullptr)
                SDL_DestroyTexture(texture);
            SDL_SetYUVConversionMode(format->yuvMode);
            texture = SDL_CreateTexture(renderer, format->sdlFormat, SDL_TEXTUREACCESS_STREAMING,
                                        width, height);
            textureFormat = format;
            textureWidth = width;
            textureHeight = height;
            if (texture == nullptr)
                return;
        }
        const unsigned char* pixels = frame.pixels.data();
        const int pitch = static_cast<int>(frame.bytesPerRow);
        const size_t lumaSize = frame.bytesPerRow * frame.height;
        if (format->sdlFormat == SDL_PIXELFORMAT_NV12) {
            SDL_UpdateNVTexture(texture, nullptr, pixels, pitch, pixels + lumaSize, pitch);
        } else if (format->sdlFormat == SDL_PIXELFORMAT_IYUV) {
            const int chromaPitch = (pitch + 1) / 2;
            const size_t chromaSize = static_cast<size_t>(chromaPitch) * ((frame.height + 1) / 2);
            SDL_UpdateYUVTexture(texture, nullptr, pixels, pitch, pixels + lumaSize, chromaPitch,
                                 pixels + lumaSize + chromaSize, chromaPitch);
        } else {
            SDL_UpdateTexture(texture, nullptr, pixels, pitch);
        }
    }

    void TakeSoundFigures(double now) {
        TakenSound sound = TakeSound(feed);
        soundArrived = sound.arrived;
        for (int channel = 0; channel < 2; ++channel)
            meters[channel].Feed(sound.peaks[channel], now);
        wave.insert(wave.end(), sound.columns.begin(), sound.columns.end());
        while (wave.size() > kWaveColumns)
            wave.pop_front();
    }

    // The figures that change slowly, or cost a call into the library.
    void Poll(double now) {
        const uint64_t frames = feed.stats.frames;
        if (rateStart == 0 || now - rateStart >= 1) {
            if (rateStart > 0)
                framesPerSecond = static_cast<double>(frames - rateFrames) / (now - rateStart);
            rateStart = now;
            rateFrames = frames;
        }
        if (!disconnected && !session.IsConnected()) {
            // The last frame stays on the screen.
            disconnected = true;
            PrintError("\"%s\" was disconnected", session.DeviceName().c_str());
        }
        transport.clear();
        if (session.HasTransport()) {
            const TavixDeviceTransportMode mode = session.TransportMode();
            NoteTransport(feed.stats, mode, now);
            transport = TransportModeText(mode);
        }
        recordingSize = session.IsRecording() ? FileSizeText(session.RecordingPath()) : "";
        if (const unsigned long notRecorded = session.PicturesNotRecorded(); notRecorded > 0)
            recordingSize += "  " + std::to_string(notRecorded) + " not recorded";
        lastPoll = now;
        redraw = true;
    }

    OverlayState Overlay(double now) const {
        OverlayState state;
        state.hasVideo = session.HasVideo();
        if (feed.stats.hasTimecode)
            state.timecode = TimecodeText(feed.stats.timecode);
        state.winding = feed.stats.winding;
        state.framesPerSecond = framesPerSecond;
        state.droppedFrames = feed.stats.droppedFrames;
        if (textureFormat != nullptr)
            state.format = PixelFormatName(textureFormat->pixelFormat) + " " +
                           std::to_string(textureWidth) + "x" + std::to_string(textureHeight);
        state.transport = transport;
        state.hasSound = session.HasSound();
        state.soundArrived = soundArrived;
        for (int channel = 0; channel < 2; ++channel) {
            state.levelDB[channel] = meters[channel].LevelDB();
            state.holdDB[channel] = meters[channel].HoldDB();
        }
        state.recording = session.IsRecording();
        state.recordingSeconds = session.RecordingSeconds(now);
        state.recordingSize = recordingSize;
        state.recordingPath = session.RecordingPath();
        state.control = session.ChangedControl();
        if (now - session.NoticeTime() < kNoticeSeconds) {
            state.notice = session.Notice();
            state.noticeIsFailure = session.NoticeIsFailure();
        }
        state.disconnected = disconnected;
        state.wave = &wave;
        return state;
    }

    void Draw(double now) {
        int width = 0, height = 0;
        SDL_GetRendererOutputSize(renderer, &width, &height);
        SDL_SetRenderDrawColor(renderer, 0, 0, 0, 255);
        SDL_RenderClear(renderer);
        const OverlayState state = Overlay(now);
        if (texture != nullptr && state.hasVideo) {
            // Scaled to the window with its aspect kept, centred.
            const double scale = std::min(static_cast<double>(width) / textureWidth,
                                          static_cast<double>(height) / textureHeight);
            const int w = std::max(1, static_cast<int>(textureWidth * scale));
            const int h = std::max(1, static_cast<int>(textureHeight * scale));
            const SDL_Rect target = {(width - w) / 2, (height - h) / 2, w, h};
            SDL_RenderCopy(renderer, texture, nullptr, &target);
        }
        DrawOverlay(renderer, state, width, height);
        SDL_RenderPresent(renderer);
    }

    PreviewSession& session;
    PreviewFeed& feed;
    SDL_Window* window = nullptr;
    SDL_Renderer* renderer = nullptr;
    SDL_Texture* texture = nullptr;
    const TextureFormat* textureFormat = nullptr;
    int textureWidth = 0, textureHeight = 0;

    CapturedFrame frame; // on the screen; a snapshot writes it
    uint64_t frameNumber = 0;
    LevelMeter meters[2];
    bool soundArrived = false;
    std::deque<WaveColumn> wave;
    double framesPerSecond = 0, rateStart = 0;
    uint64_t rateFrames = 0;
    std::string transport, recordingSize;
    bool disconnected = false;
    bool quit = false, redraw = true;
    double lastPoll = 0, lastDraw = 0;
};

} // namespace

bool WindowShowsPixelFormat(unsigned long pixelFormat) {
    return FindTextureFormat(pixelFormat) != nullptr;
}

std::string WindowPixelFormatList() {
    std::string list;
    for (const TextureFormat& format : kTextureFormats)
        list += (list.empty() ? "" : ", ") + PixelFormatName(format.pixelFormat);
    return list;
}

bool ConnectToDisplay(std::string& error) {
    // Only the window system the environment names is tried, so that another one's library
    // does not complain about a missing session.
    const char* chosen = getenv("SDL_VIDEODRIVER");
    const char* x11 = getenv("DISPLAY");
    const char* wayland = getenv("WAYLAND_DISPLAY");
    const bool hasX11 = x11 != nullptr && *x11 != '\0';
    const bool hasWayland = wayland != nullptr && *wayland != '\0';
    if ((chosen == nullptr || *chosen == '\0') && hasX11 != hasWayland)
        SDL_SetHint(SDL_HINT_VIDEODRIVER, hasX11 ? "x11" : "wayland");
    if (SDL_Init(SDL_INIT_VIDEO) != 0) {
        error = SDL_GetError();
        return false;
    }
    // When neither window system answers, SDL goes on to drivers that show nothing to anyone
    // (a bare console, off-screen buffers); only a driver chosen through SDL_VIDEODRIVER is
    // taken at its word.
    const char* driver = SDL_GetCurrentVideoDriver();
    const bool windowSystem =
        driver != nullptr && (SDL_strcmp(driver, "x11") == 0 || SDL_strcmp(driver, "wayland") == 0);
    if (!windowSystem && (chosen == nullptr || *chosen == '\0')) {
        error = std::string("the display does not answer; SDL fell back to its ") +
                (driver != nullptr ? driver : "?") + " driver";
        SDL_Quit();
        return false;
    }
    return true;
}

bool RunPreviewWindow(PreviewSession& session, std::string& error) {
    bool opened;
    {
        Window window(session);
        opened = window.Open(error);
        if (opened)
            window.Run();
    }
    SDL_Quit();
    return opened;
}
