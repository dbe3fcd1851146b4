// The effect nodes per 20 ms mono frame at 16 and 48 kHz, each against the
// bare work it wraps on the same data: the voice change node against
// SoundTouch's putSamples/receiveSamples, the mono-to-stereo and reverb
// nodes against a plain loop doing the same arithmetic on a ring buffer
// into a fresh output vector (the node, too, returns a new frame each time).
// Compare the pairs' times (same argument); nothing here asserts a time.
#include "sonradevnode.h"
#include "sonramonotostereonode.h"
#include "sonrareverbnode.h"
#include "sonravoicechangenode.h"

#include <SoundTouch.h>

#include "benchratio.h"
#include "sonrasignal.h"

#include <benchmark/benchmark.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

using namespace ombrel;

namespace {

const unsigned FRAME_MS = 20;

std::vector<int16_t> speechLikeSignal(std::size_t count)
{
    return sonratool::speechLike(16000, count); // Hz
}

boost::shared_ptr<std::vector<char> > frameOf(const std::vector<int16_t>& samples)
{
    auto frame = boost::make_shared<std::vector<char> >(samples.size() * 2);
    std::memcpy(frame->data(), samples.data(), frame->size());
    return frame;
}

// Holds a pipe whose source always delivers the same frame, run once so
// that the node under test finds it as its input; the benchmark then calls
// the node's doProcess() alone, as the pipe would each frame.
class Feed {
public:
    Feed(const boost::shared_ptr<SonraNode>& node, const std::vector<int16_t>& samples)
        : m_pipe(boost::make_shared<SonraPipe>(node->frameDuration()))
    {
        const auto frame = frameOf(samples);
        auto source = boost::make_shared<SonraDevNode>([frame]() { return frame; },
                                                       boost::make_shared<boost::asio::io_service>(),
                                                       node->frameDuration(), node->sampleRate());
        m_pipe->connect(source, node);
        m_pipe->processFrame();
    }
    ~Feed() { m_pipe->clear(); }

private:
    boost::shared_ptr<SonraPipe> m_pipe;
};

template <typename Node>
void runNode(benchmark::State& state, const boost::shared_ptr<Node>& node, std::size_t samples)
{
    Feed feed(node, speechLikeSignal(samples));
    for (auto _ : state)
        benchmark::DoNotOptimize(node->doProcess());
    state.SetItemsProcessed(state.iterations());
}

// ------------------------------------------------------------- voice change

void BM_VoiceChangeNode(benchmark::State& state)
{
    const unsigned rate = static_cast<unsigned>(state.range(0));
    auto node = boost::make_shared<SonraVoiceChangeNode>(boost::make_shared<boost::asio::io_service>(), FRAME_MS,
                                                         rate, true);
    node->setVoiceType(SonraVoiceChangeNode::HIGHER);
    runNode(state, node, rate * FRAME_MS / 1000);
}

void BM_VoiceChangeSoundTouch(benchmark::State& state)
{
    const unsigned rate = static_cast<unsigned>(state.range(0));
    const std::size_t n = rate * FRAME_MS / 1000;
    soundtouch::SoundTouch shifter;
    shifter.setSampleRate(rate);
    shifter.setChannels(1);
    shifter.setPitch(SonraVoiceChangeNode::PITCH_HIGHER);
    // The library's own sample type, converted once outside the loop.
    const std::vector<int16_t> signal = speechLikeSignal(n);
    std::vector<soundtouch::SAMPLETYPE> in(n), out(n);
    for (std::size_t k = 0; k < n; ++k)
        in[k] = static_cast<soundtouch::SAMPLETYPE>(signal[k] / 32768.0);
    for (auto _ : state) {
        shifter.putSamples(in.data(), static_cast<unsigned>(n));
        benchmark::DoNotOptimize(shifter.receiveSamples(out.data(), static_cast<unsigned>(n)));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

// The two above, alternated frame by frame and timed each on its own, so
// that a busy machine slows both alike; the counters give each one's mean
// time per frame and the node's cost over SoundTouch's in percent.
void BM_VoiceChangePaired(benchmark::State& state)
{
    const unsigned rate = static_cast<unsigned>(state.range(0));
    const std::size_t n = rate * FRAME_MS / 1000;
    auto node = boost::make_shared<SonraVoiceChangeNode>(boost::make_shared<boost::asio::io_service>(), FRAME_MS,
                                                         rate, true);
    node->setVoiceType(SonraVoiceChangeNode::HIGHER);
    const std::vector<int16_t> signal = speechLikeSignal(n);
    Feed feed(node, signal);

    soundtouch::SoundTouch shifter;
    shifter.setSampleRate(rate);
    shifter.setChannels(1);
    shifter.setPitch(SonraVoiceChangeNode::PITCH_HIGHER);
    std::vector<soundtouch::SAMPLETYPE> in(n), out(n);
    for (std::size_t k = 0; k < n; ++k)
        in[k] = static_cast<soundtouch::SAMPLETYPE>(signal[k] / 32768.0);

    typedef std::chrono::steady_clock Clock;
    Clock::duration nodeTime{}, bareTime{};
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        benchmark::DoNotOptimize(node->doProcess());
        const Clock::time_point middle = Clock::now();
        shifter.putSamples(in.data(), static_cast<unsigned>(n));
        benchmark::DoNotOptimize(shifter.receiveSamples(out.data(), static_cast<unsigned>(n)));
        benchmark::ClobberMemory();
        const Clock::time_point end = Clock::now();
        nodeTime += middle - start;
        bareTime += end - middle;
    }
    const double nodeNs = std::chrono::duration<double, std::nano>(nodeTime).count();
    const double bareNs = std::chrono::duration<double, std::nano>(bareTime).count();
    const double frames = static_cast<double>(state.iterations());
    state.counters["node_ns"] = nodeNs / frames;
    state.counters["soundtouch_ns"] = bareNs / frames;
    state.counters["overhead_pct"] = 100.0 * (nodeNs - bareNs) / bareNs;
}

// ----------------------------------------------------------- mono to stereo

const int32_t HAAS_MS = 10;

void BM_MonoToStereoNode(benchmark::State& state)
{
    const unsigned rate = static_cast<unsigned>(state.range(0));
    auto node = boost::make_shared<SonraMonoToStereoNode>(boost::make_shared<boost::asio::io_service>(), FRAME_MS,
                                                          rate);
    node->setOutputChannels(2);
    node->setHaasEffect(HAAS_MS);
    runNode(state, node, rate * FRAME_MS / 1000);
}

void BM_MonoToStereoLoop(benchmark::State& state)
{
    const unsigned rate = static_cast<unsigned>(state.range(0));
    const std::size_t n = rate * FRAME_MS / 1000;
    const std::vector<int16_t> in = speechLikeSignal(n);
    std::vector<int16_t> ring(rate * HAAS_MS / 1000, 0);
    std::size_t oldest = 0;
    for (auto _ : state) {
        std::vector<int16_t> out(2 * n);
        for (std::size_t k = 0; k < n; ++k) {
            out[2 * k] = in[k];
            out[2 * k + 1] = ring[oldest];
            ring[oldest] = in[k];
            oldest = oldest + 1 == ring.size() ? 0 : oldest + 1;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

// ------------------------------------------------------------------- reverb

void BM_ReverbNode(benchmark::State& state)
{
    const unsigned rate = static_cast<unsigned>(state.range(0));
    auto node = boost::make_shared<SonraReverbNode>(boost::make_shared<boost::asio::io_service>(), FRAME_MS, rate);
    runNode(state, node, rate * FRAME_MS / 1000);
}

void BM_ReverbLoop(benchmark::State& state)
{
    const unsigned rate = static_cast<unsigned>(state.range(0));
    const std::size_t n = rate * FRAME_MS / 1000;
    const std::vector<int16_t> in = speechLikeSignal(n);
    const float decay = SonraReverbNode::DEFAULT_DECAY;
    std::vector<int16_t> ring(rate * SonraReverbNode::DEFAULT_DELAY / 1000, 0);
    std::size_t oldest = 0;
    for (auto _ : state) {
        std::vector<int16_t> out(n);
        for (std::size_t k = 0; k < n; ++k) {
            const int echo = static_cast<int>(std::roundf(ring[oldest] * decay));
            out[k] = SonraNode::normalize(echo + in[k]);
            ring[oldest] = in[k];
            oldest = oldest + 1 == ring.size() ? 0 : oldest + 1;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

} // namespace

BENCHMARK(BM_VoiceChangeNode)->Arg(16000)->Arg(48000);
SONRA_BASELINE(BM_VoiceChangeNode, "voice change node (Hz)", BM_VoiceChangeSoundTouch, "SoundTouch put/receive");
BENCHMARK(BM_VoiceChangeSoundTouch)->Arg(16000)->Arg(48000);
BENCHMARK(BM_VoiceChangePaired)->Arg(16000)->Arg(48000);
BENCHMARK(BM_MonoToStereoNode)->Arg(16000)->Arg(48000);
SONRA_BASELINE(BM_MonoToStereoNode, "mono-to-stereo node (Hz)", BM_MonoToStereoLoop, "plain delay loop");
BENCHMARK(BM_MonoToStereoLoop)->Arg(16000)->Arg(48000);
BENCHMARK(BM_ReverbNode)->Arg(16000)->Arg(48000);
SONRA_BASELINE(BM_ReverbNode, "reverb node (Hz)", BM_ReverbLoop, "plain echo loop");
BENCHMARK(BM_ReverbLoop)->Arg(16000)->Arg(48000);
