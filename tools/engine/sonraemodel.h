// The E-model's transmission rating for one direction of a call: R factor
// and the mean opinion score it predicts, from the mouth-to-ear delay, the
// codec's impairment and the packet loss left after concealment. Every
// other parameter keeps the model's defaults (a plain handset path with no
// echo problem), so a perfect path rates R = 93.2.
#ifndef SONRAEMODEL_H
#define SONRAEMODEL_H

#include <cstddef>
#include <vector>

namespace sonratool {

// How a codec stands up to packet loss: its impairment without loss and its
// robustness to loss with the receiver's concealment.
struct CodecImpairment {
    double ie;  // equipment impairment factor without loss
    double bpl; // packet-loss robustness factor
};

// G.711 with packet-loss concealment, from the published planning values.
extern const CodecImpairment G711_WITH_CONCEALMENT;
// G.711 with silence in place of lost packets.
extern const CodecImpairment G711_WITHOUT_CONCEALMENT;
// Opus with concealment. No published planning value exists; on the
// narrowband scale Opus at voice bit rates is taken as transparent, and its
// concealment as robust as G.711's: frames that in-band FEC recovers are not
// lost, so FEC enters through the effective loss.
extern const CodecImpairment OPUS_WITH_CONCEALMENT;

struct EModelInput {
    double mouthToEarMs = 0;    // one-way delay: network, jitter buffer, codec frame (ms)
    double lossPercent = 0;     // packets lost after recovery, in percent of all sent
    double burstRatio = 1;      // 1 for random loss, above 1 for bursty loss
    CodecImpairment codec = G711_WITH_CONCEALMENT;
};

struct EModelRating {
    double r;   // transmission rating, 0..100 on the narrowband scale
    double mos; // predicted mean opinion score, 1..4.5
};

EModelRating rateCall(const EModelInput& input);

// The burst ratio of a loss pattern (true = lost): the mean length of its
// loss runs against the mean a random loss of the same rate would give.
double burstRatio(const std::vector<bool>& lost);

} // namespace sonratool

#endif
