#ifndef OMBREL_SONRAOPUSENCNODE_H
#define OMBREL_SONRAOPUSENCNODE_H

#include "sonrabase.h"

namespace ombrel {

struct SonraOpusEncNode_p;

// Encodes its input's 16-bit mono PCM into Opus (VoIP application, libopus
// defaults unless in-band FEC is turned on). Each whole frame of
// frameSize() bytes becomes one packet; several frames in one input give
// their packets laid end to end, with no length prefix. A trailing partial
// frame is dropped.
class SonraOpusEncNode : public SonraNode {
public:
    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraOpusEncNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration, unsigned sampleRate);
    ~SonraOpusEncNode() override;

    // In-band FEC, off by default: with an expected packet loss of 1 to
    // 100 %, each packet also carries a coarse copy of the frame before it,
    // from which a decoder can rebuild that frame when its own packet is lost
    // (SonraOpusDecNode::setFecRecovery); libopus spends bits on it as the
    // loss rises. 0 turns it off again. Only speech coded by Opus's SILK
    // layer carries it. The setting survives reset(). Returns 0, or a
    // negative libopus error code (a loss above 100 %, no encoder).
    int setInbandFec(unsigned expectedLossPercent);

    // Restarts the stream: the next packet is encoded as a first packet.
    void reset(unsigned offset) override;
    // Empty when there is no input, no whole frame in it, or libopus refuses
    // the frame duration (30 ms, for one; 2.5, 5, 10, 20, 40 and 60 ms work).
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraOpusEncNode_p> d;
};

} // namespace ombrel

#endif
