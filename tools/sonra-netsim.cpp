// sonra-netsim: plays a sound file through the own-format voice path
// (Opus encoder, sender, a simulated network, receiver with its jitter
// buffer, Opus decoder, mixer) and writes what a listener would hear, with
// a summary of what the network and the jitter buffer did.
#include "sonratooloptions_p.h"
#include "sonranetsim.h"
#include "sonrasoundfile_p.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using sonratool::readMono;
using sonratool::writeWav;
using sonranetsim::Config;
using sonranetsim::JitterKind;

const char* const USAGE =
    "usage: sonra-netsim INPUT OUTPUT.wav [options]\n"
    "\n"
    "Plays INPUT (any sound file libsndfile reads; mixed to mono, resampled to --rate)\n"
    "through encoder, sender, simulated network, receiver, decoder and mixer, and\n"
    "writes the result to OUTPUT.wav (16-bit mono). Deterministic for a given seed.\n"
    "\n"
    "path:\n"
    "  --rate HZ              sample rate of the path: 8000, 12000, 16000, 24000, 48000 (16000)\n"
    "  --frame MS             graph frame and packet duration, ms: 5, 10, 20, 60 (20);\n"
    "                         with pcm, any duration that divides 60\n"
    "  --codec opus|pcm       pcm sends the samples themselves, to judge network and buffer alone (opus)\n"
    "  --delays I,MIN,MAX,X   jitter buffer delays, ms: initial, minimum, maximum, extra jitter\n"
    "                         (60,60,60,300); multiples of the frame duration\n"
    "  --policy fixed|adaptive|histogram  fixed plays the initial delay; adaptive the shallowest\n"
    "                         delay whose recent share of too-old frames stays under 1%; histogram\n"
    "                         as adaptive, also following a long-memory histogram of lateness and\n"
    "                         recurring delay peaks (fixed)\n"
    "  --recovery on|off      re-anchor on a restarted or re-numbered stream; never let one\n"
    "                         stray datagram move the stream (on)\n"
    "  --plc MS               Opus: conceal up to MS of each gap in the played packets (0: none)\n"
    "  --fec PCT              Opus: in-band FEC set for PCT %% loss, and a decoder that waits a frame\n"
    "                         for each packet's successor to rebuild a lost packet from it (0: none)\n"
    "network model:\n"
    "  --seed N               seed of every random draw (1)\n"
    "  --loss PCT             long-run packet loss (0)\n"
    "  --burst N              mean loss burst length, packets; 1 means independent losses (1)\n"
    "  --delay MS             base one-way delay (20)\n"
    "  --jitter MS            jitter scale (0)\n"
    "  --jitter-dist D        uniform (0..MS), normal (|N(0,MS)|), exp (mean MS) or pareto\n"
    "                         (minimum MS, shape 2) (normal)\n"
    "  --reorder PCT          packets held back by --reorder-delay (0)\n"
    "  --reorder-delay MS     (40)\n"
    "  --dup PCT              packets delivered twice (0)\n"
    "  --spike-rate PCT       chance per packet that a delay spike starts (0)\n"
    "  --spike MS             height of a spike; it drains at 1 ms per ms (200)\n"
    "replay and output:\n"
    "  --scenario FILE        replace the model by a scenario: one line per packet,\n"
    "                         \"SEQ SEND_MS ARRIVAL_MS\" or \"SEQ SEND_MS lost\"; each packet keeps\n"
    "                         its line's delay; a repeated SEQ is delivered again; packets no\n"
    "                         line names are lost\n"
    "  --write-scenario FILE  write the packets' fate as a scenario, to replay this run exactly\n"
    "  --trace FILE.csv       per-frame trace\n"
    "  --quiet                no summary\n";

using sonratool::UsageError;
using sonratool::number;
using sonratool::plain;
using sonratool::whole;
using sonratool::readMono;
using sonratool::writeWav;

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
    throw UsageError("--jitter-dist: expected uniform, normal, exp or pareto, got \"" + text + "\"");
}

struct Options {
    std::string input, output, trace, writeScenario;
    bool quiet = false;
    Config config;
};

// What the command line names but the parser settles only once it is read.
struct Pending {
    JitterKind jitterKind = JitterKind::Normal;
    std::string scenarioFile;
    std::vector<std::string> positional;
};

void parseDelays(const std::string& arg, const std::string& value, Config& config)
{
    std::string rest = value + ",";
    for (unsigned& delay : config.delays) {
        const std::string::size_type comma = rest.find(',');
        if (comma == std::string::npos)
            throw UsageError("--delays: expected four values, initial,min,max,extra");
        delay = whole(arg, rest.substr(0, comma), 0, 60000);
        rest.erase(0, comma + 1);
    }
    if (!rest.empty())
        throw UsageError("--delays: expected four values, initial,min,max,extra");
    config.setDelays = true;
}

bool pathOption(const std::string& arg, const std::string& value, Config& config)
{
    if (arg == "--rate")
        config.sampleRate = whole(arg, value, 8000, 48000);
    else if (arg == "--frame")
        config.frameDuration = whole(arg, value, 1, 60);
    else if (arg == "--codec") {
        if (value != "opus" && value != "pcm")
            throw UsageError("--codec: expected opus or pcm, got \"" + value + "\"");
        config.codec = value == "opus" ? sonranetsim::Codec::Opus : sonranetsim::Codec::Pcm;
    } else if (arg == "--delays")
        parseDelays(arg, value, config);
    else if (arg == "--policy") {
        if (value != "fixed" && value != "adaptive" && value != "histogram")
            throw UsageError("--policy: expected fixed, adaptive or histogram, got \"" + value + "\"");
        config.adaptivePlayout = value == "adaptive";
        config.histogramPlayout = value == "histogram";
    } else if (arg == "--recovery") {
        if (value != "on" && value != "off")
            throw UsageError("--recovery: expected on or off, got \"" + value + "\"");
        config.recovery = value == "on";
    } else if (arg == "--plc")
        config.concealment = whole(arg, value, 0, 60000);
    else if (arg == "--fec")
        config.fecLoss = whole(arg, value, 0, 100);
    else
        return false;
    return true;
}

bool networkOption(const std::string& arg, const std::string& value, sonranetsim::NetworkModel& model,
                   Pending& pending)
{
    if (arg == "--seed")
        model.seed = whole(arg, value, 0, 4294967295.0);
    else if (arg == "--loss")
        model.lossRate = number(arg, value, 0, 100) / 100;
    else if (arg == "--burst")
        model.burstLength = number(arg, value, 1, 1e6);
    else if (arg == "--delay")
        model.baseDelay = number(arg, value, 0, 60000);
    else if (arg == "--jitter")
        model.jitter = number(arg, value, 0, 60000);
    else if (arg == "--jitter-dist")
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

bool fileOption(const std::string& arg, const std::string& value, Options& options, Pending& pending)
{
    if (arg == "--scenario")
        pending.scenarioFile = value;
    else if (arg == "--write-scenario")
        options.writeScenario = value;
    else if (arg == "--trace")
        options.trace = value;
    else
        return false;
    return true;
}

void readArguments(int argc, char** argv, Options& options, Pending& pending)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::cout << USAGE;
            std::exit(0);
        }
        if (arg == "--quiet") {
            options.quiet = true;
            continue;
        }
        if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
            pending.positional.push_back(arg);
            continue;
        }
        if (i + 1 >= argc)
            throw UsageError(arg + ": missing value");
        const std::string value = argv[++i];
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
    if (config.codec == sonranetsim::Codec::Opus && rate != 8000 && rate != 12000 && rate != 16000 &&
        rate != 24000 && rate != 48000)
        throw UsageError("--rate: Opus takes 8000, 12000, 16000, 24000 or 48000 Hz");
    if (config.codec != sonranetsim::Codec::Opus && (config.concealment > 0 || config.fecLoss > 0))
        throw UsageError("--plc and --fec: with Opus only");
    const unsigned frame = config.frameDuration;
    // The receiver starts with delays of 60 and 300 ms at one packet per
    // frame, so its frame duration must divide 60 ms whatever --delays says.
    if (60 % frame != 0)
        throw UsageError("--frame: the receiver needs a frame duration that divides 60 ms");
    if (config.codec == sonranetsim::Codec::Opus && frame != 5 && frame != 10 && frame != 20 && frame != 60)
        throw UsageError("--frame: with Opus, 5, 10, 20 or 60 ms");
    const unsigned* delays = config.delays;
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
    if (!sonranetsim::parseScenario(in, config.scenario, error))
        throw std::runtime_error(path + ": " + error);
    config.useScenario = true;
}

Options parse(int argc, char** argv)
{
    Options options;
    Config& config = options.config;
    config.network.spikeHeight = 200;
    Pending pending;
    readArguments(argc, argv, options, pending);
    if (pending.positional.size() != 2)
        throw UsageError("expected INPUT and OUTPUT.wav");
    options.input = pending.positional[0];
    options.output = pending.positional[1];
    config.network.jitterKind = config.network.jitter > 0 ? pending.jitterKind : JitterKind::None;
    checkPath(config);
    if (!pending.scenarioFile.empty())
        loadScenario(pending.scenarioFile, config);
    return options;
}

std::string percentOf(unsigned part, unsigned whole)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f%%", whole ? 100.0 * part / whole : 0.0);
    return text;
}

std::string decibels(double value)
{
    if (std::isinf(value))
        return "exact";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f dB", value);
    return text;
}

const char* jitterName(JitterKind kind)
{
    switch (kind) {
    case JitterKind::Uniform: return "uniform";
    case JitterKind::Normal: return "normal";
    case JitterKind::Exponential: return "exponential";
    case JitterKind::Pareto: return "pareto";
    case JitterKind::None: break;
    }
    return "no";
}

void printSummary(const Options& options, const sonranetsim::Result& result)
{
    const Config& config = options.config;
    const sonranetsim::NetworkModel& model = config.network;
    const sonranetsim::Summary& s = result.summary;
    std::printf("%s -> %s: %u Hz, %u ms frames, %s\n", options.input.c_str(), options.output.c_str(),
                config.sampleRate, config.frameDuration,
                config.codec == sonranetsim::Codec::Opus ? "Opus" : "PCM");
    if (config.useScenario)
        std::printf("network: scenario of %zu lines\n", config.scenario.size());
    else
        std::printf("network: seed %llu, loss %.1f%% in bursts of %.1f, delay %.0f ms + %s jitter %.0f ms, "
                    "reorder %.1f%% by %.0f ms, duplicates %.1f%%, spikes %.1f%% of %.0f ms\n",
                    static_cast<unsigned long long>(model.seed), model.lossRate * 100, model.burstLength,
                    model.baseDelay, jitterName(model.jitterKind), model.jitter, model.reorderRate * 100,
                    model.reorderDelay, model.duplicateRate * 100, model.spikeRate * 100, model.spikeHeight);
    const unsigned* delays = config.delays;
    std::printf("jitter buffer: initial %u, min %u, max %u, extra %u ms, %s playout, recovery %s\n", delays[0],
                delays[1], delays[2], delays[3], config.histogramPlayout ? "histogram" : config.adaptivePlayout ? "adaptive" : "fixed",
                config.recovery ? "on" : "off");
    if (config.codec == sonranetsim::Codec::Opus)
        std::printf("decoder: concealment up to %u ms a gap, in-band FEC %s\n", config.concealment,
                    config.fecLoss > 0 ? ("for " + std::to_string(config.fecLoss) + "% loss").c_str() : "off");
    std::printf("\n");
    const ombrel::SonraJbufStatistics& j = s.jbuf;
    std::printf("packets sent              %8u\n", s.sent);
    std::printf("lost in the network       %8u  %s\n", s.lostInNetwork, percentOf(s.lostInNetwork, s.sent).c_str());
    std::printf("extra copies delivered    %8u\n", s.duplicatesSent);
    std::printf("late (refused as too old) %8llu\n", static_cast<unsigned long long>(j.framesTooOld));
    std::printf("refused, no place         %8llu\n", static_cast<unsigned long long>(j.framesUnnumbered));
    std::printf("dropped by the head       %8llu\n", static_cast<unsigned long long>(j.framesDropped));
    std::printf("duplicates in the buffer  %8llu\n", static_cast<unsigned long long>(j.duplicates));
    std::printf("played                    %8u  %s\n", s.played, percentOf(s.played, s.sent).c_str());
    std::printf("arrived, never played     %8u\n", s.neverPlayed);
    std::printf("underruns (frames)        %8llu\n", static_cast<unsigned long long>(j.underruns));
    std::printf("depth decreases           %8llu\n", static_cast<unsigned long long>(j.depthDecreases));
    std::printf("stray, resyncs            %8llu %llu\n", static_cast<unsigned long long>(j.framesStray),
                static_cast<unsigned long long>(j.resyncs));
    std::printf("playout deeper, shallower %8llu %llu (held %llu, skipped %llu; depth now %u)\n\n",
                static_cast<unsigned long long>(j.switchesDeeper), static_cast<unsigned long long>(j.switchesShallower),
                static_cast<unsigned long long>(j.framesHeld), static_cast<unsigned long long>(j.framesSkipped),
                j.playedDepth);
    std::printf("network delay             mean %.1f ms, 95th percentile %.1f ms\n", s.meanNetworkDelay,
                s.p95NetworkDelay);
    std::printf("send to playout delay     mean %.1f ms, 95th percentile %.1f ms, max %u ms\n", s.meanDelay,
                s.p95Delay, s.maxDelay);
    std::printf("SNR, frames aligned       %s (codec delay %d samples; lost frames count as silence)\n",
                decibels(s.snr).c_str(), s.codecDelay);
    std::printf("SNR, as heard             %s (one fixed lag of %d samples)\n", decibels(s.fixedLagSnr).c_str(),
                s.fixedLag);
    std::printf("log-spectral distance     %.2f dB (mean over %u frames of speech of 20 ms, each set against\n"
                "                          what was heard in its place; lower is better)\n",
                s.spectralDistance, s.spectralFrames);
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    try {
        options = parse(argc, argv);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "sonra-netsim: %s\n\n%s", error.what(), USAGE);
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sonra-netsim: %s\n", error.what());
        return 1;
    }
    try {
        const std::vector<int16_t> input = readMono(options.input, options.config.sampleRate);
        const sonranetsim::Result result = sonranetsim::simulate(input, options.config);
        writeWav(options.output, result.output, options.config.sampleRate);
        if (!options.trace.empty()) {
            std::ofstream trace(options.trace);
            sonranetsim::writeTrace(trace, result);
            if (!trace.flush())
                throw std::runtime_error("cannot write " + options.trace);
        }
        if (!options.writeScenario.empty()) {
            std::ofstream scenario(options.writeScenario);
            sonranetsim::writeScenario(scenario, result);
            if (!scenario.flush())
                throw std::runtime_error("cannot write " + options.writeScenario);
        }
        if (!options.quiet)
            printSummary(options, result);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sonra-netsim: %s\n", error.what());
        return 1;
    }
    return 0;
}
