#include "sonranetsimtool.h"

#include "sonraoptions.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace sonranetsim {

namespace {

using sonratool::UsageError;
using sonratool::number;
using sonratool::whole;

JitterKind jitterKind(const std::string& text)
{
    if (text == "uniform")
        return JitterKind::Uniform;
    if (text == "normal")
        return JitterKind::Normal;
    if (text == "exp")
        return JitterKind::Exponential;
    if (text == "pareto")
        return JitterKind::Pareto;
    throw UsageError("--jitter-dist: expected uniform, normal, exp or pareto, not \"" + text + "\"");
}

// What the command line names but the parser settles only once it is read.
struct Pending {
    JitterKind jitterKind = JitterKind::Normal;
    std::string scenarioFile;
    std::vector<std::string> positional;
    bool recoveryGiven = false; // --plc or --fec on the command line
    bool delaysGiven = false;   // --delays on the command line
};

bool pathOption(const std::string& arg, const std::string& value, Config& config)
{
    if (arg == "--rate")
        config.sampleRate = whole(arg, value, 8000, 48000);
    else if (arg == "--frame")
        config.frameDuration = whole(arg, value, 1, 60);
    else if (arg == "--codec")
        config.codec = sonratool::eitherOr(arg, value, "opus", "pcm") ? Codec::Pcm : Codec::Opus;
    else if (arg == "--delays") {
        sonratool::parseDelays(arg, value, config.jitterBuffer.delays);
        config.jitterBuffer.setDelays = true;
    } else if (arg == "--policy")
        config.jitterBuffer.policy = sonratool::playoutPolicyNamed(arg, value);
    else if (arg == "--stretch")
        config.jitterBuffer.timeStretching = !sonratool::eitherOr(arg, value, "on", "off");
    else if (arg == "--recovery")
        config.jitterBuffer.recovery = !sonratool::eitherOr(arg, value, "on", "off");
    else if (arg == "--plc")
        config.concealment = whole(arg, value, 0, 60000);
    else if (arg == "--fec")
        config.fecLoss = whole(arg, value, 0, 100);
    else
        return false;
    return true;
}

bool networkOption(const std::string& arg, const std::string& value, NetworkModel& model,
                   Pending& pending)
{
    if (sonratool::commonNetworkOption(arg, value, model))
        return true;
    if (arg == "--jitter-dist")
        pending.jitterKind = jitterKind(value);
    else if (arg == "--reorder")
        model.reorderRate = number(arg, value, 0, 100) / 100;
    else if (arg == "--reorder-delay")
        model.reorderDelay = number(arg, value, 0, 60000);
    else if (arg == "--dup")
        model.duplicateRate = number(arg, value, 0, 100) / 100;
    else if (arg == "--spike-rate")
        model.spikeRate = number(arg, value, 0, 100) / 100;
    else if (arg == "--spike")
        model.spikeHeight = number(arg, value, 0, 60000);
    else
        return false;
    return true;
}

bool fileOption(const std::string& arg, const std::string& value, NetsimOptions& options, Pending& pending)
{
    if (arg == "--scenario")
        pending.scenarioFile = value;
    else if (arg == "--write-scenario")
        options.writeScenario = value;
    else if (arg == "--trace")
        options.trace = value;
    else if (arg == "--sweep")
        options.sweep = value;
    else
        return false;
    return true;
}

void readArguments(int argc, char** argv, NetsimOptions& options, Pending& pending)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            options.help = true;
            return;
        }
        if (arg == "--quiet" || arg == "--plain") {
            options.quiet = options.quiet || arg == "--quiet";
            continue;
        }
        if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
            pending.positional.push_back(arg);
            continue;
        }
        if (i + 1 >= argc)
            throw UsageError(arg + ": missing value");
        const std::string value = argv[++i];
        pending.recoveryGiven = pending.recoveryGiven || arg == "--plc" || arg == "--fec";
        pending.delaysGiven = pending.delaysGiven || arg == "--delays";
        if (!pathOption(arg, value, options.config) &&
            !networkOption(arg, value, options.config.network, pending) &&
            !fileOption(arg, value, options, pending))
            throw UsageError("unknown option " + arg);
    }
}

// The jitter buffer's own preconditions, checked here so that a bad
// command line is a message, not an assertion.
void checkPath(const Config& config)
{
    const unsigned rate = config.sampleRate;
    if (config.codec == Codec::Opus && rate != 8000 && rate != 12000 && rate != 16000 &&
        rate != 24000 && rate != 48000)
        throw UsageError("--rate: Opus takes 8000, 12000, 16000, 24000 or 48000 Hz");
    if (config.codec != Codec::Opus && (config.concealment > 0 || config.fecLoss > 0))
        throw UsageError("--plc and --fec: with Opus only");
    const unsigned frame = config.frameDuration;
    // The receiver starts with delays of 60 and 300 ms at one packet per
    // frame, so its frame duration must divide 60 ms whatever --delays says.
    const unsigned initialMs = RECEIVER_DEFAULT_DELAYS_MS[0];
    if (initialMs % frame != 0)
        throw UsageError("--frame: the receiver needs a frame duration that divides " + std::to_string(initialMs) +
                         " ms");
    if (config.codec == Codec::Opus && frame != 5 && frame != 10 && frame != 20 && frame != 60)
        throw UsageError("--frame: with Opus, 5, 10, 20 or 60 ms");
    const unsigned* delays = config.jitterBuffer.delays;
    unsigned raised[4] = {std::max(delays[0], frame), std::max(delays[1], frame), std::max(delays[2], frame),
                          delays[3]};
    if (!(raised[2] >= raised[0] && raised[0] >= raised[1]))
        throw UsageError("--delays: need maximum >= initial >= minimum");
    for (unsigned delay : raised) {
        if (delay % frame != 0)
            throw UsageError("--delays: every delay must be a multiple of the frame duration (" +
                             std::to_string(frame) + " ms)");
    }
}

void loadScenario(const std::string& path, Config& config)
{
    std::ifstream in(path);
    if (!in)
        throw std::runtime_error("cannot read scenario " + path);
    std::string error;
    if (!parseScenario(in, config.scenario, error))
        throw std::runtime_error(path + ": " + error);
    config.useScenario = true;
}

} // namespace

NetsimOptions parseNetsimOptions(int argc, char** argv)
{
    NetsimOptions options;
    Config& config = options.config;
    config.network.spikeHeight = 200; // ms
    if (!sonratool::wantsPlain(argc, argv))
        sonratool::listenerDefaults(config);
    Pending pending;
    readArguments(argc, argv, options, pending);
    if (options.help)
        return options;
    // PCM has neither concealment nor FEC: the defaults step aside, a
    // command line that asks for them is told.
    if (config.codec == Codec::Pcm && !pending.recoveryGiven)
        config.concealment = config.fecLoss = 0;
    const std::size_t files = options.sweep.empty() ? 2 : 1;
    if (pending.positional.size() != files)
        throw UsageError(files == 2 ? "expected INPUT and OUTPUT.wav" : "--sweep: expected INPUT only");
    options.input = pending.positional[0];
    if (files == 2)
        options.output = pending.positional[1];
    config.network.jitterKind = config.network.jitter > 0 ? pending.jitterKind : JitterKind::None;
    // The default ladder, in whole frames of a duration that does not divide it.
    if (!pending.delaysGiven) {
        for (unsigned& delay : config.jitterBuffer.delays)
            delay = (delay + config.frameDuration - 1) / config.frameDuration * config.frameDuration;
    }
    checkPath(config);
    if (!pending.scenarioFile.empty())
        loadScenario(pending.scenarioFile, config);
    return options;
}

} // namespace sonranetsim
