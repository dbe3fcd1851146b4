#ifndef OMBREL_SONRAOPUSDECNODE_H
#define OMBREL_SONRAOPUSDECNODE_H

#include "sonrabase.h"

namespace ombrel {

struct SonraOpusDecNode_p;

// Decodes the Opus packet its input delivers into one frame of 16-bit mono
// PCM (frameSize() bytes). A packet that is corrupt or not exactly one
// graph frame long gives no frame. By default a missing packet gives no
// frame either; loss concealment and in-band FEC recovery are opt-in.
class SonraOpusDecNode : public SonraNode {
public:
    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraOpusDecNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration, unsigned sampleRate);
    ~SonraOpusDecNode() override;

    // Once the stream has started (a packet decoded since construction or
    // the last reset), a graph frame that brings no packet gets libopus's
    // packet-loss concealment, for at most `maxDuration` ms of a gap in
    // whole frames; the rest of the gap gives no frame (silence), and the
    // next packet decodes as usual. 0, the default, turns it off.
    void setConcealment(unsigned maxDuration);

    // When on, each packet is held back for one graph frame, so that a
    // packet lost on the way can be rebuilt from the redundancy its
    // successor carries (see SonraOpusEncNode::setInbandFec): the output
    // then lags the input by one frame. A successor without redundancy
    // gives libopus's concealment instead; a lost packet whose successor is
    // missing too is concealed as setConcealment() says. Off by default.
    // Set it before the stream runs: a packet held when it is turned off is
    // dropped.
    void setFecRecovery(bool enabled);

    // Restarts the stream: the next packet decodes as a first packet.
    void reset(unsigned offset) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraOpusDecNode_p> d;
};

} // namespace ombrel

#endif
