// The V4L2 camera code: size and rate negotiation and naming everywhere; streaming, sharing and
// unplugging against a real driver where one exists (vivid, inside scripts/devvm.sh).
#include "platform/devices/v4l2/v4l2faults.h"
#include "platform/devices/v4l2/v4l2negotiation.h"
#include "support/realdevices.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace {

V4L2Format FormatWithSizes(std::initializer_list<std::pair<uint32_t, uint32_t>> sizes) {
    V4L2Format format;
    format.fourcc = V4L2_PIX_FMT_YUYV;
    for (const auto& size : sizes)
        format.sizes.push_back({size.first, size.second, {}});
    return format;
}

TEST(V4L2Negotiation, NearestSizePrefersExactThenSmallestCoveringThenLargest) {
    const V4L2Format format = FormatWithSizes({{1920, 1080}, {1280, 720}, {640, 480}, {320, 180}});
    const struct {
        uint32_t width, height, expectedWidth, expectedHeight;
    } cases[] = {
        {640, 480, 640, 480},     // exact
        {800, 600, 1280, 720},    // the smaller of the two covering sizes, scaled down from
        {640, 500, 1280, 720},    // 640 x 480 is not tall enough
        {4096, 2160, 1920, 1080}, // nothing covers it: the largest, scaled up from
    };
    for (const auto& c : cases) {
        const V4L2FrameSize size = V4L2NearestSize(format, c.width, c.height);
        EXPECT_EQ(c.expectedWidth, size.width) << c.width << "x" << c.height;
        EXPECT_EQ(c.expectedHeight, size.height) << c.width << "x" << c.height;
    }
    // A format without sizes leaves the choice to the driver.
    const V4L2FrameSize none = V4L2NearestSize(FormatWithSizes({}), 123, 45);
    EXPECT_EQ(123u, none.width);
    EXPECT_EQ(45u, none.height);
}

// The interval asked of the driver: the fastest offered without a wish (whatever the driver's
// order), else the offered one nearest in frames per second, exactly as offered; in a range the
// nearest step, and any rate in a continuous one. A size stating nothing gets the wish itself.
TEST(V4L2Negotiation, IntervalIsTheFastestOrTheNearestOffered) {
    const V4L2FrameSize list{640, 480, {{1, 15}, {1, 60}, {1001, 30000}, {0, 1}, {1, 5}}};
    V4L2FrameSize stepwise{640, 480, {{1, 60}, {1, 1}}};
    stepwise.intervalRange = true;
    stepwise.step = {1, 60};
    V4L2FrameSize continuous{640, 480, {{1, 120}, {2, 1}}};
    continuous.intervalRange = true;
    const V4L2FrameSize unstated{640, 480, {}};
    const struct {
        const V4L2FrameSize& size;
        double wish;
        uint32_t numerator, denominator;
    } cases[] = {
        {list, 0, 1, 60},        {list, 30, 1001, 30000}, {list, 29.97, 1001, 30000},
        {list, 50, 1, 60},       {list, 9, 1, 5},         {list, 1000, 1, 60},
        {stepwise, 0, 1, 60},    {stepwise, 24, 1, 20},   {stepwise, 5, 1, 5},
        {stepwise, 0.5, 1, 1},   {stepwise, 100, 1, 60},  {continuous, 29.97, 1001, 30000},
        {continuous, 24, 1, 24}, {continuous, 0.2, 2, 1}, {unstated, 25, 1, 25},
        {unstated, 0, 0, 0},
    };
    for (const auto& c : cases) {
        const V4L2Fraction interval = V4L2IntervalFor(c.size, c.wish);
        EXPECT_EQ(c.numerator, interval.numerator) << c.wish << " of " << c.size.intervals.size();
        EXPECT_EQ(c.denominator, interval.denominator) << c.wish;
    }
    EXPECT_EQ(60u, V4L2FastestInterval(list).denominator);
}

TEST(V4L2Negotiation, ChoosesTheWishThenAFormatFastEnoughUncompressedFirst) {
    auto sized = [](uint32_t fourcc, bool compressed, V4L2Fraction interval) {
        V4L2Format format;
        format.fourcc = fourcc;
        format.compressed = compressed;
        format.sizes.push_back({1280, 720, {interval}});
        format.sizes.push_back({640, 480, {{1, 30}}});
        return format;
    };
    // A webcam: YUYV reaches 30 fps only at small sizes, MJPEG at every size.
    std::vector<V4L2Format> formats = {sized(V4L2_PIX_FMT_YUYV, false, {1, 10}),
                                       sized(V4L2_PIX_FMT_MJPEG, true, {1, 30}),
                                       sized(V4L2_PIX_FMT_NV12, false, {1, 10})};
    auto all = [](uint32_t) { return true; };
    EXPECT_EQ(V4L2_PIX_FMT_NV12,
              V4L2ChooseFormat(formats, V4L2_PIX_FMT_NV12, 1280, 720, 30, all)->fourcc);
    EXPECT_EQ(V4L2_PIX_FMT_YUYV, V4L2ChooseFormat(formats, 0, 640, 480, 30, all)->fourcc);
    EXPECT_EQ(V4L2_PIX_FMT_MJPEG, V4L2ChooseFormat(formats, 0, 1280, 720, 30, all)->fourcc);
    EXPECT_EQ(V4L2_PIX_FMT_YUYV, V4L2ChooseFormat(formats, 0, 1280, 720, 10, all)->fourcc);
    // Without MJPEG decoding, the fastest usable one.
    auto noMjpeg = [](uint32_t fourcc) { return fourcc != V4L2_PIX_FMT_MJPEG; };
    EXPECT_EQ(V4L2_PIX_FMT_YUYV, V4L2ChooseFormat(formats, 0, 1280, 720, 30, noMjpeg)->fourcc);
    // A wish the camera cannot serve is ignored; nothing usable gives null.
    EXPECT_EQ(V4L2_PIX_FMT_YUYV,
              V4L2ChooseFormat(formats, V4L2_PIX_FMT_RGB24, 640, 480, 30, all)->fourcc);
    EXPECT_EQ(nullptr, V4L2ChooseFormat(formats, 0, 640, 480, 30, [](uint32_t) { return false; }));
}

// Frame times reach the samples on the monotonic clock, 0.1 s apart here, whatever clock the
// driver stamps with and wherever its count wraps around; each frame is dequeued 0.01 s after
// its stamp.
TEST(V4L2FrameTimes, FollowTheMonotonicClockAcrossOffsetsAndWraps) {
    const double now = 1000;
    const struct {
        const char* what;
        double stamps[4];
        double expected[4];
    } cases[] = {
        {"the monotonic clock", {999.6, 999.7, 999.8, 999.9}, {999.6, 999.7, 999.8, 999.9}},
        {"another clock", {5e9, 5e9 + 0.1, 5e9 + 0.2, 5e9 + 0.3}, {999.61, 999.71, 999.81, 999.91}},
        {"a wrap to the start", {999.6, 999.7, 0.05, 0.15}, {999.6, 999.7, 999.8, 999.9}},
        {"a wrap to negative", {999.6, 999.7, -9.2e9, -9.2e9 + 0.1}, {999.6, 999.7, 999.8, 999.9}},
        {"a jump ahead", {999.6, 999.7, 5e9, 5e9 + 0.1}, {999.6, 999.7, 999.81, 999.91}},
        {"no stamps", {0, 0, 0, 0}, {999.61, 999.71, 999.81, 999.91}},
    };
    for (const auto& c : cases) {
        V4L2FrameClock clock;
        for (int i = 0; i < 4; ++i)
            EXPECT_NEAR(c.expected[i], clock.timeOf(c.stamps[i], now - 0.39 + 0.1 * i), 1e-5)
                << c.what << ", frame " << i;
    }
}

TEST(V4L2Naming, SharedCardNamesAreNumberedInListOrder) {
    std::vector<V4L2DeviceInfo> devices(4);
    devices[0].card = "USB Camera";
    devices[1].card = "Capture Card";
    devices[2].card = "USB Camera";
    devices[3].card = "USB Camera";
    V4L2AssignDisplayNames(devices);
    EXPECT_EQ("USB Camera", devices[0].displayName);
    EXPECT_EQ("Capture Card", devices[1].displayName);
    EXPECT_EQ("USB Camera (2)", devices[2].displayName);
    EXPECT_EQ("USB Camera (3)", devices[3].displayName);
}

TEST(V4L2Naming, InputsOfANodeShareItsNumberedCardName) {
    // Two capture cards of one kind, two inputs each, then a single-input node of that kind.
    std::vector<V4L2DeviceInfo> devices;
    for (const char* path : {"/dev/video0", "/dev/video1"})
        for (const char* input : {"Composite", "S-Video"}) {
            V4L2DeviceInfo device;
            device.path = path;
            device.card = "Grabber";
            device.selectsInput = true;
            device.input.name = input;
            devices.push_back(device);
        }
    devices.push_back(devices.front());
    devices.back().path = "/dev/video2";
    devices.back().selectsInput = false;
    V4L2AssignDisplayNames(devices);
    const char* expected[] = {"Grabber: Composite", "Grabber: S-Video", "Grabber (2): Composite",
                              "Grabber (2): S-Video", "Grabber (3)"};
    for (size_t i = 0; i < devices.size(); ++i)
        EXPECT_EQ(expected[i], devices[i].displayName);
}

TEST(V4L2Listing, NodesThatAreNotCapturingDevicesAreLeftOut) {
    char folder[] = "/tmp/tavix-v4l2-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(folder));
    // Files named like nodes but not devices, and names that only look similar.
    for (const char* name : {"video0", "video12", "videox", "video", "radio0"}) {
        std::string path = std::string(folder) + "/" + name;
        int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0600);
        ASSERT_GE(fd, 0);
        close(fd);
    }
    EXPECT_TRUE(V4L2ListDevices(folder).empty());
    EXPECT_TRUE(V4L2ListDevices(std::string(folder) + "/missing").empty());
    EXPECT_FALSE(V4L2IsInUse(std::string(folder) + "/video0"));
    V4L2Camera camera;
    EXPECT_EQ(V4L2Camera::Status::Gone, camera.open(std::string(folder) + "/missing"));
    ASSERT_EQ(V4L2Camera::Status::Ok, camera.open(std::string(folder) + "/video0"));
    EXPECT_NE(V4L2Camera::Status::Ok, camera.setFormat(V4L2_PIX_FMT_YUYV, 320, 240, {}));
    EXPECT_NE(V4L2Camera::Status::Ok, camera.start(4));
    V4L2Frame frame;
    EXPECT_EQ(V4L2Camera::Wait::Failed, camera.waitFrame(10, frame));
    camera.close();
    for (const char* name : {"video0", "video12", "videox", "video", "radio0"})
        unlink((std::string(folder) + "/" + name).c_str());
    rmdir(folder);
}

TEST(V4L2Listing, RealNodesListWithUniqueNamesAndIds) {
    std::vector<V4L2DeviceInfo> devices = V4L2ListDevices();
    for (size_t i = 0; i < devices.size(); ++i) {
        EXPECT_FALSE(devices[i].displayName.empty());
        EXPECT_FALSE(devices[i].uniqueId.empty());
        EXPECT_FALSE(devices[i].formats.empty()) << devices[i].path;
        for (size_t j = 0; j < i; ++j) {
            EXPECT_NE(devices[i].displayName, devices[j].displayName);
            EXPECT_NE(devices[i].uniqueId, devices[j].uniqueId);
        }
    }
    // The same devices listed again carry the same ids.
    std::vector<V4L2DeviceInfo> again = V4L2ListDevices();
    ASSERT_EQ(devices.size(), again.size());
    for (size_t i = 0; i < devices.size(); ++i)
        EXPECT_EQ(devices[i].uniqueId, again[i].uniqueId);
}

// Frames come in order, and one held across the end of streaming still reads the mapped memory
// (the no-copy path lends the driver's buffers to hosts). The C interface's tests cover formats,
// sizes, sharing, unplugging and the driver's faults.
TEST(V4L2Streaming, FramesComeInOrderAndAHeldFrameOutlivesTheStream) {
    REQUIRE_CAMERA(info, V4L2_PIX_FMT_YUYV);
    V4L2Camera camera;
    ASSERT_EQ(V4L2Camera::Status::Ok, camera.open(info.path));
    ASSERT_EQ(V4L2Camera::Status::Ok, camera.setFormat(V4L2_PIX_FMT_YUYV, 320, 180, {1, 30}));
    ASSERT_EQ(V4L2Camera::Status::Ok, camera.start(6));
    V4L2Frame frame;
    uint32_t lastSequence = 0;
    double firstTime = 0, lastTime = 0;
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(V4L2Camera::Wait::Frame, camera.waitFrame(30000, frame)) << "frame " << i;
        EXPECT_GE(frame.bytesUsed, 320u * 180 * 2);
        // Frames come in the order they were captured: neither time nor sequence number goes
        // back (gaps for frames the driver lost; a wrap at 32 bits as any counter does; vivid
        // on a starved emulated processor was seen to make two frames with one number).
        if (i > 0) {
            EXPECT_GE(frame.timestamp, lastTime) << "frame " << i;
            EXPECT_GE(static_cast<int32_t>(frame.sequence - lastSequence), 0) << "frame " << i;
        }
        lastSequence = frame.sequence;
        lastTime = frame.timestamp;
        firstTime = i == 0 ? lastTime : firstTime;
    }
    EXPECT_GT(lastTime, firstTime) << "five frames span some time";
    V4L2Frame held = frame;
    frame = V4L2Frame();
    const std::vector<uint8_t> before(held.data, held.data + held.bytesUsed);
    camera.stop();
    // Still mapped and unchanged: a host reading the lent buffer after the stop sees its picture.
    EXPECT_EQ(0, memcmp(before.data(), held.data, before.size()));
    held.requeue();
    camera.close();
}

// A rate other than the driver's default is set, read back, and paces the driver's frames:
// their timestamps lie one asked interval apart per sequence number (frames the driver lost
// leave gaps in both), however late the frames are dequeued.
TEST(V4L2Streaming, AnAskedRateIsReadBackAndSpacesTheFrames) {
    REQUIRE_CAMERA(info, V4L2_PIX_FMT_YUYV);
    const V4L2FrameSize* size = nullptr; // the size offered at the most rates
    for (const V4L2Format& format : info.formats)
        for (const V4L2FrameSize& offered : format.sizes)
            if (format.fourcc == V4L2_PIX_FMT_YUYV &&
                (!size || offered.intervals.size() > size->intervals.size()))
                size = &offered;
    if (size == nullptr || size->intervals.size() < 3) {
        DEVICE_MISSING() << "no size offered at several rates (vivid's webcam input has some)";
    }
    const std::vector<platform::FrameRates> rates = V4L2RatesOf(*size);
    ASSERT_EQ(size->intervals.size(), rates.size()) << "one entry per discrete interval";

    V4L2Camera camera;
    ASSERT_EQ(V4L2Camera::Status::Ok, camera.open(info.path));
    if (info.selectsInput) {
        ASSERT_EQ(V4L2Camera::Status::Ok, camera.selectInput(info.input.index, 0));
    }
    ASSERT_EQ(V4L2Camera::Status::Ok,
              camera.setFormat(V4L2_PIX_FMT_YUYV, size->width, size->height, {}));
    const V4L2Fraction driversInterval = camera.format().interval;
    const double driversRate = driversInterval.framesPerSecond();
    // The slowest rate of 10 or more per second that is not the driver's: short, and a change.
    double wish = 0;
    for (const platform::FrameRates& rate : rates) {
        const double offered = rate.fastest.FramesPerSecond();
        if (offered >= 10 && std::fabs(offered - driversRate) > 0.01 && (!wish || offered < wish))
            wish = offered;
    }
    ASSERT_GT(wish, 0) << "a second rate of 10 or more per second at " << size->width;
    ASSERT_EQ(V4L2Camera::Status::Ok, camera.setFormat(V4L2_PIX_FMT_YUYV, size->width, size->height,
                                                       V4L2IntervalFor(*size, wish)));
    EXPECT_DOUBLE_EQ(wish, camera.format().interval.framesPerSecond()) << "read back";
    ASSERT_EQ(V4L2Camera::Status::Ok, camera.start(6));
    V4L2Frame frame;
    double firstTime = 0;
    uint32_t firstSequence = 0;
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(V4L2Camera::Wait::Frame, camera.waitFrame(30000, frame)) << "frame " << i;
        if (i == 0) {
            firstTime = frame.timestamp;
            firstSequence = frame.sequence;
        }
    }
    const uint32_t frames = frame.sequence - firstSequence;
    ASSERT_GT(frames, 0u);
    EXPECT_NEAR(1 / wish, (frame.timestamp - firstTime) / frames, 0.1 / wish)
        << "driver time per frame at " << wish << " fps";
    frame.requeue();
    // The driver keeps a rate across opens: the programs that come next find it as it was.
    camera.stop();
    camera.setFormat(V4L2_PIX_FMT_YUYV, size->width, size->height, driversInterval);
    camera.close();
}

} // namespace
