// sonra-rtp's engine: G.711 (A-law, mu-law) and Opus over RTP/UDP with real
// peers. Sends a sound file in real time (recording what it sends as a
// capture), receives a stream into a WAV file, lists the RTP streams of a
// capture, or replays one through the receiver on a simulated clock.
#ifndef SONRA_RTPTOOL_H
#define SONRA_RTPTOOL_H

#include "sonrartpreceivernode.h"

#include <boost/asio/ip/udp.hpp>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace sonrartp {

typedef ombrel::SonraRtpReceiverNode::Codec Codec;
// "--payload-type PT=CODEC", in the order given.
typedef std::vector<std::pair<unsigned, Codec> > PayloadTypeMap;

struct RtpOptions {
    bool help = false;
    std::string command, input, output, to, pcap, bind = "0.0.0.0";
    unsigned port = 0;
    double seconds = 0, idle = 1; // s; 0 seconds: no limit
    bool hasSsrc = false;
    uint32_t ssrc = 0;
    PayloadTypeMap payloadTypes;
    Codec codec = ombrel::SonraRtpReceiverNode::CODEC_PCMA; // send
    unsigned ptime = 20;                                     // ms per packet, send
};

// The command line; throws sonratool::UsageError.
RtpOptions parseRtpOptions(int argc, char** argv);

// "pcma", "opus", ... for messages.
std::string codecName(Codec codec);
// The codec of a name in `option`'s value: pcma, pcmu, opus, and unless
// `audioOnly` cn and telephone-event; throws sonratool::UsageError.
Codec codecNamed(const std::string& option, const std::string& name, bool audioOnly);
// "PT=CODEC" of --payload-type; throws sonratool::UsageError.
std::pair<unsigned, Codec> payloadTypeMapping(const std::string& option, const std::string& value);

// HOST:PORT ([ADDRESS]:PORT for IPv6) of --to, resolved.
boost::asio::ip::udp::endpoint resolveHostPort(boost::asio::io_service& io, const std::string& hostPort);

// Each returns the tool's exit code; they throw for what they cannot do.
int send(const RtpOptions& options);
int receive(const RtpOptions& options);
int replay(const RtpOptions& options);
int listStreams(const RtpOptions& options);

} // namespace sonrartp

#endif
