// The RTP path's cost per 20 ms frame at 8 kHz against the bare SpeexDSP
// jitter buffer calls that it wraps (one put, one get, one tick), as a
// ratio measured in the same run.
#include "benchratio.h"
#include "sonradevnode.h"
#include "sonrartppacket.h"
#include "sonrartpreceivernode.h"
#include "sonrartpsendernode.h"

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>
#include <speex/speex_jitter.h>

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

} // namespace
