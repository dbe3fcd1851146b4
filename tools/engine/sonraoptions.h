// Command-line option values shared by the tools: numbers in a range, the
// jitter buffer's delays, policy and recovery, the network model's common
// options, and how figures are printed. A usage error names the option and
// what it wants.
#ifndef SONRA_OPTIONS_H
#define SONRA_OPTIONS_H

#include "sonrajbuf.h"

#include <stdexcept>
#include <string>

namespace sonranetsim {
struct NetworkModel;
struct PathSettings;
}

namespace sonratool {

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

std::string plain(double value);
double number(const std::string& option, const std::string& text, double lowest, double highest);
unsigned whole(const std::string& option, const std::string& text, double lowest, double highest);

// "--delays I,MIN,MAX,X": four whole numbers of ms into `delays`; the tool
// checks them against its frame duration.
void parseDelays(const std::string& option, const std::string& value, unsigned (&delays)[4]);

// One of two words; true for `second` ("--recovery on|off": true for off).
bool eitherOr(const std::string& option, const std::string& value, const std::string& first,
              const std::string& second);

// "--policy fixed|adaptive|histogram": the jitter buffer's playout policy.
ombrel::SonraJbuf::PlayoutPolicy playoutPolicyNamed(const std::string& option, const std::string& value);
// The word for `policy`, as --policy takes it.
const char* playoutPolicyName(ombrel::SonraJbuf::PlayoutPolicy policy);

// --seed, --loss, --burst, --delay and --jitter into `model`; false for any other option.
bool commonNetworkOption(const std::string& option, const std::string& value, sonranetsim::NetworkModel& model);

// What the tools give a listener unless told otherwise: the histogram
// playout policy over a wide ladder of depths, recovery, and for Opus
// time stretching of the policy's moves, concealment of short gaps and
// in-band FEC with recovery at the receiver.
// The ladder starts at 80 ms: in a call of a few seconds over 30 ms of
// jitter the policy has no time to learn before frames come late, and
// 80 ms keeps those under 1% while a calm network still brings it down.
const unsigned LISTENER_DELAYS_MS[4] = {80, 20, 400, 300}; // initial, minimum, maximum, extra jitter
const unsigned LISTENER_CONCEALMENT_MS = 60; // longest gap concealed: three 20 ms frames
const unsigned LISTENER_FEC_LOSS = 10;       // %, the loss the encoder's in-band FEC is set for
void listenerDefaults(sonranetsim::PathSettings& settings);
// "--plain" anywhere on the command line: the library's own defaults
// instead, as the tools had them before they chose for the listener.
bool wantsPlain(int argc, char** argv);

// A signal-to-noise ratio, "exact" when nothing differs.
std::string decibels(double value);
// "12.5%" of `whole`, 0 when there is none.
std::string percentOf(unsigned part, unsigned whole);

} // namespace sonratool

#endif
