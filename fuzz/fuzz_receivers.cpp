// The two receiver nodes, own format (first byte even) or RTP (odd), on
// arbitrary datagrams and well-formed packets interleaved with graph frames,
// resets and each node's switches. Oracle: a payload played was received
// and is played no more often; own format: only on a packet period's first
// graph frame; RTP: only of the accepted payload type and size.
#include "fuzzutil.h"
#include "sonrapacket.h"
#include "sonrareceivernode.h"
#include "sonrartpreceivernode.h"

#include <map>

using namespace sonrafuzz;
using ombrel::SonraRtpReceiverNode;

namespace {

enum Op { DATAGRAM, PACKET, FRAME, RESET, SWITCH_ONE, SWITCH_TWO, OP_COUNT };

struct OwnFormatConfig { unsigned frameDuration, packetDuration, delays[4]; }; // ms; delays all 0: the defaults

const OwnFormatConfig CONFIGS[] = {
    {20, 20, {0, 0, 0, 0}}, {10, 20, {0, 0, 0, 0}}, {20, 60, {0, 0, 0, 0}},
    {10, 30, {0, 0, 0, 0}}, {20, 20, {40, 20, 100, 60}},
};

// An own-format datagram: a well-formed header around a payload block.
Frame ownPacket(Reader& in, unsigned& nextSeqNum)
{
    const unsigned seqNum = nextSeqNum + static_cast<int8_t>(in.byte());
    nextSeqNum = seqNum + 1;
    const unsigned timeStamp = in.u16();
    return ombrel::SonraPacket(in.block(), seqNum, timeStamp).m_data;
}

// An RTP header (version 2, big-endian fields) around a payload block.
Frame rtpPacket(Reader& in, unsigned& nextSeqNum, unsigned span)
{
    const unsigned payloadType = in.byte(), seqNum = nextSeqNum + static_cast<int8_t>(in.byte());
    nextSeqNum = seqNum + 1;
    const uint32_t timeStamp = seqNum * span + static_cast<int8_t>(in.byte()), ssrc = in.byte();
    const uint8_t header[12] = {0x80, uint8_t(payloadType & 0x7f), uint8_t(seqNum >> 8), uint8_t(seqNum),
                                uint8_t(timeStamp >> 24), uint8_t(timeStamp >> 16), uint8_t(timeStamp >> 8),
                                uint8_t(timeStamp), 0, 0, 0, uint8_t(ssrc)};
    const Frame payload = in.block(true);
    payload->insert(payload->begin(), header, header + 12);
    return payload;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Reader in(data, size);
    const bool rtp = in.byte() & 1;
    boost::shared_ptr<ombrel::SonraReceiverNode> own;
    boost::shared_ptr<SonraRtpReceiverNode> other;
    unsigned frameDuration = 0, framesPerPacket = 1, rtpSpan = 0; // ms, graph frames, samples
    if (rtp) {
        const unsigned rate = in.choice(2) ? 16000 : 8000; // Hz
        frameDuration = 10 * (1 + in.choice(3));
        rtpSpan = rate * frameDuration / 1000;
        other = boost::make_shared<SonraRtpReceiverNode>(ioService(), frameDuration, rate);
    } else {
        const OwnFormatConfig& config = CONFIGS[in.choice(sizeof(CONFIGS) / sizeof(CONFIGS[0]))];
        frameDuration = config.frameDuration;
        framesPerPacket = config.packetDuration / config.frameDuration;
        own = boost::make_shared<ombrel::SonraReceiverNode>(ioService(), frameDuration, 16000);
        own->setPacketDuration(config.packetDuration);
        if (config.delays[0])
            own->setDelays(config.delays[0], config.delays[1], config.delays[2], config.delays[3]);
    }
    const boost::shared_ptr<ombrel::SonraNode> node = rtp ? boost::shared_ptr<ombrel::SonraNode>(other) : own;
    auto pipe = boost::make_shared<ombrel::SonraPipe>(frameDuration);
    pipe->addNode(node);

    std::map<std::vector<char>, unsigned> unplayed; // payload -> times received and not yet played
    unsigned nextSeqNum = 1, phase = 0, payloadType = 8;
    for (unsigned step = 0; step < 4096 && !in.done(); ++step) {
        const unsigned op = in.choice(OP_COUNT);
        switch (op) {
        case DATAGRAM:
        case PACKET: {
            const Frame datagram = op == DATAGRAM ? in.block(rtp)
                                   : rtp          ? rtpPacket(in, nextSeqNum, rtpSpan)
                                                  : ownPacket(in, nextSeqNum);
            const std::size_t header = rtp ? 12 : ombrel::SonraPacket::HEADER_SIZE; // bytes
            const bool playable = datagram->size() >= header &&
                                  (!rtp || (datagram->size() - header <= SonraRtpReceiverNode::MAX_PAYLOAD_SIZE &&
                                            (uint8_t((*datagram)[1]) & 0x7f) == payloadType));
            if (playable)
                ++unplayed[std::vector<char>(datagram->begin() + header, datagram->end())];
            rtp ? other->dataReceived(datagram) : own->dataReceived(datagram);
            break;
        }
        case FRAME:
            pipe->processFrame();
            if (const Frame out = node->outputData()) {
                FUZZ_CHECK(phase == 0 && unplayed[*out] > 0);
                --unplayed[*out];
            }
            phase = (phase + 1) % framesPerPacket;
            break;
        case RESET:
            pipe->reset(rtp ? 0 : in.byte());
            phase = 0;
            break;
        case SWITCH_ONE:
            if (rtp)
                other->setPayloadType(payloadType = in.choice(2) ? 8 : in.byte() & 0x7f);
            else
                own->setRecovery(in.byte() & 1);
            break;
        case SWITCH_TWO:
            if (rtp)
                other->setLossConcealment(in.byte() & 1);
            else
                own->setPlayoutPolicy(in.byte() & 1 ? ombrel::SonraJbuf::PLAYOUT_ADAPTIVE
                                                    : ombrel::SonraJbuf::PLAYOUT_FIXED);
            break;
        }
    }
    pipe->clear(); // the own-format receiver holds the pipe as its clock
    return 0;
}
