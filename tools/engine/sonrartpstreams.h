// The RTP streams of a capture: datagrams of one SSRC from one source
// address and port to one destination, taken for RTP only when they are
// version 2, not RTCP, and their sequence numbers advance, so that DNS or
// random UDP traffic makes no stream.
#ifndef SONRA_RTPSTREAMS_H
#define SONRA_RTPSTREAMS_H

#include "sonrartptool.h"

#include "sonrapcap.h"

#include <map>
#include <string>
#include <vector>

namespace sonrartp {

struct RtpStream {
    uint32_t ssrc = 0;
    boost::asio::ip::udp::endpoint from, to;
    std::vector<const sonratool::Datagram*> datagrams; // in capture order
    std::map<unsigned, std::size_t> payloadTypes;      // packets of each type
    std::map<unsigned, std::size_t> durations;         // ms -> audio packets that long
    std::size_t lost = 0;        // sequence numbers never seen, from the first to the last
    std::size_t advancing = 0;   // packets numbered 1 to 100 after the one before
    double audioSeconds = 0;     // s, the audio the packets carry
    unsigned mainPayloadType = 0; // the most frequent, comfort noise and events aside

    double seconds() const { return datagrams.back()->arrival - datagrams.front()->arrival; }
    Codec codec(const PayloadTypeMap& map) const;
};

// What an unmapped payload type of the stream most likely carries, for the
// refusal's advice: "opus" when its timestamps step by the Opus frames the
// packets hold, "telephone-event" for 4-byte events, else "CODEC".
std::string likelyCodec(const RtpStream& stream, unsigned payloadType);

// The plausible RTP streams among `datagrams`, in order of their first packet.
std::vector<RtpStream> findStreams(const std::vector<sonratool::Datagram>& datagrams, const PayloadTypeMap& map);

// The stream replay plays: the one with the SSRC asked for, else the one
// carrying the most audio. Throws a message naming what is missing: no
// plausible stream, or the payload type to map.
const RtpStream& pickStream(const std::vector<RtpStream>& streams, const RtpOptions& options);

std::string describe(const boost::asio::ip::udp::endpoint& endpoint);
// "8 (pcma) 13 (cn) 100 (not mapped)"
std::string payloadTypeList(const RtpStream& stream, const PayloadTypeMap& map);
// "10 ms (951), 20 ms (53)", or "?" when no audio type is mapped.
std::string durationList(const RtpStream& stream);

} // namespace sonrartp

#endif
