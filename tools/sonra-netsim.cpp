// sonra-netsim: plays a sound file through the own-format voice path
// (Opus encoder, sender, a simulated network, receiver with its jitter
// buffer, Opus decoder, mixer) and writes what a listener would hear, with
// a summary of what the network and the jitter buffer did.
#include "sonranetsimsweep.h"
#include "sonranetsimtool.h"
#include "sonraoptions.h"
#include "sonrasoundfile.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using sonratool::readMono;
using sonratool::writeWav;
using sonratool::UsageError;

// The receiver's own delays, as the help states them.
std::string defaultDelays(const unsigned (&d)[4])
{
    return std::to_string(d[0]) + "," + std::to_string(d[1]) + "," + std::to_string(d[2]) + "," + std::to_string(d[3]);
}

const std::string USAGE =
    "usage: sonra-netsim INPUT OUTPUT.wav [options]\n"
    "       sonra-netsim INPUT --sweep FILE.json\n"
    "\n"
    "Plays INPUT (any sound file libsndfile reads; mixed to mono, resampled to --rate)\n"
    "through encoder, sender, simulated network, receiver, decoder and mixer, and\n"
    "writes the result to OUTPUT.wav (16-bit mono). Deterministic for a given seed.\n"
    "\n"
    "path:\n"
    "  --rate HZ              sample rate of the path: 8000, 12000, 16000, 24000, 48000 (16000)\n"
    "  --frame MS             graph frame and packet duration, ms: 5, 10, 20, 60 (20);\n"
    "                         with pcm, any duration that divides " + std::to_string(sonranetsim::RECEIVER_DEFAULT_DELAYS_MS[0]) + "\n"
    "  --codec opus|pcm       pcm sends the samples themselves, to judge network and buffer alone (opus)\n"
    "  --delays I,MIN,MAX,X   jitter buffer delays, ms: initial, minimum, maximum, extra jitter\n"
    "                         (" + defaultDelays(sonratool::LISTENER_DELAYS_MS) + "; with --plain " +
    defaultDelays(sonranetsim::RECEIVER_DEFAULT_DELAYS_MS) + "); multiples of the frame duration\n"
    "  --policy fixed|adaptive|histogram  fixed plays the initial delay; adaptive the shallowest\n"
    "                         delay whose recent share of too-old frames stays under 1%;\n"
    "                         histogram also keeps a high quantile of a long histogram of\n"
    "                         lateness and the height of recurring delay peaks (histogram)\n"
    "  --recovery on|off      re-anchor on a restarted or re-numbered stream; never let one\n"
    "                         stray datagram move the stream (on)\n"
    "  --stretch on|off       Opus: the policy's moves play speech slower or faster instead of\n"
    "                         holding or skipping a frame (on)\n"
    "  --plc MS               Opus: conceal up to MS of each gap in the played packets (60; 0: none)\n"
    "  --fec PCT              Opus: in-band FEC set for PCT % loss, and a decoder that waits a frame\n"
    "                         for each packet's successor to rebuild a lost packet from it (10; 0: none)\n"
    "  --plain                the library's own defaults instead of the listener's: fixed policy\n"
    "                         at the receiver's own delays,\n"
    "                         no stretching, no concealment, no FEC (options after it still apply)\n"
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
    "  --sweep FILE.json      instead of one run to OUTPUT.wav: the playout matrix on INPUT (seeded\n"
    "                         scenarios; defaults, fixed depths, the adaptive policy, with and\n"
    "                         without concealment), every run's figures as JSON (scripts/playout-matrix)\n"
    "  --quiet                no summary\n";

int sweep(const sonranetsim::NetsimOptions& options)
{
    std::ofstream out(options.sweep);
    sonranetsim::writeSweep(readMono(options.input, 16000), out);
    if (!out.flush())
        throw std::runtime_error("cannot write " + options.sweep);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    sonranetsim::NetsimOptions options;
    try {
        options = sonranetsim::parseNetsimOptions(argc, argv);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "sonra-netsim: %s\n\n%s", error.what(), USAGE.c_str());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sonra-netsim: %s\n", error.what());
        return 1;
    }
    if (options.help) {
        std::cout << USAGE;
        return 0;
    }
    try {
        if (!options.sweep.empty())
            return sweep(options);
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
            sonranetsim::printSummary(options, result);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sonra-netsim: %s\n", error.what());
        return 1;
    }
    return 0;
}
