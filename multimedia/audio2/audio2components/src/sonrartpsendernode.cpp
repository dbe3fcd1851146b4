#include "sonrartpsendernode.h"

#include "shared.h"
#include "sonrartppacket.h"

#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace ombrel {

struct SonraRtpSenderNode_p {
    unsigned m_seqNum = 1;    // for the next packet; the header carries its low 16 bits
    unsigned m_timeStamp = 0; // samples at the node's rate; wraps modulo 2^32
    boost::function<void (boost::shared_ptr<std::vector<char> >)> m_sendHandler;
    unsigned m_ssrc = 0;
    unsigned m_payloadType = 0; // stored, not written
    bool m_writesPayloadType = false; // m_wirePayloadType goes on the wire instead of 8
    unsigned m_wirePayloadType = 8;
    unsigned m_clockRate = 0; // Hz of the RTP timestamp; 0: the graph's sample rate
};

namespace {

void putLittleEndian(unsigned char* at, uint32_t value)
{
    for (unsigned i = 0; i < 4; ++i)
        at[i] = static_cast<unsigned char>(value >> (8 * i));
}

uint32_t littleEndian(const unsigned char* at)
{
    return uint32_t(at[0]) | uint32_t(at[1]) << 8 | uint32_t(at[2]) << 16 | uint32_t(at[3]) << 24;
}

// RFC 3550 A.6: a digest of the time and two draws of the generator,
// folded to 32 bits.
unsigned randomSsrc()
{
    const uint32_t t = static_cast<uint32_t>(std::time(0));
    uint32_t r = static_cast<uint32_t>(std::rand()) << 16;
    r += static_cast<uint32_t>(std::rand());
    unsigned char block[8];
    putLittleEndian(block, t);
    putLittleEndian(block + 4, r);
    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, block, sizeof block);
    unsigned char digest[16];
    MD5Final(digest, &context);
    return littleEndian(digest) ^ littleEndian(digest + 4) ^ littleEndian(digest + 8);
}

} // namespace

SonraRtpSenderNode::SonraRtpSenderNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                       unsigned int frameDuration, unsigned int sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraRtpSenderNode_p)
{
    d->m_ssrc = randomSsrc();
    // After the draws: the next node built within this second draws the same.
    std::srand(static_cast<unsigned>(std::time(0)));
}

SonraRtpSenderNode::~SonraRtpSenderNode() = default;

void SonraRtpSenderNode::setPayloadType(unsigned int payloadType)
{
    d->m_payloadType = payloadType;
}

void SonraRtpSenderNode::setWirePayloadType(unsigned int payloadType)
{
    d->m_writesPayloadType = true;
    d->m_wirePayloadType = payloadType & 0x7f;
}

void SonraRtpSenderNode::setClockRate(unsigned int clockRate)
{
    d->m_clockRate = clockRate;
}

void SonraRtpSenderNode::setSendHandler(boost::function<void (boost::shared_ptr<std::vector<char> >)> handler)
{
    d->m_sendHandler = handler;
}

void SonraRtpSenderNode::clearSendHandler()
{
    d->m_sendHandler.clear();
}

void SonraRtpSenderNode::timerTick()
{
    const unsigned clockRate = d->m_clockRate ? d->m_clockRate : sampleRate(); // Hz
    d->m_timeStamp += clockRate * frameDuration() / 1000;
}

void SonraRtpSenderNode::reset(unsigned int offset)
{
    d->m_timeStamp += offset;
}

boost::shared_ptr<std::vector<char> > SonraRtpSenderNode::doProcess()
{
    const boost::shared_ptr<std::vector<char> > input = getInputData();
    if (!input || input->empty())
        return boost::shared_ptr<std::vector<char> >();
    {
        SonraRtpPacket packet(input, d->m_seqNum, d->m_timeStamp, d->m_ssrc,
                              static_cast<int>(d->m_payloadType));
        if (d->m_writesPayloadType)
            packet.setPayloadType(d->m_wirePayloadType);
        if (d->m_sendHandler)
            d->m_sendHandler(packet.m_data);
    }
    // Only after the handler returned: a handler that throws does not
    // consume the number.
    ++d->m_seqNum;
    return boost::shared_ptr<std::vector<char> >();
}

} // namespace ombrel
