// sonra-call: a voice call, or a conference, of parties that each run a
// whole client's graph (microphone through noise suppression, volume, Opus
// and sender; receivers with their jitter buffers, decoders, a mixer with a
// notification sound, volume and playback), joined by the seeded network
// model of sonra-netsim. Writes what every party heard, a report picture,
// and prints a summary per party. The call itself is the engine's
// (sonracallrun.h); this is its command line.
#include "sonracall.h"
#include "sonracallrun.h"
#include "sonraoptions.h"

#include "shared.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

using sonracall::FRAME_MS;
using sonratool::UsageError;

const char* const USAGE =
    "usage: sonra-call [options]\n"
    "\n"
    "Runs a voice call (or a conference) between parties that each run a whole client:\n"
    "microphone, noise suppression, volume, Opus encoder (with in-band FEC) and sender; per\n"
    "peer a receiver with its adaptive jitter buffer and an Opus decoder that conceals short\n"
    "gaps and rebuilds lost packets from FEC; a mixer with a notification sound; volume and\n"
    "playback. A seeded network model joins every two parties. The call runs faster than\n"
    "real time on virtual devices and gives the same result for the same seed. The summary\n"
    "rates every direction with the E-model (MOS, R) from its mouth-to-ear delay and the\n"
    "loss left after FEC and concealment.\n"
    "\n"
    "parties:\n"
    "  --parties N            parties in the call (2)\n"
    "  --input FILE           a party's microphone, any sound file libsndfile reads; once per\n"
    "                         party, in order (default: speech espeak-ng makes, one voice each)\n"
    "  --seconds S            length of the call before the hang-up (the longest input)\n"
    "  --voice P:V            pitch party P's voice: lower, lowest, higher or highest\n"
    "  --reverb P             an echo on party P's voice\n"
    "  --haas P:MS            party P hears in stereo, widened by a Haas delay of MS ms\n"
    "  --hold FILE            hold music every party hears, looped, under the call\n"
    "  --echo P[:MS[,DB]]     party P on loudspeakers in a simulated room: what it hears comes back\n"
    "                         into its microphone MS ms later (40), DB loud (-6), with a 300 ms tail\n"
    "  --aec on|off           the device's echo canceller for parties on --echo (on)\n"
    "network (every direction between two parties is one leg):\n"
    "  --seed N               seed of the first leg; leg k draws from N + k (1)\n"
    "  --loss PCT             long-run packet loss (0)\n"
    "  --burst N              mean loss burst length, packets (1)\n"
    "  --delay MS             base one-way delay (20)\n"
    "  --jitter MS            normal jitter, standard deviation (0)\n"
    "  --scenario FILE        replay a scenario on every leg, as sonra-netsim --scenario\n"
    "  --delays I,MIN,MAX,X   jitter buffer delays, ms (80,20,400,300; with --plain the receiver's own)\n"
    "  --recovery on|off      jitter buffers re-anchor on a restarted or re-numbered stream (on)\n"
    "  --policy fixed|adaptive|histogram  jitter buffers play the initial delay, or follow the\n"
    "                         network: on recent too-old frames (adaptive), or also on a long\n"
    "                         histogram of lateness and recurring delay peaks (histogram)\n"
    "  --stretch on|off       Opus: the jitter buffers' moves play speech slower or faster\n"
    "                         instead of holding or skipping a frame (on)\n"
    "  --plc MS               the Opus decoders conceal up to MS of each gap (60; 0: none)\n"
    "  --fec PCT              Opus in-band FEC set for PCT % loss, and decoders that wait a frame\n"
    "                         to rebuild a lost packet from its successor (10; 0: none)\n"
    "  --plain                the library's own defaults instead of the listener's: fixed policy\n"
    "                         at the receiver's own delays,\n"
    "                         no stretching, no concealment, no FEC (options still apply on top)\n"
    "  --rtp                  RTP with the RTP nodes instead of the own format: every packet passes\n"
    "                         the network model above, then crosses a UDP socket on 127.0.0.1\n"
    "  --codec C              with --rtp: opus (payload type 96, 48 kHz RTP clock), pcma or pcmu\n"
    "                         (G.711, 8000 Hz) (opus)\n"
    "real time:\n"
    "  --realtime             every pipe on its own timer, each party on a virtual device, party 1\n"
    "                         on the sound card when there is one (default: stepped, faster than\n"
    "                         real time, the same result for the same seed)\n"
    "  --capture NAME         with --realtime: party 1's capture device (sonra-monitor --list)\n"
    "  --playback NAME        with --realtime: party 1's playback device\n"
    "output:\n"
    "  --out DIR              where the outputs go (sonra-call-out)\n"
    "  --no-report            no call-report.png\n"
    "  --quiet                no summary\n";

// One updating line on a terminal, for calls longer than a few seconds.
struct Progress {
    static const unsigned SHOWN_AFTER_MS = 5000;  // calls shorter than this show no progress
    static const unsigned FRAMES_PER_UPDATE = 25; // graph frames between updates (half a second)
    explicit Progress(unsigned frames) : frames(frames), shown(::isatty(1) && frames * FRAME_MS > SHOWN_AFTER_MS) {}
    void operator()(unsigned frame)
    {
        if (!shown || (frame + 1) % FRAMES_PER_UPDATE != 0)
            return;
        std::printf("\rcall: %.1f of %.1f s", (frame + 1) * FRAME_MS / 1000.0, frames * FRAME_MS / 1000.0);
        std::fflush(stdout);
    }
    ~Progress()
    {
        if (shown)
            std::printf("\r%40s\r", "");
    }
    unsigned frames;
    bool shown;
};

void printLeg(const sonracall::LegRecord& leg)
{
    if (leg.rtp) {
        std::printf("  from party %u over RTP: sent %u, lost %u, received %u, late %llu, played %u; concealed %llu ms\n",
                    leg.from + 1, leg.rtpSent, leg.lost, leg.rtpReceived, static_cast<unsigned long long>(leg.late),
                    leg.played, static_cast<unsigned long long>(leg.concealedMs));
        return;
    }
    std::printf("  from party %u: sent %u, lost %u, late %llu, played %u (%llu time-stretched); jitter buffer "
                "%.1f ms mean, %.1f ms p95; heard vs said %s\n",
                leg.from + 1, leg.sent, leg.lost, static_cast<unsigned long long>(leg.late), leg.played,
                static_cast<unsigned long long>(leg.stretched), leg.meanResidenceMs, leg.p95ResidenceMs, sonratool::decibels(leg.snrDb).c_str());
    std::printf("    MOS %.2f (E-model R %.1f): mouth to ear %.0f ms; FEC rebuilt %u, concealed %u frames; "
                "unheard %.1f%%, burst ratio %.2f\n",
                leg.mos, leg.r, leg.mouthToEarMs, leg.rebuilt, leg.concealed, leg.lossPercent, leg.burstRatio);
}

// Less far-end single talk than this is mostly the tail of an echo whose
// voice was played before it: its figures would mislead.
const unsigned MEASURED_ECHO_MS = 500;

void printEcho(const sonracall::EchoRecord& echo)
{
    std::printf("  on loudspeakers, echo %u ms at %.1f dB, ", echo.delayMs, echo.gainDb);
    if (echo.singleTalkMs < MEASURED_ECHO_MS) {
        std::printf("%s canceller: too little echo came back while the party was silent to measure (%.1f s)\n",
                    echo.engine.empty() ? "no" : echo.engine.c_str(), echo.singleTalkMs / 1000.0);
        return;
    }
    if (echo.engine.empty())
        std::printf("no canceller");
    else if (echo.convergenceMs < 0)
        std::printf("%s canceller: enhancement %.1f dB, never 20 dB", echo.engine.c_str(), echo.erleDb);
    else
        std::printf("%s canceller: enhancement %.1f dB after converging in %.2f s", echo.engine.c_str(), echo.erleDb,
                    echo.convergenceMs / 1000.0);
    std::printf("; the far end heard its own voice %.1f dB below its speech (over %.1f s of it alone)\n",
                echo.farEndBelowSpeechDb, echo.singleTalkMs / 1000.0);
}

// Every file the call left in the output folder, and what it holds.
void printOutputs(const sonracall::CallOptions& options, const sonracall::CallRecord& call)
{
    const std::string& dir = options.outDir;
    std::printf("\noutputs in %s/: party-N.wav (what party N heard), call.ogg (party 1's side of the call)",
                dir.c_str());
    if (options.inputs.size() < call.parties.size())
        std::printf(", speech-N.wav (what party N said, spoken by espeak-ng where no --input was given)");
    std::printf(", notification.wav (the chime each party hears as the call starts)");
    if (options.report) {
        const bool echo = std::any_of(call.parties.begin(), call.parties.end(),
                                      [](const sonracall::PartyRecord& party) { return party.echo.loudspeakers; });
        std::printf(", call-report.png (levels, losses, jitter buffer%s over time), call-report.dat and "
                    "call-report.dat.gp (its data and gnuplot script: \"gnuplot %s/call-report.dat.gp\" draws it "
                    "again, from any folder)",
                    echo ? ", echo" : "", dir.c_str());
    }
    std::printf("\n");
}

void printSummary(const sonracall::CallRecord& call)
{
    for (std::size_t p = 0; p < call.parties.size(); ++p) {
        const sonracall::PartyRecord& party = call.parties[p];
        std::printf("party %zu  said %s, heard -> %s\n", p + 1, party.said.c_str(), party.heard.c_str());
        for (const sonracall::LegRecord& leg : party.legs)
            printLeg(leg);
        if (party.echo.loudspeakers)
            printEcho(party.echo);
        std::printf("  limiter cut in %u of %zu frames\n", party.limitedFrames, party.frames);
    }
}

int callAndReport(const sonracall::CallOptions& options)
{
    std::unique_ptr<Progress> progress;
    const sonracall::CallRecord call = sonracall::runCall(options, [&progress](unsigned frame, unsigned frames) {
        if (!progress)
            progress.reset(new Progress(frames));
        (*progress)(frame);
    });
    progress.reset();
    if (!options.quiet)
        printSummary(call);
    if (options.report) {
        std::vector<bool> loudspeakers;
        for (const sonracall::PartyRecord& party : call.parties)
            loudspeakers.push_back(party.echo.loudspeakers);
        sonracall::plotReport(call.reportData, unsigned(call.parties.size()), options.outDir + "/call-report.png",
                              loudspeakers);
    }
    if (!options.quiet)
        printOutputs(options, call);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    ombrel::setLogSink([](const ombrel::LogRecord&) {}); // the tool says what went wrong itself
    sonracall::CallOptions options;
    try {
        options = sonracall::parseCallOptions(argc, argv);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "sonra-call: %s (--help lists the options)\n", error.what());
        return 2;
    }
    if (options.help) {
        std::cout << USAGE;
        return 0;
    }
    try {
        return callAndReport(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sonra-call: %s\n", error.what());
        return 1;
    }
}
