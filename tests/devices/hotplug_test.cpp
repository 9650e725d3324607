// Kernel drivers loaded and unloaded while a host listens for device changes (inside
// scripts/devvm.sh, which says where the guest's modules are; elsewhere every test skips): vivid
// cameras and snd-dummy's sound card arrive and leave, a camera keeps its unique id when its
// node is renumbered, and a camera taken away while capturing ends delivery and is reported.
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <string>

#include "support/devicechanges.h"
#include "support/kernelmodules.h"
#include "support/realdevices.h"
#include "support/tavix_helpers.h"

namespace {

std::string UniqueIdOf(unsigned long handle) {
    char id[256] = "";
    TavixDeviceGetUniqueID(handle, id, sizeof id);
    return id;
}

// vivid with one instance (a capture node with four inputs, each a device) whose capture node is
// /dev/video<node>; the ids that arrived.
std::set<std::string> LoadVivid(ChangeLog& log, int node) {
    EXPECT_TRUE(Modprobe("vivid n_devs=1 vid_cap_nr=" + std::to_string(node)));
    return log.Wait("vivid", true, 4);
}

} // namespace

TEST(Hotplug, CamerasAndSoundCardsArriveAndLeaveAndCamerasKeepTheirIds) {
    REQUIRE_MODULES();
    ASSERT_TRUE(Unload("vivid"));
    ASSERT_TRUE(Unload("snd-dummy"));
    ChangeLog log;
    const std::set<std::string> first = LoadVivid(log, 3);
    ASSERT_EQ(4u, first.size());
    EXPECT_TRUE(ListsAny(first)) << "listed once told";

    ASSERT_TRUE(Unload("vivid"));
    EXPECT_EQ(first, log.Wait("vivid", false, 4));
    EXPECT_FALSE(ListsAny(first)) << "not listed once told gone";

    // Renumbered nodes: the same ids, now at another node.
    log.Clear();
    EXPECT_EQ(first, LoadVivid(log, 7));
    EXPECT_EQ(0u, TavixDeviceGetWithUniqueID("/dev/video3"));
    DeviceScope renumbered(TavixDeviceGetWithUniqueID("/dev/video7"));
    EXPECT_EQ(1u, first.count(UniqueIdOf(renumbered.handle))) << "the camera at the node";

    ASSERT_TRUE(Modprobe("snd-dummy"));
    const std::set<std::string> dummy = log.Wait("Dummy", true);
    ASSERT_FALSE(dummy.empty());
    EXPECT_TRUE(ListsAny(dummy));
    ASSERT_TRUE(Unload("snd-dummy"));
    EXPECT_EQ(dummy, log.Wait("Dummy", false, dummy.size()));
    EXPECT_FALSE(ListsAny(dummy));
}

// vivid's module cannot be unloaded while a node is open, and its unplug control brings the
// node back as soon as the library lets go of it; unbinding the driver takes the nodes away for
// good while they are open, as a USB camera's unplug does. The driver is loaded afresh after.
TEST(Hotplug, ACameraTakenAwayWhileCapturingEndsDeliveryAndIsReported) {
    REQUIRE_MODULES();
    ASSERT_TRUE(Unload("vivid"));
    ChangeLog log;
    const std::set<std::string> ids = LoadVivid(log, 3);
    ASSERT_FALSE(ids.empty());
    DeviceScope scope(TavixDeviceGetWithUniqueID(ids.begin()->c_str()));
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    CallbackLog frames;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(frames), 0, 320, 180,
                                        nullptr, 0, 0, 0, 0, 0, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return frames.frames >= 3; }));
    std::ofstream("/sys/bus/platform/drivers/vivid/unbind") << "vivid.0" << std::flush;
    EXPECT_EQ(1u, log.Wait(*ids.begin(), false).size()) << "the departure is told";
    EXPECT_FALSE(TavixDeviceIsConnected(scope.handle));
    const int seen = frames.frames;
    EXPECT_TRUE(TavixDeviceStopCapture(scope.handle)) << "and capture stops without hanging";
    EXPECT_EQ(seen, frames.frames.load()) << "no frame after the departure";
    TavixDeviceClose(scope.handle);
    TavixDeviceRelease(scope.handle);
    scope.handle = 0;
    EXPECT_TRUE(Unload("vivid"));
    EXPECT_TRUE(Modprobe("vivid n_devs=1"));
}
