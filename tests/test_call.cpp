// tools/sonra-call end to end, shortened: the summary's figures against the
// network model itself and against what the parties said.
#include "deviceutil.h"
#include "sonranetsim.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <algorithm>
#include <string>

namespace {

const std::string TOOL = std::string(SONRA_BINARY_DIR) + "/tools/sonra-call";

sonratest::Command run(const std::string& command) { return sonratest::shell(command + " 2>&1"); }

// Opus in its VoIP mode codes 16 kHz speech by its spectrum, not its
// waveform: straight through the codec the default speech comes back 7 to
// 11 dB above its error (sonra-netsim gives the same), the least in the
// first seconds while the encoder settles. A stream off by a frame, or
// someone else's, scores at or below 0 dB.
const double HEARD_MATCHES_SAID_DB = 5.0;

struct LegFigures {
    unsigned sent = 0, lost = 0, late = 0, played = 0;
    double snr = 0;
};

// By (to, from) party numbers, from the summary's "from party" lines.
std::map<std::pair<unsigned, unsigned>, LegFigures> legsOf(const std::string& summary)
{
    std::map<std::pair<unsigned, unsigned>, LegFigures> legs;
    const std::regex party("^party (\\d+) "), leg("^  from party (\\d+): sent (\\d+), lost (\\d+), late (\\d+), "
                                                  "played (\\d+);.* heard vs said (\\S+)");
    std::istringstream lines(summary);
    unsigned to = 0;
    std::smatch m;
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_search(line, m, party))
            to = unsigned(std::stoul(m[1]));
        else if (std::regex_search(line, m, leg))
            legs[{to, unsigned(std::stoul(m[1]))}] = {unsigned(std::stoul(m[2])), unsigned(std::stoul(m[3])),
                                                      unsigned(std::stoul(m[4])), unsigned(std::stoul(m[5])),
                                                      m[6] == "exact" ? 1e9 : std::stod(m[6])};
    }
    return legs;
}

class Call : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!std::ifstream(TOOL).good())
            GTEST_SKIP() << "sonra-call is not built (tools off)";
    }
    sonratest::Command call(const std::string& options)
    {
        return run(TOOL + " --seconds 2 --out " + out + " " + options);
    }
    const std::string out = sonratest::tempPath("call");
};

} // namespace

TEST_F(Call, WithoutLossEveryPacketIsPlayedAndHeardAsSaid)
{
    const sonratest::Command result = call("");
    ASSERT_EQ(0, result.exitCode) << result.output;
    EXPECT_EQ(std::string::npos, result.output.find('\r')); // no progress line off a terminal
    const auto legs = legsOf(result.output);
    ASSERT_EQ(2u, legs.size()) << result.output;
    for (const auto& leg : legs) {
        EXPECT_EQ(100u, leg.second.sent); // 2 s of 20 ms packets
        EXPECT_EQ(0u, leg.second.lost + leg.second.late);
        EXPECT_EQ(leg.second.sent, leg.second.played);
        EXPECT_GT(leg.second.snr, HEARD_MATCHES_SAID_DB) << result.output;
    }
    for (const std::string party : {"1", "2"}) {
        const sonratest::WavContents heard = sonratest::readWav(out + "/party-" + party + ".wav");
        EXPECT_EQ(16000, heard.sampleRate);
        EXPECT_EQ(0u, heard.samples.size() % 320);
        EXPECT_GT(heard.samples.size(), 32000u); // the talk and the jitter buffer's drain
    }
    EXPECT_EQ("vorbis\n", run("soxi -t " + out + "/call.ogg").output); // the call, recorded
    std::ifstream picture(out + "/call-report.png");
    std::string magic(8, '\0');
    picture.read(&magic[0], 8);
    EXPECT_EQ("\x89PNG\r\n\x1a\n", magic);
}

TEST_F(Call, LossesCountedAreTheLossesTheNetworkModelMade)
{
    const sonratest::Command result = call("--parties 3 --loss 10 --seed 7 --no-report");
    ASSERT_EQ(0, result.exitCode) << result.output;
    const auto legs = legsOf(result.output);
    ASSERT_EQ(6u, legs.size()) << result.output;
    unsigned legIndex = 0, total = 0;
    for (unsigned from = 1; from <= 3; ++from)
        for (unsigned to = 1; to <= 3; ++to) {
            if (from == to)
                continue;
            sonranetsim::NetworkModel model;
            model.seed = 7 + legIndex++;
            model.lossRate = 0.1;
            sonranetsim::Network network(model);
            const LegFigures& leg = legs.at({to, from});
            unsigned lost = 0;
            for (unsigned seq = 1; seq <= leg.sent; ++seq)
                lost += network.arrivals(seq, 20 * (seq - 1)).empty();
            EXPECT_EQ(lost, leg.lost) << from << "->" << to;
            EXPECT_EQ(leg.sent - lost, leg.played);
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
        {"--input /nonexistent.wav", 1, "cannot read /nonexistent.wav"},
        {"--out /proc/sonra-call", 1, "cannot create /proc/sonra-call"},
    };
    for (const auto& c : cases) {
        const sonratest::Command result = run(TOOL + " --seconds 1 --out " + out + " " + c.options);
        EXPECT_EQ(c.exitCode, result.exitCode) << c.options;
        EXPECT_EQ(0u, result.output.find("sonra-call: " + c.message)) << result.output;
        EXPECT_EQ(1, std::count(result.output.begin(), result.output.end(), '\n')) << result.output;
    }
}

TEST_F(Call, OverRtpLoopbackSocketsEveryPacketArrives)
{
    const sonratest::Command result = call("--rtp --no-report");
    ASSERT_EQ(0, result.exitCode) << result.output;
    const std::regex leg("from party \\d over RTP: sent (\\d+) datagrams, received (\\d+)");
    unsigned legs = 0;
    for (std::sregex_iterator m(result.output.begin(), result.output.end(), leg), end; m != end; ++m, ++legs) {
        EXPECT_EQ("100", (*m)[1].str());
        EXPECT_EQ((*m)[1].str(), (*m)[2].str());
    }
    EXPECT_EQ(2u, legs) << result.output;
}
