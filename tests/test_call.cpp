// sonra-call's engine end to end, shortened: the call's records against
// the network model itself and against what the parties said; the tool's
// command line for its errors.
#include "deviceutil.h"
#include "sonracallrun.h"
#include "sonraechocanceller.h"
#include "sonranetsim.h"
#include "sonrasoundfile.h"

#include <gtest/gtest.h>

#include <fstream>
#include <algorithm>
#include <functional>
#include <string>
#include <tuple>

namespace {

const std::string TOOL = std::string(SONRA_BINARY_DIR) + "/tools/sonra-call";

sonratest::Command run(const std::string& command) { return sonratest::shell(command + " 2>&1"); }

// Opus in its VoIP mode codes 16 kHz speech by its spectrum, not its
// waveform: straight through the codec the default speech comes back 7 to
// 11 dB above its error (sonra-netsim gives the same), the least in the
// first seconds while the encoder settles. A stream off by a frame, or
// someone else's, scores at or below 0 dB.
const double HEARD_MATCHES_SAID_DB = 5.0;

class Call : public ::testing::Test {
protected:
    // A 2 s call of `parties` into `out`, its options set by `adjust`.
    sonracall::CallRecord call(const std::function<void(sonracall::CallOptions&)>& adjust)
    {
        sonracall::CallOptions options;
        options.seconds = 2;
        options.outDir = out;
        adjust(options);
        return sonracall::runCall(options);
    }
    const std::string out = sonratest::tempPath("call");
};

} // namespace

TEST_F(Call, WithoutLossEveryPacketIsPlayedAndHeardAsSaid)
{
    const sonracall::CallRecord result = call([](sonracall::CallOptions&) {});
    ASSERT_EQ(2u, result.parties.size());
    for (const auto& party : result.parties) {
        ASSERT_EQ(1u, party.legs.size());
        const sonracall::LegRecord& leg = party.legs[0];
        EXPECT_EQ(100u, leg.sent); // 2 s of 20 ms packets
        EXPECT_EQ(0u, leg.lost + leg.late);
        EXPECT_EQ(leg.sent, leg.played);
        EXPECT_GT(leg.snrDb, HEARD_MATCHES_SAID_DB);
    }
    for (const std::string party : {"1", "2"}) {
        const sonratest::WavContents heard = sonratest::readWav(out + "/party-" + party + ".wav");
        EXPECT_EQ(16000, heard.sampleRate);
        EXPECT_EQ(0u, heard.samples.size() % 320);
        EXPECT_GT(heard.samples.size(), 32000u); // the talk and the jitter buffer's drain
    }
    EXPECT_EQ("vorbis\n", run("soxi -t " + out + "/call.ogg").output); // the call, recorded
    sonracall::plotReport(result.reportData, 2, out + "/call-report.png");
    std::ifstream picture(out + "/call-report.png");
    std::string magic(8, '\0');
    picture.read(&magic[0], 8);
    EXPECT_EQ("\x89PNG\r\n\x1a\n", magic);
}

TEST_F(Call, LossesCountedAreTheLossesTheNetworkModelMade)
{
    const sonracall::CallRecord result = call([](sonracall::CallOptions& options) {
        options.parties = 3;
        options.net.network.lossRate = 0.1;
        options.net.network.seed = 7;
        options.report = false;
    });
    ASSERT_EQ(3u, result.parties.size());
    unsigned legIndex = 0, total = 0;
    for (unsigned from = 0; from < 3; ++from)
        for (unsigned to = 0; to < 3; ++to) {
            if (from == to)
                continue;
            sonranetsim::NetworkModel model;
            model.seed = 7 + legIndex++;
            model.lossRate = 0.1;
            sonranetsim::Network network(model);
            const std::vector<sonracall::LegRecord>& legs = result.parties[to].legs;
            const sonracall::LegRecord& leg = legs[from < to ? from : from - 1]; // by peer, in party order
            ASSERT_EQ(from, leg.from);
            unsigned lost = 0;
            for (unsigned seq = 1; seq <= leg.sent; ++seq)
                lost += network.arrivals(seq, 20 * (seq - 1)).empty();
            EXPECT_EQ(lost, leg.lost) << from << "->" << to;
            EXPECT_EQ(leg.sent - lost, leg.played);
            EXPECT_DOUBLE_EQ(100.0 * lost / leg.sent, leg.lossPercent); // no FEC here: every loss is unheard
            total += lost;
        }
    EXPECT_NEAR(60, total, 25); // 10% of 6 x 100 packets
}

TEST_F(Call, BadOptionsAndFilesGiveOneLineAndAnExitCode)
{
    const struct { std::string options; int exitCode; std::string message; } cases[] = {
        {"--parties 1", 2, "--parties wants a number from 2 to 16, not \"1\""},
        {"--voice 3:higher", 2, "--voice wants a number from 1 to 2, not \"3\""},
        {"--haas 1", 2, "--haas wants PARTY:VALUE"},
        {"--frobnicate 1", 2, "unknown option \"--frobnicate\""},
        {"--aec off", 2, "--aec applies to parties on --echo"},
        {"--input /nonexistent.wav", 1, "cannot read /nonexistent.wav"},
        {"--out /proc/sonra-call", 1, "cannot create /proc/sonra-call"},
    };
    if (!std::ifstream(TOOL).good())
        GTEST_SKIP() << "sonra-call is not built (tools off)";
    for (const auto& c : cases) {
        const sonratest::Command result = run(TOOL + " --seconds 1 --out " + out + " " + c.options);
        EXPECT_EQ(c.exitCode, result.exitCode) << c.options;
        EXPECT_EQ(0u, result.output.find("sonra-call: " + c.message)) << result.output;
        EXPECT_EQ(1, std::count(result.output.begin(), result.output.end(), '\n')) << result.output;
    }
    const sonratest::Command quiet = run(TOOL + " --seconds 2 --no-report --out " + out);
    EXPECT_EQ(std::string::npos, quiet.output.find('\r')); // no progress line off a terminal
}

TEST_F(Call, OverRtpOpusTheNetworkModelLosesPacketsBeforeTheSockets)
{
    const sonracall::CallRecord result = call([](sonracall::CallOptions& options) {
        options.rtp = true;
        options.rtpCodec = "opus";
        options.net.network.lossRate = 0.1;
        options.net.network.seed = 7;
        options.report = false;
    });
    ASSERT_EQ(2u, result.parties.size());
    for (unsigned to = 0; to < 2; ++to) {
        sonranetsim::NetworkModel model;
        model.seed = 7 + (1 - to); // leg 1->2 draws from the seed, leg 2->1 from the next
        model.lossRate = 0.1;
        sonranetsim::Network network(model);
        const sonracall::LegRecord& leg = result.parties[to].legs.at(0);
        unsigned lost = 0;
        for (unsigned seq = 1; seq <= 100; ++seq)
            lost += network.arrivals(seq, 20 * (seq - 1)).empty();
        EXPECT_TRUE(leg.rtp);
        EXPECT_EQ(100u, leg.rtpSent);
        EXPECT_EQ(lost, leg.lost);
        EXPECT_GT(lost, 0u);
        EXPECT_EQ(leg.rtpSent - lost, leg.rtpReceived); // every packet the network let through crossed the sockets
        EXPECT_EQ(leg.rtpReceived, leg.played);
        EXPECT_EQ(20u * lost, leg.concealedMs); // FEC or concealment, 20 ms each
    }
}

// Party 1 on loudspeakers and silent: party 2's voice comes back through
// party 1's room into its microphone.
TEST_F(Call, OnLoudspeakersTheFarEndHearsItsOwnVoiceOnlyWithoutTheCanceller)
{
    const std::string silence = sonratest::tempPath("silence.wav");
    sonratool::writeWav(silence, std::vector<int16_t>(320), 16000);
    for (const bool aec : {true, false}) {
        const sonracall::EchoRecord echo = call([&](sonracall::CallOptions& options) {
            options.seconds = 4;
            options.inputs = {silence};
            options.effects = {{"--echo", "1"}};
            options.aec = aec;
            options.report = false;
        }).parties[0].echo;
        ASSERT_TRUE(echo.loudspeakers);
        EXPECT_GT(echo.singleTalkMs, 3000u);
        if (aec) {
            EXPECT_EQ(ombrel::SonraEchoCanceller::engineName(ombrel::SonraEchoCanceller::DEFAULT_ENGINE), echo.engine);
            EXPECT_GE(echo.erleDb, 25.0);
            EXPECT_LE(unsigned(echo.convergenceMs), 1000u); // -1: never
            EXPECT_GE(echo.farEndBelowSpeechDb, 30.0);
        } else {
            EXPECT_EQ(0.0, echo.erleDb); // the microphone goes out as it was
            EXPECT_LT(echo.farEndBelowSpeechDb, 10.0);
        }
    }
}

TEST(CallOptions, AListenersDefaultsUnlessPlain)
{
    char tool[] = "sonra-call", plain[] = "--plain", plc[] = "--plc", none[] = "0";
    char* listener[] = {tool, plc, none};
    char* library[] = {tool, plain};
    const sonranetsim::Config chosen = sonracall::parseCallOptions(3, listener).net;
    EXPECT_TRUE(chosen.jitterBuffer.policy == ombrel::SonraJbuf::PLAYOUT_HISTOGRAM && chosen.jitterBuffer.recovery);
    EXPECT_EQ((std::vector<unsigned>{80, 20, 400, 300}),
              std::vector<unsigned>(chosen.jitterBuffer.delays, chosen.jitterBuffer.delays + 4));
    EXPECT_EQ(0u, chosen.concealment); // an option still overrides
    EXPECT_EQ(10u, chosen.fecLoss);
    const sonranetsim::Config own = sonracall::parseCallOptions(2, library).net, shipped;
    EXPECT_EQ(std::make_tuple(shipped.jitterBuffer.policy, shipped.jitterBuffer.setDelays, shipped.concealment,
                              shipped.fecLoss),
              std::make_tuple(own.jitterBuffer.policy, own.jitterBuffer.setDelays, own.concealment, own.fecLoss));
}
