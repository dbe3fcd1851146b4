#include "sonraoptions.h"

#include "sonraclientpath.h"
#include "sonranetsimmodel.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace sonratool {

std::string plain(double value)
{
    std::ostringstream text;
    text << value;
    return text.str();
}

double number(const std::string& option, const std::string& text, double lowest, double highest)
{
    std::size_t used = 0;
    double value = 0;
    try {
        value = std::stod(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || !(value >= lowest && value <= highest))
        throw UsageError(option + " wants a number from " + plain(lowest) + " to " + plain(highest) + ", not \"" +
                         text + "\"");
    return value;
}

unsigned whole(const std::string& option, const std::string& text, double lowest, double highest)
{
    const double value = number(option, text, lowest, highest);
    if (value != static_cast<unsigned>(value))
        throw UsageError(option + " wants a whole number, not \"" + text + "\"");
    return static_cast<unsigned>(value);
}

void parseDelays(const std::string& option, const std::string& value, unsigned (&delays)[4])
{
    const unsigned LONGEST_MS = 60000;
    std::string rest = value + ",";
    for (unsigned& delay : delays) {
        const std::string::size_type comma = rest.find(',');
        if (comma == std::string::npos)
            throw UsageError(option + ": expected four values, initial,min,max,extra");
        delay = whole(option, rest.substr(0, comma), 0, LONGEST_MS);
        rest.erase(0, comma + 1);
    }
    if (!rest.empty())
        throw UsageError(option + ": expected four values, initial,min,max,extra");
}

bool eitherOr(const std::string& option, const std::string& value, const std::string& first,
              const std::string& second)
{
    if (value != first && value != second)
        throw UsageError(option + ": expected " + first + " or " + second + ", not \"" + value + "\"");
    return value == second;
}

namespace {
const char* const POLICY_NAMES[] = {"fixed", "adaptive", "histogram"}; // in SonraJbuf::PlayoutPolicy's order
} // namespace

ombrel::SonraJbuf::PlayoutPolicy playoutPolicyNamed(const std::string& option, const std::string& value)
{
    for (int policy = 0; policy < 3; ++policy)
        if (value == POLICY_NAMES[policy])
            return static_cast<ombrel::SonraJbuf::PlayoutPolicy>(policy);
    throw UsageError(option + ": expected fixed, adaptive or histogram, not \"" + value + "\"");
}

const char* playoutPolicyName(ombrel::SonraJbuf::PlayoutPolicy policy)
{
    return POLICY_NAMES[policy];
}

bool commonNetworkOption(const std::string& option, const std::string& value, sonranetsim::NetworkModel& model)
{
    const double LONGEST_MS = 60000, PERCENT = 100;
    if (option == "--seed")
        model.seed = whole(option, value, 0, 4294967295.0);
    else if (option == "--loss")
        model.lossRate = number(option, value, 0, PERCENT) / PERCENT;
    else if (option == "--burst")
        model.burstLength = number(option, value, 1, 1e6);
    else if (option == "--delay")
        model.baseDelay = number(option, value, 0, LONGEST_MS);
    else if (option == "--jitter")
        model.jitter = number(option, value, 0, LONGEST_MS);
    else
        return false;
    return true;
}

void listenerDefaults(sonranetsim::PathSettings& settings)
{
    settings.jitterBuffer.policy = ombrel::SonraJbuf::PLAYOUT_HISTOGRAM;
    settings.jitterBuffer.setDelays = true;
    std::copy(LISTENER_DELAYS_MS, LISTENER_DELAYS_MS + 4, settings.jitterBuffer.delays);
    settings.jitterBuffer.recovery = true;
    settings.jitterBuffer.timeStretching = true;
    const bool opus = settings.codec == sonranetsim::Codec::Opus;
    settings.concealment = opus ? LISTENER_CONCEALMENT_MS : 0;
    settings.fecLoss = opus ? LISTENER_FEC_LOSS : 0;
}

bool wantsPlain(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i)
        if (std::string(argv[i]) == "--plain")
            return true;
    return false;
}

std::string decibels(double value)
{
    if (std::isinf(value))
        return "exact";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f dB", value);
    return text;
}

std::string percentOf(unsigned part, unsigned whole)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f%%", whole ? 100.0 * part / whole : 0.0);
    return text;
}

} // namespace sonratool
