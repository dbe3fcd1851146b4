// tools/sonra-rtp against real RTP peers over 127.0.0.1 (GStreamer hears what we send and sends what we receive,
// tshark reads our captures) and on captures other software recorded: the audio comes back exactly as the peer's
// own decoder makes it, and what cannot be played is refused by name.
#include "testutil.h"
#include "deviceutil.h"
#include "g711.h"
#include "sonrapcap.h"

#include <boost/asio/ip/udp.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <regex>
#include <thread>

namespace {

const std::string TOOL = std::string(SONRA_BINARY_DIR) + "/tools/sonra-rtp";
const std::string CAPTURES = SONRA_SOURCE_DIR "/../shared/realworld/captures/";

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

// `heard` is `reference` sample for sample from one lag on (either way), over nearly all of `expected` samples.
void expectExactCopy(const sonratest::Samples& reference, const sonratest::Samples& heard, std::size_t expected)
{
    const int window = 2400; // samples
    const sonratest::Alignment best = sonratest::bestAlignment(reference, heard, window, -window, window);
    ASSERT_GT(best.correlation, 0.99);
    std::size_t compared = 0, equal = 0;
    for (std::size_t i = window - best.delay; i < reference.size() && i + best.delay < heard.size(); ++i)
        ++compared, equal += heard[i + best.delay] == reference[i];
    EXPECT_EQ(compared, equal) << "lag " << best.delay;
    EXPECT_GT(compared + 2 * window, expected * 97 / 100);
}

struct Codec {
    const char *name, *encoder, *decoder, *payloader, *depayloader, *caps;
    unsigned rate; // Hz
};
const Codec PCMA = {"pcma", "alawenc", "alawdec", "rtppcmapay", "rtppcmadepay", "encoding-name=PCMA,payload=8,clock-rate=8000", 8000};
const Codec PCMU = {"pcmu", "mulawenc", "mulawdec", "rtppcmupay", "rtppcmudepay", "encoding-name=PCMU,payload=0,clock-rate=8000", 8000};
const Codec OPUS = {"opus", "opusenc", "opusdec", "rtpopuspay pt=111", "rtpopusdepay", "encoding-name=OPUS,payload=111,clock-rate=48000", 48000};

struct RtpTool : ::testing::Test {
    void SetUp() override
    {
        if (!std::ifstream(TOOL).good())
            GTEST_SKIP() << "sonra-rtp is not built (tools off)";
    }
    const std::string in = sonratest::tempPath("rtp_in.wav"), out = sonratest::tempPath("rtp_out.wav"),
                      raw = sonratest::tempPath("rtp_gst.raw"), pcap = sonratest::tempPath("rtp.pcap");
};

} // namespace

// Each codec and packet time both ways: what GStreamer's decoder makes of our packets is what our replay of their
// capture plays; what we make of GStreamer's packets is what its own decoder makes of its encoding (libopus or G.711
// both sides, so exact). Packet time 0: GStreamer's default, packets as large as the MTU allows.
TEST_F(RtpTool, GStreamerAndWeHearEachOtherExactlyInEveryCodecAndPacketTime)
{
    const struct { bool weSend; const Codec& codec; unsigned ptime; } cases[] = { // ms
        {true, PCMA, 20}, {true, PCMU, 20}, {true, OPUS, 20}, {true, PCMA, 10}, {true, PCMA, 30}, {true, PCMA, 60},
        {false, PCMA, 20}, {false, PCMU, 20}, {false, OPUS, 20}, {false, PCMA, 10}, {false, PCMA, 30},
        {false, PCMA, 60}, {false, PCMA, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.weSend ? "we send " : "we receive ") + c.codec.name + " " + std::to_string(c.ptime));
        const sonratest::Samples source = sonratest::speechLike(c.codec.rate, c.codec.rate * 3 / 2); // 1.5 s
        ASSERT_TRUE(sonratest::writeWav(in, source, int(c.codec.rate), 1));
        const bool opus = &c.codec == &OPUS;
        const std::string port = std::to_string(freePort()), mapping = opus ? " --payload-type 111=opus" : "";
        const std::string encoder = c.codec.encoder + (opus ? " frame-size=" + std::to_string(c.ptime) : "");
        int exitCode = -1;
        sonratest::Samples reference;
        if (c.weSend) {
            const std::string pid = sonratest::tempPath("rtp_gst.pid");
            // gst-launch turns SIGINT, which timeout passes on, into an end of stream;
            // one that hangs on it is killed 5 s later.
            auto peer = std::async(std::launch::async, [&] {
                return run("echo $$ >" + pid + "; exec timeout -k 5 -s INT 15 gst-launch-1.0 -q -e udpsrc address=127.0.0.1 port=" +
                           port + " caps='application/x-rtp,media=audio," + c.codec.caps + "' ! " + c.codec.depayloader +
                           " ! " + c.codec.decoder + " ! audio/x-raw,format=S16LE,channels=1 ! filesink buffer-mode=unbuffered location=" + raw);
            });
            waitUntilListening(unsigned(std::stoi(port)));
            const std::string sent = run(TOOL + " send " + in + " --to 127.0.0.1:" + port + " --codec " + c.codec.name +
                                         " --ptime " + std::to_string(c.ptime) + " --pcap " + pcap, &exitCode);
            ASSERT_EQ(0, exitCode) << sent;
            const unsigned packets = 1500 / c.ptime, type = opus ? 111 : (&c.codec == &PCMU ? 0 : 8);
            EXPECT_NE(std::string::npos, sent.find("sent " + std::to_string(packets) + " packets (1.50 s, " + c.codec.name +
                                                   ", payload type " + std::to_string(type))) << sent;
            for (int i = 0; i < 100 && std::ifstream(raw, std::ios::ate).tellg() < std::streamoff(source.size() * 2); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(25));
            ::kill(std::atoi(run("cat " + pid).c_str()), SIGINT);
            peer.get();
            // tshark warns on stderr when run as root.
            EXPECT_EQ(std::to_string(packets) + " " + std::to_string(type) + "\n",
                      run("{ tshark -r " + pcap + " -d udp.port==" + port + ",rtp -T fields -e rtp.p_type 2>/dev/null; } | "
                          "uniq -c | sed 's/^ *//'"));
            reference = sonratest::shell("cat " + raw).values<int16_t>();
            const std::string replayed = run(TOOL + " replay " + pcap + " --out " + out + mapping, &exitCode);
            ASSERT_EQ(0, exitCode) << replayed;
            // The capture keeps the send times: a packet a busy host sent late is late in the replay too. Every
            // packet counts; the replay is a copy when all played.
            std::smatch counts;
            ASSERT_TRUE(std::regex_search(replayed, counts, std::regex("played +(\\d+) packets[\\s\\S]*\nlate +(\\d+)")))
                << replayed;
            EXPECT_EQ(packets, unsigned(std::stoi(counts[1]) + std::stoi(counts[2]))) << replayed;
            if (counts[2] != "0")
                continue;
        } else {
            auto receiver = std::async(std::launch::async, [&] {
                return run(TOOL + " recv --bind 127.0.0.1 --port " + port + " --out " + out + " --seconds 12 --idle 0.5" + mapping,
                           &exitCode);
            });
            waitUntilListening(unsigned(std::stoi(port)));
            const std::string ptime = c.ptime && !opus ? " min-ptime=" + std::to_string(c.ptime) + "000000 max-ptime=" +
                                                             std::to_string(c.ptime) + "000000" : "";
            run("gst-launch-1.0 -q filesrc location=" + in + " ! wavparse ! " + encoder + " ! " + c.codec.payloader + ptime +
                " ! udpsink host=127.0.0.1 port=" + port);
            const std::string received = receiver.get();
            ASSERT_EQ(0, exitCode) << received;
            EXPECT_NE(std::string::npos, received.find("late       0")) << received;
            reference = sonratest::shell("gst-launch-1.0 -q filesrc location=" + in + " ! wavparse ! " + encoder + " ! " +
                                         c.codec.decoder + " ! audio/x-raw,format=S16LE ! fdsink").values<int16_t>();
        }
        const sonratest::WavContents ours = sonratest::readWav(out);
        EXPECT_EQ(int(c.codec.rate), ours.sampleRate);
        EXPECT_NEAR(double(source.size()), double(ours.samples.size()), c.codec.rate * 0.1); // within 100 ms
        EXPECT_GT(sonratest::bestAlignment(source, ours.samples, 0, 0, 1600).correlation, opus ? 0.8 : 0.99);
        expectExactCopy(reference, ours.samples, source.size());
    }
}

// Every capture through the tool: the stream it picks, what it played (every received G.711 packet's samples, in
// order) and how long the WAV is against the stream; and the captures it refuses or warns about.
TEST_F(RtpTool, ReplaysRealCapturesAndRefusesWhatItCannotPlay)
{
    { // random UDP, half of it looking like RTP version 2
        sonratool::PcapWriter noise(pcap);
        std::mt19937 random(5);
        const boost::asio::ip::udp::endpoint a(boost::asio::ip::address_v4::loopback(), 5004), b(a.address(), 53);
        for (unsigned i = 0; i < 300; ++i) {
            std::string junk(12 + random() % 100, '\0');
            std::generate(junk.begin(), junk.end(), [&random] { return char(random()); });
            junk[0] = i % 2 ? junk[0] : '\x80';
            noise.write(i % 3 ? a : b, i % 3 ? b : a, junk.data(), junk.size(), i * 0.01);
        }
    }
    const std::string cut = sonratest::tempPath("cut.pcap");
    std::filesystem::copy_file(CAPTURES + "sipp_g711a.pcap", cut, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::resize_file(cut, 20000); // in the middle of a packet
    const struct { std::string arguments; int exitCode; const char* text; unsigned ssrc, rate; double seconds; } cases[] = {
        {"sipp_g711a.pcap", 0, "played     236 packets", 0xDEE0EE8F, 8000, 7.05},
        {"asterisk_A_party_g711a.pcap", 0, "played     5535 packets", 0x0E330AF3, 8000, 110.69},
        {"asterisk_40msalaw.pcap", 0, "played     826 packets", 0xD500CA81, 8000, 33.0},
        {"ndpi_FAX-Call-t38-CA-TDM-SIP-FB-1.pcap --payload-type 100=telephone-event", 0, "events     3 packets", 0x17D90134, 8000, 35.27},
        {"asterisk_CARRIER_G711U.pcap", 0, "lost       14 packets", 0x17CB308C, 8000, 16.26},
        {"asterisk_ulaw-2013785496.pcap --payload-type 101=telephone-event", 0, "digits \"2013785496\"", 0x34D01D16, 8000, 19.46},
        {"asterisk_opus_fec_dropped.pcapng --payload-type 107=opus", 0, "played     2971 packets", 0x3760BFAA, 48000, 59.98},
        {"asterisk_opus_fec_dropped.pcapng", 1, "payload type 107 is not mapped: --payload-type 107=opus", 0, 0, 0},
        {"sipp_g711a.pcap --ssrc 7", 1, "no plausible RTP stream with SSRC 0x00000007", 0, 0, 0},
        {"< " + pcap, 1, "no plausible RTP stream in", 0, 0, 0},
        {"< " + cut, 0, "is cut short (truncated dump file", 0xDEE0EE8F, 8000, 1.89},
    };
    for (const auto& c : cases) {
        const bool ours = c.arguments[0] == '<';
        const std::string file = ours ? c.arguments.substr(2) : CAPTURES + c.arguments;
        int exitCode = -1;
        const std::string output = run(TOOL + " replay " + file + " --out " + out, &exitCode);
        EXPECT_EQ(c.exitCode, exitCode) << output;
        EXPECT_NE(std::string::npos, output.find(c.text)) << output;
        EXPECT_EQ(std::string::npos, output.find("might be broken")) << output; // SpeexDSP's warning
        if (c.exitCode)
            continue;
        char picked[24];
        std::snprintf(picked, sizeof picked, "SSRC 0x%08X", c.ssrc);
        EXPECT_NE(std::string::npos, output.find(picked)) << output;
        const sonratest::WavContents wav = sonratest::readWav(out);
        EXPECT_EQ(int(c.rate), wav.sampleRate);
        EXPECT_NEAR(c.seconds, double(wav.samples.size()) / c.rate, 0.05) << output;
        if (c.rate != 8000)
            continue; // the library's own test holds the Opus call against libopus
        std::size_t packets = 0, found = 0, position = 0;
        for (const sonratool::Datagram& d : sonratool::readUdpCapture(file.substr(0, file.find(' ')))) {
            const unsigned type = d.payload.size() > 12 ? d.payload[1] & 0x7f : 128;
            if ((type != 0 && type != 8) || (d.payload[8] << 24 | d.payload[9] << 16 | d.payload[10] << 8 | d.payload[11]) != int(c.ssrc))
                continue;
            sonratest::Samples samples;
            for (auto code = d.payload.begin() + 12; code != d.payload.end(); ++code)
                samples.push_back(type ? ombrel::alaw2linear(*code) : ombrel::ulaw2linear(*code));
            const auto at = std::search(wav.samples.begin() + long(position), wav.samples.end(), samples.begin(), samples.end());
            ++packets, found += at != wav.samples.end();
            position = at != wav.samples.end() ? std::size_t(at - wav.samples.begin()) + samples.size() : position;
        }
        EXPECT_GE(found * 100, packets * 99) << c.arguments << ": " << found << " of " << packets;
    }
}

TEST_F(RtpTool, SaysClearlyWhatIsWrong)
{
    boost::asio::io_service io;
    boost::asio::ip::udp::socket busy(io, {boost::asio::ip::address_v4::loopback(), 0});
    const std::string busyPort = std::to_string(busy.local_endpoint().port());
    const struct { std::string arguments, text; int exitCode; } errors[] = {
        {"send " + out + " --to nosuchhost.invalid:5004", "cannot resolve nosuchhost.invalid:5004", 1},
        {"send /nonexistent.wav --to 127.0.0.1:5004", "cannot read /nonexistent.wav", 1},
        {"send x.wav --to 127.0.0.1:5004 --codec opus --ptime 30", "--ptime for opus wants 10, 20, 40 or 60", 2},
        {"recv --port 5004 --out x.wav --payload-type 96=g729", "--payload-type wants pcma, pcmu, opus, cn or telephone-event", 2},
        {"recv --bind 127.0.0.1 --port " + busyPort + " --out " + out,
         "cannot listen on UDP port " + busyPort + " of 127.0.0.1: Address already in use", 1},
        {"replay " + TOOL + " --out " + out, "cannot read " + TOOL, 1},
    };
    for (const auto& e : errors) {
        int exitCode = 0;
        const std::string output = run(TOOL + " " + e.arguments, &exitCode);
        EXPECT_EQ(e.exitCode, exitCode) << e.arguments;
        EXPECT_NE(std::string::npos, output.find(e.text)) << output;
    }
}

// Item 3's flood (half of it RTP-looking, payload type 8, random numbers) from one address, and a second stream from
// another once ours has begun: recv plays ours whole and nothing of the rest.
TEST_F(RtpTool, RecvPlaysItsSourceWholeThroughAFloodAndASecondStream)
{
    const sonratest::Samples source = sonratest::speechLike(8000, 24000); // 3 s
    ASSERT_TRUE(sonratest::writeWav(in, source, 8000, 1));
    sonratest::Samples reference;
    for (int16_t sample : source)
        reference.push_back(ombrel::alaw2linear(ombrel::linear2alaw(sample)));
    const unsigned port = freePort();
    int exitCode = -1;
    auto receiver = std::async(std::launch::async, [&] {
        return run(TOOL + " recv --bind 127.0.0.1 --port " + std::to_string(port) + " --out " + out + " --seconds 10 --idle 0.5",
                   &exitCode);
    });
    waitUntilListening(port);
    std::atomic<bool> sending(true);
    std::thread flood([&] {
        boost::asio::io_service io;
        using boost::asio::ip::udp;
        const udp::endpoint to(boost::asio::ip::address_v4::loopback(), static_cast<unsigned short>(port));
        udp::socket junk(io, udp::endpoint(udp::v4(), 0)), other(io, udp::endpoint(udp::v4(), 0));
        std::mt19937 random(19);
        const auto start = std::chrono::steady_clock::now();
        for (unsigned i = 0, seq = 0; sending; ++i) { // 4545 a second, as 50,000 in 11 s
            std::vector<unsigned char> bytes(12 + random() % 160);
            std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<unsigned char>(random()); });
            bytes[0] = i % 2 ? bytes[0] : 0x80, bytes[1] = i % 2 ? bytes[1] : 8;
            junk.send_to(boost::asio::buffer(bytes), to);
            if (i > 2300 && i % 90 == 0) { // 50 a second from half a second on, SSRC 9
                std::vector<unsigned char> packet = {0x80, 8, uint8_t(seq >> 8), uint8_t(seq), 0, 0, 0, 0, 0, 0, 0, 9};
                packet.resize(172, 0x2a), ++seq;
                other.send_to(boost::asio::buffer(packet), to);
            }
            std::this_thread::sleep_until(start + std::chrono::microseconds(220 * i));
        }
    });
    const std::string sent = run(TOOL + " send " + in + " --to 127.0.0.1:" + std::to_string(port));
    sending = false;
    flood.join();
    const std::string received = receiver.get();
    ASSERT_EQ(0, exitCode) << received;
    const std::size_t played = received.find("played ");
    ASSERT_NE(std::string::npos, played) << received;
    EXPECT_GE(std::stoul(received.substr(played + 7)), 149u) << received; // of 150: a flood packet's SSRC may break the first run
    EXPECT_EQ(std::string::npos, received.find(" 0 from another address")) << received;
    expectExactCopy(reference, sonratest::readWav(out).samples, source.size());
}
