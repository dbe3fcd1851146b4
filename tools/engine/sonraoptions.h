// Command-line option values shared by the tools: numbers in a range, the
// jitter buffer's delays, policy and recovery, the network model's common
// options, and how figures are printed. A usage error names the option and
// what it wants.
#ifndef SONRA_OPTIONS_H
#define SONRA_OPTIONS_H

#include <stdexcept>
#include <string>

namespace sonranetsim {
struct NetworkModel;
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

// One of two words; true for `second` ("--policy fixed|adaptive").
bool eitherOr(const std::string& option, const std::string& value, const std::string& first,
              const std::string& second);

// --seed, --loss, --burst, --delay and --jitter into `model`; false for any other option.
bool commonNetworkOption(const std::string& option, const std::string& value, sonranetsim::NetworkModel& model);

// A signal-to-noise ratio, "exact" when nothing differs.
std::string decibels(double value);
// "12.5%" of `whole`, 0 when there is none.
std::string percentOf(unsigned part, unsigned whole);

} // namespace sonratool

#endif
