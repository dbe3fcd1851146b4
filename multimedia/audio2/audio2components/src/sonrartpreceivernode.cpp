#include "sonrartpreceivernode.h"

#include "sonrartppacket.h"

#include <boost/make_shared.hpp>
#include <speex/speex_jitter.h>

#include <cstring>

namespace ombrel {

struct SonraRtpReceiverNode_p {
    static const unsigned m_inDataSize = SonraRtpReceiverNode::MAX_PAYLOAD_SIZE; // bytes

    JitterBuffer* m_jitterBuffer = 0; // owned
    char m_inData[m_inDataSize] = {}; // receive area of jitter_buffer_get
    unsigned m_payloadType = 8;
};

namespace {

const unsigned STEP_FRAMES = 5; // the jitter buffer's step, in frame spans

} // namespace

SonraRtpReceiverNode::SonraRtpReceiverNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                           unsigned int frameDuration, unsigned int sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraRtpReceiverNode_p)
{
    const unsigned frameSpan = sampleRate * frameDuration / 1000; // samples
    d->m_jitterBuffer = jitter_buffer_init(static_cast<int>(STEP_FRAMES * frameSpan));
    d->m_payloadType = 8;
}

SonraRtpReceiverNode::~SonraRtpReceiverNode()
{
    jitter_buffer_destroy(d->m_jitterBuffer);
}

void SonraRtpReceiverNode::setPayloadType(unsigned int payloadType)
{
    d->m_payloadType = payloadType;
}

void SonraRtpReceiverNode::setLossConcealment(bool on)
{
    const unsigned frameSpan = sampleRate() * frameDuration() / 1000; // samples
    // Off restores the library's own choice, its step size.
    spx_int32_t size = static_cast<spx_int32_t>(on ? frameSpan : STEP_FRAMES * frameSpan);
    jitter_buffer_ctl(d->m_jitterBuffer, JITTER_BUFFER_SET_CONCEALMENT_SIZE, &size);
}

void SonraRtpReceiverNode::dataReceived(boost::shared_ptr<std::vector<char> > data)
{
    if (!data || data->size() < SonraRtpPacket::HEADER_SIZE)
        return;
    const SonraRtpPacket packet(data);
    if (packet.payloadType() != d->m_payloadType)
        return;
    const std::size_t length = data->size() - SonraRtpPacket::HEADER_SIZE; // bytes
    if (length > SonraRtpReceiverNode_p::m_inDataSize)
        return;
    JitterBufferPacket jitterPacket = JitterBufferPacket();
    jitterPacket.data = packet.m_payload;
    jitterPacket.len = static_cast<spx_uint32_t>(length);
    jitterPacket.timestamp = packet.timeStamp();
    jitterPacket.span = sampleRate() * frameDuration() / 1000;
    jitterPacket.sequence = static_cast<spx_uint16_t>(packet.seqNum());
    jitter_buffer_put(d->m_jitterBuffer, &jitterPacket);
}

void SonraRtpReceiverNode::reset(unsigned int /*offset*/)
{
    jitter_buffer_reset(d->m_jitterBuffer);
}

boost::shared_ptr<std::vector<char> > SonraRtpReceiverNode::doProcess()
{
    boost::shared_ptr<std::vector<char> > output;
    jitter_buffer_get_pointer_timestamp(d->m_jitterBuffer);
    JitterBufferPacket packet = JitterBufferPacket();
    packet.data = d->m_inData;
    packet.len = SonraRtpReceiverNode_p::m_inDataSize;
    spx_int32_t startOffset = 0;
    const spx_int32_t frameSpan = static_cast<spx_int32_t>(sampleRate() * frameDuration() / 1000);
    if (jitter_buffer_get(d->m_jitterBuffer, &packet, frameSpan, &startOffset) == JITTER_BUFFER_OK)
        output = boost::make_shared<std::vector<char> >(d->m_inData, d->m_inData + packet.len);
    jitter_buffer_tick(d->m_jitterBuffer);
    return output;
}

} // namespace ombrel
