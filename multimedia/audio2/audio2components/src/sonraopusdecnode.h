#ifndef OMBREL_SONRAOPUSDECNODE_H
#define OMBREL_SONRAOPUSDECNODE_H

#include "sonrabase.h"

namespace ombrel {

struct SonraOpusDecNode_p;

// Decodes the Opus packet its input delivers into one frame of 16-bit mono
// PCM (frameSize() bytes). No loss concealment: a missing packet gives no
// frame, and so does a packet that is corrupt or not exactly one graph
// frame long.
class SonraOpusDecNode : public SonraNode {
public:
    SonraOpusDecNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration, unsigned sampleRate);
    ~SonraOpusDecNode() override;

    // Restarts the stream: the next packet decodes as a first packet.
    void reset(unsigned offset) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraOpusDecNode_p> d;
};

} // namespace ombrel

#endif
