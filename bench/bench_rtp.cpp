// The RTP path's cost per 20 ms frame at 8 kHz against the bare SpeexDSP
// jitter buffer calls that it wraps (one put, one get, one tick), as a
// ratio measured in the same run; and the decoding receiver with packets of
// their real duration against the bare calls it makes for them.
#include "benchratio.h"
#include "g711.h"
#include "sonradevnode.h"
#include "sonrartppacket.h"
#include "sonrartpreceivernode.h"
#include "sonrartpsendernode.h"

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>
#include <speex/speex_jitter.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <vector>

using namespace ombrel;

namespace {

const unsigned SAMPLE_RATE = 8000;  // Hz
const unsigned FRAME_DURATION = 20; // ms
const unsigned FRAME_SPAN = 160;    // samples, and bytes of one G.711 payload

void BM_BareJitterBuffer(benchmark::State& state)
{
    JitterBuffer* jitter = jitter_buffer_init(5 * FRAME_SPAN);
    std::vector<char> payload(FRAME_SPAN, 0x55), out(2048);
    unsigned seqNum = 0;
    for (auto _ : state) {
        JitterBufferPacket packet = {payload.data(), FRAME_SPAN, seqNum * FRAME_SPAN, FRAME_SPAN,
                                     static_cast<spx_uint16_t>(seqNum), 0};
        jitter_buffer_put(jitter, &packet);
        ++seqNum;
        JitterBufferPacket got = {out.data(), 2048, 0, 0, 0, 0};
        spx_int32_t offset = 0;
        benchmark::DoNotOptimize(jitter_buffer_get(jitter, &got, FRAME_SPAN, &offset));
        jitter_buffer_tick(jitter);
    }
    jitter_buffer_destroy(jitter);
}
BENCHMARK(BM_BareJitterBuffer);

// The receiving node alone: a datagram in (checks, parse, put) and one
// frame out (get, a copy into a new frame buffer).
void BM_RtpReceiverNode(benchmark::State& state)
{
    SonraRtpReceiverNode receiver(boost::make_shared<boost::asio::io_service>(), FRAME_DURATION, SAMPLE_RATE);
    const auto datagram = boost::make_shared<std::vector<char> >(FRAME_SPAN, 0x55);
    SonraRtpPacket(datagram, 0, 0, 1, 8);
    unsigned seqNum = 0;
    for (auto _ : state) {
        // Renumbering in place costs a few stores; the datagram stays warm.
        const unsigned timeStamp = seqNum * FRAME_SPAN;
        for (unsigned i = 0; i < 4; ++i)
            (*datagram)[4 + i] = static_cast<char>(timeStamp >> (24 - 8 * i));
        (*datagram)[2] = static_cast<char>(seqNum >> 8);
        (*datagram)[3] = static_cast<char>(seqNum);
        ++seqNum;
        receiver.dataReceived(datagram);
        benchmark::DoNotOptimize(receiver.doProcess());
    }
}
BENCHMARK(BM_RtpReceiverNode);
SONRA_BASELINE(BM_RtpReceiverNode, "RTP receiver node, per packet", BM_BareJitterBuffer, "jitter_buffer_put/get/tick");

// Sender and receiver in one graph frame: a fresh payload (as an encoder
// makes), the header inserted in place, handed to the receiver, and one
// frame out of it; the pipe's own work included.
void BM_RtpSenderAndReceiver(benchmark::State& state)
{
    const auto io = boost::make_shared<boost::asio::io_service>();
    const auto source = boost::make_shared<SonraDevNode>(
        []() { return boost::make_shared<std::vector<char> >(FRAME_SPAN, 0x55); }, io, FRAME_DURATION, SAMPLE_RATE);
    const auto sender = boost::make_shared<SonraRtpSenderNode>(io, FRAME_DURATION, SAMPLE_RATE);
    const auto receiver = boost::make_shared<SonraRtpReceiverNode>(io, FRAME_DURATION, SAMPLE_RATE);
    SonraRtpReceiverNode* const to = receiver.get();
    sender->setSendHandler([to](boost::shared_ptr<std::vector<char> > packet) { to->dataReceived(packet); });
    const auto pipe = boost::make_shared<SonraPipe>(FRAME_DURATION);
    pipe->connect(source, sender);
    pipe->addNode(receiver);
    for (auto _ : state)
        pipe->processFrame();
    pipe->clear();
}
BENCHMARK(BM_RtpSenderAndReceiver);
SONRA_BASELINE(BM_RtpSenderAndReceiver, "RTP sender + receiver, per frame", BM_BareJitterBuffer, "jitter_buffer_put/get/tick");

// A-law packets of `ptime` ms in 20 ms graph frames: each frame puts the
// packets whose last sample is due, takes what the frame needs with one
// get per packet (asking for what is still missing), decodes it with the
// A-law table and ticks once. The bare SpeexDSP calls with their
// bookkeeping, as the decoding receiver makes them.
void BM_BareJitterBufferSpans(benchmark::State& state)
{
    const uint32_t packetSpan = static_cast<uint32_t>(state.range(0)) * 8; // samples
    JitterBuffer* jitter = jitter_buffer_init(FRAME_SPAN);
    JitterBufferPacket none = JitterBufferPacket();
    jitter_buffer_update_delay(jitter, &none, nullptr); // no shrinking by skipping audio
    std::vector<char> payload(packetSpan, 0x55), out(2048);
    std::deque<int16_t> pcm;
    uint32_t streamTime = 0, nextPacket = 0; // samples
    uint16_t seqNum = 0;
    for (auto _ : state) {
        for (streamTime += FRAME_SPAN; nextPacket + packetSpan <= streamTime; nextPacket += packetSpan) {
            JitterBufferPacket packet = {payload.data(), packetSpan, nextPacket, packetSpan, seqNum++, 0};
            jitter_buffer_put(jitter, &packet);
        }
        while (pcm.size() < FRAME_SPAN) {
            JitterBufferPacket got = {out.data(), 2048, 0, 0, 0, 0};
            spx_int32_t offset = 0;
            const spx_int32_t desired = static_cast<spx_int32_t>(FRAME_SPAN - pcm.size());
            if (jitter_buffer_get(jitter, &got, desired, &offset) != JITTER_BUFFER_OK && got.span == 0)
                break;
            for (uint32_t i = 0; i < (got.len ? got.len : got.span); ++i)
                pcm.push_back(got.len ? alaw2linear(static_cast<uint8_t>(out[i])) : 0);
        }
        std::vector<int16_t> frame(pcm.begin(), pcm.begin() + std::min<std::size_t>(FRAME_SPAN, pcm.size()));
        pcm.erase(pcm.begin(), pcm.begin() + static_cast<long>(frame.size()));
        benchmark::DoNotOptimize(frame.data());
        jitter_buffer_tick(jitter);
    }
    jitter_buffer_destroy(jitter);
}
BENCHMARK(BM_BareJitterBufferSpans)->Arg(10)->Arg(20)->Arg(30)->Arg(60);

// The decoding receiver on the same stream: datagrams in, one frame of
// PCM out per graph frame.
void BM_RtpReceiverDecoded(benchmark::State& state)
{
    const uint32_t packetSpan = static_cast<uint32_t>(state.range(0)) * 8; // samples
    SonraRtpReceiverNode receiver(boost::make_shared<boost::asio::io_service>(), FRAME_DURATION, SAMPLE_RATE);
    receiver.setDecodedOutput(true);
    const auto datagram = boost::make_shared<std::vector<char> >(packetSpan, 0x55);
    SonraRtpPacket packet(datagram, 0, 0, 1, 8);
    uint32_t streamTime = 0, nextPacket = 0; // samples
    unsigned seqNum = 0;
    for (auto _ : state) {
        // Renumbered in place, as in BM_RtpReceiverNode: the datagram stays warm.
        for (streamTime += FRAME_SPAN; nextPacket + packetSpan <= streamTime; nextPacket += packetSpan, ++seqNum) {
            for (unsigned i = 0; i < 4; ++i)
                packet.m_header[4 + i] = static_cast<uint8_t>(nextPacket >> (24 - 8 * i));
            packet.m_header[2] = static_cast<uint8_t>(seqNum >> 8);
            packet.m_header[3] = static_cast<uint8_t>(seqNum);
            receiver.dataReceived(datagram);
        }
        benchmark::DoNotOptimize(receiver.doProcess());
    }
}
BENCHMARK(BM_RtpReceiverDecoded)->Arg(10)->Arg(20)->Arg(30)->Arg(60);
SONRA_BASELINE(BM_RtpReceiverDecoded, "RTP receiver, decoded output, real spans (arg: A-law packet ms)",
               BM_BareJitterBufferSpans, "jitter_buffer_put/get/tick with real spans + A-law table");

} // namespace
