#include "sonracall.h"
#include "sonracallrun.h"
#include "sonraoptions.h"

#include <algorithm>

namespace sonracall {

namespace {

using sonratool::UsageError;
using sonratool::number;
using sonratool::whole;

unsigned partyOf(const std::string& option, const std::string& text, unsigned parties)
{
    return whole(option, text, 1, parties) - 1;
}

std::pair<unsigned, std::string> partyAndValue(const std::string& option, const std::string& value,
                                               unsigned parties)
{
    const std::string::size_type colon = value.find(':');
    if (colon == std::string::npos)
        throw UsageError(option + " wants PARTY:VALUE, not \"" + value + "\"");
    return {partyOf(option, value.substr(0, colon), parties), value.substr(colon + 1)};
}

ombrel::SonraVoiceChangeNode::Voice voiceOf(const std::string& name)
{
    using V = ombrel::SonraVoiceChangeNode;
    if (name == "lower")
        return V::LOWER;
    if (name == "lowest")
        return V::LOWEST;
    if (name == "higher")
        return V::HIGHER;
    if (name == "highest")
        return V::HIGHEST;
    throw UsageError("--voice: expected lower, lowest, higher or highest, not \"" + name + "\"");
}

// The call runs 20 ms frames: every delay a multiple of that.
void parseDelays(const std::string& value, sonranetsim::JitterBufferSettings& jitterBuffer)
{
    unsigned (&delays)[4] = jitterBuffer.delays;
    sonratool::parseDelays("--delays", value, delays);
    for (unsigned delay : delays)
        if (delay % FRAME_MS != 0)
            throw UsageError("--delays: every delay must be a multiple of 20 ms");
    if (!(delays[2] >= delays[0] && delays[0] >= delays[1] && delays[1] > 0))
        throw UsageError("--delays: need maximum >= initial >= minimum > 0");
    jitterBuffer.setDelays = true;
}

bool networkOption(const std::string& option, const std::string& value, CallOptions& options)
{
    sonranetsim::JitterBufferSettings& jitterBuffer = options.net.jitterBuffer;
    if (sonratool::commonNetworkOption(option, value, options.net.network))
        return true;
    if (option == "--scenario")
        options.scenarioFile = value;
    else if (option == "--delays")
        parseDelays(value, jitterBuffer);
    else if (option == "--recovery")
        jitterBuffer.recovery = !sonratool::eitherOr(option, value, "on", "off");
    else if (option == "--policy")
        jitterBuffer.policy = sonratool::playoutPolicyNamed(option, value);
    else if (option == "--stretch")
        jitterBuffer.timeStretching = !sonratool::eitherOr(option, value, "on", "off");
    else if (option == "--plc")
        options.net.concealment = whole(option, value, 0, 60000);
    else if (option == "--fec")
        options.net.fecLoss = whole(option, value, 0, 100);
    else
        return false;
    return true;
}

bool callOption(const std::string& option, const std::string& value, CallOptions& options)
{
    if (option == "--parties")
        options.parties = whole(option, value, 2, 16);
    else if (option == "--input")
        options.inputs.push_back(value);
    else if (option == "--seconds")
        options.seconds = number(option, value, 0.1, 86400);
    else if (option == "--hold")
        options.hold = value;
    else if (option == "--out")
        options.outDir = value;
    else if (option == "--capture")
        options.capture = value;
    else if (option == "--playback")
        options.playback = value;
    else if (option == "--codec") {
        if (value != "opus" && value != "pcma" && value != "pcmu")
            throw UsageError("--codec: expected opus, pcma or pcmu, not \"" + value + "\"");
        options.rtpCodec = value;
    } else if (option == "--voice" || option == "--reverb" || option == "--haas" || option == "--echo")
        options.effects.emplace_back(option, value);
    else if (option == "--aec") {
        options.aec = !sonratool::eitherOr(option, value, "on", "off");
        options.aecGiven = true;
    }
    else
        return false;
    return true;
}

// "P[:DELAY_MS[,GAIN_DB]]": party P on loudspeakers in the simulated room.
void applyEcho(const std::string& value, bool cancel, std::vector<PartyConfig>& parties)
{
    const std::string option = "--echo";
    const std::string::size_type colon = value.find(':');
    const unsigned party = partyOf(option, value.substr(0, colon), unsigned(parties.size()));
    LoudspeakerSettings& loudspeakers = parties[party].loudspeakers;
    loudspeakers.on = true;
    loudspeakers.cancel = cancel;
    if (colon == std::string::npos)
        return;
    const std::string path = value.substr(colon + 1);
    const std::string::size_type comma = path.find(',');
    loudspeakers.path.delayMs = whole(option, path.substr(0, comma), 0, ombrel::SonraEchoPath::MAX_DELAY_MS);
    if (comma != std::string::npos)
        loudspeakers.path.gainDb = number(option, path.substr(comma + 1), -60, 0);
}

} // namespace

void applyEffects(const CallOptions& options, std::vector<PartyConfig>& parties)
{
    for (const auto& effect : options.effects) {
        const std::string& option = effect.first;
        if (option == "--echo") {
            applyEcho(effect.second, options.aec, parties);
            continue;
        }
        if (option == "--reverb") {
            parties[partyOf(option, effect.second, options.parties)].reverb = true;
            continue;
        }
        const auto target = partyAndValue(option, effect.second, options.parties);
        if (option == "--voice") {
            parties[target.first].changeVoice = true;
            parties[target.first].voice = voiceOf(target.second);
        } else {
            parties[target.first].haasMs = whole(option, target.second, 1, 100);
        }
    }
}

CallOptions parseCallOptions(int argc, char** argv)
{
    CallOptions options;
    if (!sonratool::wantsPlain(argc, argv))
        sonratool::listenerDefaults(options.net);
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--help" || option == "-h") {
            options.help = true;
            return options;
        }
        if (option == "--rtp" || option == "--plain") {
            options.rtp = options.rtp || option == "--rtp";
            continue;
        }
        if (option == "--quiet" || option == "--no-report" || option == "--realtime") {
            (option == "--quiet" ? options.quiet : option == "--realtime" ? options.realTime : options.report) =
                option != "--no-report";
            continue;
        }
        if (i + 1 >= argc)
            throw UsageError(option + " wants a value");
        const std::string value = argv[++i];
        if (!callOption(option, value, options) && !networkOption(option, value, options))
            throw UsageError("unknown option \"" + option + "\"");
    }
    if (options.inputs.size() > options.parties)
        throw UsageError("more --input files than --parties");
    if (!options.rtp && !options.rtpCodec.empty())
        throw UsageError("--codec needs --rtp");
    if (!options.realTime && !(options.capture.empty() && options.playback.empty()))
        throw UsageError("--capture and --playback need --realtime");
    sonranetsim::NetworkModel& model = options.net.network;
    model.jitterKind = model.jitter > 0 ? sonranetsim::JitterKind::Normal : sonranetsim::JitterKind::None;
    std::vector<PartyConfig> check(options.parties);
    applyEffects(options, check); // usage errors now, before any work
    const bool echo = std::any_of(check.begin(), check.end(), [](const PartyConfig& p) { return p.loudspeakers.on; });
    if (options.aecGiven && !echo)
        throw UsageError("--aec applies to parties on --echo");
    if (echo && options.realTime)
        throw UsageError("--echo runs in the stepped call only, not with --realtime");
    return options;
}

} // namespace sonracall
