// The preview window's overlay: a panel at the foot of the window with the timecode, the frame
// rate, dropped frames, the transport, a sound level meter with peak hold and the recording;
// the latest notice above it; "disconnected" across the picture; for a sound-only device, a
// scrolling waveform where the picture would be.
#pragma once

#include <SDL.h>

#include <cstdint>
#include <deque>
#include <string>

#include "previewfeed.h"

struct OverlayState {
    bool hasVideo = false;
    std::string timecode; // empty when the frames carry none
    bool winding = false; // the tape winds: no pictures come, and none are missed
    double framesPerSecond = 0;
    uint64_t droppedFrames = 0;
    std::string format;    // pixel format and size, empty before the first frame
    std::string transport; // the deck's mode; empty without transport controls
    bool hasSound = false, soundArrived = false;
    double levelDB[2] = {LevelMeter::kFloorDB, LevelMeter::kFloorDB};
    double holdDB[2] = {LevelMeter::kFloorDB, LevelMeter::kFloorDB};
    bool recording = false;
    double recordingSeconds = 0;
    std::string recordingSize, recordingPath;
    std::string control; // the control last reported changed, with its value
    std::string notice;  // empty when none is shown
    bool noticeIsFailure = false;
    bool disconnected = false;
    const std::deque<WaveColumn>* wave = nullptr; // newest last; drawn when there is no video
};

// Draws the overlay over what the renderer holds, for an output of width x height pixels.
// Returns the rectangle left above the panel, where the picture or the waveform goes.
SDL_Rect OverlayPictureArea(int width, int height, const OverlayState& state);
void DrawOverlay(SDL_Renderer* renderer, const OverlayState& state, int width, int height);
