#ifndef OMBREL_SONRARTPRECEIVERNODE_H
#define OMBREL_SONRARTPRECEIVERNODE_H

#include "sonrabase.h"

namespace ombrel {

struct SonraRtpReceiverNode_p;

// Start of an incoming RTP path: stores the payload of every received
// datagram of the accepted payload type in SpeexDSP's jitter buffer, keyed
// by the RTP timestamp, and outputs one payload per graph frame once the
// buffer delivers. Each packet is taken to span one graph frame.
//
// Not thread-safe: the caller serialises dataReceived with the graph.
class SonraRtpReceiverNode : public SonraNode {
public:
    // The largest payload, bytes, that one frame can deliver. A larger
    // payload is dropped whole on receipt: a cut codec frame is no frame.
    static const unsigned MAX_PAYLOAD_SIZE = 2048;

    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraRtpReceiverNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned int frameDuration,
                         unsigned int sampleRate);
    ~SonraRtpReceiverNode() override;

    // Only packets of this type (8 by default) are accepted from the next
    // datagram on; packets already buffered stay.
    void setPayloadType(unsigned int payloadType);
    // Off by default. SpeexDSP reports a missing packet with the span of its
    // step (five frames), so one lost packet stalls the play pointer until
    // the buffer resets twenty frames later and throws away what queued
    // meanwhile. On, a missing packet spans one frame and the stream goes
    // on with the next packet.
    void setLossConcealment(bool on);
    // One received datagram. Short ones (under 12 bytes), other payload
    // types and payloads over MAX_PAYLOAD_SIZE are ignored.
    void dataReceived(boost::shared_ptr<std::vector<char> > data);

    // Empties the jitter buffer; the argument is ignored.
    void reset(unsigned int offset) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraRtpReceiverNode_p> d;
};

} // namespace ombrel

#endif
