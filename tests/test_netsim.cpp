// The whole own-format path end to end through the network simulator:
// encoder, sender, network, receiver, jitter buffer, decoder, mixer.
#include "sonraemodel.h"
#include "sonralistening.h"
#include "sonranetsim.h"

#include "testutil.h"

#include <sstream>

using namespace sonranetsim;
using sonratest::shell;

namespace {

const unsigned RATE = 16000;           // Hz
const std::size_t FRAME_SAMPLES = 320; // 20 ms

std::vector<int16_t> speech(double seconds) { return sonratest::speechLike(RATE, std::size_t(seconds * RATE)); }

Config configWith(Codec codec, double baseDelay)
{
    Config config;
    config.codec = codec;
    config.network.baseDelay = baseDelay;
    return config;
}

std::vector<int16_t> frameAt(const std::vector<int16_t>& samples, std::size_t frame)
{
    return sonratest::slice(samples, frame * FRAME_SAMPLES, FRAME_SAMPLES);
}

std::vector<unsigned> playedSeqNums(const Result& result)
{
    std::vector<unsigned> played;
    for (const FrameRecord& frame : result.frames)
        if (frame.played)
            played.push_back(frame.seqNum);
    return played;
}

} // namespace

TEST(NetSim, WithoutLossPcmComesBackExactlyAfterTheNetworkDelay)
{
    const std::vector<int16_t> input = speech(1.0);
    const Result result = simulate(input, configWith(Codec::Pcm, 30)); // arrives within the 2nd frame after
    const Summary& summary = result.summary;
    EXPECT_EQ(50u, summary.sent);
    EXPECT_EQ(50u, summary.played);
    EXPECT_EQ(result.frames.size() - 50, summary.jbuf.underruns);
    EXPECT_DOUBLE_EQ(40.0, summary.meanDelay);
    EXPECT_EQ(40u, summary.maxDelay);
    for (std::size_t frame = 0; frame < 50; ++frame)
        ASSERT_EQ(frameAt(input, frame), frameAt(result.output, frame + 2)) << frame;
    EXPECT_TRUE(std::isinf(summary.snr));
    EXPECT_EQ(640, summary.fixedLag);
    EXPECT_EQ(0.0, summary.spectralDistance);
    EXPECT_EQ(50u, summary.spectralFrames);
}

TEST(NetSim, AHandWrittenScenario)
{
    std::istringstream text("# seq, send, arrival\n"
                            "1 0 45\n"
                            "2,20,50   # commas work too\n"
                            "3 40 55\n"
                            "5 80 95\n"
                            "4 60 98   # overtaken by 5, yet in time: 3 is still queued\n"
                            "6 100 lost\n"
                            "7 120 150\n"
                            "8 140 170\n"
                            "8 140 171\n"
                            "9 160 300 # far too late\n"
                            "10 180 210\n");
    Config config = configWith(Codec::Pcm, 0);
    std::string error;
    ASSERT_TRUE(parseScenario(text, config.scenario, error)) << error;
    config.useScenario = true;
    const std::vector<int16_t> input = speech(0.24); // 12 packets: no line names 11 and 12
    const Result result = simulate(input, config);
    EXPECT_EQ((std::vector<unsigned>{1, 2, 3, 4, 5, 7, 8, 10}), playedSeqNums(result));
    EXPECT_EQ(3u, result.summary.lostInNetwork);
    EXPECT_EQ(1u, result.summary.duplicatesSent);
    EXPECT_EQ(1u, result.summary.jbuf.duplicates);
    EXPECT_EQ(1u, result.summary.jbuf.framesTooOld);
    EXPECT_EQ(1u, result.summary.neverPlayed);
    // 1, 2 and 3 arrive together: 1 plays in the frame at 60 ms, 2 and 3 wait.
    EXPECT_EQ(60u, result.packets[0].playTime);
    EXPECT_EQ(100u, result.packets[2].playTime);
    EXPECT_EQ(frameAt(input, 3), frameAt(result.output, 6));

    for (const char* bad : {"1 0\n", "0 0 10\n", "1 20 10\n", "1 0 10 extra\n", "x 0 10\n", "1 0 soon\n"}) {
        std::istringstream in(std::string("# fine\n\n") + bad);
        std::vector<ScenarioLine> lines;
        EXPECT_FALSE(parseScenario(in, lines, error)) << bad;
        EXPECT_EQ(0u, error.find("line 3:")) << error;
    }
}

// Packet 5 lost: its successor's FEC rebuilds it. 10 to 12 lost: 10 is
// concealed (one frame allowed), 11 silent, 12 rebuilt from 13. What the
// decoder gave must say the same: sound in every slot but the silent ones.
TEST(NetSim, FecRebuildsALossBeforeAPacketAndConcealmentBridgesOthers)
{
    Config config = configWith(Codec::Opus, 0);
    config.fecLoss = 10;
    config.concealment = 20;
    std::ostringstream lines;
    for (unsigned seq = 1; seq <= 25; ++seq)
        lines << seq << ' ' << 20 * (seq - 1) << ' '
              << (seq == 5 || (seq >= 10 && seq <= 12) ? "lost" : std::to_string(20 * seq)) << '\n';
    std::istringstream text(lines.str());
    std::string error;
    ASSERT_TRUE(parseScenario(text, config.scenario, error)) << error;
    config.useScenario = true;
    const Result result = simulate(speech(0.5), config);
    const Listening heard = listeningOf(result, config);
    EXPECT_EQ(2u, heard.rebuilt);
    EXPECT_EQ(1u, heard.concealed);
    EXPECT_EQ(2u, heard.unheard);
    EXPECT_DOUBLE_EQ(8.0, heard.lossPercent);
    EXPECT_DOUBLE_EQ(2 * 0.92, heard.burstRatio); // one run of 2 against 1 / (1 - 0.08)
    for (std::size_t f = 0; f + result.outputLag < result.frames.size(); ++f) {
        const std::vector<int16_t> out = frameAt(result.output, f + result.outputLag);
        const bool sound = std::any_of(out.begin(), out.end(), [](int16_t s) { return s != 0; });
        EXPECT_EQ(heard.fates[f] != FrameFate::Silent, sound) << f;
    }
}

// The command-line tool on a file sox makes (stereo, 44.1 kHz): the output
// is 16 kHz mono, and PCM through a lossless network comes back exactly.
TEST(NetSimTool, PlaysAFileThroughALosslessNetworkExactly)
{
    const std::string tool = std::string(SONRA_BINARY_DIR) + "/tools/sonra-netsim";
    if (access(tool.c_str(), X_OK) != 0 || std::system("sox --version > /dev/null 2>&1") != 0)
        GTEST_SKIP() << "needs the tool (not built with SONRA_BUILD_TOOLS=OFF) and sox";
    char folder[] = "/tmp/sonra-netsim-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(folder));
    const std::string dir = std::string(folder) + "/";
    ASSERT_EQ(0, std::system(("sox -n -r 44100 -c 2 -b 16 " + dir + "in.wav synth 1.0 sine 440 sine 660 gain -6")
                                 .c_str()));
    const std::string summary = shell(tool + " " + dir + "in.wav " + dir + "out.wav --plain --codec pcm --delay 30").output;
    EXPECT_NE(std::string::npos, summary.find("packets sent                    50")) << summary;
    EXPECT_NE(std::string::npos, summary.find("SNR, frames aligned       exact")) << summary;
    EXPECT_EQ("16000 1\n", shell("echo $(soxi -r " + dir + "out.wav) $(soxi -c " + dir + "out.wav)").output);

    EXPECT_EQ(0, std::system(("rm -rf " + std::string(folder)).c_str()));
}

// The E-model against worked values: the model's default rating of a
// perfect path, its delay curve, and G.711's planning values for loss.
TEST(EModel, MatchesTheModelsWorkedValues)
{
    using namespace sonratool;
    struct Case {
        double delayMs, lossPercent, burstRatio;
        CodecImpairment codec;
        double r, mos;
    };
    const Case cases[] = {
        {0, 0, 1, G711_WITH_CONCEALMENT, 93.2, 4.41},    // no impairment at all
        {200, 0, 1, G711_WITH_CONCEALMENT, 85.8, 4.22},  // delay alone
        {400, 0, 1, G711_WITH_CONCEALMENT, 62.2, 3.22},  // past the 177.3 ms knee
        {0, 2, 1, G711_WITHOUT_CONCEALMENT, 63.0, 3.26}, // Ie,eff = 95 * 2 / (2 + 4.3)
        {0, 1, 1, G711_WITH_CONCEALMENT, 89.6, 4.33},    // Ie,eff = 95 * 1 / (1 + 25.1)
        {0, 5, 2, G711_WITH_CONCEALMENT, 76.0, 3.86},    // bursty: Ie,eff = 95 * 5 / (2.5 + 25.1)
    };
    for (const Case& c : cases) {
        EModelInput input;
        input.mouthToEarMs = c.delayMs;
        input.lossPercent = c.lossPercent;
        input.burstRatio = c.burstRatio;
        input.codec = c.codec;
        const EModelRating rating = rateCall(input);
        EXPECT_NEAR(rating.r, c.r, 0.06) << c.delayMs << " ms, " << c.lossPercent << " %";
        EXPECT_NEAR(rating.mos, c.mos, 0.006) << c.delayMs << " ms, " << c.lossPercent << " %";
    }
    // Two runs of two losses in ten packets: mean run 2 against 1 / (1 - 0.4).
    EXPECT_DOUBLE_EQ(burstRatio({false, true, true, false, false, false, true, true, false, false}), 1.2);
    EXPECT_DOUBLE_EQ(burstRatio({false, true, false, true, false}), 1.0);
}
