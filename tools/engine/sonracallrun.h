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
    std::string capture, playback; // party 1's devices in real time; empty: a sound card when there is one
    sonranetsim::Config net;       // every leg's network and jitter buffer
    std::vector<std::pair<std::string, std::string> > effects; // option, value: checked once parties are known
};

// The command line; throws sonratool::UsageError.
CallOptions parseCallOptions(int argc, char** argv);

struct PartyConfig;
// --voice, --reverb and --haas onto the parties they name.
void applyEffects(const CallOptions& options, std::vector<PartyConfig>& parties);

// What one party heard from one peer.
struct LegRecord {
    unsigned from = 0;            // party index
    bool rtp = false;             // then only the datagram counts are set
    unsigned rtpSent = 0, rtpReceived = 0; // datagrams
    unsigned sent = 0, lost = 0, played = 0; // packets
    uint64_t late = 0;            // frames refused as too old
    double meanResidenceMs = 0, p95ResidenceMs = 0; // of the frames played
    double snrDb = 0;             // heard against said, frames aligned; infinite when exact
    unsigned rebuilt = 0;         // packets FEC rebuilt from their successors
    unsigned concealed = 0;       // graph frames the decoder concealed
    double lossPercent = 0;       // packets neither played nor rebuilt, of those sent
    double burstRatio = 1;        // of those packets, by sequence number
    double mouthToEarMs = 0;      // network, jitter buffer, codec frame (and the FEC wait)
    double r = 0, mos = 1;        // the E-model's rating of what was heard
};

struct PartyRecord {
    std::string said, heard;      // the input file; the heard WAV file (or "the sound card")
    std::vector<LegRecord> legs;  // by peer, in party order
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

// Draws call-report.png from the report's data with gnuplot.
void plotReport(const std::string& dataPath, unsigned parties, const std::string& picture);

} // namespace sonracall

#endif
