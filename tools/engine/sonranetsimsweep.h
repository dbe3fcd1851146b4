// The playout matrix: a fixed set of seeded network scenarios, each run
// with the receiver's own defaults, a sweep of fixed playout depths (to
// find the hindsight depth: the shallowest that refuses at most 1% of the
// delivered packets as too old), the adaptive policy, and again with
// concealment; every run's figures as JSON, for docs/playout.md.
#ifndef SONRA_NETSIMSWEEP_H
#define SONRA_NETSIMSWEEP_H

#include "sonranetsim.h"

#include <ostream>
#include <string>
#include <vector>

namespace sonranetsim {

struct SweepScenario {
    std::string name, title;
    std::vector<std::string> args; // sonra-netsim's options for the same network
    NetworkModel network;
    bool changing = false;         // `second` takes over from mid-call
    NetworkModel second;
    unsigned lossPercent = 0;
};

std::vector<SweepScenario> playoutScenarios();

// Runs the matrix on `input` (mono, 16 kHz) and writes it as JSON.
void writeSweep(const std::vector<int16_t>& input, std::ostream& out);

} // namespace sonranetsim

#endif
