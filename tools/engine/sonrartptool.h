// sonra-rtp's engine: G.711 A-law over RTP/UDP with real peers. Sends a
// sound file in real time (recording what it sends as a capture),
// receives a stream into a WAV file, or replays a capture's stream
// through the receiver on a simulated clock.
#ifndef SONRA_RTPTOOL_H
#define SONRA_RTPTOOL_H

#include <cstdint>
#include <string>

namespace sonrartp {

struct RtpOptions {
    bool help = false;
    std::string command, input, output, to, pcap, bind = "0.0.0.0";
    unsigned port = 0;
    double seconds = 0, idle = 1; // s; 0 seconds: no limit
    bool hasSsrc = false;
    uint32_t ssrc = 0;
};

// The command line; throws sonratool::UsageError.
RtpOptions parseRtpOptions(int argc, char** argv);

// Each returns the tool's exit code; they throw for what they cannot do.
int send(const RtpOptions& options);
int receive(const RtpOptions& options);
int replay(const RtpOptions& options);

} // namespace sonrartp

#endif
