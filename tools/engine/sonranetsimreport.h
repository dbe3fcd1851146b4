// What a simulated run recorded, packet by packet and graph frame by graph
// frame, and what it comes to: counts, delays, the SNR of the output
// against the input, and the trace and scenario writers.
#ifndef SONRA_NETSIMREPORT_H
#define SONRA_NETSIMREPORT_H

#include "sonrajbuf.h"

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <vector>

namespace sonranetsim {

struct PacketRecord {
    unsigned seqNum = 0;
    unsigned sendTime = 0;             // ms
    bool lost = false;                 // every copy lost in the network
    std::vector<double> arrivalTimes;  // ms, one per copy delivered
    bool played = false;
    unsigned playTime = 0;             // ms, start of the graph frame that played it
};

struct FrameRecord {
    unsigned time = 0;         // ms, start of the graph frame
    unsigned datagrams = 0;    // handed to the receiver just before this frame
    bool played = false;       // the jitter buffer delivered a packet
    unsigned seqNum = 0;       // of the packet played
    unsigned timeStamp = 0;    // ms, of the packet played
    unsigned residence = 0;    // ms the played packet spent in the jitter buffer
    unsigned queued = 0;       // frames the played queue counts after the frame
};

struct Summary {
    unsigned sent = 0;
    unsigned lostInNetwork = 0;
    unsigned duplicatesSent = 0;   // extra copies the network delivered
    unsigned datagrams = 0;        // delivered to the receiver, copies included
    unsigned played = 0;
    unsigned neverPlayed = 0;      // delivered at least once, yet never played
    ombrel::SonraJbufStatistics jbuf;
    double meanNetworkDelay = 0;   // ms, over delivered copies
    double p95NetworkDelay = 0;
    double meanDelay = 0;          // ms from sending to playout, over played packets
    double p95Delay = 0;
    unsigned maxDelay = 0;
    int codecDelay = 0;            // samples the decoded signal lags the packets' input
    double snr = 0;                // dB, every played frame set against the input it carries
    double fixedLagSnr = 0;        // dB, the output as heard, at its single best lag
    int fixedLag = 0;              // samples
    double spectralDistance = 0;   // dB, mean log-spectral distance per 20 ms frame of speech, what
                                   // was sent against what was heard in its place (lower is better)
    unsigned spectralFrames = 0;   // 20 ms frames of speech judged
};

struct Result {
    std::vector<int16_t> output; // the mixer's output, one graph frame after another
    std::vector<PacketRecord> packets; // by sequence number, packets[0] is number 1
    std::vector<FrameRecord> frames;
    unsigned outputLag = 0;      // graph frames the output trails the frame records
    Summary summary;
};

// Fills every field of result.summary but jbuf from the records and the
// output; `input` is what was sent (mono, `sampleRate` Hz), `frameSamples`
// the samples of one graph frame.
void summarise(const std::vector<int16_t>& input, unsigned sampleRate, std::size_t frameSamples, Result& result);

// The nearest-rank value at `fraction` (0..1) of `values`: the smallest with
// that share of all at or below it; 0 when there are none.
double percentile(std::vector<double> values, double fraction);
double mean(const std::vector<double>& values);

// The packets' fate as a scenario, to replay the run exactly.
void writeScenario(std::ostream& out, const Result& result);
// One CSV line per graph frame.
void writeTrace(std::ostream& out, const Result& result);

} // namespace sonranetsim

#endif
