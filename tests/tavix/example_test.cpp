#include <cstdio>
#include <gtest/gtest.h>
#include <string>

#include "support/process.h"

// The plain-C example host runs against the built library and sees frames and sound.
TEST(ExampleHost, CapturesTwoSecondsFromTheTestDevices) {
    const CommandOutput run =
        RunCommand(std::string(TAVIX_BINARY_DIR) + "/examples/tavix_example_capture");
    const std::string& output = run.output;
    EXPECT_EQ(0, run.status) << output;
    EXPECT_NE(std::string::npos, output.find("device: Tavix Test Camera")) << output;
    EXPECT_NE(std::string::npos, output.find("format: video 2vuy 1280 x 720")) << output;
    unsigned long frames = 0, width = 0, height = 0, samples = 0;
    const size_t at = output.find("frames: ");
    ASSERT_NE(std::string::npos, at) << output;
    ASSERT_EQ(3, sscanf(output.c_str() + at, "frames: %lu (%lu x %lu)", &frames, &width, &height));
    const size_t soundAt = output.find("sample frames: ");
    ASSERT_NE(std::string::npos, soundAt);
    ASSERT_EQ(1, sscanf(output.c_str() + soundAt, "sample frames: %lu", &samples));
    // Two seconds at 30 fps and 48 kHz, with generous room for a loaded machine.
    EXPECT_GE(frames, 30u);
    EXPECT_LE(frames, 70u);
    EXPECT_EQ(1280u, width);
    EXPECT_GE(samples, 48000u);
    EXPECT_LE(samples, 110000u);
}
