// Tape transport modes, timecode of captured frames and the timecode-to-milliseconds conversion.
#include <gtest/gtest.h>

#include "platform/devices/virtual/tapetransport.h"
#include "platform/foundation.h"
#include "platform/virtualdevices.h"
#include "support/tavix_helpers.h"
#include "tavix/tavixdevice.h"

namespace {

SMPTETime Timecode(int16_t hours, int16_t minutes, int16_t seconds, int16_t frames, uint32_t type) {
    SMPTETime time{};
    time.mHours = hours;
    time.mMinutes = minutes;
    time.mSeconds = seconds;
    time.mFrames = frames;
    time.mType = type;
    return time;
}

TEST(SMPTE2Milliseconds, ScalesFramesByTheNominalRateOfTheTypeAndWraps) {
    struct Case {
        SMPTETime time;
        unsigned long milliseconds;
    } cases[] = {
        {Timecode(1, 0, 0, 0, 1), 3600000},
        {Timecode(0, 0, 1, 12, 1), 1480},
        {Timecode(0, 0, 0, 12, 0), 500},
        {Timecode(0, 0, 0, 29, 4), 967},
        {Timecode(0, 0, 0, 29, 5), 967},
        {Timecode(0, 0, 0, 29, 3), 966},
        {Timecode(0, 0, 0, 29, 2), 966},
        {Timecode(0, 0, 0, 59, 7), 984},
        {Timecode(0, 0, 0, 59, 6), 983},
        {Timecode(0, 0, 0, 12, 9), 480},
        {Timecode(0, 1, 2, 0, 1), 62000},
        {Timecode(0, 0, 0, -5, 1), 0},
        // Out-of-range fields wrap in 32 bits: 32767 * 3600000 mod 2^32, and so on.
        {Timecode(32767, 0, 0, 0, 1), 1997083008},
        {Timecode(-1, 0, 0, 0, 1), 4291367296},
        {Timecode(0, 0, 0, 32767, 1), 1310680},
    };
    EXPECT_EQ(0ul, TavixDeviceSMPTE2Milliseconds(nullptr));
    for (const Case& c : cases)
        EXPECT_EQ(c.milliseconds, TavixDeviceSMPTE2Milliseconds(&c.time))
            << c.time.mHours << ":" << c.time.mMinutes << ":" << c.time.mSeconds << "."
            << c.time.mFrames << " type " << c.time.mType;
}

// A frame made late, after a transport change, shows the tape as it was when the frame fell
// due: a loaded machine must not show a stopped tape's frame as running, nor the tape twice.
TEST(TapeTransport, AFrameDueBeforeAChangeShowsTheTapeAsItWas) {
    TapeTransport tape(25);
    tape.SetState({10000, 1}, 10.0); // play
    tape.SetState({19000, 0}, 11.0); // wind at 19 times
    tape.SetState({0, 0}, 12.0);     // stop
    const TapeTransport::Frame late = tape.At(11.98), stopped = tape.At(12.02);
    EXPECT_EQ(490, late.position); // 25 played, then 0.98 s of winding at 475 a second
    EXPECT_FALSE(late.pictures) << "winding";
    EXPECT_TRUE(late.timecode.mFlags & kSMPTETimeRunning);
    EXPECT_EQ(25 + 475, stopped.position);
    EXPECT_TRUE(stopped.pictures);
    EXPECT_FALSE(stopped.timecode.mFlags & kSMPTETimeRunning);
}

// Cued an hour in, a rewinding tape runs back from there and stops only at its start.
TEST(TapeTransport, ACuedTapeRewindsFromWhereItWasPut) {
    TapeTransport tape(25);
    tape.SetState({-19000, 0}, 10.0);
    tape.Cue(3600, 10.0);
    EXPECT_EQ(-19000, tape.State(11.0).speed);
    EXPECT_EQ(90000 - 475, tape.At(11.0).position);
    EXPECT_EQ(0, tape.State(10.0 + 90000.0 / 475 + 0.01).speed) << "stopped at its start";
}

class TransportTest : public ::testing::Test {
protected:
    void SetUp() override {
        deck = TavixDeviceGet(virtualdevices::kTestDeckName, TavixDeviceMediaTypeMuxed);
        ASSERT_NE(0u, deck);
        ASSERT_TRUE(TavixDeviceOpen(deck));
        // An hour in: a reverse motion would take minutes to reach the start, where the deck
        // stops by itself and reads back as stopped.
        char id[64] = "";
        TavixDeviceGetUniqueID(deck, id, sizeof id);
        virtualdevices::CueTape(id, 3600);
    }
    void TearDown() override {
        DeviceScope scope(deck);
        virtualdevices::Reset();
    }
    unsigned long deck = 0;
};

TEST_F(TransportTest, EachModeReadsBackAsSet) {
    ASSERT_TRUE(TavixDeviceIsTransportAvailable(deck));
    const TavixDeviceTransportMode modes[] = {
        TavixDeviceTransportModePlay,
        TavixDeviceTransportModeFastForward,
        TavixDeviceTransportModeRewind,
        TavixDeviceTransportModePlayFastReverse,
        TavixDeviceTransportModePlayFastForward,
        TavixDeviceTransportModeStop,
    };
    for (TavixDeviceTransportMode mode : modes) {
        TavixDeviceSetTransportMode(deck, mode);
        EXPECT_EQ(mode, TavixDeviceGetTransportMode(deck));
    }
    // Anything beyond the settable modes is sent as stop.
    for (int mode : {6, 42}) {
        TavixDeviceSetTransportMode(deck, TavixDeviceTransportModePlay);
        TavixDeviceSetTransportMode(deck, static_cast<TavixDeviceTransportMode>(mode));
        EXPECT_EQ(TavixDeviceTransportModeStop, TavixDeviceGetTransportMode(deck)) << mode;
    }
}

// What the deck reports is classified by speed and playback mode, whoever set them.
TEST_F(TransportTest, ReportedSpeedsAreClassified) {
    QTCaptureDevice* device = TavixDevice::GetQTDevice(deck);
    ASSERT_NE(nullptr, device);
    struct Case {
        long speed;
        unsigned long playing;
        TavixDeviceTransportMode mode;
    } cases[] = {
        {10000, 0, TavixDeviceTransportModeFastForward},
        {-10000, 1, TavixDeviceTransportModePlayFastReverse},
        {5000, 1, TavixDeviceTransportModePlayFastForward},
        {-1, 0, TavixDeviceTransportModeRewind},
        {0, 1, TavixDeviceTransportModeStop},
    };
    for (const Case& c : cases) {
        auto* controls = new NSDictionary(
            {{NSNumber::numberWithLong(c.speed), QTCaptureDeviceAVCTransportControlsSpeedKey},
             {NSNumber::numberWithUnsignedLong(c.playing),
              QTCaptureDeviceAVCTransportControlsPlaybackModeKey}});
        device->setAttribute(controls, QTCaptureDeviceAVCTransportControlsAttribute);
        controls->release();
        EXPECT_EQ(c.mode, TavixDeviceGetTransportMode(deck)) << c.speed << ", " << c.playing;
    }
}

TEST_F(TransportTest, DevicesWithoutTransportAnswerUnavailable) {
    DeviceScope camera(TavixDeviceGet(virtualdevices::kTestCameraName, TavixDeviceMediaTypeVideo));
    EXPECT_FALSE(TavixDeviceIsTransportAvailable(camera.handle));
    EXPECT_EQ(TavixDeviceTransportModeUnavailable, TavixDeviceGetTransportMode(camera.handle));
    TavixDeviceSetTransportMode(camera.handle, TavixDeviceTransportModePlay); // harmless
    EXPECT_EQ(TavixDeviceTransportModeUnavailable, TavixDeviceGetTransportMode(camera.handle));
}

TEST_F(TransportTest, TheLatestFramesTimecodeAdvancesWhilePlaying) {
    SMPTETime time = Timecode(9, 9, 9, 9, 9);
    EXPECT_FALSE(TavixDeviceGetSMPTETime(deck, &time)) << "not capturing";
    EXPECT_EQ(9, time.mHours) << "left untouched";

    CallbackLog log;
    ASSERT_TRUE(TavixDeviceStartCapture(deck, LogFrame, DataOf(log), 0, 0, 0, nullptr, 0, 0, 0, 0,
                                        0, nullptr));
    TavixDeviceSetTransportMode(deck, TavixDeviceTransportModePlay);
    ASSERT_TRUE(WaitUntil([&] { return log.sawTimecode.load(); }));
    ASSERT_TRUE(TavixDeviceGetSMPTETime(deck, &time));
    EXPECT_EQ(1u, time.mType) << "a 25 fps deck";
    EXPECT_TRUE(TavixDeviceGetSMPTETime(deck, nullptr)) << "answers without copying";
    const unsigned long first = TavixDeviceSMPTE2Milliseconds(&time);
    SMPTETime later{};
    ASSERT_TRUE(WaitUntil([&] {
        return TavixDeviceGetSMPTETime(deck, &later) &&
               TavixDeviceSMPTE2Milliseconds(&later) >= first + 200;
    })) << "tape time moves at about the wall clock's pace";

    // Stopped, the tape holds still: the frames after the first couple all show one timecode.
    TavixDeviceSetTransportMode(deck, TavixDeviceTransportModeStop);
    const auto framesFrom = [&](int count) {
        const int from = log.frames;
        return WaitUntil([&] { return log.frames >= from + count; });
    };
    ASSERT_TRUE(framesFrom(2));
    ASSERT_TRUE(TavixDeviceGetSMPTETime(deck, &time));
    ASSERT_TRUE(framesFrom(5));
    ASSERT_TRUE(TavixDeviceGetSMPTETime(deck, &later));
    EXPECT_EQ(TavixDeviceSMPTE2Milliseconds(&time), TavixDeviceSMPTE2Milliseconds(&later));

    EXPECT_TRUE(TavixDeviceStopRecording(deck));
    EXPECT_FALSE(TavixDeviceGetSMPTETime(deck, &time)) << "no video delegate";
}

} // namespace
