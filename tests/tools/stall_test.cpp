// `tavix capture` across a stall of the whole process (SIGSTOP, then SIGCONT): what its status
// lines and summary say was dropped and lost. The built-in devices deliver what fell due late,
// so nothing is lost; a V4L2 camera and an ALSA input (vivid and snd-aloop, inside
// scripts/devvm.sh) drop what they could not hold, and the command must say so.
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/commandsummary.h"
#include "support/process.h"
#include "support/realdevices.h"

namespace {

const std::string kTavix = std::string(TAVIX_BINARY_DIR) + "/tavix";

// What the command reported: the largest figures of the status lines after the stall, and its
// summary's.
struct Reported {
    int status = -1;
    std::string output; // after the stall
    unsigned long statusDropped = 0;
    double statusSoundLost = 0;
    double seconds = 0, soundLost = -1;
    VideoSummary video;
    bool summaryRead = false;
};

// Runs `tavix capture CAMERA --audio MICROPHONE --seconds N ...`, stops it for `stallSeconds`
// once a status line reports a second of capture, and reads what it says afterwards.
Reported CaptureThroughAStall(std::vector<std::string> arguments, int stallSeconds) {
    Reported reported;
    int output[2];
    if (pipe(output) != 0)
        return reported;
    arguments.insert(arguments.begin(), {"tavix", "capture"});
    const pid_t child = StartChild([&] {
        dup2(output[1], STDOUT_FILENO);
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        execv(kTavix.c_str(), argv.data());
        _exit(127);
    });
    close(output[1]);
    FILE* lines = fdopen(output[0], "r");
    char line[512];
    // A second of capture with frames in it, however long the first frame takes to come.
    double seconds = 0;
    unsigned long frames = 0;
    while ((seconds < 1 || frames == 0) && fgets(line, sizeof line, lines) != nullptr)
        sscanf(line, "%lf s frames %lu", &seconds, &frames);
    kill(child, SIGSTOP);
    std::this_thread::sleep_for(std::chrono::seconds(stallSeconds)); // the stall itself
    kill(child, SIGCONT);
    while (fgets(line, sizeof line, lines) != nullptr) {
        reported.output += line;
        unsigned long dropped = 0;
        if (sscanf(line, "%*f s frames %*u dropped %lu", &dropped) == 1)
            reported.statusDropped = std::max(reported.statusDropped, dropped);
        const char* lost = strstr(line, "sound lost ");
        double soundLost = 0;
        if (lost != nullptr && sscanf(lost, "sound lost %lf", &soundLost) == 1)
            reported.statusSoundLost = std::max(reported.statusSoundLost, soundLost);
    }
    fclose(lines);
    reported.status = WaitForChild(child);
    const std::string& text = reported.output;
    const size_t captured = text.find("Captured "), audio = text.find("  audio ", captured);
    reported.video = VideoSummaryOf(text);
    reported.summaryRead =
        captured != std::string::npos && audio != std::string::npos && reported.video.frames >= 0 &&
        sscanf(text.c_str() + captured, "Captured %lf s", &reported.seconds) == 1 &&
        sscanf(text.c_str() + audio, "  audio %*u sample frames (%*f s at 48 kHz), %lf s",
               &reported.soundLost) == 1;
    return reported;
}

// The built-in camera and microphone deliver the late frames and sound when the process
// resumes, so they are not counted as dropped or lost: frames and dropped frames together are
// never more than the time owed at 30 per second, and no sound is lost.
TEST(CaptureStall, LateFramesAndSoundOfTheBuiltInDevicesAreNotCountedAsLost) {
    if (DevicesRequired())
        GTEST_SKIP() << "a host test: in the device VM this program runs for the real devices";
    const Reported r = CaptureThroughAStall(
        {"Tavix Test Camera", "--audio", "Tavix Test Microphone", "--seconds", "6"}, 1);
    ASSERT_EQ(0, r.status) << r.output;
    ASSERT_TRUE(r.summaryRead) << r.output;
    // About the time owed: fewer on a machine that cannot keep up, where the frames still owed
    // after the last one came are not counted, and a little more where its late frames come
    // back to back for most of the time and shorten the learned interval.
#if !defined(__SANITIZE_THREAD__)
    // (The ThreadSanitizer build runs the camera and the command several times slower, so on a
    // loaded machine its frame timing says nothing of the camera's.)
    EXPECT_LE(static_cast<double>(r.video.frames + r.video.dropped), 1.25 * 30 * r.seconds + 4)
        << r.output;
#endif
    EXPECT_GE(r.video.frames + r.video.dropped, 30) << r.output;
    EXPECT_LT(r.soundLost, 0.1) << r.output;
}

// A V4L2 camera holds a few frames while nobody takes them and drops the rest; an ALSA input's
// ring holds half a second. A two-second stall loses frames and more than a second of sound,
// whatever the machine's speed, and both the status lines and the summary say so.
TEST(CaptureStall, WhatRealDevicesDropInAStallIsReported) {
    const V4L2DeviceInfo camera = FindCameraOffering(V4L2_PIX_FMT_YUYV);
    if (camera.path.empty())
        DEVICE_MISSING() << "no V4L2 camera (scripts/devvm.sh has one)";
    REQUIRE_LOOPBACK(microphone);
    const Reported r = CaptureThroughAStall(
        {camera.displayName, "--audio", microphone, "--size", "320x180", "--seconds", "6"}, 2);
    ASSERT_EQ(0, r.status) << r.output;
    ASSERT_TRUE(r.summaryRead) << r.output;
    EXPECT_GT(r.video.dropped, 0) << r.output;
    EXPECT_GT(r.statusDropped, 0u) << r.output;
    // Of the two seconds, what the ring could not hold (all of it where recovering from the
    // overrun empties the ring): more than half a second, and not much more than the stall.
    EXPECT_GT(r.soundLost, 0.5) << r.output;
    EXPECT_LT(r.soundLost, 3.0) << r.output;
    EXPECT_GT(r.statusSoundLost, 0.5) << r.output;
}

} // namespace
