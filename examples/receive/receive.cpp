// A send path and a receive path in one program, joined by a UDP socket on
// 127.0.0.1: a tone goes through the Opus encoder and the sender, whose send
// handler writes each packet to the socket; the socket's reader hands each
// datagram to the receiver, and the receiver, Opus decoder and mixer play
// it out. The pipe runs on its own timer for one second.
#include <sonradevnode.h>
#include <sonramixernode.h>
#include <sonraopusdecnode.h>
#include <sonraopusencnode.h>
#include <sonrareceivernode.h>
#include <sonrasendernode.h>

#include <boost/asio.hpp>
#include <boost/make_shared.hpp>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>

using namespace ombrel;
using boost::asio::ip::udp;
typedef boost::shared_ptr<std::vector<char> > Frame;

int main()
{
    const unsigned frameMs = 20, rate = 16000;
    auto io = boost::make_shared<boost::asio::io_service>();
    auto pipe = boost::make_shared<SonraPipe>(frameMs);

    // Send path: a 440 Hz tone, Opus, the sender writing to our socket.
    unsigned phase = 0;
    auto tone = boost::make_shared<SonraDevNode>([&phase] {
        auto frame = boost::make_shared<std::vector<char> >(640);
        int16_t* samples = reinterpret_cast<int16_t*>(frame->data());
        for (unsigned i = 0; i < 320; ++i, ++phase)
            samples[i] = int16_t(8000 * std::sin(2 * M_PI * 440 * phase / 16000));
        return frame;
    }, io, frameMs, rate);
    auto encoder = boost::make_shared<SonraOpusEncNode>(io, frameMs, rate);
    auto sender = boost::make_shared<SonraSenderNode>(io, frameMs, rate);
    udp::socket socket(*io, udp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
    const udp::endpoint peer = socket.local_endpoint(); // we call ourselves
    sender->setSendHandler([&](Frame packet) { socket.send_to(boost::asio::buffer(*packet), peer); });
    pipe->connect(tone, encoder);
    pipe->connect(encoder, sender);

    // Receive path: every datagram goes to the receiver, on the pipe's thread.
    auto receiver = boost::make_shared<SonraReceiverNode>(io, frameMs, rate);
    auto decoder = boost::make_shared<SonraOpusDecNode>(io, frameMs, rate);
    auto mixer = boost::make_shared<SonraMixerNode>(io, frameMs, rate);
    pipe->connect(receiver, decoder);
    pipe->connect(decoder, mixer);
    std::vector<char> datagram(1500);
    std::function<void()> readNext = [&] {
        socket.async_receive(boost::asio::buffer(datagram), [&](boost::system::error_code error, std::size_t n) {
            if (error)
                return;
            receiver->dataReceived(boost::make_shared<std::vector<char> >(datagram.begin(), datagram.begin() + n));
            readNext();
        });
    };
    readNext();

    // The pipe on its own timer, for one second.
    boost::asio::steady_timer end(*io, std::chrono::seconds(1));
    end.async_wait([&](boost::system::error_code) {
        pipe->stop();
        socket.close();
    });
    pipe->start(io);
    io->run();

    const SonraJbufStatistics stats = receiver->statistics();
    std::printf("received %llu packets, played %llu\n", (unsigned long long)stats.framesPut,
                (unsigned long long)stats.framesPlayed);
    pipe->clear(); // the receiver holds the pipe as its clock
    return stats.framesPlayed > 0 ? 0 : 1;
}
