// Multiplanar capture nodes (vivid multiplanar=2, inside the devices_vm_inputs VM boot): listed
// like any camera, their one-buffer formats lent to the host without a copy, their recordings
// playable, and formats whose planes sit in separate buffers joined into the same picture the
// one-buffer format gives. Elsewhere every test skips, saying why.
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "platform/devicebackend.h"
#include "platform/devices/v4l2/v4l2camera.h"
#include "platform/devices/v4l2/v4l2planes.h"
#include "support/ffprobe.h"
#include "support/realdevices.h"
#include "support/tavix_helpers.h"
#include "support/vivid.h"

namespace {

std::atomic<const unsigned char*> lentPixels{nullptr};
std::string lentFrom;
std::atomic<unsigned long> lentFormat{0}, lentWidth{0}, lentHeight{0};

void KeepMapping(const unsigned char* pixels, unsigned long format, unsigned long width,
                 unsigned long height, unsigned long, const SMPTETime*, long) {
    if (lentFrom.empty())
        lentFrom = MappedFileOf(pixels); // read on this thread while the buffer is lent out
    lentFormat = format;
    lentWidth = width;
    lentHeight = height;
    lentPixels = pixels;
}

TEST(Multiplanar, ACameraIsListedWithItsFormatsAndLendsItsBuffers) {
    REQUIRE_MULTIPLANAR_CAMERA(camera);
    const std::vector<std::string> names = ListedDeviceNames(TavixDeviceMediaTypeVideo);
    ASSERT_NE(names.end(), std::find(names.begin(), names.end(), camera.displayName));
    DeviceScope scope(TavixDeviceGet(camera.displayName.c_str(), TavixDeviceMediaTypeVideo));
    ASSERT_NE(0u, scope.handle);

    // Each format and size once, though NV12 and NV12M (YU12 and YUV420M) both give it.
    std::vector<std::tuple<unsigned, size_t, size_t>> formats;
    for (const platform::DeviceFormat& format : BackendFormats(camera.uniqueId))
        formats.push_back({format.formatType, format.width, format.height});
    const std::set<std::tuple<unsigned, size_t, size_t>> distinct(formats.begin(), formats.end());
    EXPECT_EQ(distinct.size(), formats.size());
    std::set<unsigned> pixelFormats;
    for (const auto& format : formats)
        pixelFormats.insert(std::get<0>(format));
    for (OSType wanted :
         {kCVPixelFormatType_422YpCbCr8_yuvs, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange,
          kCVPixelFormatType_420YpCbCr8Planar})
        EXPECT_EQ(1u, pixelFormats.count(wanted)) << FindPixelFormat(wanted)->name;

    // NV12 fills one memory plane: the host reads the driver's buffer.
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    lentFrom.clear();
    lentPixels = nullptr;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, KeepMapping, 0,
                                        kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, 320, 180,
                                        nullptr, 0, 0, 0, 0, 0, nullptr));
    EXPECT_TRUE(WaitUntil([&] { return lentPixels != nullptr; }, std::chrono::seconds(30)));
    ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
    EXPECT_EQ(0u, lentFrom.rfind("/dev/video", 0)) << "pixels came from \"" << lentFrom << "\"";
    EXPECT_EQ(kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, lentFormat.load());
    EXPECT_EQ(320u, lentWidth.load());
    EXPECT_EQ(180u, lentHeight.load());
}

TEST(Multiplanar, ACameraRecordsWhatTheCallbackSees) {
    REQUIRE_MULTIPLANAR_CAMERA(camera);
    ExpectCameraRecordsWhatTheCallbackSees(camera.displayName, 320, 180, 5, true);
}

// One plane of a picture, row by row.
struct PlaneRows {
    std::vector<uint8_t> bytes;
    size_t rowBytes = 0, rows = 0;
    const uint8_t* Row(size_t row) const { return bytes.data() + row * rowBytes; }
};

PlaneRows CopyRows(const uint8_t* from, size_t stride, size_t rowBytes, size_t rows) {
    PlaneRows plane;
    plane.rowBytes = rowBytes;
    plane.rows = rows;
    for (size_t row = 0; row < rows; ++row)
        plane.bytes.insert(plane.bytes.end(), from + row * stride, from + row * stride + rowBytes);
    return plane;
}

// Streams `fourcc` at 320 x 180 (a size vivid's webcam offers) and hands the third frame (past
// start-up) to `use`.
void WithFrame(const std::string& node, uint32_t fourcc,
               const std::function<void(const V4L2Camera&, const V4L2Frame&)>& use) {
    V4L2Camera camera;
    ASSERT_EQ(V4L2Camera::Status::Ok, camera.open(node));
    ASSERT_EQ(V4L2Camera::Status::Ok, camera.setFormat(fourcc, 320, 180, {}));
    ASSERT_EQ(fourcc, camera.format().fourcc);
    ASSERT_EQ(180u, camera.format().height);
    ASSERT_EQ(V4L2Camera::Status::Ok, camera.start(4));
    V4L2Frame frame;
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(V4L2Camera::Wait::Frame, camera.waitFrame(30000, frame));
    use(camera, frame);
    frame.requeue();
}

// The picture's planes as the platform lays them out: Y, then CbCr or Cb and Cr.
std::vector<PlaneRows> PlanesOf(CVPixelBufferRef picture) {
    std::vector<PlaneRows> planes;
    PixelFormatLayout tight;
    GetPixelFormatLayout(picture->pixelFormat, picture->width, picture->height, 1, tight);
    for (int plane = 0; plane < picture->layout.planeCount; ++plane)
        planes.push_back(CopyRows(picture->base + picture->layout.planeOffset[plane],
                                  picture->layout.bytesPerRow[plane], tight.bytesPerRow[plane],
                                  tight.planeHeight[plane]));
    return planes;
}

// The same vivid pattern through a separate-planes format and its one-buffer twin: every plane
// in the lower half is the same, so the planes were joined in the right order and with the
// driver's own strides. vivid's changing text over its pattern (which reaches that far down at
// 180 lines) is turned off meanwhile.
TEST(Multiplanar, PlanesInSeparateBuffersJoinIntoTheOneBufferPicture) {
    REQUIRE_MULTIPLANAR_CAMERA(camera);
    ASSERT_TRUE(SetControl(camera.path, "OSD Text Mode", 2));
    struct TextBack {
        std::string node;
        ~TextBack() { SetControl(node, "OSD Text Mode", 0); }
    } textBack{camera.path};
    struct Pair {
        uint32_t separate, oneBuffer;
        OSType pixelFormat;
    };
    for (const Pair& pair :
         {Pair{V4L2_PIX_FMT_NV12M, V4L2_PIX_FMT_NV12,
               kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange},
          Pair{V4L2_PIX_FMT_YUV420M, V4L2_PIX_FMT_YUV420, kCVPixelFormatType_420YpCbCr8Planar},
          Pair{V4L2_PIX_FMT_YVU420M, V4L2_PIX_FMT_YUV420, kCVPixelFormatType_420YpCbCr8Planar}}) {
        SCOPED_TRACE(FindPixelFormat(pair.pixelFormat)->name);
        const V4L2SeparatePlanes* separate = V4L2FindSeparatePlanes(pair.separate);
        ASSERT_NE(nullptr, separate);
        ASSERT_EQ(pair.pixelFormat, separate->pixelFormat);

        // The one-buffer picture, laid out as the platform lays out the format.
        std::vector<PlaneRows> expected;
        WithFrame(camera.path, pair.oneBuffer, [&](const V4L2Camera& node, const V4L2Frame& f) {
            ASSERT_EQ(1u, f.planeCount);
            CVPixelBufferRef wrapped = nullptr;
            ASSERT_EQ(kCVReturnSuccess,
                      CVPixelBufferCreateWithBytes(
                          nullptr, 320, 180, pair.pixelFormat, const_cast<uint8_t*>(f.data),
                          node.format().bytesPerLine, nullptr, nullptr, nullptr, &wrapped));
            expected = PlanesOf(wrapped);
            CVPixelBufferRelease(wrapped);
        });
        std::vector<PlaneRows> joined;
        WithFrame(camera.path, pair.separate, [&](const V4L2Camera& node, const V4L2Frame& f) {
            EXPECT_EQ(separate->planeCount, f.planeCount);
            EXPECT_EQ(separate->planeCount, node.format().planeCount);
            CVPixelBufferPool* pool = new CVPixelBufferPool(pair.pixelFormat, 320, 180);
            CVPixelBufferRef picture = V4L2JoinPlanes(f, node.format(), *separate, *pool);
            ASSERT_NE(nullptr, picture);
            EXPECT_EQ(pair.pixelFormat, picture->pixelFormat);
            joined = PlanesOf(picture);
            CVPixelBufferRelease(picture);
            pool->Invalidate();
            pool->release();
        });
        ASSERT_EQ(expected.size(), joined.size());
        for (size_t plane = 0; plane < joined.size(); ++plane) {
            ASSERT_EQ(expected[plane].rowBytes, joined[plane].rowBytes);
            for (size_t row = joined[plane].rows / 2; row < joined[plane].rows; ++row)
                ASSERT_EQ(0, memcmp(expected[plane].Row(row), joined[plane].Row(row),
                                    joined[plane].rowBytes))
                    << "plane " << plane << " row " << row;
        }
    }
}

} // namespace
