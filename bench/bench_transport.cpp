// The jitter buffer's cost per frame (one putFrame and one getFrame) and the
// receiver's per datagram, against one bare opus_decode of a 20 ms frame at
// 16 kHz, the work that follows each of them on a receiving path. After the
// usual table the program prints each benchmark's CPU time as a ratio to
// that decode's, measured in the same run.
#include "sonrajbuf.h"
#include "sonrapacket.h"
#include "sonrareceivernode.h"
#include "sonratimestretcher_p.h"

#include "benchratio.h"
#include "sonrasignal.h"

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>
#include <opus.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

using namespace ombrel;

namespace {

const unsigned SAMPLE_RATE = 16000; // Hz
const unsigned FRAME_DURATION = 20; // ms
const int FRAME_SAMPLES = 320;      // samples per channel in 20 ms
const unsigned PACKETS = 50;

// One second of a voice-like signal (a few harmonics with a slow vibrato),
// encoded as 50 Opus packets by libopus's VoIP defaults.
const std::vector<std::vector<unsigned char> >& opusPackets()
{
    static const std::vector<std::vector<unsigned char> > packets = [] {
        int error = 0;
        OpusEncoder* encoder = opus_encoder_create(SAMPLE_RATE, 1, OPUS_APPLICATION_VOIP, &error);
        std::vector<std::vector<unsigned char> > encoded;
        const std::vector<int16_t> speech = sonratool::speechLike(SAMPLE_RATE, std::size_t(PACKETS) * FRAME_SAMPLES);
        for (unsigned p = 0; p < PACKETS; ++p) {
            std::vector<unsigned char> packet(1500);
            const int size = opus_encode(encoder, speech.data() + std::size_t(p) * FRAME_SAMPLES, FRAME_SAMPLES,
                                         packet.data(), int(packet.size()));
            packet.resize(size > 0 ? size : 0);
            encoded.push_back(packet);
        }
        opus_encoder_destroy(encoder);
        return encoded;
    }();
    return packets;
}

std::vector<boost::shared_ptr<std::vector<char> > > payloads()
{
    std::vector<boost::shared_ptr<std::vector<char> > > frames;
    for (const auto& packet : opusPackets())
        frames.push_back(boost::make_shared<std::vector<char> >(packet.begin(), packet.end()));
    return frames;
}

void BM_BareOpusDecode(benchmark::State& state)
{
    int error = 0;
    OpusDecoder* decoder = opus_decoder_create(SAMPLE_RATE, 1, &error);
    std::vector<int16_t> pcm(FRAME_SAMPLES);
    unsigned i = 0;
    for (auto _ : state) {
        const auto& packet = opusPackets()[i++ % PACKETS];
        benchmark::DoNotOptimize(opus_decode(decoder, packet.data(), int(packet.size()), pcm.data(), FRAME_SAMPLES, 0));
    }
    opus_decoder_destroy(decoder);
}
BENCHMARK(BM_BareOpusDecode);

// A steady stream: the clock moves one frame per put and get, as in a call.
void runJbuf(benchmark::State& state, SonraJbuf& jbuf)
{
    const auto frames = payloads();
    unsigned now = 0; // ms
    jbuf.setTimeHandler([&now]() { return now; });
    boost::shared_ptr<std::vector<char> > out;
    unsigned seqNum = 1;
    for (auto _ : state) {
        jbuf.putFrame(frames[seqNum % PACKETS], seqNum, seqNum * FRAME_DURATION);
        ++seqNum;
        benchmark::DoNotOptimize(jbuf.getFrame(out, nullptr, nullptr));
        now += FRAME_DURATION;
    }
    jbuf.setTimeHandler(boost::function<unsigned ()>());
}

void BM_JbufOneQueue(benchmark::State& state)
{
    SonraJbuf jbuf(FRAME_DURATION);
    runJbuf(state, jbuf);
}
BENCHMARK(BM_JbufOneQueue);
SONRA_BASELINE(BM_JbufOneQueue, "jitter buffer put+get, one queue", BM_BareOpusDecode, "opus_decode (16 kHz)");

void BM_JbufFiveQueues(benchmark::State& state)
{
    SonraJbuf jbuf(FRAME_DURATION);
    jbuf.setDelays(40, 20, 100, 60);
    runJbuf(state, jbuf);
}
BENCHMARK(BM_JbufFiveQueues);
SONRA_BASELINE(BM_JbufFiveQueues, "jitter buffer put+get, five queues", BM_BareOpusDecode, "opus_decode (16 kHz)");

// The same with the playout policy following the network and recovery on.
void BM_JbufFiveQueuesAdaptive(benchmark::State& state)
{
    SonraJbuf jbuf(FRAME_DURATION);
    jbuf.setDelays(40, 20, 100, 60);
    jbuf.setPlayoutPolicy(SonraJbuf::PLAYOUT_ADAPTIVE);
    jbuf.setRecovery(true);
    runJbuf(state, jbuf);
}
BENCHMARK(BM_JbufFiveQueuesAdaptive);
SONRA_BASELINE(BM_JbufFiveQueuesAdaptive, "jitter buffer put+get, five queues, adaptive playout", BM_BareOpusDecode,
               "opus_decode (16 kHz)");

// The ladder the tools use, 20 to 400 ms in 20 queues, under the adaptive
// policy and under the histogram policy, with recovery on.
void runLadder(benchmark::State& state, SonraJbuf::PlayoutPolicy policy)
{
    SonraJbuf jbuf(FRAME_DURATION);
    jbuf.setDelays(60, 20, 400, 300);
    jbuf.setPlayoutPolicy(policy);
    jbuf.setRecovery(true);
    runJbuf(state, jbuf);
}
void BM_JbufLadderAdaptive(benchmark::State& state) { runLadder(state, SonraJbuf::PLAYOUT_ADAPTIVE); }
BENCHMARK(BM_JbufLadderAdaptive);
void BM_JbufLadderHistogram(benchmark::State& state) { runLadder(state, SonraJbuf::PLAYOUT_HISTOGRAM); }
BENCHMARK(BM_JbufLadderHistogram);

// The tools' playout: the histogram policy with time stretching on (the
// queues' side of it: requests and hand-overs), per frame.
void BM_JbufLadderStretching(benchmark::State& state)
{
    SonraJbuf jbuf(FRAME_DURATION);
    jbuf.setDelays(80, 20, 400, 300);
    jbuf.setPlayoutPolicy(SonraJbuf::PLAYOUT_HISTOGRAM);
    jbuf.setRecovery(true);
    jbuf.setTimeStretching(true);
    runJbuf(state, jbuf);
}
BENCHMARK(BM_JbufLadderStretching);
SONRA_BASELINE(BM_JbufLadderStretching, "jitter buffer put+get, 20 queues, histogram playout, stretching",
               BM_BareOpusDecode, "opus_decode (16 kHz)");

// The stretcher's own cost, per stretch (apart from the queues: it runs only
// at a move): two decoded frames played in one period, and one in two.
void runStretch(benchmark::State& state, std::size_t inFrames, std::size_t outFrames)
{
    SonraTimeStretcher stretcher(SAMPLE_RATE);
    const std::vector<int16_t> speech = sonratool::speechLike(SAMPLE_RATE, 4 * FRAME_SAMPLES);
    const std::vector<int16_t> history(speech.begin(), speech.begin() + FRAME_SAMPLES);
    std::vector<int16_t> out(outFrames * FRAME_SAMPLES);
    for (auto _ : state) {
        stretcher.stretch(history, speech.data() + FRAME_SAMPLES, inFrames * FRAME_SAMPLES, out.data(), out.size());
        benchmark::DoNotOptimize(out.data());
    }
}
void BM_StretchTwoFramesIntoOne(benchmark::State& state) { runStretch(state, 2, 1); }
BENCHMARK(BM_StretchTwoFramesIntoOne);
SONRA_BASELINE(BM_StretchTwoFramesIntoOne, "time stretch, 40 ms played in 20 ms", BM_BareOpusDecode,
               "opus_decode (16 kHz)");
void BM_StretchOneFrameIntoTwo(benchmark::State& state) { runStretch(state, 1, 2); }
BENCHMARK(BM_StretchOneFrameIntoTwo);
SONRA_BASELINE(BM_StretchOneFrameIntoTwo, "time stretch, 20 ms played in 40 ms", BM_BareOpusDecode,
               "opus_decode (16 kHz)");

// The whole receiving node: a datagram in (length check, parse, payload
// copy, put) and one graph frame out.
void BM_ReceiverNode(benchmark::State& state)
{
    SonraReceiverNode receiver(boost::make_shared<boost::asio::io_service>(), FRAME_DURATION, SAMPLE_RATE);
    std::vector<boost::shared_ptr<std::vector<char> > > datagrams = payloads();
    for (auto& datagram : datagrams)
        SonraPacket(datagram, 0, 0);
    unsigned seqNum = 1;
    for (auto _ : state) {
        // Renumbering in place costs one store; the datagrams stay warm.
        const auto& datagram = datagrams[seqNum % PACKETS];
        std::memcpy(datagram->data() + 4, &seqNum, 4);
        ++seqNum;
        receiver.dataReceived(datagram);
        benchmark::DoNotOptimize(receiver.doProcess());
    }
}
BENCHMARK(BM_ReceiverNode);
SONRA_BASELINE(BM_ReceiverNode, "receiver node, per datagram", BM_BareOpusDecode, "opus_decode (16 kHz)");

} // namespace
