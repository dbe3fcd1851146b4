// sonra-rtp: G.711 A-law over RTP/UDP with the library's RTP nodes, to talk
// to real RTP peers. The library opens no socket; this tool does.
//
//   sonra-rtp send FILE --to HOST:PORT [--pcap FILE.pcap]
//   sonra-rtp recv --port PORT --out FILE.wav [--bind ADDRESS] [--seconds N] [--idle S]
//   sonra-rtp replay FILE.pcap --out FILE.wav [--ssrc N]
#include "sonrapcap.h"
#include "sonrasoundfile.h"
#include "sonraoptions.h"
#include "sonradevnode.h"
#include "sonrag711decnode.h"
#include "sonrag711encnode.h"
#include "sonrartppacket.h"
#include "sonrartpreceivernode.h"
#include "sonrartpsendernode.h"
#include "shared.h"

#include <boost/asio/ip/udp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/make_shared.hpp>

#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

using namespace ombrel;
using boost::asio::ip::udp;

namespace {

const unsigned RATE = SonraG711EncNode::G711_RATE; // Hz
const unsigned FRAME_DURATION = 20;                // ms, one packet per graph frame
const unsigned FRAME_SAMPLES = RATE * FRAME_DURATION / 1000;
// Frame periods from the first packet's arrival to the first graph frame:
// the slack for arrivals that wander against the graph's own clock, which
// SpeexDSP's buffer would otherwise buy by missing a frame first.
const double PLAYOUT_PHASE = 3;

typedef boost::shared_ptr<std::vector<char> > Frame;

const char* const USAGE =
    "usage: sonra-rtp send FILE --to HOST:PORT [--pcap FILE.pcap]\n"
    "       sonra-rtp recv --port PORT --out FILE.wav [--bind ADDRESS] [--seconds N] [--idle S]\n"
    "       sonra-rtp replay FILE.pcap --out FILE.wav [--ssrc N]\n"
    "\n"
    "G.711 A-law (payload type 8) over RTP/UDP, 8000 Hz, 20 ms per packet.\n"
    "  send    streams FILE (any sound file libsndfile reads; mixed to mono and resampled\n"
    "          to 8000 Hz) in real time to HOST:PORT ([ADDRESS]:PORT for IPv6); --pcap also\n"
    "          records what is sent as a capture\n"
    "  recv    receives RTP on UDP port PORT (on ADDRESS, default 0.0.0.0) and writes what\n"
    "          the jitter buffer played as a 16-bit WAV; ends after N seconds (default: no\n"
    "          limit), S seconds after the stream stops (default 1) or on Ctrl-C\n"
    "  replay  feeds the RTP packets of a capture (UDP over IPv4 or IPv6; the first stream,\n"
    "          or the one with SSRC N) to the receiver at their captured arrival times, on a\n"
    "          simulated clock, as recv would have played them; writes what was played\n"
    "          and prints how many frames were played and packets late and lost\n"
    "Lost packets are concealed as one frame each, so the stream goes on at once.\n";

using sonratool::UsageError;
using sonratool::number;
using sonratool::whole;

struct Options {
    std::string command, input, output, to, pcap, bind = "0.0.0.0";
    unsigned port = 0;
    double seconds = 0, idle = 1;
    bool hasSsrc = false;
    uint32_t ssrc = 0;
};

Options parse(int argc, char** argv)
{
    Options options;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::cout << USAGE;
            std::exit(0);
        }
        if (arg.compare(0, 2, "--") != 0) {
            positional.push_back(arg);
            continue;
        }
        if (i + 1 >= argc)
            throw UsageError(arg + " wants a value");
        const std::string value = argv[++i];
        if (arg == "--to")
            options.to = value;
        else if (arg == "--pcap")
            options.pcap = value;
        else if (arg == "--out")
            options.output = value;
        else if (arg == "--port")
            options.port = whole(arg, value, 1, 65535);
        else if (arg == "--bind")
            options.bind = value;
        else if (arg == "--seconds")
            options.seconds = number(arg, value, 0, 86400);
        else if (arg == "--idle")
            options.idle = number(arg, value, 0.1, 86400);
        else if (arg == "--ssrc") {
            options.ssrc = whole(arg, value, 0, 4294967295.0);
            options.hasSsrc = true;
        } else
            throw UsageError("unknown option " + arg);
    }
    if (positional.empty())
        throw UsageError("expected send, recv or replay");
    options.command = positional[0];
    const bool wantsFile = options.command == "send" || options.command == "replay";
    if (positional.size() != (wantsFile ? 2u : 1u))
        throw UsageError(wantsFile ? options.command + " wants one file" : "unexpected " + positional.back());
    if (wantsFile)
        options.input = positional[1];
    if (options.command == "send" && options.to.empty())
        throw UsageError("send wants --to HOST:PORT");
    if (options.command == "recv" && options.port == 0)
        throw UsageError("recv wants --port PORT");
    if ((options.command == "recv" || options.command == "replay") && options.output.empty())
        throw UsageError(options.command + " wants --out FILE.wav");
    if (options.command != "send" && options.command != "recv" && options.command != "replay")
        throw UsageError("unknown command \"" + options.command + "\"");
    return options;
}

double wallClock()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

udp::endpoint resolve(boost::asio::io_service& io, const std::string& hostPort)
{
    const std::string::size_type colon = hostPort.rfind(':');
    std::string host = hostPort.substr(0, colon == std::string::npos ? 0 : colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    const std::string port = colon == std::string::npos ? std::string() : hostPort.substr(colon + 1);
    if (host.empty() || port.empty())
        throw UsageError("--to wants HOST:PORT, not \"" + hostPort + "\"");
    boost::system::error_code error;
    udp::resolver resolver(io);
    const udp::resolver::iterator found = resolver.resolve(udp::resolver::query(host, port), error);
    if (error || found == udp::resolver::iterator())
        throw std::runtime_error("cannot resolve " + hostPort + ": " + error.message());
    return *found;
}

// The samples of one frame at a time from the whole signal; the last frame
// is completed with silence.
Frame nextFrame(const std::vector<int16_t>& samples, std::size_t& position)
{
    if (position >= samples.size())
        return Frame();
    std::vector<int16_t> frame(FRAME_SAMPLES, 0);
    const std::size_t count = std::min<std::size_t>(FRAME_SAMPLES, samples.size() - position);
    std::copy(samples.begin() + position, samples.begin() + position + count, frame.begin());
    position += count;
    auto bytes = boost::make_shared<std::vector<char> >(frame.size() * 2);
    std::memcpy(bytes->data(), frame.data(), bytes->size());
    return bytes;
}

int send(const Options& options)
{
    auto io = boost::make_shared<boost::asio::io_service>();
    const udp::endpoint to = resolve(*io, options.to);
    const std::vector<int16_t> samples = sonratool::readMono(options.input, RATE);
    // Unconnected, so that a peer that is not listening yet (ICMP port
    // unreachable) does not make later sends fail; bound to the address a
    // connected socket would use, which the capture names as the source.
    boost::system::error_code error;
    udp::socket probe(*io), socket(*io);
    probe.connect(to, error);
    if (!error)
        socket.open(to.protocol(), error);
    if (!error)
        socket.bind(udp::endpoint(probe.local_endpoint().address(), 0), error);
    if (error)
        throw std::runtime_error("cannot send to " + options.to + ": " + error.message());
    std::unique_ptr<sonratool::PcapWriter> capture;
    if (!options.pcap.empty())
        capture.reset(new sonratool::PcapWriter(options.pcap));
    const udp::endpoint from = socket.local_endpoint();

    std::size_t position = 0, sent = 0, failed = 0;
    unsigned ssrc = 0;
    auto source = boost::make_shared<SonraDevNode>([&]() { return nextFrame(samples, position); }, io,
                                                   FRAME_DURATION, RATE);
    auto encoder = boost::make_shared<SonraG711EncNode>(io, FRAME_DURATION, RATE);
    auto sender = boost::make_shared<SonraRtpSenderNode>(io, FRAME_DURATION, RATE);
    sender->setSendHandler([&](Frame packet) {
        ssrc = SonraRtpPacket(packet).ssrc();
        boost::system::error_code sendError;
        socket.send_to(boost::asio::buffer(*packet), to, 0, sendError);
        if (sendError) {
            ++failed;
            return;
        }
        ++sent;
        if (capture)
            capture->write(from, to, packet->data(), packet->size(), wallClock());
    });
    auto pipe = boost::make_shared<SonraPipe>(FRAME_DURATION);
    pipe->connect(source, encoder);
    pipe->connect(encoder, sender);
    pipe->workCycleSignal.connect([&]() {
        if (position >= samples.size())
            io->post([&]() {
                pipe->stop();
                io->stop();
            });
    });
    boost::asio::signal_set interrupts(*io, SIGINT, SIGTERM);
    interrupts.async_wait([&](const boost::system::error_code& e, int) {
        if (!e) {
            pipe->stop();
            io->stop();
        }
    });
    pipe->start(io);
    io->run();
    pipe->clear();
    std::fprintf(stderr, "sonra-rtp: sent %zu packets (%.2f s) to %s, SSRC 0x%08x%s\n", sent,
                 sent * FRAME_DURATION / 1000.0, options.to.c_str(), ssrc,
                 failed ? (", " + std::to_string(failed) + " failed").c_str() : "");
    return 0;
}

// What the decoder plays, from its first frame on: frames it does not
// deliver become silence once a later frame shows the stream went on.
class Playout {
public:
    void frame(const Frame& pcm)
    {
        if (!pcm) {
            if (m_started)
                m_pendingSilence += FRAME_SAMPLES;
            return;
        }
        m_started = true;
        m_samples.insert(m_samples.end(), m_pendingSilence, 0);
        m_silentFrames += m_pendingSilence / FRAME_SAMPLES;
        m_pendingSilence = 0;
        const int16_t* first = reinterpret_cast<const int16_t*>(pcm->data());
        m_samples.insert(m_samples.end(), first, first + pcm->size() / 2);
        ++m_played;
    }
    const std::vector<int16_t>& samples() const { return m_samples; }
    std::size_t played() const { return m_played; }
    std::size_t silentFrames() const { return m_silentFrames; }

private:
    bool m_started = false;
    std::size_t m_pendingSilence = 0; // samples
    std::size_t m_played = 0, m_silentFrames = 0;
    std::vector<int16_t> m_samples;
};

struct ReceivePath {
    explicit ReceivePath(boost::shared_ptr<boost::asio::io_service> io)
        : receiver(boost::make_shared<SonraRtpReceiverNode>(io, FRAME_DURATION, RATE)),
          decoder(boost::make_shared<SonraG711DecNode>(io, FRAME_DURATION, RATE)),
          pipe(boost::make_shared<SonraPipe>(FRAME_DURATION))
    {
        receiver->setLossConcealment(true);
        pipe->connect(receiver, decoder);
        pipe->workCycleSignal.connect([this]() { playout.frame(decoder->outputData()); });
    }
    ~ReceivePath() { pipe->clear(); }

    boost::shared_ptr<SonraRtpReceiverNode> receiver;
    boost::shared_ptr<SonraG711DecNode> decoder;
    boost::shared_ptr<SonraPipe> pipe;
    Playout playout;
};

int receive(const Options& options)
{
    auto io = boost::make_shared<boost::asio::io_service>();
    boost::system::error_code error;
    const boost::asio::ip::address address = boost::asio::ip::address::from_string(options.bind, error);
    if (error)
        throw UsageError("--bind wants an IP address, not \"" + options.bind + "\"");
    udp::socket socket(*io);
    const udp::endpoint local(address, static_cast<unsigned short>(options.port));
    socket.open(local.protocol(), error);
    if (!error)
        socket.bind(local, error);
    if (error)
        throw std::runtime_error("cannot listen on UDP port " + std::to_string(options.port) + " of " +
                                 options.bind + ": " + error.message());

    ReceivePath path(io);
    std::size_t received = 0;
    const auto launched = std::chrono::steady_clock::now();
    auto lastArrival = launched, deadline = launched;
    std::vector<char> buffer(65536);
    // Everything that arrived by now goes to the receiver before each frame,
    // so that the order of wake-ups on a busy host does not matter.
    auto drain = [&]() {
        udp::endpoint peer;
        boost::system::error_code e;
        for (std::size_t size; (size = socket.receive_from(boost::asio::buffer(buffer), peer, 0, e)), !e;) {
            ++received;
            lastArrival = std::chrono::steady_clock::now();
            path.receiver->dataReceived(boost::make_shared<std::vector<char> >(buffer.begin(), buffer.begin() + size));
        }
    };
    socket.non_blocking(true);
    auto finish = [&]() { io->stop(); };
    boost::asio::steady_timer frames(*io), end(*io);
    std::function<void()> nextFrame = [&]() {
        frames.expires_at(deadline);
        frames.async_wait([&](const boost::system::error_code& e) {
            if (e)
                return;
            drain();
            path.pipe->processFrame();
            if (std::chrono::steady_clock::now() - lastArrival >= std::chrono::duration<double>(options.idle))
                return finish();
            deadline += std::chrono::milliseconds(FRAME_DURATION);
            nextFrame();
        });
    };
    socket.async_wait(udp::socket::wait_read, [&](const boost::system::error_code& e) {
        if (e)
            return;
        drain();
        deadline = lastArrival + std::chrono::microseconds(long(PLAYOUT_PHASE * FRAME_DURATION * 1000));
        nextFrame();
    });
    if (options.seconds > 0) {
        end.expires_at(launched + std::chrono::microseconds(static_cast<long long>(options.seconds * 1e6)));
        end.async_wait([&](const boost::system::error_code& e) {
            if (!e)
                finish();
        });
    }
    boost::asio::signal_set interrupts(*io, SIGINT, SIGTERM);
    interrupts.async_wait([&](const boost::system::error_code& e, int) {
        if (!e)
            finish();
    });
    std::fprintf(stderr, "sonra-rtp: listening on %s UDP port %u\n", options.bind.c_str(), options.port);
    io->run();
    sonratool::writeWav(options.output, path.playout.samples(), RATE);
    std::fprintf(stderr, "sonra-rtp: received %zu datagrams, played %zu frames (%zu silent between them)\n",
                 received, path.playout.played(), path.playout.silentFrames());
    return 0;
}

bool looksLikeRtp(const sonratool::Bytes& payload)
{
    // Version 2, and not RTCP (packet types 192 to 223 share the port when multiplexed).
    return payload.size() >= SonraRtpPacket::HEADER_SIZE && (payload[0] >> 6) == 2 &&
           !(payload[1] >= 192 && payload[1] <= 223);
}

uint32_t ssrcOf(const sonratool::Bytes& p)
{
    return uint32_t(p[8]) << 24 | uint32_t(p[9]) << 16 | uint32_t(p[10]) << 8 | p[11];
}

int replay(const Options& options)
{
    std::vector<sonratool::Datagram> stream;
    for (sonratool::Datagram& datagram : sonratool::readUdpCapture(options.input)) {
        if (!looksLikeRtp(datagram.payload))
            continue;
        const uint32_t ssrc = ssrcOf(datagram.payload);
        if ((options.hasSsrc && ssrc == options.ssrc) || (!options.hasSsrc && (stream.empty() || ssrc == ssrcOf(stream[0].payload))))
            stream.push_back(datagram);
    }
    if (stream.empty())
        throw std::runtime_error("no RTP stream" +
                                 (options.hasSsrc ? " with SSRC " + std::to_string(options.ssrc) : std::string()) +
                                 " in " + options.input);

    // Sequence numbers extended past their wraps, to count the lost ones.
    std::set<int64_t> numbers;
    int64_t last = -1;
    for (const sonratool::Datagram& datagram : stream) {
        const unsigned seq = unsigned(datagram.payload[2]) << 8 | datagram.payload[3];
        int64_t extended = seq;
        if (last >= 0) {
            extended = last - (last & 0xffff) + seq;
            if (extended < last - 32768)
                extended += 65536;
            else if (extended > last + 32768)
                extended -= 65536;
        }
        numbers.insert(extended);
        last = extended;
    }
    const std::size_t expected = std::size_t(*numbers.rbegin() - *numbers.begin() + 1);

    auto io = boost::make_shared<boost::asio::io_service>();
    ReceivePath path(io);
    const double start = stream.front().arrival; // s
    std::size_t next = 0, quietFrames = 0;
    // Frames are played PLAYOUT_PHASE frame periods after the first arrival
    // and one period apart, each after every packet that arrived by then, as
    // recv plays; then until a second of silence. A later packet after such
    // a second restarts the clock: a longer pause (or a broken capture time)
    // is shortened to that second.
    const double period = FRAME_DURATION / 1000.0;        // s
    const std::size_t quietEnough = 1000 / FRAME_DURATION; // frames
    for (double now = start + PLAYOUT_PHASE * period; next < stream.size() || quietFrames < quietEnough;
         now += period) {
        if (quietFrames >= quietEnough && next < stream.size() && stream[next].arrival > now)
            now = stream[next].arrival + PLAYOUT_PHASE * period;
        for (; next < stream.size() && stream[next].arrival <= now; ++next) {
            const sonratool::Bytes& bytes = stream[next].payload;
            path.receiver->dataReceived(boost::make_shared<std::vector<char> >(bytes.begin(), bytes.end()));
        }
        const std::size_t before = path.playout.played();
        path.pipe->processFrame();
        quietFrames = path.playout.played() > before ? 0 : quietFrames + 1;
    }
    sonratool::writeWav(options.output, path.playout.samples(), RATE);
    const std::size_t played = path.playout.played();
    std::printf("stream SSRC 0x%08" PRIx32 ": %zu packets, sequence numbers %" PRId64 " to %" PRId64 "\n",
                ssrcOf(stream[0].payload), stream.size(), *numbers.begin() % 65536,
                *numbers.rbegin() % 65536);
    std::printf("played    %zu frames\n", played);
    std::printf("late      %zu (arrived, never played)\n", numbers.size() > played ? numbers.size() - played : 0);
    std::printf("lost      %zu (never arrived)\n", expected - numbers.size());
    std::printf("duplicate %zu\n", stream.size() - numbers.size());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    setLogSink([](const LogRecord&) {}); // the tool says what went wrong itself
    try {
        const Options options = parse(argc, argv);
        if (options.command == "send")
            return send(options);
        if (options.command == "recv")
            return receive(options);
        return replay(options);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "sonra-rtp: %s\n\n%s", error.what(), USAGE);
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sonra-rtp: %s\n", error.what());
        return 1;
    }
}
