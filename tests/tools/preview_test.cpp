// `tavix preview` used as a person uses it, on a virtual X server: the picture in the window, a
// window resized, keys that drive a deck, step controls, record and quit, and the refusal
// without a display.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/colourbars.h"
#include "support/commandsummary.h"
#include "support/ffprobe.h"
#include "support/process.h"
#include "support/tempfolder.h"

namespace {

const std::string kTavix = std::string(TAVIX_BINARY_DIR) + "/tavix";

// Checks condition every 50 ms until it holds or `seconds` pass.
bool Eventually(const std::function<bool()>& condition, int seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// An X server of the test's own, on a display number no other server holds.
class VirtualDisplay {
public:
    VirtualDisplay() {
        int ready[2];
        if (pipe(ready) != 0)
            return;
        const std::string fd = std::to_string(ready[1]);
        server = StartChild([&] {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            close(ready[0]);
            // The server takes a free display number and writes it to the pipe once it accepts
            // clients. Without -noreset it resets when its last client leaves and refuses the
            // next one for a moment.
            execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1024x768x24",
                   "-nolisten", "tcp", "-noreset", static_cast<char*>(nullptr));
            _exit(127);
        });
        close(ready[1]);
        FILE* answer = fdopen(ready[0], "r");
        char number[32];
        if (server > 0 && fgets(number, sizeof number, answer) != nullptr)
            name = ":" + std::string(number, strcspn(number, "\n"));
        fclose(answer);
    }
    ~VirtualDisplay() {
        if (server > 0) {
            kill(server, SIGTERM);
            WaitForChild(server);
        }
    }
    // A shell command run against this display; one that hangs (an X client waiting for a
    // reply) is ended after ten seconds.
    CommandOutput Run(const std::string& command) const {
        return RunCommand("DISPLAY=" + name + " timeout 10 " + command);
    }

    pid_t server = -1;
    std::string name; // ":N"; empty when the server did not start
};

RGBImage Screenshot(const VirtualDisplay& display, const std::string& window) {
    return ReadPPMFrom("DISPLAY=" + display.name + " timeout 10 import -window " + window +
                       " -depth 8 ppm:- 2>/dev/null");
}

bool Near(const unsigned char* pixel, const unsigned char* colour, int tolerance) {
    for (int c = 0; c < 3; ++c)
        if (std::abs(pixel[c] - colour[c]) > tolerance)
            return false;
    return true;
}

// The pixels of the frame counter the test pattern burns in at its top left.
std::vector<unsigned char> Counter(const RGBImage& window, int frameWidth, int frameHeight) {
    std::vector<unsigned char> pixels;
    if (window.width == 0)
        return pixels;
    const PictureArea area(window, frameWidth, frameHeight);
    const int scale = std::max(2, frameHeight / 120 & ~1);
    for (int y = area.Y(16); y < area.Y(16 + 9 * scale); ++y)
        for (int x = area.X(16); x < area.X(16 + 49 * scale); ++x)
            if (window.Has(x, y))
                pixels.insert(pixels.end(), window.At(x, y), window.At(x, y) + 3);
    return pixels;
}

// A running `tavix preview`, its output (standard error too) going to a file in its folder.
class Preview {
public:
    Preview(const VirtualDisplay& display, const std::string& folder,
            const std::vector<std::string>& arguments)
        : display(display), outputFile(folder + "/preview-output.txt") {
        child = StartChild([&] {
            // A test that dies must not leave the program running.
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            const int output = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (output < 0 || chdir(folder.c_str()) != 0)
                _exit(126);
            dup2(output, STDOUT_FILENO);
            dup2(output, STDERR_FILENO);
            setenv("DISPLAY", display.name.c_str(), 1);
            unsetenv("WAYLAND_DISPLAY");
            // Xvfb's indirect GLX now and then leaves an OpenGL client waiting for a reply that
            // never comes; SDL's software renderer draws the same picture without GLX.
            setenv("SDL_RENDER_DRIVER", "software", 1);
            std::vector<char*> argv = {const_cast<char*>("tavix"), const_cast<char*>("preview")};
            for (const std::string& argument : arguments)
                argv.push_back(const_cast<char*>(argument.c_str()));
            argv.push_back(nullptr);
            execv(kTavix.c_str(), argv.data());
            _exit(127);
        });
    }
    ~Preview() {
        if (child > 0 && status == kRunning)
            KillChild(child);
    }

    std::string Output() const { return ReadFile(outputFile); }
    bool WaitForOutput(const std::string& part, int seconds = 15) {
        return Eventually([&] { return Contains(Output(), part); }, seconds);
    }
    // The id of the program's window, once it is shown (a hidden one with the same title may
    // come and go before it).
    std::string FindWindow(const std::string& title) {
        Eventually(
            [&] {
                // The output carries xdotool's complaints too: the id is the line of digits.
                const CommandOutput found =
                    display.Run("xdotool search --onlyvisible --name '^" + title + "$'");
                window.clear();
                size_t start = 0;
                while (window.empty() && start < found.output.size()) {
                    const size_t end =
                        std::min(found.output.find('\n', start), found.output.size());
                    const std::string line = found.output.substr(start, end - start);
                    if (!line.empty() && line.find_first_not_of("0123456789") == std::string::npos)
                        window = line;
                    start = end + 1;
                }
                return found.status == 0 && !window.empty();
            },
            20);
        return window;
    }
    void Key(const std::string& key) { display.Run("xdotool key --window " + window + " " + key); }
    void Resize(int width, int height) {
        display.Run("xdotool windowsize " + window + " " + std::to_string(width) + " " +
                    std::to_string(height));
    }
    RGBImage Screenshot() { return ::Screenshot(display, window); }
    // Whether the window comes to show the bars of a `width` x `height` picture, at the window
    // size asked (any when 0); the last screenshot and what was wrong with it are kept.
    bool ShowsBars(int width, int height, RGBImage& image, std::string& wrong, int windowWidth = 0,
                   int windowHeight = 0) {
        return Eventually(
            [&] {
                image = Screenshot();
                wrong = WrongBars(image, width, height, 40);
                return wrong.empty() && (windowWidth == 0 || (image.width == windowWidth &&
                                                              image.height == windowHeight));
            },
            15);
    }
    // The exit status once the program ends within `seconds`, else kRunning.
    int Exited(int seconds = 15) {
        Eventually(
            [&] {
                int raw = 0;
                if (waitpid(child, &raw, WNOHANG) == child)
                    status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -WTERMSIG(raw);
                return status != kRunning;
            },
            seconds);
        return status;
    }

    static constexpr int kRunning = -1000;
    std::string window;

private:
    const VirtualDisplay& display;
    const std::string outputFile;
    pid_t child = -1;
    int status = kRunning;
};

class PreviewWindow : public ::testing::Test {
protected:
    void SetUp() override {
#if defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "SDL and the X client libraries are not instrumented, so "
                        "ThreadSanitizer cannot follow their threads";
#endif
#if defined(__SANITIZE_ADDRESS__)
        // The X client libraries keep allocations for the life of the process.
        setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
#endif
        if (display.name.empty())
            GTEST_SKIP() << "Xvfb cannot start (is the xvfb package installed?)";
    }

    VirtualDisplay display;
    TempFolder temp{"tavix-preview"};
};

TEST_F(PreviewWindow, ShowsTheLivePictureThroughAResizeAndQuitsOnQ) {
    Preview preview(display, temp.path, {"Tavix Test Camera"});
    ASSERT_FALSE(preview.FindWindow("Tavix Test Camera").empty())
        << "no window titled with the device's name\n"
        << preview.Output();

    RGBImage first;
    std::string wrong;
    ASSERT_TRUE(preview.ShowsBars(1280, 720, first, wrong))
        << "the colour bars never showed: " << wrong << "\n"
        << preview.Output();
    const std::vector<unsigned char> counter = Counter(first, 1280, 720);
    EXPECT_TRUE(Eventually([&] { return Counter(preview.Screenshot(), 1280, 720) != counter; }, 10))
        << "the burnt-in frame counter did not change: the picture is not live";

    preview.Resize(500, 400);
    RGBImage resized;
    EXPECT_TRUE(preview.ShowsBars(1280, 720, resized, wrong, 500, 400))
        << "after the resize: " << wrong;

    preview.Key("s");
    ASSERT_TRUE(preview.WaitForOutput("snapshot ")) << preview.Output();
    const std::string output = preview.Output();
    const size_t name = output.find("snapshot ") + 9;
    // The snapshot is the camera's own picture, its Y'CbCr made RGB: close to the bars.
    const RGBImage snapshot =
        ReadImageFile(temp / output.substr(name, output.find('\n', name) - name));
    EXPECT_EQ(1280, snapshot.width);
    EXPECT_EQ("", WrongBars(snapshot, 1280, 720, 6));

    // Brightness and exposure move by a 32nd of their range; exposure is made manual first.
    preview.Key("B");
    EXPECT_TRUE(preview.WaitForOutput("brightness = 135\n")) << preview.Output();
    preview.Key("e");
    EXPECT_TRUE(preview.WaitForOutput("exposure = 21\n")) << preview.Output();

    preview.Key("q");
    EXPECT_EQ(0, preview.Exited()) << preview.Output();
}

TEST_F(PreviewWindow, SpacePlaysTheDeckAndRTwiceLeavesAPlayableRecording) {
    Preview preview(display, temp.path, {"Tavix Test Deck"});
    ASSERT_FALSE(preview.FindWindow("Tavix Test Deck").empty()) << preview.Output();
    RGBImage stopped;
    std::string wrong;
    ASSERT_TRUE(preview.ShowsBars(720, 576, stopped, wrong)) << wrong << "\n" << preview.Output();

    preview.Key("space");
    ASSERT_TRUE(preview.WaitForOutput("Tavix Test Deck: playing")) << preview.Output();
    const std::vector<unsigned char> counter = Counter(stopped, 720, 576);
    EXPECT_TRUE(Eventually([&] { return Counter(preview.Screenshot(), 720, 576) != counter; }, 10))
        << "the tape's frame counter did not move";

    // A wind brings no pictures and misses none; the frames after it are what the recording
    // below waits for.
    preview.Key("Right");
    ASSERT_TRUE(preview.WaitForOutput("Tavix Test Deck: fast forwarding")) << preview.Output();
    usleep(1500000); // long enough for 37 frames that would have been counted as dropped
    preview.Key("space");
    ASSERT_TRUE(preview.WaitForOutput("Tavix Test Deck: stopped")) << preview.Output();

    preview.Key("r");
    ASSERT_TRUE(preview.WaitForOutput("recording to ")) << preview.Output();
    std::string output = preview.Output();
    const size_t name = output.find("recording to ") + 13;
    const std::string movie = temp / output.substr(name, output.find('\n', name) - name);
    // Some pictures and sound go into the file before it ends.
    EXPECT_TRUE(Eventually([&] { return ReadFile(movie).size() > 2000000; }, 15));
    preview.Key("r");
    ASSERT_TRUE(preview.WaitForOutput("recording ended")) << preview.Output();

    preview.Key("q");
    EXPECT_EQ(0, preview.Exited()) << preview.Output();
    output = preview.Output();
    EXPECT_TRUE(Contains(output, "timecode   last ")) << output;
    EXPECT_FALSE(Contains(output, "last 00:00:00:00")) << "the timecode never ran\n" << output;
    EXPECT_TRUE(Contains(output, "  winding    ")) << output;
    const long long dropped = VideoSummaryOf(output).dropped;
    EXPECT_TRUE(dropped >= 0 && dropped < 25) << output;

    if (!HaveFFprobe())
        GTEST_SKIP() << "ffprobe is not installed";
    const ProbedMovie probed = ProbeMovie(movie);
    ASSERT_TRUE(probed.readable) << movie;
    ASSERT_NE(nullptr, probed.Find("video"));
    EXPECT_GT(probed.Find("video")->frames, 10);
    EXPECT_NE(nullptr, probed.Find("audio"));
}

TEST_F(PreviewWindow, ASoundOnlyDeviceShowsItsWaveAndHasNoTransport) {
    Preview preview(display, temp.path, {"Tavix Test Microphone"});
    ASSERT_FALSE(preview.FindWindow("Tavix Test Microphone").empty()) << preview.Output();
    const unsigned char waveGreen[3] = {60, 210, 80};
    EXPECT_TRUE(Eventually(
        [&] {
            const RGBImage window = preview.Screenshot();
            return window.Has(window.width - 2, window.height / 3) &&
                   Near(window.At(window.width - 2, window.height / 3), waveGreen, 10);
        },
        15))
        << "no waveform at the right edge, where the newest sound goes";
    preview.Key("space");
    EXPECT_TRUE(preview.WaitForOutput("has no transport controls")) << preview.Output();
    preview.Key("Escape");
    EXPECT_EQ(0, preview.Exited()) << preview.Output();
}

TEST(PreviewCommand, WithoutADisplaySaysSoInOneLineAndSuggestsCapture) {
    const CommandOutput run =
        RunCommand("env -u DISPLAY -u WAYLAND_DISPLAY " + kTavix + " preview 'Tavix Test Camera'");
    EXPECT_EQ(2, run.status);
    EXPECT_TRUE(Contains(run.output, "tavix capture")) << run.output;
    EXPECT_EQ(run.output.size() - 1, run.output.find('\n')) << "one line:\n" << run.output;

    // A display that is named but not there.
    const CommandOutput unreachable =
        RunCommand("DISPLAY=:4093 " + kTavix + " preview 'Tavix Test Camera'");
    EXPECT_EQ(2, unreachable.status) << unreachable.output;
    EXPECT_TRUE(Contains(unreachable.output, "tavix capture")) << unreachable.output;
}

} // namespace
