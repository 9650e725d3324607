// A device's controls through the C interface, on the test camera: what a host sees listed, what
// each kind of change comes to, the picture and the change callback while capturing, and many
// threads at once.
#include <gtest/gtest.h>
#include <algorithm>
#include <climits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/devicecontrols.h"
#include "support/tavix_helpers.h"

namespace {

// A control as one line: key, type, range and step, default, flags, and menu items by index.
bool Describe(const TavixControl_C* control, void* context) {
    std::string line = std::string(control->key) + " type " + std::to_string(control->type) + ", " +
                       std::to_string(control->minimum) + ".." + std::to_string(control->maximum) +
                       " step " + std::to_string(control->step) + ", default " +
                       std::to_string(control->defaultValue) + ", flags " +
                       std::to_string(control->flags);
    for (unsigned int i = 0; i < control->menuCount; ++i)
        line += (i == 0 ? ", menu " : "; ") + std::to_string(control->menu[i].index) + " " +
                control->menu[i].name;
    static_cast<std::vector<std::string>*>(context)->push_back(line);
    return true;
}

std::vector<std::string> ControlsOf(unsigned long handle) {
    std::vector<std::string> controls;
    EXPECT_TRUE(TavixDeviceEnumerateControls(handle, Describe, &controls));
    return controls;
}

// The luma of the last picture ('2vuy': luma in every odd byte): averaged, darkest, brightest.
struct Pictures {
    std::atomic<int> count{0};
    std::atomic<double> meanLuma{0};
    std::atomic<int> minLuma{0}, maxLuma{0};
};

void MeasureLuma(const unsigned char* pixels, unsigned long, unsigned long width,
                 unsigned long height, unsigned long bytesPerRow, const SMPTETime*, long data) {
    auto& pictures = *reinterpret_cast<Pictures*>(data);
    uint64_t sum = 0;
    int darkest = 255, brightest = 0;
    for (unsigned long row = 0; row < height; ++row)
        for (unsigned long x = 0; x < width; ++x) {
            const int luma = pixels[row * bytesPerRow + 2 * x + 1];
            sum += luma;
            darkest = std::min(darkest, luma);
            brightest = std::max(brightest, luma);
        }
    pictures.meanLuma = double(sum) / double(width * height);
    pictures.minLuma = darkest;
    pictures.maxLuma = brightest;
    ++pictures.count;
}

bool StartCapture(unsigned long handle, Pictures& pictures) {
    return TavixDeviceOpen(handle) &&
           TavixDeviceStartCapture(handle, MeasureLuma, reinterpret_cast<long>(&pictures),
                                   kCVPixelFormatType_422YpCbCr8, 320, 240, nullptr, 0, 0, 0, 0, 0,
                                   nullptr);
}

// The changes the callback was told of, and whether any came on the test's own thread.
struct Changes {
    struct Change {
        std::string key;
        long long value;
        unsigned int flags;
    };
    std::mutex mutex;
    std::vector<Change> seen;
    std::thread::id testThread = std::this_thread::get_id();
    bool onTestThread = false;

    size_t Count(const std::string& key, unsigned int flags) {
        std::lock_guard<std::mutex> locked(mutex);
        return size_t(std::count_if(seen.begin(), seen.end(), [&](const Change& change) {
            return change.key == key && change.flags == flags;
        }));
    }
    bool Saw(const std::string& key, long long value) {
        std::lock_guard<std::mutex> locked(mutex);
        return std::any_of(seen.begin(), seen.end(), [&](const Change& change) {
            return change.key == key && change.value == value;
        });
    }
};

void RecordChange(const char* key, long long value, const char*, unsigned int flags,
                  void* context) {
    auto& changes = *static_cast<Changes*>(context);
    std::lock_guard<std::mutex> locked(changes.mutex);
    changes.seen.push_back({key, value, flags});
    changes.onTestThread = changes.onTestThread || std::this_thread::get_id() == changes.testThread;
}

class Controls : public ::testing::Test {
protected:
    void SetUp() override {
        camera.handle = TavixDeviceGet(virtualdevices::kTestCameraName, TavixDeviceMediaTypeVideo);
        ASSERT_NE(0ul, camera.handle);
    }
    long long Value(const char* key) {
        long long value = -12345;
        EXPECT_TRUE(TavixDeviceGetControl(camera.handle, key, &value)) << key;
        return value;
    }
    std::string LastError() {
        char text[512];
        TavixDeviceGetLastError(camera.handle, text, sizeof text);
        return text;
    }
    void TearDown() override { virtualdevices::Reset(); }
    // Declared before the camera, so capture stops and the callback goes before they do.
    Pictures pictures;
    Changes changes;
    DeviceScope camera{0};
};

TEST_F(Controls, TheTestCameraListsItsControlsInOrder) {
    // Types: 1 integer, 3 menu, 4 button; flags: 2 inactive, 4 volatile, 8 write-only.
    const std::vector<std::string> expected = {
        "brightness type 1, 0..255 step 1, default 128, flags 0",
        "contrast type 1, 0..255 step 1, default 128, flags 0",
        "saturation type 1, 0..255 step 1, default 128, flags 0",
        "hue type 1, -180..180 step 1, default 0, flags 0",
        "test_pattern type 3, 0..3 step 1, default 0, flags 0, menu 0 Colour Bars; 1 Grey Bars; "
        "3 Black",
        "exposure_auto type 3, 1..3 step 1, default 3, flags 0, menu 1 Manual Mode; 3 Aperture "
        "Priority Mode",
        "exposure type 1, 1..10000 step 1, default 333, flags 2",
        "gain type 1, 0..255 step 1, default 32, flags 6",
        "restore_defaults type 4, 0..0 step 1, default 0, flags 8",
    };
    EXPECT_EQ(expected, ControlsOf(camera.handle));
    // The other built-in devices have none.
    const unsigned long microphone =
        TavixDeviceGet(virtualdevices::kTestMicrophoneName, TavixDeviceMediaTypeSound);
    EXPECT_TRUE(ControlsOf(microphone).empty());
    EXPECT_FALSE(TavixDeviceSetControlChangeCallBack(microphone, RecordChange, nullptr));
    TavixDeviceRelease(microphone);
    EXPECT_FALSE(TavixDeviceEnumerateControls(0, Describe, nullptr));
    // A camera that is gone has no controls to read.
    char id[256];
    ASSERT_TRUE(TavixDeviceGetUniqueID(camera.handle, id, sizeof id));
    virtualdevices::SetConnected(id, false);
    EXPECT_FALSE(TavixDeviceEnumerateControls(camera.handle, Describe, nullptr));
}

TEST_F(Controls, ChangesComeToTheNearestAllowedValueOrAReason) {
    struct Case {
        const char* key;
        const char* text; // set as text when not null, otherwise `value` as a number
        long long value;  // asked for
        TavixControlResult result;
        long long expected; // read back afterwards
    };
    const Case cases[] = {
        {"brightness", nullptr, -5, TavixControlResultSet, 0},
        {"brightness", nullptr, 300, TavixControlResultSet, 255},
        {"brightness", "42", 0, TavixControlResultSet, 42},
        {"hue", nullptr, -1000, TavixControlResultSet, -180},
        {"test_pattern", nullptr, 2, TavixControlResultSet, 1}, // the gap: halfway, the lower
        {"test_pattern", "black", 0, TavixControlResultSet, 3},
        {"test_pattern", nullptr, 9, TavixControlResultSet, 3},
        {"exposure", nullptr, 500, TavixControlResultInactive, 333},
        {"gain", nullptr, 100, TavixControlResultInactive, 32},
        {"exposure_auto", "manual", 0, TavixControlResultSet, 1},
        {"exposure", nullptr, 500, TavixControlResultSet, 500},
        {"gain", nullptr, 100, TavixControlResultSet, 100},
        {"exposure_auto", "Aperture Priority Mode", 0, TavixControlResultSet, 3},
        {"exposure_auto", "nonsense", 0, TavixControlResultWrongType, 3},
        {"exposure_auto", "on", 0, TavixControlResultWrongType, 3},
        {"no_such_control", nullptr, 1, TavixControlResultUnknownKey, 0},
        {"restore_defaults", nullptr, 7, TavixControlResultSet, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.key) + " " + (c.text ? c.text : std::to_string(c.value)));
        long long set = -1;
        const TavixControlResult result =
            c.text != nullptr ? TavixDeviceSetControlText(camera.handle, c.key, c.text)
                              : TavixDeviceSetControl(camera.handle, c.key, c.value, &set);
        EXPECT_EQ(c.result, result);
        EXPECT_EQ(result != TavixControlResultSet, !LastError().empty());
        if (c.result == TavixControlResultUnknownKey || std::string(c.key) == "restore_defaults")
            continue;
        EXPECT_EQ(c.expected, Value(c.key));
        if (c.text == nullptr && result == TavixControlResultSet) {
            EXPECT_EQ(c.expected, set);
        }
    }
    EXPECT_EQ(128, Value("brightness")) << "restore_defaults";
    EXPECT_EQ(TavixControlResultInvalid, TavixDeviceSetControl(camera.handle, nullptr, 1, nullptr));
    EXPECT_EQ(TavixControlResultInvalid, TavixDeviceSetControl(0, "brightness", 1, nullptr));
    EXPECT_EQ(TavixControlResultInvalid,
              TavixDeviceSetControlText(camera.handle, "brightness", "\xC3("));
}

TEST_F(Controls, WhileCapturingChangesShowInThePicturesAndReachTheCallback) {
    ASSERT_TRUE(TavixDeviceSetControlChangeCallBack(camera.handle, RecordChange, &changes));
    ASSERT_TRUE(StartCapture(camera.handle, pictures));
    const unsigned int automaticGain = TavixControlFlagInactive | TavixControlFlagVolatile;
    EXPECT_TRUE(WaitUntil([&] { return changes.Count("gain", automaticGain) >= 2; }))
        << "the gain moves by itself under automatic exposure";

    ASSERT_TRUE(WaitUntil([&] { return pictures.count >= 3; }));
    const double before = pictures.meanLuma;
    EXPECT_EQ(16, pictures.minLuma) << "at the defaults the picture is as it always was";
    EXPECT_EQ(235, pictures.maxLuma);
    std::thread([&] {
        EXPECT_EQ(TavixControlResultSet,
                  TavixDeviceSetControl(camera.handle, "brightness", 200, nullptr));
    }).join();
    EXPECT_TRUE(WaitUntil([&] { return pictures.meanLuma > before + 30; }))
        << before << " then " << pictures.meanLuma;
    EXPECT_TRUE(WaitUntil([&] { return changes.Saw("brightness", 200); }));

    EXPECT_EQ(TavixControlResultSet,
              TavixDeviceSetControlText(camera.handle, "test_pattern", "Black"));
    EXPECT_EQ(TavixControlResultSet, TavixDeviceSetControlText(camera.handle, "brightness", "128"));
    EXPECT_TRUE(WaitUntil([&] { return pictures.maxLuma == 16; }))
        << "black, brightest luma " << pictures.maxLuma;

    // Manual exposure makes exposure and gain active, and the gain steady.
    EXPECT_EQ(TavixControlResultSet,
              TavixDeviceSetControlText(camera.handle, "exposure_auto", "manual"));
    EXPECT_TRUE(WaitUntil([&] { return changes.Count("exposure", 0) == 1; }));
    ASSERT_TRUE(WaitUntil([&] { return changes.Count("gain", 0) == 1; }));
    const int picturesThen = pictures.count;
    ASSERT_TRUE(WaitUntil([&] { return pictures.count >= picturesThen + 45; }));
    EXPECT_EQ(1u, changes.Count("gain", 0));
    std::lock_guard<std::mutex> locked(changes.mutex);
    EXPECT_FALSE(changes.onTestThread) << "changes come on a thread of the device's";
}

// A callback that clears itself on its first call.
struct SelfClearing {
    unsigned long handle;
    std::atomic<int> calls{0};
    std::atomic<bool> cleared{false};
};

void ClearFromInside(const char*, long long, const char*, unsigned int, void* context) {
    auto& state = *static_cast<SelfClearing*>(context);
    ++state.calls;
    state.cleared = TavixDeviceSetControlChangeCallBack(state.handle, nullptr, nullptr);
}

// A callback slow enough that a clearing call from outside meets it running.
struct SlowCalls {
    std::atomic<bool> inside{false};
    std::atomic<int> calls{0};
};

void CallSlowly(const char*, long long, const char*, unsigned int, void* context) {
    auto& state = *static_cast<SlowCalls*>(context);
    state.inside = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    state.inside = false;
    ++state.calls;
}

TEST_F(Controls, TheChangeCallbackCanBeClearedFromInsideItAndWhileItRuns) {
    SelfClearing selfClearing;
    selfClearing.handle = camera.handle;
    ASSERT_TRUE(TavixDeviceSetControlChangeCallBack(camera.handle, ClearFromInside, &selfClearing));
    TavixDeviceSetControl(camera.handle, "brightness", 1, nullptr);
    ASSERT_TRUE(WaitUntil([&] { return selfClearing.cleared.load(); }));
    TavixDeviceSetControl(camera.handle, "brightness", 2, nullptr);
    ASSERT_TRUE(TavixDeviceSetControlChangeCallBack(camera.handle, RecordChange, &changes));
    TavixDeviceSetControl(camera.handle, "brightness", 3, nullptr);
    EXPECT_TRUE(WaitUntil([&] { return changes.Saw("brightness", 3); }));
    EXPECT_EQ(1, selfClearing.calls);
    EXPECT_FALSE(changes.Saw("brightness", 2)) << "told after it was cleared";

    SlowCalls slow;
    ASSERT_TRUE(TavixDeviceSetControlChangeCallBack(camera.handle, CallSlowly, &slow));
    std::atomic<bool> stop{false};
    std::thread setter([&] {
        for (long long value = 0; !stop; ++value)
            TavixDeviceSetControl(camera.handle, "contrast", value % 256, nullptr);
    });
    EXPECT_TRUE(WaitUntil([&] { return slow.calls >= 3; }));
    EXPECT_TRUE(TavixDeviceSetControlChangeCallBack(camera.handle, nullptr, nullptr));
    EXPECT_FALSE(slow.inside) << "a call still ran after clearing returned";
    const int calls = slow.calls;
    stop = true;
    setter.join();
    EXPECT_EQ(calls, slow.calls);
}

TEST_F(Controls, ManyThreadsUseTheControlsOfOneCapturingDevice) {
    // A change made before capture applies from the first picture.
    TavixDeviceSetControlText(camera.handle, "test_pattern", "black");
    ASSERT_TRUE(StartCapture(camera.handle, pictures));
    ASSERT_TRUE(WaitUntil([&] { return pictures.count >= 1; }));
    EXPECT_EQ(16, pictures.maxLuma);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            Changes own;
            for (int i = 0; i < 200; ++i) {
                const char* key = t % 2 == 0 ? "saturation" : "hue";
                long long value = 0;
                if (TavixDeviceSetControl(camera.handle, key, i, nullptr) !=
                        TavixControlResultSet ||
                    !TavixDeviceGetControl(camera.handle, key, &value) ||
                    TavixDeviceSetControlText(camera.handle, "test_pattern", "grey") !=
                        TavixControlResultSet)
                    ++failures;
                if (i % 50 == t) {
                    ControlsOf(camera.handle);
                    TavixDeviceSetControlChangeCallBack(camera.handle, RecordChange, &own);
                    TavixDeviceSetControlChangeCallBack(camera.handle, nullptr, nullptr);
                }
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, failures);
}

// The rules every backend's controls share, at the edges the test camera does not reach.
TEST(ControlRules, KeysNearestValuesAndText) {
    using platform::ControlType;
    using platform::DeviceControl;
    for (const auto& c : std::vector<std::pair<const char*, const char*>>{
             {"Test Pattern", "test_pattern"},
             {"Exposure Time, Absolute", "exposure_time_absolute"},
             {"  White Balance (K)--", "white_balance_k"},
             {"-- ", "control"}})
        EXPECT_EQ(c.second, platform::ControlKeyFromName(c.first));
    std::vector<DeviceControl> same(3);
    for (DeviceControl& control : same)
        control.key = "gain";
    platform::MakeControlKeysUnique(same);
    EXPECT_EQ("gain_2", same[1].key);
    EXPECT_EQ("gain_3", same[2].key);

    DeviceControl wide;
    wide.type = ControlType::Integer64;
    wide.minimum = LLONG_MIN;
    wide.maximum = LLONG_MAX;
    wide.step = 1ll << 62;
    DeviceControl gapped;
    gapped.type = ControlType::Menu;
    gapped.menu = {{LLONG_MIN, "low", 0}, {LLONG_MAX, "high", 0}};
    DeviceControl flag;
    flag.type = ControlType::Boolean;
    struct Nearest {
        const DeviceControl& control;
        long long wish, expected;
    };
    for (const Nearest& c : std::vector<Nearest>{{wide, LLONG_MAX, LLONG_MAX},
                                                 {wide, LLONG_MAX - 1, 1ll << 62},
                                                 {wide, 0, 0},
                                                 {wide, (1ll << 61) - 1, 0},
                                                 {gapped, 0, LLONG_MAX},
                                                 {gapped, -1, LLONG_MIN},
                                                 {flag, -7, 1}})
        EXPECT_EQ(c.expected, platform::NearestAllowedValue(c.control, c.wish)) << c.wish;

    DeviceControl modes;
    modes.type = ControlType::IntegerMenu;
    modes.menu = {{0, "Manual Exposure", 0}, {1, "Manual Focus", -5}, {2, "Auto", 0}};
    struct Text {
        const DeviceControl& control;
        const char* text;
        bool named;
        long long value;
    };
    for (const Text& c : std::vector<Text>{{flag, "On", true, 1},
                                           {flag, "no", true, 0},
                                           {flag, "maybe", false, 0},
                                           {modes, "manual", false, 0}, // two items start so
                                           {modes, "manual_focus", true, 1},
                                           {modes, "AUTO", true, 2},
                                           {modes, "-5", true, 1},
                                           {wide, "99999999999999999999", false, 0}}) {
        int64_t value = 0;
        EXPECT_EQ(c.named, platform::ValueForText(c.control, c.text, value)) << c.text;
        EXPECT_EQ(c.named ? c.value : 0, value) << c.text;
    }
}

} // namespace
