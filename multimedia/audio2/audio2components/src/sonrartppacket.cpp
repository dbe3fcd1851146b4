#include "sonrartppacket.h"

namespace ombrel {

namespace {

const uint8_t VERSION_2 = 0x80; // version in the top two bits; P, X and CC all 0

void putBigEndian(uint8_t* at, unsigned value, unsigned bytes)
{
    for (unsigned i = 0; i < bytes; ++i)
        at[i] = static_cast<uint8_t>(value >> (8 * (bytes - 1 - i)));
}

unsigned bigEndian(const uint8_t* at, unsigned bytes)
{
    unsigned value = 0;
    for (unsigned i = 0; i < bytes; ++i)
        value = (value << 8) | at[i];
    return value;
}

} // namespace

SonraRtpPacket::SonraRtpPacket(boost::shared_ptr<std::vector<char> > data)
    : m_data(data), m_header(0), m_payload(0)
{
    // The buffer comes straight from the network: never point past it.
    if (m_data->size() >= HEADER_SIZE) {
        m_header = reinterpret_cast<uint8_t*>(m_data->data());
        m_payload = m_data->data() + HEADER_SIZE;
    }
}

SonraRtpPacket::SonraRtpPacket(boost::shared_ptr<std::vector<char> > data, unsigned int seqNum,
                               unsigned int timeStamp, unsigned int ssrc, int)
    : m_data(data), m_header(0), m_payload(0)
{
    m_data->insert(m_data->begin(), HEADER_SIZE, 0);
    m_header = reinterpret_cast<uint8_t*>(m_data->data());
    m_payload = m_data->data() + HEADER_SIZE;
    m_header[0] = VERSION_2;
    putBigEndian(m_header + 2, seqNum & 0xffff, 2);
    putBigEndian(m_header + 4, timeStamp, 4);
    putBigEndian(m_header + 8, ssrc, 4);
    m_header[1] = PAYLOAD_TYPE; // marker bit 0
}

unsigned int SonraRtpPacket::timeStamp() const
{
    return bigEndian(m_header + 4, 4);
}

unsigned int SonraRtpPacket::seqNum() const
{
    return bigEndian(m_header + 2, 2);
}

unsigned int SonraRtpPacket::ssrc() const
{
    return bigEndian(m_header + 8, 4);
}

unsigned int SonraRtpPacket::payloadType() const
{
    return m_header[1] & 0x7f;
}

} // namespace ombrel
