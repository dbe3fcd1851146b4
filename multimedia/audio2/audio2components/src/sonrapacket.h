#ifndef OMBREL_SONRAPACKET_H
#define OMBREL_SONRAPACKET_H

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ombrel {

// The 12-byte header of the own packet format. Every field is little-endian
// on the wire and is read and written in host order, so the host must be
// little-endian too (checked below).
struct SonraPacketHeader {
    uint8_t format;     // always 1 when built here; not checked on receipt
    uint8_t reserved;   // always 0 when built here; not checked on receipt
    uint16_t length;    // bytes of the whole packet, header included, modulo 65536
    uint32_t seqNum;    // sequence number
    uint32_t timeStamp; // stream time, ms
};

static_assert(sizeof(SonraPacketHeader) == 12, "the header has no padding");
static_assert(offsetof(SonraPacketHeader, length) == 2 && offsetof(SonraPacketHeader, seqNum) == 4 &&
                  offsetof(SonraPacketHeader, timeStamp) == 8,
              "header fields sit at their wire offsets");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the header is written in host order");

// A view over a frame buffer holding one packet: header, then payload (one
// encoded frame). The views stay valid while nobody resizes m_data.
class SonraPacket {
public:
    static const unsigned HEADER_SIZE = 12; // bytes

    // Parses `data` in place, without copying. The caller checks that it
    // holds at least HEADER_SIZE bytes; for a shorter buffer both views are
    // null rather than pointing past its end.
    explicit SonraPacket(boost::shared_ptr<std::vector<char> > data);
    // Turns `data`, an encoded frame, into a packet in place: the header is
    // inserted in front of the payload, so every holder of the buffer sees
    // the packet afterwards.
    SonraPacket(boost::shared_ptr<std::vector<char> > data, unsigned seqNum, unsigned timeStamp);

    // Whether `left` comes before `right`, where a small `right` (below 128)
    // after a `left` above 256 counts as a counter that wrapped.
    static bool seqNumLeftLessRight(const unsigned& left, const unsigned& right);

    boost::shared_ptr<std::vector<char> > m_data; // the whole packet
    SonraPacketHeader* m_header;  // the header, at the start of m_data
    char* m_payload;              // the payload, right after the header
};

} // namespace ombrel

#endif
