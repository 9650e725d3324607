#include "previewoverlay.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "overlayfont.h"

namespace {

const SDL_Color kText = {235, 235, 235, 255};
const SDL_Color kDim = {150, 150, 150, 255};
const SDL_Color kRed = {240, 60, 50, 255};
const SDL_Color kAmber = {250, 190, 40, 255};
const SDL_Color kGreen = {60, 210, 80, 255};
const SDL_Color kPanel = {0, 0, 0, 180};
const SDL_Color kTrack = {60, 60, 60, 255};

// Meter zones: green up to -18 dBFS, amber up to -6, red above.
constexpr double kAmberDB = -18, kRedDB = -6;
// Lines of the panel: timecode, frames, the meter's two bars, recording.
constexpr int kPanelLines = 4;

int Scale(int width, int height) {
    return std::max(1, std::min({3, width / 320, height / 180}));
}

int LineHeight(int scale) {
    return kLineHeight * scale + 2 * scale;
}

int Margin(int scale) {
    return 6 * scale;
}

void SetColor(SDL_Renderer* renderer, SDL_Color color) {
    SDL_SetRenderDrawColor(renderer, color.r, color.g, color.b, color.a);
}

void Fill(SDL_Renderer* renderer, SDL_Color color, int x, int y, int w, int h) {
    SetColor(renderer, color);
    const SDL_Rect rect = {x, y, w, h};
    SDL_RenderFillRect(renderer, &rect);
}

// Each row of each glyph as runs of set pixels, one rectangle a run.
void DrawText(SDL_Renderer* renderer, const std::string& text, int x, int y, int scale,
              SDL_Color color) {
    std::vector<SDL_Rect> runs;
    for (size_t i = 0; i < text.size(); ++i) {
        const uint8_t* rows = GlyphRows(text[i]);
        const int left = x + static_cast<int>(i) * kGlyphAdvance * scale;
        for (int row = 0; row < kGlyphHeight; ++row)
            for (int column = 0; column < kGlyphWidth;) {
                if (!((rows[row] >> (kGlyphWidth - 1 - column)) & 1)) {
                    ++column;
                    continue;
                }
                int end = column;
                while (end < kGlyphWidth && ((rows[row] >> (kGlyphWidth - 1 - end)) & 1))
                    ++end;
                runs.push_back(SDL_Rect{left + column * scale, y + row * scale,
                                        (end - column) * scale, scale});
                column = end;
            }
    }
    SetColor(renderer, color);
    SDL_RenderFillRects(renderer, runs.data(), static_cast<int>(runs.size()));
}

std::string Format(const char* format, double value) {
    char text[64];
    snprintf(text, sizeof text, format, value);
    return text;
}

std::string Duration(double seconds) {
    const long total = static_cast<long>(seconds);
    char text[32];
    snprintf(text, sizeof text, "%02ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
    return text;
}

// A horizontal bar from the floor to 0 dBFS in the meter's zone colours, with the held peak
// as a white tick.
void DrawMeterBar(SDL_Renderer* renderer, int x, int y, int w, int h, double levelDB,
                  double holdDB) {
    Fill(renderer, kTrack, x, y, w, h);
    auto at = [&](double db) {
        const double part = (db - LevelMeter::kFloorDB) / -LevelMeter::kFloorDB;
        return x + static_cast<int>(std::lround(std::clamp(part, 0.0, 1.0) * w));
    };
    const int level = at(levelDB);
    const int amber = at(kAmberDB), red = at(kRedDB);
    Fill(renderer, kGreen, x, y, std::min(level, amber) - x, h);
    if (level > amber)
        Fill(renderer, kAmber, amber, y, std::min(level, red) - amber, h);
    if (level > red)
        Fill(renderer, kRed, red, y, level - red, h);
    if (holdDB > LevelMeter::kFloorDB)
        Fill(renderer, kText, std::min(at(holdDB), x + w - 2), y, 2, h);
}

void DrawMeter(SDL_Renderer* renderer, const OverlayState& state, int x, int y, int w, int scale) {
    if (!state.hasSound) {
        DrawText(renderer, "no sound", x, y, scale, kDim);
        return;
    }
    if (!state.soundArrived) {
        DrawText(renderer, "waiting for sound", x, y, scale, kDim);
        return;
    }
    const double hold = std::max(state.holdDB[0], state.holdDB[1]);
    const std::string label =
        hold <= LevelMeter::kFloorDB ? "peak -inf dBFS" : Format("peak %5.1f dBFS", hold);
    const int labelWidth = TextWidth("peak -00.0 dBFS", scale);
    const int barWidth = std::max(10, w - labelWidth - 2 * kGlyphAdvance * scale);
    // Left above right, each half the line's glyph height.
    const int barHeight = 3 * scale;
    DrawMeterBar(renderer, x, y, barWidth, barHeight, state.levelDB[0], state.holdDB[0]);
    DrawMeterBar(renderer, x, y + barHeight + scale, barWidth, barHeight, state.levelDB[1],
                 state.holdDB[1]);
    DrawText(renderer, label, x + barWidth + kGlyphAdvance * scale, y + scale, scale,
             hold > kRedDB ? kRed : kText);
}

void DrawWave(SDL_Renderer* renderer, const std::deque<WaveColumn>& wave, SDL_Rect area) {
    const int middle = area.y + area.h / 2, half = area.h / 2 - 4;
    Fill(renderer, SDL_Color{20, 20, 20, 255}, area.x, area.y, area.w, area.h);
    SetColor(renderer, kTrack);
    SDL_RenderDrawLine(renderer, area.x, middle, area.x + area.w - 1, middle);
    // One column a pixel, the newest at the right edge, so the wave scrolls to the left.
    SetColor(renderer, kGreen);
    const int count = std::min(static_cast<int>(wave.size()), area.w);
    for (int i = 0; i < count; ++i) {
        const WaveColumn& column = wave[wave.size() - count + i];
        const int x = area.x + area.w - count + i;
        const int top = middle - static_cast<int>(std::lround(column.high * half));
        const int bottom = middle - static_cast<int>(std::lround(column.low * half));
        SDL_RenderDrawLine(renderer, x, top, x, std::max(top, bottom));
    }
}

} // namespace

SDL_Rect OverlayPictureArea(int width, int height, const OverlayState& state) {
    // A picture runs under the panel, which is translucent; a waveform stops above it.
    if (state.hasVideo)
        return SDL_Rect{0, 0, width, height};
    const int scale = Scale(width, height);
    const int panel = kPanelLines * LineHeight(scale) + 2 * Margin(scale);
    return SDL_Rect{0, 0, width, std::max(1, height - panel)};
}

void DrawOverlay(SDL_Renderer* renderer, const OverlayState& state, int width, int height) {
    SDL_SetRenderDrawBlendMode(renderer, SDL_BLENDMODE_BLEND);
    const int scale = Scale(width, height), line = LineHeight(scale), margin = Margin(scale);
    if (!state.hasVideo && state.wave != nullptr)
        DrawWave(renderer, *state.wave, OverlayPictureArea(width, height, state));

    const int panelHeight = kPanelLines * line + 2 * margin;
    const int top = height - panelHeight;
    Fill(renderer, kPanel, 0, top, width, panelHeight);
    const int x = margin;
    int y = top + margin;

    // Timecode and transport. While the tape winds the timecode is the last frame's, dimmed.
    if (!state.timecode.empty())
        DrawText(renderer, "TC " + state.timecode, x, y, scale, state.winding ? kDim : kText);
    else if (state.hasVideo)
        DrawText(renderer, "no timecode", x, y, scale, kDim);
    if (!state.transport.empty()) {
        const std::string text = state.transport;
        DrawText(renderer, text, width - margin - TextWidth(text, scale), y, scale, kAmber);
    }
    y += line;

    // Frames.
    if (state.hasVideo) {
        std::string frames =
            state.winding ? std::string("winding") : Format("%.1f fps", state.framesPerSecond);
        frames += "   dropped " + std::to_string(state.droppedFrames);
        if (!state.format.empty())
            frames += "   " + state.format;
        DrawText(renderer, frames, x, y, scale, state.droppedFrames > 0 ? kAmber : kText);
    } else {
        DrawText(renderer, "sound only", x, y, scale, kDim);
    }
    if (!state.control.empty())
        DrawText(renderer, state.control, width - margin - TextWidth(state.control, scale), y,
                 scale, kText);
    y += line;

    DrawMeter(renderer, state, x, y, width - 2 * margin, scale);
    y += line;

    // Recording.
    if (state.recording) {
        Fill(renderer, kRed, x, y, 7 * scale, 7 * scale);
        DrawText(renderer,
                 "REC " + Duration(state.recordingSeconds) + "  " + state.recordingSize + "  " +
                     state.recordingPath,
                 x + 10 * scale, y, scale, kRed);
    } else {
        DrawText(renderer, "not recording", x, y, scale, kDim);
    }

    if (!state.notice.empty()) {
        const int noticeY = top - line - scale;
        Fill(renderer, kPanel, 0, noticeY - scale, width, line + scale);
        DrawText(renderer, state.notice, x, noticeY, scale, state.noticeIsFailure ? kAmber : kText);
    }

    if (state.disconnected) {
        const int big = scale * 2;
        const std::string text = "disconnected";
        const int w = TextWidth(text, big), h = kGlyphHeight * big;
        const int left = (width - w) / 2, upper = (top - h) / 2;
        Fill(renderer, kPanel, left - 2 * big, upper - 2 * big, w + 4 * big, h + 4 * big);
        DrawText(renderer, text, left, upper, big, kRed);
    }
}
