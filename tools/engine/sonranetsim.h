// The engine of sonra-netsim: plays PCM through the whole own-format path
// in one process (source, then the client path: encoder, sender, the
// simulated network, receiver, decoder, and a mixer) on one pipe driven
// frame by frame, and records what happened to every packet and every
// graph frame. For a given seed, input and configuration every run is
// identical.
//
// Time: the pipe's elapsed time, ms. A packet is sent during the graph
// frame that starts at its timestamp (see sonralink.h for its delivery).
#ifndef SONRA_NETSIM_H
#define SONRA_NETSIM_H

#include "sonraclientpath.h"
#include "sonralink.h"
#include "sonranetsimmodel.h"
#include "sonranetsimreport.h"
#include "sonranetsimscenario.h"

#include <cstdint>
#include <vector>

namespace sonranetsim {

struct Config : PathSettings {
    NetworkModel network;
    bool useScenario = false;
    std::vector<ScenarioLine> scenario;
};

// The network of `config`: its scenario when it has one, else its model.
Network networkOf(const Config& config);

// Graph frames to run past the input (and an empty network) so that the
// jitter buffer plays out what it can hold.
unsigned drainFrames(const PathSettings& settings);

// Runs `input` (mono PCM at config.sampleRate) through the path.
Result simulate(const std::vector<int16_t>& input, const Config& config);

} // namespace sonranetsim

#endif
