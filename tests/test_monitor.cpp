// tools/sonra-monitor end to end on the virtual devices: a sound file made
// by sox goes in, the WAV of what was played comes out, and soxi and
// libsndfile judge it.
#include "deviceutil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>

using sonratest::readWav;
using sonratest::tempPath;

namespace {

const std::string TOOL = std::string(SONRA_BINARY_DIR) + "/tools/sonra-monitor";
const unsigned RATE = 16000;
const unsigned FRAME_SAMPLES = 320; // 20 ms at 16 kHz

bool exists(const std::string& path)
{
    return std::ifstream(path).good();
}

struct CommandResult {
    int exitCode = -1;
    std::string output; // stdout and stderr
    double seconds = 0;
};

CommandResult run(const std::string& arguments)
{
    CommandResult result;
    const std::string outputPath = tempPath("monitor_output.txt");
    const auto started = std::chrono::steady_clock::now();
    const int status = std::system((arguments + " >" + outputPath + " 2>&1").c_str());
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream file(outputPath);
    std::stringstream text;
    text << file.rdbuf();
    result.output = text.str();
    std::remove(outputPath.c_str());
    return result;
}

class Monitor : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!exists(TOOL))
            GTEST_SKIP() << "sonra-monitor is not built (tools off)";
    }
};

} // namespace

TEST_F(Monitor, TurnsASoundFileIntoTheWavItPlayed)
{
    const std::string in = tempPath("monitor_in.wav");
    const std::string out = tempPath("monitor_out.wav");
    // 1 s of a tone above zero everywhere, so that any gap would show.
    ASSERT_EQ(0, run("sox -n -r 16000 -c 1 -b 16 " + in + " synth 1 sine 440 vol 0.3 dcshift 0.4").exitCode)
        << "sox is needed (scripts/bootstrap installs it)";
    const auto input = readWav(in);
    ASSERT_TRUE(input.ok);
    ASSERT_EQ(RATE, unsigned(input.samples.size()));
    for (int16_t sample : input.samples)
        ASSERT_NE(0, sample);

    const CommandResult monitor =
        run(TOOL + " --capture virtual:" + in + " --playback virtual:" + out + " --seconds 1.5 --volume 1");
    ASSERT_EQ(0, monitor.exitCode) << monitor.output;
    EXPECT_GT(monitor.seconds, 1.4);
    EXPECT_LT(monitor.seconds, 10.0);

    const CommandResult soxi = run("soxi " + out);
    ASSERT_EQ(0, soxi.exitCode) << soxi.output;
    EXPECT_NE(std::string::npos, soxi.output.find("Sample Rate    : 16000")) << soxi.output;
    EXPECT_NE(std::string::npos, soxi.output.find("Channels       : 1")) << soxi.output;
    EXPECT_NE(std::string::npos, soxi.output.find("Precision      : 16-bit")) << soxi.output;

    // Whole blocks of silence (played before the graph's first frame),
    // then the file, looping, sample for sample.
    const auto played = readWav(out);
    ASSERT_TRUE(played.ok);
    EXPECT_GT(played.samples.size(), RATE * 1.2);
    EXPECT_LT(played.samples.size(), RATE * 3.0);
    std::size_t delay = 0;
    while (delay < played.samples.size() && played.samples[delay] == 0)
        ++delay;
    EXPECT_EQ(0u, delay % FRAME_SAMPLES);
    EXPECT_GE(delay, FRAME_SAMPLES);
    EXPECT_LE(delay, 10 * FRAME_SAMPLES);
    std::vector<int16_t> heard;
    for (std::size_t i = delay; i < played.samples.size(); ++i)
        if (played.samples[i] != 0) // a late frame on a busy machine plays silence
            heard.push_back(played.samples[i]);
    ASSERT_GT(heard.size(), input.samples.size());
    for (std::size_t i = 0; i < heard.size(); ++i)
        ASSERT_EQ(input.samples[i % input.samples.size()], heard[i]) << "sample " << i;
    std::remove(in.c_str());
    std::remove(out.c_str());
}

TEST_F(Monitor, ListsTheDevicesQuietly)
{
    const CommandResult list = run(TOOL + " --list");
    ASSERT_EQ(0, list.exitCode) << list.output;
    EXPECT_EQ(0u, list.output.find("Capture devices:\n  \"virtual\"")) << list.output;
    EXPECT_NE(std::string::npos, list.output.find("Playback devices:\n  \"virtual\"")) << list.output;
    EXPECT_EQ(std::string::npos, list.output.find("ALSA lib")) << list.output;
}

TEST_F(Monitor, SaysClearlyWhatIsWrong)
{
    CommandResult unknown = run(TOOL + " --capture 'no such mic' --playback virtual --seconds 1");
    EXPECT_EQ(1, unknown.exitCode);
    EXPECT_NE(std::string::npos,
              unknown.output.find("Invalid device: there is no capture device named \"no such mic\" (code -9996)"))
        << unknown.output;

    CommandResult unwritable = run(TOOL + " --capture virtual --playback virtual:/nonexistent/dir/out.wav --seconds 1");
    EXPECT_EQ(1, unwritable.exitCode);
    EXPECT_NE(std::string::npos, unwritable.output.find("cannot write the sound file")) << unwritable.output;

    CommandResult usage = run(TOOL + " --volume loud");
    EXPECT_EQ(2, usage.exitCode);
    EXPECT_NE(std::string::npos, usage.output.find("--volume wants a number")) << usage.output;
}
