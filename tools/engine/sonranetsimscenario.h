// Scenario files: what happened to every packet, written down to replay a
// run exactly or to stage a network event by hand.
#ifndef SONRA_NETSIMSCENARIO_H
#define SONRA_NETSIMSCENARIO_H

#include <istream>
#include <string>
#include <vector>

namespace sonranetsim {

// One line of a scenario: what happened to the packet with this sequence
// number. Several lines with one number deliver that packet several times.
struct ScenarioLine {
    unsigned seqNum = 0;
    double sendTime = 0;    // ms
    double arrivalTime = 0; // ms, unless lost
    bool lost = false;
};

// "SEQ SEND_MS ARRIVAL_MS" or "SEQ SEND_MS lost" per line, blanks or commas
// between fields; "#" starts a comment. On a bad line, `error` names it and
// the result is false.
bool parseScenario(std::istream& in, std::vector<ScenarioLine>& lines, std::string& error);

} // namespace sonranetsim

#endif
