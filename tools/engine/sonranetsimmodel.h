// The simulated network: a seeded model of loss, jitter, reordering,
// duplication and delay spikes, or a scenario replayed line by line. It
// decides when each packet's copies arrive; for a given seed every run is
// identical.
#ifndef SONRA_NETSIMMODEL_H
#define SONRA_NETSIMMODEL_H

#include "sonranetsimscenario.h"

#include <cstdint>
#include <map>
#include <vector>

namespace sonranetsim {

// xoshiro256** seeded through splitmix64: the same numbers on every
// platform and standard library, unlike std::*_distribution.
class Random {
public:
    explicit Random(uint64_t seed);
    uint64_t next();
    // In [0, 1).
    double uniform() { return double(next() >> 11) * (1.0 / 9007199254740992.0); }
    // In (0, 1]: safe under a logarithm.
    double uniformOpen() { return 1.0 - uniform(); }
    // Draws even for a probability of 0, so that the sequence of draws does
    // not depend on the rates.
    bool chance(double probability) { return uniform() < probability; }
    double normal();

private:
    uint64_t m_state[4];
};

enum class JitterKind { None, Uniform, Normal, Exponential, Pareto };

// Rates are fractions (0..1), times ms.
struct NetworkModel {
    uint64_t seed = 1;
    double lossRate = 0;       // long-run fraction of packets lost
    double burstLength = 1;    // mean length of a loss burst, packets (1: independent losses)
    double baseDelay = 20;     // one-way delay every packet has, ms
    JitterKind jitterKind = JitterKind::None;
    double jitter = 0;         // scale of the jitter, ms: the uniform range, the normal's standard
                               // deviation (folded to positive), the exponential's mean, the Pareto's
                               // minimum (shape 2, so its mean is twice that)
    double reorderRate = 0;    // fraction of packets held back (arriving after later ones)
    double reorderDelay = 40;  // how long a held-back packet is held, ms
    double duplicateRate = 0;  // fraction of packets delivered twice
    double duplicateDelay = 5; // the copy's extra delay is uniform in [0, this), ms
    double spikeRate = 0;      // chance per packet that a delay spike starts
    double spikeHeight = 0;    // extra delay at the start of a spike, ms; it drains at 1 ms per ms,
                               // so the packets stuck behind it arrive together
};

// Gilbert-Elliott loss: a bad state that loses every packet, entered and
// left so that bursts last `burstLength` packets on average and the
// long-run loss is `lossRate`.
class LossModel {
public:
    LossModel(double lossRate, double burstLength);
    bool lose(Random& random);

private:
    double m_enterBad, m_leaveBad;
    bool m_bad;
};

// One direction of the network: decides the arrival times (ms) of each
// packet's copies, none when it is lost.
class Network {
public:
    // Modelled: draws from `model`.
    explicit Network(const NetworkModel& model);
    // Replayed: a packet keeps the network delay (arrival minus send) of its
    // scenario lines, counted from the time it is sent; a packet that no
    // line names is lost.
    explicit Network(const std::vector<ScenarioLine>& scenario);

    std::vector<double> arrivals(unsigned seqNum, unsigned sendTime);

private:
    std::vector<double> replayed(unsigned seqNum, unsigned sendTime) const;
    std::vector<double> modelled(unsigned sendTime);
    double jitter();
    double spike(unsigned sendTime);

    bool m_replay;
    NetworkModel m_model;
    Random m_random;
    LossModel m_loss;
    double m_spikeStart; // ms; negative before the first spike
    std::multimap<unsigned, ScenarioLine> m_scenario;
};

} // namespace sonranetsim

#endif
