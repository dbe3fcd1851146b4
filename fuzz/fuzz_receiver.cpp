// The own-format receiver node: arbitrary datagrams interleaved with graph
// frames, resets and packet durations that its jitter buffer accepts.
// Oracle: every payload played was received and is played at most as often
// as it was received; payloads come only on the first graph frame of a
// packet period.
#include "fuzzutil.h"
#include "sonrapacket.h"
#include "sonrareceivernode.h"

#include <cstring>
#include <map>

using namespace sonrafuzz;

namespace {

enum Op { DATAGRAM, PACKET, FRAME, RESET, RECOVERY, POLICY, OP_COUNT };

struct Config {
    unsigned frameDuration, packetDuration; // ms
    unsigned delays[4];                     // ms; all 0: the defaults
};

const Config CONFIGS[] = {
    {20, 20, {0, 0, 0, 0}}, {10, 20, {0, 0, 0, 0}}, {20, 60, {0, 0, 0, 0}},
    {10, 30, {0, 0, 0, 0}}, {20, 20, {40, 20, 100, 60}},
};

// A datagram with a well-formed header around a payload block.
Frame packet(Reader& in, unsigned& nextSeqNum)
{
    const unsigned seqNum = nextSeqNum + static_cast<int8_t>(in.byte());
    nextSeqNum = seqNum + 1;
    const unsigned timeStamp = in.u16();
    return ombrel::SonraPacket(in.block(), seqNum, timeStamp).m_data;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Reader in(data, size);
    const Config& config = CONFIGS[in.choice(sizeof(CONFIGS) / sizeof(CONFIGS[0]))];
    auto receiver = boost::make_shared<ombrel::SonraReceiverNode>(ioService(), config.frameDuration, 16000);
    receiver->setPacketDuration(config.packetDuration);
    if (config.delays[0])
        receiver->setDelays(config.delays[0], config.delays[1], config.delays[2], config.delays[3]);
    auto pipe = boost::make_shared<ombrel::SonraPipe>(config.frameDuration);
    pipe->addNode(receiver);

    std::map<std::vector<char>, unsigned> unplayed; // payload -> times received and not yet played
    const unsigned framesPerPacket = config.packetDuration / config.frameDuration;
    unsigned nextSeqNum = 1, phase = 0;
    for (unsigned step = 0; step < 4096 && !in.done(); ++step) {
        const unsigned op = in.choice(OP_COUNT);
        switch (op) {
        case DATAGRAM:
        case PACKET: {
            const Frame datagram = op == PACKET ? packet(in, nextSeqNum) : in.block();
            if (datagram->size() >= ombrel::SonraPacket::HEADER_SIZE)
                ++unplayed[std::vector<char>(datagram->begin() + ombrel::SonraPacket::HEADER_SIZE, datagram->end())];
            receiver->dataReceived(datagram);
            break;
        }
        case FRAME: {
            pipe->processFrame();
            const Frame out = receiver->outputData();
            if (out) {
                FUZZ_CHECK(phase == 0);
                FUZZ_CHECK(unplayed[*out] > 0);
                --unplayed[*out];
            }
            phase = (phase + 1) % framesPerPacket;
            break;
        }
        case RESET:
            pipe->reset(in.byte());
            phase = 0;
            break;
        case RECOVERY:
            receiver->setRecovery(in.byte() & 1);
            break;
        case POLICY:
            receiver->setPlayoutPolicy(in.byte() & 1 ? ombrel::SonraJbuf::PLAYOUT_ADAPTIVE
                                                     : ombrel::SonraJbuf::PLAYOUT_FIXED);
            break;
        }
    }
    pipe->clear(); // the receiver holds the pipe as its clock
    return 0;
}
