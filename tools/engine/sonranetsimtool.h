// sonra-netsim's command line and summary, over the network simulator's
// engine (sonranetsim.h).
#ifndef SONRA_NETSIMTOOL_H
#define SONRA_NETSIMTOOL_H

#include "sonranetsim.h"

#include <string>

namespace sonranetsim {

struct NetsimOptions {
    bool help = false;
    std::string input, output, trace, writeScenario; // files
    std::string sweep; // the playout matrix's JSON, instead of one run
    bool quiet = false;
    Config config;
};

// The command line; throws sonratool::UsageError for a bad one and
// std::runtime_error for a scenario that cannot be read.
NetsimOptions parseNetsimOptions(int argc, char** argv);

// What the network and the jitter buffer did, on stdout.
void printSummary(const NetsimOptions& options, const Result& result);

} // namespace sonranetsim

#endif
