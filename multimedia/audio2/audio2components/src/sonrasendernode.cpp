#include "sonrasendernode.h"

#include "sonrapacket.h"

namespace ombrel {

struct SonraSenderNode_p {
    unsigned m_seqNum = 1;    // for the next packet; wraps modulo 2^32
    unsigned m_timeStamp = 0; // ms of stream time; wraps modulo 2^32
    boost::function<void (boost::shared_ptr<std::vector<char> >)> m_sendHandler;
};

SonraSenderNode::SonraSenderNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                 unsigned int frameDuration, unsigned int sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraSenderNode_p)
{
}

SonraSenderNode::~SonraSenderNode() = default;

void SonraSenderNode::setSendHandler(boost::function<void (boost::shared_ptr<std::vector<char> >)> handler)
{
    d->m_sendHandler = handler;
}

void SonraSenderNode::clearSendHandler()
{
    d->m_sendHandler.clear();
}

void SonraSenderNode::timerTick()
{
    d->m_timeStamp += frameDuration();
}

void SonraSenderNode::reset(unsigned int ms)
{
    d->m_timeStamp += ms;
}

boost::shared_ptr<std::vector<char> > SonraSenderNode::doProcess()
{
    const boost::shared_ptr<std::vector<char> > input = getInputData();
    if (!input || input->empty())
        return boost::shared_ptr<std::vector<char> >();
    {
        const SonraPacket packet(input, d->m_seqNum, d->m_timeStamp);
        if (d->m_sendHandler)
            d->m_sendHandler(packet.m_data);
    }
    // Only after the handler returned: a handler that throws does not
    // consume the number.
    ++d->m_seqNum;
    return boost::shared_ptr<std::vector<char> >();
}

} // namespace ombrel
