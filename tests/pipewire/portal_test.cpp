// The sandbox's way to the cameras, as a host sees it: with TAVIX_CAMERA_PORTAL=1 the library
// asks the camera portal (here the mock in mockportal.py on the lab's private session bus) and
// lists the cameras of the PipeWire connection it hands out; refused, or with no portal, it
// lists no PipeWire device and TavixDeviceGetListError says why.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "llib/mac/tavix.h"
#include "support/pipewirelab.h"

extern char** environ;

namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Debian's python3-dbus and python3-gi belong to the system's interpreter.
constexpr const char* kPython = "/usr/bin/python3";

// The mock portal, answering AccessCamera with `response`, for as long as the object lives.
class MockPortal {
public:
    explicit MockPortal(int response) {
        int input[2], output[2];
        if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], 0);
        posix_spawn_file_actions_adddup2(&actions, output[1], 1);
        const std::string script = TAVIX_SOURCE_DIR "/tests/pipewire/mockportal.py";
        const std::string code = std::to_string(response);
        char* arguments[] = {const_cast<char*>(kPython), const_cast<char*>(script.c_str()),
                             const_cast<char*>(code.c_str()), nullptr};
        if (posix_spawn(&child, kPython, &actions, nullptr, arguments, environ) != 0)
            child = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        close(output[1]);
        input_ = input[1];
        // "ready" once it owns the portal's name; a generous wait, for a busy machine.
        std::string line;
        pollfd wait{output[0], POLLIN, 0};
        char c = 0;
        while (child > 0 && line.find('\n') == std::string::npos && poll(&wait, 1, 30000) == 1 &&
               read(output[0], &c, 1) == 1)
            line += c;
        close(output[0]);
        ready = line == "ready\n";
    }
    ~MockPortal() {
        close(input_); // the mock ends when its input closes
        if (child > 0)
            waitpid(child, nullptr, 0);
    }
    bool ready = false;

private:
    pid_t child = -1;
    int input_ = -1;
};

std::vector<std::string> PipeWireIds() {
    std::vector<std::string> ids;
    TavixDeviceEnumerateWithUniqueIDs(
        [](const char*, const char* id, TavixDeviceMediaType, bool, void* context) {
            if (strncmp(id, "pipewire:", 9) == 0)
                static_cast<std::vector<std::string>*>(context)->push_back(id);
            return true;
        },
        &ids, TavixDeviceMediaTypeAny, 0);
    return ids;
}

std::string ListError() {
    char text[512];
    return TavixDeviceGetListError(text, sizeof text) ? text : "";
}

TEST(CameraPortal, ListsTheCamerasOnlyWhenThePortalGrantsAccess) {
    if (!PipeWireLab::SkipReason().empty())
        GTEST_SKIP() << PipeWireLab::SkipReason();
    setenv("TAVIX_CAMERA_PORTAL", "1", 1);
    PipeWireLab lab;
    ASSERT_EQ(lab.Problem(), "");
    ASSERT_TRUE(lab.StartSource());

    // Refusals first: once granted, the library keeps the connection it got.
    const struct {
        int response; // -1: no portal on the bus
        const char* reason;
    } cases[] = {
        {-1, "No desktop portal runs"}, {1, "refused access"}, {2, "without granting"}, {0, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.response);
        std::unique_ptr<MockPortal> portal;
        if (c.response >= 0) {
            portal = std::make_unique<MockPortal>(c.response);
            ASSERT_TRUE(portal->ready);
        }
        std::vector<std::string> ids = PipeWireIds();
        if (c.response != 0) {
            EXPECT_THAT(ids, IsEmpty());
            EXPECT_THAT(ListError(), HasSubstr(c.reason));
            EXPECT_TRUE(TavixDeviceGetListError(nullptr, 0));
            continue;
        }
        // The registry's nodes may come in after the first listing.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (ids.empty() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            ids = PipeWireIds();
        }
        EXPECT_THAT(ids, Contains(PipeWireLab::kCameraId));
        EXPECT_EQ(ListError(), "");
    }
    unsetenv("TAVIX_CAMERA_PORTAL");
}

} // namespace
