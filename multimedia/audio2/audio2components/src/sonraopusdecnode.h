#ifndef OMBREL_SONRAOPUSDECNODE_H
#define OMBREL_SONRAOPUSDECNODE_H

#include "sonrabase.h"

namespace ombrel {

struct SonraJbufStretchRequest;
struct SonraOpusDecNode_p;
class SonraReceiverNode;

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

    // Time stretching (off by default): the jitter buffer of `source`, the
    // receiver this node decodes for, changes its delay by asking for
    // speech played slower or faster (SonraJbuf::setTimeStretching; the
    // source's own switch must be on too). A frame asked to last two
    // periods is stretched so, and its second half plays in the next period
    // that brings no packet; a frame a descent passed over is decoded with
    // the frame after it, and the two are played in one period. Pitch stays;
    // the ends join the frames around them without a step. An empty pointer
    // turns it off; the node keeps only a weak reference to the source.
    void setTimeStretching(const boost::shared_ptr<SonraReceiverNode>& source);

    // Restarts the stream: the next packet decodes as a first packet.
    void reset(unsigned offset) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    typedef boost::shared_ptr<std::vector<char> > Frame;
    Frame decodeNext(const Frame& packet);
    Frame stretchedFrame(const Frame& input, const SonraJbufStretchRequest& request);
    Frame stretch(const std::vector<char>& pcm, std::size_t outSamples);
    Frame giveOut(const Frame& decoded);

    boost::scoped_ptr<SonraOpusDecNode_p> d;
};

} // namespace ombrel

#endif
