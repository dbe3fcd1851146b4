// sonra-rtp call: one full-duplex endpoint of a voice call over RTP/UDP in
// real time. The microphone (a sound card or a virtual device) goes through
// noise suppression, volume and the encoder to the RTP sender and on to the
// far end; what the far end sends comes in on the same UDP port, through
// the decoding RTP receiver (locked onto one source), the mixer and the
// playback device. Two of them talk to each other, or one talks to any RTP
// endpoint that sends to it.
#ifndef SONRA_RTPCALL_H
#define SONRA_RTPCALL_H

#include <cstdint>
#include <string>

namespace sonrartp {

extern const char* const CALL_USAGE;

enum class CallCodec { Pcma, Pcmu, Opus };

struct CallOptions {
    bool help = false;
    std::string to, bind = "0.0.0.0";
    std::string capture, playback; // device names; empty: the sound card's default
    unsigned port = 0;
    CallCodec codec = CallCodec::Opus;
    unsigned opusPayloadType = 96; // the dynamic type both ends agree on for Opus
    double seconds = 0;            // s; 0: until interrupted
};

// The arguments after "call"; throws sonratool::UsageError.
CallOptions parseCallOptions(int argc, char** argv);

// Graph rate, Hz: 8000 for G.711 (the only rate it takes), 48000 for Opus.
unsigned callRate(CallCodec codec);

// Runs the call until --seconds have passed or the process is interrupted;
// prints what was sent and received; returns the exit code.
int call(const CallOptions& options);

} // namespace sonrartp

#endif
