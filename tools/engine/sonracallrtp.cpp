// The call over RTP: the send half after the microphone's volume, one
// decoding receiver per peer, and the network model between the sender's
// handler and the sockets.
#include "sonracall.h"

#include "sonrag711encnode.h"
#include "sonraopusencnode.h"
#include "sonraresamplernode.h"

#include <poll.h>

namespace sonracall {

namespace {

const unsigned OPUS_CLOCK = 48000; // Hz, Opus's RTP clock whatever it was coded at

bool isOpus(const CallConfig& config) { return config.rtpCodec == RtpCodec::Opus; }

} // namespace

// Opus at the call's rate, or G.711 at its own; stamped on the codec's RTP clock.
void Call::buildRtpSendHalf(Party& party, boost::shared_ptr<SonraNode> last)
{
    auto chain = [&](const boost::shared_ptr<SonraNode>& node) {
        party.pipe->connect(last, node);
        last = node;
    };
    if (isOpus(m_config)) {
        auto encoder = boost::make_shared<SonraOpusEncNode>(party.io, FRAME_MS, RATE);
        if (m_config.net.fecLoss > 0)
            encoder->setInbandFec(m_config.net.fecLoss);
        chain(encoder);
        party.rtpSender = boost::make_shared<SonraRtpSenderNode>(party.io, FRAME_MS, RATE);
        party.rtpSender->setWirePayloadType(OPUS_PAYLOAD_TYPE);
        party.rtpSender->setClockRate(OPUS_CLOCK);
    } else {
        const bool ulaw = m_config.rtpCodec == RtpCodec::Pcmu;
        chain(boost::make_shared<SonraResamplerNode>(party.io, RATE, G711_RATE, FRAME_MS));
        auto encoder = boost::make_shared<SonraG711EncNode>(party.io, FRAME_MS, G711_RATE);
        encoder->setMode(ulaw ? SonraG711EncNode::MODE_ULAW : SonraG711EncNode::MODE_ALAW);
        chain(encoder);
        party.rtpSender = boost::make_shared<SonraRtpSenderNode>(party.io, FRAME_MS, G711_RATE);
        party.rtpSender->setWirePayloadType(ulaw ? 0 : 8);
    }
    chain(party.rtpSender);
    party.socket.reset(new boost::asio::ip::udp::socket(*m_io, boost::asio::ip::udp::v4()));
}

// The receiver decodes at the call's rate (Opus) or at G.711's, then back
// to the call's rate; its socket is on 127.0.0.1.
void Call::addRtpLeg(Leg& leg, Party& receiving)
{
    const unsigned rate = isOpus(m_config) ? RATE : G711_RATE;
    leg.rtpReceiver = boost::make_shared<SonraRtpReceiverNode>(receiving.io, FRAME_MS, rate);
    leg.rtpReceiver->setDecodedOutput(true);
    leg.rtpReceiver->mapPayloadType(OPUS_PAYLOAD_TYPE, SonraRtpReceiverNode::CODEC_OPUS);
    leg.output = leg.rtpReceiver;
    if (!isOpus(m_config)) {
        leg.output = boost::make_shared<SonraResamplerNode>(receiving.io, G711_RATE, RATE, FRAME_MS);
        receiving.pipe->connect(leg.rtpReceiver, leg.output);
    }
    leg.socket.reset(new boost::asio::ip::udp::socket(
        *m_io, boost::asio::ip::udp::endpoint(boost::asio::ip::address_v4::loopback(), 0)));
}

// The datagrams due cross the sockets now; each is waited for, so that the
// call stays the same for the same seed however busy the host is.
void Call::receiveRtp(Leg& leg, unsigned now)
{
    const int LONGEST_WAIT = 1000; // ms for one loopback datagram: more is a datagram the host dropped
    boost::asio::ip::udp::socket& from = *m_parties[leg.from]->socket;
    const unsigned due = leg.link.deliverDue(now, [&](const Frame& datagram) {
        from.send_to(boost::asio::buffer(*datagram), leg.socket->local_endpoint());
    });
    pollfd readable = {leg.socket->native_handle(), POLLIN, 0};
    for (unsigned k = 0; k < due && ::poll(&readable, 1, LONGEST_WAIT) == 1; ++k) {
        auto datagram = boost::make_shared<std::vector<char> >(leg.socket->available());
        datagram->resize(leg.socket->receive(boost::asio::buffer(*datagram)));
        leg.rtpReceiver->dataReceived(datagram);
        ++leg.rtpReceived;
    }
}

} // namespace sonracall
