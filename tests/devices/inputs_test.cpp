// Capture nodes with several inputs (vivid: webcam, TV, S-Video, HDMI): one device per input,
// named after it; capturing a device selects its input; analogue inputs offer their standards'
// sizes and rates and record as interlaced movies that say which field comes first. Elsewhere
// every test skips, saying why.
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "platform/devicebackend.h"
#include "platform/devices/v4l2/v4l2camera.h"
#include "support/ffprobe.h"
#include "support/realdevices.h"
#include "support/tavix_helpers.h"

namespace {

// The devices of the first node with several inputs; empty when there is none.
std::vector<V4L2DeviceInfo> InputsOfFirstNode() {
    std::vector<V4L2DeviceInfo> inputs;
    for (V4L2DeviceInfo& device : V4L2ListDevices())
        if (device.selectsInput && (inputs.empty() || inputs.front().path == device.path))
            inputs.push_back(std::move(device));
    return inputs;
}

#define REQUIRE_INPUTS(inputs)                                                                     \
    const std::vector<V4L2DeviceInfo> inputs = InputsOfFirstNode();                                \
    if (inputs.empty()) {                                                                          \
        DEVICE_MISSING() << "no capture node with several inputs (scripts/devvm.sh has one)";      \
    }

// The first input of the node that takes analogue standards, or is digital.
const V4L2DeviceInfo* FindInput(const std::vector<V4L2DeviceInfo>& inputs, bool analogue) {
    for (const V4L2DeviceInfo& input : inputs)
        if (analogue ? input.input.standards != 0 : input.input.dvTimings)
            return &input;
    return nullptr;
}

// What the driver says of the node's inputs and its card, asked here rather than of the library.
struct NodeInputs {
    std::string card;
    std::vector<std::string> names;
};

NodeInputs AskDriver(const std::string& path) {
    NodeInputs node;
    const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK);
    if (fd < 0)
        return node;
    v4l2_capability caps{};
    if (ioctl(fd, VIDIOC_QUERYCAP, &caps) == 0)
        node.card = reinterpret_cast<const char*>(caps.card);
    v4l2_input input{};
    for (input.index = 0; ioctl(fd, VIDIOC_ENUMINPUT, &input) == 0; ++input.index)
        node.names.push_back(reinterpret_cast<const char*>(input.name));
    close(fd);
    return node;
}

int SelectedInput(const std::string& path) {
    int index = -1;
    const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK);
    if (fd >= 0 && ioctl(fd, VIDIOC_G_INPUT, &index) != 0)
        index = -1;
    if (fd >= 0)
        close(fd);
    return index;
}

TEST(Inputs, EachInputIsADeviceNamedCardColonInput) {
    REQUIRE_INPUTS(inputs);
    const NodeInputs node = AskDriver(inputs.front().path);
    ASSERT_EQ(node.names.size(), inputs.size());
    const std::vector<std::string> listed = ListedDeviceNames(TavixDeviceMediaTypeVideo);
    for (const std::string& input : node.names) {
        // The first node carrying its card name keeps the plain name.
        const std::string name = node.card + ": " + input;
        EXPECT_NE(listed.end(), std::find(listed.begin(), listed.end(), name)) << name;
        DeviceScope scope(TavixDeviceGet(name.c_str(), TavixDeviceMediaTypeVideo));
        EXPECT_NE(0u, scope.handle) << name;
    }
    // The node itself is no device of its own.
    EXPECT_EQ(listed.end(), std::find(listed.begin(), listed.end(), node.card));
}

TEST(Inputs, CapturingADeviceSelectsItsInputAndItsPictures) {
    REQUIRE_INPUTS(inputs);
    // Each input in turn, the last one first so that the node's current input is never the one
    // asked for; analogue inputs give a standard's frame, digital ones their signal's.
    for (auto input = inputs.rbegin(); input != inputs.rend(); ++input) {
        SCOPED_TRACE(input->displayName);
        DeviceScope scope(TavixDeviceGet(input->displayName.c_str(), TavixDeviceMediaTypeVideo));
        ASSERT_TRUE(TavixDeviceOpen(scope.handle));
        const V4L2FrameSize native = input->formats.at(0).sizes.at(0);
        CallbackLog log;
        ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(log),
                                            kCVPixelFormatType_422YpCbCr8_yuvs, native.width,
                                            native.height, nullptr, 0, 0, 0, 0, 0, nullptr));
        EXPECT_TRUE(WaitUntil([&] { return log.frames >= 2; }, std::chrono::seconds(60)));
        EXPECT_EQ(static_cast<int>(input->input.index), SelectedInput(input->path));
        EXPECT_EQ(native.width, log.width.load());
        EXPECT_EQ(native.height, log.height.load());
        EXPECT_TRUE(TavixDeviceStopCapture(scope.handle));
    }
}

TEST(Inputs, AnalogueInputsOfferTheirStandardsAndDigitalOnesTheirSignal) {
    REQUIRE_INPUTS(inputs);
    const V4L2DeviceInfo* analogue = FindInput(inputs, true);
    const V4L2DeviceInfo* digital = FindInput(inputs, false);
    ASSERT_TRUE(analogue != nullptr && digital != nullptr);
    using Size = std::tuple<size_t, size_t, long>; // width, height, frames per 100 seconds
    auto sizesOf = [](const V4L2DeviceInfo& device) {
        std::set<Size> sizes;
        for (const platform::DeviceFormat& format : BackendFormats(device.uniqueId))
            sizes.insert({format.width, format.height, std::lround(format.frameRate * 100)});
        return sizes;
    };
    EXPECT_EQ((std::set<Size>{{720, 576, 2500}, {720, 480, 2997}}), sizesOf(*analogue));
    EXPECT_EQ((std::set<Size>{{1280, 720, 6000}}), sizesOf(*digital));
}

struct StandardCase {
    unsigned long width, height;
    const char* fieldOrder; // as ffprobe names it
};

class Interlaced : public ::testing::TestWithParam<StandardCase> {};

// PAL sends the top field first, NTSC the bottom one; the movie says so, so players
// deinterlace it the right way round, and the host gets whole frames, both fields woven.
TEST_P(Interlaced, RecordingsSayWhichFieldComesFirst) {
    REQUIRE_INPUTS(inputs);
    if (!HaveFFprobe())
        GTEST_SKIP() << "ffprobe is not installed";
    const V4L2DeviceInfo* analogue = FindInput(inputs, true);
    ASSERT_NE(nullptr, analogue);
    const StandardCase& standard = GetParam();
    DeviceScope scope(TavixDeviceGet(analogue->displayName.c_str(), TavixDeviceMediaTypeVideo));
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    const std::string path =
        ::testing::TempDir() + "interlaced-" + std::to_string(standard.height) + ".mov";
    CallbackLog log;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(log),
                                        kCVPixelFormatType_422YpCbCr8_yuvs, standard.width,
                                        standard.height, nullptr, 0, 0, 0, 0, 0, path.c_str()));
    EXPECT_TRUE(WaitUntil([&] { return log.frames >= 4; }, std::chrono::seconds(60)));
    ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
    EXPECT_EQ(standard.width, log.width.load());
    EXPECT_EQ(standard.height, log.height.load());
    const ProbedMovie movie = ProbeMovie(path);
    ASSERT_TRUE(movie.readable);
    const ProbedStream* video = movie.Find("video");
    ASSERT_NE(nullptr, video);
    EXPECT_EQ(standard.fieldOrder, video->fieldOrder);
    EXPECT_EQ(static_cast<int>(standard.height), video->height);
    EXPECT_NEAR(log.frames.load(), video->frames, 1);
}

INSTANTIATE_TEST_SUITE_P(Standards, Interlaced,
                         ::testing::Values(StandardCase{720, 576, "tt"},
                                           StandardCase{720, 480, "bb"}),
                         [](const ::testing::TestParamInfo<StandardCase>& info) {
                             return info.param.height == 576 ? std::string("PAL")
                                                             : std::string("NTSC");
                         });

} // namespace
