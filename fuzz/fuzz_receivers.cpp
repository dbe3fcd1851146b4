// The two receiver nodes, own format (first byte even) or RTP (odd), on
// arbitrary datagrams and well-formed packets interleaved with graph frames,
// resets and each node's switches. Oracle: a payload played was received
// and is played no more often; own format: only on a packet period's first
// graph frame; RTP: only of the accepted payload type and size. RTP with
// decoded output (first byte odd, top bit set): every frame is one graph
// frame of mono PCM or nothing, whatever the packets and the mappings.
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

// The node under test, as the input's first choices build it, and the oracle's state.
struct Target {
    bool rtp = false, decoded = false;
    boost::shared_ptr<ombrel::SonraReceiverNode> own;
    boost::shared_ptr<SonraRtpReceiverNode> other;
    unsigned frameDuration = 0, framesPerPacket = 1, rtpSpan = 0; // ms, graph frames, samples
    std::map<std::vector<char>, unsigned> unplayed; // payload -> times received and not yet played
    unsigned nextSeqNum = 1, phase = 0, payloadType = 8;
};

Target makeTarget(Reader& in)
{
    Target t;
    const unsigned first = in.byte();
    t.rtp = first & 1;
    t.decoded = t.rtp && (first & 0x80);
    if (t.rtp) {
        const unsigned rate = in.choice(2) ? 16000 : 8000; // Hz
        t.frameDuration = 10 * (1 + in.choice(3));
        t.rtpSpan = rate * t.frameDuration / 1000;
        t.other = boost::make_shared<SonraRtpReceiverNode>(ioService(), t.frameDuration, rate);
        if (t.decoded) {
            t.other->setDecodedOutput(true);
            t.other->setSourceLock(in.byte() & 1);
            t.other->mapPayloadType(96, SonraRtpReceiverNode::CODEC_OPUS);
            t.other->mapPayloadType(101, SonraRtpReceiverNode::CODEC_TELEPHONE_EVENT);
        }
        return t;
    }
    const OwnFormatConfig& config = CONFIGS[in.choice(sizeof(CONFIGS) / sizeof(CONFIGS[0]))];
    t.frameDuration = config.frameDuration;
    t.framesPerPacket = config.packetDuration / config.frameDuration;
    t.own = boost::make_shared<ombrel::SonraReceiverNode>(ioService(), t.frameDuration, 16000);
    t.own->setPacketDuration(config.packetDuration);
    if (config.delays[0])
        t.own->setDelays(config.delays[0], config.delays[1], config.delays[2], config.delays[3]);
    return t;
}

// Any datagram, or a well-formed packet; its payload counts as playable
// when the node may play it.
void receive(Target& t, Reader& in, bool wellFormed)
{
    const Frame datagram = !wellFormed ? in.block(t.rtp)
                           : t.rtp     ? rtpPacket(in, t.nextSeqNum, t.rtpSpan)
                                       : ownPacket(in, t.nextSeqNum);
    const std::size_t header = t.rtp ? 12 : ombrel::SonraPacket::HEADER_SIZE; // bytes
    const bool playable = datagram->size() >= header &&
                          (!t.rtp || (datagram->size() - header <= SonraRtpReceiverNode::MAX_PAYLOAD_SIZE &&
                                      (uint8_t((*datagram)[1]) & 0x7f) == t.payloadType));
    if (playable && !t.decoded)
        ++t.unplayed[std::vector<char>(datagram->begin() + header, datagram->end())];
    t.rtp ? t.other->dataReceived(datagram) : t.own->dataReceived(datagram);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Reader in(data, size);
    Target t = makeTarget(in);
    const boost::shared_ptr<ombrel::SonraNode> node = t.rtp ? boost::shared_ptr<ombrel::SonraNode>(t.other) : t.own;
    auto pipe = boost::make_shared<ombrel::SonraPipe>(t.frameDuration);
    pipe->addNode(node);
    for (unsigned step = 0; step < 4096 && !in.done(); ++step) {
        const unsigned op = in.choice(OP_COUNT);
        switch (op) {
        case DATAGRAM:
        case PACKET:
            receive(t, in, op == PACKET);
            break;
        case FRAME:
            pipe->processFrame();
            if (const Frame out = node->outputData()) {
                if (t.decoded) {
                    FUZZ_CHECK(out->size() == node->frameSize());
                } else {
                    FUZZ_CHECK(t.phase == 0 && t.unplayed[*out] > 0);
                    --t.unplayed[*out];
                }
            }
            t.phase = (t.phase + 1) % t.framesPerPacket;
            break;
        case RESET:
            pipe->reset(t.rtp ? 0 : in.byte());
            t.phase = 0;
            break;
        case SWITCH_ONE:
            if (t.decoded)
                t.other->mapPayloadType(in.byte() & 0x7f, SonraRtpReceiverNode::Codec(in.choice(6)));
            else if (t.rtp)
                t.other->setPayloadType(t.payloadType = in.choice(2) ? 8 : in.byte() & 0x7f);
            else
                t.own->setRecovery(in.byte() & 1);
            break;
        case SWITCH_TWO:
            if (t.rtp)
                t.other->setLossConcealment(in.byte() & 1);
            else
                t.own->setPlayoutPolicy(in.byte() & 1 ? ombrel::SonraJbuf::PLAYOUT_ADAPTIVE
                                                      : ombrel::SonraJbuf::PLAYOUT_INITIAL_DELAY);
            break;
        }
    }
    pipe->clear(); // the own-format receiver holds the pipe as its clock
    return 0;
}
