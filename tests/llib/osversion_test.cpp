#include "llib/mac/genutils.h"
#include "platform/gestalt.h"

#include <gtest/gtest.h>

TEST(OSVersion, PacksMinorsUpTo8AsANibbleAndLaterOnesAsTwoDigits) {
    EXPECT_EQ(0x1080, LMakeMacOSVersion(10, 8));
    EXPECT_EQ(0x1009, LMakeMacOSVersion(10, 9));
    EXPECT_EQ(0x1010, LMakeMacOSVersion(10, 10));
    EXPECT_EQ(0x1100, LMakeMacOSVersion(11, 0));
    EXPECT_EQ(0x0920, LMakeMacOSVersion(9, 2));
}

TEST(OSVersion, ComparesThePlatformsVersionAndRefusesUnknownSelectors) {
    SInt32 version = 0;
    ASSERT_EQ(noErr, Gestalt(gestaltSystemVersion, &version));
    EXPECT_EQ(0x1068, version);
    EXPECT_TRUE(IsOSMacVersionOrLater(10, 6));
    EXPECT_FALSE(IsOSMacVersionOrLater(10, 7));

    PlatformSetSystemVersion(0x1040);
    EXPECT_TRUE(IsOSMacVersionOrLater(10, 4));
    EXPECT_FALSE(IsOSMacVersionOrLater(10, 5));
    // 10.9 packs below 10.4 (0x1009): the packing, not the number, decides.
    EXPECT_TRUE(IsOSMacVersionOrLater(10, 9));
    PlatformSetSystemVersion(kPlatformSystemVersion);

    SInt32 response = 42;
    EXPECT_EQ(gestaltUndefSelectorErr, Gestalt(0x6e6f6e65, &response));
    EXPECT_EQ(42, response);
    EXPECT_EQ(gestaltUndefSelectorErr, Gestalt(gestaltSystemVersion, nullptr));
}
