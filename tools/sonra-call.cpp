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
    "network (every direction between two parties is one leg):\n"
    "  --seed N               seed of the first leg; leg k draws from N + k (1)\n"
    "  --loss PCT             long-run packet loss (0)\n"
    "  --burst N              mean loss burst length, packets (1)\n"
    "  --delay MS             base one-way delay (20)\n"
    "  --jitter MS            normal jitter, standard deviation (0)\n"
    "  --scenario FILE        replay a scenario on every leg, as sonra-netsim --scenario\n"
    "  --delays I,MIN,MAX,X   jitter buffer delays, ms (the receiver's own defaults)\n"
    "  --recovery on|off      jitter buffers re-anchor on a restarted or re-numbered stream (on)\n"
    "  --policy fixed|adaptive  jitter buffers play the initial delay, or follow the network (adaptive)\n"
    "  --plc MS               the Opus decoders conceal up to MS of each gap (60; 0: none)\n"
    "  --fec PCT              Opus in-band FEC set for PCT % loss, and decoders that wait a frame\n"
    "                         to rebuild a lost packet from its successor (10; 0: none)\n"
    "  --plain                the library's own defaults instead of the listener's: fixed policy,\n"
    "                         no concealment, no FEC (options still apply on top)\n"
    "  --rtp                  G.711 over RTP with the RTP nodes, through UDP sockets on 127.0.0.1:\n"
    "                         the sockets are the network; the model above does not apply\n"
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
        std::printf("  from party %u over RTP: sent %u datagrams, received %u\n", leg.from + 1, leg.rtpSent,
                    leg.rtpReceived);
        return;
    }
    std::printf("  from party %u: sent %u, lost %u, late %llu, played %u; jitter buffer %.1f ms mean, "
                "%.1f ms p95; heard vs said %s\n",
                leg.from + 1, leg.sent, leg.lost, static_cast<unsigned long long>(leg.late), leg.played,
                leg.meanResidenceMs, leg.p95ResidenceMs, sonratool::decibels(leg.snrDb).c_str());
    std::printf("    MOS %.2f (E-model R %.1f): mouth to ear %.0f ms; FEC rebuilt %u, concealed %u frames; "
                "unheard %.1f%%, burst ratio %.2f\n",
                leg.mos, leg.r, leg.mouthToEarMs, leg.rebuilt, leg.concealed, leg.lossPercent, leg.burstRatio);
}

void printSummary(const sonracall::CallRecord& call)
{
    for (std::size_t p = 0; p < call.parties.size(); ++p) {
        const sonracall::PartyRecord& party = call.parties[p];
        std::printf("party %zu  said %s, heard -> %s\n", p + 1, party.said.c_str(), party.heard.c_str());
        for (const sonracall::LegRecord& leg : party.legs)
            printLeg(leg);
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
    if (options.report)
        sonracall::plotReport(call.reportData, unsigned(call.parties.size()), options.outDir + "/call-report.png");
    if (!options.quiet) {
        std::printf("\noutputs in %s/: party-N.wav (what party N heard), call.ogg (party 1's side of the call)",
                    options.outDir.c_str());
        std::printf(options.report ? ", call-report.png (levels, losses, jitter buffer over time)\n" : "\n");
    }
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
