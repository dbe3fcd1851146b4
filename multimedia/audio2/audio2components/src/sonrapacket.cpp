#include "sonrapacket.h"

#include "shared.h"

namespace ombrel {

SonraPacket::SonraPacket(boost::shared_ptr<std::vector<char> > data)
    : m_data(data), m_header(0), m_payload(0)
{
    // The buffer comes straight from the network: never point past it.
    if (m_data->size() >= HEADER_SIZE) {
        m_header = reinterpret_cast<SonraPacketHeader*>(m_data->data());
        m_payload = m_data->data() + HEADER_SIZE;
    }
}

SonraPacket::SonraPacket(boost::shared_ptr<std::vector<char> > data, unsigned seqNum, unsigned timeStamp)
    : m_data(data), m_header(0), m_payload(0)
{
    m_data->insert(m_data->begin(), HEADER_SIZE, 0);
    m_header = reinterpret_cast<SonraPacketHeader*>(m_data->data());
    m_payload = m_data->data() + HEADER_SIZE;
    m_header->seqNum = seqNum;
    m_header->timeStamp = timeStamp;
    m_header->format = 1;
    m_header->length = static_cast<uint16_t>(m_data->size());
}

bool SonraPacket::seqNumLeftLessRight(const unsigned& left, const unsigned& right)
{
    if (left > 256 && right < 256)
        return right < 128;
    return left < right;
}

} // namespace ombrel
