// The RTP receiver node: arbitrary datagrams (and well-formed RTP packets
// of any payload type) interleaved with graph frames, resets and payload
// type and concealment changes. Oracle: every payload played came in a
// packet of the payload type then accepted, no larger than one frame can
// deliver, and is played no more often than it was received.
#include "fuzzutil.h"
#include "sonrartpreceivernode.h"

#include <map>

using namespace sonrafuzz;

namespace {

enum Op { DATAGRAM, PACKET, FRAME, RESET, PAYLOAD_TYPE, CONCEALMENT, OP_COUNT };

// An RTP header (version 2, big-endian fields) around a payload block.
Frame packet(Reader& in, unsigned& nextSeqNum, unsigned span)
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
    const unsigned rate = in.choice(2) ? 16000 : 8000, duration = 10 * (1 + in.choice(3)); // Hz, ms
    auto receiver = boost::make_shared<ombrel::SonraRtpReceiverNode>(ioService(), duration, rate);
    auto pipe = boost::make_shared<ombrel::SonraPipe>(duration);
    pipe->addNode(receiver);
    std::map<std::vector<char>, unsigned> unplayed; // payload as delivered -> times received, not yet played
    unsigned payloadType = 8, nextSeqNum = 1;
    for (unsigned step = 0; step < 4096 && !in.done(); ++step) {
        const unsigned op = in.choice(OP_COUNT);
        switch (op) {
        case DATAGRAM:
        case PACKET: {
            const Frame datagram = op == PACKET ? packet(in, nextSeqNum, rate * duration / 1000) : in.block(true);
            if (datagram->size() >= 12 && datagram->size() - 12 <= ombrel::SonraRtpReceiverNode::MAX_PAYLOAD_SIZE &&
                (uint8_t((*datagram)[1]) & 0x7f) == payloadType)
                ++unplayed[std::vector<char>(datagram->begin() + 12, datagram->end())];
            receiver->dataReceived(datagram);
            break;
        }
        case FRAME: {
            pipe->processFrame();
            if (const Frame out = receiver->outputData()) {
                FUZZ_CHECK(unplayed[*out] > 0);
                --unplayed[*out];
            }
            break;
        }
        case RESET:
            pipe->reset(0);
            break;
        case PAYLOAD_TYPE:
            payloadType = in.choice(2) ? 8 : in.byte() & 0x7f;
            receiver->setPayloadType(payloadType);
            break;
        case CONCEALMENT:
            receiver->setLossConcealment(in.byte() & 1);
            break;
        }
    }
    return 0;
}
