#include "sonrartpcall.h"
#include "sonrartptool.h"

#include "sonraoptions.h"
#include "sonrasoundfile.h"

#include "sonradevnode.h"
#include "sonrag711encnode.h"
#include "sonramixernode.h"
#include "sonranoisesupressnode.h"
#include "sonraopusencnode.h"
#include "sonrartpreceivernode.h"
#include "sonrartpsendernode.h"
#include "sonravolumenode.h"

#include <boost/asio/ip/udp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/make_shared.hpp>

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace sonrartp {

using namespace ombrel;
using boost::asio::ip::udp;
using sonratool::UsageError;

namespace {

typedef std::chrono::steady_clock Clock;
typedef boost::shared_ptr<std::vector<char> > Frame;

const unsigned FRAME_MS = 20;                  // ms, graph frames and packets alike
const unsigned OPUS_CLOCK = 48000;             // Hz, Opus's RTP clock whatever it was coded at
const unsigned EVENT_PAYLOAD_TYPE = 101;       // telephone events, the type most peers offer
const unsigned OPUS_FEC_LOSS = 10;             // %, the loss the Opus encoder's in-band FEC is set for

// One socket sends and receives, so that the far end sees our packets come
// from the port it sends to (symmetric RTP).
void openCallSocket(const CallOptions& options, const udp::endpoint& to, udp::socket& socket)
{
    boost::system::error_code error;
    const boost::asio::ip::address address = boost::asio::ip::address::from_string(options.bind, error);
    if (error)
        throw UsageError("--bind wants an IP address, not \"" + options.bind + "\"");
    udp::endpoint local(address, static_cast<unsigned short>(options.port));
    if (address.is_unspecified() && to.address().is_v6())
        local = udp::endpoint(udp::v6(), local.port());
    socket.open(local.protocol(), error);
    if (!error)
        socket.bind(local, error);
    if (!error)
        socket.non_blocking(true, error);
    if (error)
        throw std::runtime_error("cannot listen on UDP port " + std::to_string(options.port) + " of " +
                                 options.bind + ": " + error.message());
}

// The virtual device loops a capture file only at the stream's rate and
// channels: any other file is mixed to mono and resampled into a
// temporary copy first, removed again with this.
struct CaptureDevice {
    CaptureDevice(const std::string& name, unsigned rate) : name(name)
    {
        const std::string prefix = SonraUniversalDevice::VIRTUAL_DEVICE_PREFIX;
        if (name.compare(0, prefix.size(), prefix) != 0)
            return;
        const std::vector<int16_t> samples = sonratool::readMono(name.substr(prefix.size()), rate);
        const char* folder = std::getenv("TMPDIR");
        std::string path = std::string(folder && *folder ? folder : "/tmp") + "/sonra-rtp-call-XXXXXX.wav";
        const int file = ::mkstemps(&path[0], 4);
        if (file < 0)
            throw std::runtime_error("cannot make a temporary copy of " + name.substr(prefix.size()));
        ::close(file);
        copy = path;
        sonratool::writeWav(copy, samples, rate);
        this->name = prefix + copy;
    }
    ~CaptureDevice()
    {
        if (!copy.empty())
            std::remove(copy.c_str());
    }
    std::string name, copy;
};

const char* codecName(CallCodec codec)
{
    return codec == CallCodec::Opus ? "opus" : codec == CallCodec::Pcma ? "pcma" : "pcmu";
}

// Datagrams from one source address at a time, as symmetric RTP expects:
// the address whose packets the receiver last took. Another address is
// heard only once that one has been quiet as long as the receiver's own
// source lock asks, and then only when the receiver takes its packets.
struct AddressLock {
    bool passes(const udp::endpoint& from, Clock::time_point now)
    {
        const auto quiet = std::chrono::milliseconds(SonraRtpReceiverNode::SOURCE_QUIET_TIME);
        if (!locked || from == source || now - lastTaken >= quiet)
            return true;
        ++refused;
        return false;
    }
    void taken(const udp::endpoint& from, Clock::time_point now)
    {
        changes += locked && from != source;
        locked = true;
        source = from;
        lastTaken = now;
    }

    bool locked = false;
    udp::endpoint source;
    Clock::time_point lastTaken;
    uint64_t refused = 0, changes = 0; // datagrams; takeovers by another address
};

class Endpoint {
public:
    Endpoint(const CallOptions& options)
        : m_options(options), m_rate(callRate(options.codec)), m_capture(options.capture, m_rate),
          m_socket(*m_io), m_to(resolveHostPort(*m_io, options.to))
    {
        openCallSocket(options, m_to, m_socket);
        m_container = boost::make_shared<SonraDevNodesContainer>(m_io, FRAME_MS,
                                                                 SonraDevNodesContainer::DEFAULT_RINGBUF_DURATION, m_rate);
        m_container->create(true, false);
        m_container->setCaptureDevice(m_capture.name);
        m_container->setPlaybackDevice(options.playback);
        m_container->setPipe(m_pipe);
        buildSendPath();
        buildReceivePath();
        m_pipe->workCycleSignal.connect([this]() { drainSocket(); });
    }
    ~Endpoint()
    {
        m_container->stop();
        m_pipe->clear(); // nodes hold their pipe
    }

    void run()
    {
        std::string message;
        if (m_container->start(1, 1, &message) != 0)
            throw std::runtime_error("cannot start the devices: " + message +
                                     " (sonra-monitor --list shows them; \"virtual\" needs no sound card)");
        boost::asio::steady_timer end(*m_io);
        if (m_options.seconds > 0) {
            end.expires_after(std::chrono::microseconds(static_cast<long long>(m_options.seconds * 1e6)));
            end.async_wait([this](const boost::system::error_code& e) {
                if (!e)
                    stop();
            });
        }
        boost::asio::signal_set interrupts(*m_io, SIGINT, SIGTERM);
        interrupts.async_wait([this](const boost::system::error_code& e, int) {
            if (!e)
                stop();
        });
        std::fprintf(stderr, "sonra-rtp: calling %s from UDP port %u (%s, %u Hz); Ctrl-C hangs up\n",
                     m_options.to.c_str(), m_options.port, codecName(m_options.codec), m_rate);
        m_pipe->start(m_io);
        m_io->run();
        m_container->stop(); // closes a virtual playback file
    }

    void report() const
    {
        const SonraRtpReceiverNode::Statistics s = m_receiver->statistics();
        std::fprintf(stderr, "sonra-rtp: sent %llu packets to %s%s\n", static_cast<unsigned long long>(m_sent),
                     m_options.to.c_str(), m_sendFailures ? (", " + std::to_string(m_sendFailures) + " failed").c_str() : "");
        std::fprintf(stderr,
                     "sonra-rtp: received %llu datagrams%s; played %llu packets, lost %llu, late %llu; "
                     "concealed %llu ms, comfort noise %llu ms\n",
                     static_cast<unsigned long long>(m_received),
                     m_lock.locked ? (" from " + m_lock.source.address().to_string() + ":" +
                                      std::to_string(m_lock.source.port())).c_str() : "",
                     static_cast<unsigned long long>(s.packetsPlayed), static_cast<unsigned long long>(s.packetsLost),
                     static_cast<unsigned long long>(s.packetsLate), static_cast<unsigned long long>(s.concealedMs),
                     static_cast<unsigned long long>(s.comfortNoiseMs));
        if (m_lock.refused + s.refusedOtherSource + s.refusedMalformed > 0)
            std::fprintf(stderr, "sonra-rtp: refused %llu from other addresses, %llu from other sources, %llu malformed\n",
                         static_cast<unsigned long long>(m_lock.refused),
                         static_cast<unsigned long long>(s.refusedOtherSource),
                         static_cast<unsigned long long>(s.refusedMalformed));
        if (s.refusedUnmapped > 0)
            std::fprintf(stderr, "sonra-rtp: refused %llu packets: %s\n",
                         static_cast<unsigned long long>(s.refusedUnmapped),
                         unmappedMessage(s.lastUnmappedPayloadType).c_str());
        if (!m_receiver->digits().empty())
            std::fprintf(stderr, "sonra-rtp: telephone events: %s\n", m_receiver->digits().c_str());
    }

private:
    std::string unmappedMessage(int payloadType) const
    {
        const std::string type = "payload type " + std::to_string(payloadType);
        if (payloadType == 0 || payloadType == 8)
            return type + " (G.711) cannot be played in a call at " + std::to_string(m_rate) + " Hz: --codec " +
                   (payloadType == 8 ? "pcma" : "pcmu");
        return type + " is not mapped: --payload-type " + std::to_string(payloadType) + "=opus";
    }

    // Capture, noise suppression, volume, encoder, sender.
    void buildSendPath()
    {
        boost::shared_ptr<SonraNode> last = m_container->capture();
        auto chain = [&](const boost::shared_ptr<SonraNode>& node) {
            m_pipe->connect(last, node);
            last = node;
        };
        chain(boost::make_shared<SonraNoiseSupressNode>(m_io, FRAME_MS, m_rate));
        chain(boost::make_shared<SonraVolumeNode>(m_io, FRAME_MS, m_rate));
        auto sender = boost::make_shared<SonraRtpSenderNode>(m_io, FRAME_MS, m_rate);
        if (m_options.codec == CallCodec::Opus) {
            auto encoder = boost::make_shared<SonraOpusEncNode>(m_io, FRAME_MS, m_rate);
            encoder->setInbandFec(OPUS_FEC_LOSS);
            chain(encoder);
            sender->setWirePayloadType(m_options.opusPayloadType);
            sender->setClockRate(OPUS_CLOCK);
        } else {
            auto encoder = boost::make_shared<SonraG711EncNode>(m_io, FRAME_MS, m_rate);
            const bool ulaw = m_options.codec == CallCodec::Pcmu;
            encoder->setMode(ulaw ? SonraG711EncNode::MODE_ULAW : SonraG711EncNode::MODE_ALAW);
            chain(encoder);
            sender->setWirePayloadType(ulaw ? 0 : 8);
        }
        chain(sender);
        sender->setSendHandler([this](Frame packet) {
            boost::system::error_code error;
            m_socket.send_to(boost::asio::buffer(*packet), m_to, 0, error);
            ++(error ? m_sendFailures : m_sent);
        });
    }

    // Receiver (decoding, one source), mixer, playback.
    void buildReceivePath()
    {
        m_receiver = boost::make_shared<SonraRtpReceiverNode>(m_io, FRAME_MS, m_rate);
        m_receiver->setDecodedOutput(true);
        m_receiver->setSourceLock(true);
        m_receiver->mapPayloadType(m_options.opusPayloadType, SonraRtpReceiverNode::CODEC_OPUS);
        m_receiver->mapPayloadType(EVENT_PAYLOAD_TYPE, SonraRtpReceiverNode::CODEC_TELEPHONE_EVENT);
        auto mixer = boost::make_shared<SonraMixerNode>(m_io, FRAME_MS, m_rate);
        m_pipe->connect(m_receiver, mixer);
        m_pipe->connect(mixer, m_container->playback());
    }

    // Everything that arrived by now goes to the receiver before the next
    // frame, from the locked address only.
    void drainSocket()
    {
        udp::endpoint from;
        boost::system::error_code error;
        for (std::size_t size; (size = m_socket.receive_from(boost::asio::buffer(m_buffer), from, 0, error)), !error;) {
            ++m_received;
            const Clock::time_point now = Clock::now();
            if (!m_lock.passes(from, now))
                continue;
            const SonraRtpReceiverNode::Statistics before = m_receiver->statistics();
            m_receiver->dataReceived(boost::make_shared<std::vector<char> >(m_buffer.begin(), m_buffer.begin() + size));
            const SonraRtpReceiverNode::Statistics after = m_receiver->statistics();
            if (after.packetsReceived + after.eventPackets > before.packetsReceived + before.eventPackets)
                m_lock.taken(from, now);
        }
    }

    void stop()
    {
        m_pipe->stop();
        m_io->stop();
    }

    const CallOptions m_options;
    const unsigned m_rate; // Hz
    const CaptureDevice m_capture;
    boost::shared_ptr<boost::asio::io_service> m_io = boost::make_shared<boost::asio::io_service>();
    boost::shared_ptr<SonraPipe> m_pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    udp::socket m_socket;
    udp::endpoint m_to;
    boost::shared_ptr<SonraDevNodesContainer> m_container;
    boost::shared_ptr<SonraRtpReceiverNode> m_receiver;
    AddressLock m_lock;
    uint64_t m_sent = 0, m_sendFailures = 0, m_received = 0; // datagrams
    std::vector<char> m_buffer = std::vector<char>(65536);
};

} // namespace

int call(const CallOptions& options)
{
    Endpoint endpoint(options);
    endpoint.run();
    endpoint.report();
    return 0;
}

} // namespace sonrartp
