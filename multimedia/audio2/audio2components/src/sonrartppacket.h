#ifndef OMBREL_SONRARTPPACKET_H
#define OMBREL_SONRARTPPACKET_H

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ombrel {

// A view over a frame buffer holding one RTP packet: the 12-byte fixed
// header of RFC 3550 (big-endian), then the payload (one encoded frame).
// Only the fixed header is understood: a CSRC list, a header extension or
// padding count as payload. The views stay valid while nobody resizes m_data.
class SonraRtpPacket {
public:
    static const unsigned HEADER_SIZE = 12;  // bytes
    static const unsigned PAYLOAD_TYPE = 8;  // G.711 A-law, the only type written

    // Parses `data` in place, without copying. The caller checks that it
    // holds at least HEADER_SIZE bytes; for a shorter buffer both views are
    // null rather than pointing past its end.
    explicit SonraRtpPacket(boost::shared_ptr<std::vector<char> > data);
    // Turns `data`, an encoded frame, into a packet in place: version 2,
    // payload type 8 whatever the last argument says, the low 16 bits of
    // `seqNum`. Every holder of the buffer sees the packet afterwards.
    SonraRtpPacket(boost::shared_ptr<std::vector<char> > data, unsigned int seqNum, unsigned int timeStamp,
                   unsigned int ssrc, int);

    // The RTP timestamp, in samples.
    unsigned int timeStamp() const;
    unsigned int seqNum() const; // 0 to 65535
    // The synchronisation source.
    unsigned int ssrc() const;
    unsigned int payloadType() const; // low 7 bits of byte 1
    // The marker bit (byte 1, top bit): a talkspurt or an event begins.
    bool marker() const;
    // Overwrites the payload type (byte 1, low 7 bits); the marker bit stays.
    void setPayloadType(unsigned int payloadType);

    // Read as RFC 3550 lays the header out, for receivers that honour it:
    // version 2, and the CSRC list, the header extension and the padding
    // all inside the buffer. The payload then lies between the two offsets.
    bool isWellFormed() const;
    std::size_t payloadBegin() const; // bytes from the start of m_data
    std::size_t payloadEnd() const;   // bytes from the start of m_data, the padding excluded

    boost::shared_ptr<std::vector<char> > m_data; // the whole packet
    uint8_t* m_header;            // the header, at the start of m_data
    char* m_payload;              // the payload, right after the header
};

} // namespace ombrel

#endif
