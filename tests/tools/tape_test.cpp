// `tavix capture` on the test deck: --rewind and --play drive the tape around the capture, a
// recording starts at the timecode of its first frame, and the summary names the timecode break
// three seconds into the tape (where its second session, from 01:00:00:00, begins).
#include <gtest/gtest.h>

#include <string>

#include "support/commandsummary.h"
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
    // Five seconds cross the break, half a second of the first session cannot (each run is a
    // new process: the tape starts at its start). QuickTime and MP4 keep the start in a timecode
    // track, Matroska in a tag.
    const struct {
        std::string name, options;
        bool json, crosses;
    } takes[] = {{"take.mov", "--seconds 5", false, true},
                 {"take.mkv", "--seconds 5 -q --json", true, true},
                 {"take.mp4", "--seconds 0.5", false, false}};
    for (const auto& take : takes) {
        const std::string movie = temp.path + "/" + take.name;
        const CommandOutput run =
            RunCommand(kTavix + " capture 'Tavix Test Deck' --rewind --play " + take.options +
                       " --record " + movie);
        ASSERT_EQ(0, run.status) << run.output;
        const std::string first = take.json ? "\"first\": \"" : "timecode  first ";
        const size_t at = run.output.find(first);
        ASSERT_NE(std::string::npos, at) << run.output;
        const std::string timecode = run.output.substr(at + first.size(), 11);
        EXPECT_FALSE(Contains(run.output, (take.json ? "\"last\": \"" : "last ") + timecode))
            << "the tape did not play\n"
            << run.output;
        EXPECT_EQ(take.crosses, Contains(run.output, "01:00:00:0")) << run.output;
        const std::string breaks =
            take.json ? take.crosses ? "\"breaks\": 1, \"breakList\": [{\"from\": \"00:00:02:24\", "
                                       "\"to\": \"01:00:00:00\"}]}"
                                     : "\"breaks\": 0, \"breakList\": []}"
            : take.crosses ? " 1 break\n            break from 00:00:02:24 to 01:00:00:00\n"
                           : " 0 breaks\n";
        const std::string stopped = take.json ? "" : "\n  tape      stopped\n";
        for (const std::string& part : {breaks, stopped})
            EXPECT_TRUE(Contains(run.output, part)) << part << "\n" << run.output;
        // The break skips 90,000 frames, which were never due; a busy machine may make the host
        // drop a few.
        const long long dropped = VideoSummaryOf(run.output).dropped;
        EXPECT_TRUE(dropped >= 0 && dropped < 1000) << run.output;

        const CommandOutput probed = RunCommand(
            "ffprobe -v error -show_entries stream=codec_tag_string:stream_tags=timecode "
            "-of csv=p=0 " +
            movie);
        EXPECT_TRUE(Contains(probed.output, timecode)) << timecode << "\n" << probed.output;
        EXPECT_EQ(take.name != "take.mkv", Contains(probed.output, "tmcd")) << probed.output;
    }

    const CommandOutput camera = RunCommand(kTavix + " capture 'Tavix Test Camera' --play");
    EXPECT_EQ(1, camera.status);
    EXPECT_TRUE(Contains(camera.output, "has no tape transport to play")) << camera.output;
}

} // namespace
