// The codec nodes against the bare library calls (Opus) or a plain table
// lookup loop (G.711), on the same frames. Each Opus node runs inside a pipe,
// as it does in use, so its figure includes the pipe's own per-frame work.
#include "g711.h"
#include "sonrabase.h"
#include "sonradevnode.h"
#include "sonrag711decnode.h"
#include "sonrag711encnode.h"
#include "sonraopusdecnode.h"
#include "sonraopusencnode.h"

#include "benchratio.h"
#include "sonrasignal.h"

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <opus.h>

#include <cmath>
#include <cstring>
#include <vector>

using namespace ombrel;

namespace {

typedef boost::shared_ptr<std::vector<char> > Frame;

const unsigned DURATION = 20; // ms
const unsigned FRAMES = 50;   // distinct frames cycled through (1 s)

boost::shared_ptr<boost::asio::io_service> service()
{
    static auto io = boost::make_shared<boost::asio::io_service>();
    return io;
}

// One second of the speech-like signal, cut into frames.
std::vector<std::vector<int16_t> > pcmFrames(unsigned sampleRate)
{
    const unsigned n = sampleRate * DURATION / 1000;
    const std::vector<int16_t> speech = sonratool::speechLike(sampleRate, std::size_t(FRAMES) * n);
    std::vector<std::vector<int16_t> > frames;
    for (unsigned k = 0; k < FRAMES; ++k)
        frames.emplace_back(speech.begin() + std::ptrdiff_t(k) * n, speech.begin() + std::ptrdiff_t(k + 1) * n);
    return frames;
}

Frame frameOf(const void* data, std::size_t bytes)
{
    auto frame = boost::make_shared<std::vector<char> >(bytes);
    std::memcpy(frame->data(), data, bytes);
    return frame;
}

std::vector<Frame> pcmBuffers(unsigned sampleRate)
{
    std::vector<Frame> buffers;
    for (const auto& pcm : pcmFrames(sampleRate))
        buffers.push_back(frameOf(pcm.data(), pcm.size() * 2));
    return buffers;
}

std::vector<Frame> opusPackets(unsigned sampleRate)
{
    int error = OPUS_OK;
    OpusEncoder* encoder = opus_encoder_create(sampleRate, 1, OPUS_APPLICATION_VOIP, &error);
    std::vector<Frame> packets;
    unsigned char packet[4000];
    for (const auto& pcm : pcmFrames(sampleRate)) {
        const int length = opus_encode(encoder, pcm.data(), int(pcm.size()), packet, sizeof packet);
        packets.push_back(frameOf(packet, length > 0 ? length : 0));
    }
    opus_encoder_destroy(encoder);
    return packets;
}

// A source handing out the given frames in a loop (shared, not copied).
boost::shared_ptr<SonraDevNode> cyclingSource(const std::vector<Frame>& frames, unsigned sampleRate)
{
    auto next = boost::make_shared<std::size_t>(0);
    return boost::make_shared<SonraDevNode>(
        [frames, next]() { return frames[(*next)++ % frames.size()]; }, service(), DURATION, sampleRate);
}

// ------------------------------------------------------------------ Opus

void BM_OpusEncode_Bare(benchmark::State& state)
{
    const unsigned rate = unsigned(state.range(0));
    const std::vector<Frame> frames = pcmBuffers(rate);
    int error = OPUS_OK;
    OpusEncoder* encoder = opus_encoder_create(rate, 1, OPUS_APPLICATION_VOIP, &error);
    const int samples = int(rate * DURATION / 1000);
    std::vector<unsigned char> packet(samples * 2);
    std::size_t k = 0;
    for (auto _ : state) {
        const Frame& pcm = frames[k++ % frames.size()];
        benchmark::DoNotOptimize(opus_encode(encoder, reinterpret_cast<const opus_int16*>(pcm->data()), samples,
                                             packet.data(), opus_int32(packet.size())));
    }
    opus_encoder_destroy(encoder);
}

void BM_OpusEncode_Node(benchmark::State& state)
{
    const unsigned rate = unsigned(state.range(0));
    auto pipe = boost::make_shared<SonraPipe>(DURATION);
    auto encoder = boost::make_shared<SonraOpusEncNode>(service(), DURATION, rate);
    pipe->connect(cyclingSource(pcmBuffers(rate), rate), encoder);
    for (auto _ : state) {
        pipe->processFrame();
        benchmark::DoNotOptimize(encoder->outputData().get());
    }
}

void BM_OpusDecode_Bare(benchmark::State& state)
{
    const unsigned rate = unsigned(state.range(0));
    const std::vector<Frame> packets = opusPackets(rate);
    int error = OPUS_OK;
    OpusDecoder* decoder = opus_decoder_create(rate, 1, &error);
    const int samples = int(rate * DURATION / 1000);
    std::vector<opus_int16> pcm(samples);
    std::size_t k = 0;
    for (auto _ : state) {
        const Frame& packet = packets[k++ % packets.size()];
        benchmark::DoNotOptimize(opus_decode(decoder, reinterpret_cast<const unsigned char*>(packet->data()),
                                             opus_int32(packet->size()), pcm.data(), samples, 0));
    }
    opus_decoder_destroy(decoder);
}

void BM_OpusDecode_Node(benchmark::State& state)
{
    const unsigned rate = unsigned(state.range(0));
    auto pipe = boost::make_shared<SonraPipe>(DURATION);
    auto decoder = boost::make_shared<SonraOpusDecNode>(service(), DURATION, rate);
    pipe->connect(cyclingSource(opusPackets(rate), rate), decoder);
    for (auto _ : state) {
        pipe->processFrame();
        benchmark::DoNotOptimize(decoder->outputData().get());
    }
}

// The same pipe with a node that only passes its input on: the pipe's own
// share of the Opus node figures.
class PassNode : public SonraNode {
public:
    PassNode(unsigned sampleRate) : SonraNode(service(), DURATION, sampleRate) {}
    Frame doProcess() override { return getInputData(); }
};

void BM_Pipe_PassNode(benchmark::State& state)
{
    const unsigned rate = unsigned(state.range(0));
    auto pipe = boost::make_shared<SonraPipe>(DURATION);
    auto node = boost::make_shared<PassNode>(rate);
    pipe->connect(cyclingSource(opusPackets(rate), rate), node);
    for (auto _ : state) {
        pipe->processFrame();
        benchmark::DoNotOptimize(node->outputData().get());
    }
}

BENCHMARK(BM_Pipe_PassNode)->Arg(16000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpusEncode_Bare)->Arg(16000)->Arg(48000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpusEncode_Node)->Arg(16000)->Arg(48000)->Unit(benchmark::kMicrosecond);
SONRA_BASELINE(BM_OpusEncode_Node, "Opus encoder node (arg: Hz)", BM_OpusEncode_Bare, "opus_encode");
BENCHMARK(BM_OpusDecode_Bare)->Arg(16000)->Arg(48000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpusDecode_Node)->Arg(16000)->Arg(48000)->Unit(benchmark::kMicrosecond);
SONRA_BASELINE(BM_OpusDecode_Node, "Opus decoder node (arg: Hz)", BM_OpusDecode_Bare, "opus_decode");

// ----------------------------------------------------------------- G.711

const unsigned G711_SAMPLES = 160; // one 20 ms frame at 8000 Hz

// The plain loops index tables built from our own conversions.
std::vector<uint8_t> encodingTable(uint8_t (*encode)(int16_t))
{
    std::vector<uint8_t> table(65536);
    for (int value = -32768; value <= 32767; ++value)
        table[uint16_t(value)] = encode(int16_t(value));
    return table;
}

std::vector<int16_t> decodingTable(int16_t (*decode)(uint8_t))
{
    std::vector<int16_t> table(256);
    for (int code = 0; code < 256; ++code)
        table[code] = decode(uint8_t(code));
    return table;
}

// The node's doProcess() alone (input already delivered), so that the
// pipe's own per-frame work does not hide the node's.
template <class Node>
void g711Node(benchmark::State& state, const Frame& input, typename Node::Mode mode)
{
    auto pipe = boost::make_shared<SonraPipe>(DURATION);
    auto node = boost::make_shared<Node>(service(), DURATION, 8000);
    node->setMode(mode);
    pipe->connect(cyclingSource({input}, 8000), node);
    pipe->processFrame();
    for (auto _ : state)
        benchmark::DoNotOptimize(node->doProcess().get());
}

void BM_G711Encode_Node(benchmark::State& state)
{
    g711Node<SonraG711EncNode>(state, pcmBuffers(8000)[10],
                               state.range(0) ? SonraG711EncNode::MODE_ULAW : SonraG711EncNode::MODE_ALAW);
}

void BM_G711Encode_TableLoop(benchmark::State& state)
{
    const std::vector<uint8_t> table = encodingTable(state.range(0) ? linear2ulaw : linear2alaw);
    const std::vector<int16_t> pcm = pcmFrames(8000)[10];
    std::vector<uint8_t> codes(G711_SAMPLES);
    for (auto _ : state) {
        for (unsigned i = 0; i < G711_SAMPLES; ++i)
            codes[i] = table[uint16_t(pcm[i])];
        benchmark::DoNotOptimize(codes.data());
        benchmark::ClobberMemory();
    }
}

// A plain loop calling the conversion directly: the node's share is the
// difference to its figure.
void BM_G711Encode_CallLoop(benchmark::State& state)
{
    uint8_t (*const encode)(int16_t) = state.range(0) ? linear2ulaw : linear2alaw;
    const std::vector<int16_t> pcm = pcmFrames(8000)[10];
    std::vector<uint8_t> codes(G711_SAMPLES);
    for (auto _ : state) {
        for (unsigned i = 0; i < G711_SAMPLES; ++i)
            codes[i] = encode(pcm[i]);
        benchmark::DoNotOptimize(codes.data());
        benchmark::ClobberMemory();
    }
}

void BM_G711Decode_CallLoop(benchmark::State& state)
{
    int16_t (*const decode)(uint8_t) = state.range(0) ? ulaw2linear : alaw2linear;
    const std::vector<int16_t> pcm = pcmFrames(8000)[10];
    std::vector<uint8_t> codes(G711_SAMPLES);
    for (unsigned i = 0; i < G711_SAMPLES; ++i)
        codes[i] = state.range(0) ? linear2ulaw(pcm[i]) : linear2alaw(pcm[i]);
    std::vector<int16_t> samples(G711_SAMPLES);
    for (auto _ : state) {
        for (unsigned i = 0; i < G711_SAMPLES; ++i)
            samples[i] = decode(codes[i]);
        benchmark::DoNotOptimize(samples.data());
        benchmark::ClobberMemory();
    }
}

void BM_G711Decode_Node(benchmark::State& state)
{
    const std::vector<int16_t> pcm = pcmFrames(8000)[10];
    std::vector<uint8_t> codes(G711_SAMPLES);
    for (unsigned i = 0; i < G711_SAMPLES; ++i)
        codes[i] = state.range(0) ? linear2ulaw(pcm[i]) : linear2alaw(pcm[i]);
    g711Node<SonraG711DecNode>(state, frameOf(codes.data(), codes.size()),
                               state.range(0) ? SonraG711DecNode::MODE_ULAW : SonraG711DecNode::MODE_ALAW);
}

void BM_G711Decode_TableLoop(benchmark::State& state)
{
    const std::vector<int16_t> table = decodingTable(state.range(0) ? ulaw2linear : alaw2linear);
    const std::vector<int16_t> pcm = pcmFrames(8000)[10];
    std::vector<uint8_t> codes(G711_SAMPLES);
    for (unsigned i = 0; i < G711_SAMPLES; ++i)
        codes[i] = state.range(0) ? linear2ulaw(pcm[i]) : linear2alaw(pcm[i]);
    std::vector<int16_t> samples(G711_SAMPLES);
    for (auto _ : state) {
        for (unsigned i = 0; i < G711_SAMPLES; ++i)
            samples[i] = table[codes[i]];
        benchmark::DoNotOptimize(samples.data());
        benchmark::ClobberMemory();
    }
}

// Argument: 0 A-law, 1 mu-law.
BENCHMARK(BM_G711Encode_Node)->Arg(0)->Arg(1);
SONRA_BASELINE(BM_G711Encode_Node, "G.711 encoder node (0 A-law, 1 mu-law)", BM_G711Encode_TableLoop, "table loop");
BENCHMARK(BM_G711Encode_TableLoop)->Arg(0)->Arg(1);
BENCHMARK(BM_G711Encode_CallLoop)->Arg(0)->Arg(1);
BENCHMARK(BM_G711Decode_Node)->Arg(0)->Arg(1);
SONRA_BASELINE(BM_G711Decode_Node, "G.711 decoder node (0 A-law, 1 mu-law)", BM_G711Decode_TableLoop, "table loop");
BENCHMARK(BM_G711Decode_TableLoop)->Arg(0)->Arg(1);
BENCHMARK(BM_G711Decode_CallLoop)->Arg(0)->Arg(1);

} // namespace
