// `tavix capture` on the test deck: --rewind and --play drive the tape around the capture, and
// a recording starts at the timecode of its first frame.
#include <gtest/gtest.h>

#include <string>

#include "support/ffprobe.h"
#include "support/process.h"
#include "support/tempfolder.h"

namespace {

const std::string kTavix = std::string(TAVIX_BINARY_DIR) + "/tavix";

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(TapeCapture, PlaysTheTapeIntoARecordingThatStartsAtItsFirstTimecode) {
    if (!HaveFFprobe())
        GTEST_SKIP() << "ffprobe is not installed";
    TempFolder temp{"tavix-tape"};
    // QuickTime keeps the start in a timecode track, Matroska in a tag.
    for (const std::string name : {"take.mov", "take.mkv"}) {
        const std::string movie = temp.path + "/" + name;
        const CommandOutput run = RunCommand(
            kTavix + " capture 'Tavix Test Deck' --rewind --play --seconds 2 --record " + movie);
        ASSERT_EQ(0, run.status) << run.output;
        for (const char* part : {"rewinding", " 0 dropped", " 0 breaks", "\n  tape      stopped\n"})
            EXPECT_TRUE(Contains(run.output, part)) << part << "\n" << run.output;
        const size_t first = run.output.find("timecode  first ");
        ASSERT_NE(std::string::npos, first) << run.output;
        const std::string timecode = run.output.substr(first + 16, 11);
        EXPECT_FALSE(Contains(run.output, "last " + timecode)) << "the tape did not play";

        const CommandOutput probed = RunCommand(
            "ffprobe -v error -show_entries stream=codec_tag_string:stream_tags=timecode "
            "-of csv=p=0 " +
            movie);
        EXPECT_TRUE(Contains(probed.output, timecode)) << timecode << "\n" << probed.output;
        EXPECT_EQ(name == "take.mov", Contains(probed.output, "tmcd")) << probed.output;
    }

    const CommandOutput camera = RunCommand(kTavix + " capture 'Tavix Test Camera' --play");
    EXPECT_EQ(1, camera.status);
    EXPECT_TRUE(Contains(camera.output, "has no tape transport to play")) << camera.output;
}

} // namespace
