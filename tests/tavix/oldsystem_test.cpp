// On a system older than 10.5 the muxed media type is not supported. The version is set before
// anything asks (the answer is computed once per process), hence a program of its own.
#include <gtest/gtest.h>

#include "platform/gestalt.h"
#include "platform/virtualdevices.h"
#include "support/tavix_helpers.h"

namespace {
struct OldSystem {
    OldSystem() { PlatformSetSystemVersion(0x1049); }
} oldSystem __attribute__((init_priority(1100)));
} // namespace

TEST(OldSystem, MuxedIsUnsupportedBelow105) {
    EXPECT_EQ(0u, TavixDeviceGet("Tavix Test Deck", TavixDeviceMediaTypeMuxed));
    // Asked for as video, the deck still matches: the video rule asks the device for muxed media
    // directly, without the muxed support test.
    const unsigned long deck = TavixDeviceGet("Tavix Test Deck", TavixDeviceMediaTypeVideo);
    EXPECT_NE(0u, deck);
    TavixDeviceRelease(deck);
    const unsigned long camera = TavixDeviceGet("Tavix Test Camera", TavixDeviceMediaTypeVideo);
    EXPECT_NE(0u, camera);
    TavixDeviceRelease(camera);
}
