#include "sonrartppacket.h"

#include <algorithm>

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

bool SonraRtpPacket::marker() const
{
    return (m_header[1] & 0x80) != 0;
}

void SonraRtpPacket::setPayloadType(unsigned int payloadType)
{
    m_header[1] = static_cast<uint8_t>((m_header[1] & 0x80) | (payloadType & 0x7f));
}

std::size_t SonraRtpPacket::payloadBegin() const
{
    std::size_t begin = HEADER_SIZE + 4 * (m_header[0] & 0x0f); // the CSRC list
    const bool extension = (m_header[0] & 0x10) != 0;
    if (!extension)
        return begin;
    if (begin + 4 > m_data->size())
        return m_data->size() + 1; // its head is cut: nothing fits
    return begin + 4 + 4 * bigEndian(m_header + begin + 2, 2); // extension words after its 4-byte head
}

std::size_t SonraRtpPacket::payloadEnd() const
{
    const bool padding = (m_header[0] & 0x20) != 0;
    const std::size_t size = m_data->size();
    // The last byte counts the padding, itself included.
    return padding && size > 0 ? size - std::min<std::size_t>(size, static_cast<uint8_t>(m_data->back())) : size;
}

bool SonraRtpPacket::isWellFormed() const
{
    if (!m_header || (m_header[0] >> 6) != 2)
        return false;
    const bool padding = (m_header[0] & 0x20) != 0;
    if (padding && static_cast<uint8_t>(m_data->back()) == 0)
        return false;
    return payloadBegin() <= payloadEnd();
}

} // namespace ombrel
