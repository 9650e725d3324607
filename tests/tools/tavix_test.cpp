// The tavix command, run as a user runs it: its listings, a capture with recording and snapshot,
// transport, Ctrl-C, and its errors (a message naming the problem and a non-zero exit).
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <cstdio>
#include <string>

#include "support/colourbars.h"
#include "support/process.h"
#include "support/tempfolder.h"
#include "support/ffprobe.h"

namespace {

const std::string kTavix = std::string(TAVIX_BINARY_DIR) + "/tavix";

// A command that should have refused but captures until Ctrl-C ends after a minute, failing.
CommandOutput Tavix(const std::string& arguments) {
    return RunCommand("timeout 60 " + kTavix + " " + arguments);
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class TavixCommand : public ::testing::Test {
protected:
    TempFolder temp{"tavix-tool"};
    std::string folder = temp.path;
};

// `list --watch` lists, then waits for devices to come and go until Ctrl-C ends it cleanly.
TEST_F(TavixCommand, ListsDevicesAndFormats) {
    int output[2];
    ASSERT_EQ(0, pipe(output));
    const pid_t child = StartChild([&] {
        dup2(output[1], STDOUT_FILENO);
        execl(kTavix.c_str(), "tavix", "list", "--watch", static_cast<char*>(nullptr));
        _exit(127);
    });
    close(output[1]);
    FILE* lines = fdopen(output[0], "r");
    char line[512];
    std::string list;
    while (!Contains(list, "Ctrl-C") && fgets(line, sizeof line, lines) != nullptr)
        list += line;
    kill(child, SIGINT);
    while (fgets(line, sizeof line, lines) != nullptr) {
    }
    fclose(lines);
    EXPECT_EQ(0, WaitForChild(child)) << "a clean exit, not a signal";
    EXPECT_TRUE(Contains(list, "Tavix Test Microphone")) << list;
    EXPECT_TRUE(Contains(list, "transport controls")) << "the deck's state";
    EXPECT_TRUE(Contains(list, "tavix-virtual:test-camera")) << "the unique ids";

    // A device is named by its display name or its unique id; the formats carry their rates.
    for (const char* name : {"'Tavix Test Camera'", "tavix-virtual:test-camera"}) {
        const CommandOutput formats = Tavix(std::string("formats ") + name);
        EXPECT_EQ(0, formats.status) << name;
        EXPECT_TRUE(Contains(formats.output, "1280 x 720  30, 60 fps")) << formats.output;
        EXPECT_TRUE(Contains(formats.output, "160 x 120  30, 60 fps"));
    }
    const CommandOutput deck = Tavix("formats 'Tavix Test Deck'");
    EXPECT_TRUE(Contains(deck.output, "lpcm  48000 Hz, 2 channels, 16-bit integer")) << deck.output;
    EXPECT_TRUE(Contains(deck.output, "720 x 576  25 fps"));

    const CommandOutput fast = Tavix("capture 'Tavix Test Camera' --seconds 1 --rate 60");
    EXPECT_EQ(0, fast.status) << fast.output;
    EXPECT_TRUE(Contains(fast.output, "rate      60.00 frames per second")) << fast.output;
}

TEST_F(TavixCommand, CapturesRecordsAndSnapshotsWithPlainLinesOffATerminal) {
    const std::string movie = folder + "/capture.mp4", png = folder + "/last.png";
    // The microphone named by its unique id.
    const CommandOutput run =
        Tavix("capture 'Tavix Test Camera' --audio tavix-virtual:test-microphone "
              "--seconds 1 --size 320x240 --format 420v --record " +
              movie + " --snapshot " + png);
    ASSERT_EQ(0, run.status) << run.output;
    EXPECT_TRUE(Contains(run.output, "with sound from \"Tavix Test Microphone\"")) << run.output;
    EXPECT_FALSE(Contains(run.output, "\r")) << "no live line when the output is not a terminal";
    EXPECT_TRUE(Contains(run.output, "320 x 240 420v")) << run.output;

    if (!HaveFFprobe())
        GTEST_SKIP() << "ffprobe is not installed";
    // The snapshot's planar Y'CbCr made RGB: the camera's bars.
    const RGBImage snapshot = ReadImageFile(png);
    EXPECT_EQ(320, snapshot.width);
    EXPECT_EQ("", WrongBars(snapshot, 320, 240, 6));
    const ProbedMovie probed = ProbeMovie(movie);
    ASSERT_TRUE(probed.readable) << run.output;
    EXPECT_EQ(2u, probed.streams.size());
    // A second of pictures and sound (more on a machine too slow to keep up with the camera).
    EXPECT_GT(probed.duration, 0.75);
    EXPECT_LT(probed.duration, 2.0);
}

TEST_F(TavixCommand, CtrlCStopsCleanlyAndKeepsTheRecording) {
    const std::string movie = folder + "/interrupted.mov";
    int output[2];
    ASSERT_EQ(0, pipe(output));
    const pid_t child = StartChild([&] {
        dup2(output[1], STDOUT_FILENO);
        // No --seconds: it runs until Ctrl-C.
        execl(kTavix.c_str(), "tavix", "capture", "Tavix Test Camera", "--record", movie.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    });
    close(output[1]);
    // Off a terminal the tool prints a plain status line a second; Ctrl-C comes once a line
    // reports a second's worth of frames (on a loaded machine that can take longer).
    FILE* lines = fdopen(output[0], "r");
    char line[512];
    double seconds = 0;
    unsigned long frames = 0;
    while ((seconds < 1 || frames < 30) && fgets(line, sizeof line, lines) != nullptr)
        sscanf(line, "%lf s frames %lu", &seconds, &frames);
    kill(child, SIGINT);
    while (fgets(line, sizeof line, lines) != nullptr) {
    }
    fclose(lines);
    ASSERT_EQ(0, WaitForChild(child)) << "a clean exit, not a signal";
    ASSERT_GE(seconds, 1) << "no status line reported a second of capture";
    if (!HaveFFprobe())
        GTEST_SKIP() << "ffprobe is not installed";
    const ProbedMovie probed = ProbeMovie(movie);
    ASSERT_TRUE(probed.readable);
    ASSERT_NE(nullptr, probed.Find("video"));
    // The frames seen before Ctrl-C are in the file (the recorder drops pictures only when its
    // encoder is two seconds behind).
    EXPECT_GE(probed.Find("video")->frames, 30 - 1);
    EXPECT_GT(probed.duration, 0.5);
    EXPECT_LT(probed.duration, seconds + 3) << "the recording ended at Ctrl-C";
}

TEST_F(TavixCommand, DrivesATapeDeck) {
    // Each run is a new process: the deck starts stopped, and a command changes it.
    const CommandOutput status = Tavix("transport 'Tavix Test Deck' status");
    EXPECT_EQ(0, status.status);
    EXPECT_TRUE(Contains(status.output, "stopped")) << status.output;
    const CommandOutput play = Tavix("transport 'Tavix Test Deck' play");
    EXPECT_EQ(0, play.status) << play.output;
    EXPECT_TRUE(Contains(play.output, "play")) << play.output;
}

// Each run is a new process, whose test camera starts with every control at its default.
TEST_F(TavixCommand, ListsSetsSavesAndLoadsControlsAndSetsThemBeforeCapture) {
    const CommandOutput table = Tavix("controls 'Tavix Test Camera'");
    EXPECT_EQ(0, table.status);
    for (const char* part : {"brightness", "0..255", "0: Colour Bars, 1: Grey Bars, 3: Black",
                             "3 (Aperture Priority Mode)", "inactive, volatile", "button"})
        EXPECT_TRUE(Contains(table.output, part)) << part << "\n" << table.output;

    const std::string saved = folder + "/camera.txt";
    const CommandOutput set = Tavix("controls tavix-virtual:test-camera brightness=300 "
                                    "exposure_auto=manual exposure=200 --save " +
                                    saved);
    EXPECT_EQ(0, set.status) << set.output;
    EXPECT_TRUE(Contains(set.output, "brightness = 255 (nearest to 300)\n"
                                     "exposure_auto = 1 (Manual Mode)\nexposure = 200\n"))
        << set.output;
    const std::string file = ReadFile(saved);
    EXPECT_TRUE(Contains(file, "# id: tavix-virtual:test-camera\n")) << file;
    EXPECT_FALSE(Contains(file, "restore_defaults")) << "a button has no value to save";

    const CommandOutput loaded = Tavix("controls 'Tavix Test Camera' --json --load " + saved);
    EXPECT_EQ(0, loaded.status) << loaded.output;
    const std::string& json = loaded.output;
    const size_t exposure = json.find("{\"key\": \"exposure\"");
    ASSERT_NE(std::string::npos, exposure) << json;
    EXPECT_TRUE(
        Contains(json.substr(exposure, json.find('}', exposure) - exposure), "\"value\": 200,"))
        << json;

    // Pictures of the black pattern made brighter by half the range: a mid grey.
    const std::string png = folder + "/grey.png";
    const CommandOutput run =
        Tavix("capture 'Tavix Test Camera' --seconds 1 --size 160x120 --set test_pattern=black "
              "--set brightness=255 --snapshot " +
              png);
    ASSERT_EQ(0, run.status) << run.output;
    if (!HaveFFprobe())
        GTEST_SKIP() << "ffprobe is not installed";
    const RGBImage grey = ReadImageFile(png);
    ASSERT_EQ(160, grey.width);
    EXPECT_NEAR(127, grey.At(80, 100)[1], 8);
}

// Files are what their names say: the extension sets the container and the picture type, the
// recording has the size asked for whatever the pixel format, and a file is replaced only with -y.
TEST_F(TavixCommand, FilesFollowTheirNamesAndAreKeptWithoutOverwrite) {
    if (!HaveFFprobe())
        GTEST_SKIP() << "ffprobe is not installed";
    for (const char* extension : {"avi", "mkv"}) {
        const std::string movie = folder + "/take." + extension;
        const CommandOutput run = Tavix("capture 'Tavix Test Camera' --seconds 1 --size 320x240 "
                                        "--format bgra -q --record " +
                                        movie);
        ASSERT_EQ(0, run.status) << run.output;
        const ProbedMovie probed = ProbeMovie(movie);
        EXPECT_TRUE(
            Contains(probed.formatName, extension == std::string("avi") ? "avi" : "matroska"))
            << probed.formatName;
        ASSERT_NE(nullptr, probed.Find("video"));
        EXPECT_EQ(320, probed.Find("video")->width) << "the size asked for, not the device's first";
    }

    const std::string jpeg = folder + "/still.jpg";
    EXPECT_EQ(
        0,
        Tavix("capture 'Tavix Test Camera' --seconds 1 --size 320x240 --snapshot " + jpeg).status);
    const std::string written = ReadFile(jpeg);
    ASSERT_GT(written.size(), 2u);
    EXPECT_EQ("\xFF\xD8", written.substr(0, 2)) << "JPEG data, not PNG";
    EXPECT_EQ("", WrongBars(ReadImageFile(jpeg), 320, 240, 12));

    // The existing picture is kept (before capture starts) unless -y is given.
    const CommandOutput kept =
        Tavix("capture 'Tavix Test Camera' --seconds 1 --size 160x120 --snapshot " + jpeg);
    EXPECT_EQ(1, kept.status);
    EXPECT_TRUE(Contains(kept.output, "-y")) << kept.output;
    EXPECT_FALSE(Contains(kept.output, "Captured")) << "refused before capture";
    EXPECT_EQ(written, ReadFile(jpeg));
    EXPECT_EQ(0,
              Tavix("capture 'Tavix Test Camera' --seconds 1 --size 160x120 -y --snapshot=" + jpeg)
                  .status);
    EXPECT_EQ(160, ReadImageFile(jpeg).width);
}

// Every pixel format the command names arrives under that name, typed in any case.
TEST_F(TavixCommand, EveryPixelFormatWorksAndIsNamed) {
    for (const char* name : {"2vuy", "YUVS", "420v", "420f", "y420", "422v", "444v", "bgra", "ARGB",
                             "rgba", "ABGR", "24rg", "24BG", "L565", "B565", "L008"}) {
        const CommandOutput run = Tavix(std::string("capture 'Tavix Test Camera' --seconds 0.5 ") +
                                        "--size 160x120 -q --json --format=" + name);
        EXPECT_EQ(0, run.status) << name << ": " << run.output;
        std::string upper = name;
        for (char& c : upper)
            c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
        const size_t at = run.output.find("\"pixelFormat\": \"");
        ASSERT_NE(std::string::npos, at) << run.output;
        std::string shown = run.output.substr(at + 16, 4);
        for (char& c : shown)
            c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
        EXPECT_EQ(upper, shown) << run.output;
    }
}

// Usage errors (status 2) give a reason and the usage; runtime failures (status 1) a reason.
// The conventions every command keeps come first (status 0).
TEST_F(TavixCommand, ConventionsAndErrorsNameTheProblem) {
    const std::string existing = folder + "/existing.mov";
    FILE* file = fopen(existing.c_str(), "w");
    ASSERT_NE(nullptr, file);
    fputs("keep me", file);
    fclose(file);
    struct Case {
        std::string arguments, message;
        int status;
    } cases[] = {
        {"--version", "tavix 1.", 0},
        {"capture -h", "--overwrite", 0},
        {"preview --help", "--format", 0},
        {"list -h", "--json", 0},
        {"formats -h", "--json", 0},
        {"transport --help", "play", 0},
        {"controls -h", "--json", 0},
        {"list --json", "\"id\": \"tavix-virtual:test-camera\"", 0},
        {"formats 'Tavix Test Camera' --json",
         "\"width\": 640, \"height\": 480, "
         "\"framesPerSecond\": [30, 60]",
         0},
        {"capture tavix-virtual:test-microphone --seconds=1 -q --json",
         "\"audio\": {\"sampleFrames\": ", 0},
        {"capture 'No Such Camera' --seconds 1", "No Such Camera", 1},
        {"captur 'Tavix Test Camera'", "did you mean capture?", 2},
        {"capture 'Tavix Test Camera' --secnds 1", "did you mean --seconds?", 2},
        {"list --jsn", "did you mean --json?", 2},
        {"transport 'Tavix Test Deck' paly", "did you mean play?", 2},
        {"capture 'Tavix Test Camera' --size 12x", "12x", 2},
        {"capture 'Tavix Test Camera' --size 20000x100", "1 to 16384", 2},
        {"capture 'Tavix Test Camera' --seconds 0", "at most 86400", 2},
        {"capture 'Tavix Test Camera' --seconds -3", "-3", 2},
        {"capture 'Tavix Test Camera' --format zzzz", "y420, 422v", 2},
        {"capture 'Tavix Test Camera' --rate 0", "\"0\"", 2},
        {"capture 'Tavix Test Camera' --seconds 1 --rate 50", "it offers 30, 60 fps", 1},
        {"capture 'Tavix Test Camera' --seconds 1 --record " + folder + "/missing/x.mov",
         "missing/x.mov: No such file", 1},
        {"capture 'Tavix Test Camera' --seconds 1 --record " + folder + "/x.xyz", ".mkv or .avi",
         1},
        {"capture 'Tavix Test Camera' --seconds 1 --record " + existing, "-y", 1},
        {"capture 'Tavix Test Camera' --seconds 1 --snapshot " + folder + "/x.gif", ".jpg", 1},
        {"capture 'Tavix Test Camera' --seconds 1 --snapshot " + folder + "/missing/x.png",
         "missing/x.png", 1},
        {"capture 'Tavix Test Microphone' --seconds 1 --snapshot " + folder + "/x.png",
         "no pictures", 1},
        {"capture 'Tavix Test Microphone' --seconds 1 --format bgra", "no pictures", 1},
        {"capture 'Tavix Test Camera' --audio 'No Such Mic' --seconds 1", "No Such Mic", 1},
        {"formats 'No Such Camera'", "No Such Camera", 1},
        {"formats", "needs a device name", 2},
        {"transport 'Tavix Test Deck' dance", "dance", 2},
        {"controls 'Tavix Test Camera' exposure=200", "exposure", 1},
        {"controls 'Tavix Test Camera' test_pattern=purple", "purple", 1},
        {"controls 'Tavix Test Camera' brightness", "KEY=VALUE", 2},
        {"capture 'Tavix Test Camera' --set nokey=1 --seconds 1", "nokey", 1},
        {"transport 'Tavix Test Camera' play", "transport", 1},
        {"record", "unknown command", 2},
        {"", "no command", 2},
    };
    for (const Case& c : cases) {
        const CommandOutput run = Tavix(c.arguments);
        EXPECT_EQ(c.status, run.status) << c.arguments << ": " << run.output;
        EXPECT_TRUE(Contains(run.output, c.message)) << c.arguments << ": " << run.output;
        if (c.status != 0) {
            EXPECT_EQ(c.status == 2, Contains(run.output, "usage: tavix")) << c.arguments;
            const std::string quiet =
                "{ timeout 60 " + kTavix + " " + c.arguments + " 2>/dev/null; }";
            EXPECT_EQ("", RunCommand(quiet).output) << c.arguments << ": not on stderr";
        }
    }
    EXPECT_EQ("keep me", ReadFile(existing));
}

} // namespace
