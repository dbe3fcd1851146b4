// tools/sonra-rtp against real RTP peers over 127.0.0.1: GStreamer hears what we send and sends what we receive, tshark
// decodes our captures, and the audio comes back within G.711's quantisation with no frame lost.
#include "testutil.h"
#include "deviceutil.h"

#include <boost/asio/ip/udp.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <future>
#include <thread>

namespace {

const std::string TOOL = std::string(SONRA_BINARY_DIR) + "/tools/sonra-rtp";
const std::string CAPS = "'application/x-rtp,media=audio,clock-rate=8000,encoding-name=PCMA,payload=8'";

std::string run(const std::string& command, int* exitCode = nullptr)
{
    const sonratest::Command result = sonratest::shell(command + " 2>&1");
    if (exitCode)
        *exitCode = result.exitCode;
    return result.output;
}

// A UDP port of 127.0.0.1 that nobody holds (released again at once).
unsigned freePort()
{
    boost::asio::io_service io;
    return boost::asio::ip::udp::socket(io, {boost::asio::ip::address_v4::loopback(), 0}).local_endpoint().port();
}

// Until a socket is bound to that UDP port (IPv4), looked up without touching it.
void waitUntilListening(unsigned port)
{
    char key[16];
    std::snprintf(key, sizeof key, ":%04X ", port);
    for (int i = 0; i < 200 && sonratest::shell("grep -q '" + std::string(key) + "' /proc/net/udp").exitCode != 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
}

// Every source sample comes back, in order from one lag on, within half an A-law step: |sample| / 32 + 16.
void expectG711Copy(const std::vector<int16_t>& source, const std::vector<int16_t>& heard)
{
    const sonratest::Alignment best = sonratest::bestAlignment(source, heard, 0, 0, 1600);
    ASSERT_GT(best.correlation, 0.99);
    ASSERT_GE(heard.size(), source.size() + best.delay) << "frames lost";
    for (std::size_t i = 0; i < source.size(); ++i)
        ASSERT_LE(std::abs(heard[i + best.delay] - source[i]), std::abs(source[i]) / 32 + 16) << "sample " << i;
}

struct RtpTool : ::testing::Test {
    void SetUp() override
    {
        if (!std::ifstream(TOOL).good())
            GTEST_SKIP() << "sonra-rtp is not built (tools off)";
        ASSERT_TRUE(sonratest::writeWav(in, source, 8000, 1));
    }
    const std::string in = sonratest::tempPath("rtp_in.wav"), out = sonratest::tempPath("rtp_out.wav"),
                      raw = sonratest::tempPath("rtp_gst.raw"), pcap = sonratest::tempPath("rtp.pcap");
    const std::vector<int16_t> source = sonratest::speechLike(8000, 12000); // 75 packets
};

} // namespace

TEST_F(RtpTool, GStreamerHearsWhatWeSendAndTheCaptureReplaysIt)
{
    const unsigned number = freePort();
    const std::string port = std::to_string(number), pid = sonratest::tempPath("rtp_gst.pid");
    // gst-launch turns SIGINT, which timeout passes on, into an end of stream.
    auto peer = std::async(std::launch::async, [&] {
        return run("echo $$ >" + pid + "; exec timeout -s INT 9 gst-launch-1.0 -q -e udpsrc address=127.0.0.1 port=" +
                   port + " caps=" + CAPS + " ! rtppcmadepay ! alawdec ! audio/x-raw,format=S16LE ! filesink buffer-mode=unbuffered location=" + raw);
    });
    waitUntilListening(number);
    const auto started = std::chrono::steady_clock::now();
    int exitCode = -1;
    const std::string sent = run(TOOL + " send " + in + " --to 127.0.0.1:" + port + " --pcap " + pcap, &exitCode);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    ASSERT_EQ(0, exitCode) << sent;
    EXPECT_NE(std::string::npos, sent.find("sent 75 packets (1.50 s, pcma, payload type 8, 20 ms each)")) << sent;
    EXPECT_GT(seconds, 1.4); // real time
    EXPECT_LT(seconds, 3.0);
    for (int i = 0; i < 100 && std::ifstream(raw, std::ios::ate).tellg() < std::streamoff(source.size() * 2); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    ::kill(std::atoi(run("cat " + pid).c_str()), SIGINT);
    const std::string peerOutput = peer.get();
    const std::vector<int16_t> heard = sonratest::shell("cat " + raw).values<int16_t>();
    ASSERT_GT(heard.size(), 0u) << peerOutput;
    expectG711Copy(source, heard);

    // tshark warns on stderr when run as root.
    const std::string fields = run("{ tshark -r " + pcap + " -d udp.port==" + port +
                                   ",rtp -T fields -e rtp.version -e rtp.p_type -e rtp.seq -e rtp.timestamp 2>/dev/null; }");
    std::string expected;
    for (unsigned k = 1; k <= 75; ++k)
        expected += "2\t8\t" + std::to_string(k) + "\t" + std::to_string((k - 1) * 160) + "\n";
    EXPECT_EQ(expected, fields);
    const std::string replayed = run(TOOL + " replay " + pcap + " --out " + out, &exitCode);
    ASSERT_EQ(0, exitCode) << replayed;
    for (const char* line : {"played     75 packets", "late       0", "lost       0"})
        EXPECT_NE(std::string::npos, replayed.find(line)) << replayed;
    expectG711Copy(source, sonratest::readWav(out).samples);
}

TEST_F(RtpTool, WeReceiveWhatGStreamerSends)
{
    const unsigned number = freePort();
    const std::string port = std::to_string(number);
    int exitCode = -1;
    auto receiver = std::async(std::launch::async, [&] {
        return run(TOOL + " recv --bind 127.0.0.1 --port " + port + " --out " + out + " --seconds 8 --idle 0.5",
                   &exitCode);
    });
    waitUntilListening(number);
    run("gst-launch-1.0 -q filesrc location=" + in + " ! wavparse ! alawenc ! rtppcmapay min-ptime=20000000 "
        "max-ptime=20000000 ! udpsink host=127.0.0.1 port=" + port);
    const std::string received = receiver.get();
    ASSERT_EQ(0, exitCode) << received;
    EXPECT_NE(std::string::npos, received.find("received 75 datagrams (locked onto 127.0.0.1:")) << received;
    expectG711Copy(source, sonratest::readWav(out).samples);
}

TEST_F(RtpTool, SaysClearlyWhatIsWrong)
{
    boost::asio::io_service io;
    boost::asio::ip::udp::socket busy(io, {boost::asio::ip::address_v4::loopback(), 0});
    const std::string busyPort = std::to_string(busy.local_endpoint().port());
    const struct { std::string arguments, text; } errors[] = {
        {"send " + in + " --to nosuchhost.invalid:5004", "cannot resolve nosuchhost.invalid:5004"},
        {"send /nonexistent.wav --to 127.0.0.1:5004", "cannot read /nonexistent.wav"},
        {"recv --bind 127.0.0.1 --port " + busyPort + " --out " + out,
         "cannot listen on UDP port " + busyPort + " of 127.0.0.1: Address already in use"},
        {"replay " + in + " --out " + out, "cannot read " + in},
    };
    for (const auto& e : errors) {
        int exitCode = 0;
        const std::string output = run(TOOL + " " + e.arguments, &exitCode);
        EXPECT_EQ(1, exitCode) << e.arguments;
        EXPECT_NE(std::string::npos, output.find(e.text)) << output;
    }
}
