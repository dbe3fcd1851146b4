#include "sonranetsimsweep.h"

#include "sonralistening.h"
#include "sonraoptions.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>

namespace sonranetsim {

namespace {

const unsigned FRAME_MS = 20;
const unsigned MAX_DEPTH_MS = 400;     // the deepest fixed depth swept, and the policy's maximum
const unsigned PLATEAU_DEPTHS = 4;     // a stationary sweep gives up after this many depths without fewer too-old
const double TOO_OLD_TARGET = 0.01;    // share of the delivered packets refused as too old
const unsigned CONCEALMENT_MS = 60;    // longest gap concealed in the runs with concealment
// The policy's runs: the tools' own playout (the histogram policy, moves
// stretched) over the tools' ladder.
const unsigned* const POLICY_DELAYS_MS = sonratool::LISTENER_DELAYS_MS;

SweepScenario stationary(const std::string& name, const std::string& title, const NetworkModel& model,
                         const std::vector<std::string>& args, unsigned loss)
{
    SweepScenario s;
    s.name = name;
    s.title = title;
    s.network = model;
    s.args = args;
    s.lossPercent = loss;
    return s;
}

NetworkModel modelOf(uint64_t seed, double jitter, JitterKind kind, unsigned loss)
{
    NetworkModel model;
    model.seed = seed;
    model.jitter = jitter;
    model.jitterKind = jitter > 0 ? kind : JitterKind::None;
    model.lossRate = loss / 100.0;
    model.burstLength = loss ? 3 : 1;
    model.spikeHeight = 200; // ms, sonra-netsim's default
    return model;
}

void addLossTo(SweepScenario& s, unsigned loss)
{
    if (!loss) {
        s.title += ", no loss";
        return;
    }
    s.args.insert(s.args.end(), {"--loss", std::to_string(loss), "--burst", "3"});
    s.title += ", loss " + std::to_string(loss) + "% in bursts of 3";
}

SweepScenario changing(const std::string& name, const std::string& title, const NetworkModel& first,
                       const NetworkModel& second, unsigned loss)
{
    SweepScenario s = stationary(name, title, first, {"--scenario", name + ".txt"}, loss);
    s.changing = true;
    s.second = second;
    return s;
}

// What one run gave, as the matrix's tables want it.
struct Figures {
    unsigned sent = 0, lost = 0, played = 0;
    uint64_t tooOld = 0;
    double mean = 0, p95 = 0, lsd = 0, mos = 1;
    // Frames time-stretched to move the delay, and the share of the call's
    // periods that played stretched audio (an expanded frame fills two, an
    // accelerated pair one).
    uint64_t stretched = 0;
    double stretchShare = 0;

    double tooOldShare() const { return sent > lost ? double(tooOld) / (sent - lost) : 0; }
    bool meetsTarget() const { return tooOldShare() <= TOO_OLD_TARGET; }
};

Figures run(const std::vector<int16_t>& input, Config config)
{
    const Result result = simulate(input, config);
    const Summary& s = result.summary;
    Figures f;
    f.sent = s.sent;
    f.lost = s.lostInNetwork;
    f.played = s.played;
    f.tooOld = s.jbuf.framesTooOld;
    f.mean = s.meanDelay;
    f.p95 = s.p95Delay;
    f.lsd = s.spectralDistance;
    f.mos = listeningOf(result, config).rating.mos;
    f.stretched = s.jbuf.framesExpanded + s.jbuf.framesAccelerated;
    const uint64_t periods = s.jbuf.framesPlayed + s.jbuf.framesHeld + s.jbuf.underruns;
    f.stretchShare = periods ? double(2 * s.jbuf.framesExpanded + s.jbuf.framesAccelerated) / periods : 0;
    return f;
}

// The packets' fate under each half's network, the first half of the
// sequence numbers from the first, the rest from the second, as a
// scenario at sonra-netsim's --write-scenario precision.
std::vector<ScenarioLine> splice(const std::vector<int16_t>& input, const Config& plain, const SweepScenario& s)
{
    std::vector<Result> halves;
    for (const NetworkModel& model : {s.network, s.second}) {
        Config config = plain;
        config.network = model;
        halves.push_back(simulate(input, config));
    }
    std::vector<ScenarioLine> lines;
    const std::size_t count = halves[0].packets.size();
    for (std::size_t i = 0; i < count; ++i) {
        const Result& half = halves[i < count / 2 ? 0 : 1];
        if (i >= half.packets.size())
            continue;
        const PacketRecord& packet = half.packets[i];
        ScenarioLine line;
        line.seqNum = packet.seqNum;
        line.sendTime = packet.sendTime;
        line.lost = packet.lost;
        if (packet.lost)
            lines.push_back(line);
        for (double arrival : packet.arrivalTimes) {
            line.arrivalTime = std::round(arrival * 1000) / 1000;
            lines.push_back(line);
        }
    }
    return lines;
}

std::vector<unsigned> depths()
{
    std::vector<unsigned> swept;
    for (unsigned d = FRAME_MS; d <= MAX_DEPTH_MS; d += d < 200 ? FRAME_MS : 2 * FRAME_MS)
        swept.push_back(d);
    return swept;
}

// Held at depth D: the adaptive policy with a ladder of one queue, which
// waits D - 1 periods before its first frame (the fixed policy plays the
// first frame as it comes: its delays bound the queue, not the playout).
Config atDepth(Config config, unsigned depth)
{
    config.jitterBuffer.policy = ombrel::SonraJbuf::PLAYOUT_ADAPTIVE;
    config.jitterBuffer.setDelays = true;
    for (unsigned i = 0; i < 3; ++i)
        config.jitterBuffer.delays[i] = depth;
    return config;
}

Config withPolicy(Config config)
{
    config.jitterBuffer.policy = ombrel::SonraJbuf::PLAYOUT_HISTOGRAM;
    config.jitterBuffer.timeStretching = true;
    config.jitterBuffer.setDelays = true;
    std::copy(POLICY_DELAYS_MS, POLICY_DELAYS_MS + 4, config.jitterBuffer.delays);
    return config;
}

struct ScenarioRuns {
    std::map<std::string, Figures> runs, concealed; // by "defaults", "policy" or a depth in ms
    unsigned hindsight = 0;                         // ms
};

// The shallowest swept depth that meets the target; when none does, the
// shallowest with the fewest too-old packets.
unsigned hindsightDepth(const std::map<std::string, Figures>& runs)
{
    unsigned best = 0;
    uint64_t fewest = UINT64_MAX;
    for (unsigned depth : depths()) {
        const auto found = runs.find(std::to_string(depth));
        if (found == runs.end())
            continue;
        if (found->second.meetsTarget())
            return depth;
        if (found->second.tooOld < fewest) {
            fewest = found->second.tooOld;
            best = depth;
        }
    }
    return best;
}

// A stationary sweep stops at the first depth that meets the target (the
// deeper ones only add delay) or on a plateau; a changing one covers all.
ScenarioRuns measure(const std::vector<int16_t>& input, const Config& plain, bool changing)
{
    ScenarioRuns s;
    s.runs["defaults"] = run(input, plain);
    s.runs["policy"] = run(input, withPolicy(plain));
    uint64_t fewest = UINT64_MAX;
    unsigned since = 0;
    for (unsigned depth : depths()) {
        const Figures f = run(input, atDepth(plain, depth));
        s.runs[std::to_string(depth)] = f;
        if (changing)
            continue;
        if (f.meetsTarget())
            break;
        since = f.tooOld < fewest ? 0 : since + 1;
        fewest = std::min(fewest, f.tooOld);
        if (since >= PLATEAU_DEPTHS)
            break;
    }
    s.hindsight = hindsightDepth(s.runs);
    Config concealing = plain;
    concealing.concealment = CONCEALMENT_MS;
    s.concealed["defaults"] = run(input, concealing);
    s.concealed["policy"] = run(input, withPolicy(concealing));
    s.concealed[std::to_string(s.hindsight)] = run(input, atDepth(concealing, s.hindsight));
    return s;
}

std::string quotedJson(const std::string& text)
{
    std::string out = "\"";
    for (char c : text)
        out += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    return out + "\"";
}

void writeRuns(std::ostream& out, const std::map<std::string, Figures>& runs)
{
    out << '{';
    bool first = true;
    for (const auto& entry : runs) {
        const Figures& f = entry.second;
        out << (first ? "" : ",") << "\n      " << quotedJson(entry.first) << ": {\"sent\": " << f.sent
            << ", \"lost\": " << f.lost << ", \"too_old\": " << f.tooOld << ", \"played\": " << f.played
            << ", \"mean\": " << f.mean << ", \"p95\": " << f.p95 << ", \"lsd\": " << f.lsd << ", \"mos\": " << f.mos
            << ", \"stretched_frames\": " << f.stretched << ", \"stretched_share\": " << f.stretchShare << '}';
        first = false;
    }
    out << '}';
}

void writeScenario(std::ostream& out, const SweepScenario& s, const ScenarioRuns& runs)
{
    out << "{\"name\": " << quotedJson(s.name) << ", \"title\": " << quotedJson(s.title) << ", \"args\": [";
    for (std::size_t i = 0; i < s.args.size(); ++i)
        out << (i ? ", " : "") << quotedJson(s.args[i]);
    out << "], \"loss\": " << s.lossPercent << ", \"changing\": " << (s.changing ? "true" : "false")
        << ", \"hindsight\": " << runs.hindsight << ",\n    \"runs\": ";
    writeRuns(out, runs.runs);
    out << ",\n    \"concealed\": ";
    writeRuns(out, runs.concealed);
    out << '}';
}

} // namespace

std::vector<SweepScenario> playoutScenarios()
{
    std::vector<SweepScenario> scenarios;
    uint64_t seed = 100;
    for (unsigned loss : {0u, 5u, 10u})
        for (const char* dist : {"normal", "pareto"})
            for (unsigned jitter : {10u, 30u, 60u}) {
                const JitterKind kind = std::string(dist) == "pareto" ? JitterKind::Pareto : JitterKind::Normal;
                ++seed;
                SweepScenario s = stationary(
                    std::string(dist) + std::to_string(jitter) + "-loss" + std::to_string(loss),
                    std::string(dist) + " jitter " + std::to_string(jitter) + " ms", modelOf(seed, jitter, kind, loss),
                    {"--seed", std::to_string(seed), "--jitter", std::to_string(jitter), "--jitter-dist", dist}, loss);
                addLossTo(s, loss);
                scenarios.push_back(s);
            }
    for (unsigned loss : {0u, 5u}) {
        NetworkModel model = modelOf(++seed, 10, JitterKind::Normal, loss);
        model.spikeRate = 0.005;
        SweepScenario s = stationary(
            "spikes-loss" + std::to_string(loss),
            "normal jitter 10 ms, delay spikes of 200 ms (0.5% of packets start one)", model,
            {"--seed", std::to_string(seed), "--jitter", "10", "--jitter-dist", "normal", "--spike-rate", "0.5",
             "--spike", "200"},
            loss);
        if (loss)
            addLossTo(s, loss);
        scenarios.push_back(s);
    }
    const JitterKind normal = JitterKind::Normal;
    scenarios.push_back(changing("calm-to-rough", "normal jitter 10 ms, then normal jitter 60 ms from mid-call",
                                 modelOf(201, 10, normal, 0), modelOf(202, 60, normal, 0), 0));
    scenarios.push_back(changing("rough-to-calm", "normal jitter 60 ms, then normal jitter 10 ms from mid-call",
                                 modelOf(203, 60, normal, 0), modelOf(204, 10, normal, 0), 0));
    scenarios.push_back(changing("calm-to-pareto",
                                 "normal jitter 10 ms, then pareto jitter 30 ms and 5% loss in bursts of 3 from "
                                 "mid-call",
                                 modelOf(205, 10, normal, 0), modelOf(206, 30, JitterKind::Pareto, 5), 5));
    return scenarios;
}

void writeSweep(const std::vector<int16_t>& input, std::ostream& out)
{
    Config plain; // the library's own defaults: fixed playout, no concealment, no FEC
    out << "{\"frame_ms\": " << FRAME_MS << ", \"input_seconds\": " << input.size() / 16000.0
        << ", \"default_delays\": [" << RECEIVER_DEFAULT_DELAYS_MS[0] << ", " << RECEIVER_DEFAULT_DELAYS_MS[1]
        << ", " << RECEIVER_DEFAULT_DELAYS_MS[2] << ", " << RECEIVER_DEFAULT_DELAYS_MS[3] << "], \"policy_delays\": ["
        << POLICY_DELAYS_MS[0] << ", " << POLICY_DELAYS_MS[1] << ", " << POLICY_DELAYS_MS[2] << ", "
        << POLICY_DELAYS_MS[3] << "], \"max_depth_ms\": " << MAX_DEPTH_MS << ", \"plateau_depths\": "
        << PLATEAU_DEPTHS << ", \"too_old_target\": " << TOO_OLD_TARGET << ", \"concealment_ms\": "
        << CONCEALMENT_MS << ",\n  \"scenarios\": [";
    bool first = true;
    for (const SweepScenario& s : playoutScenarios()) {
        Config config = plain;
        config.network = s.network;
        if (s.changing) {
            config.scenario = splice(input, plain, s);
            config.useScenario = true;
        }
        out << (first ? "\n  " : ",\n  ");
        writeScenario(out, s, measure(input, config, s.changing));
        out.flush();
        first = false;
    }
    out << "]}\n";
}

} // namespace sonranetsim
