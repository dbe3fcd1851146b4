#include "sonrartppath.h"
#include "sonrartptool.h"

#include "sonraoptions.h"
#include "sonrapcap.h"
#include "sonrasoundfile.h"

#include "sonradevnode.h"
#include "sonraopusencnode.h"
#include "sonrartppacket.h"
#include "sonrartpsendernode.h"

#include <boost/asio/ip/udp.hpp>
#include <boost/asio/signal_set.hpp>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>

namespace sonrartp {

using boost::asio::ip::udp;
using sonratool::UsageError;

namespace {

// The dynamic payload type Opus is sent with unless --payload-type names another.
const unsigned DEFAULT_OPUS_PAYLOAD_TYPE = 111;

double wallClock() // s since the epoch
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// The samples of one frame at a time from the whole signal; the last frame
// is completed with silence.
Frame nextFrame(const std::vector<int16_t>& samples, std::size_t frameSamples, std::size_t& position)
{
    if (position >= samples.size())
        return Frame();
    std::vector<int16_t> frame(frameSamples, 0);
    const std::size_t count = std::min<std::size_t>(frameSamples, samples.size() - position);
    std::copy(samples.begin() + position, samples.begin() + position + count, frame.begin());
    position += count;
    auto bytes = boost::make_shared<std::vector<char> >(frame.size() * 2);
    std::memcpy(bytes->data(), frame.data(), bytes->size());
    return bytes;
}

// Unconnected, so that a peer that is not listening yet (ICMP port
// unreachable) does not make later sends fail; bound to the address a
// connected socket would use, which the capture names as the source.
void openSendSocket(boost::asio::io_service& io, const udp::endpoint& to, const std::string& name, udp::socket& socket)
{
    boost::system::error_code error;
    udp::socket probe(io);
    probe.connect(to, error);
    if (!error)
        socket.open(to.protocol(), error);
    if (!error)
        socket.bind(udp::endpoint(probe.local_endpoint().address(), 0), error);
    if (error)
        throw std::runtime_error("cannot send to " + name + ": " + error.message());
}

// The counts of a send, for its closing line.
struct Sent {
    std::size_t packets = 0, failed = 0;
    unsigned ssrc = 0;
};

// Each packet to `to` (and into the capture), as the sender makes it.
void sendEach(const Frame& packet, udp::socket& socket, const udp::endpoint& to, sonratool::PcapWriter* capture,
              Sent& sent)
{
    sent.ssrc = SonraRtpPacket(packet).ssrc();
    boost::system::error_code sendError;
    socket.send_to(boost::asio::buffer(*packet), to, 0, sendError);
    if (sendError) {
        ++sent.failed;
        return;
    }
    ++sent.packets;
    if (capture)
        capture->write(socket.local_endpoint(), to, packet->data(), packet->size(), wallClock());
}

// The pipe on its own timer until the file is sent or the process is interrupted.
void runUntilSent(const boost::shared_ptr<boost::asio::io_service>& io, const boost::shared_ptr<SonraPipe>& pipe,
                  const std::function<bool()>& allSent)
{
    pipe->workCycleSignal.connect([&]() {
        if (allSent())
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
}

// The payload type written: the one --payload-type gives the codec, else its static or usual dynamic one.
unsigned wirePayloadType(const RtpOptions& options)
{
    for (const auto& mapping : options.payloadTypes)
        if (mapping.second == options.codec)
            return mapping.first;
    return options.codec == SonraRtpReceiverNode::CODEC_OPUS ? DEFAULT_OPUS_PAYLOAD_TYPE
           : options.codec == SonraRtpReceiverNode::CODEC_PCMU ? 0u : 8u;
}

// One packet per graph frame: the graph's frame lasts the packet time.
boost::shared_ptr<SonraNode> encoderFor(const RtpOptions& options, const boost::shared_ptr<boost::asio::io_service>& io,
                                        unsigned rate)
{
    if (options.codec == SonraRtpReceiverNode::CODEC_OPUS)
        return boost::make_shared<SonraOpusEncNode>(io, options.ptime, rate);
    auto g711 = boost::make_shared<SonraG711EncNode>(io, options.ptime, rate);
    g711->setMode(options.codec == SonraRtpReceiverNode::CODEC_PCMU ? SonraG711EncNode::MODE_ULAW
                                                                    : SonraG711EncNode::MODE_ALAW);
    return g711;
}

} // namespace

udp::endpoint resolveHostPort(boost::asio::io_service& io, const std::string& hostPort)
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

int send(const RtpOptions& options)
{
    auto io = boost::make_shared<boost::asio::io_service>();
    const udp::endpoint to = resolveHostPort(*io, options.to);
    const unsigned rate = rateOf(options.codec), frameSamples = rate * options.ptime / 1000;
    const std::vector<int16_t> samples = sonratool::readMono(options.input, rate);
    udp::socket socket(*io);
    openSendSocket(*io, to, options.to, socket);
    std::unique_ptr<sonratool::PcapWriter> capture;
    if (!options.pcap.empty())
        capture.reset(new sonratool::PcapWriter(options.pcap));

    std::size_t position = 0;
    Sent sent;
    auto source = boost::make_shared<SonraDevNode>([&]() { return nextFrame(samples, frameSamples, position); }, io,
                                                   options.ptime, rate);
    const boost::shared_ptr<SonraNode> encoder = encoderFor(options, io, rate);
    auto sender = boost::make_shared<SonraRtpSenderNode>(io, options.ptime, rate);
    const unsigned payloadType = wirePayloadType(options);
    sender->setWirePayloadType(payloadType);
    sender->setClockRate(rate); // G.711 and Opus (RFC 7587) both count at the rate they are encoded at here
    sender->setSendHandler([&](Frame packet) { sendEach(packet, socket, to, capture.get(), sent); });
    auto pipe = boost::make_shared<SonraPipe>(options.ptime);
    pipe->connect(source, encoder);
    pipe->connect(encoder, sender);
    runUntilSent(io, pipe, [&]() { return position >= samples.size(); });
    std::fprintf(stderr, "sonra-rtp: sent %zu packets (%.2f s, %s, payload type %u, %u ms each) to %s, SSRC 0x%08x%s\n",
                 sent.packets, sent.packets * options.ptime / 1000.0, codecName(options.codec).c_str(), payloadType,
                 options.ptime, options.to.c_str(), sent.ssrc,
                 sent.failed ? (", " + std::to_string(sent.failed) + " failed").c_str() : "");
    return 0;
}

} // namespace sonrartp
