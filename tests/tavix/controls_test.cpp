// A device's controls through the C interface, on the test camera: what a host sees listed, what
// each kind of change comes to, the picture and the change callback while capturing, and many
// threads at once.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/tavix_helpers.h"

namespace {

struct Listed {
    std::string key;
    TavixControlType type;
    long long minimum, maximum, defaultValue;
    unsigned int flags;
    std::vector<std::pair<long long, std::string>> menu;
};

bool Collect(const TavixControl_C* control, void* context) {
    Listed listed{control->key,
                  control->type,
                  control->minimum,
                  control->maximum,
                  control->defaultValue,
                  control->flags,
                  {}};
    for (unsigned int i = 0; i < control->menuCount; ++i)
        listed.menu.emplace_back(control->menu[i].index, control->menu[i].name);
    static_cast<std::vector<Listed>*>(context)->push_back(listed);
    return true;
}

std::vector<Listed> ControlsOf(unsigned long handle) {
    std::vector<Listed> controls;
    EXPECT_TRUE(TavixDeviceEnumerateControls(handle, Collect, &controls));
    return controls;
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
    DeviceScope camera{0};
};

TEST_F(Controls, TheTestCameraListsItsControlsInOrder) {
    const unsigned int autoFlags = TavixControlFlagInactive;
    const std::vector<Listed> expected = {
        {"brightness", TavixControlTypeInteger, 0, 255, 128, 0, {}},
        {"contrast", TavixControlTypeInteger, 0, 255, 128, 0, {}},
        {"saturation", TavixControlTypeInteger, 0, 255, 128, 0, {}},
        {"hue", TavixControlTypeInteger, -180, 180, 0, 0, {}},
        {"test_pattern",
         TavixControlTypeMenu,
         0,
         3,
         0,
         0,
         {{0, "Colour Bars"}, {1, "Grey Bars"}, {3, "Black"}}},
        {"exposure_auto",
         TavixControlTypeMenu,
         1,
         3,
         3,
         0,
         {{1, "Manual Mode"}, {3, "Aperture Priority Mode"}}},
        {"exposure", TavixControlTypeInteger, 1, 10000, 333, autoFlags, {}},
        {"gain", TavixControlTypeInteger, 0, 255, 32, autoFlags | TavixControlFlagVolatile, {}},
        {"restore_defaults", TavixControlTypeButton, 0, 0, 0, TavixControlFlagWriteOnly, {}},
    };
    const std::vector<Listed> listed = ControlsOf(camera.handle);
    ASSERT_EQ(expected.size(), listed.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        const Listed &want = expected[i], &got = listed[i];
        EXPECT_EQ(want.key, got.key);
        EXPECT_EQ(want.type, got.type) << want.key;
        EXPECT_EQ(want.minimum, got.minimum) << want.key;
        EXPECT_EQ(want.maximum, got.maximum) << want.key;
        EXPECT_EQ(want.defaultValue, got.defaultValue) << want.key;
        EXPECT_EQ(want.flags, got.flags) << want.key;
        EXPECT_EQ(want.menu, got.menu) << want.key;
    }
    // The other built-in devices have none.
    const unsigned long microphone =
        TavixDeviceGet(virtualdevices::kTestMicrophoneName, TavixDeviceMediaTypeSound);
    EXPECT_TRUE(ControlsOf(microphone).empty());
    EXPECT_FALSE(
        TavixDeviceSetControlChangeCallBack(microphone, nullptr, nullptr) &&
        TavixDeviceSetControlChangeCallBack(
            microphone, [](const char*, long long, const char*, unsigned, void*) {}, nullptr));
    TavixDeviceRelease(microphone);
    EXPECT_FALSE(TavixDeviceEnumerateControls(0, Collect, nullptr));
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

} // namespace
