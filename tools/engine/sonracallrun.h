// A whole call as sonra-call runs it, from its options to its records:
// the parties' speech (made by espeak-ng when none is given), the call in
// lockstep or in real time, what every party heard as WAV files, the
// recording of party 1's side, and the report's data. The records are what
// the summary prints and what the tests check.
#ifndef SONRA_CALLRUN_H
#define SONRA_CALLRUN_H

#include "sonranetsim.h"

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace sonracall {

struct CallOptions {
    bool help = false;
    unsigned parties = 2;
    std::vector<std::string> inputs;
    double seconds = 0; // s of talk; 0: the longest input
    std::string hold;
    std::string scenarioFile;
    std::string outDir = "sonra-call-out";
    bool report = true;
    bool quiet = false;
    bool realTime = false;
    bool rtp = false;
    std::string rtpCodec;          // with rtp: opus (when empty), pcma or pcmu
    bool aec = true;               // the echo canceller of parties on --echo
    bool aecGiven = false;
    std::string capture, playback; // party 1's devices in real time; empty: a sound card when there is one
    sonranetsim::Config net;       // every leg's network and jitter buffer
    std::vector<std::pair<std::string, std::string> > effects; // option, value: checked once parties are known (--echo too)
};

// The command line; throws sonratool::UsageError.
CallOptions parseCallOptions(int argc, char** argv);

struct PartyConfig;
// --voice, --reverb, --haas and --echo onto the parties they name.
void applyEffects(const CallOptions& options, std::vector<PartyConfig>& parties);

// What one party heard from one peer.
struct LegRecord {
    unsigned from = 0;            // party index
    bool rtp = false;             // then the counts are the RTP receiver's, with no delays or SNR
    unsigned rtpSent = 0, rtpReceived = 0; // datagrams
    uint64_t concealedMs = 0;     // RTP: audio made up for lost packets
    unsigned sent = 0, lost = 0, played = 0; // packets
    uint64_t late = 0;            // frames refused as too old
    uint64_t stretched = 0;       // frames the playout's moves played time-stretched (expanded or accelerated)
    double meanResidenceMs = 0, p95ResidenceMs = 0; // of the frames played
    double snrDb = 0;             // heard against said, frames aligned; infinite when exact
    unsigned rebuilt = 0;         // packets FEC rebuilt from their successors
    unsigned concealed = 0;       // graph frames the decoder concealed
    double lossPercent = 0;       // packets neither played nor rebuilt, of those sent
    double burstRatio = 1;        // of those packets, by sequence number
    double mouthToEarMs = 0;      // network, jitter buffer, codec frame (and the FEC wait)
    double r = 0, mos = 1;        // the E-model's rating of what was heard
};

// What a party on loudspeakers (--echo) sent back of what it heard,
// measured while it was silent itself (far-end single talk).
struct EchoRecord {
    bool loudspeakers = false;    // the party sat in a simulated room; nothing below is set otherwise
    unsigned delayMs = 0;         // ms of the room's direct path
    double gainDb = 0;            // dB of the room's direct path
    std::string engine;           // the canceller that ran ("webrtc", "speex"); empty with --aec off
    unsigned singleTalkMs = 0;    // ms measured: the far end's echo came back while the party was silent
    double erleDb = 0;            // echo return loss enhancement from convergence to the end
    int convergenceMs = -1;       // ms until the enhancement first reached 20 dB; -1: never
    double farEndBelowSpeechDb = 0; // dB by which what the far end heard of its own voice stayed below it
};

struct PartyRecord {
    std::string said, heard;      // the input file; the heard WAV file (or "the sound card")
    std::vector<LegRecord> legs;  // by peer, in party order
    EchoRecord echo;
    unsigned limitedFrames = 0;   // graph frames in which the mixer's limiter cut
    std::size_t frames = 0;       // graph frames of the call
};

struct CallRecord {
    std::vector<PartyRecord> parties;
    std::string reportData;       // the report's data file, empty without --report
};

// Runs the call; `progress` hears each frame done and the frames in all.
CallRecord runCall(const CallOptions& options,
                   const std::function<void(unsigned frame, unsigned frames)>& progress =
                       std::function<void(unsigned, unsigned)>());

// Draws call-report.png from the report's data with gnuplot; parties on
// loudspeakers get their echo before and after the canceller too.
void plotReport(const std::string& dataPath, unsigned parties, const std::string& picture,
                const std::vector<bool>& loudspeakers = std::vector<bool>());

} // namespace sonracall

#endif
