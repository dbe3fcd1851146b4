#include "sonrareceivernode.h"

#include "sonrapacket.h"

#include <boost/bind/bind.hpp>
#include <boost/make_shared.hpp>

#include <cstring>

namespace ombrel {

struct SonraReceiverNode_p {
    // The jitter buffer starts with a 60 ms period; the constructor sets the
    // real one (the graph frame) through setPacketDuration() right away.
    static const unsigned INITIAL_JBUF_PERIOD = 60; // ms

    SonraReceiverNode_p()
        : m_packetDuration(0), m_framePhase(0), m_framesPerPacket(0), m_jbuf(INITIAL_JBUF_PERIOD), m_gotFrame(false)
    {
    }

    unsigned m_packetDuration;  // ms of audio per packet; the jitter buffer's period
    unsigned m_framePhase;      // graph frames into the current packet period
    unsigned m_framesPerPacket; // graph frames per packet period
    SonraJbuf m_jbuf;
    bool m_gotFrame; // the last doProcess asked the jitter buffer for a frame
};

namespace {
const SonraJbufStretchRequest NO_STRETCH;
}

SonraReceiverNode::SonraReceiverNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                     unsigned int frameDuration, unsigned int sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraReceiverNode_p)
{
    setPacketDuration(frameDuration);
}

SonraReceiverNode::~SonraReceiverNode() = default;

void SonraReceiverNode::setPacketDuration(unsigned int packetDuration)
{
    d->m_packetDuration = packetDuration;
    d->m_jbuf.setFrameDuration(packetDuration);
    d->m_framePhase = 0;
    d->m_framesPerPacket = packetDuration / frameDuration();
}

void SonraReceiverNode::setDelays(unsigned int initialDelay, unsigned int minDelay, unsigned int maxDelay,
                                  unsigned int extraJitterDelay)
{
    d->m_jbuf.setDelays(initialDelay, minDelay, maxDelay, extraJitterDelay);
}

void SonraReceiverNode::setRecovery(bool enabled)
{
    d->m_jbuf.setRecovery(enabled);
}

void SonraReceiverNode::setPlayoutPolicy(SonraJbuf::PlayoutPolicy policy)
{
    d->m_jbuf.setPlayoutPolicy(policy);
}

void SonraReceiverNode::setTimeStretching(bool enabled)
{
    d->m_jbuf.setTimeStretching(enabled);
}

const SonraJbufStretchRequest& SonraReceiverNode::stretchRequest() const
{
    return d->m_gotFrame ? d->m_jbuf.stretchRequest() : NO_STRETCH;
}

void SonraReceiverNode::dataReceived(boost::shared_ptr<std::vector<char> > data)
{
    if (!data || data->size() < SonraPacket::HEADER_SIZE)
        return;
    const SonraPacket packet(data);
    const boost::shared_ptr<std::vector<char> > payload =
        boost::make_shared<std::vector<char> >(data->size() - SonraPacket::HEADER_SIZE);
    if (!payload->empty())
        std::memcpy(payload->data(), packet.m_payload, payload->size());
    d->m_jbuf.putFrame(payload, packet.m_header->seqNum, packet.m_header->timeStamp);
}

SonraJbufStatistics SonraReceiverNode::statistics() const
{
    return d->m_jbuf.statistics();
}

void SonraReceiverNode::reset(unsigned int /*offset*/)
{
    d->m_framePhase = 0;
}

boost::shared_ptr<std::vector<char> > SonraReceiverNode::doProcess()
{
    boost::shared_ptr<std::vector<char> > output;
    d->m_gotFrame = d->m_framePhase == 0;
    if (d->m_gotFrame)
        d->m_jbuf.getFrame(output, 0, 0);
    ++d->m_framePhase;
    if (d->m_framePhase >= d->m_framesPerPacket)
        d->m_framePhase = 0;
    return output;
}

void SonraReceiverNode::doSetAudioPipe(boost::shared_ptr<SonraPipe> pipe)
{
    if (pipe)
        d->m_jbuf.setTimeHandler(boost::bind(&SonraPipe::elapsedTime, pipe));
    else
        d->m_jbuf.setTimeHandler(boost::function<unsigned int ()>());
}

} // namespace ombrel
