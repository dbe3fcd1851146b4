// sonra-rtp's engine: G.711 (A-law, mu-law) and Opus over RTP/UDP with real
// peers. Sends a sound file in real time (recording what it sends as a
// capture), receives a stream into a WAV file, lists the RTP streams of a
// capture, or replays one through the receiver on a simulated clock.
#ifndef SONRA_RTPTOOL_H
#define SONRA_RTPTOOL_H

#include "sonrartpreceivernode.h"

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

// Each returns the tool's exit code; they throw for what they cannot do.
int send(const RtpOptions& options);
int receive(const RtpOptions& options);
int replay(const RtpOptions& options);
int listStreams(const RtpOptions& options);

} // namespace sonrartp

#endif
