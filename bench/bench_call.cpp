// A two-party call per 20 ms graph frame at 16 kHz, as sonra-call runs it
// (the engine's own call: device containers on stepped virtual devices,
// noise suppression, volume, Opus encoder, sender, the network link, and
// back through receiver, Opus decoder, mixer with the notification, volume
// and playback), against bare libopus encoding and decoding the same two
// frames. legs_per_core: how many such call legs (one party's whole path)
// one core runs in real time.
#include "sonracall.h"
#include "sonrasignal.h"
#include "sonrasoundfile.h"

#include "benchratio.h"

#include <benchmark/benchmark.h>

#include <opus.h>
#include <unistd.h>

#include <cstdio>

using sonracall::FRAME_MS;
using sonracall::FRAME_SAMPLES;
using sonracall::RATE;

namespace {

const unsigned PARTIES = 2;
const unsigned SPEECH_FRAMES = 6000; // 2 minutes of each party's voice, more than a run takes

std::vector<int16_t> speechOf(unsigned party)
{
    return sonratool::speechLike(RATE, SPEECH_FRAMES * FRAME_SAMPLES, 110.0 + 40 * party);
}

void legsPerCore(benchmark::State& state)
{
    // Graph frames per second of CPU, over the frames one real-time leg needs.
    state.counters["legs_per_core"] = benchmark::Counter(double(state.iterations()) * PARTIES / (1000.0 / FRAME_MS),
                                                         benchmark::Counter::kIsRate);
}

void BM_CallTwoParties(benchmark::State& state)
{
    sonracall::CallConfig config;
    config.notificationFile = "/tmp/bench_call_" + std::to_string(::getpid()) + ".wav";
    sonratool::writeWav(config.notificationFile, std::vector<int16_t>(FRAME_SAMPLES, 0), RATE);
    for (unsigned p = 0; p < PARTIES; ++p) {
        config.parties.emplace_back();
        config.parties.back().speech = speechOf(p);
    }
    config.frames = SPEECH_FRAMES;
    sonracall::Call call(config);
    unsigned frame = 0;
    for (auto _ : state)
        call.runFrame(frame++);
    legsPerCore(state);
    std::remove(config.notificationFile.c_str());
}

void BM_CallBareOpus(benchmark::State& state)
{
    std::vector<std::vector<int16_t> > speech;
    std::vector<OpusEncoder*> encoders;
    std::vector<OpusDecoder*> decoders;
    int error = OPUS_OK;
    for (unsigned p = 0; p < PARTIES; ++p) {
        speech.push_back(speechOf(p));
        encoders.push_back(opus_encoder_create(RATE, 1, OPUS_APPLICATION_VOIP, &error));
        decoders.push_back(opus_decoder_create(RATE, 1, &error));
    }
    unsigned char packet[4000];
    std::vector<int16_t> decoded(FRAME_SAMPLES);
    unsigned frame = 0;
    for (auto _ : state) {
        const std::size_t first = std::size_t(frame++ % SPEECH_FRAMES) * FRAME_SAMPLES;
        for (unsigned p = 0; p < PARTIES; ++p) {
            const int length = opus_encode(encoders[p], speech[p].data() + first, int(FRAME_SAMPLES), packet,
                                           sizeof packet);
            benchmark::DoNotOptimize(opus_decode(decoders[p], packet, length, decoded.data(), int(FRAME_SAMPLES), 0));
        }
    }
    legsPerCore(state);
    for (unsigned p = 0; p < PARTIES; ++p) {
        opus_encoder_destroy(encoders[p]);
        opus_decoder_destroy(decoders[p]);
    }
}

} // namespace

BENCHMARK(BM_CallTwoParties)->Unit(benchmark::kMicrosecond);
SONRA_BASELINE(BM_CallTwoParties, "a two-party call, both parties' whole paths", BM_CallBareOpus, "opus_encode + opus_decode, twice");
BENCHMARK(BM_CallBareOpus)->Unit(benchmark::kMicrosecond);
