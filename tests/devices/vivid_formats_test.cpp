// Every pixel format of vivid's camera that the library lists, checked on vivid's 75% colour
// bars as a host receives them, as the device gives them and converted to 'BGRA'; and the frame
// rate the library runs a size at: the device's best for that size, as fast at the host as a
// plain V4L2 loop. Inside scripts/devvm.sh; elsewhere every test skips, saying why.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "platform/devicebackend.h"
#include "platform/pixelformats.h"
#include "platform/qtkit.h"
#include "support/colourbars.h"
#include "support/realdevices.h"
#include "support/tavix_helpers.h"
#include "support/vivid.h"

namespace {

// The Core Video formats the camera is listed with, and the vivid format each comes from.
struct FormatCase {
    OSType pixelFormat;
    uint32_t fourcc;
};
const FormatCase kFormats[] = {
    {kCVPixelFormatType_422YpCbCr8_yuvs, V4L2_PIX_FMT_YUYV},
    {kCVPixelFormatType_422YpCbCr8, V4L2_PIX_FMT_UYVY},
    {kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, V4L2_PIX_FMT_NV12},
    {kCVPixelFormatType_420YpCbCr8Planar, V4L2_PIX_FMT_YUV420},
    {kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange, V4L2_PIX_FMT_NV16},
    {kCVPixelFormatType_444YpCbCr8BiPlanarVideoRange, V4L2_PIX_FMT_NV24},
    {kCVPixelFormatType_24RGB, V4L2_PIX_FMT_RGB24},
    {kCVPixelFormatType_24BGR, V4L2_PIX_FMT_BGR24},
    {kCVPixelFormatType_32BGRA, V4L2_PIX_FMT_ABGR32},
    {kCVPixelFormatType_32ARGB, V4L2_PIX_FMT_ARGB32},
    {kCVPixelFormatType_32RGBA, V4L2_PIX_FMT_RGBA32},
    {kCVPixelFormatType_32ABGR, V4L2_PIX_FMT_BGRA32},
    {kCVPixelFormatType_16LE565, V4L2_PIX_FMT_RGB565},
    {kCVPixelFormatType_16BE565, V4L2_PIX_FMT_RGB565X},
    {kCVPixelFormatType_OneComponent8, V4L2_PIX_FMT_GREY},
};

std::string NameOf(OSType format) {
    const PixelFormatInfo* info = FindPixelFormat(format);
    return info != nullptr ? info->name : std::to_string(format);
}

// One picture as the video callback saw it.
struct Picture {
    OSType format = 0;
    size_t width = 0, height = 0, bytesPerRow = 0;
    std::vector<uint8_t> bytes;
};

// The bytes a picture of the format spans from its base address: its planes follow the luma
// rows, their rows as long as the first plane's (half as long for 'y420').
size_t PictureBytes(OSType format, size_t bytesPerRow, size_t height) {
    switch (format) {
    case kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange:
    case kCVPixelFormatType_420YpCbCr8Planar:
        return bytesPerRow * height * 3 / 2;
    case kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange:
        return bytesPerRow * height * 2;
    case kCVPixelFormatType_444YpCbCr8BiPlanarVideoRange:
        return bytesPerRow * height * 3;
    default:
        return bytesPerRow * height;
    }
}

// Where the picture's planes are: they follow the luma rows, their rows as long as the first
// plane's (half as long for 'y420', twice for 4:4:4).
PicturePlanes PlanesOf(Picture& p) {
    PicturePlanes planes;
    planes.data[0] = p.bytes.data();
    planes.bytesPerRow[0] = planes.bytesPerRow[1] = p.bytesPerRow;
    planes.data[1] = p.bytes.data() + p.bytesPerRow * p.height;
    if (p.format == kCVPixelFormatType_420YpCbCr8Planar) {
        planes.bytesPerRow[1] = planes.bytesPerRow[2] = p.bytesPerRow / 2;
        planes.data[2] = planes.data[1] + p.bytesPerRow / 2 * (p.height / 2);
    } else if (p.format == kCVPixelFormatType_444YpCbCr8BiPlanarVideoRange) {
        planes.bytesPerRow[1] = 2 * p.bytesPerRow;
    }
    return planes;
}

bool IsYCbCr(OSType format) {
    const PixelFormatInfo* info = FindPixelFormat(format);
    return info != nullptr && info->isYCbCr;
}

// vivid draws its grey formats as full-range luma with BT.709 weights; it reports no Y'CbCr
// encoding or range for them.
constexpr YCbCrColour kGreyEncoding{YCbCrMatrix::BT709, true};

// Checks each bar at its middle, on a row in the lower half: its Y'CbCr codes in the device's
// encoding, its R'G'B' levels, or for grey its luma (the same in every channel once converted).
void ExpectColourBars(Picture& picture, OSType source, YCbCrColour encoding, double tolerance) {
    ASSERT_FALSE(picture.bytes.empty()) << "no picture";
    const size_t y = picture.height * 3 / 4;
    for (int bar = 0; bar < 8; ++bar) {
        const uint8_t* rgb = kColourBars[bar];
        std::array<double, 3> expected = {double(rgb[0]), double(rgb[1]), double(rgb[2])};
        if (IsYCbCr(picture.format)) {
            expected = YCbCrOf(rgb, encoding);
        } else if (source == kCVPixelFormatType_OneComponent8) {
            const double luma = YCbCrOf(rgb, kGreyEncoding)[0];
            expected = {luma, luma, luma};
        }
        const std::array<double, 3> seen =
            SampleAt(picture.format, PlanesOf(picture), BarMiddle(picture.width, bar), y);
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(expected[c], seen[c], tolerance)
                << NameOf(picture.format) << " bar " << bar << " component " << c;
    }
}

// Keeps the third picture the callback sees (past start-up) and counts the others.
struct PictureLog {
    std::mutex mutex;
    Picture picture;
    size_t count = 0;
    size_t Count() {
        std::lock_guard<std::mutex> locked(mutex);
        return count;
    }
    void Keep(const unsigned char* pixels, OSType format, size_t width, size_t height,
              size_t bytesPerRow) {
        std::lock_guard<std::mutex> locked(mutex);
        if (++count != 3)
            return;
        picture.format = format;
        picture.width = width;
        picture.height = height;
        picture.bytesPerRow = bytesPerRow;
        picture.bytes.assign(pixels, pixels + PictureBytes(format, bytesPerRow, height));
    }
};

void KeepPicture(const unsigned char* pixels, unsigned long format, unsigned long width,
                 unsigned long height, unsigned long bytesPerRow, const SMPTETime*, long data) {
    reinterpret_cast<PictureLog*>(data)->Keep(pixels, static_cast<OSType>(format), width, height,
                                              bytesPerRow);
}

// The node's current format and interval, asked on a handle of the test's own while the
// library streams.
struct NodeState {
    v4l2_pix_format format{};
    v4l2_fract interval{};
};

NodeState NodeStateOf(const std::string& node) {
    NodeState state;
    const int fd = open(node.c_str(), O_RDWR);
    if (fd < 0)
        return state;
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (ioctl(fd, VIDIOC_G_FMT, &format) == 0)
        state.format = format.fmt.pix;
    v4l2_streamparm parameters{};
    parameters.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (ioctl(fd, VIDIOC_G_PARM, &parameters) == 0)
        state.interval = parameters.parm.capture.timeperframe;
    close(fd);
    return state;
}

YCbCrColour EncodingOf(const v4l2_pix_format& format) {
    uint32_t ycbcr = format.ycbcr_enc;
    if (ycbcr == V4L2_YCBCR_ENC_DEFAULT)
        ycbcr = V4L2_MAP_YCBCR_ENC_DEFAULT(format.colorspace);
    uint32_t quantization = format.quantization;
    if (quantization == V4L2_QUANTIZATION_DEFAULT)
        quantization = V4L2_MAP_QUANTIZATION_DEFAULT(false, format.colorspace, ycbcr);
    return {ycbcr == V4L2_YCBCR_ENC_709 ? YCbCrMatrix::BT709 : YCbCrMatrix::BT601,
            quantization == V4L2_QUANTIZATION_FULL_RANGE};
}

// The fastest rate the driver offers for a format at a size; 0 when it offers none.
double BestRate(const std::string& node, uint32_t fourcc, uint32_t width, uint32_t height) {
    const int fd = open(node.c_str(), O_RDWR);
    double best = 0;
    v4l2_frmivalenum interval{};
    interval.pixel_format = fourcc;
    interval.width = width;
    interval.height = height;
    for (; fd >= 0 && ioctl(fd, VIDIOC_ENUM_FRAMEINTERVALS, &interval) == 0; ++interval.index) {
        const v4l2_fract& f =
            interval.type == V4L2_FRMIVAL_TYPE_DISCRETE ? interval.discrete : interval.stepwise.min;
        if (f.numerator != 0)
            best = std::max(best, double(f.denominator) / f.numerator);
        if (interval.type != V4L2_FRMIVAL_TYPE_DISCRETE)
            break;
    }
    if (fd >= 0)
        close(fd);
    return best;
}

// vivid's pattern without its text, for the life of the test; the handle stays open so the
// setting holds.
class VividFormats : public ::testing::Test {
protected:
    void SetUp() override {
        camera = FindCameraOffering(V4L2_PIX_FMT_YUYV);
        if (camera.path.empty())
            DEVICE_MISSING() << "no V4L2 camera (scripts/devvm.sh has one)";
        control = open(camera.path.c_str(), O_RDWR);
        ASSERT_GE(control, 0);
        // The node's own answers (its rates) are of the input it has selected, which
        // another test may have left on another one.
        int input = static_cast<int>(camera.input.index);
        ASSERT_TRUE(!camera.selectsInput || ioctl(control, VIDIOC_S_INPUT, &input) == 0);
        ASSERT_TRUE(SetControl(control, "OSD Text Mode", 2)) << "vivid's text cannot be hidden";
        pool = new NSAutoreleasePool;
    }
    void TearDown() override {
        if (control >= 0) {
            SetControl(control, "OSD Text Mode", 0);
            close(control);
        }
        if (pool != nullptr)
            pool->drain();
    }

    // Captures through the C interface until `frames` pictures came; the node's state is read
    // meanwhile.
    void Capture(OSType format, unsigned long width, unsigned long height, size_t frames,
                 PictureLog& log, NodeState& state) {
        DeviceScope scope(TavixDeviceGet(camera.displayName.c_str(), TavixDeviceMediaTypeVideo));
        ASSERT_NE(0u, scope.handle);
        ASSERT_TRUE(TavixDeviceOpen(scope.handle));
        ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, KeepPicture, reinterpret_cast<long>(&log),
                                            format, width, height, nullptr, 0, 0, 0, 0, 0,
                                            nullptr));
        EXPECT_TRUE(WaitUntil([&] { return log.Count() >= 3; }, std::chrono::seconds(30)));
        state = NodeStateOf(camera.path);
        EXPECT_TRUE(WaitUntil([&] { return log.Count() >= frames; }, std::chrono::seconds(60)));
        EXPECT_TRUE(TavixDeviceStopCapture(scope.handle));
    }

    V4L2DeviceInfo camera;
    int control = -1;
    NSAutoreleasePool* pool = nullptr;
};

// A second output's pictures: the capture core converts the device's frames for it.
class PictureKeeper : public NSObject, public QTCaptureDecompressedVideoOutputDelegate {
public:
    void captureOutput(QTCaptureOutput*, CVImageBufferRef frame, QTSampleBuffer*,
                       QTCaptureConnection*) override {
        CVPixelBufferLockBaseAddress(frame, 0);
        log.Keep(static_cast<const unsigned char*>(CVPixelBufferGetBaseAddress(frame)),
                 CVPixelBufferGetPixelFormatType(frame), CVPixelBufferGetWidth(frame),
                 CVPixelBufferGetHeight(frame), CVPixelBufferGetBytesPerRow(frame));
        CVPixelBufferUnlockBaseAddress(frame, 0);
    }
    PictureLog log;
};

QTCaptureDecompressedVideoOutput* OutputFor(OSType format, size_t width, size_t height,
                                            PictureKeeper* keeper) {
    auto* output = new QTCaptureDecompressedVideoOutput;
    auto* attributes = new NSMutableDictionary;
    attributes->setObject(NSNumber::numberWithUnsignedInt(format),
                          kCVPixelBufferPixelFormatTypeKey);
    attributes->setObject(NSNumber::numberWithDouble(double(width)), kCVPixelBufferWidthKey);
    attributes->setObject(NSNumber::numberWithDouble(double(height)), kCVPixelBufferHeightKey);
    output->setPixelBufferAttributes(attributes);
    attributes->release();
    output->setDelegate(keeper);
    return output;
}

TEST_F(VividFormats, EveryMappedFormatIsListedOnceAtEachSizeWithTheBestRate) {
    const std::vector<platform::DeviceFormat> listed = BackendFormats(camera.uniqueId);
    std::set<OSType> formats;
    std::set<std::tuple<OSType, size_t, size_t>> entries;
    for (const platform::DeviceFormat& entry : listed) {
        formats.insert(entry.formatType);
        EXPECT_TRUE(entries.insert({entry.formatType, entry.width, entry.height}).second)
            << NameOf(entry.formatType) << " " << entry.width << "x" << entry.height << " twice";
    }
    std::set<OSType> expected;
    for (const FormatCase& c : kFormats)
        expected.insert(c.pixelFormat);
    EXPECT_EQ(expected, formats) << "vivid's 10-bit, Bayer, HSV, packed 4:4:4 and other formats "
                                    "have no Core Video twin and stay unlisted";
    for (const platform::DeviceFormat& entry : listed) {
        const auto known =
            std::find_if(std::begin(kFormats), std::end(kFormats),
                         [&](const FormatCase& c) { return c.pixelFormat == entry.formatType; });
        if (known == std::end(kFormats))
            continue;
        EXPECT_EQ(
            BestRate(camera.path, known->fourcc, uint32_t(entry.width), uint32_t(entry.height)),
            entry.frameRate)
            << NameOf(entry.formatType) << " " << entry.width << "x" << entry.height;
    }
}

TEST_F(VividFormats, EachFormatReachesTheHostAsTheDeviceGivesIt) {
    for (const FormatCase& c : kFormats) {
        SCOPED_TRACE(NameOf(c.pixelFormat));
        PictureLog log;
        NodeState state;
        Capture(c.pixelFormat, 320, 180, 3, log, state);
        EXPECT_EQ(c.fourcc, state.format.pixelformat) << "the device's own format";
        std::lock_guard<std::mutex> locked(log.mutex);
        ASSERT_EQ(c.pixelFormat, log.picture.format);
        ASSERT_EQ(320u, log.picture.width);
        ASSERT_EQ(180u, log.picture.height);
        ExpectColourBars(log.picture, c.pixelFormat, EncodingOf(state.format), 3);
    }
}

// A session whose first output takes the device's format and whose second wants 'BGRA': the
// second sees each format converted.
TEST_F(VividFormats, EachFormatConvertsToBGRA) {
    QTCaptureDevice* device = nullptr;
    NSArray* devices = QTCaptureDevice::inputDevices();
    for (size_t i = 0; i < devices->count(); ++i) {
        auto* candidate = static_cast<QTCaptureDevice*>(devices->objectAtIndex(i));
        if (camera.displayName == candidate->localizedDisplayName()->UTF8String())
            device = candidate;
    }
    ASSERT_NE(nullptr, device);
    ASSERT_TRUE(device->open(nullptr));
    for (const FormatCase& c : kFormats) {
        SCOPED_TRACE(NameOf(c.pixelFormat));
        auto* native = new PictureKeeper;
        auto* converted = new PictureKeeper;
        auto* session = new QTCaptureSession;
        auto* input = new QTCaptureDeviceInput(device);
        QTCaptureDecompressedVideoOutput* first = OutputFor(c.pixelFormat, 320, 180, native);
        QTCaptureDecompressedVideoOutput* second =
            OutputFor(kCVPixelFormatType_32BGRA, 320, 180, converted);
        EXPECT_TRUE(session->addInput(input, nullptr));
        EXPECT_TRUE(session->addOutput(first, nullptr));
        EXPECT_TRUE(session->addOutput(second, nullptr));
        session->startRunning();
        EXPECT_TRUE(
            WaitUntil([&] { return converted->log.Count() >= 3; }, std::chrono::seconds(30)));
        const NodeState state = NodeStateOf(camera.path);
        session->stopRunning();
        EXPECT_EQ(c.fourcc, state.format.pixelformat) << "the device's own format";
        {
            std::lock_guard<std::mutex> locked(converted->log.mutex);
            EXPECT_EQ(kCVPixelFormatType_32BGRA, converted->log.picture.format);
            ExpectColourBars(converted->log.picture, c.pixelFormat, EncodingOf(state.format), 6);
        }
        first->setDelegate(nullptr);
        second->setDelegate(nullptr);
        for (NSObject* object :
             std::initializer_list<NSObject*>{session, first, second, input, native, converted})
            object->release();
    }
    device->close();
}

// vivid's webcam offers fewer frames per second at larger sizes. The library runs each size at
// its best rate (the interval the node reports for it); how fast frames then arrive is the
// emulated machine's business, and the benchmark's. A size the camera lacks is served from the
// nearest larger size, at that size's best rate.
TEST_F(VividFormats, EachSizeRunsAtItsBestRate) {
    struct SizeCase {
        unsigned long width, height;        // asked for by the host
        uint32_t deviceWidth, deviceHeight; // what the device streams
    };
    for (const SizeCase& c : {SizeCase{320, 180, 320, 180}, SizeCase{640, 360, 640, 360},
                              SizeCase{320, 240, 640, 360}}) {
        SCOPED_TRACE(testing::Message() << c.width << "x" << c.height);
        const double best = BestRate(camera.path, V4L2_PIX_FMT_YUYV, c.deviceWidth, c.deviceHeight);
        ASSERT_GT(best, 0);
        constexpr size_t kFrames = 24;
        PictureLog log;
        NodeState state;
        Capture(kCVPixelFormatType_422YpCbCr8_yuvs, c.width, c.height, kFrames, log, state);
        EXPECT_EQ(c.deviceWidth, state.format.width);
        EXPECT_EQ(c.deviceHeight, state.format.height);
        ASSERT_NE(0u, state.interval.numerator);
        EXPECT_DOUBLE_EQ(best, double(state.interval.denominator) / state.interval.numerator);
        std::lock_guard<std::mutex> locked(log.mutex);
        EXPECT_EQ(c.width, log.picture.width);
        EXPECT_EQ(c.height, log.picture.height);
        ExpectColourBars(log.picture, kCVPixelFormatType_422YpCbCr8_yuvs, EncodingOf(state.format),
                         4);
    }
}

} // namespace
