// Mixer and volume nodes against the plain loops they replace, on the same
// data in the same process: the ratio of the two is the node layer's cost.
// Common case: limiter gain at 1.0, no sample near full scale.
#include "sonramixernode.h"
#include "sonravolumenode.h"
#include "sonradevnode.h"

#include "benchratio.h"

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

using namespace ombrel;

namespace {

const unsigned FRAME_MS = 20;
const unsigned RATE = 48000;                          // Hz, of the volume benchmarks
const unsigned SAMPLES = RATE * FRAME_MS / 1000;      // per channel in a frame

std::vector<int16_t> quietNoise(std::size_t count, unsigned seed)
{
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> sample(-800, 800); // 32 of them stay far below full scale
    std::vector<int16_t> samples(count);
    for (auto& s : samples)
        s = int16_t(sample(random));
    return samples;
}

boost::shared_ptr<std::vector<char> > frameOf(const std::vector<int16_t>& samples)
{
    auto frame = boost::make_shared<std::vector<char> >(samples.size() * 2);
    std::memcpy(frame->data(), samples.data(), frame->size());
    return frame;
}

// The baseline: a fresh output frame holding the saturated int sum.
// Arguments of both mixer benchmarks: inputs, sample rate (Hz).
void plainSaturatingSum(benchmark::State& state)
{
    const unsigned inputs = unsigned(state.range(0));
    const unsigned samples = unsigned(state.range(1)) * FRAME_MS / 1000;
    std::vector<boost::shared_ptr<std::vector<char> > > frames;
    for (unsigned n = 0; n < inputs; ++n)
        frames.push_back(frameOf(quietNoise(samples, n)));
    for (auto _ : state) {
        auto out = boost::make_shared<std::vector<char> >(samples * 2);
        int16_t* o = reinterpret_cast<int16_t*>(out->data());
        for (unsigned i = 0; i < samples; ++i) {
            int32_t sum = 0;
            for (const auto& frame : frames)
                sum += reinterpret_cast<const int16_t*>(frame->data())[i];
            o[i] = int16_t(std::min(32767, std::max(-32768, sum)));
        }
        benchmark::DoNotOptimize(out);
    }
}

void mixerNode(benchmark::State& state)
{
    const unsigned inputs = unsigned(state.range(0)), rate = unsigned(state.range(1));
    auto io = boost::make_shared<boost::asio::io_service>();
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    auto mixer = boost::make_shared<SonraMixerNode>(io, FRAME_MS, rate);
    for (unsigned n = 0; n < inputs; ++n) {
        auto frame = frameOf(quietNoise(rate * FRAME_MS / 1000, n));
        pipe->connect(boost::make_shared<SonraDevNode>([frame]() { return frame; }, io, FRAME_MS, rate), mixer);
    }
    pipe->processFrame(); // the sources' outputs now stand; time the mixer alone
    for (auto _ : state)
        benchmark::DoNotOptimize(mixer->doProcess());
}

const unsigned STEREO = 2;

// The baseline: scale every sample in place, rounding halves away from zero
// and saturating. The frame is refreshed each time in both benchmarks.
void plainScaleLoop(benchmark::State& state)
{
    const float volume = float(state.range(0)) / 100.0f;
    const std::vector<int16_t> source = quietNoise(SAMPLES * STEREO, 1);
    auto frame = frameOf(source);
    for (auto _ : state) {
        std::memcpy(frame->data(), source.data(), frame->size());
        int16_t* s = reinterpret_cast<int16_t*>(frame->data());
        for (std::size_t k = 0; k < source.size(); ++k) {
            const float x = s[k] * volume;
            const int32_t r = int32_t(x + (x >= 0 ? 0.5f : -0.5f));
            s[k] = int16_t(std::min(32767, std::max(-32768, r)));
        }
        benchmark::DoNotOptimize(frame->data());
    }
}

void volumeNode(benchmark::State& state)
{
    const float volume = float(state.range(0)) / 100.0f;
    const std::vector<int16_t> source = quietNoise(SAMPLES * STEREO, 1);
    auto frame = frameOf(source);
    auto io = boost::make_shared<boost::asio::io_service>();
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    auto node = boost::make_shared<SonraVolumeNode>(io, FRAME_MS, RATE);
    node->setOutputChannels(STEREO);
    node->setVolume(volume);
    pipe->connect(boost::make_shared<SonraDevNode>([frame]() { return frame; }, io, FRAME_MS, RATE), node);
    pipe->processFrame();
    for (auto _ : state) {
        std::memcpy(frame->data(), source.data(), frame->size());
        benchmark::DoNotOptimize(node->doProcess());
    }
}

} // namespace

BENCHMARK(plainSaturatingSum)->ArgsProduct({{2, 16, 64}, {8000, 16000, 48000}});
BENCHMARK(mixerNode)->ArgsProduct({{2, 16, 64}, {8000, 16000, 48000}});
SONRA_BASELINE(mixerNode, "mixer node (inputs, Hz)", plainSaturatingSum, "saturating sum loop");
// Volume in percent: unity and a typical attenuation.
BENCHMARK(plainScaleLoop)->Arg(100)->Arg(80);
BENCHMARK(volumeNode)->Arg(100)->Arg(80);
SONRA_BASELINE(volumeNode, "volume node (percent, 48 kHz stereo)", plainScaleLoop, "scale loop");
