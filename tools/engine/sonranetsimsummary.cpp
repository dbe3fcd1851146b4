#include "sonranetsimtool.h"

#include "sonralistening.h"
#include "sonraoptions.h"

#include <cstdio>

namespace sonranetsim {

namespace {

using sonratool::decibels;
using sonratool::percentOf;

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

} // namespace

void printSummary(const NetsimOptions& options, const Result& result)
{
    const Config& config = options.config;
    const NetworkModel& model = config.network;
    const Summary& s = result.summary;
    std::printf("%s -> %s: %u Hz, %u ms frames, %s\n", options.input.c_str(), options.output.c_str(),
                config.sampleRate, config.frameDuration,
                config.codec == Codec::Opus ? "Opus" : "PCM");
    if (config.useScenario)
        std::printf("network: scenario of %zu lines\n", config.scenario.size());
    else
        std::printf("network: seed %llu, loss %.1f%% in bursts of %.1f, delay %.0f ms + %s jitter %.0f ms, "
                    "reorder %.1f%% by %.0f ms, duplicates %.1f%%, spikes %.1f%% of %.0f ms\n",
                    static_cast<unsigned long long>(model.seed), model.lossRate * 100, model.burstLength,
                    model.baseDelay, jitterName(model.jitterKind), model.jitter, model.reorderRate * 100,
                    model.reorderDelay, model.duplicateRate * 100, model.spikeRate * 100, model.spikeHeight);
    const unsigned* delays = config.jitterBuffer.delays;
    std::printf("jitter buffer: initial %u, min %u, max %u, extra %u ms, %s playout, recovery %s\n", delays[0],
                delays[1], delays[2], delays[3], sonratool::playoutPolicyName(config.jitterBuffer.policy),
                config.jitterBuffer.recovery ? "on" : "off");
    if (config.codec == Codec::Opus)
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
    std::printf("playout deeper, shallower %8llu %llu (held %llu, skipped %llu; depth now %u)\n",
                static_cast<unsigned long long>(j.switchesDeeper), static_cast<unsigned long long>(j.switchesShallower),
                static_cast<unsigned long long>(j.framesHeld), static_cast<unsigned long long>(j.framesSkipped),
                j.playedDepth);
    std::printf("time-stretched frames     %8llu %llu (played over two periods before a climb; of the\n"
                "                          skipped, played with the next in one period)\n\n",
                static_cast<unsigned long long>(j.framesExpanded), static_cast<unsigned long long>(j.framesAccelerated));
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
    const Listening heard = listeningOf(result, config);
    std::printf("E-model                   MOS %.2f, R %.1f (mouth to ear %.1f ms; packets FEC rebuilt %u, frames\n"
                "                          concealed %u; unheard %.1f%% of the packets, burst ratio %.2f)\n",
                heard.rating.mos, heard.rating.r, heard.mouthToEarMs, heard.rebuilt, heard.concealed,
                heard.lossPercent, heard.burstRatio);
}

} // namespace sonranetsim
