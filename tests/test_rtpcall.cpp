// sonra-rtp call in real time over 127.0.0.1 on virtual devices: two ends hear each other, and with GStreamer at
// the far end each side hears the other's tone, Opus and G.711 alike.
#include "deviceutil.h"

#include <boost/asio/ip/udp.hpp>
#include <gtest/gtest.h>

#include <future>
#include <tuple>
#include <utility>

namespace {

const std::string TOOL = std::string(SONRA_BINARY_DIR) + "/tools/sonra-rtp";
const double SECONDS = 3; // s of every call

sonratest::Command run(const std::string& command) { return sonratest::shell(command + " 2>&1"); }

// Two free ports, told apart: both are held while the second is drawn.
std::pair<unsigned, unsigned> twoFreePorts()
{
    boost::asio::io_service io;
    const boost::asio::ip::udp::endpoint any(boost::asio::ip::address_v4::loopback(), 0);
    boost::asio::ip::udp::socket first(io, any), second(io, any);
    return {first.local_endpoint().port(), second.local_endpoint().port()};
}

// Four bursts a second, so that noise suppression takes the tone for a voice, not for noise.
sonratest::Samples burstingTone(double frequency, unsigned rate)
{
    sonratest::Samples samples(std::size_t(SECONDS * rate));
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = int16_t(10000 * std::pow(std::sin(2 * M_PI * 2 * i / rate), 2) * std::sin(2 * M_PI * frequency * i / rate));
    return samples;
}

// The far end's tone, and not our own, in what one end heard.
void expectHeard(const sonratest::Samples& heard, double theirs, double ours, unsigned rate)
{
    ASSERT_GT(heard.size(), rate) << "less than a second heard";
    EXPECT_GT(sonratest::toneAmplitude(heard, theirs, rate), 1000);
    EXPECT_GT(sonratest::toneAmplitude(heard, theirs, rate), 10 * sonratest::toneAmplitude(heard, ours, rate));
}

struct RtpCall : ::testing::Test {
    void SetUp() override
    {
        if (!std::ifstream(TOOL).good())
            GTEST_SKIP() << "sonra-rtp is not built (tools off)";
    }
    // One end, talking `frequency` from `port` to `toPort`, what it hears into `heard`.
    std::future<sonratest::Command> callEnd(const std::string& codec, unsigned rate, double frequency, unsigned port,
                                            unsigned toPort, const std::string& heard)
    {
        const std::string said = sonratest::tempPath("call_said_" + std::to_string(port) + ".wav");
        sonratest::writeWav(said, burstingTone(frequency, rate), int(rate), 1);
        return std::async(std::launch::async, [=] {
            return run(TOOL + " call --codec " + codec + " --port " + std::to_string(port) + " --to 127.0.0.1:" +
                       std::to_string(toPort) + " --capture virtual:" + said + " --playback virtual:" + heard +
                       " --seconds " + std::to_string(SECONDS));
        });
    }
    const std::string heardFirst = sonratest::tempPath("call_heard_1.wav"), heardSecond = sonratest::tempPath("call_heard_2.wav");
};

} // namespace

TEST_F(RtpCall, TwoEndsHearEachOther)
{
    unsigned first, second;
    std::tie(first, second) = twoFreePorts();
    auto one = callEnd("opus", 48000, 440, first, second, heardFirst);
    auto other = callEnd("opus", 48000, 1000, second, first, heardSecond);
    for (const sonratest::Command& end : {one.get(), other.get()}) {
        EXPECT_EQ(0, end.exitCode) << end.output;
        EXPECT_NE(std::string::npos, end.output.find("received")) << end.output;
    }
    expectHeard(sonratest::readWav(heardFirst).samples, 1000, 440, 48000);
    expectHeard(sonratest::readWav(heardSecond).samples, 440, 1000, 48000);
}

TEST_F(RtpCall, GStreamerAtTheFarEndHearsUsAndIsHeard)
{
    const struct { std::string codec; unsigned rate; std::string encode, caps, decode; } peers[] = {
        {"opus", 48000, "opusenc ! rtpopuspay pt=96", "clock-rate=48000,encoding-name=OPUS,payload=96", "rtpopusdepay ! opusdec"},
        {"pcmu", 8000, "mulawenc ! rtppcmupay", "clock-rate=8000,encoding-name=PCMU,payload=0", "rtppcmudepay ! mulawdec"},
    };
    for (const auto& peer : peers) {
        unsigned ours, theirs;
        std::tie(ours, theirs) = twoFreePorts();
        const std::string raw = sonratest::tempPath("call_gst.raw");
        const std::string rate = std::to_string(peer.rate);
        // gst-launch turns SIGINT, which timeout passes on, into an end of stream;
        // one that hangs on it is killed 5 s later.
        auto far = std::async(std::launch::async, [&] {
            return run("timeout -k 5 -s INT " + std::to_string(SECONDS + 1) + " gst-launch-1.0 -q -e audiotestsrc is-live=true "
                       "freq=1000 ! audio/x-raw,channels=1,rate=" + rate + " ! " + peer.encode + " ! udpsink host=127.0.0.1 port=" +
                       std::to_string(ours) + " udpsrc address=127.0.0.1 port=" + std::to_string(theirs) +
                       " caps='application/x-rtp,media=audio," + peer.caps + "' ! " + peer.decode + " ! audioconvert ! "
                       "audio/x-raw,format=S16LE,channels=1,rate=" + rate + " ! filesink buffer-mode=unbuffered location=" + raw);
        });
        const sonratest::Command near = callEnd(peer.codec, peer.rate, 440, ours, theirs, heardFirst).get();
        EXPECT_EQ(0, near.exitCode) << near.output;
        EXPECT_EQ(std::string::npos, near.output.find("refused")) << near.output;
        far.get();
        expectHeard(sonratest::readWav(heardFirst).samples, 1000, 440, peer.rate);
        expectHeard(sonratest::shell("cat " + raw).values<int16_t>(), 440, 1000, peer.rate);
    }
}
