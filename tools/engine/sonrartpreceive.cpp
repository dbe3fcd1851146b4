#include "sonrartppath.h"
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
    if (error)
        throw std::runtime_error("cannot listen on UDP port " + std::to_string(options.port) + " of " +
                                 options.bind + ": " + error.message());
}

// A stream received in real time: graph frames on a timer from the first
// arrival on, until the stream has been idle long enough.
struct Reception {
    Reception(const boost::shared_ptr<boost::asio::io_service>& io, const RtpOptions& options)
        : io(io), socket(*io), path(io), idle(options.idle), frames(*io)
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
            path.receiver->dataReceived(boost::make_shared<std::vector<char> >(buffer.begin(), buffer.begin() + size));
        }
    }

    void nextFrame()
    {
        frames.expires_at(deadline);
        frames.async_wait([this](const boost::system::error_code& e) {
            if (e)
                return;
            drain();
            path.pipe->processFrame();
            if (Clock::now() - lastArrival >= std::chrono::duration<double>(idle))
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
    sonratool::writeWav(options.output, reception.path.playout.samples(), RATE);
    std::fprintf(stderr, "sonra-rtp: received %zu datagrams, played %zu frames (%zu silent between them)\n",
                 reception.received, reception.path.playout.played(), reception.path.playout.silentFrames());
    return 0;
}

} // namespace sonrartp
