// What a listener got from one direction of a path: every graph frame
// played from its packet, rebuilt from its successor's in-band FEC,
// concealed by the decoder or silent, as the Opus decoder decides them;
// the loss left after recovery, its burstiness, the mouth-to-ear delay,
// and the E-model's rating of it all.
#ifndef SONRA_LISTENING_H
#define SONRA_LISTENING_H

#include "sonraclientpath.h"
#include "sonraemodel.h"
#include "sonranetsimreport.h"

#include <vector>

namespace sonranetsim {

enum class FrameFate { Played, Rebuilt, Concealed, Silent };

struct Listening {
    std::vector<FrameFate> fates; // one per frame record
    unsigned rebuilt = 0;         // lost or late packets the FEC of their successor rebuilt
    unsigned concealed = 0;       // graph frames concealed between the first and the last packet played
    unsigned unheard = 0;         // packets sent, neither played nor rebuilt
    double lossPercent = 0;       // unheard, in percent of the packets sent
    double burstRatio = 1;        // of the unheard packets, by sequence number
    double mouthToEarMs = 0;      // mean network delay, mean jitter-buffer residence, codec frame and
                                  // the frame a decoder waiting for FEC holds each packet
    sonratool::EModelRating rating{0, 1};
};

// `result` as recorded by a path built from `settings`.
Listening listeningOf(const Result& result, const PathSettings& settings);

} // namespace sonranetsim

#endif
