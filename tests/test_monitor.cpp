// tools/sonra-monitor end to end on the virtual devices: a sound file made
// by sox goes in, the WAV of what was played comes out, and soxi and
// libsndfile judge it.
#include "deviceutil.h"

#include <chrono>
#include <iterator>

using namespace sonratest;

namespace {

const std::string TOOL = std::string(SONRA_BINARY_DIR) + "/tools/sonra-monitor";

Command run(const std::string& command) { return shell(command + " 2>&1"); }

class Monitor : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!std::ifstream(TOOL).good())
            GTEST_SKIP() << "sonra-monitor is not built (tools off)";
    }
};

} // namespace

TEST_F(Monitor, TurnsASoundFileIntoTheWavItPlayed)
{
    const std::string in = tempPath("monitor_in.wav"), out = tempPath("monitor_out.wav");
    // 1 s of a tone above zero everywhere, so that any gap would show.
    ASSERT_EQ(0, run("sox -n -r 16000 -c 1 -b 16 " + in + " synth 1 sine 440 vol 0.3 dcshift 0.4").exitCode)
        << "sox is needed (scripts/bootstrap installs it)";
    const auto input = readWav(in).samples;
    ASSERT_EQ(16000u, input.size());
    ASSERT_EQ(input.end(), std::find(input.begin(), input.end(), 0));

    const auto started = std::chrono::steady_clock::now();
    const Command monitor = run(TOOL + " --capture virtual:" + in + " --playback virtual:" + out + " --seconds 1.5 --volume 1");
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    ASSERT_EQ(0, monitor.exitCode) << monitor.output;
    EXPECT_GT(seconds, 1.4);
    EXPECT_LT(seconds, 10.0);
    const Command soxi = run("soxi " + out);
    ASSERT_EQ(0, soxi.exitCode) << soxi.output;
    for (const char* line : {"Sample Rate    : 16000", "Channels       : 1", "Precision      : 16-bit"})
        EXPECT_NE(std::string::npos, soxi.output.find(line)) << soxi.output;

    // Whole blocks of silence (played before the graph's first frame), then
    // the file looping sample for sample; a late frame on a busy machine
    // plays silence, so later zeros are skipped.
    const auto played = readWav(out).samples;
    EXPECT_GT(played.size(), 16000 * 1.2);
    EXPECT_LT(played.size(), 16000 * 3.0);
    const std::size_t delay = std::find_if(played.begin(), played.end(), [](int16_t s) { return s != 0; }) - played.begin();
    EXPECT_EQ(0u, delay % 320); // 20 ms blocks
    EXPECT_GE(delay, 320u);
    EXPECT_LE(delay, 3200u);
    std::vector<int16_t> heard;
    std::copy_if(played.begin() + delay, played.end(), std::back_inserter(heard), [](int16_t s) { return s != 0; });
    ASSERT_GT(heard.size(), input.size());
    for (std::size_t i = 0; i < heard.size(); ++i)
        ASSERT_EQ(input[i % input.size()], heard[i]) << "sample " << i;
    std::remove(in.c_str());
    std::remove(out.c_str());
}

TEST_F(Monitor, ListsTheDevicesAndSaysClearlyWhatIsWrong)
{
    const Command list = run(TOOL + " --list");
    ASSERT_EQ(0, list.exitCode) << list.output;
    EXPECT_EQ(0u, list.output.find("Capture devices:\n  \"virtual\"")) << list.output;
    EXPECT_NE(std::string::npos, list.output.find("Playback devices:\n  \"virtual\"")) << list.output;
    EXPECT_EQ(std::string::npos, list.output.find("ALSA lib")) << list.output;
    const Command bad = run(TOOL + " --volume loud");
    EXPECT_EQ(2, bad.exitCode);
    EXPECT_NE(std::string::npos, bad.output.find("--volume wants a number")) << bad.output;
}
