// Device controls of real drivers through the C interface, inside scripts/devvm.sh: every kind
// of control vivid's webcam input offers, its auto gain and gain, its brightness seen in the
// pictures, its control events, its unplug while watched; and the capture mixer of snd-dummy's
// sound card. Each test leaves the controls it changed at their defaults for the tests that follow
// in the same VM.
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <map>
#include <mutex>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include "platform/pixelformats.h"
#include "support/kernelmodules.h"
#include "support/realdevices.h"
#include "support/tavix_helpers.h"
#include "support/vivid.h"

namespace {

struct Control {
    TavixControlType type;
    unsigned flags;
    long long minimum, maximum, defaultValue;
    std::map<long long, long long> menu; // index to value
};

bool Collect(const TavixControl_C* c, void* context) {
    Control& control = (*static_cast<std::map<std::string, Control>*>(context))[c->key];
    control = {c->type, c->flags, c->minimum, c->maximum, c->defaultValue, {}};
    for (unsigned i = 0; i < c->menuCount; ++i)
        control.menu[c->menu[i].index] = c->menu[i].value;
    return true;
}

std::map<std::string, Control> ControlsOf(unsigned long device) {
    std::map<std::string, Control> controls;
    EXPECT_TRUE(TavixDeviceEnumerateControls(device, Collect, &controls));
    return controls;
}

V4L2DeviceInfo Webcam() {
    for (V4L2DeviceInfo& device : V4L2ListDevices("/dev", false))
        if (device.driver == "vivid" && device.input.name.rfind("Webcam", 0) == 0)
            return device;
    return V4L2DeviceInfo();
}

#define REQUIRE_WEBCAM(webcam, scope)                                                              \
    const V4L2DeviceInfo webcam = Webcam();                                                        \
    if (webcam.path.empty()) {                                                                     \
        DEVICE_MISSING() << "no vivid webcam input (scripts/devvm.sh loads vivid)";                \
    }                                                                                              \
    DeviceScope scope(TavixDeviceGet(webcam.displayName.c_str(), TavixDeviceMediaTypeVideo));      \
    ASSERT_NE(0u, scope.handle)

// Selects the node's input as another program would; vivid keeps it after the handle closes.
void SelectInput(const std::string& node, int input) {
    const int fd = open(node.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0, ioctl(fd, VIDIOC_S_INPUT, &input));
    close(fd);
}

long long Get(unsigned long device, const char* key) {
    long long value = LLONG_MIN;
    EXPECT_TRUE(TavixDeviceGetControl(device, key, &value)) << key;
    return value;
}

// What the change callback heard, by key: the last value and flags.
struct Changes {
    std::mutex mutex;
    std::map<std::string, std::pair<long long, unsigned>> last;
    bool Heard(const std::string& key, long long value, unsigned flags) {
        std::lock_guard<std::mutex> locked(mutex);
        auto found = last.find(key);
        return found != last.end() && found->second == std::make_pair(value, flags);
    }
};

void Hear(const char* key, long long value, const char*, unsigned flags, void* context) {
    auto* changes = static_cast<Changes*>(context);
    std::lock_guard<std::mutex> locked(changes->mutex);
    changes->last[key] = {value, flags};
}

// The mean luma of the pictures below vivid's on-screen text, and how many came.
struct Luma {
    std::atomic<int> frames{0};
    std::atomic<double> mean{0};
};

void MeasureLuma(const unsigned char* pixels, unsigned long, unsigned long width,
                 unsigned long height, unsigned long bytesPerRow, const SMPTETime*, long data) {
    double sum = 0;
    for (unsigned long y = 48; y < height; ++y)
        for (unsigned long x = 0; x < width; ++x) {
            const unsigned char* bgra = pixels + y * bytesPerRow + x * 4;
            sum += 0.114 * bgra[0] + 0.587 * bgra[1] + 0.299 * bgra[2];
        }
    auto* luma = reinterpret_cast<Luma*>(data);
    luma->mean = sum / double(width * (height - 48));
    ++luma->frames;
}

} // namespace

// Every kind of control vivid has, listed as the driver describes it (menus with its gaps) and
// set by the library's one rule: a value out of range or on a gap becomes the nearest allowed.
TEST(Controls, VividsControlsOfEveryKindAreListedAndSetToTheNearestAllowedValue) {
    REQUIRE_WEBCAM(webcam, scope);
    // With the node left on its HDMI input, the webcam's controls are still its own: vivid
    // keeps a brightness per input (0..255 for the webcam, 384..639 for HDMI).
    SelectInput(webcam.path, 3);
    const auto controls = ControlsOf(scope.handle);
    const struct {
        const char* key;
        TavixControlType type;
        long long minimum, maximum;
        unsigned flags;
        long long wish, expected; // set, then read back when set
        TavixControlResult result;
    } cases[] = {
        {"brightness", TavixControlTypeInteger, 0, 255, 0, 300, 255, TavixControlResultSet},
        {"hue", TavixControlTypeInteger, -128, 128, 0, -500, -128, TavixControlResultSet},
        {"boolean", TavixControlTypeBoolean, 0, 1, 0, 0, 0, TavixControlResultSet},
        {"integer_32_bits", TavixControlTypeInteger, INT_MIN, INT_MAX, 0, 1LL << 40, INT_MAX,
         TavixControlResultSet},
        {"integer_64_bits", TavixControlTypeInteger64, LLONG_MIN, LLONG_MAX, 0, 1LL << 40,
         1LL << 40, TavixControlResultSet},
        // Items 1, 3 and 4: 2 is as near to 1 as to 3 and takes the lower.
        {"menu", TavixControlTypeMenu, 1, 4, 0, 2, 1, TavixControlResultSet},
        // Items 2 to 8, holding 2, 3, 5, 8, 13, 21, 42.
        {"integer_menu", TavixControlTypeIntegerMenu, 1, 8, 0, 1, 2, TavixControlResultSet},
        {"read_only_integer_32_bits", TavixControlTypeInteger, 0, 255, TavixControlFlagReadOnly, 7,
         0, TavixControlResultReadOnly},
        {"button", TavixControlTypeButton, 0, 0, TavixControlFlagWriteOnly, 1, 0,
         TavixControlResultSet},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        ASSERT_EQ(1u, controls.count(c.key));
        const Control& listed = controls.at(c.key);
        EXPECT_EQ(c.type, listed.type);
        EXPECT_EQ(c.minimum, listed.minimum);
        EXPECT_EQ(c.maximum, listed.maximum);
        EXPECT_EQ(c.flags, listed.flags);
        long long set = LLONG_MIN;
        EXPECT_EQ(c.result, TavixDeviceSetControl(scope.handle, c.key, c.wish, &set));
        if (c.type == TavixControlTypeButton || c.result != TavixControlResultSet)
            continue;
        EXPECT_EQ(c.expected, set);
        EXPECT_EQ(c.expected, Get(scope.handle, c.key));
        TavixDeviceSetControl(scope.handle, c.key, listed.defaultValue, nullptr);
    }
    EXPECT_EQ((std::map<long long, long long>{{1, 1}, {3, 3}, {4, 4}}), controls.at("menu").menu);
    EXPECT_EQ(7u, controls.at("integer_menu").menu.size());
    EXPECT_EQ(5, controls.at("integer_menu").menu.at(4));

    // A string of two to four characters: longer text is cut, shorter refused.
    char text[16] = "";
    EXPECT_EQ(TavixControlResultSet, TavixDeviceSetControlText(scope.handle, "string", "abcdef"));
    EXPECT_TRUE(TavixDeviceGetControlText(scope.handle, "string", text, sizeof text));
    EXPECT_STREQ("abcd", text);
    EXPECT_EQ(TavixControlResultFailed, TavixDeviceSetControlText(scope.handle, "string", "a"));
    EXPECT_TRUE(TavixDeviceGetControlText(scope.handle, "string", text, sizeof text));
    EXPECT_STREQ("abcd", text) << "unchanged by the refusal";
    TavixDeviceSetControlText(scope.handle, "string", "  ");
}

// Gain belongs to auto gain: inactive and volatile while it is on, writable once it is off; and
// the flags' change, caused by a set through the library, reaches the change callback.
TEST(Controls, GainIsVolatileUnderAutoGainAndTheCallbackHearsItsFlagsChange) {
    REQUIRE_WEBCAM(webcam, scope);
    ASSERT_EQ(1, Get(scope.handle, "gain_auto"));
    EXPECT_EQ(unsigned(TavixControlFlagInactive | TavixControlFlagVolatile),
              ControlsOf(scope.handle).at("gain").flags);
    Changes changes;
    ASSERT_TRUE(TavixDeviceSetControlChangeCallBack(scope.handle, Hear, &changes));
    EXPECT_EQ(TavixControlResultSet, TavixDeviceSetControlText(scope.handle, "gain_auto", "off"));
    const long long gain = Get(scope.handle, "gain");
    EXPECT_TRUE(WaitUntil([&] { return changes.Heard("gain", gain, 0); }, std::chrono::seconds(30)))
        << "gain active and steady";
    EXPECT_TRUE(changes.Heard("gain_auto", 0, 0));
    EXPECT_EQ(0u, ControlsOf(scope.handle).at("gain").flags);
    long long set = 0;
    EXPECT_EQ(TavixControlResultSet, TavixDeviceSetControl(scope.handle, "gain", 77, &set));
    EXPECT_EQ(77, set);
    EXPECT_EQ(77, Get(scope.handle, "gain"));
    EXPECT_TRUE(WaitUntil([&] { return changes.Heard("gain", 77, 0); }, std::chrono::seconds(30)));
    EXPECT_TRUE(TavixDeviceSetControlChangeCallBack(scope.handle, nullptr, nullptr));
    TavixDeviceSetControl(scope.handle, "gain_auto", 1, nullptr);
}

// vivid's unplug control takes the node away and brings it back once every handle on it is
// closed: a watch on its controls ends and lets go of it.
TEST(Controls, AWatchedCameraThatIsUnpluggedComesBack) {
    REQUIRE_WEBCAM(webcam, scope);
    Changes changes;
    ASSERT_TRUE(TavixDeviceSetControlChangeCallBack(scope.handle, Hear, &changes));
    const int fd = open(webcam.path.c_str(), O_RDWR);
    EXPECT_TRUE(PressButton(fd, "Disconnect"));
    close(fd);
    EXPECT_TRUE(WaitUntil([&] { return !Webcam().path.empty(); }, std::chrono::seconds(30)));
    EXPECT_TRUE(TavixDeviceSetControlChangeCallBack(scope.handle, nullptr, nullptr));
}

// Brightness set while capturing shows in the pictures that follow: darker, then brighter.
TEST(Controls, BrightnessSetWhileCapturingChangesTheMeanLumaOfThePictures) {
    REQUIRE_WEBCAM(webcam, scope);
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    Luma luma;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, MeasureLuma, reinterpret_cast<long>(&luma),
                                        kCVPixelFormatType_32BGRA, 320, 180, nullptr, 0, 0, 0, 0, 0,
                                        nullptr));
    // Pictures already made when the value changed are waited past.
    auto meanAt = [&](long long brightness) {
        EXPECT_EQ(TavixControlResultSet,
                  TavixDeviceSetControl(scope.handle, "brightness", brightness, nullptr));
        const int seen = luma.frames;
        EXPECT_TRUE(WaitUntil([&] { return luma.frames >= seen + 8; }, std::chrono::seconds(60)));
        return luma.mean.load();
    };
    const double dark = meanAt(60);
    const double bright = meanAt(200);
    TavixDeviceSetControl(scope.handle, "brightness", 128, nullptr);
    EXPECT_GT(bright, dark + 40) << "dark " << dark << ", bright " << bright;
}

// snd-dummy's card has capture volumes and switches; the loopback card has no mixer controls.
TEST(Controls, ASoundCardsCaptureVolumeIsSetOnItsInput) {
    REQUIRE_MODULES();
    ASSERT_TRUE(Modprobe("snd-dummy"));
    {
        DeviceScope scope(0);
        ASSERT_TRUE(WaitUntil([&] {
            scope.handle = TavixDeviceGet("Dummy, Dummy PCM", TavixDeviceMediaTypeSound);
            return scope.handle != 0;
        }));
        const auto controls = ControlsOf(scope.handle);
        ASSERT_EQ(1u, controls.count("mic_capture_volume"));
        const Control& volume = controls.at("mic_capture_volume");
        EXPECT_EQ(TavixControlTypeInteger, volume.type);
        EXPECT_EQ(-50, volume.minimum);
        EXPECT_EQ(100, volume.maximum);
        EXPECT_EQ(TavixControlTypeBoolean, controls.at("mic_capture_switch").type);
        long long set = 0;
        EXPECT_EQ(TavixControlResultSet,
                  TavixDeviceSetControl(scope.handle, "mic_capture_volume", 500, &set));
        EXPECT_EQ(100, set);
        EXPECT_EQ(100, Get(scope.handle, "mic_capture_volume"));
    }
    EXPECT_TRUE(Unload("snd-dummy"));
    REQUIRE_LOOPBACK(loopback);
    DeviceScope scope(TavixDeviceGet(loopback.c_str(), TavixDeviceMediaTypeSound));
    EXPECT_TRUE(ControlsOf(scope.handle).empty());
}
