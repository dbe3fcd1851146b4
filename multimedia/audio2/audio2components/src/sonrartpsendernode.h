#ifndef OMBREL_SONRARTPSENDERNODE_H
#define OMBREL_SONRARTPSENDERNODE_H

#include "sonrabase.h"

#include <boost/function.hpp>

namespace ombrel {

struct SonraRtpSenderNode_p;

// End of an outgoing RTP path: wraps each encoded frame of its input, in
// place, into an RTP packet (payload type 8) with the next sequence number,
// the RTP timestamp in samples and the node's SSRC, and hands it to the send
// handler. Outputs nothing.
//
// The SSRC is drawn once, at construction, from time() and two rand() calls
// folded through MD5; the constructor then reseeds the C library's
// process-wide generator with srand(time()). So constructing a node changes
// what rand() returns to everyone else in the process, and nodes built
// within the same second after the first share one SSRC. Construct them on
// one thread at a time.
class SonraRtpSenderNode : public SonraNode {
public:
    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraRtpSenderNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned int frameDuration,
                       unsigned int sampleRate);
    ~SonraRtpSenderNode() override;

    // Stored only: every packet carries payload type 8.
    void setPayloadType(unsigned int payloadType);
    // Opt-in: every packet from now on carries `payloadType` (0 to 127; for
    // instance 0 for mu-law, or the dynamic type agreed for Opus). Until it
    // is called, packets carry 8.
    void setWirePayloadType(unsigned int payloadType);
    // Opt-in: the RTP timestamp counts at `clockRate` Hz instead of the
    // graph's sample rate (Opus is stamped at 48000 Hz whatever it was
    // encoded at); 0 goes back to the graph's rate. reset() offsets are
    // then counted at that clock too.
    void setClockRate(unsigned int clockRate);
    // Runs on the graph thread, inside doProcess(); replace or clear it only
    // from that thread or while the graph is stopped.
    void setSendHandler(boost::function<void (boost::shared_ptr<std::vector<char> >)> handler);
    // Packets are dropped from now on.
    void clearSendHandler();

    // The RTP timestamp advances by one frame's samples per tick.
    void timerTick() override;
    // Adds `offset`, in samples, to the RTP timestamp; the sequence number is kept.
    void reset(unsigned int offset) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraRtpSenderNode_p> d;
};

} // namespace ombrel

#endif
