#include "sonrartppath.h"
#include "sonrartpstreams.h"
#include "sonrartptool.h"

#include "sonraoptions.h"
#include "sonrasoundfile.h"

#include <boost/asio/ip/udp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>

namespace sonrartp {

using boost::asio::ip::udp;
using sonratool::UsageError;

namespace {

typedef std::chrono::steady_clock Clock;

const int RECEIVE_BUFFER_SIZE = 4 << 20; // bytes

void listen(const RtpOptions& options, udp::socket& socket)
{
    boost::system::error_code error;
    const boost::asio::ip::address address = boost::asio::ip::address::from_string(options.bind, error);
    if (error)
        throw UsageError("--bind wants an IP address, not \"" + options.bind + "\"");
    const udp::endpoint local(address, static_cast<unsigned short>(options.port));
    socket.open(local.protocol(), error);
    if (!error)
        socket.bind(local, error);
    // Room for a burst or a flood while the graph is busy: the kernel drops what does not fit, the real stream's
    // packets too. It caps the size at its own limit; a smaller buffer is no error.
    boost::system::error_code ignored;
    if (!error)
        socket.set_option(udp::socket::receive_buffer_size(RECEIVE_BUFFER_SIZE), ignored);
    if (error)
        throw std::runtime_error("cannot listen on UDP port " + std::to_string(options.port) + " of " +
                                 options.bind + ": " + error.message());
}

// Opus when a payload type is mapped to it, else G.711.
unsigned receivingRate(const PayloadTypeMap& map)
{
    for (const auto& mapping : map)
        if (mapping.second == SonraRtpReceiverNode::CODEC_OPUS)
            return rateOf(mapping.second);
    return rateOf(SonraRtpReceiverNode::CODEC_PCMA);
}

// A stream received in real time: graph frames on a timer from the first
// arrival on, until the stream has been idle long enough. As symmetric RTP
// does, only the source address and port of the source the receiver locked
// onto are let through, except when it has been quiet long enough for
// another to take over.
struct Reception {
    Reception(const boost::shared_ptr<boost::asio::io_service>& io, const RtpOptions& options)
        : io(io), socket(*io), path(io, receivingRate(options.payloadTypes), options.payloadTypes), idle(options.idle),
          frames(*io)
    {
        listen(options, socket);
        socket.non_blocking(true);
    }

    // Everything that arrived by now goes to the receiver before each frame,
    // so that the order of wake-ups on a busy host does not matter.
    void drain()
    {
        udp::endpoint peer;
        boost::system::error_code e;
        for (std::size_t size; (size = socket.receive_from(boost::asio::buffer(buffer), peer, 0, e)), !e;) {
            ++received;
            lastArrival = Clock::now();
            admit(peer, size);
        }
    }

    void admit(const udp::endpoint& peer, std::size_t size)
    {
        const bool quiet = lastFromSource + std::chrono::milliseconds(SonraRtpReceiverNode::SOURCE_QUIET_TIME) <= lastArrival;
        if (hasSource && peer != source && !quiet) {
            ++otherAddress;
            return;
        }
        const uint64_t before = taken();
        path.datagram(buffer.data(), size);
        if (taken() > before) {
            hasSource = true, source = peer;
            lastFromSource = lastArrival;
        }
    }

    // Packets the receiver took from its locked source.
    uint64_t taken() const
    {
        const SonraRtpReceiverNode::Statistics s = path.statistics();
        return s.packetsReceived + s.eventPackets + s.packetsLate;
    }

    void nextFrame()
    {
        frames.expires_at(deadline);
        frames.async_wait([this](const boost::system::error_code& e) {
            if (e)
                return;
            drain();
            path.frame();
            if (Clock::now() - (hasSource ? lastFromSource : lastArrival) >= std::chrono::duration<double>(idle))
                return io->stop();
            deadline += std::chrono::milliseconds(FRAME_DURATION);
            nextFrame();
        });
    }

    void start()
    {
        socket.async_wait(udp::socket::wait_read, [this](const boost::system::error_code& e) {
            if (e)
                return;
            drain();
            deadline = lastArrival + std::chrono::microseconds(long(PLAYOUT_PHASE * FRAME_DURATION * 1000));
            nextFrame();
        });
    }

    boost::shared_ptr<boost::asio::io_service> io;
    udp::socket socket;
    ReceivePath path;
    double idle;                        // s
    boost::asio::steady_timer frames;
    std::size_t received = 0;           // datagrams
    std::size_t otherAddress = 0;       // datagrams refused from another source address
    bool hasSource = false;
    udp::endpoint source;
    Clock::time_point lastFromSource;
    Clock::time_point lastArrival = Clock::now(), deadline = lastArrival;
    std::vector<char> buffer = std::vector<char>(65536);
};

} // namespace

int receive(const RtpOptions& options)
{
    auto io = boost::make_shared<boost::asio::io_service>();
    const auto launched = Clock::now();
    Reception reception(io, options);
    reception.start();
    boost::asio::steady_timer end(*io);
    if (options.seconds > 0) {
        end.expires_at(launched + std::chrono::microseconds(static_cast<long long>(options.seconds * 1e6)));
        end.async_wait([&](const boost::system::error_code& e) {
            if (!e)
                io->stop();
        });
    }
    boost::asio::signal_set interrupts(*io, SIGINT, SIGTERM);
    interrupts.async_wait([&](const boost::system::error_code& e, int) {
        if (!e)
            io->stop();
    });
    std::fprintf(stderr, "sonra-rtp: listening on %s UDP port %u\n", options.bind.c_str(), options.port);
    io->run();
    sonratool::writeWav(options.output, reception.path.playout.samples(), reception.path.rate);
    std::fprintf(stderr, "sonra-rtp: received %zu datagrams%s\n", reception.received,
                 reception.hasSource ? (" (locked onto " + describe(reception.source) + ")").c_str() : "");
    reception.path.report(stderr, reception.otherAddress);
    const std::string unmapped = reception.path.unmappedOnly();
    if (!unmapped.empty())
        throw std::runtime_error(unmapped);
    return 0;
}

} // namespace sonrartp
