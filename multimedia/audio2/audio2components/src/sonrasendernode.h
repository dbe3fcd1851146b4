#ifndef OMBREL_SONRASENDERNODE_H
#define OMBREL_SONRASENDERNODE_H

#include "sonrabase.h"

#include <boost/function.hpp>

namespace ombrel {

struct SonraSenderNode_p;

// End of an outgoing path in the own packet format: wraps each encoded
// frame of its input, in place, into a packet with the next sequence number
// and the stream time, and hands it to the send handler. Outputs nothing.
class SonraSenderNode : public SonraNode {
public:
    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraSenderNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned int frameDuration,
                    unsigned int sampleRate);
    ~SonraSenderNode() override;

    // Runs on the graph thread, inside doProcess(); replace or clear it only
    // from that thread or while the graph is stopped.
    void setSendHandler(boost::function<void (boost::shared_ptr<std::vector<char> >)> handler);
    // Packets are dropped from now on.
    void clearSendHandler();

    // The stream time advances by one frame duration per tick.
    void timerTick() override;
    // Adds `ms` to the stream time; the sequence number is kept.
    void reset(unsigned int ms) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraSenderNode_p> d;
};

} // namespace ombrel

#endif
