// The resampler and noise suppression nodes against their bare SpeexDSP
// calls, per 20 ms frame, on the same data. Compare each Node benchmark with
// its Bare twin of the same arguments: the difference is the node's own
// cost (input lookup, output allocation, channel split).
//
// The node is driven through doProcess() directly, its input being the
// frame a source node published in one pipe cycle, so that the figures hold
// the node alone and not the pipe's scheduling.
#include "sonradevnode.h"
#include "sonranoisesupressnode.h"
#include "sonraresamplernode.h"

#include <speex/speex_preprocess.h>
#include <speex/speex_resampler.h>

#include "benchratio.h"

#include <benchmark/benchmark.h>

#include <boost/make_shared.hpp>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

using namespace ombrel;

namespace {

typedef boost::shared_ptr<std::vector<char> > Frame;

const unsigned FRAME_MS = 20;
const std::size_t SCENE_FRAMES = 50; // one second of different frames

boost::shared_ptr<boost::asio::io_service> ioService()
{
    static auto service = boost::make_shared<boost::asio::io_service>();
    return service;
}

// A second of a voice-like signal: two tones and some noise, interleaved.
std::vector<int16_t> scene(unsigned rate, unsigned channels)
{
    std::mt19937 generator(1);
    std::uniform_int_distribution<int> noise(-1500, 1500);
    std::vector<int16_t> samples(static_cast<std::size_t>(rate) * channels);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double t = double(i / channels) / rate;
        samples[i] = static_cast<int16_t>(6000 * std::sin(2 * M_PI * 220 * t) + 3000 * std::sin(2 * M_PI * 1700 * t) +
                                          noise(generator));
    }
    return samples;
}

// A pipe whose source publishes `frame` once, so that `node` finds it as its
// input for as long as the benchmark calls doProcess().
struct NodeUnderTest {
    NodeUnderTest(boost::shared_ptr<SonraNode> node, Frame frame, unsigned rate, unsigned channels)
        : pipe(boost::make_shared<SonraPipe>(FRAME_MS)), node(node)
    {
        auto source = boost::make_shared<SonraDevNode>([frame]() { return frame; }, ioService(), FRAME_MS, rate);
        source->setOutputChannels(channels);
        node->setOutputChannels(channels);
        pipe->connect(source, node);
        pipe->processFrame();
    }
    ~NodeUnderTest() { pipe->clear(); }

    boost::shared_ptr<SonraPipe> pipe;
    boost::shared_ptr<SonraNode> node;
};

// Each iteration first copies the next frame of the scene into the input
// buffer, in both twins: a source writes a new frame every cycle, and the
// noise suppressor works in place.

// ------------------------------------------------------------- resampler

// Arguments: input rate, output rate, channels.
void BM_ResamplerBare(benchmark::State& state)
{
    const unsigned inRate = state.range(0), outRate = state.range(1), channels = state.range(2);
    const std::vector<int16_t> input = scene(inRate, channels);
    const std::size_t frame = inRate * FRAME_MS / 1000;
    int error = 0;
    SpeexResamplerState* resampler =
        speex_resampler_init(channels, inRate, outRate, SonraResamplerNode::RESAMPLE_QUALITY, &error);
    std::vector<int16_t> in(frame * channels);
    std::vector<int16_t> output(2 * frame * outRate / inRate * channels + 16);
    std::size_t k = 0;
    for (auto _ : state) {
        std::memcpy(in.data(), input.data() + (k++ % SCENE_FRAMES) * frame * channels, in.size() * 2);
        spx_uint32_t inLen = frame, outLen = output.size() / channels;
        speex_resampler_process_interleaved_int(resampler, in.data(), &inLen, output.data(), &outLen);
        benchmark::DoNotOptimize(output.data());
        benchmark::ClobberMemory();
    }
    speex_resampler_destroy(resampler);
}

void BM_ResamplerNode(benchmark::State& state)
{
    const unsigned inRate = state.range(0), outRate = state.range(1), channels = state.range(2);
    const std::vector<int16_t> input = scene(inRate, channels);
    const std::size_t frame = inRate * FRAME_MS / 1000;
    const Frame in = boost::make_shared<std::vector<char> >(frame * channels * 2);
    NodeUnderTest graph(boost::make_shared<SonraResamplerNode>(ioService(), inRate, outRate, FRAME_MS), in, inRate,
                        channels);
    std::size_t k = 0;
    for (auto _ : state) {
        std::memcpy(in->data(), input.data() + (k++ % SCENE_FRAMES) * frame * channels, in->size());
        Frame out = graph.node->doProcess();
        benchmark::DoNotOptimize(out->data());
        benchmark::ClobberMemory();
    }
}

// --------------------------------------------------------- noise suppression

// Arguments: rate, channels.
void BM_NoiseSupressBare(benchmark::State& state)
{
    const unsigned rate = state.range(0), channels = state.range(1);
    const std::size_t frame = rate * FRAME_MS / 1000;
    // The scene's channels, each on its own, as the bare call wants them.
    const std::vector<int16_t> interleaved = scene(rate, channels);
    std::vector<int16_t> input(interleaved.size());
    for (std::size_t f = 0; f < SCENE_FRAMES; ++f)
        for (unsigned c = 0; c < channels; ++c)
            for (std::size_t i = 0; i < frame; ++i)
                input[(f * channels + c) * frame + i] = interleaved[(f * frame + i) * channels + c];
    std::vector<SpeexPreprocessState*> preprocessors;
    for (unsigned c = 0; c < channels; ++c) {
        SpeexPreprocessState* preprocess = speex_preprocess_state_init(frame, rate);
        spx_int32_t on = 1;
        speex_preprocess_ctl(preprocess, SPEEX_PREPROCESS_SET_DENOISE, &on);
        speex_preprocess_ctl(preprocess, SPEEX_PREPROCESS_SET_DEREVERB, &on);
        preprocessors.push_back(preprocess);
    }
    std::vector<int16_t> buffer(frame * channels);
    std::size_t k = 0;
    for (auto _ : state) {
        std::memcpy(buffer.data(), input.data() + (k++ % SCENE_FRAMES) * frame * channels, buffer.size() * 2);
        for (unsigned c = 0; c < channels; ++c)
            speex_preprocess_run(preprocessors[c], buffer.data() + c * frame);
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
    for (SpeexPreprocessState* preprocess : preprocessors)
        speex_preprocess_state_destroy(preprocess);
}

void BM_NoiseSupressNode(benchmark::State& state)
{
    const unsigned rate = state.range(0), channels = state.range(1);
    const std::size_t frame = rate * FRAME_MS / 1000;
    const std::vector<int16_t> input = scene(rate, channels);
    const Frame in = boost::make_shared<std::vector<char> >(frame * channels * 2);
    NodeUnderTest graph(boost::make_shared<SonraNoiseSupressNode>(ioService(), FRAME_MS, rate), in, rate, channels);
    std::size_t k = 0;
    for (auto _ : state) {
        std::memcpy(in->data(), input.data() + (k++ % SCENE_FRAMES) * frame * channels, in->size());
        Frame out = graph.node->doProcess();
        benchmark::DoNotOptimize(out->data());
        benchmark::ClobberMemory();
    }
}

} // namespace

BENCHMARK(BM_ResamplerBare)->Args({16000, 48000, 1})->Args({48000, 16000, 1})->Args({16000, 48000, 2})->Args({48000, 16000, 2});
BENCHMARK(BM_ResamplerNode)->Args({16000, 48000, 1})->Args({48000, 16000, 1})->Args({16000, 48000, 2})->Args({48000, 16000, 2});
SONRA_BASELINE(BM_ResamplerNode, "resampler node (from Hz, to Hz, channels)", BM_ResamplerBare, "speex_resampler");
BENCHMARK(BM_NoiseSupressBare)->Args({16000, 1})->Args({48000, 1})->Args({16000, 2})->Args({48000, 2});
BENCHMARK(BM_NoiseSupressNode)->Args({16000, 1})->Args({48000, 1})->Args({16000, 2})->Args({48000, 2});
SONRA_BASELINE(BM_NoiseSupressNode, "noise suppression node (Hz, channels)", BM_NoiseSupressBare, "speex_preprocess_run");
