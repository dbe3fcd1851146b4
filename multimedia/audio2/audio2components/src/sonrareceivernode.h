#ifndef OMBREL_SONRARECEIVERNODE_H
#define OMBREL_SONRARECEIVERNODE_H

#include "sonrabase.h"
#include "sonrajbuf.h"

namespace ombrel {

struct SonraReceiverNode_p;

// Start of an incoming path in the own packet format: stores the payload of
// every received datagram in a jitter buffer clocked by the pipe's elapsed
// time, and outputs the payload due once per packet period.
//
// Attached to a pipe, the node holds a shared reference to it (its clock):
// detach the node (SonraPipe::removeNode or clear) before dropping the pipe.
// Not thread-safe: the caller serialises dataReceived with the graph.
class SonraReceiverNode : public SonraNode {
public:
    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraReceiverNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned int frameDuration,
                      unsigned int sampleRate);
    ~SonraReceiverNode() override;

    // Audio per packet, ms; also the jitter buffer's period. Restarts the
    // jitter buffer empty; the delays must be multiples of it.
    void setPacketDuration(unsigned int packetDuration);
    // The jitter buffer's delays, ms (SonraJbuf::setDelays); restarts it empty.
    void setDelays(unsigned int initialDelay, unsigned int minDelay, unsigned int maxDelay,
                   unsigned int extraJitterDelay);
    // SonraJbuf::setRecovery: re-anchor on a restarted or re-numbered stream,
    // never move the stream on one stray number. Off by default.
    void setRecovery(bool enabled);
    // SonraJbuf::setPlayoutPolicy: which delay is played; restarts the jitter
    // buffer empty. SonraJbuf::PLAYOUT_INITIAL_DELAY by default.
    void setPlayoutPolicy(SonraJbuf::PlayoutPolicy policy);
    // SonraJbuf::setTimeStretching, for a decoder after the node that plays
    // speech slower or faster (SonraOpusDecNode::setTimeStretching). Off by
    // default; keeps the frames.
    void setTimeStretching(bool enabled);
    // What the frame the node output last asks of such a decoder: the
    // jitter buffer's request when the frame began a packet period, empty
    // otherwise.
    const SonraJbufStretchRequest& stretchRequest() const;
    // One received datagram; fewer than 12 bytes are ignored.
    void dataReceived(boost::shared_ptr<std::vector<char> > data);
    // The jitter buffer's counts.
    SonraJbufStatistics statistics() const;

    // Realigns the packet phase; the jitter buffer keeps its frames.
    void reset(unsigned int offset) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;
    void doSetAudioPipe(boost::shared_ptr<SonraPipe> pipe) override;

private:
    boost::scoped_ptr<SonraReceiverNode_p> d;
};

} // namespace ombrel

#endif
