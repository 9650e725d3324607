// The library loaded at run time: its load-time set-up runs without an initialisation call, it
// captures, and it unloads completely, twice in a row. This program does not link the library.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "llib/mac/tavix.h"

namespace {

struct Library {
    void* handle = nullptr;
    template <class F>
    F Get(const char* name) {
        void* symbol = dlsym(handle, name);
        EXPECT_NE(nullptr, symbol) << name;
        return reinterpret_cast<F>(symbol);
    }
};

std::atomic<int> frames{0};

void CountFrame(const unsigned char*, unsigned long, unsigned long, unsigned long, unsigned long,
                const SMPTETime*, long) {
    ++frames;
}

bool CollectName(const char* name, void* context) {
    static_cast<std::vector<std::string>*>(context)->push_back(name);
    return true;
}

void LoadCaptureAndUnload() {
    Library lib;
    lib.handle = dlopen(TAVIX_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, lib.handle) << dlerror();

    std::vector<std::string> names;
    lib.Get<decltype(&TavixDeviceEnumerateWithCallBack)>("TavixDeviceEnumerateWithCallBack")(
        CollectName, &names, TavixDeviceMediaTypeVideo, 0);
    EXPECT_NE(names.end(), std::find(names.begin(), names.end(), "Tavix Test Camera"));

    const unsigned long device = lib.Get<decltype(&TavixDeviceGet)>("TavixDeviceGet")(
        "Tavix Test Camera", TavixDeviceMediaTypeVideo);
    ASSERT_NE(0u, device);
    EXPECT_TRUE(lib.Get<decltype(&TavixIsMainThread)>("TavixIsMainThread")());
    EXPECT_TRUE(lib.Get<decltype(&TavixDeviceOpen)>("TavixDeviceOpen")(device));
    frames = 0;
    EXPECT_TRUE(lib.Get<decltype(&TavixDeviceStartCapture)>("TavixDeviceStartCapture")(
        device, CountFrame, 0, 0, 320, 240, nullptr, 0, 0, 0, 0, 0, nullptr));
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (frames < 3 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_GE(frames.load(), 3);
    EXPECT_TRUE(lib.Get<decltype(&TavixDeviceStopCapture)>("TavixDeviceStopCapture")(device));
    EXPECT_TRUE(lib.Get<decltype(&TavixDeviceClose)>("TavixDeviceClose")(device));
    EXPECT_TRUE(lib.Get<decltype(&TavixDeviceRelease)>("TavixDeviceRelease")(device));
    EXPECT_FALSE(lib.Get<decltype(&TavixHasUsedDevices)>("TavixHasUsedDevices")());

    EXPECT_EQ(0, dlclose(lib.handle));
    EXPECT_EQ(nullptr, dlopen(TAVIX_LIBRARY_FILE, RTLD_NOW | RTLD_NOLOAD))
        << "the library stays mapped after its last dlclose";
}

TEST(Dlopen, LoadsCapturesAndUnloadsRepeatedly) {
    LoadCaptureAndUnload();
    LoadCaptureAndUnload();
}

} // namespace
