// One party's whole client path per 20 ms graph frame at 16 kHz, as
// sonra-call builds it: the device container's capture and playback on a
// stepped virtual device, noise suppression, volume, Opus encoder, sender,
// and back through receiver, Opus decoder, mixer and volume; against bare
// libopus encoding and decoding the same frame. legs_per_core: how many such
// call legs one core runs in real time.
#include "sonracall_p.h"

#include <benchmark/benchmark.h>

#include <opus.h>

#include <cmath>

using namespace ombrel;
using sonracall::FRAME_MS;
using sonracall::FRAME_SAMPLES;
using sonracall::RATE;

namespace {

const unsigned FRAMES = 50; // distinct frames cycled through (1 s)

// One second of a voiced, speech-like signal.
std::vector<int16_t> speechLike()
{
    std::vector<int16_t> samples(FRAMES * FRAME_SAMPLES);
    double phase = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double t = double(i) / RATE;
        phase += 2 * M_PI * (150.0 + 40.0 * std::sin(2 * M_PI * 1.3 * t)) / RATE;
        double value = 0;
        for (int h = 1; h <= 12; ++h)
            value += std::sin(h * phase) / h;
        samples[i] = int16_t(5000.0 * value * (0.3 + 0.7 * std::fabs(std::sin(M_PI * 4 * t))));
    }
    return samples;
}

std::vector<int16_t> frameAt(const std::vector<int16_t>& samples, unsigned k)
{
    const auto first = samples.begin() + std::ptrdiff_t((k % FRAMES) * FRAME_SAMPLES);
    return std::vector<int16_t>(first, first + FRAME_SAMPLES);
}

void legsPerCore(benchmark::State& state)
{
    // Graph frames per second of CPU, over the frames one real-time leg needs.
    state.counters["legs_per_core"] =
        benchmark::Counter(double(state.iterations()) / (1000.0 / FRAME_MS), benchmark::Counter::kIsRate);
}

void BM_CallParty(benchmark::State& state)
{
    const std::vector<int16_t> speech = speechLike();
    auto io = boost::make_shared<boost::asio::io_service>();
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    auto builder = boost::make_shared<sonracall::SteppedBuilder>();
    auto container = boost::make_shared<SonraDevNodesContainer>(io, FRAME_MS, 360, RATE);
    container->setPlaybackDeviceBuilder(builder);
    container->create(true, false);
    container->create(false, false);
    container->setPipe(pipe);
    auto sender = boost::make_shared<SonraSenderNode>(io, FRAME_MS, RATE);
    auto receiver = boost::make_shared<SonraReceiverNode>(io, FRAME_MS, RATE);
    auto mixer = boost::make_shared<SonraMixerNode>(io, FRAME_MS, RATE);
    const boost::shared_ptr<SonraNode> path[] = {
        container->capture(), boost::make_shared<SonraNoiseSupressNode>(io, FRAME_MS, RATE),
        boost::make_shared<SonraVolumeNode>(io, FRAME_MS, RATE), boost::make_shared<SonraOpusEncNode>(io, FRAME_MS, RATE),
        sender};
    for (std::size_t n = 1; n < sizeof path / sizeof path[0]; ++n)
        pipe->connect(path[n - 1], path[n]);
    auto decoder = boost::make_shared<SonraOpusDecNode>(io, FRAME_MS, RATE);
    auto speaker = boost::make_shared<SonraVolumeNode>(io, FRAME_MS, RATE);
    pipe->connect(receiver, decoder);
    pipe->connect(decoder, mixer);
    pipe->connect(mixer, speaker);
    pipe->connect(speaker, container->playback());
    // The packet comes back as a datagram would: a copy, played a frame later.
    sender->setSendHandler([receiver](sonracall::Frame packet) {
        receiver->dataReceived(boost::make_shared<std::vector<char> >(*packet));
    });
    std::string message;
    container->start(1, 1, &message);
    std::vector<int16_t> played;
    unsigned k = 0;
    for (auto _ : state) {
        played.clear();
        builder->device->block(frameAt(speech, k++), played);
        pipe->processFrame();
    }
    legsPerCore(state);
    container->stop();
    pipe->clear();
}

void BM_CallBareOpus(benchmark::State& state)
{
    const std::vector<int16_t> speech = speechLike();
    int error = OPUS_OK;
    OpusEncoder* encoder = opus_encoder_create(RATE, 1, OPUS_APPLICATION_VOIP, &error);
    OpusDecoder* decoder = opus_decoder_create(RATE, 1, &error);
    unsigned char packet[4000];
    std::vector<int16_t> decoded(FRAME_SAMPLES);
    unsigned k = 0;
    for (auto _ : state) {
        const std::vector<int16_t> frame = frameAt(speech, k++);
        const int length = opus_encode(encoder, frame.data(), int(FRAME_SAMPLES), packet, sizeof packet);
        benchmark::DoNotOptimize(opus_decode(decoder, packet, length, decoded.data(), int(FRAME_SAMPLES), 0));
    }
    legsPerCore(state);
    opus_encoder_destroy(encoder);
    opus_decoder_destroy(decoder);
}

} // namespace

BENCHMARK(BM_CallParty)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CallBareOpus)->Unit(benchmark::kMicrosecond);
